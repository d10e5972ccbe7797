// SPDX-License-Identifier: MIT
import type {Database} from '../sqlite/database.js';
import {comesBefore, decodedTwice, identifier, isSameName, plainName} from './cells.js';

/** What a table holds, recognised by its columns. */
export type Kind = 'samples' | 'alarms' | 'log' | 'configuration' | 'foreign';

/** A column of the known tables after ID. */
export interface KnownColumn {
    readonly name: string; // in the file
    readonly declaration: string; // its type and rules there
    readonly key: string; // in CSV
    readonly title: string; // for people
    readonly twice: boolean; // the store library encodes its texts twice
}

const column = (name: string, declaration: string, key: string, title: string, twice = false): KnownColumn => ({
    name,
    declaration,
    key,
    title,
    twice,
});

const known: Readonly<Record<Kind, readonly KnownColumn[]>> = {
    samples: [column('DATETIME', 'dateTime', 'time', 'Time'), column('Value', 'text', 'value', 'Value')],
    alarms: [
        column('LevelID', 'INTEGER', 'level', 'Level'),
        column('DATETIME', 'dateTime', 'start', 'Start'),
        column('AlarmObject', 'text', 'object', 'Object'),
        column('AlarmType', 'text', 'type', 'Type'),
        column('CurrentValue', 'text', 'value', 'Value'),
        column('LimitValue', 'text', 'limit', 'Limit'),
        column('AlarmDescription', 'text', 'description', 'Description', true),
        column('EndDate', 'text', 'end_date', 'End date'),
        column('EndTime', 'text', 'end_time', 'End time'),
    ],
    log: [
        column('DATETIME', 'dateTime NOT NULL', 'time', 'Time'),
        column('userName', 'text', 'user', 'User'),
        column('logName', 'text', 'log', 'Log'),
        column('message', 'text', 'message', 'Message'),
    ],
    configuration: [
        column('COLLECTOR', 'text', 'collector', 'Collector', true),
        column('NAME', 'text', 'name', 'Name', true),
    ],
    foreign: [],
};

/** The columns of a kind of table after ID. Empty for a foreign one. */
export function columnsOf(kind: Kind): readonly KnownColumn[] {
    return known[kind];
}

/** Between the parentheses of "create table", word for word as the store library makes it. */
export function definitionOf(kind: Kind): string {
    return [
        'ID INTEGER PRIMARY KEY AUTOINCREMENT',
        ...known[kind].map((each) => `${each.name} ${each.declaration}`),
    ].join(',');
}

/** "ID,DATETIME,Value": named in each query, because * would compute columns that the file itself defines. */
export function columnList(kind: Kind): string {
    return ['ID', ...known[kind].map((each) => each.name)].join(',');
}

/** The times of the table have milliseconds. */
export function hasMilliseconds(kind: Kind): boolean {
    return kind === 'log';
}

export function holdsRecords(kind: Kind): boolean {
    return kind === 'samples' || kind === 'alarms' || kind === 'log';
}

export interface Table {
    readonly name: string;
    readonly kind: Kind;
    readonly columns: readonly string[]; // none of a virtual table, whose rows come from a module: it is never touched
}

function kindOf(columns: readonly string[]): Kind {
    for (const kind of ['samples', 'alarms', 'log', 'configuration'] as const) {
        if (isSameName(columns.join(','), columnList(kind))) return kind;
    }
    return 'foreign';
}

/** The tables of a file in the order of comesBefore(); SQLite's own and views are left out. */
export function tablesOf(database: Database): Table[] {
    const found = new Map<string, {columns: string[]; isVirtual: boolean}>();
    // A virtual table has no root page; asking for its columns would run its module.
    database.rows(
        'select m.name,c.name,m.rootpage from sqlite_master m left join ' +
            "pragma_table_info(iif(m.rootpage>0,m.name,'')) c where m.type='table' and m.name not " +
            "like 'sqlite\\_%' escape '\\' and m.name not like 'device %' order by m.name,c.cid",
        [],
        (row) => {
            const name = row.text(0);
            const table = found.get(name) ?? {columns: [], isVirtual: row.number(2) === 0};
            found.set(name, table);
            if (!table.isVirtual) table.columns.push(row.text(1));
        },
    );
    return [...found]
        .map(([name, {columns}]) => ({name, kind: kindOf(columns), columns}))
        .sort((a, b) => (comesBefore(a.name, b.name) ? -1 : comesBefore(b.name, a.name) ? 1 : 0));
}

