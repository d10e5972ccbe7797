// SPDX-License-Identifier: MIT
//
// Which rows a question finds, in which order, and the page of them that is looked at.
import type {Database} from '../sqlite/database.js';
import {decodedTwice, identifier} from './cells.js';
import type {Cell} from './cells.js';
import type {TablePass} from './pass.js';
import type {RowQuery} from './source.js';
import {columnList, columnsOf, hasMilliseconds, timeColumnOf} from './tables.js';
import {timeIn, timeText} from './times.js';
import type {Work} from './work.js';

const rowsAtOnce = 20000;
let searches = 0;

/** Whether a text holds another, by Unicode's simple case folding. Also as it was meant, if it is encoded twice. */
export function containing(wanted: string): (cell: string) => boolean {
    const form = new RegExp(wanted.replace(/[\\^$.*+?()[\]{}|/]/g, '\\$&'), 'iu');
    return (cell) => form.test(cell) || form.test(decodedTwice(cell));
}

/** The conditions of a WHERE, and the texts for its places. `search`: the SQL function that looks for a text. */
function conditionsOf(query: RowQuery, table: TablePass['table'], search: string): [string[], string[]] {
    const milliseconds = hasMilliseconds(table.kind);
    const parts: string[] = [];
    const texts: string[] = [];
    const oneOf = (column: string, wanted: readonly string[]): void => {
        parts.push(`${column} in (${wanted.map(() => '?').join(',')})`);
        texts.push(...wanted);
    };
    for (const [bound, comparison] of [
        [query.from, '>='],
        [query.to, '<='],
    ] as const) {
        if (bound !== undefined) {
            parts.push(`DATETIME${comparison}?`);
            texts.push(timeText(bound, milliseconds));
        }
    }
    if (query.state === 'active') parts.push("EndDate='' and EndTime=''");
    if (query.state === 'ended') parts.push("EndDate!='' and EndTime!=''");
    if (query.levels) parts.push(`LevelID in (${query.levels.map(Math.trunc).join(',')})`);
    if (query.users) oneOf("ifnull(userName,'')", query.users);
    if (query.containing) parts.push(`${search}(${table.columns.slice(1).map(identifier).join(',')})`);
    return [parts, texts];
}

function orderOf(query: RowQuery, table: TablePass['table']): string {
    if (query.order === 'recorded') return 'ID';
    if (query.order === 'oldest') return 'DATETIME,ID';
    if (query.order === 'newest') return 'DATETIME desc,ID desc';
    const {column, descending} = query.order;
    const known = columnsOf(table.kind).find((each) => each.key === column);
    const direction = descending ? ' desc' : '';
    return `${known ? known.name : 'ID'}${direction},ID${direction}`;
}

/** The rows that one question finds, as a list of IDs. A question for all rows as recorded needs none. */
export class Selection {
    ids = new BigInt64Array(1024);
    count = 0;
    isDone = false;
    private idSoFar: bigint | null = null;
    private readonly isAll: boolean;
    // A name of its own: SQLite does not change a function that another search is using.
    private readonly search = `contains_text_${++searches}`;

    constructor(
        private readonly pass: TablePass,
        private readonly query: RowQuery,
    ) {
        const [parts] = conditionsOf(query, pass.table, this.search);
        this.isAll = parts.length === 0 && query.order === 'recorded';
    }

    /** What makes a question another one, whatever page of it is looked at. */
    static keyOf(query: RowQuery): string {
        return JSON.stringify([
            query.table,
            query.from,
            query.to,
            query.containing,
            query.state,
            query.levels,
            query.users,
            query.order,
        ]);
    }

    get total(): number {
        return this.isAll ? this.pass.expectedRows : this.count;
    }

    get isExact(): boolean {
        return this.isAll ? this.pass.isDone : this.isDone;
    }

    /** How much of the table was looked through, by the IDs; nothing, as long as SQLite sorts. */
    get share(): number {
        if (this.isAll) return this.pass.share;
        return this.isDone ? 1 : this.idSoFar === null ? 0 : this.pass.shareThrough(Number(this.idSoFar));
    }

