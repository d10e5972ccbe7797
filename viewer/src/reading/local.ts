// SPDX-License-Identifier: MIT
//
// The source over files that were dropped: everything but where it runs.
import {Database, ReadError} from '../sqlite/database.js';
import type {Engine} from '../sqlite/engine.js';
import type {Bytes} from '../sqlite/storage.js';
import {bytesText, distinctNames, identifier, isSameName, plainName} from './cells.js';
import {Curve, curveOfIndex, CurveOfBlocks, curveOfRollups, roughCurve} from './curve.js';
import type {Range} from './curve.js';
import {aboutFile, configurationFindings, integrityFindings} from './findings.js';
import type {Finding} from './findings.js';
import {numberOf} from './number.js';
import {TablePass} from './pass.js';
import {Selection} from './selection.js';
import {mostColumns} from './source.js';
import type {
    CurveAnswer,
    FileInfo,
    Overview,
    RowQuery,
    RowsAnswer,
    Sample,
    Seen,
    Source,
    TableInfo,
    TrendAnswer,
    TrendQuery,
} from './source.js';
import {holdsRecords, isKeyedById, registrationsOf, seriesInfosOf, tablesOf} from './tables.js';
import type {SeriesInfo, Table} from './tables.js';
import {timeIn, timeText} from './times.js';
import type {Work} from './work.js';

/** A file as it was dropped. */
export interface GivenFile {
    readonly name: string;
    readonly bytes: Bytes;
}

const sliceLength = 30; // milliseconds of work between two looks at what else is asked
const showEvery = 400; // milliseconds
const shareOfShowing = 10; // between two looks at it: this many times as long as one takes
const rowsByIndex = 300000; // more are read faster in the order of recording
const probes = 400;
const probeStride = 149; // no factor of it divides the number of probes
const selectionsKept = 6;
const picturesKept = 6; // of each table
const largestChecked = 20e6; // bytes: SQLite's check of a file cannot be interrupted

interface OpenFile {
    readonly info: FileInfo;
    readonly passes: readonly TablePass[]; // of the tables that can be read
    readonly seriesInfos: ReadonlyMap<string, SeriesInfo>;
    readonly unchanged: () => boolean;
}

interface OpenTable {
    readonly info: TableInfo;
    readonly file: OpenFile;
    readonly pass: TablePass;
    readonly dots: Sample[];
    readonly pictures: Map<string, CurveAnswer>; // by their ranges, the least recently made first
    reading: Promise<void> | null;
    probing: Promise<void> | null;
}

function headOf(bytes: Bytes | undefined): Uint8Array {
    return bytes?.read(0, Math.min(100, bytes.size)) ?? new Uint8Array(0);
}

// What changes whenever SQLite writes: the change counter of a file, the salts of a log.
function fingerprint(bytes: Bytes | undefined): string {
    return headOf(bytes).join(',');
}

export class LocalSource implements Source {
    private files: OpenFile[] = [];
    private readonly opened = new Map<string, OpenTable>();
    private readonly selections = new Map<string, {selection: Selection; found: Promise<void>}>();

    /** `pause`: comes back when everything else that waits had its turn. */
    constructor(
        private readonly engine: Engine,
        private readonly given: readonly GivenFile[],
        private readonly pause: () => Promise<void>,
    ) {}

    async open(): Promise<readonly FileInfo[]> {
        const beside = (name: string): boolean => /-(wal|journal|shm)$/.test(name);
        const main = this.given.filter(({name}) => !beside(name));
        for (const {name} of this.given.filter((file) => beside(file.name) && !file.name.endsWith('-shm'))) {
            const owners = main.filter((file) => name === `${file.name}-wal` || name === `${file.name}-journal`);
            if (owners.length === 0)
                throw new ReadError(name, 'the file that it belongs to is missing; drop both together');
            // In another file it would be taken for its own.
            if (owners.length > 1)
                throw new ReadError(
                    name,
                    `it can belong to ${owners.length} files of that name; drop them one after the other`,
                );
        }
        const names = distinctNames(main.map(({name}) => name));
        this.files = main.map((file, i) => this.openFile(file, i, names[i]!));
        return this.files.map(({info}) => info);
    }

