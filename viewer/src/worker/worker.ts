// SPDX-License-Identifier: MIT
//
// Where files are read: a source over what was dropped, asked by messages.
import {LocalSource} from '../reading/local.js';
import {Engine} from '../sqlite/engine.js';
import type {Bytes} from '../sqlite/storage.js';
import type {Question, Reply} from './messages.js';

// FileReaderSync and the two functions below are a worker's own.
declare class FileReaderSync {
    readAsArrayBuffer(blob: Blob): ArrayBuffer;
}
const port = self as unknown as {
    postMessage(reply: Reply): void;
    onmessage: ((event: MessageEvent<Question>) => void) | null;
};

class FileBytes implements Bytes {
    private readonly reader = new FileReaderSync();

    constructor(private readonly file: File) {}

    get size(): number {
        return this.file.size;
    }

    read(offset: number, length: number): Uint8Array {
        const bytes = new Uint8Array(this.reader.readAsArrayBuffer(this.file.slice(offset, offset + length)));
        if (bytes.length !== length) throw new Error('the file became shorter');
        return bytes;
    }
}

// A timer would wait four milliseconds each time.
const channel = new MessageChannel();
const waiting: (() => void)[] = [];
channel.port1.onmessage = () => waiting.shift()?.();
const pause = (): Promise<void> =>
    new Promise((resume) => {
        waiting.push(resume);
        channel.port2.postMessage(null);
    });

let engine: Engine | null = null;
let source: LocalSource | null = null;
const running = new Map<number, AbortController>();

async function answer(question: Question): Promise<unknown> {
    if (question.verb === 'start') {
        engine = await Engine.make(new Uint8Array(question.module));
        return null;
    }
    if (question.verb === 'give') {
        source = new LocalSource(
            engine!,
            question.files.map((file) => ({name: file.name, bytes: new FileBytes(file)})),
            pause,
        );
        return null;
    }
    const {signal} = running.get(question.id)!;
    const seen = (part: unknown): void => port.postMessage({id: question.id, part});
    switch (question.verb) {
        case 'open':
            return source!.open();
        case 'tables':
            return source!.tables();
        case 'overview':
            return source!.overview(question.table, seen, signal);
        case 'trend':
            return source!.trend(question.query, seen, signal);
        case 'rows':
            return source!.rows(question.query, seen, signal);
    }
}

port.onmessage = ({data}) => {
    if (data.verb === 'cancel') {
        running.get(data.id)?.abort();
        return;
    }
    running.set(data.id, new AbortController());
    answer(data)
        .then(
            (done) => port.postMessage({id: data.id, done}),
            (error: unknown) =>
                port.postMessage({
                    id: data.id,
                    error: error instanceof Error ? error.message : String(error),
                }),
        )
        .finally(() => running.delete(data.id));
};
