// SPDX-License-Identifier: MIT
import type {Database} from '../sqlite/database.js';
import type {RawFunctions} from '../sqlite/engine.js';
import type {Block, Blocks} from './blocks.js';
import {Bucket} from './bucket.js';
import {identifier} from './cells.js';
import {numberIn} from './number.js';
import {Reduction} from './reduction.js';
import type {Point} from './reduction.js';
import {RollupReading, TrendColumns} from './rollups.js';
import type {RollupState} from './rollups.js';
import {secondsBefore1970, TimeReader, timeText} from './times.js';
import type {Work} from './work.js';

/** Which part of a table, in milliseconds, both ends included; and into how many columns. */
export interface Range {
    readonly from: number;
    readonly to: number;
    readonly columns: number;
}

const runsDrawn = 64;

/** The rows of one range, as a picture and figures. Rows come in the order of recording. */
export class Curve {
    readonly total = new Bucket(); // times in milliseconds here
    private readonly runs = new Map<number, Reduction>();
    private readonly others: Uint8Array; // columns with values that are not numbers

    constructor(readonly range: Range) {
        this.others = new Uint8Array(range.columns);
    }

    /** A row with a time; those outside the range are left out. `value`: NaN for what is not a number. */
    add(run: number, time: number, value: number): void {
        if (!(time >= this.range.from && time <= this.range.to)) return;
        this.total.add(time, value);
        const reduction = this.runOf(run);
        if (Number.isNaN(value)) this.others[reduction.columnOf(time)] = 1;
        else reduction.add(time, value);
    }

    /** Whether all of a block is within the range and one column; it was added then. */
    addWhole(block: Block): boolean {
        const {from, to} = this.range;
        const reduction = this.runOf(block.run);
        const column = reduction.columnOf(block.earliest);
        if (block.earliest < from || block.latest > to || column !== reduction.columnOf(block.latest)) return false;
        this.addPoints(reduction, block.points, block.timed, block.numbers, block.sum, column);
        return true;
    }

    /** As far as the block says it: what of its four points is in the range. Its rows tell more. */
    addRoughly(block: Block): void {
        for (let i = 0; block.numbers > 0 && i < 8; i += 2) this.add(block.run, block.points[i]!, block.points[i + 1]!);
    }

    /** The first, lowest, highest and last of the numbers of a column. */
    addColumn(points: Float64Array, rows: number, numbers: number, sum: number): void {
        const reduction = this.runOf(0);
        this.addPoints(reduction, points, rows, numbers, sum, reduction.columnOf(points[0]!));
    }

    /** Values that are not numbers, in this column. */
    addOthers(column: number, rows: number): void {
        this.total.rows += rows;
        this.others[column] = 1;
    }

    private addPoints(
        reduction: Reduction,
        points: Float64Array,
        rows: number,
        numbers: number,
        sum: number,
        column: number,
    ): void {
        if (rows > numbers) this.others[column] = 1;
        if (numbers > 0) reduction.addFour(points, 0, numbers);
        const [firstTime, first, lowTime, low, highTime, high, lastTime, last] = points as unknown as number[];
        this.total.addSum({
            rows,
            numbers,
            sum,
            points: Float64Array.of(lowTime!, low!, highTime!, high!, firstTime!, first!, lastTime!, last!),
        });
    }

    private runOf(run: number): Reduction {
        const key = this.runs.size >= runsDrawn && !this.runs.has(run) ? -1 : run;
        let reduction = this.runs.get(key);
        if (!reduction)
            this.runs.set(key, (reduction = new Reduction(this.range.from, this.range.to, this.range.columns)));
        return reduction;
    }

    /** Of all rows, whatever the clock did. */
    reduction(): Reduction {
        const all = new Reduction(this.range.from, this.range.to, this.range.columns);
        for (const each of this.runs.values()) all.merge(each);
        return all;
    }

    /** In the order of recording: where the clock went back, a line of its own begins. */
    lines(): Point[][] {
        return [...this.runs.values()].flatMap((run) => run.lines(this.total.numbers));
    }

    /** The middle of each column with values that are not numbers. */
    otherTimes(): number[] {
        const {from, to, columns} = this.range;
        const times: number[] = [];
        this.others.forEach((isThere, column) => {
            if (isThere) times.push(from + ((column + 0.5) * (to - from + 1)) / columns);
        });
        return times;
    }
}

/** Steps through samples: time and value as numbers, without a string for a cell, and the ID when it is asked for. */
export class SampleScan {
    time = NaN;
    value = NaN;
    private readonly times = new TimeReader(false);
    private heap: Uint8Array;
    private readonly statement;
    private readonly raw: RawFunctions;