    private openFile(given: GivenFile, place: number, name: string): OpenFile {
        const {bytes} = given;
        const path = `/${place}`;
        const wal = this.given.find((file) => file.name === `${given.name}-wal`)?.bytes;
        const journal = this.given.find((file) => file.name === `${given.name}-journal`)?.bytes;
        this.engine.add(path, bytes);
        if (wal) this.engine.add(`${path}-wal`, wal);
        if (journal) this.engine.add(`${path}-journal`, journal);
        const sizes = {name, bytes: bytes.size, walBytes: wal?.size ?? -1, journalBytes: journal?.size ?? -1};
        try {
            const head = headOf(bytes);
            const isWal = head[18] === 2;
            const isDatabase = new TextDecoder().decode(head.subarray(0, 16)) === 'SQLite format 3\0';
            if (isDatabase && head[59]! > 1)
                // this SQLite is made without it
                throw new ReadError(
                    name,
                    'its texts are in UTF-16, which this page cannot read; "device-db export" can',
                );
            const [before, logBefore] = [fingerprint(bytes), fingerprint(wal)];
            const unchanged = (): boolean => fingerprint(bytes) === before && fingerprint(wal) === logBefore;
            const database = Database.open(this.engine, path, name);
            const tables = tablesOf(database);
            const damages: Finding[] = [];
            // One damaged table does not hide the others.
            const unlessDamaged = <Read>(table: string, read: () => Read): Read | null => {
                try {
                    return read();
                } catch (error) {
                    damages.push(aboutFile('damage', 'damaged', table, `it cannot be read: ${causeOf(error)}`));
                    return null;
                }
            };
            const configuration = unlessDamaged('tb_config', () => registrationsOf(database, tables));
            const seriesInfos = unlessDamaged('device series', () => seriesInfosOf(database)) ?? new Map();
            const records = tables.filter(({kind}) => holdsRecords(kind));
            const keyless = records.filter((table) => !isKeyedById(database, table));
            const passes = records
                .filter((table) => !keyless.includes(table))
                .flatMap((table) => unlessDamaged(table.name, () => new TablePass(database, table)) ?? []);
            const info: FileInfo = {
                ...sizes,
                findings: [
                    ...damages,
                    ...keylessFindings(keyless),
                    ...this.findingsOf(database, path, isWal, wal, journal),
                    ...(configuration ? configurationFindings(tables, configuration) : []),
                    ...foreignFindings(tables),
                ],
                error: '',
                journal: isWal ? 'wal' : 'rollback',
                pages: database.number('pragma page_count'),
                pageSize: database.number('pragma page_size'),
                freePages: database.number('pragma freelist_count'),
                encoding: 'UTF-8',
                configuration: configuration ?? [],
            };
            return {info, passes, seriesInfos, unchanged};
        } catch (error) {
            const info: FileInfo = {
                ...sizes,
                findings: [],
                journal: 'rollback',
                pages: 0,
                pageSize: 0,
                freePages: 0,
                encoding: '',
                configuration: [],
                error: causeOf(error),
            };
            return {info, passes: [], seriesInfos: new Map(), unchanged: () => true};
        }
    }

    private findingsOf(
        database: Database,
        path: string,
        isWal: boolean,
        wal: Bytes | undefined,
        journal: Bytes | undefined,
    ): Finding[] {
        const findings = (this.engine.file(path)?.size ?? 0) <= largestChecked ? integrityFindings(database) : [];
        if (isWal && !wal)
            findings.push(
                aboutFile(
                    'note',
                    'noLog',
                    '',
                    'it keeps a write-ahead log, and none was given with it: rows ' +
                        'that are only in the log are missing here',
                ),
            );
        if (!isWal)
            findings.push(
                aboutFile('note', 'rollback', '', "rollback journal: a reader can make the device's commits fail"),
            );
        if (journal && this.engine.file(path)?.hasChanges)
            findings.push(
                aboutFile(
                    'note',
                    'rolledBack',
                    '',
                    `a transaction that was cut off, ${bytesText(journal.size)}, is rolled back here, in memory`,
                ),
            );
        return findings;
    }

