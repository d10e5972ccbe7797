// SPDX-License-Identifier: MIT
//
// The one interface between the page and where rows come from. All of it can be sent as JSON: milliseconds count as
// times.ts says, cells are texts or null, and points of a line are times and values in turn.
import type {Cell} from './cells.js';
import type {ClockStep, Finding} from './findings.js';
import type {Kind, Registration} from './tables.js';

/** A file that was opened. */
export interface FileInfo {
    readonly name: string;
    readonly bytes: number;
    readonly pages: number;
    readonly pageSize: number;
    readonly freePages: number;
    readonly journal: 'wal' | 'rollback';
    readonly encoding: string;
    readonly walBytes: number; // -1: there is none beside it
    readonly journalBytes: number;
    readonly configuration: readonly Registration[];
    readonly findings: readonly Finding[]; // those of the file as a whole
    readonly error: string; // why it cannot be read; empty otherwise
}

/** A table of records. */
export interface TableInfo {
    readonly key: string; // names it in every question
    readonly file: number; // its place in what open() gave
    readonly name: string;
    readonly kind: Kind;
    readonly title: string; // for people
    readonly unit: string;
    readonly description: string;
    readonly indexed: boolean;
    readonly hasTrend: boolean;
    readonly firstId: number;
    readonly lastId: number;
    readonly lastIdText?: string; // where a number is not exact, and the source knows
}

/** How far a long answer has come. */
export interface Share {
    readonly exact: boolean;
    readonly share: number; // 0 to 1
}

/** What a table holds, found by reading every row once. */
export interface Overview extends Share {
    readonly rows: number;
    readonly first: Cell; // the least and the greatest of its times, as texts
    readonly last: Cell;
    readonly from: number; // what a picture of all shows: plausible times, those of removed rows that are summed up
    readonly to: number; // among them, or others if there are none; NaN without any
    readonly findings: readonly Finding[];
    readonly steps: readonly ClockStep[];
    readonly numbers: number; // of samples
    readonly lowest: number;
    readonly highest: number;
    readonly mean: number;
    readonly choices: readonly (readonly [string, number])[]; // levels of alarms, users of a log, with their rows
}

/** No source makes a picture of more. */
export const mostColumns = 100000;

export interface TrendQuery {
    readonly table: string;
    readonly from: number; // milliseconds; both ends belong to the range, to the second
    readonly to: number;
    readonly columns: number;
}

export interface Sample {
    readonly time: number;
    readonly value: number;
}

export interface CurveAnswer extends Share {
    readonly kind: 'samples';
    readonly isSample: boolean; // single rows from here and there: to be drawn as dots
    readonly seen: number; // rows that it was made of, and how many there are
    readonly of: number;
    readonly lines: readonly (readonly number[])[]; // in the order of recording; gaps are between them
    readonly points: readonly number[]; // in the order of time, at most four for each column
    readonly others: readonly number[]; // times near values that are not numbers
    readonly rows: number;
    readonly numbers: number;
    readonly lowest: Sample | null;
    readonly highest: Sample | null;
    readonly first: Sample | null;
    readonly last: Sample | null;
    readonly mean: number;
}

export interface Lane {
    readonly level: number;
    readonly alarms: number;
    readonly spans: readonly number[]; // begin and end in turn, joined where a column could not show the gap
}

export interface LanesAnswer extends Share {
    readonly kind: 'alarms';
    readonly lanes: readonly Lane[]; // the highest level first
}

export interface MarksAnswer extends Share {
    readonly kind: 'log';
    readonly marks: readonly number[]; // time, number of entries and ID of the first, for each column that has some
}

export type TrendAnswer = CurveAnswer | LanesAnswer | MarksAnswer;

export type Order = 'recorded' | 'oldest' | 'newest' | {readonly column: string; readonly descending: boolean};

export interface RowQuery {
    readonly table: string;
    readonly from?: number | undefined; // milliseconds
    readonly to?: number | undefined;
    readonly containing?: string | undefined; // in any text of the row, whatever the case of its letters
    readonly state?: 'active' | 'ended' | undefined; // of alarms
    readonly levels?: readonly number[] | undefined;
    readonly users?: readonly string[] | undefined;
    readonly order: Order;
    readonly offset: number;
    readonly limit: number;
    /** In place of an offset: the page with this row in its middle. */
    readonly id?: number | undefined;
    /** The same for the row that is nearest to this time, by the order of the rows. */
    readonly at?: number | undefined;
}

export interface RowsAnswer extends Share {
    readonly total: number; // rows that the query finds, so far
    readonly offset: number; // of the first of these rows
    readonly found: number; // with `id` or `at`: the number of the row that was asked for; -1: none
    readonly rows: readonly (readonly Cell[])[]; // ID, then the columns of the kind
}

/** Calls with an answer that is not yet exact, as often as there is something new to see. */
export type Seen<Answer> = (answer: Answer) => void;

/** A table with new rows. */
export interface NewRows {
    readonly key: string;
    readonly lastId: number;
}

/** What a watched file did. */
export interface FileChange {
    readonly file: number; // its place in what open() gave
    readonly error: string; // why it cannot be read at the moment; empty otherwise
    readonly isOther: boolean; // more than new rows, so that open() and tables() have other answers as well
    readonly tables: readonly NewRows[];
}

/** What happened to the files since open() and tables(), or to the connection. */
export interface Change {
    readonly trouble: string; // why nothing is known of the files at the moment; empty otherwise
    readonly files: readonly FileChange[]; // those that changed
}

/** Failures are Errors whose message is for people. A signal ends the work; the promise is rejected then. */
export interface Source {
    open(): Promise<readonly FileInfo[]>;
    tables(): Promise<readonly TableInfo[]>;
    overview(table: string, seen: Seen<Overview>, signal?: AbortSignal): Promise<Overview>;
    trend(query: TrendQuery, seen: Seen<TrendAnswer>, signal?: AbortSignal): Promise<TrendAnswer>;
    rows(query: RowQuery, seen: Seen<RowsAnswer>, signal?: AbortSignal): Promise<RowsAnswer>;
    /** Only where files can change: calls with each change until the function that it returns is called. */
    watch?(listener: (change: Change) => void): () => void;
}
