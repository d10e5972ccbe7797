// SPDX-License-Identifier: MIT
//
// The trend tables that the host layer keeps in a file, and reading the columns of a picture by them: whole buckets in
// the middle, rows at the ends, and the rows that are in no bucket yet. As host/trend_reading.cpp does it.
import type {Database} from '../sqlite/database.js';
import {Bucket, sumOf} from './bucket.js';
import type {Sum} from './bucket.js';
import {identifier} from './cells.js';
import {numberOf} from './number.js';
import {pictureColumn} from './reduction.js';
import {hasTimeIndex} from './tables.js';
import {secondsBefore1970, timeIn, timeText} from './times.js';
import type {Work} from './work.js';

const widths = [10, 60, 600, 3600, 86400];
const lastSecond = 3652059 * 86400 - 1; // of the year 9999
const longestNumber = 64;
const rowsSpan = 86400; // seconds whose rows are held at once

export interface RollupState {
    readonly number: bigint; // its buckets have this number
    readonly levels: readonly number[]; // the widths of the buckets in seconds, the finest first
    readonly floors: readonly number[]; // by level: the second from which its buckets are kept
    readonly mark: number; // the highest ID that is in the buckets
    readonly front: number; // the latest bucket of the finest level, in seconds
}

/** From `begin` until before `end`, in seconds. */
interface Span {
    readonly begin: number;
    readonly end: number;
}

function bucketKey(number: bigint, width: number, time: number): bigint {
    return (((number << 4n) | BigInt(widths.indexOf(width))) << 36n) | BigInt(Math.floor(time / width));
}

function columnsOf(database: Database, table: string): string {
    return database.text(
        "select group_concat(name||' '||upper(type)||' '||pk) from pragma_table_info((select name from " +
            "sqlite_master where type='table' and rootpage>0 and name=?1))",
        table,
    );
}

/** From when on the file has all sums of each width. Of a table whose form is not known: none were removed. */
function floorsOf(database: Database, table: string): Map<number, number> {
    const floors = new Map<number, number>();
    const columns = columnsOf(database, 'device keep');
    if (!columns.startsWith('COLLECTOR TEXT 0,') || !columns.includes(',FLOORS TEXT 0,')) return floors;
    const list = database.text('select FLOORS from "device keep" where COLLECTOR=?1 collate nocase', table);
    for (const [, width, second] of list.matchAll(/(\d+):(\d+)/g)) floors.set(Number(width), Number(second));
    return floors;
}

/** Nothing if the table has no trend that helps: there is none, it is of an emptied table, or it cannot be read. */
export function rollupStateOf(database: Database, table: string): RollupState | null {
    if (
        columnsOf(database, 'device trend') !== 'K INTEGER 1,D TEXT 0' ||
        columnsOf(database, 'device trend series') !==
            'N INTEGER 1,COLLECTOR TEXT 0,LEVELS TEXT 0,MARK INTEGER 0,' +
                'MARKED TEXT 0,FRONT INTEGER 0,VERSION INTEGER 0'
    )
        return null;
    const name = identifier(table);
    let state: RollupState | null = null;
    database.rows(
        'select N,LEVELS,MARK,max(ifnull((select seq from sqlite_sequence where name=COLLECTOR collate ' +
            `nocase),0),ifnull((select max(ID) from ${name}),0)),MARKED is null or not exists(select 1 from ${name} ` +
            `where ID=MARK) or exists(select 1 from ${name} where ID=MARK and substr(MARKED,1,length(DATETIME)+1) is ` +
            `DATETIME||' ') or (select min(ID) from ${name})>1,FRONT,VERSION from "device trend series" where ` +
            'COLLECTOR=?1',
        [table],
        (row) => {
            const number = BigInt(row.text(0));
            const levels = row.text(1).split(',').map(Number);
            const [mark, last, front] = [row.number(2), row.number(3), row.number(5)];
            const isOurs =
                number > 0n &&
                number < 1n << 23n &&
                mark >= 0 &&
                front >= 0 &&
                front <= lastSecond &&
                levels.every((width, i) => widths.includes(width) && (i === 0 || levels[i - 1]! < width));
            if (!isOurs || row.number(6) !== 1 || row.number(4) !== 1 || last < mark) return;
            const floors = floorsOf(database, table);
            state = {
                number,
                levels,
                mark,
                front,
                floors: levels.map((width) => Math.ceil((floors.get(width) ?? 0) / width) * width),
            };
        },
    );
    return state;
}

/** Sums that help a picture: those of a table with an index on time, which finds the rows beside them. */
export function helpfulRollups(database: Database, table: string): RollupState | null {
    return hasTimeIndex(database, table, true) ? rollupStateOf(database, table) : null;
}

