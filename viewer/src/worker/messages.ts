// SPDX-License-Identifier: MIT
import type {RowQuery, TrendQuery} from '../reading/source.js';

/** What the page asks the worker; `cancel` names the question that nobody waits for any more. */
export type Question = {readonly id: number} & (
    | {readonly verb: 'start'; readonly module: ArrayBuffer}
    | {readonly verb: 'give'; readonly files: readonly File[]}
    | {readonly verb: 'open'}
    | {readonly verb: 'tables'}
    | {readonly verb: 'overview'; readonly table: string}
    | {readonly verb: 'trend'; readonly query: TrendQuery}
    | {readonly verb: 'rows'; readonly query: RowQuery}
    | {readonly verb: 'cancel'}
);

/** An answer so far, the last one, or why there is none. */
export type Reply = {readonly id: number} & (
    {readonly part: unknown} | {readonly done: unknown} | {readonly error: string}
);
