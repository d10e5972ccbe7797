// SPDX-License-Identifier: MIT
//
// The source over files: what is beside them, random ranges, pages of rows, and several questions at a time.
import assert from 'node:assert/strict';
import {spawnSync} from 'node:child_process';
import {test} from 'node:test';

import {HttpSource} from '../src/http/source.js';
import {beginningOf, decodedTwice} from '../src/reading/cells.js';
import {Curve, CurveOfBlocks} from '../src/reading/curve.js';
import {LocalSource} from '../src/reading/local.js';
import {numberIn, numberOf} from '../src/reading/number.js';
import {TablePass} from '../src/reading/pass.js';
import {Reduction} from '../src/reading/reduction.js';
import type {CurveAnswer, Overview, RowsAnswer, TrendAnswer} from '../src/reading/source.js';
import {tablesOf} from '../src/reading/tables.js';
import {timeIn} from '../src/reading/times.js';
import {finish} from '../src/reading/work.js';
import {Database} from '../src/sqlite/database.js';
import {CachedBytes, StoredFile} from '../src/sqlite/storage.js';
import {Folder} from './reference.js';
import {engine, filesOf, made, MemoryBytes, nothing, sourceOver} from './support.js';
import type {MadeFiles} from './support.js';

const samples = 'CREATE TABLE T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)';
const rows = (count: number, seconds: string, value: string): string =>
    'insert into T1(DATETIME,Value) with recursive n(i) as ' +
    `(select 0 union all select i+1 from n where i<${count - 1}) select datetime(1714978800+${seconds},'unixepoch'),${value} from n`;
const shell = spawnSync('sqlite3', ['--version']).status === 0;

function random(seed: number): () => number {
    let state = seed;
    return () => {
        state = (Math.imul(state, 1664525) + 1013904223) >>> 0;
        return state / 2 ** 32;
    };
}

async function allRows(files: MadeFiles, beside = true): Promise<(string | null)[][]> {
    const source = await sourceOver(filesOf(files, 'x.db', beside));
    const {rows} = await source.rows({table: '0/T1', order: 'recorded', offset: 0, limit: 1e6}, nothing);
    return rows as (string | null)[][];
}

// The shell changes what it opens, so it gets a copy of its own.
function rowsOfShell(files: MadeFiles): (string | null)[][] {
    using folder = new Folder();
    const file = folder.write('x.db', files.main);
    if (files.wal) folder.write('x.db-wal', files.wal);
    if (files.journal) folder.write('x.db-journal', files.journal);
    const found = spawnSync('sqlite3', ['-json', file, 'select ID,DATETIME,Value from T1 order by ID'], {
        maxBuffer: 1 << 28,
    });
    return (JSON.parse(found.stdout.toString() || '[]') as Record<string, unknown>[]).map((row) =>
        Object.values(row).map((cell) => (cell === null ? null : String(cell))),
    );
}

test('rows of a write-ahead log are there with it, and missing without', async () => {
    const files = await made([
        'pragma journal_mode=wal',
        samples,
        'pragma wal_checkpoint(truncate)',
        rows(3000, 'i', 'i'),
        "update T1 set Value='new' where ID%100=7",
    ]);
    assert.ok(files.wal!.length > 10000);
    const found = await allRows(files);
    assert.equal(found.length, 3000);
    assert.equal(found[6]![2], 'new');
    assert.deepEqual(await allRows(files, false), []);
    if (shell) assert.deepEqual(found, rowsOfShell(files));
    const [info] = await (await sourceOver(filesOf(files, 'x.db', false))).open();
    assert.ok(info!.findings.some(({cause}) => cause === 'noLog'));
});

test('a log that is cut off counts up to its last whole transaction', async () => {
    const files = await made(['pragma journal_mode=wal', samples, rows(10, 'i', 'i'), rows(1000, 'i', "'late'")]);
    const cut = {...files, wal: files.wal!.subarray(0, files.wal!.length / 2)};
    const found = await allRows(cut);
    assert.equal(found.length, 10);
    if (shell) assert.deepEqual(found, rowsOfShell(cut));
});

