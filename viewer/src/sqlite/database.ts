// SPDX-License-Identifier: MIT
import type {Cell} from '../reading/cells.js';
import {bytesOf, textOf} from '../reading/cells.js';
import type {Engine} from './engine.js';

/** A failure in words for people: what it is about, and the cause with the remedy at its end. */
export class ReadError extends Error {
    constructor(
        readonly input: string,
        readonly cause_: string,
    ) {
        super(`${input}: ${cause_}`);
    }
}

const row = 100;
const done = 101;
const typeNull = 5;
const typeBlob = 4;
const transient = -1; // SQLite makes a copy

/** A prepared statement. Cells are the very bytes of the file. */
export class Statement {
    constructor(
        private readonly database: Database,
        readonly pointer: number,
    ) {}

    /** Goes to the next row; false at the end. Throws a ReadError. */
    step(): boolean {
        const code = this.database.engine.raw.sqlite3_step(this.pointer);
        if (code === row) return true;
        if (code !== done) throw this.database.error(code);
        return false;
    }

    /** The bytes in SQLite's memory, until the next step. Null for NULL. */
    bytes(column: number): Uint8Array | null {
        const {raw} = this.database.engine;
        const type = raw.sqlite3_column_type(this.pointer, column);
        if (type === typeNull) return null;
        const at =
            type === typeBlob
                ? raw.sqlite3_column_blob(this.pointer, column)
                : raw.sqlite3_column_text(this.pointer, column);
        const size = raw.sqlite3_column_bytes(this.pointer, column);
        return this.database.engine.heap.subarray(at, at + size);
    }

    cell(column: number): Cell {
        const bytes = this.bytes(column);
        return bytes && textOf(bytes);
    }

    text(column: number): string {
        return this.cell(column) ?? '';
    }

    number(column: number): number {
        return this.database.engine.raw.sqlite3_column_double(this.pointer, column);
    }

    /** Where every digit counts. */
    whole(column: number): bigint {
        return this.database.engine.raw.sqlite3_column_int64(this.pointer, column);
    }

    bind(place: number, value: string | number | bigint): void {
        const {capi} = this.database.engine;
        if (typeof value === 'string') this.bindText(place, bytesOf(value));
        else if (typeof value === 'bigint') capi.sqlite3_bind_int64(this.pointer as any, place, value);
        else capi.sqlite3_bind_double(this.pointer as any, place, value);
    }

    // Not by the wrapper, which knows no bytes that are not UTF-8.
    private bindText(place: number, bytes: Uint8Array): void {
        const {engine} = this.database;
        const at = engine.wasm.alloc(bytes.length + 1) as number;
        engine.heap.set(bytes, at);
        engine.raw.sqlite3_bind_text(this.pointer, place, at, bytes.length, transient);
        engine.wasm.dealloc(at as any);
    }

    reset(): void {
        this.database.engine.raw.sqlite3_reset(this.pointer);
    }

    finalize(): void {
        this.database.engine.capi.sqlite3_finalize(this.pointer as any);
    }
}

/**
 * A connection that only reads. Files come from elsewhere and may be hostile: nothing that a file's schema defines can
 * do more than compute, and no trigger and no view of it runs.
 */
export class Database {
    private constructor(
        readonly engine: Engine,
        private readonly pointer: number,
        readonly name: string,
    ) {}

    /** `path`: as the engine's files are called. `name`: what messages call the file. Throws a ReadError. */
    static open(engine: Engine, path: string, name: string): Database {
        const {capi, wasm} = engine;
        const scope = wasm.scopedAllocPush();
        try {
            const result = (wasm as any).scopedAllocPtr();
            // For writing: a transaction that a dead device left is rolled back, and a log is read, in memory.
            const code = capi.sqlite3_open_v2(
                path,
                result as any,
                capi.SQLITE_OPEN_READWRITE,
                engine.fileSystem as any,
            );
            const database = new Database(engine, wasm.peekPtr(result as any) as unknown as number, name);
            if (code !== 0) throw database.error(code);
            database.secure();
            return database;
        } finally {
            wasm.scopedAllocPop(scope);
        }
    }