/** The columns of a picture, as pictureColumn() has them, while they are read. */
export class TrendColumns {
    readonly all = new Map<number, Bucket>();

    /** Seconds since the year 1. */
    constructor(
        readonly first: number,
        readonly last: number,
        readonly count: number,
    ) {}

    /** The widest of the levels whose buckets are to be read first; -1: of none, single rows. */
    levelFor(levels: readonly number[]): number {
        // No column need begin where a bucket does: what lies across is read once more, from the next level. So the
        // buckets are much narrower than a column, and the narrowest are worth it only when they are not as wide.
        const width = Math.floor((this.last - this.first + 1) / this.count);
        let level = levels.length - 1;
        while (level >= 0 && !(width >= levels[level]! * (level === 0 ? 2 : 10))) --level;
        return level;
    }

    isWithinOne(begin: number, end: number): boolean {
        return this.place(begin) === this.place(end - 1);
    }

    at(time: number): Bucket {
        const place = this.place(time);
        let bucket = this.all.get(place);
        if (!bucket) this.all.set(place, (bucket = new Bucket()));
        return bucket;
    }

    private place(time: number): number {
        return pictureColumn(time * 1000, this.first * 1000, this.last * 1000, this.count);
    }
}

function literalOf(second: number): string {
    return timeText((second - secondsBefore1970) * 1000, false);
}

/** Reads the columns of one picture. */
export class RollupReading {
    private firstRow = 0; // seconds; rows before are deleted, as far as the file can tell

    constructor(
        private readonly database: Database,
        private readonly table: string,
        private readonly state: RollupState,
        private readonly columns: TrendColumns,
    ) {}

    /** Between two times in seconds, both included. Throws when the buckets cannot be read. */
    *read(begin: number, last: number): Work<void> {
        this.lookForFirstRow();
        const span = {begin, end: Math.min(last, lastSecond) + 1};
        let level = this.columns.levelFor(this.state.levels);
        if (begin < this.firstRow) level = Math.max(level, this.finestFrom(begin));
        yield* this.readLevel([span], level);
        yield* this.rows([span], 'behind', (time, value) => this.columns.at(time).add(time, value));
    }

    /** The first and the last time, in seconds, of rows that are removed; null: of none. */
    removedRange(): [number, number] | null {
        this.lookForFirstRow();
        if (this.firstRow === 0) return null;
        const width = this.state.levels[0]!;
        const key = bucketKey(this.state.number, width, 0);
        const end = key + BigInt(Math.floor(this.firstRow / width));
        const ends: number[] = [];
        for (const isFirst of [true, false]) {
            this.database.rows(
                `select K-?1,D from "device trend" where K>=?1 and K<?2 order by K` +
                    `${isFirst ? '' : ' desc'} limit 1`,
                [key, end],
                (row) => {
                    const start = row.number(0) * width;
                    const sum = sumOf(row.text(1), start, width);
                    ends.push(!sum || sum.numbers === 0 ? start : sum.points[isFirst ? 4 : 6]!);
                },
            );
        }
        return ends.length === 2 ? [ends[0]!, ends[1]!] : null;
    }

    // The finest level that reaches back so far, or the widest.
    private finestFrom(time: number): number {
        let level = 0;
        while (level + 1 < this.state.floors.length && this.state.floors[level]! > time) ++level;
        return level;
    }

    // Neither rows nor finer buckets are left there.
    private onlyFrom(level: number, time: number): boolean {
        return time < this.firstRow && this.state.floors.slice(0, level).every((floor) => floor > time);
    }

    // Without rows that were deleted, a table begins with ID 1.
    private lookForFirstRow(): void {
        this.firstRow = lastSecond + 1;
        this.database.rows(`select ID,DATETIME from ${identifier(this.table)} order by ID limit 1`, [], (row) => {
            const time = row.number(0) === 1 ? null : timeIn(row.text(1), false);
            this.firstRow = time === null ? 0 : Math.floor(time / 1000) + secondsBefore1970;
        });
    }

    // The wider levels have a bucket once a later one began; the finest has all.
    private closed(level: number): number {
        const width = this.state.levels[level]!;
        return level === 0 ? Infinity : Math.floor(this.state.front / width) * width;
    }