test('a transaction that was cut off is rolled back, and the file is as it was', async () => {
    const files = await made([
        samples,
        rows(2000, 'i', 'i'),
        'pragma cache_size=5',
        'begin',
        "update T1 set Value='half done'",
        'delete from T1 where ID>1000',
    ]);
    assert.ok(files.journal && files.journal.length > 0);
    const before = Buffer.from(files.main);
    const found = await allRows(files);
    assert.equal(found.length, 2000);
    assert.equal(found[0]![2], '0');
    assert.deepEqual(Buffer.from(files.main), before);
    if (shell) assert.deepEqual(found, rowsOfShell(files));
    const [info] = await (await sourceOver(filesOf(files))).open();
    assert.ok(info!.findings.some(({cause}) => cause === 'rolledBack'));
});

test('what lies beside a file that is not there is refused', async () => {
    await assert.rejects(
        sourceOver([{name: 'x.db-wal', bytes: new MemoryBytes(new Uint8Array(40))}]),
        /belongs to is missing/,
    );
});

test('files of one name have numbers, and none takes what lies beside the other', async () => {
    const file = await made([samples, rows(5, 'i', 'i')]);
    const source = new LocalSource(
        await engine(),
        [...filesOf(file, 'history.db'), ...filesOf(file, 'history.db (2)'), ...filesOf(file, 'history.db')],
        async () => undefined,
    );
    const names = (await source.open()).map(({name}) => name);
    assert.deepEqual(names, ['history.db', 'history.db (2)', 'history.db (3)']);
    const wal = await made(['pragma journal_mode=wal', samples, rows(5, 'i', 'i')]);
    await assert.rejects(
        sourceOver([...filesOf(wal, 'history.db'), ...filesOf(file, 'history.db')]),
        /history\.db-wal: it can belong to 2 files of that name/,
    );
});

test('files of one name that are served have numbers, too', async (context) => {
    context.mock.method(globalThis, 'fetch', async () => Response.json([{name: 'a.db'}, {name: 'a.db'}]));
    const names = (await new HttpSource().open()).map(({name}) => name);
    assert.deepEqual(names, ['a.db', 'a.db (2)']);
});

test('a file that was changed is not read on', async () => {
    const {main} = await made([samples, rows(10, 'i', 'i')]);
    const source = await sourceOver([{name: 'x.db', bytes: new MemoryBytes(main)}]);
    main[27]! += 1; // the change counter
    await assert.rejects(source.trend({table: '0/T1', from: 0, to: 1e12, columns: 10}, nothing), /drop it again/);
});

test('a damaged file says so', async () => {
    const files = await made([samples, rows(3000, 'i', 'i')]);
    files.main.fill(0x55, files.main.length - 3000, files.main.length - 2000);
    const [info] = await (await sourceOver(filesOf(files))).open();
    assert.ok(info!.findings.some(({severity, cause}) => severity === 'damage' && cause === 'damaged'));
});

test('what is written stays in memory, and what was cut off does not come back', () => {
    const base = Uint8Array.from({length: 20000}, (_, i) => i % 251);
    const file = new StoredFile(new MemoryBytes(base));
    const read = (offset: number, size: number): number[] => {
        const target = new Uint8Array(size);
        file.read(offset, target);
        return [...target];
    };
    file.write(
        4090,
        Uint8Array.from({length: 12}, () => 255),
    );
    assert.deepEqual(read(4088, 16), [...base.slice(4088, 4090), ...Array(12).fill(255), ...base.slice(4102, 4104)]);
    assert.equal(base[4090], 4090 % 251);
    file.truncate(5000);
    file.write(19990, Uint8Array.of(1));
    assert.equal(file.size, 19991);
    assert.deepEqual(read(4998, 6), [...base.slice(4998, 5000), 0, 0, 0, 0]);
    assert.deepEqual(read(12000, 3), [0, 0, 0]);
    assert.equal(file.read(19990, new Uint8Array(10)), 1);
});