    async tables(): Promise<readonly TableInfo[]> {
        this.files.forEach((file, place) => {
            for (const pass of file.passes) {
                const {table} = pass;
                const key = `${place}/${table.name}`;
                if (this.opened.has(key)) continue;
                const named = file.info.configuration.filter(
                    ({collector, name}) => isSameName(collector, table.name) && name !== '',
                );
                const {unit, description} = file.seriesInfos.get(plainName(table.name)) ?? {unit: '', description: ''};
                const info: TableInfo = {
                    key,
                    file: place,
                    name: table.name,
                    kind: table.kind,
                    unit,
                    description,
                    title: (table.kind === 'samples' && named[named.length - 1]?.name) || table.name,
                    indexed: pass.indexed,
                    hasTrend: pass.rollups !== null,
                    firstId: pass.firstId,
                    lastId: pass.lastId,
                    ...(Number.isSafeInteger(pass.lastId) ? {} : {lastIdText: pass.lastIdText}),
                };
                this.opened.set(key, {info, file, pass, dots: [], pictures: new Map(), reading: null, probing: null});
            }
        });
        return [...this.opened.values()].map(({info}) => info);
    }

    private async tableOf(key: string): Promise<OpenTable> {
        const table = this.opened.get(key);
        if (!table) throw new ReadError(key, 'there is no such table; drop the file again');
        let isSame = false;
        try {
            isSame = table.file.unchanged();
        } catch {
            // the medium says that it is another file
        }
        if (!isSame)
            throw new ReadError(table.file.info.name, 'it was changed or taken away while it was open; drop it again');
        return table;
    }

    private async run<Result>(work: Work<Result>, signal?: AbortSignal, tick?: () => void): Promise<Result> {
        try {
            for (let until = performance.now() + sliceLength; ;) {
                const step = work.next();
                if (step.done) return step.value;
                if (performance.now() < until) continue;
                tick?.();
                await this.pause();
                signal?.throwIfAborted();
                until = performance.now() + sliceLength;
            }
        } finally {
            work.return(undefined as never);
        }
    }

    // Whoever asks first has the table read; nobody who goes away ends that.
    private read(table: OpenTable): Promise<void> {
        table.reading ??= this.run(table.pass.read());
        return table.reading;
    }

    // Single rows from everywhere in the table, for a first look.
    private probe(table: OpenTable): Promise<void> {
        table.probing ??= this.run(probesOf(table.pass, table.dots));
        return table.probing;
    }

    /** Waits for some work; while it goes on, what is known so far is shown now and then. `follow`: after each slice. */
    private async waitFor(
        work: Promise<void>,
        signal: AbortSignal | undefined,
        show: () => void,
        follow = (): void => undefined,
    ): Promise<void> {
        let isDone = false;
        const done = (): void => {
            isDone = true;
        };
        work.then(done, done);
        for (let next = performance.now() + showEvery; !isDone;) {
            await Promise.race([work, this.pause()]);
            signal?.throwIfAborted();
            follow();
            const begin = performance.now();
            if (isDone || begin < next) continue;
            show();
            const end = performance.now();
            next = end + Math.max(showEvery, shareOfShowing * (end - begin));
        }
        await work;
    }

    private whileReading(
        table: OpenTable,
        signal: AbortSignal | undefined,
        show: () => void,
        follow?: () => void,
    ): Promise<void> {
        return this.waitFor(this.read(table), signal, show, follow);
    }

    async overview(key: string, seen: Seen<Overview>, signal?: AbortSignal): Promise<Overview> {
        const table = await this.tableOf(key);
        if (table.pass.lookAtEnds()) seen(this.overviewOf(table));
        else if (table.info.kind === 'samples') await this.showDotsEnds(table, seen, signal);
        await this.whileReading(table, signal, () => seen(this.overviewOf(table)));
        return this.overviewOf(table);
    }

    private overviewOf(table: OpenTable): Overview {
        const overview = table.pass.overview();
        if (!table.pass.indexed && overview.rows > 0)
            return {
                ...overview,
                findings: [
                    ...overview.findings,
                    aboutFile(
                        'note',
                        'noIndex',
                        table.info.name,
                        'no index on time: a range of time is found only by reading the whole table',
                    ),
                ],
            };
        return overview;
    }

