// SPDX-License-Identifier: MIT
//
// Random access to a file that nobody may change, and a layer over it that keeps what SQLite writes in memory.

/** What is read from: a slice of a dropped file, or anything else of fixed bytes. */
export interface Bytes {
    readonly size: number;
    /** So many from `offset` on, all of them within the size. Throws when the medium does. */
    read(offset: number, length: number): Uint8Array;
}

const blockSize = 16 * 1024; // a slice costs about a millisecond, however small
const smallestWindow = 512 * 1024;
const largestWindow = 8 * 1024 * 1024;
const blocksKept = 2048;
const sequenceBeforeWindow = 4;
const nearby = 256 * 1024; // what is skipped costs less than another slice
const blocksBeforeWhole = 32; // a file of which so much is asked is read whole, if it may be

/** What one slice brought. */
interface Part {
    readonly begin: number;
    readonly end: number;
    readonly bytes: Uint8Array;
}

const nowhere: Part = {begin: 0, end: 0, bytes: new Uint8Array(0)};

function isWithin(at: number, {begin, end}: Part): boolean {
    return at >= begin && at < end;
}

function isAfter(begin: number, end: number): boolean {
    return begin >= end && begin < end + nearby;
}

function sumOf(bytes: Uint8Array): number {
    const words = new Uint32Array(bytes.buffer, bytes.byteOffset, Math.floor(bytes.length / 4));
    let sum = 0x811c9dc5;
    for (let i = 0; i < words.length; ++i) sum = Math.imul(sum ^ words[i]!, 0x01000193);
    return sum | 1; // 0: never read
}

/**
 * Keeps what was read last, and reads ahead when the reads follow each other: the further, the longer they do. Not
 * every browser refuses to read a file that was written meanwhile: what is read again and is other than before throws.
 */
export class CachedBytes {
    private readonly blocks = new Map<number, Part>();
    private window = nowhere;
    private windowBefore = nowhere; // a page of the tree that lies ahead comes between pages that lie before it
    private expected = 0;
    private inSequence = 0;
    private misses = 0;
    private readonly sums: Int32Array; // of each block that was read

    /** `mayBeWhole`: there is room in memory for all of it. */
    constructor(
        private readonly source: Bytes,
        private readonly mayBeWhole: boolean,
    ) {
        this.sums = new Int32Array(Math.ceil(source.size / blockSize));
    }

    read(offset: number, target: Uint8Array): void {
        for (let done = 0; done < target.length;) {
            const at = offset + done;
            const {begin, bytes} = this.partWith(at);
            const found = bytes.subarray(at - begin, at - begin + target.length - done);
            target.set(found, done);
            done += found.length;
        }
    }

    private partWith(at: number): Part {
        for (const window of [this.window, this.windowBefore]) {
            if (isWithin(at, window)) return window;
        }
        const begin = at - (at % blockSize);
        const kept = this.blocks.get(begin);
        if (kept) {
            this.blocks.delete(begin); // the least recently used is the first
            this.blocks.set(begin, kept);
            return kept;
        }
        if (this.mayBeWhole && ++this.misses > blocksBeforeWhole) return (this.window = this.part(0, this.source.size));
        // A page of the tree that lies elsewhere does not end a sequence.
        const {end, bytes} = this.window;
        if (bytes.length > 0 && isAfter(begin, end)) return this.nextWindow(end, 2 * bytes.length);
        this.inSequence = isAfter(begin, this.expected) ? this.inSequence + 1 : 0;
        this.expected = begin + blockSize;
        if (this.inSequence >= sequenceBeforeWindow) return this.nextWindow(begin, smallestWindow);
        const block = this.part(begin, blockSize);
        this.blocks.set(begin, block);
        if (this.blocks.size > blocksKept) this.blocks.delete(this.blocks.keys().next().value!);
        return block;
    }

    // Not from where it is asked for: what lies between may come later.
    private nextWindow(begin: number, wanted: number): Part {
        const window = this.part(begin, Math.min(wanted, largestWindow));
        this.windowBefore = this.window;
        return (this.window = window);
    }

    private part(begin: number, wanted: number): Part {
        const bytes = this.source.read(begin, Math.min(wanted, this.source.size - begin));
        this.compare(begin, bytes);
        return {begin, end: begin + bytes.length, bytes};
    }

    private compare(begin: number, bytes: Uint8Array): void {
        for (let at = 0; at < bytes.length; at += blockSize) {
            const block = (begin + at) / blockSize;
            const sum = sumOf(bytes.subarray(at, at + blockSize));
            if (this.sums[block] !== 0 && this.sums[block] !== sum) throw new Error('other bytes than before');
            this.sums[block] = sum;
        }
    }
}

const pageSize = 4096;

/** A file as SQLite sees it. Pages that were written are kept; the base stays as it is. */
export class StoredFile {
    private readonly written = new Map<number, Uint8Array>();
    private readonly base: CachedBytes | null;
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
