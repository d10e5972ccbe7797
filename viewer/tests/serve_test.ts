// SPDX-License-Identifier: MIT
//
// The page against "device-db serve" itself, while another program writes. $ROWS=100 measures so many new rows on their
// way to the screen.
import assert from 'node:assert/strict';
import {spawn, spawnSync} from 'node:child_process';
import type {ChildProcess} from 'node:child_process';
import {readFileSync} from 'node:fs';
import {get} from 'node:http';
import {loadavg} from 'node:os';
import {join} from 'node:path';
import {test} from 'node:test';

import {pathOf, Session, viewer} from './browser.js';
import {press, soon, texts} from './page.js';
import {plant} from './plant.js';
import {deviceDb, Folder} from './reference.js';

const program = deviceDb();
const canServe = program !== null && spawnSync(program, ['serve', '--help']).status === 0;
const reason = !canServe
    ? 'device-db is not built, or has no serve'
    : spawnSync('sqlite3', ['--version']).status !== 0
      ? 'sqlite3 is not installed'
      : pathOf('chrome')
        ? false
        : 'Chromium is not installed';

/** Until it ends: the address, and how to end it. */
class Server implements AsyncDisposable {
    private constructor(
        private readonly process: ChildProcess,
        readonly address: URL,
    ) {}

    static async start(file: string, port = 0): Promise<Server> {
        const child = spawn(program!, ['serve', file, ...(port > 0 ? ['--port', String(port)] : [])]);
        let said = '';
        child.stdout.on('data', (data: Buffer) => (said += data.toString()));
        child.stderr.on('data', (data: Buffer) => (said += data.toString()));
        const address = await soon(async () => /http:\/\/\S+/.exec(said)?.[0]);
        if (!address) throw new Error(`no address: ${said}`);
        return new Server(child, new URL(address));
    }

    async [Symbol.asyncDispose](): Promise<void> {
        if (this.process.exitCode !== null || this.process.signalCode !== null) return;
        const ended = new Promise((done) => this.process.on('exit', done));
        this.process.kill();
        await ended;
    }
}

for (const mode of ['wal', 'delete']) {
    test(`rows that are written while the page watches appear, journal mode ${mode}`, {skip: reason}, async () => {
        using folder = new Folder();
        const file = join(folder.path, 'plant.db');
        const write = (...statements: readonly string[]): void => {
            const done = spawnSync('sqlite3', [file], {input: `.timeout 5000\n${statements.join(';\n')};`});
            assert.equal(done.stderr.toString(), '');
        };
        write(`pragma journal_mode=${mode}`, 'begin', ...plant, 'commit');
        const writer = spawn('sqlite3', [file]); // a device that has the file open
        writer.stdin.write('select count(*) from T1;\n');
        const numbers = async (session: Session): Promise<string> =>
            (await texts(session, '.figures tbody tr:first-child > *'))[4]!;
        try {
            const server = await Server.start(file);
            const inPlace = readFileSync(viewer, 'utf8').replace("connect-src 'none'", "connect-src 'self'");
            await using session = await Session.start('chrome', {served: server.address, inPlace});
            assert.ok(await soon(async () => (await numbers(session)) === '58,202'));
            write("insert into T1(DATETIME,Value) values('2024-05-13 00:01:00','71'),('2024-05-13 00:02:00','72')");
            assert.ok(await soon(async () => (await numbers(session)) === '58,204'));
            await press(session, '24 h');
            await session.page.focus('.chart');
            await session.page.keyboard.press('ArrowLeft');
            write("insert into T1(DATETIME,Value) values('2024-05-13 00:03:00','73')");
            assert.equal(
                await soon(async () => (await texts(session, '.below .missed:not([hidden])'))[0]),
                '1 new row →',
            );
            await session.tab('alarms');
            await session.page.select('#view-alarms select[aria-label=State]', 'active');
            const status = (text: string): Promise<boolean> =>
                soon(async () => (await texts(session, '#view-alarms .status'))[0] === text);
            assert.ok(await status('2 rows'));
            write("update AlarmData set EndDate='2024-05-13',EndTime='01:00:00' where ID=390");
            assert.ok(await status('1 row'));
            assert.deepEqual(session.faults, []);
            assert.deepEqual(session.requests, []);
            await server[Symbol.asyncDispose]();
            const lost = async (): Promise<string> => (await texts(session, '.lost:not([hidden])')).join();
            assert.match(await soon(lost), /^The connection is lost/);
            await using again = await Server.start(file, Number(server.address.port));
            assert.ok(await soon(async () => /open the new address that it printed/.test(await lost())));
            await (await session.browser.newPage()).goto(again.address.href);
            assert.ok(await soon(async () => (await lost()) === ''));
        } finally {
            writer.kill();
        }
    });
}

test('a link of another site leads to the page, with its view', {skip: reason}, async () => {
    using folder = new Folder();
    const file = join(folder.path, 'plant.db');
    spawnSync('sqlite3', [file], {input: `pragma journal_mode=wal;begin;${plant.join(';')};commit;`});
    await using server = await Server.start(file);
    await using session = await Session.start('chrome', {served: server.address});
    await session.page.goto('about:blank');
    await session.page.setContent(`<a href="${server.address.href}#tab=log">the device</a>`);
    await session.page.click('a');
    await session.page.waitForSelector('#view-log:not([hidden]) .rows .row');
    assert.equal(new URL(session.page.url()).search, '');
    assert.deepEqual(session.faults, []);
});

test('a new row reaches the screen beside fifty other listeners', {skip: reason}, async () => {
    using folder = new Folder();
    const file = join(folder.path, 'plant.db');
    spawnSync('sqlite3', [file], {input: `pragma journal_mode=wal;begin;${plant.join(';')};commit;`});
    const device = spawn('sqlite3', [file]);
    try {
        await using server = await Server.start(file);
        const inPlace = readFileSync(viewer, 'utf8').replace("connect-src 'none'", "connect-src 'self'");
        await using session = await Session.start('chrome', {served: server.address, inPlace});
        const {name, value} = (await session.browser.cookies())[0]!;
        const heard = Array.from({length: 50}, () => 0);
        heard.forEach((_, i) =>
            get(new URL('/api/changes', server.address), {headers: {cookie: `${name}=${value}`}}, (response) =>
                response.on('data', () => ++heard[i]!),
            ).on('error', () => undefined),
        );
        assert.ok(await soon(async () => heard.every((events) => events > 0)));
        const took: number[] = [];
        const rows = Number(process.env['ROWS'] ?? 3);
        for (let row = 1; row <= rows; ++row) {
            const shown = (58202 + row).toLocaleString('en');
            await new Promise((resume) => setTimeout(resume, 250 * Math.random()));
            const begin = performance.now();
            device.stdin.write(
                `insert into T1(DATETIME,Value) values(datetime(1715558400+${row},'unixepoch'),'71');\n`,
            );
            await session.page.waitForFunction(
                (text) => document.querySelectorAll('.figures tbody tr:first-child > *')[4]?.textContent === text,
                {polling: 5, timeout: 60000},
                shown,
            );
            took.push(performance.now() - begin);
        }
        assert.ok(await soon(async () => heard.every((events) => events > rows / 10)));
        took.sort((a, b) => a - b);
        const at = (part: number): string => `${took[Math.min(rows - 1, Math.floor(rows * part))]!.toFixed(0)} ms`;
        const load = loadavg()[0]!.toFixed(1);
        if (rows > 3)
            console.log(`median ${at(0.5)}, 95 % ${at(0.95)}, 99 % ${at(0.99)}, longest ${at(1)}, load ${load}`);
    } finally {
        device.kill();
    }
});