    *find(): Work<void> {
        if (this.isAll) {
            this.isDone = true;
            return;
        }
        const {database, table} = this.pass;
        const [parts, texts] = conditionsOf(this.query, table, this.search);
        if (this.query.containing) {
            const isWanted = containing(this.query.containing);
            database.addFunction(this.search, table.columns.length - 1, (...cells) =>
                cells.some((cell) => cell !== null && isWanted(cell)) ? 1 : 0,
            );
        }
        const sql = `select ID from ${identifier(table.name)} where ${[...parts, 'true'].join(' and ')}`;
        if (this.query.order !== 'recorded') {
            yield* this.take(database, `${sql} order by ${orderOf(this.query, table)}`, texts);
        } else {
            // By rows and not by IDs, of which there may be many without a row.
            const some = `select ID from ${identifier(table.name)} where ID>?1 order by ID limit ${rowsAtOnce}`;
            for (this.idSoFar = -(2n ** 63n); ;) {
                const end = database.text(`select max(ID) from (${some})`, this.idSoFar);
                if (end === '') break;
                const bounds = [this.idSoFar, BigInt(end)];
                yield* this.take(database, `${sql} and ID>? and ID<=? order by ID`, [...texts, ...bounds]);
                this.idSoFar = BigInt(end);
                yield;
            }
        }
        this.isDone = true;
    }

    private *take(database: Database, sql: string, values: readonly (string | bigint)[]): Work<void> {
        const statement = database.prepare(sql);
        try {
            values.forEach((value, i) => statement.bind(i + 1, value));
            while (statement.step()) {
                if (this.count === this.ids.length) {
                    const larger = new BigInt64Array(2 * this.count);
                    larger.set(this.ids);
                    this.ids = larger;
                }
                this.ids[this.count++] = statement.whole(0);
                if (this.count % 1000 === 0) yield;
            }
        } finally {
            statement.finalize();
        }
    }

    /** The cells of so many rows from an offset on. */
    page(offset: number, limit: number): Cell[][] {
        const {database, table} = this.pass;
        const rows: Cell[][] = [];
        const sql = `select ${columnList(table.kind)} from ${identifier(table.name)}`;
        const add = (row: {cell(column: number): Cell}): void =>
            void rows.push([...columnsOf(table.kind), null].map((_, column) => row.cell(column)));
        if (this.isAll) {
            const [id, skipped] = this.placeOf(offset);
            database.rows(`${sql} where ID>=?1 order by ID limit ?2 offset ?3`, [id, limit, skipped], add);
            return rows;
        }
        for (let i = offset; i < Math.min(this.count, offset + limit); ++i)
            database.rows(`${sql} where ID=?1`, [this.ids[i]!], add);
        return rows;
    }

    // An ID at or before the row of this number, and how many rows are between them.
    private placeOf(offset: number): [number, number] {
        if (!this.pass.isDone) return [this.pass.firstId + offset, 0];
        const found = this.pass.blocks.withRow(offset);
        return found ? [found[0].firstId, offset - found[1]] : [this.pass.lastId + 1, 0];
    }

    /** The number of the row with this ID; -1 if it is not among them. */
    placeOfId(id: number): number {
        if (!this.isAll) return this.ids.subarray(0, this.count).indexOf(BigInt(id));
        if (!this.pass.isDone) return id - this.pass.firstId;
        let [low, high] = [0, this.total];
        while (low < high) {
            const middle = (low + high) >> 1;
            if (Number(this.page(middle, 1)[0]?.[0] ?? Infinity) < id) low = middle + 1;
            else high = middle;
        }
        return Number(this.page(low, 1)[0]?.[0]) === id ? low : -1;
    }

    /** The number of the first row from this time on, or back from it where the newest come first; -1 without rows. */
    placeOfTime(time: number): number {
        const {kind} = this.pass.table;
        const isNewestFirst = this.query.order === 'newest';
        let [low, high] = [0, this.total];
        while (low < high) {
            const middle = (low + high) >> 1;
            const there = timeIn(this.page(middle, 1)[0]?.[timeColumnOf(kind)] ?? '', hasMilliseconds(kind)) ?? NaN;
            if (isNewestFirst ? there > time : there < time) low = middle + 1;
            else high = middle;
        }
        return Math.min(low, this.total - 1);
    }
}
