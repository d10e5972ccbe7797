// SPDX-License-Identifier: MIT
//
// The answers of device-db to the questions of the cases.
import {execFileSync, spawnSync} from 'node:child_process';
import {chmodSync, existsSync, mkdtempSync, readFileSync, rmSync, writeFileSync} from 'node:fs';
import {tmpdir} from 'node:os';
import {join} from 'node:path';

import type {Definition} from './definitions.js';
import {made} from './support.js';

/** The program that is asked: $DEVICE_DB, or the one of a build folder. */
export function deviceDb(): string | null {
    const places = [
        process.env['DEVICE_DB'],
        ...['qt6', 'release', 'qt5'].map((preset) =>
            join(root, '..', 'build', preset, 'apps', 'device-db', 'device-db'),
        ),
    ];
    return places.find((place) => place !== undefined && existsSync(place)) ?? null;
}

/** The folder of the viewer: tests run there. */
export const root = process.cwd();

export interface ExpectedFinding {
    readonly table: string;
    readonly what: string;
    readonly rows: number;
    readonly id: number;
    readonly detail: string;
}

/** Points of the lines that are drawn, as time and value in turn, of rows between two times that are rows' own. */
export interface Picture {
    readonly table: string;
    readonly from: number;
    readonly to: number;
    readonly columns: number;
    readonly numbers: number; // values that are numbers, between these times
    readonly lines: readonly (readonly number[])[];
}

export interface Case {
    readonly name: string;
    readonly sql: readonly string[];
    readonly tables: readonly {
        name: string;
        kind: string;
        rows: number;
        first: string | null;
        last: string | null;
        lastId: number;
        indexed: boolean;
    }[];
    readonly configuration: readonly {collector: string; name: string; table: boolean}[];
    readonly findings: readonly ExpectedFinding[];
    readonly check: readonly (readonly [string, string, string])[]; // severity, table and text of each finding
    readonly pictures: readonly Picture[];
    readonly cells: Readonly<Record<string, string>>; // CSV, in base64: not all of it is UTF-8
    readonly finds: readonly {table: string; containing: string; ids: readonly number[]}[];
}

export class Folder {
    readonly path = mkdtempSync(join(tmpdir(), 'viewer-'));

    write(name: string, bytes: Uint8Array | string): string {
        writeFileSync(join(this.path, name), bytes);
        return join(this.path, name);
    }

    [Symbol.dispose](): void {
        rmSync(this.path, {recursive: true, force: true});
    }
}

/** Runs device-db; its exit code is not looked at, because findings have one of their own. */
export function run(program: string, args: readonly string[], path?: string): Buffer {
    const environment: NodeJS.ProcessEnv = {...process.env, TZ: 'UTC', LC_ALL: 'C.UTF-8'};
    if (path !== undefined) environment['PATH'] = `${path}:${environment['PATH']}`;
    const done = spawnSync(program, args, {env: environment, maxBuffer: 1 << 28});
    if (done.status === null || done.status === 1 || done.status === 2)
        throw new Error(`${args.join(' ')}: ${done.stderr}`);
    return done.stdout;
}

// In place of gnuplot: what would be drawn goes into a file.
function pictureOf(
    program: string,
    folder: Folder,
    file: string,
    range: readonly [string, string, string, number],
): Picture {
    const [table, from, to, columns] = range;
    const script = join(folder.path, 'script');
    chmodSync(folder.write('gnuplot', `#!/bin/sh\ncat > '${script}'\n`), 0o755);
    const said = run(
        program,
        [
            'plot',
            file,
            table,
            '--from',
            from,
            '--to',
            to,
            '--size',
            `${columns}x500`,
            '--no-alarms',
            '--force',
            '-o',
            join(folder.path, 'picture.svg'),
        ],
        folder.path,
    );
    const numbers = Number(/: ([\d,]+) samples/.exec(said.toString())![1]!.replaceAll(',', ''));
    const drawn = readFileSync(script, 'utf8');
    // Around a single moment there is half a minute on either side.
    const ends = /set xrange \[(.*):(.*)\]/
        .exec(drawn)!
        .slice(1)
        .map((end) => Math.round(Number(end) * 1000));
    const pad = ends[1]! - ends[0]! === 60000 ? 30000 : 0;
    const block = /\$series0 << EOD\n([^]*?)EOD\n/.exec(drawn)![1]!;
    const lines = block
        .split('\n\n')
        .filter((line) => line !== '')
        .map((line) => {
            const points = line
                .split('\n')
                .filter((point) => point !== '')
                .flatMap((point) => {
                    const [seconds, value] = point.split(' ');
                    return [Math.round(Number(seconds) * 1000), Number(value)];
                });
            const isDot = points.length === 4 && points[0] === points[2] && points[1] === points[3]; // drawn twice
            return isDot ? points.slice(0, 2) : points;
        });
    return {table, from: ends[0]! + pad, to: ends[1]! - pad, columns, numbers, lines};
}