// Pages as SQLite asks for them while it reads a table from end to end: now and then one that lies elsewhere.
function readInOrder(
    size: number,
    mayBeWhole: boolean,
    elsewhere = (i: number): number => (i % 300 === 299 ? (i * 7919) % (size / 4096) : i),
): number[] {
    const lengths: number[] = [];
    const source = {
        size,
        read: (offset: number, length: number): Uint8Array => {
            lengths.push(length);
            const bytes = new Uint8Array(length);
            for (let i = 0; i < length; i += 4096) bytes[i] = ((offset + i) / 4096) % 251;
            return bytes;
        },
    };
    const cached = new CachedBytes(source, mayBeWhole);
    const page = new Uint8Array(4096);
    for (let i = 0; i < size / 4096; ++i) {
        for (const place of [elsewhere(i), i]) {
            cached.read(place * 4096, page);
            assert.equal(page[0], place % 251);
        }
    }
    return lengths;
}

test('reads that follow each other are few, whatever lies between them', () => {
    const lengths = readInOrder(200 << 20, false);
    const large = lengths.filter((length) => length > 16384);
    assert.ok(large.length < 35 && Math.max(...large) <= 8 << 20, String(large));
    assert.ok(lengths.length - large.length < 200 / 1.2 + 10, 'one for each page that lies elsewhere');
});

// As a table that was filled row by row has them: the page above some hundred others comes behind the first of them.
test('a page that lies ahead does not make those before it be read twice', () => {
    const lengths = readInOrder(200 << 20, false, (i) => (i % 359 === 0 ? Math.min(i + 155, 51199) : i));
    const sum = lengths.reduce((all, length) => all + length);
    assert.ok(sum < 205 << 20, String(sum));
});

test('reads that skip a little each time are few', () => {
    let count = 0;
    const source = {
        size: 100 << 20,
        read: (_: number, length: number): Uint8Array => {
            ++count;
            return new Uint8Array(length);
        },
    };
    const cached = new CachedBytes(source, false);
    for (let at = 0; at + 4096 <= 100 << 20; at += 90 * 1024) cached.read(at, new Uint8Array(4096));
    assert.ok(count < 40, String(count));
});

test('a file that fits into memory is read once', () => {
    const lengths = readInOrder(30 << 20, true);
    assert.ok(lengths.reduce((sum, length) => sum + length) <= (30 << 20) + 32 * 16384);
});

test('a block that is read again and is other than before is refused', () => {
    let content = 1;
    const source = {size: 1 << 30, read: (_: number, length: number) => new Uint8Array(length).fill(content)};
    const cached = new CachedBytes(source, false);
    const page = new Uint8Array(4096);
    const readElsewhere = (): void => {
        for (let at = 1 << 20; at < 1 << 30; at += 400 * 1024) cached.read(at, page);
    };
    cached.read(0, page);
    readElsewhere();
    cached.read(4096, page);
    readElsewhere();
    content = 2;
    assert.throws(() => cached.read(0, page));
});

test('hostile files are refused or read, and run nothing', async () => {
    const view = await made([
        samples,
        rows(5, 'i', 'i'),
        "create view \"device series\" as select 'T1' COLLECTOR,'x' UNIT,'y' DESCRIPTION",
        "create view tb_config as select 1 ID,'T1' COLLECTOR,'name' NAME",
    ]);
    const [table] = await (await sourceOver(filesOf(view))).tables();
    assert.equal(table!.title, 'T1');
    assert.equal(table!.unit, '');
    for (const damage of [0, 18, 100, 105, 4096, 8192 + 3]) {
        const files = await made([samples, rows(3000, 'i', 'i')]);
        files.main.fill(0xff, damage, damage + 60);
        const source = await sourceOver(filesOf(files)).catch(() => null); // it may be no database any more
        const answer = source?.overview('0/T1', nothing);
        await answer?.catch((error: Error) => assert.match(error.message, /case\.db|no such table/));
    }
});

// Gaps, steps of the clock, equal times, texts and values that are no numbers.
const oddRows = '(i + (i>700)*3600 - (i>1500)*5000 + (i>2600)*90000 - (i%89=0)*7 - (i%13=0) + (i>3000 and i%2)*2)';
const oddValue =
    "case when i%97=5 then 'off' when i%31=0 then (i*7919)%1000 else printf('%.2f',50+(i*i*31%997)/10.0) end";

