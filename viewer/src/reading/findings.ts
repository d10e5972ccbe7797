// SPDX-License-Identifier: MIT
//
// The one judge of rows: every limit of what is odd is here, and the same as in storefile/findings.cpp.
import type {Database} from '../sqlite/database.js';
import {rowsText} from './cells.js';
import {SampleDistances} from './statistics.js';
import {definitionOf, hasMilliseconds} from './tables.js';
import type {Kind, Registration, Table} from './tables.js';
import {duration, endOfAlarm, isTime, localNow, TimeSpan, timeText} from './times.js';

export type Severity = 'note' | 'attention' | 'damage';

/** What a finding is about, for the advice that goes with it. */
export type Cause =
    | 'malformed'
    | 'unset'
    | 'ahead'
    | 'back'
    | 'gap'
    | 'half'
    | 'otherEnd'
    | 'endsBefore'
    | 'definition'
    | 'trigger'
    | 'unique'
    | 'notListed'
    | 'noTable'
    | 'noConfiguration'
    | 'damaged'
    | 'rule'
    | 'freePages'
    | 'rollback'
    | 'noIndex'
    | 'noLog'
    | 'rolledBack'
    | 'foreign';

/** Something odd. The texts are for people; what they quote from the file is not escaped. */
export interface Finding {
    severity: Severity;
    cause: Cause;
    table: string; // empty: the file
    what: string; // with its consequence
    rows: number; // that it is true of; 0: it is not about rows
    firstId: number; // of these
    detail: string; // about the worst or the first of them; may be empty
}

/** "2 rows: WHAT; DETAIL" */
export function findingText(finding: Finding): string {
    return (
        (finding.rows > 0 ? `${rowsText(finding.rows)}: ` : '') +
        finding.what +
        (finding.detail === '' ? '' : `; ${finding.detail}`)
    );
}

// Before it there were no such files; a clock that lost its battery begins in 1970 or 1980.
const clockIsSetSince = Date.UTC(2000, 0, 1);
const dayLength = 86400000;

function quoted(text: string, id: number): string {
    return `the first: "${text.slice(0, 40)}", ID ${id}`;
}

/** The row that is judged: its ID and the cell of its time, which are asked for only when a finding names them. */
export interface JudgedRow {
    readonly id: number;
    timeText(): string;
}

/** A moment at which the clock went back. */
export interface ClockStep {
    readonly id: number;
    readonly before: number; // milliseconds
    readonly after: number;
}

const stepsKept = 1000;

/** Takes the rows of a table in the order of recording. */
export class RowJudge {
    readonly steps: ClockStep[] = [];
    readonly distances = new SampleDistances();
    readonly plausible = new TimeSpan();

    private readonly isSeries: boolean;
    private readonly milliseconds: boolean;
    private readonly future: number;
    private before = NaN; // the last time that was plausible
    private longestBack = 0;
    private readonly malformed: Finding;
    private readonly unset: Finding;
    private readonly ahead: Finding;
    private readonly back: Finding;
    private readonly gap: Finding;
    private readonly half: Finding;
    private readonly otherEnd: Finding;
    private readonly endsBefore: Finding;

    /** `now`: the wall clock, for what is in the future. */
    constructor(table: string, kind: Kind, now = localNow()) {
        this.isSeries = kind === 'samples';
        this.milliseconds = hasMilliseconds(kind);
        this.future = now + dayLength;
        const about = (severity: Severity, cause: Cause, what: string): Finding => ({
            severity,
            cause,
            table,
            what,
            rows: 0,
            firstId: 0,
            detail: '',
        });
        this.malformed = about(
            'attention',
            'malformed',
            "time in another form than the store's: it does not sort, and some queries end at it",
        );
        this.unset = about('attention', 'unset', 'before the year 2000: the clock was not set');
        this.ahead = about('attention', 'ahead', 'in the future, seen from this computer');
        this.back = about('note', 'back', 'clock went back');
        this.gap = about('note', 'gap', '');
        this.half = about(
            'attention',
            'half',
            'neither active nor ended: no query finds them and no purge removes them',
        );
        this.otherEnd = about('note', 'otherEnd', 'end in a form of its own: figures and pictures do not know it');
        this.endsBefore = about('note', 'endsBefore', 'ended before it began');
    }

    /** `time`: NaN for what is not a time. */
    addTime(time: number, row: JudgedRow): void {
        // Such a clock says nothing about steps and gaps either.
        if (!this.isPlausible(time)) {
            const finding = Number.isNaN(time) ? this.malformed : time < clockIsSetSince ? this.unset : this.ahead;
            return this.note(finding, row.id, () => quoted(row.timeText(), row.id));
        }
        this.plausible.add(time);
        if (time < this.before) this.addStep(row.id, time);
        else if (this.isSeries && time >= this.before && this.distances.add(this.before, time)) {
            this.gap.firstId = row.id;
            this.gap.detail =
                `the longest ${duration(time - this.before)}, from ${this.textOf(this.before)} to ` + this.textOf(time);
        }
        this.before = time;
    }

    /** Neither of a clock that was not set nor of one that is ahead; a text of 23 characters is after one of 19. */
    isPlausible(time: number): boolean {
        return time >= clockIsSetSince && (time < this.future || (time === this.future && !this.milliseconds));
    }