    // Up to the mark: the buckets of this level that lie in the spans and within one column, and what is left from the
    // finer ones.
    private *readLevel(spans: readonly Span[], level: number): Work<void> {
        if (spans.length === 0) return;
        if (level < 0) {
            yield* this.readRowsOrBuckets(spans);
            return;
        }
        const width = this.state.levels[level]!;
        const whole: Span[] = [];
        const left: Span[] = [];
        for (const span of spans) {
            const before = Math.floor(span.begin / width) * width;
            const upTo = Math.floor(span.end / width) * width;
            let begin = before < span.begin && !this.onlyFrom(level, before) ? before + width : before;
            const end = Math.min(
                upTo < span.end && this.onlyFrom(level, upTo) ? upTo + width : upTo,
                this.closed(level),
            );
            begin = Math.max(begin, this.state.floors[level]!);
            if (begin >= end) {
                left.push(span);
                continue;
            }
            whole.push({begin, end});
            if (span.begin < begin) left.push({begin: span.begin, end: begin});
            if (end < span.end) left.push({begin: end, end: span.end});
        }
        yield* this.buckets(whole, width, (start, text) => {
            if (!this.columns.isWithinOne(start, start + width) && !this.onlyFrom(level, start))
                left.push({begin: start, end: start + width});
            else this.columns.at(start).addSum(this.parsed(text, start, width));
        });
        left.sort((a, b) => a.begin - b.begin);
        yield* this.readLevel(left, level - 1);
    }

    private parsed(text: string, start: number, width: number): Sum {
        const sum = sumOf(text, start, width);
        if (!sum) throw new Error('the buckets of its trend cannot be read');
        return sum;
    }

    private *buckets(spans: readonly Span[], width: number, add: (start: number, text: string) => void): Work<void> {
        const base = bucketKey(this.state.number, width, 0);
        const statement = this.database.prepare('select K-?1,D from "device trend" where K>=?2 and K<?3 order by K');
        try {
            for (const span of spans) {
                const end = Math.min(span.end, lastSecond + 1);
                statement.bind(1, base);
                statement.bind(2, bucketKey(this.state.number, width, span.begin));
                statement.bind(3, base + BigInt(Math.ceil(end / width)));
                for (let count = 1; statement.step(); ++count) {
                    add(statement.number(0) * width, statement.text(1));
                    if (count % 500 === 0) yield;
                }
                statement.reset();
                yield;
            }
        } finally {
            statement.finalize();
        }
    }

    // Finer than the finest level, a day at a time. The rows say it; where some of a bucket's rows are deleted, the
    // whole bucket does.
    private *readRowsOrBuckets(spans: readonly Span[]): Work<void> {
        const width = this.state.levels[0]!;
        for (const span of spans) {
            for (let begin = Math.floor(span.begin / width) * width; begin < span.end; begin += rowsSpan) {
                const end = Math.min(begin + rowsSpan, Math.ceil(span.end / width) * width);
                yield* this.readSomeRowsOrBuckets(
                    {begin, end},
                    {begin: Math.max(begin, span.begin), end: Math.min(end, span.end)},
                );
            }
        }
    }

    private *readSomeRowsOrBuckets(whole: Span, wanted: Span): Work<void> {
        const width = this.state.levels[0]!;
        const rowsOf = new Map<number, number>();
        const samples: [number, number][] = [];
        yield* this.rows([whole], 'summed', (time, value) => {
            const place = Math.floor(time / width);
            rowsOf.set(place, (rowsOf.get(place) ?? 0) + 1);
            samples.push([time, value]);
        });
        const shown = new Set<number>(); // whose rows are no longer all there
        yield* this.buckets([whole], width, (start, text) => {
            const sum = this.parsed(text, start, width);
            if (rowsOf.get(start / width) === sum.rows) return;
            shown.add(start / width);
            this.columns.at(start).addSum(sum);
        });
        for (const [time, value] of samples) {
            if (!shown.has(Math.floor(time / width)) && time >= wanted.begin && time < wanted.end)
                this.columns.at(time).add(time, value);
        }
    }

    // Of equal times the lowest ID comes first, by the index on time and in the order of recording alike.
    private *rows(
        spans: readonly Span[],
        which: 'summed' | 'behind',
        add: (time: number, value: number) => void,
    ): Work<void> {
        const statement = this.database.prepare(
            `select DATETIME,Value from ${identifier(this.table)} where ` +
                (which === 'summed'
                    ? 'DATETIME>=?1 and DATETIME<=?2 and +ID<=?3 order by DATETIME,ID'
                    : '+DATETIME>=?1 and +DATETIME<=?2 and ID>?3 order by ID'),
        );
        try {
            for (const span of spans) {
                statement.bind(1, literalOf(span.begin));
                statement.bind(2, literalOf(span.end - 1));
                statement.bind(3, this.state.mark);
                for (let count = 1; statement.step(); ++count) {
                    const time = timeIn(statement.text(0), false);
                    const text = statement.text(1);
                    const number = text.length > longestNumber ? null : numberOf(text);
                    if (time !== null) add(Math.floor(time / 1000) + secondsBefore1970, number ?? NaN);
                    if (count % 500 === 0) yield;
                }
                statement.reset();
                yield;
            }
        } finally {
            statement.finalize();
        }
    }
}