for (const [name, value, more] of [
    ['without an index', oddValue, []],
    ['with an index', oddValue, ['create index i on T1(DATETIME)']],
    ['of values that hardly change', '(i%700)/1000.0', []],
] as const) {
    test(`random ranges ${name}: no column differs from all rows`, async () => {
        const files = await made([samples, rows(5000, oddRows, value), ...more]);
        const source = await sourceOver(filesOf(files));
        const all = (await allRows(files)).map(([, time, value]) => [timeIn(time!, false), numberOf(value!)] as const);
        const next = random(7);
        const begin = 1714978800000;
        for (let i = 0; i < 300; ++i) {
            if (i === 100) await source.overview('0/T1', nothing); // from here on by blocks
            const from = begin - 60000 + Math.floor(next() * 100000) * 1000;
            const to = from + Math.floor(next() ** (1 + (i % 3)) * 100000) * 1000;
            // Few columns are as wide as many blocks.
            const columns = 1 + Math.floor(next() * (i % 2 === 0 ? 300 : 12));
            const answer = (await source.trend({table: '0/T1', from, to, columns}, nothing)) as CurveAnswer;
            const inside = all.filter(([time]) => time !== null && time >= from && time <= to);
            const reduction = new Reduction(from, to, columns);
            inside.forEach(([time, value]) => value !== null && reduction.add(time!, value));
            assert.deepEqual(
                answer.points,
                reduction.points().flatMap(({time, value}) => [time, value]),
                `${from} to ${to}`,
            );
            assert.equal(answer.rows, inside.length);
            assert.equal(answer.numbers, reduction.count);
            assert.equal(answer.exact, true);
            const mean = inside.reduce((sum, [, value]) => sum + (value ?? 0), 0) / reduction.count;
            assert.ok(reduction.count === 0 || Math.abs(answer.mean - mean) < 1e-9);
            const lines = answer.lines.flatMap((line) =>
                line.filter((_, at) => at % 2 === 0).map((time, at, times) => at === 0 || time >= times[at - 1]!),
            );
            assert.ok(lines.every((isForward) => isForward));
        }
    });
}

test('a picture that is made while a table is read has the same points as one that is made later', async () => {
    const files = await made([samples, rows(300000, 'i-(i%70000=60000)*9000', 'i*7919%1000')]);
    const next = random(11);
    const queries = Array.from({length: 12}, (_, i) => {
        const from = 1714978800000 + Math.floor(next() * 200000) * 1000;
        return {table: '0/T1', from, to: from + Math.floor(next() * 200000) * 1000, columns: 1 + i * 40};
    });
    const [early, late] = [await sourceOver(filesOf(files)), await sourceOver(filesOf(files))];
    const reading = early.overview('0/T1', nothing);
    const answers = await Promise.all(queries.map((query) => early.trend(query, nothing)));
    await reading;
    await late.overview('0/T1', nothing);
    for (const [i, query] of queries.entries()) {
        assert.deepEqual(answers[i], await late.trend(query, nothing));
        assert.deepEqual(answers[i], await early.trend(query, nothing), 'and again');
    }
});

test('a picture that follows a pass has next to nothing left to read at its end', async () => {
    const files = await made([samples, rows(100000, 'i', 'i%100')]);
    const reader = await engine();
    reader.add('/0', new MemoryBytes(files.main));
    const database = Database.open(reader, '/0', 'case.db');
    const pass = new TablePass(database, tablesOf(database)[0]!);
    const range = {from: 1714978800000, to: 1715078799000, columns: 100};
    const picture = new CurveOfBlocks(database, 'T1', pass.blocks, range);
    for (const work = pass.read(); !work.next().done;) {
        finish(picture.read());
        assert.ok(picture.isComplete);
    }
    assert.ok([...picture.read()].length <= 1); // for each block whose rows are read
    assert.equal(picture.curve.total.rows, 100000);
    picture.close();
});

test('a look before everything is read loses no spike that it has seen', async () => {
    const files = await made([samples, rows(60000, 'i', "case when i=12345 then '999.5' else i%50 end")]);
    const source = await sourceOver(filesOf(files));
    const parts: TrendAnswer[] = [];
    const range = {table: '0/T1', from: 1714978800000, to: 1714978800000 + 59999000, columns: 100};
    const exact = (await source.trend(range, (part) => parts.push(part))) as CurveAnswer;
    assert.ok(parts.length > 0 && parts[0]!.kind === 'samples' && parts[0]!.isSample && !parts[0]!.exact);
    assert.equal(exact.highest!.value, 999.5);
    assert.ok(exact.points.includes(999.5));
});