    addEnd(id: number, time: string, endDate: string | null, endTime: string | null): void {
        // As the store's queries ask: NULL is neither equal to an empty text nor different from it.
        if (endDate === '' && endTime === '') return;
        if (!endDate || !endTime) return this.note(this.half, id, () => `the first: ID ${id}`);
        const end = endOfAlarm(endDate, endTime);
        if (!isTime(end, false)) this.note(this.otherEnd, id, () => quoted(`${endDate} ${endTime}`, id));
        else if (isTime(time, false) && end < time) this.note(this.endsBefore, id, () => quoted(end, id));
    }

    findings(): Finding[] {
        const usual = this.distances.usual();
        const gap: Finding = {
            ...this.gap,
            rows: this.distances.gaps(),
            what:
                usual === 0
                    ? 'after a gap, while most have the time of the row before'
                    : `after a gap of more than ${SampleDistances.gapFactor} times the usual ${duration(usual)}`,
        };
        return [this.malformed, this.unset, this.ahead, this.back, gap, this.half, this.otherEnd, this.endsBefore]
            .filter((each) => each.rows > 0)
            .map((each) => ({...each}));
    }

    private textOf(time: number): string {
        return timeText(time, this.milliseconds);
    }

    private addStep(id: number, time: number): void {
        this.note(this.back, id, () => '');
        if (this.steps.length < stepsKept) this.steps.push({id, before: this.before, after: time});
        if (this.before - time > this.longestBack) {
            this.longestBack = this.before - time;
            this.back.detail =
                `the furthest by ${duration(this.longestBack)}: ${this.textOf(time)} after ` +
                `${this.textOf(this.before)}, ID ${id}`;
        }
    }

    private note(finding: Finding, id: number, detail: () => string): void {
        if (finding.rows++ > 0) return;
        finding.firstId = id;
        finding.detail = detail();
    }
}

// Definitions are compared without regard to what SQLite does not regard.
function plain(sql: string): string {
    return sql
        .trim()
        .replace(/[\t\n\v\f\r ]+/g, ' ')
        .replaceAll(', ', ',')
        .replaceAll(' ,', ',')
        .replaceAll('( ', '(')
        .replaceAll(' )', ')')
        .replace(/[A-Z]/g, (letter) => letter.toLowerCase());
}

function aboutFile(severity: Severity, cause: Cause, table: string, what: string, detail = ''): Finding {
    return {severity, cause, table, what, rows: 0, firstId: 0, detail};
}

/** What of a table's definition, indexes and triggers differs from what the store library makes. */
export function definitionFindings(database: Database, table: Table): Finding[] {
    const found: Finding[] = [];
    const add = (cause: Cause, what: string): void => void found.push(aboutFile('attention', cause, table.name, what));
    database.rows("select type,name,coalesce(sql,'') from sqlite_master where tbl_name=?1", [table.name], (row) => {
        const [type, object, sql] = [row.text(0), row.text(1), row.text(2)];
        if (type === 'table' && !plain(sql).endsWith(`(${plain(definitionOf(table.kind))})`))
            add(
                'definition',
                "its columns have the right names, but other types or rules than the store's: rows that " +
                    'break a rule are lost silently',
            );
        if (type === 'trigger') add('trigger', `the trigger ${object} acts on it`);
        if (type === 'index' && (sql === '' || plain(sql).startsWith('create unique')))
            add('unique', `the unique index ${object}: rows that break it are lost silently`);
    });
    return found;
}

/** What tb_config lists beside what there is. */
export function configurationFindings(tables: readonly Table[], registrations: readonly Registration[]): Finding[] {
    const found: Finding[] = [];
    const listed: string[] = [];
    const isListed = (name: string): boolean => listed.some((each) => each.toLowerCase() === name.toLowerCase());
    for (const each of registrations) {
        if (!each.hasTable && !isListed(each.collector))
            found.push(
                aboutFile(
                    'attention',
                    'noTable',
                    'tb_config',
                    `it lists ${each.collector}, which is not a table of samples`,
                ),
            );
        listed.push(each.collector);
    }
    const hasList = tables.some((table) => table.kind === 'configuration' && table.name === 'tb_config');
    const unlisted = tables.filter((table) => table.kind === 'samples' && !isListed(table.name));
    if (hasList)
        found.push(
            ...unlisted.map((table) => aboutFile('attention', 'notListed', table.name, 'tb_config does not list it')),
        );
    else if (unlisted.length > 0)
        found.push(
            aboutFile(
                'attention',
                'noConfiguration',
                '',
                `there is no tb_config to name its ${unlisted.length} series`,
            ),
        );
    return found;
}

/** SQLite's own check of the file, and its free pages. Slow: it reads everything. */
export function integrityFindings(database: Database): Finding[] {
    const found: Finding[] = [];
    try {
        database.rows('pragma integrity_check', [], (row) => {
            const verdict = row.text(0).replace('*** in database main ***\n', '');
            if (verdict === 'ok') return;
            // SQLite lists a broken rule of a column here as well.
            const isRule = verdict.includes('value in') || verdict.includes('CHECK');
            found.push(aboutFile(isRule ? 'attention' : 'damage', isRule ? 'rule' : 'damaged', '', verdict));
        });
    } catch (error) {
        const words = error instanceof Error ? error.message : String(error);
        found.push(aboutFile('damage', 'damaged', '', words.replace(`${database.name}: `, '').split(';')[0]!));
        return found;
    }
    const pages = database.number('pragma page_count');
    const free = database.number('pragma freelist_count');
    if (free > 100 && free * 2 > pages)
        found.push(
            aboutFile('note', 'freePages', '', `${free} of its pages are free; "device-db vacuum" gives them back`),
        );
    return found;
}

export {aboutFile};