// The sums that device-db makes, as SQL: the cases can be made without it then.
function sumsOf(file: string): string[] {
    const tables = execFileSync('sqlite3', [file, '.dump "device trend" "device trend series"'], {maxBuffer: 1 << 28});
    return tables
        .toString()
        .split(/;\n/)
        .filter((statement) => /^(CREATE|INSERT)/.test(statement));
}

function checkOf(program: string, file: string): [string, string, string][] {
    const lines = run(program, ['check', file, '--json']).toString().trim().split('\n');
    return lines
        .map((line) => JSON.parse(line) as {severity: string; table: string; finding: string})
        .filter(({severity}) => severity !== 'ok')
        .map(({severity, table, finding}) => [severity, table, finding]);
}

/** What device-db says about a file of these statements. */
export async function answersOf(program: string, definition: Definition): Promise<Case> {
    using folder = new Folder();
    const sql = [...definition.sql];
    if (definition.trends) {
        const file = folder.write('trends.db', (await made(sql)).main);
        for (const [table, levels] of definition.trends)
            run(program, ['trends', 'on', file, table, '--levels', levels]);
        sql.push(...sumsOf(file));
    }
    sql.push(...(definition.then ?? []));
    const file = folder.write('case.db', (await made(sql)).main);
    const info = JSON.parse(run(program, ['info', file, '--json']).toString());
    const about = (table: string, findings: any[]): ExpectedFinding[] =>
        findings.map((finding) => ({table, ...finding}));
    return {
        name: definition.name,
        sql,
        tables: info.tables.map((table: any) => ({
            name: table.name,
            kind: table.kind,
            rows: table.rows,
            first: table.first ?? null,
            last: table.last ?? null,
            lastId: table.last_id ?? 0,
            indexed: table.time_index ?? false,
        })),
        configuration: info.configuration,
        findings: [
            ...about('', info.findings),
            ...info.tables.flatMap((table: any) => about(table.name, table.findings)),
        ],
        check: checkOf(program, file),
        pictures: (definition.ranges ?? []).map((range) => pictureOf(program, folder, file, range)),
        cells: Object.fromEntries(
            (definition.cells ?? []).map((table) => [table, run(program, ['export', file, table]).toString('base64')]),
        ),
        finds: (definition.finds ?? []).map(([table, text]) => ({
            table,
            containing: text,
            ids: run(program, ['find', file, text, table, '--json', '--id'])
                .toString()
                .trim()
                .split('\n')
                .filter((line) => line !== '')
                .map((line) => Number(JSON.parse(line).id)),
        })),
    };
}

/** Each value in a table of its own, so that its lowest value is the number. */
export async function numbersOf(program: string, texts: readonly string[]): Promise<(number | null)[]> {
    using folder = new Folder();
    const file = folder.write(
        'numbers.db',
        (
            await made(
                texts.flatMap((text, i) => [
                    `CREATE TABLE T${i}(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)`,
                    `insert into T${i} values(1,'2024-05-06 07:08:09',CAST(X'${Buffer.from(text).toString('hex')}' AS TEXT))`,
                ]),
            )
        ).main,
    );
    const lines = run(program, ['stats', file, '--by', 'series', '--csv']).toString().trim().split('\n').slice(1);
    return lines.map((line) => {
        const [, , others, lowest] = line.split(',');
        return others === '1' ? null : Number(lowest);
    });
}

/** Milliseconds of each time; null for what is not one. A picture knows times from 1970 on alone. */
export async function timesOf(program: string, texts: readonly string[]): Promise<(number | null)[]> {
    using folder = new Folder();
    return await Promise.all(
        texts.map(async (text, i) => {
            const file = folder.write(
                `${i}.db`,
                (
                    await made([
                        'CREATE TABLE T(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)',
                        `insert into T values(1,CAST(X'${Buffer.from(text).toString('hex')}' AS TEXT),'1')`,
                    ])
                ).main,
            );
            const [table] = JSON.parse(run(program, ['info', file, '--json']).toString()).tables;
            if (table.findings.some(({what}: {what: string}) => what.startsWith('time in another form'))) return null;
            if (text < '1970') return Date.parse(`${text.replace(' ', 'T')}Z`);
            return pictureOf(program, folder, file, ['T', '1970-01-01', '9999-12-31', 40]).lines[0]![0]!;
        }),
    );
}
