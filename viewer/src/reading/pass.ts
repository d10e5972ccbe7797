// SPDX-License-Identifier: MIT
//
// Reading a table once from end to end, in the order of recording: findings, figures, and what later pictures need.
import type {Database, Statement} from '../sqlite/database.js';
import {Blocks} from './blocks.js';
import {compareBytes, identifier} from './cells.js';
import type {Cell} from './cells.js';
import {SampleScan} from './curve.js';
import {Lanes, Marks} from './events.js';
import {definitionFindings, RowJudge} from './findings.js';
import type {Finding, JudgedRow} from './findings.js';
import {RollupReading, TrendColumns, helpfulRollups} from './rollups.js';
import type {RollupState} from './rollups.js';
import type {Overview} from './source.js';
import {SeriesStatistics} from './statistics.js';
import {firstIdOf, hasMilliseconds, hasTimeIndex, lastIdOf} from './tables.js';
import type {Table} from './tables.js';
import {endOfAlarm, localNow, millisecondsOf, secondsBefore1970, timeIn, TimeSpan, timeText} from './times.js';
import type {Work} from './work.js';

const rowsBetweenPauses = 2000;
const mostChoices = 200;
const longestChoice = 200; // nobody chooses by more

/** The least and the greatest of the times as texts, whatever their form. */
class Ends {
    readonly times = new TimeSpan(); // of those in the form of the table, which are texts of one length
    first: Cell = null;
    last: Cell = null;

    add(time: number, row: JudgedRow): void {
        if (Number.isNaN(time)) this.addText(row.timeText());
        else this.times.add(time);
    }

    /** All times are added. */
    settle(milliseconds: boolean): void {
        if (!this.times.isEmpty) {
            this.addText(timeText(this.times.from, milliseconds));
            this.addText(timeText(this.times.to, milliseconds));
        }
    }

    private addText(text: string): void {
        if (this.first === null || compareBytes(text, this.first) < 0) this.first = text;
        if (this.last === null || compareBytes(text, this.last) > 0) this.last = text;
    }
}

/** One table, and what is known of it so far. */
export class TablePass {
    readonly blocks = new Blocks();
    readonly lanes = new Lanes();
    readonly marks = new Marks();
    readonly rollups: RollupState | null;
    readonly indexed: boolean;
    readonly firstId: number;
    readonly lastId: number;
    readonly lastIdText: string; // exact
    isDone = false;
    rows = 0;
    private readonly judge: RowJudge;
    private readonly statistics = new SeriesStatistics();
    private readonly ends = new Ends();
    private readonly choices = new Map<string, number>();
    private readonly ofDefinition: Finding[];
    private readonly highestId: number;
    private idSoFar = 0;

    constructor(
        readonly database: Database,
        readonly table: Table,
        now = localNow(),
    ) {
        const isSeries = table.kind === 'samples';
        this.judge = new RowJudge(table.name, table.kind, now);
        this.rollups = isSeries ? helpfulRollups(database, table.name) : null;
        this.indexed = hasTimeIndex(database, table.name, false);
        this.firstId = firstIdOf(database, table.name);
        const lastId = lastIdOf(database, table.name);
        this.lastId = Number(lastId);
        this.lastIdText = String(lastId);
        this.highestId = database.number(`select coalesce(max(ID),0) from ${identifier(table.name)}`);
        this.ofDefinition = definitionFindings(database, table);
        this.idSoFar = this.firstId - 1;
    }

    /** How much of the table was read, by the IDs. */
    get share(): number {
        return this.isDone ? 1 : this.shareThrough(this.idSoFar);
    }

    /** How much of the IDs is read with this one; less than 1, because it may not be the end. */
    shareThrough(id: number): number {
        const ids = this.highestId - this.firstId + 1;
        return Math.max(0, Math.min(0.999, (id - this.firstId + 1) / Math.max(1, ids)));
    }

    /** How many rows the table has; by the IDs, as long as not all of it was read. */
    get expectedRows(): number {
        return this.isDone ? this.rows : Math.max(this.rows, this.highestId - this.firstId + 1);
    }

    /** The time of a row that was read out of turn, from 1970 on. */
    addTime(time: number): void {
        this.note(time);
        this.ends.times.add(time);
    }