    private async showDotsEnds(table: OpenTable, seen: Seen<Overview>, signal?: AbortSignal): Promise<void> {
        const show = (): void => {
            if (table.dots.length > 0 && !table.pass.isDone) seen(this.overviewOf(table));
        };
        await this.waitFor(this.probe(table), signal, show);
        show();
    }

    async trend(query: TrendQuery, seen: Seen<TrendAnswer>, signal?: AbortSignal): Promise<TrendAnswer> {
        const table = await this.tableOf(query.table);
        const {pass} = table;
        const unit = pass.table.kind === 'samples' ? 1000 : 1; // a log has milliseconds
        const from = Math.max(0, Math.ceil(query.from / unit) * unit);
        const range: Range = {
            from,
            to: Math.max(from, Math.floor(query.to / unit) * unit),
            columns: Math.max(1, Math.min(mostColumns, Math.trunc(query.columns))),
        };
        if (pass.table.kind !== 'samples') {
            const answer = (): TrendAnswer =>
                pass.table.kind === 'alarms'
                    ? {kind: 'alarms', exact: pass.isDone, share: pass.share, lanes: pass.lanes.between(range)}
                    : {kind: 'log', exact: pass.isDone, share: pass.share, marks: pass.marks.between(range)};
            await this.whileReading(table, signal, () => seen(answer()));
            return answer();
        }
        const key = `${range.from} ${range.to} ${range.columns}`;
        const kept = table.pictures.get(key);
        if (kept) return kept;
        const direct = pass.isDone && !pass.rollups ? null : await this.directly(table, range, signal);
        if (direct) return answerOf(direct, table, true);
        const picture = new CurveOfBlocks(pass.database, pass.table.name, pass.blocks, range);
        const rough = (): TrendAnswer =>
            answerOf(picture.isComplete ? picture.curve : roughCurve(pass.blocks, range), table, false);
        try {
            if (!pass.isDone) {
                const show = (): void => seen(pass.share > 0.5 ? rough() : dotsAnswer(range, table));
                await this.waitFor(this.probe(table), signal, show);
                show();
                await this.whileReading(table, signal, show, () => doForASlice(picture.read()));
            }
            let isShown = false;
            await this.run(picture.read(), signal, () => {
                if (!isShown) seen(rough());
                isShown = true;
            });
            const exact = answerOf(picture.curve, table, true);
            table.pictures.set(key, exact);
            if (table.pictures.size > picturesKept) table.pictures.delete(table.pictures.keys().next().value!);
            return exact;
        } finally {
            picture.close();
        }
    }

    // By sums that the file keeps, or by the index on time if that finds few enough rows.
    private async directly(table: OpenTable, range: Range, signal?: AbortSignal): Promise<Curve | null> {
        const {
            database,
            rollups,
            indexed,
            table: {name},
        } = table.pass;
        if (rollups) {
            try {
                return await this.run(curveOfRollups(database, name, rollups, range), signal);
            } catch (error) {
                if (signal?.aborted) throw error; // else the rows say it
            }
        }
        if (!indexed) return null;
        const rows = database.number(
            `select count(*) from (select 1 from ${identifier(name)} where DATETIME>=?1 and ` +
                `DATETIME<=?2 limit ${rowsByIndex + 1})`,
            ...textsOf(range),
        );
        return rows > rowsByIndex ? null : this.run(curveOfIndex(database, name, range), signal);
    }

