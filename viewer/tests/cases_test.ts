// SPDX-License-Identifier: MIT
//
// The committed cases: what the reading side answers, and that device-db, where it is built, still says the same.
import assert from 'node:assert/strict';
import {readdirSync, readFileSync} from 'node:fs';
import {join} from 'node:path';
import {test} from 'node:test';

import {csvOf} from '../src/reading/csv.js';
import {findingText} from '../src/reading/findings.js';
import type {Finding} from '../src/reading/findings.js';
import {numberIn, numberOf} from '../src/reading/number.js';
import {timeIn, timeText} from '../src/reading/times.js';
import {definitions, numbers, times} from './definitions.js';
import {answersOf, deviceDb, numbersOf, root, timesOf} from './reference.js';
import type {Case} from './reference.js';
import {filesOf, made, nothing, sourceOver} from './support.js';

const folder = join(root, 'cases');
const read = (name: string): any => JSON.parse(readFileSync(join(folder, name), 'utf8'));
const cases: readonly Case[] = readdirSync(folder)
    .filter((name) => name.startsWith('file_'))
    .map(read);
const expectedNumbers = read('numbers.json') as [string, number | null][];
const expectedTimes = read('times.json') as [string, number | null][];

test('a number is what host/number.cpp says', () => {
    for (const [text, number] of expectedNumbers) {
        assert.ok(numberOf(text) === number, text); // JSON has no negative zero
        const bytes = Buffer.from(`9${text}9`); // what is around it does not count
        const found = numberIn(bytes, 1, bytes.length - 1);
        assert.ok(number === null ? Number.isNaN(found) : found === number, text);
    }
});

test('a time is what the tables hold, whatever the zone', () => {
    for (const [text, time] of expectedTimes) {
        assert.equal(timeIn(text, false), time, text);
        if (time !== null) assert.equal(timeText(time, false), text);
    }
});

// Of all tables but those of samples and alarms and log there is nothing but the name.
const isRecords = (kind: string): boolean => ['samples', 'alarms', 'log'].includes(kind);
// What the page says beyond "info".
const ofPage = new Set(['rollback', 'noLog', 'noIndex', 'rolledBack']);
// What "check" says beyond "info".
const ofCheck = new Set(['foreign', 'damaged', 'rule', 'freePages']);

for (const each of cases) {
    test(`file of ${each.name}`, async () => {
        const source = await sourceOver(filesOf(await made(each.sql)));
        const [file] = await source.open();
        assert.equal(file!.error, '');
        assert.deepEqual(
            file!.configuration.map(({collector, name, hasTable}) => ({
                collector,
                name: name.replace(/[\udc80-\udcff]/g, '\ufffd'),
                table: hasTable,
            })),
            each.configuration,
        );
        const tables = await source.tables();
        assert.deepEqual(
            tables.map(({name, kind, indexed, lastId}) => ({name, kind, indexed, lastId})),
            each.tables
                .filter(({kind}) => isRecords(kind))
                .map(({name, kind, indexed, lastId}) => ({name, kind, indexed, lastId})),
        );

        const findings: Finding[] = [...file!.findings];
        for (const {name, key} of tables) {
            const overview = await source.overview(key, nothing);
            const expected = each.tables.find((table) => table.name === name)!;
            assert.equal(overview.rows, expected.rows, name);
            assert.deepEqual([overview.first, overview.last], [expected.first, expected.last], name);
            findings.push(...overview.findings);
        }
        const ofDevice = findings.filter(({cause}) => !ofPage.has(cause));
        assert.deepEqual(
            ofDevice
                .filter(({cause}) => !ofCheck.has(cause))
                .map(({table, what, rows, firstId, detail}) => JSON.stringify([table, what, rows, firstId, detail]))
                .sort(),
            each.findings
                .map(({table, what, rows, id, detail}) => JSON.stringify([table, what, rows, id, detail]))
                .sort(),
        );
        assert.deepEqual(
            ofDevice
                .map((finding) => JSON.stringify([finding.severity, finding.table || '(file)', findingText(finding)]))
                .sort(),
            each.check.map((line) => JSON.stringify(line)).sort(),
        );

        for (const [table, csv] of Object.entries(each.cells)) {
            const {kind, key} = tables.find(({name}) => name === table)!;
            const rows = await source.rows({table: key, order: 'recorded', offset: 0, limit: 100000}, nothing);
            assert.equal(
                Buffer.from(csvOf(kind, rows.rows, {separator: ',', decimalComma: false, bom: false})).toString(
                    'base64',
                ),
                csv,
                table,
            );
        }
        for (const {table, containing, ids} of each.finds) {
            const rows = await source.rows(
                {table: `0/${table}`, containing, order: 'oldest', offset: 0, limit: 1000},
                nothing,
            );
            assert.deepEqual(
                rows.rows.map(([id]) => Number(id)),
                ids,
                containing,
            );
        }
        for (const {table, from, to, columns, numbers, lines} of each.pictures) {
            for (const pass of ['with and without a pass', 'after it']) {
                const answer = await source.trend({table: `0/${table}`, from, to, columns}, nothing);
                assert.ok(answer.kind === 'samples' && answer.exact);
                assert.equal(answer.numbers, numbers);
                const ofTime = (flat: readonly number[]): string[] =>
                    flat.flatMap((_, i) => (i % 2 === 0 ? [`${flat[i]} ${Number(flat[i + 1]!.toPrecision(12))}`] : []));
                assert.deepEqual(ofTime(answer.points), ofTime(lines.flat()), `${pass}: ${table} ${from} to ${to}`);
                if (answer.lines.length === 1) assert.deepEqual(answer.lines.map(ofTime), lines.map(ofTime));
            }
        }
    });
}

const program = deviceDb();
const unless = {skip: program ? false : 'device-db is not built'};

test('device-db says the same of numbers and times', unless, async () => {
    assert.deepEqual(
        await numbersOf(program!, numbers),
        expectedNumbers.map(([, number]) => number),
    );
    assert.deepEqual(
        await timesOf(program!, times),
        expectedTimes.map(([, time]) => time),
    );
});

for (const definition of definitions) {
    test(`device-db says the same of ${definition.name}`, unless, async () => {
        assert.deepEqual(
            await answersOf(program!, definition),
            cases.find(({name}) => name === definition.name),
        );
    });
}
