// SPDX-License-Identifier: MIT
//
// The page's side of the worker.
import type {
    FileInfo,
    Overview,
    RowQuery,
    RowsAnswer,
    Seen,
    Source,
    TableInfo,
    TrendAnswer,
    TrendQuery,
} from '../reading/source.js';
import type {Question, Reply} from './messages.js';

interface Waiting {
    seen(part: unknown): void;
    done(answer: unknown): void;
    failed(error: Error): void;
}

type WithoutId<Each> = Each extends unknown ? Omit<Each, 'id'> : never;

/** Nobody waits for the answer any more. */
export function isCancelled(error: unknown): boolean {
    return error instanceof DOMException && error.name === 'AbortError';
}

/** A source in a worker of its own; close() ends it. */
export class WorkerSource implements Source {
    private readonly worker: Worker;
    private readonly waiting = new Map<number, Waiting>();
    private lastId = 0;

    private constructor(script: Blob) {
        const address = URL.createObjectURL(script);
        this.worker = new Worker(address);
        this.worker.onmessage = ({data}: MessageEvent<Reply>) => this.take(data);
        this.worker.onerror = (event) => this.fail(new Error(event.message || 'the worker could not be started'));
        URL.revokeObjectURL(address);
    }

    /** Without files as yet. `script`: the worker's. `module`: SQLite's. */
    static async start(script: Blob, module: ArrayBuffer): Promise<WorkerSource> {
        const source = new WorkerSource(script);
        await source.ask({verb: 'start', module});
        return source;
    }

    /** `files`: with what lies beside them; once, before anything is asked. */
    give(files: readonly File[]): Promise<void> {
        return this.ask({verb: 'give', files});
    }

    close(): void {
        this.worker.terminate();
        this.fail(new DOMException('closed', 'AbortError'));
    }

    open(): Promise<readonly FileInfo[]> {
        return this.ask({verb: 'open'});
    }

    tables(): Promise<readonly TableInfo[]> {
        return this.ask({verb: 'tables'});
    }

    overview(table: string, seen: Seen<Overview>, signal?: AbortSignal): Promise<Overview> {
        return this.ask({verb: 'overview', table}, seen, signal);
    }

    trend(query: TrendQuery, seen: Seen<TrendAnswer>, signal?: AbortSignal): Promise<TrendAnswer> {
        return this.ask({verb: 'trend', query}, seen, signal);
    }

    rows(query: RowQuery, seen: Seen<RowsAnswer>, signal?: AbortSignal): Promise<RowsAnswer> {
        return this.ask({verb: 'rows', query}, seen, signal);
    }

    private ask<Answer>(
        question: WithoutId<Question>,
        seen: Seen<Answer> = () => undefined,
        signal?: AbortSignal,
    ): Promise<Answer> {
        const id = ++this.lastId;
        return new Promise((resolve, reject) => {
            const cancel = (): void => {
                this.waiting.delete(id);
                this.worker.postMessage({id, verb: 'cancel'} satisfies Question);
                reject(new DOMException('cancelled', 'AbortError'));
            };
            if (signal?.aborted) return cancel();
            signal?.addEventListener('abort', cancel, {once: true});
            const end = (): void => signal?.removeEventListener('abort', cancel);
            this.waiting.set(id, {
                seen: (part) => seen(part as Answer),
                done: (answer) => {
                    end();
                    resolve(answer as Answer);
                },
                failed: (error) => {
                    end();
                    reject(error);
                },
            });
            this.worker.postMessage({...question, id});
        });
    }

    private take(reply: Reply): void {
        const waiting = this.waiting.get(reply.id);
        if (!waiting) return;
        if ('part' in reply) return waiting.seen(reply.part);
        this.waiting.delete(reply.id);
        if ('error' in reply) waiting.failed(new Error(reply.error));
        else waiting.done(reply.done);
    }

    private fail(error: Error): void {
        const all = [...this.waiting.values()];
        this.waiting.clear();
        all.forEach((each) => each.failed(error));
    }
}