    async rows(query: RowQuery, seen: Seen<RowsAnswer>, signal?: AbortSignal): Promise<RowsAnswer> {
        const table = await this.tableOf(query.table);
        const key = Selection.keyOf(query);
        let kept = this.selections.get(key);
        if (!kept) {
            const selection = new Selection(table.pass, query);
            kept = {selection, found: this.run(selection.find(), signal)};
            kept.found.catch(() => this.selections.delete(key));
            if (this.selections.size >= selectionsKept) this.selections.delete(this.selections.keys().next().value!);
        } else {
            this.selections.delete(key); // the least recently used is the first
        }
        this.selections.set(key, kept);
        const {selection, found} = kept;
        const answer = (): RowsAnswer => {
            const wanted =
                query.id !== undefined
                    ? selection.placeOfId(query.id)
                    : query.at !== undefined
                      ? selection.placeOfTime(query.at)
                      : -1;
            const offset = wanted < 0 ? query.offset : Math.max(0, wanted - Math.floor(query.limit / 2));
            return {
                exact: selection.isExact,
                share: selection.share,
                total: selection.total,
                offset,
                found: wanted,
                rows: selection.page(offset, query.limit),
            };
        };
        try {
            await this.waitFor(found, signal, () => seen(answer()));
        } catch (error) {
            // Who asked first and has gone away took the search along.
            const isOfOther = error instanceof Error && error.name === 'AbortError' && !signal?.aborted;
            if (isOfOther) return this.rows(query, seen, signal);
            throw error;
        }
        return answer();
    }
}

function keylessFindings(tables: readonly Table[]): Finding[] {
    const what = 'ID is no INTEGER PRIMARY KEY there: its rows cannot be told apart, and are not shown';
    return tables.map(({name}) => aboutFile('attention', 'definition', name, what));
}

function foreignFindings(tables: readonly Table[]): Finding[] {
    return tables
        .filter(({kind, name}) => kind === 'foreign' && name !== 'device-db import')
        .map(({name}) => aboutFile('note', 'foreign', name, 'no table of a store; it is left alone'));
}

/** What went wrong, without the file that it is about. */
function causeOf(error: unknown): string {
    return error instanceof ReadError ? error.cause_ : String(error);
}

function doForASlice(work: Work<void>): void {
    for (const until = performance.now() + sliceLength; performance.now() < until && !work.next().done;);
}

function textsOf({from, to}: Range): [string, string] {
    return [timeText(from, false), timeText(to, false)];
}

function* probesOf(pass: TablePass, dots: Sample[]): Work<void> {
    const statement = pass.database.prepare(
        `select DATETIME,Value from ${identifier(pass.table.name)} where ID>=?1 order by ID limit 1`,
    );
    try {
        for (let i = 0; i < probes; ++i) {
            // In strides, so that the first of them are from everywhere as well.
            const place = ((i * probeStride) % probes) / (probes - 1);
            statement.bind(1, pass.firstId + Math.floor((pass.lastId - pass.firstId) * place));
            if (statement.step()) {
                const time = timeIn(statement.text(0), false);
                const value = numberOf(statement.text(1));
                if (time !== null && time >= 0 && value !== null) {
                    dots.push({time, value});
                    pass.addTime(time);
                }
            }
            statement.reset();
            yield;
        }
    } finally {
        statement.finalize();
    }
}

function dotsAnswer(range: Range, table: OpenTable): CurveAnswer {
    const shown = table.dots.filter(({time}) => time >= range.from && time <= range.to).sort((a, b) => a.time - b.time);
    const curve = new Curve(range);
    for (const {time, value} of shown) curve.add(0, time, value);
    return {
        ...answerOf(curve, table, false),
        isSample: true,
        seen: table.dots.length,
        lines: [],
        points: shown.flatMap(({time, value}) => [time, value]),
    };
}

function answerOf(curve: Curve, table: OpenTable, exact: boolean): CurveAnswer {
    const {total} = curve;
    const sample = (at: number): Sample | null =>
        total.numbers > 0 ? {time: total.points[at]!, value: total.points[at + 1]!} : null;
    const flat = (points: readonly Sample[]): number[] => points.flatMap(({time, value}) => [time, value]);
    return {
        kind: 'samples',
        exact,
        share: exact ? 1 : table.pass.share,
        isSample: false,
        seen: table.pass.rows,
        of: table.pass.expectedRows,
        lines: curve.lines().map(flat),
        points: flat(curve.reduction().points()),
        others: curve.otherTimes(),
        rows: total.rows,
        numbers: total.numbers,
        lowest: sample(0),
        highest: sample(2),
        first: sample(4),
        last: sample(6),
        mean: total.mean,
    };
}