    private secure(): void {
        const {capi} = this.engine;
        const configure = capi.sqlite3_db_config as unknown as (
            db: number,
            option: number,
            on: number,
            was: number,
        ) => number;
        for (const [option, on] of [
            [capi.SQLITE_DBCONFIG_DEFENSIVE, 1],
            [capi.SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0],
            [capi.SQLITE_DBCONFIG_ENABLE_TRIGGER, 0],
            [capi.SQLITE_DBCONFIG_ENABLE_VIEW, 0],
        ] as const)
            configure(this.pointer, option, on, 0);
        // There is no shared memory for a write-ahead log, and nobody else.
        this.text('pragma locking_mode=exclusive');
        this.number('select count(*) from sqlite_master'); // SQLite looks at a file when it is first read
        this.text('pragma query_only=1');
        this.text('pragma cache_size=-32000');
    }

    prepare(sql: string): Statement {
        const {capi, wasm} = this.engine;
        const scope = wasm.scopedAllocPush();
        try {
            const result = (wasm as any).scopedAllocPtr();
            const code = capi.sqlite3_prepare_v2(this.pointer as any, sql, -1, result as any, null as any);
            if (code !== 0) throw this.error(code);
            return new Statement(this, wasm.peekPtr(result as any) as unknown as number);
        } finally {
            wasm.scopedAllocPop(scope);
        }
    }

    /** Calls `each` for every row; stops when it returns false. */
    rows(sql: string, values: readonly (string | number | bigint)[], each: (row: Statement) => boolean | void): void {
        const statement = this.prepare(sql);
        try {
            values.forEach((value, i) => statement.bind(i + 1, value));
            while (statement.step() && each(statement) !== false);
        } finally {
            statement.finalize();
        }
    }

    /** Of the first row; null without one. */
    cell(sql: string, ...values: (string | number | bigint)[]): Cell {
        let cell: Cell = null;
        this.rows(sql, values, (row) => {
            cell = row.cell(0);
            return false;
        });
        return cell;
    }

    text(sql: string, ...values: (string | number | bigint)[]): string {
        return this.cell(sql, ...values) ?? '';
    }

    number(sql: string, ...values: (string | number | bigint)[]): number {
        return Number(this.text(sql, ...values));
    }

    /** An SQL function of texts that gives a number. */
    addFunction(name: string, count: number, body: (...values: (string | null)[]) => number): void {
        const {capi} = this.engine;
        const text = (value: unknown): string | null =>
            value === null || value === undefined ? null : value instanceof Uint8Array ? textOf(value) : String(value);
        const call = (_context: number, ...values: unknown[]): number => body(...values.map(text));
        (capi.sqlite3_create_function_v2 as any)(
            this.pointer,
            name,
            count,
            capi.SQLITE_UTF8 | capi.SQLITE_DIRECTONLY,
            0,
            call,
            0,
            0,
            0,
        );
    }

    error(code: number): ReadError {
        const {capi} = this.engine;
        const medium = this.engine.takeFailure();
        if (medium) return new ReadError(this.name, 'it was changed or taken away while it was open; drop it again');
        const words = this.pointer ? capi.sqlite3_errmsg(this.pointer as any) : capi.sqlite3_errstr(code);
        const kind = code & 0xff;
        if (kind === capi.SQLITE_CORRUPT || kind === capi.SQLITE_NOTADB)
            return new ReadError(this.name, `${words}; "device-db check" says more, "device-db salvage" gets rows out`);
        if (kind === capi.SQLITE_NOMEM)
            return new ReadError(this.name, `${words}; close other pages, or choose a shorter range`);
        return new ReadError(this.name, String(words));
    }
}