test('pages of any list follow each other, and a row is found in it', async () => {
    const files = await made([
        samples,
        rows(5000, 'i', 'i%7'),
        'delete from T1 where ID%3=0 or ID between 900 and 1800',
    ]);
    const source = await sourceOver(filesOf(files));
    const early = await source.rows({table: '0/T1', order: 'recorded', offset: 0, limit: 9}, nothing);
    assert.deepEqual([early.exact, early.total], [false, 5000]); // by the IDs, before the rows are counted
    await source.overview('0/T1', nothing);
    for (const query of [
        {order: 'recorded'},
        {order: 'newest'},
        {order: 'oldest', containing: '3'},
        {order: {column: 'value', descending: true}},
        {order: 'recorded', from: 1714979000000, to: 1714982000000},
    ] as const) {
        const whole = await source.rows({table: '0/T1', ...query, offset: 0, limit: 1e6}, nothing);
        assert.equal(whole.total, whole.rows.length);
        for (let offset = 0; offset < whole.total; offset += 777) {
            const page = await source.rows({table: '0/T1', ...query, offset, limit: 5}, nothing);
            assert.deepEqual(page.rows, whole.rows.slice(offset, offset + 5));
            const id = Number(whole.rows[offset]![0]);
            const around = await source.rows({table: '0/T1', ...query, id, offset: 0, limit: 9}, nothing);
            assert.equal(around.found, offset);
            assert.deepEqual(around.rows[around.found - around.offset], whole.rows[offset]);
        }
        const none = await source.rows({table: '0/T1', ...query, id: 3, offset: 0, limit: 9}, nothing);
        assert.equal(none.found, -1);
    }
});

test('rows with IDs that no number can tell apart are each in a list', async () => {
    const log =
        'CREATE TABLE L(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime NOT NULL,userName text,logName text,message text)';
    const source = await sourceOver(
        filesOf(
            await made([
                log,
                `insert into L with recursive n(i) as (select 0 union all select i+1 from n where i<5)
                 select 9007199254740992+i,'2024-05-06 00:00:0'||i||'.000','u','l','m'||i from n`,
            ]),
        ),
    );
    for (const query of [{order: 'newest'}, {order: 'recorded', containing: 'm'}] as const) {
        const {rows} = await source.rows({table: '0/L', ...query, offset: 0, limit: 9}, nothing);
        const messages = rows.map((row) => row[4]).sort();
        assert.deepEqual(messages, ['m0', 'm1', 'm2', 'm3', 'm4', 'm5']);
    }
});

test('a search ends however far apart the IDs are', {timeout: 20000}, async () => {
    const source = await sourceOver(
        filesOf(
            await made([
                samples,
                `insert into T1 values(-7,'2024-05-06 07:00:00','a'),(1,'2024-05-06 07:08:09','b'),
                 (1700000000000,'2024-05-06 08:00:00','b'),(9223372036854775807,'2024-05-06 09:00:00','b')`,
            ]),
        ),
    );
    const leaving = AbortSignal.timeout(5000);
    const query = {table: '0/T1', containing: 'b', order: 'recorded', offset: 0, limit: 9} as const;
    assert.equal((await source.rows(query, nothing, leaving)).total, 3);
});

test('two searches at a time find what each looks for', async () => {
    const files = await made([samples, rows(100000, 'i', 'i%1000')]);
    const source = await sourceOver(filesOf(files));
    const search = (containing: string): Promise<RowsAnswer> =>
        source.rows({table: '0/T1', containing, order: 'recorded', offset: 0, limit: 3}, nothing);
    const [one, other] = await Promise.all([search('777'), search('88')]);
    assert.deepEqual([one.total, other.total], [100, 1900]);
});

