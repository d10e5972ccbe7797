// SPDX-License-Identifier: MIT

/** Something that takes long, in small pieces: between two of them others may be answered. */
export type Work<Result> = Generator<void, Result, void>;

/** Does all of it at once. */
export function finish<Result>(work: Work<Result>): Result {
    for (;;) {
        const step = work.next();
        if (step.done) return step.value;
    }
}
