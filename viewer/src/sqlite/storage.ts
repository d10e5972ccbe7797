// SPDX-License-Identifier: MIT
//
// Random access to a file that nobody may change, and a layer over it that keeps what SQLite writes in memory.

/** What is read from: a slice of a dropped file, or anything else of fixed bytes. */
export interface Bytes {
    readonly size: number;
    /** Fills `target` from `offset` on; both are within the size. Throws when the medium does. */
    read(offset: number, target: Uint8Array): void;
}

const blockSize = 16 * 1024; // a slice costs about a millisecond, however small
const smallestWindow = 512 * 1024;
const largestWindow = 8 * 1024 * 1024;
const blocksKept = 2048;
const sequenceBeforeWindow = 4;
const nearby = 256 * 1024; // what is skipped costs less than another slice
const blocksBeforeWhole = 32; // a file of which so much is asked is read whole, if it may be

function isAfter(begin: number, end: number): boolean {
    return begin >= end && begin < end + nearby;
}

/** Keeps what was read last, and reads ahead when the reads follow each other: the further, the longer they do. */
export class CachedBytes implements Bytes {
    readonly size: number;
    private readonly blocks = new Map<number, Uint8Array>();
    private room: Uint8Array = new Uint8Array(0); // of the window; allocated again only when it grows
    private window: Uint8Array = this.room;
    private windowBegin = 0;
    private expected = 0;
    private inSequence = 0;
    private misses = 0;

    /** `mayBeWhole`: there is room in memory for all of it. */
    constructor(
        private readonly source: Bytes,
        private readonly mayBeWhole: boolean,
    ) {
        this.size = source.size;
    }

    read(offset: number, target: Uint8Array): void {
        for (let done = 0; done < target.length;) {
            const at = offset + done;
            const [bytes, begin] = this.blockWith(at);
            const part = bytes.subarray(at - begin, Math.min(bytes.length, at - begin + target.length - done));
            target.set(part, done);
            done += part.length;
        }
    }

    private blockWith(at: number): [Uint8Array, number] {
        const windowEnd = this.windowBegin + this.window.length;
        if (at >= this.windowBegin && at < windowEnd) return [this.window, this.windowBegin];
        const begin = at - (at % blockSize);
        const kept = this.blocks.get(begin);
        if (kept) {
            this.blocks.delete(begin); // the least recently used is the first
            this.blocks.set(begin, kept);
            return [kept, begin];
        }
        if (this.mayBeWhole && ++this.misses > blocksBeforeWhole) return this.readWindow(0, this.size);
        // A page of the tree that lies elsewhere does not end a sequence.
        if (this.window.length > 0 && isAfter(begin, windowEnd))
            return this.readWindow(begin, Math.min(2 * this.window.length, largestWindow));
        this.inSequence = isAfter(begin, this.expected) ? this.inSequence + 1 : 0;
        this.expected = begin + blockSize;
        if (this.inSequence >= sequenceBeforeWindow) return this.readWindow(begin, smallestWindow);
        const block = new Uint8Array(Math.min(blockSize, this.size - begin));
        this.source.read(begin, block);
        this.blocks.set(begin, block);
        if (this.blocks.size > blocksKept) this.blocks.delete(this.blocks.keys().next().value!);
        return [block, begin];
    }

    private readWindow(begin: number, wanted: number): [Uint8Array, number] {
        const length = Math.min(wanted, this.size - begin);
        if (this.room.length < length) this.room = new Uint8Array(length);
        this.window = new Uint8Array(0); // should reading fail
        const window = this.room.subarray(0, length);
        for (let at = 0; at < length; at += largestWindow)
            this.source.read(begin + at, window.subarray(at, at + largestWindow));
        this.window = window;
        this.windowBegin = begin;
        return [window, begin];
    }
}

const pageSize = 4096;

/** A file as SQLite sees it. Pages that were written are kept; the base stays as it is. */
export class StoredFile {
    private readonly written = new Map<number, Uint8Array>();
    private readonly base: Bytes | null;
    private baseSize: number; // of the base, what was not cut off
    private length: number;

    /** `mayBeWhole`: there is room in memory for all of the base. */
    constructor(base: Bytes | null, mayBeWhole = false) {
        this.base = base && new CachedBytes(base, mayBeWhole);
        this.baseSize = base?.size ?? 0;
        this.length = this.baseSize;
    }

    get size(): number {
        return this.length;
    }

    get hasChanges(): boolean {
        return this.written.size > 0;
    }

    /** The number of bytes that are there; the rest of `target` is zero. */
    read(offset: number, target: Uint8Array): number {
        const count = Math.max(0, Math.min(target.length, this.length - offset));
        if (this.written.size === 0) this.readBase(offset, target.subarray(0, count));
        else this.readPages(offset, target.subarray(0, count));
        target.fill(0, count);
        return count;
    }

    write(offset: number, source: Uint8Array): void {
        for (let done = 0; done < source.length;) {
            const at = offset + done;
            const page = this.pageWith(at);
            const part = source.subarray(done, done + pageSize - (at % pageSize));
            page.set(part, at % pageSize);
            done += part.length;
        }
        this.length = Math.max(this.length, offset + source.length);
    }

    truncate(size: number): void {
        this.length = Math.min(this.length, size);
        this.baseSize = Math.min(this.baseSize, size);
        for (const [begin, page] of this.written) {
            if (begin >= size) this.written.delete(begin);
            else if (begin + pageSize > size) page.fill(0, size - begin);
        }
    }

    private readPages(offset: number, target: Uint8Array): void {
        for (let done = 0; done < target.length;) {
            const at = offset + done;
            const part = target.subarray(done, done + pageSize - (at % pageSize));
            const page = this.written.get(at - (at % pageSize));
            if (page) part.set(page.subarray(at % pageSize, (at % pageSize) + part.length));
            else this.readBase(at, part);
            done += part.length;
        }
    }

    private readBase(offset: number, target: Uint8Array): void {
        const count = Math.max(0, Math.min(target.length, this.baseSize - offset));
        if (count > 0) this.base!.read(offset, target.subarray(0, count));
        target.fill(0, count);
    }

    private pageWith(at: number): Uint8Array {
        const begin = at - (at % pageSize);
        let page = this.written.get(begin);
        if (!page) {
            page = new Uint8Array(pageSize);
            this.readBase(begin, page);
            this.written.set(begin, page);
        }
        return page;
    }
}