test('the beginning of a long text ends with whole characters', () => {
    const begins = (text: string, most: number): string => beginningOf(text, most);
    assert.equal(begins('plain', 5), 'plain');
    assert.equal(begins('plain', 4), 'plai');
    assert.equal(begins('ab😀😀', 3), 'ab');
    assert.equal(begins('ab😀😀', 4), 'ab😀');
    assert.equal(begins('ab\r\ncd', 3), 'ab');
    assert.equal(begins('\udc80\udc81'.repeat(50), 60).length, 60); // bytes that are not UTF-8
    for (let most = 1; most < 40; ++most) {
        const twice = Buffer.from('Größe 80 °C € 😀 über').toString('latin1');
        const begin = decodedTwice(beginningOf(twice, most));
        assert.ok('Größe 80 °C € 😀 über'.startsWith(begin), `${most}: ${begin}`);
    }
});

test('questions are answered while a table is read, and end when nobody waits', async () => {
    const files = await made([
        samples,
        rows(300000, 'i', 'i%100'),
        samples.replace('T1', 'T2'),
        "insert into T2 values(1,'2024-05-06 07:00:00','5')",
    ]);
    const source = await sourceOver(filesOf(files));
    const order: string[] = [];
    const long = source.overview('0/T1', nothing).then(() => order.push('long'));
    await source.trend({table: '0/T2', from: 0, to: 2e12, columns: 10}, nothing).then(() => order.push('short'));
    const leaving = new AbortController();
    const left = source.trend({table: '0/T1', from: 0, to: 2e12, columns: 10}, nothing, leaving.signal);
    leaving.abort();
    await assert.rejects(left, {name: 'AbortError'});
    await long;
    assert.deepEqual(order, ['short', 'long']);
});

test('a picture of all is as wide at first as it is at last, however little of the table was read', async () => {
    const files = await made([samples, rows(300000, 'i', 'i%100')]);
    const source = await sourceOver(filesOf(files), 500); // so slow that each slice is seen
    const seen: Overview[] = [];
    const last = await source.overview('0/T1', (overview) => seen.push(overview));
    assert.ok(seen.some(({share}) => share > 0));
    for (const {from, to} of seen) assert.deepEqual([from, to], [last.from, last.to]);
});

test('a curve of many steps back of the clock keeps all of its points', () => {
    const curve = new Curve({from: 0, to: 1000000, columns: 50});
    const all = new Reduction(0, 1000000, 50);
    for (let i = 0; i < 3000; ++i) {
        const time = (i * 7919) % 1000000;
        curve.add(i, time, i % 77);
        all.add(time, i % 77);
    }
    assert.deepEqual(curve.reduction().points().length, all.points().length);
    assert.equal(curve.total.numbers, 3000);
});

test('alarms and entries of a log are where they are in time', async () => {
    const source = await sourceOver(
        filesOf(
            await made([
                `CREATE TABLE AlarmData(ID INTEGER PRIMARY KEY AUTOINCREMENT,LevelID INTEGER,DATETIME dateTime,AlarmObject text,AlarmType text,CurrentValue
         text,LimitValue text,AlarmDescription text,EndDate text,EndTime text)`,
                `insert into AlarmData(LevelID,DATETIME,EndDate,EndTime) values(2,'2024-05-06 00:00:10','2024/05/06','00:00:30'),
         (2,'2024-05-06 00:00:20','2024-05-06','00:00:40'),(2,'2024-05-06 00:05:00','',''),(3,'2024-05-06 00:01:00','2024-05-06','00:01:00'),
         (1,'yesterday','','')`,
                'CREATE TABLE OperatorLog(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime NOT ' +
                    'NULL,userName text,logName text,message text)',
                `insert into OperatorLog(DATETIME) values('2024-05-06 00:00:10.500'),('2024-05-06 00:00:10.600'),('2024-05-06 00:00:05.000')`,
            ]),
        ),
    );
    const second = (number: number): number => Date.UTC(2024, 4, 6) + number * 1000;
    const range = {from: second(0), to: second(600), columns: 600};
    const alarms = await source.trend({table: '0/AlarmData', ...range}, nothing);
    assert.deepEqual(alarms.kind === 'alarms' && alarms.lanes, [
        {level: 3, alarms: 1, spans: [second(60), second(60)]},
        {level: 2, alarms: 3, spans: [second(10), second(40), second(300), second(600)]},
    ]);
    const log = await source.trend({table: '0/OperatorLog', ...range}, nothing);
    assert.deepEqual(log.kind === 'log' && log.marks, [second(5), 1, 3, second(10.5), 2, 1]);
});

