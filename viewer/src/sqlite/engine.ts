// SPDX-License-Identifier: MIT
//
// SQLite, and the file system that it sees: the files that were dropped, under names of our own, and what it writes
// beside them, in memory.
import init from '@sqlite.org/sqlite-wasm';
import type {Sqlite3Static} from '@sqlite.org/sqlite-wasm';

import {StoredFile} from './storage.js';
import type {Bytes} from './storage.js';

export type Capi = Sqlite3Static['capi'];

/** The functions of the module itself: they take and give addresses, where the wrappers make a string of each cell. */
export interface RawFunctions {
    sqlite3_step(statement: number): number;
    sqlite3_reset(statement: number): number;
    sqlite3_bind_text(statement: number, place: number, text: number, size: number, destructor: number): number;
    sqlite3_column_type(statement: number, column: number): number;
    sqlite3_column_text(statement: number, column: number): number;
    sqlite3_column_blob(statement: number, column: number): number;
    sqlite3_column_bytes(statement: number, column: number): number;
    sqlite3_column_double(statement: number, column: number): number;
    sqlite3_column_int64(statement: number, column: number): bigint;
}

const fileSystem = 'dropped';
const ok = 0;
const heldWhole = 64 * 1024 * 1024; // bytes of files that may be in memory whole, all together

export class Engine {
    readonly capi: Capi;
    readonly wasm: Sqlite3Static['wasm'];
    readonly raw: RawFunctions;
    private readonly files = new Map<string, StoredFile>();
    private readonly open = new Map<number, StoredFile>();
    private failure: unknown = null;
    private given = 0; // bytes of all files

    private constructor(sqlite3: Sqlite3Static) {
        this.capi = sqlite3.capi;
        this.wasm = sqlite3.wasm;
        this.raw = sqlite3.wasm.exports as unknown as RawFunctions;
        this.install(sqlite3);
    }

    /** `module`: the bytes of SQLite's WebAssembly. */
    static async make(module: Uint8Array): Promise<Engine> {
        const silent = (): void => {};
        const start = init as unknown as (options: object) => Promise<Sqlite3Static>;
        const options = {wasmBinary: module, print: silent, printErr: silent};
        return new Engine(await start(options));
    }

    add(name: string, bytes: Bytes): void {
        this.given += bytes.size;
        this.files.set(name, new StoredFile(bytes, this.given <= heldWhole));
    }

    file(name: string): StoredFile | undefined {
        return this.files.get(name);
    }

    /** What the medium said when the last read failed; SQLite itself only knows that one did. */
    takeFailure(): unknown {
        const failure = this.failure;
        this.failure = null;
        return failure;
    }

    get heap(): Uint8Array {
        return this.wasm.heap8u() as Uint8Array;
    }

    get fileSystem(): string {
        return fileSystem;
    }

    private guarded(code: number, body: () => number | void): number {
        try {
            return body() ?? ok;
        } catch (error) {
            this.failure = error;
            return code;
        }
    }

    private install(sqlite3: Sqlite3Static): void {
        const {capi, wasm} = sqlite3;
        const at = (pointer: number, size: number): Uint8Array => this.heap.subarray(pointer, pointer + size);
        const io = new (capi as any).sqlite3_io_methods();
        io.$iVersion = 1; // without shared memory: SQLite keeps the index of a write-ahead log in its own
        const ioMethods = {
            xClose: (file: number) => {
                this.open.delete(file);
                return ok;
            },
            xRead: (file: number, target: number, size: number, offset: bigint) =>
                this.guarded(capi.SQLITE_IOERR_READ, () => {
                    const count = this.open.get(file)!.read(Number(offset), at(target, size));
                    return count < size ? capi.SQLITE_IOERR_SHORT_READ : ok;
                }),
            xWrite: (file: number, source: number, size: number, offset: bigint) =>
                this.guarded(capi.SQLITE_IOERR_WRITE, () =>
                    this.open.get(file)!.write(Number(offset), at(source, size)),
                ),
            xTruncate: (file: number, size: bigint) =>
                this.guarded(capi.SQLITE_IOERR_TRUNCATE, () => this.open.get(file)!.truncate(Number(size))),
            xSync: () => ok,
            xFileSize: (file: number, size: number) => {
                (wasm as any).poke64(size, BigInt(this.open.get(file)!.size));
                return ok;
            },
            xLock: () => ok,
            xUnlock: () => ok,
            xCheckReservedLock: (_file: number, result: number) => {
                (wasm as any).poke32(result, 0);
                return ok;
            },
            xFileControl: () => capi.SQLITE_NOTFOUND,
            xSectorSize: () => 4096,
            xDeviceCharacteristics: () => 0,
        };
        const vfs = new (capi as any).sqlite3_vfs();
        vfs.$iVersion = 1;
        vfs.$szOsFile = (capi as any).sqlite3_file.structInfo.sizeof;
        vfs.$mxPathname = 512;
        const vfsMethods = {
            xOpen: (_vfs: number, path: number, file: number, flags: number, outFlags: number) => {
                const name = path ? (wasm.cstrToJs(path) as string) : '';
                let stored = name ? this.files.get(name) : new StoredFile(null);
                if (!stored && !(flags & capi.SQLITE_OPEN_CREATE)) return capi.SQLITE_CANTOPEN;
                stored ??= new StoredFile(null);
                if (name) this.files.set(name, stored);
                this.open.set(file, stored);
                const handle = new (capi as any).sqlite3_file(file);
                handle.$pMethods = io.pointer;
                handle.dispose();
                if (outFlags) (wasm as any).poke32(outFlags, flags);
                return ok;
            },
            xDelete: (_vfs: number, path: number) => {
                this.files.delete(wasm.cstrToJs(path) as string);
                return ok;
            },
            xAccess: (_vfs: number, path: number, _flags: number, result: number) => {
                (wasm as any).poke32(result, this.files.has(wasm.cstrToJs(path) as string) ? 1 : 0);
                return ok;
            },
            xFullPathname: (_vfs: number, path: number, size: number, result: number) =>
                wasm.cstrncpy(result as any, path as any, size) < size ? ok : capi.SQLITE_CANTOPEN,
            xRandomness: (_vfs: number, size: number, target: number) => {
                at(target, size).fill(7); // names of temporary files alone need it
                return size;
            },
            xSleep: () => ok,
            xCurrentTime: (_vfs: number, target: number) => {
                (wasm as any).poke(target, 2440587.5 + Date.now() / 86400000, 'double');
                return ok;
            },
            xGetLastError: () => ok,
        };
        (sqlite3 as any).vfs.installVfs({
            io: {struct: io, methods: ioMethods},
            vfs: {struct: vfs, methods: vfsMethods, name: fileSystem},
        });
    }
}