/**
 * Whether the table's ID is the key that SQLite finds its rows by. In one that somebody made by "create table as
 * select" it is a column like any other: it need be neither a number nor one of a kind.
 */
export function isKeyedById(database: Database, {name}: Table): boolean {
    // A primary key without an index of its own is the rowid.
    return (
        database.number(
            'select (select group_concat(lower(name)) from pragma_table_info(?1) where pk) is ' +
                "'id' and not exists(select 1 from pragma_index_list(?1) where origin='pk')",
            name,
        ) === 1
    );
}

/** A pair of the configuration table: the series' table and its name for people. */
export interface Registration {
    readonly collector: string; // decoded
    readonly name: string; // decoded
    readonly hasTable: boolean;
}

/** What tb_config lists, in its order; nothing when there is none. */
export function registrationsOf(database: Database, tables: readonly Table[]): Registration[] {
    const registrations: Registration[] = [];
    // A table of its columns and not only something of its name, which may be a view.
    if (!tables.some((table) => table.kind === 'configuration' && table.name === 'tb_config')) return registrations;
    database.rows('select COLLECTOR,NAME from tb_config order by ID', [], (row) => {
        const collector = decodedTwice(row.text(0));
        const hasTable = tables.some((table) => table.kind === 'samples' && isSameName(table.name, collector));
        registrations.push({collector, name: decodedTwice(row.text(1)), hasTable});
    });
    return registrations;
}

/** What the host layer adds about a series; empty texts where it does not. */
export interface SeriesInfo {
    readonly unit: string;
    readonly description: string;
}

/** By plainName() of the table. A table of other columns is not the host layer's. */
export function seriesInfosOf(database: Database): Map<string, SeriesInfo> {
    const infos = new Map<string, SeriesInfo>();
    const columns = database.text(
        "select group_concat(name) from pragma_table_info((select name from sqlite_master where type='table' and " +
            "rootpage>0 and name='device series'))",
    );
    if (columns !== 'COLLECTOR,UNIT,DESCRIPTION') return infos;
    database.rows('select COLLECTOR,UNIT,DESCRIPTION from "device series"', [], (row) => {
        infos.set(plainName(row.text(0)), {unit: row.text(1), description: row.text(2)});
    });
    return infos;
}

/** Whether there is an index by which rows are found by their time. `whole`: one of all rows. */
export function hasTimeIndex(database: Database, table: string, whole: boolean): boolean {
    return (
        database.number(
            'select count(*) from pragma_index_list(?1) l join pragma_index_info(l.name) i where ' +
                (whole ? 'l.partial=0 and ' : '') +
                "i.seqno=0 and upper(i.name)='DATETIME'",
            table,
        ) > 0
    );
}

/** The highest ID that the table ever gave; the next row gets a higher one. */
export function lastIdOf(database: Database, table: string): bigint {
    const whole = (of: string, from: string, ...values: string[]): bigint =>
        BigInt(database.text(`select cast(coalesce(max(${of}),0) as integer) from ${from}`, ...values));
    const highest = whole('ID', identifier(table));
    const counts = database.number("select count(*) from sqlite_master where name='sqlite_sequence'") > 0;
    const given = counts ? whole('seq', 'sqlite_sequence where name=?1', table) : 0n;
    return highest > given ? highest : given;
}

/**
 * The lowest ID that is there; 0 in an empty table. In a query of its own, because SQLite scans for both ends at once.
 */
export function firstIdOf(database: Database, table: string): number {
    return database.number(`select coalesce(min(ID),0) from ${identifier(table)}`);
}

/** The place of the column with the time of a record, ID being at 0. */
export function timeColumnOf(kind: Kind): number {
    return kind === 'alarms' ? 2 : 1;
}