test('one damaged table does not hide the others, nor those of other files', async () => {
    const two = [samples, samples.replace('T1', 'T2'), rows(10, 'i', 'i'), rows(10, 'i', 'i').replace('T1', 'T2')];
    const [whole, bad] = [await made(two), await made(two)];
    const {pageSize} = (await (await sourceOver(filesOf(whole))).open())[0]!;
    bad.main.fill(0xff, pageSize, 2 * pageSize); // the root of T1
    const source = await sourceOver([...filesOf(whole, 'ok.db'), ...filesOf(bad, 'bad.db')]);
    assert.deepEqual(
        (await source.tables()).map(({key}) => key),
        ['0/T1', '0/T2', '1/T2'],
    );
    const [, info] = await source.open();
    assert.equal(info!.error, '');
    assert.ok(
        info!.findings.some(({cause, table, what}) => cause === 'damaged' && table === 'T1' && /malformed/.test(what)),
    );
    const found = await source.rows({table: '1/T2', order: 'recorded', offset: 0, limit: 20}, nothing);
    assert.equal(found.rows.length, 10);
});

test('a search that its first asker gives up is made for the next', async () => {
    const source = await sourceOver(filesOf(await made([samples, rows(60000, 'i', 'i')])), 1);
    const query = {table: '0/T1', containing: '7', order: 'newest', offset: 0, limit: 10} as const;
    const first = new AbortController();
    const given = source.rows(query, nothing, first.signal);
    const next = source.rows(query, nothing);
    first.abort();
    await assert.rejects(given, {name: 'AbortError'});
    assert.deepEqual([(await next).exact, (await next).rows.length], [true, 10]);
});

test('tables whose ID is not their key are left out, and nothing of them is SQL', async () => {
    const columns = 'DATETIME dateTime,Value text';
    const endless = '0 or (with recursive n(i) as (select 1 union all select i from n) select count(*) from n)';
    const source = await sourceOver(
        filesOf(
            await made([
                samples,
                rows(10, 'i', 'i'),
                'create table Copied as select * from T1',
                `create table Texts(ID text primary key,${columns})`,
                `insert into Texts values('${endless}','2024-05-06 07:08:09','1')`,
                `create table Backwards(ID integer primary key desc,${columns})`,
                `create table Without(ID integer primary key,${columns}) without rowid`,
                `create table Plain(ID integer primary key,${columns})`,
            ]),
        ),
    );
    assert.deepEqual(
        (await source.tables()).map(({key}) => key),
        ['0/Plain', '0/T1'],
    );
    const what = 'ID is no INTEGER PRIMARY KEY there: its rows cannot be told apart, and are not shown';
    assert.deepEqual(
        (await source.open())[0]!.findings
            .filter(({cause}) => cause === 'definition')
            .map((found) => [found.table, found.what]),
        ['Backwards', 'Copied', 'Texts', 'Without'].map((table) => [table, what]),
    );
});

test('users find what they count, and none that nobody could choose', async () => {
    const log =
        'CREATE TABLE L(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime NOT NULL,userName text,logName text,message text)';
    const users = ['NULL', "''", "'anna'", "printf('%.*c',201,'x')", "printf('%.*c',200,'y')"];
    const entries = users.map(
        (user, i) => `insert into L(DATETIME,userName) values('2024-05-06 00:00:1${i}.000',${user})`,
    );
    const source = await sourceOver(filesOf(await made([log, ...entries])));
    const {choices} = await source.overview('0/L', nothing);
    assert.deepEqual(choices, [
        ['', 2],
        ['anna', 1],
        ['y'.repeat(200), 1],
    ]);
    const found = await source.rows({table: '0/L', order: 'recorded', users: [''], offset: 0, limit: 9}, nothing);
    assert.deepEqual(
        found.rows.map(([id]) => id),
        ['1', '2'],
    );
});