    /** `where`: conditions and an order, with places for `values`. */
    constructor(
        private readonly database: Database,
        table: string,
        where: string,
        values: readonly (string | number)[] = [],
    ) {
        this.statement = database.prepare(`select ID,DATETIME,Value from ${identifier(table)} ${where}`);
        values.forEach((value, i) => this.statement.bind(i + 1, value));
        this.heap = database.engine.heap;
        this.raw = database.engine.raw;
    }

    next(): boolean {
        if (!this.statement.step()) return false;
        const {raw} = this;
        const {pointer} = this.statement;
        const timeAt = raw.sqlite3_column_text(pointer, 1);
        const timeSize = raw.sqlite3_column_bytes(pointer, 1);
        const valueAt = raw.sqlite3_column_text(pointer, 2);
        const valueSize = raw.sqlite3_column_bytes(pointer, 2);
        if (this.heap.length === 0)
            // SQLite took more memory, which moves
            this.heap = this.database.engine.heap;
        this.time = this.times.read(this.heap, timeAt, timeSize);
        this.value = numberIn(this.heap, valueAt, valueAt + valueSize);
        return true;
    }

    get id(): number {
        return this.statement.number(0);
    }

    /** The cell of the time as it is. */
    timeText(): string {
        return this.statement.text(1);
    }

    again(values: readonly (string | number)[]): void {
        this.statement.reset();
        values.forEach((value, i) => this.statement.bind(i + 1, value));
    }

    close(): void {
        this.statement.finalize();
    }
}

/** What the blocks so far say without a look at the rows; nothing is lost but where exactly within a block it lies. */
export function roughCurve(blocks: Blocks, range: Range): Curve {
    const curve = new Curve(range);
    for (let i = -1; (i = blocks.next(i + 1, range.from, range.to)) < blocks.size;) {
        const block = blocks.at(i);
        if (!curve.addWhole(block)) curve.addRoughly(block);
    }
    return curve;
}

/**
 * Of blocks, and the rows of those across the edge of a column. It can be made while the table is read: such rows are
 * still in memory then.
 */
export class CurveOfBlocks {
    readonly curve: Curve;
    private readonly scan: SampleScan;
    private next = 0;

    constructor(
        database: Database,
        table: string,
        private readonly blocks: Blocks,
        range: Range,
    ) {
        this.curve = new Curve(range);
        this.scan = new SampleScan(database, table, 'where ID>=?1 and ID<=?2 order by ID');
    }

    /** All blocks that there are so far are in it. */
    get isComplete(): boolean {
        return this.next === this.blocks.size;
    }

    /** Adds the blocks that are not in it. */
    *read(): Work<void> {
        const {curve, blocks, scan} = this;
        const {from, to} = curve.range;
        while ((this.next = blocks.next(this.next, from, to)) < blocks.size) {
            const block = blocks.at(this.next++);
            if (curve.addWhole(block)) continue;
            scan.again([block.firstId, block.lastId]);
            while (scan.next()) curve.add(block.run, scan.time, scan.value);
            yield;
        }
    }

    close(): void {
        this.scan.close();
    }
}

/** By the index on time. */
export function* curveOfIndex(database: Database, table: string, range: Range): Work<Curve> {
    const curve = new Curve(range);
    // The plus keeps SQLite from reading the whole table in this order.
    const scan = new SampleScan(database, table, 'where DATETIME>=?1 and DATETIME<=?2 order by +ID', [
        timeText(range.from, false),
        timeText(range.to, false),
    ]);
    try {
        let run = 0;
        let before = -1;
        for (let count = 1; scan.next(); ++count) {
            if (scan.time < before) ++run;
            if (scan.time >= 0) before = scan.time;
            curve.add(run, scan.time, scan.value);
            if (count % 1000 === 0) yield;
        }
    } finally {
        scan.close();
    }
    return curve;
}

/** By the sums that the file keeps; those of rows that are removed are among them. */
export function* curveOfRollups(database: Database, table: string, state: RollupState, range: Range): Work<Curve> {
    const seconds = (time: number): number => Math.floor(time / 1000) + secondsBefore1970;
    const columns = new TrendColumns(seconds(range.from), seconds(range.to), range.columns);
    yield* new RollupReading(database, table, state, columns).read(columns.first, columns.last);
    const curve = new Curve(range);
    for (const [place, bucket] of [...columns.all].sort(([a], [b]) => a - b)) {
        const {points} = bucket;
        const time = (at: number): number => (points[at]! - secondsBefore1970) * 1000;
        if (bucket.numbers === 0) curve.addOthers(place, bucket.rows);
        else
            curve.addColumn(
                Float64Array.of(time(4), points[5]!, time(0), points[1]!, time(2), points[3]!, time(6), points[7]!),
                bucket.rows,
                bucket.numbers,
                bucket.sum,
            );
    }
    return curve;
}