    /**
     * Without a pass: by the index on time, where its first and last entries are times. False if it cannot be said so.
     */
    lookAtEnds(): boolean {
        if (!this.indexed || this.isDone) return this.isDone;
        const milliseconds = hasMilliseconds(this.table.kind);
        const ends = ['min', 'max'].map((end) =>
            timeIn(this.database.text(`select ${end}(DATETIME) from ${identifier(this.table.name)}`), milliseconds),
        );
        if (ends.some((end) => end === null || end < 0)) return false;
        ends.forEach((end) => this.note(end!));
        this.addRemoved();
        return true;
    }

    *read(): Work<void> {
        switch (this.table.kind) {
            case 'samples':
                yield* this.readSamples();
                this.addRemoved();
                break;
            case 'alarms':
                yield* this.readRows('ID,DATETIME,EndDate,EndTime,LevelID', (id, time, row) => {
                    const [date, clock] = [row.cell(2), row.cell(3)];
                    this.judge.addEnd(id, row.text(1), date, clock);
                    this.lanes.add(row.number(4), time, millisecondsOf(endOfAlarm(date, clock), false));
                    this.choose(row.text(4));
                });
                this.note(this.lanes.last);
                break;
            default:
                yield* this.readRows('ID,DATETIME,userName', (id, time, row) => {
                    this.marks.add(id, time);
                    this.choose(row.text(2));
                });
        }
        this.ends.settle(hasMilliseconds(this.table.kind));
        this.isDone = true;
    }

    overview(): Overview {
        const {plausible} = this.judge;
        const span = plausible.isEmpty ? this.ends.times : plausible;
        return {
            exact: this.isDone,
            share: this.share,
            rows: this.expectedRows,
            first: this.ends.first,
            last: this.ends.last,
            from: span.isEmpty ? NaN : Math.max(0, span.from),
            to: span.isEmpty ? NaN : Math.max(0, span.to),
            findings: [...this.judge.findings(), ...this.ofDefinition],
            steps: this.judge.steps,
            numbers: this.statistics.numbers,
            lowest: this.statistics.lowest,
            highest: this.statistics.highest,
            mean: this.statistics.mean,
            choices: [...this.choices].sort(([, a], [, b]) => b - a),
        };
    }

    private *readSamples(): Work<void> {
        const scan = new SampleScan(this.database, this.table.name, 'order by ID');
        try {
            while (this.readSomeSamples(scan)) {
                this.idSoFar = scan.id;
                yield;
            }
            this.blocks.close(this.highestId);
        } finally {
            scan.close();
        }
    }

    // Not a generator: engines make faster code of a function that is called often. False at the end.
    private readSomeSamples(scan: SampleScan): boolean {
        for (let i = 0; i < rowsBetweenPauses; ++i) {
            if (!scan.next()) return false;
            const {time, value} = scan;
            this.judge.addTime(time, scan);
            this.statistics.add(value);
            this.ends.add(time, scan);
            this.blocks.add(scan, time, value);
            ++this.rows;
        }
        return true;
    }

    private *readRows(columns: string, each: (id: number, time: number, row: Statement) => void): Work<void> {
        const statement = this.database.prepare(`select ${columns} from ${identifier(this.table.name)} order by ID`);
        const milliseconds = hasMilliseconds(this.table.kind);
        try {
            while (statement.step()) {
                const id = statement.number(0);
                const text = statement.text(1);
                const time = timeIn(text, milliseconds) ?? NaN;
                const judged: JudgedRow = {id, timeText: () => text};
                this.judge.addTime(time, judged);
                this.ends.add(time, judged);
                this.blocks.add(judged, time, NaN);
                each(id, time, statement);
                this.idSoFar = id;
                if (++this.rows % rowsBetweenPauses === 0) yield;
            }
            this.blocks.close(this.highestId);
        } finally {
            statement.finalize();
        }
    }

    private choose(text: string): void {
        if (text.length > longestChoice) return;
        if (this.choices.size < mostChoices || this.choices.has(text))
            this.choices.set(text, (this.choices.get(text) ?? 0) + 1);
    }

    // A time that no row has.
    private note(time: number): void {
        if (this.judge.isPlausible(time)) this.judge.plausible.add(time);
    }

    // Sums stay when their rows go.
    private addRemoved(): void {
        if (!this.rollups) return;
        const reading = new RollupReading(this.database, this.table.name, this.rollups, new TrendColumns(0, 0, 1));
        for (const second of reading.removedRange() ?? []) this.note((second - secondsBefore1970) * 1000);
    }
}