test('how far a search has come is not how far the table was read', async () => {
    const source = await sourceOver(filesOf(await made([samples, rows(400000, 'i', 'i')])), 1);
    await source.overview('0/T1', nothing);
    const shares: number[] = [];
    const query = {table: '0/T1', containing: '77', order: 'recorded', offset: 0, limit: 10} as const;
    const found = await source.rows(query, ({share}) => shares.push(share));
    assert.ok(shares.length > 0 && shares.every((share) => share < 1), `${shares}`);
    assert.deepEqual(shares, [...shares].sort());
    assert.equal(found.share, 1);
});

test('marks of a log near the ends of a range are in it', async () => {
    const log =
        'CREATE TABLE L(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime NOT NULL,userName text,logName text,message text)';
    const entries = ['10.400', '10.600', '11.500', '12.400', '12.600'].map(
        (at) => `insert into L(DATETIME,userName,logName,message) values('2024-05-06 00:00:${at}','','','')`,
    );
    const source = await sourceOver(filesOf(await made([log, ...entries])));
    const from = Date.UTC(2024, 4, 6, 0, 0, 10, 500);
    const answer = await source.trend({table: '0/L', from, to: from + 2000, columns: 2000}, nothing);
    assert.deepEqual(
        answer.kind === 'log' && answer.marks.filter((_, i) => i % 3 === 0).map((time) => time - from),
        [100, 1000, 1900],
    );
});

test('a title is the last name that is listed, if it is not empty', async () => {
    const source = await sourceOver(
        filesOf(
            await made([
                samples,
                samples.replace('T1', '"Ä1"'),
                'CREATE TABLE tb_config(ID INTEGER PRIMARY KEY AUTOINCREMENT,COLLECTOR text,NAME text)',
                "insert into tb_config(COLLECTOR,NAME) values('t1','Boiler'),('T1',''),('ä1','Other')",
                'CREATE TABLE "device series"(COLLECTOR text PRIMARY KEY COLLATE NOCASE,UNIT text,DESCRIPTION text)',
                `insert into "device series" values('t1','bar',''),('ä1','m','')`,
            ]),
        ),
    );
    assert.deepEqual(
        (await source.tables()).map(({title, unit}) => [title, unit]),
        [
            ['Boiler', 'bar'],
            ['Ä1', ''],
        ],
    );
});

test('decimals of many digits are the nearest double', () => {
    for (const text of [
        '900719925474099.5',
        '900719925474099.3',
        '90071992547409.99',
        '9007199254740.993',
        '-900719925474099.7',
    ])
        assert.equal(numberIn(new TextEncoder().encode(text), 0, text.length), Number(text), text);
});

test('a line that comes in many pieces is looked through once', async (context) => {
    const piece = new TextEncoder().encode('x'.repeat(1000));
    let pieces = 0;
    const body = new ReadableStream<Uint8Array>({
        pull: (controller) => {
            const text = pieces === 0 ? '{"part":1}\n{"done":"' : pieces === 20000 ? '"}\n' : null;
            if (pieces++ > 20000) controller.close();
            else controller.enqueue(text === null ? piece : new TextEncoder().encode(text));
        },
    });
    context.mock.method(globalThis, 'fetch', async () => new Response(body));
    const begin = process.cpuUsage();
    const parts: unknown[] = [];
    const rows = await new HttpSource().rows(
        {table: 'x', order: 'recorded', offset: 0, limit: 1},
        (part) => void parts.push(part),
    );
    assert.deepEqual([parts, String(rows).length], [[1], 19999000]);
    const {user} = process.cpuUsage(begin);
    assert.ok(user < 3e6, `${user} µs`);
});

test('a text of the file that is not UTF-8 is asked for as its bytes', async (context) => {
    const asked: string[] = [];
    context.mock.method(globalThis, 'fetch', async (address: string) => {
        asked.push(address);
        return new Response('{"done":{}}\n');
    });
    const users = ['M\udcfcller', 'Jürgen'];
    await new HttpSource().rows({table: 'x', users, order: 'recorded', offset: 0, limit: 1}, nothing);
    assert.match(asked[0]!, /&user=%4d%fc%6c%6c%65%72&user=J%C3%BCrgen&/);
});
