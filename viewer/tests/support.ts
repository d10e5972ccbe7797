// SPDX-License-Identifier: MIT
import {readFileSync} from 'node:fs';
import {createRequire} from 'node:module';

import {LocalSource} from '../src/reading/local.js';
import type {GivenFile} from '../src/reading/local.js';
import {Engine} from '../src/sqlite/engine.js';
import type {Bytes} from '../src/sqlite/storage.js';

const module = readFileSync(createRequire(import.meta.url).resolve('@sqlite.org/sqlite-wasm/sqlite3.wasm'));

export function engine(): Promise<Engine> {
    return Engine.make(module);
}

export class MemoryBytes implements Bytes {
    readonly size: number;

    constructor(readonly bytes: Uint8Array) {
        this.size = bytes.length;
    }

    read(offset: number, length: number): Uint8Array {
        return this.bytes.slice(offset, offset + length);
    }
}

/** What SQLite has in files after some statements: the database, and what is beside it. */
export interface MadeFiles {
    readonly main: Uint8Array;
    readonly wal: Uint8Array | null;
    readonly journal: Uint8Array | null;
}

/**
 * A database made by these statements, each a text of its own, as a program that dies then leaves it: a transaction
 * that is open stays half done, a write-ahead log stays beside the file.
 */
export async function made(statements: readonly string[]): Promise<MadeFiles> {
    const maker = await engine();
    const {capi, wasm} = maker;
    maker.add('/made', new MemoryBytes(new Uint8Array(0)));
    const scope = wasm.scopedAllocPush();
    const result = (wasm as any).scopedAllocPtr();
    capi.sqlite3_open_v2(
        '/made',
        result,
        capi.SQLITE_OPEN_READWRITE | capi.SQLITE_OPEN_CREATE,
        maker.fileSystem as any,
    );
    const database = wasm.peekPtr(result) as any;
    wasm.scopedAllocPop(scope);
    for (const statement of ['pragma locking_mode=exclusive', ...statements]) {
        const code = capi.sqlite3_exec(database, statement, 0 as any, 0 as any, 0 as any);
        if (code !== 0) throw new Error(`${capi.sqlite3_errmsg(database)}: ${statement}`);
    }
    const bytesOf = (name: string): Uint8Array | null => {
        const file = maker.file(name);
        if (!file || file.size === 0) return null;
        const bytes = new Uint8Array(file.size);
        file.read(0, bytes);
        return bytes;
    };
    const journal = bytesOf('/made-journal'); // of a transaction that is done only the beginning is overwritten
    return {
        main: bytesOf('/made') ?? new Uint8Array(0),
        wal: bytesOf('/made-wal'),
        journal: journal && journal[0] !== 0 ? journal : null,
    };
}

export function filesOf(files: MadeFiles, name = 'case.db', beside = true): GivenFile[] {
    const given: GivenFile[] = [{name, bytes: new MemoryBytes(files.main)}];
    if (beside && files.wal) given.push({name: `${name}-wal`, bytes: new MemoryBytes(files.wal)});
    if (beside && files.journal) given.push({name: `${name}-journal`, bytes: new MemoryBytes(files.journal)});
    return given;
}

/** `pause`: milliseconds between two slices of work. */
export async function sourceOver(given: readonly GivenFile[], pause = 0): Promise<LocalSource> {
    const rest = (): Promise<void> =>
        new Promise((resume) => (pause > 0 ? setTimeout(resume, pause) : setImmediate(resume)));
    const source = new LocalSource(await engine(), given, rest);
    await source.open();
    await source.tables();
    return source;
}

export const nothing = (): void => undefined;
