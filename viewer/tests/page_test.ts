// SPDX-License-Identifier: MIT
//
// The page in real browsers, opened from disk.
import assert from 'node:assert/strict';
import {appendFileSync, readdirSync, readFileSync, utimesSync} from 'node:fs';
import {join} from 'node:path';
import {test} from 'node:test';

import {pathOf, Session} from './browser.js';
import {number, valueTicks} from '../src/page/format.js';
import {axeFindings, press, soon, texts} from './page.js';
import {plant} from './plant.js';
import {Folder} from './reference.js';
import {made} from './support.js';

const files = await made(plant);
const tabs = ['trend', 'alarms', 'log', 'rows', 'findings'];
const browsers = (['chrome', 'firefox'] as const).filter((name) => pathOf(name));
const chrome = {skip: pathOf('chrome') ? false : 'Chromium is not installed'};

for (const name of browsers) {
    test(`${name} shows every view without a request or a fault`, async () => {
        using folder = new Folder();
        await using session = await Session.start(name);
        await session.open(folder.write('boiler house.db', files.main));
        await session.settled();
        assert.deepEqual(await texts(session, '.series .name'), [
            'Boiler flow temperature (°C)',
            'Feed pump pressure (bar)',
            'Level tank 2 (m)',
            'Valve state',
        ]);
        const figures = await texts(session, '.figures tbody tr:first-child > *');
        assert.deepEqual(figures.slice(0, 5), ['Boiler flow temperature (°C)', '59.3', '118.4', '71.181942', '58,202']);
        for (const [tab, rows] of [
            ['alarms', '400 rows'],
            ['log', '301 rows'],
            ['rows', '58,202 rows'],
        ] as const) {
            await session.tab(tab);
            assert.ok(await soon(async () => (await texts(session, `#view-${tab} .status`))[0] === rows), tab);
        }
        await session.tab('findings');
        assert.ok(
            await soon(async () =>
                (await texts(session, '.card-attention p')).some((text) => text.startsWith('Neither active')),
            ),
        );
        assert.deepEqual(session.faults, []);
        assert.deepEqual(session.requests, []);
    });
}

test('a request would be seen by the tests', chrome, async () => {
    await using session = await Session.start('chrome');
    await session.page.setBypassCSP(true);
    await session.page.reload();
    await session.page.evaluate(() => fetch('http://example.test/').catch(() => null));
    assert.ok(session.requests.some((request) => request.includes('example.test')));
});

test('the policy of the page lets nothing out', chrome, async () => {
    await using session = await Session.start('chrome');
    const refused = await session.page.evaluate(async () => {
        const broken: string[] = [];
        document.addEventListener('securitypolicyviolation', (event) => broken.push(event.effectiveDirective));
        await fetch('http://example.test/').catch(() => null);
        const image = new Image();
        image.src = 'http://example.test/';
        const script = document.createElement('script');
        script.textContent = 'window.ran = true';
        document.head.append(script);
        const frame = document.createElement('iframe');
        frame.src = 'http://example.test/';
        document.body.append(frame);
        await new Promise((resume) => setTimeout(resume, 300));
        return {broken, ran: 'ran' in window};
    });
    assert.deepEqual([...new Set(refused.broken)].sort(), ['connect-src', 'frame-src', 'img-src', 'script-src-elem']);
    assert.equal(refused.ran, false);
    assert.deepEqual(session.requests, []);
});

test('texts of a file are never markup', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    await session.open(
        folder.write(
            'hostile.db',
            (
                await made([
                    ...plant,
                    `CREATE TABLE "<img src=x onerror=alert(3)>"(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)`,
                    `insert into "<img src=x onerror=alert(3)>" values(1,'<b>','<i>')`,
                ])
            ).main,
        ),
    );
    await session.settled();
    for (const tab of tabs) {
        await session.tab(tab);
        await session.settled();
    }
    await session.tab('log');
    await session.settled();
    await session.page.click('#view-log .rows .row');
    await session.page.waitForSelector('dialog[open]');
    assert.equal((await session.page.$$('#app img, dialog img, #app b, dialog b')).length, 0);
    assert.deepEqual(session.faults, []);
});

test('a row opens with its line ends and tabs as they are', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    const text = "'Source:'||char(9)||'10.0.0.7'||char(13,10,13,10)||'Port:'||char(7)";
    const log = [
        'create table L(ID integer primary key autoincrement,DATETIME dateTime,userName text,logName text,message text)',
        `insert into L(DATETIME,userName,logName,message) values('2024-05-06 07:08:09.000','eva','audit',${text})`,
    ];
    await session.open(folder.write('log.db', (await made(log)).main));
    await session.tab('log');
    await session.settled();
    assert.ok((await texts(session, '#view-log .rows .row'))[0]!.includes('Source: ⇥ 10.0.0.7 ↵  ↵ Port:\ufffd'));
    await session.page.click('#view-log .rows .row');
    await session.page.waitForSelector('dialog[open]');
    assert.ok((await texts(session, 'dd')).includes('Source:\t10.0.0.7\n\nPort:\ufffd'));
});

test('a line of a list has the beginning of a long text, the row more, the CSV all', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    const devtools = await session.browser.target().createCDPSession();
    await devtools.send('Browser.setDownloadBehavior', {behavior: 'allow', downloadPath: folder.path});
    const log = [
        'create table L(ID integer primary key autoincrement,DATETIME dateTime,userName text,logName text,message text)',
        `insert into L(DATETIME,userName,logName,message) values('2024-05-06 07:08:09.000','eva','audit',
         replace(hex(zeroblob(500000)),'00','ab'))`,
    ];
    await session.open(folder.write('log.db', (await made(log)).main));
    await session.tab('log');
    await session.settled();
    const [line] = await texts(session, '#view-log .rows .row [aria-colindex="4"]');
    assert.equal(line, `${'ab'.repeat(250)} …`);
    await session.page.click('#view-log .rows .row');
    await session.page.waitForSelector('dialog[open]');
    const [, , , message] = await texts(session, 'dd');
    assert.equal(message, `${'ab'.repeat(50000)}… 900,000 more; the CSV has all`);
    await session.page.keyboard.press('Escape');
    await press(session, 'CSV');
    await session.page.waitForSelector('dialog[open]');
    await press(session, 'Save');
    const csv = await soon(async () => readdirSync(folder.path).find((name) => name.endsWith('.csv')));
    assert.ok(readFileSync(join(folder.path, csv), 'utf8').includes(`,${'ab'.repeat(500000)}\n`));
});

for (const zone of ['Asia/Kolkata', 'America/New_York']) {
    test(`times are those of the cells in ${zone}`, chrome, async () => {
        using folder = new Folder();
        await using session = await Session.start('chrome', {zone});
        assert.equal(
            await session.page.evaluate(() =>
                Intl.DateTimeFormat().resolvedOptions().timeZone.replace('Calcutta', 'Kolkata'),
            ),
            zone,
        );
        await session.open(folder.write('plant.db', files.main));
        await session.settled();
        await session.page.$eval('.trend input.time', (input) => {
            (input as HTMLInputElement).value = '2024-05-08';
            input.dispatchEvent(new Event('change'));
        });
        await session.page.evaluate(() => (document.activeElement as HTMLElement).blur());
        assert.equal(
            await session.page.$eval('.trend input.time', (input) => (input as HTMLInputElement).value),
            '2024-05-08 00:00:00',
        );
        await session.settled();
        await session.tab('rows');
        await session.settled();
        const [first] = await texts(session, '#view-rows .rows .row:first-child');
        assert.ok(first!.startsWith('2024-05-06 00:00:00'), first);
        await session.tab('findings');
        assert.ok((await texts(session, '.findings td')).includes('2024-05-12 22:00:00.000'));
    });
}

for (const dark of [false, true]) {
    test(`axe finds nothing ${dark ? 'in the dark' : 'in the light'}`, chrome, async () => {
        using folder = new Folder();
        await using session = await Session.start('chrome', {dark});
        const check = async (what: string): Promise<void> => {
            assert.deepEqual(await axeFindings(session), [], what);
        };
        await check('start');
        await session.open(folder.write('plant.db', files.main));
        await session.settled();
        await check('trend');
        for (const tab of tabs.slice(1)) {
            await session.tab(tab);
            await session.settled();
            await check(tab);
        }
        await session.tab('alarms');
        await session.page.click('#view-alarms .rows .row');
        await session.page.waitForSelector('dialog[open]');
        await check('a row');
        await session.page.keyboard.press('Escape');
        await session.page.click('button[aria-label=Help]');
        await check('help');
        await press(session, 'Licences');
        const [licences] = await soon(async () => {
            const found = await texts(session, 'dialog[open] pre');
            return found.length > 0 && found;
        });
        for (const part of ['Leon Sorokin', 'Emscripten', 'Apache License\n', 'SQLite 3.'])
            assert.ok(licences!.includes(part), part);
        await check('licences');
    });
}

test('keys move, zoom and set cursors', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    await session.open(folder.write('plant.db', files.main));
    await session.settled();
    const range = (): Promise<string[]> =>
        session.page.$$eval('.trend input.time', (inputs) => inputs.map((input) => (input as HTMLInputElement).value));
    const all = await range();
    await session.page.focus('.chart');
    await session.page.keyboard.press('+');
    const near = await range();
    assert.notDeepEqual(near, all);
    await session.page.keyboard.press('ArrowRight');
    assert.notDeepEqual(await range(), near);
    await session.page.keyboard.press('Home');
    assert.deepEqual(await range(), all);
    await session.page.keyboard.press('.');
    await session.page.keyboard.press('Enter');
    for (let i = 0; i < 5; ++i) await session.page.keyboard.press('>');
    const heads = await texts(session, '.figures thead th');
    assert.match(heads[5]!, /^2024-05-09 /);
    assert.match(heads[7]!, /^Difference, /);
    await session.page.keyboard.press('Escape');
    assert.equal((await texts(session, '.figures thead th')).length, 6);
    await session.page.keyboard.press('3');
    assert.equal(await session.page.$eval('#tab-log', (tab) => tab.getAttribute('aria-selected')), 'true');
});

test('the cursor stays in the view, and a range that is not marked to its end goes', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    await session.open(folder.write('plant.db', files.main));
    await session.settled();
    await session.page.focus('.chart');
    await session.page.keyboard.down('Shift');
    for (let i = 0; i < 50; ++i) await session.page.keyboard.press('>');
    await session.page.keyboard.up('Shift');
    const [, to] = await session.page.$$eval('.trend input.time', (inputs) =>
        inputs.map((input) => (input as HTMLInputElement).value),
    );
    assert.equal((await texts(session, '.figures thead th'))[5], to);
    assert.equal(await session.page.$eval('.cursor', (line) => (line as HTMLElement).hidden), false);
    const isMarked = await session.page.$eval('.chart', (chart) => {
        chart.setPointerCapture = () => undefined; // there is no such pointer
        const {left, top} = chart.getBoundingClientRect();
        const mark = chart.querySelector('.selection') as HTMLElement;
        return (['pointerdown', 'pointermove', 'pointercancel'] as const).map((kind, i) => {
            const place = {clientX: left + 100 + 100 * i, clientY: top + 60};
            chart.dispatchEvent(new PointerEvent(kind, {...place, pointerId: 1, shiftKey: true, bubbles: true}));
            return !mark.hidden;
        });
    });
    assert.deepEqual(isMarked, [false, true, false]);
});

test('wheel, drag and two fingers zoom and move, and a spike of a second stays', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    await session.open(folder.write('plant.db', files.main));
    await session.settled();
    const range = (): Promise<number[]> =>
        session.page.$$eval('.trend input.time', (inputs) =>
            inputs.map((input) => Date.parse(`${(input as HTMLInputElement).value.replace(' ', 'T')}Z`)),
        );
    const [from, to] = await range();
    const box = (await (await session.page.$('.chart'))!.boundingBox())!;
    await session.page.mouse.move(box.x + box.width / 2, box.y + 60);
    await session.page.mouse.wheel({deltaY: -120});
    const zoomed = await range();
    assert.ok(zoomed[1]! - zoomed[0]! < to! - from!);
    await session.page.mouse.down();
    await session.page.mouse.move(box.x + box.width / 2 + 120, box.y + 60, {steps: 4});
    await session.page.mouse.up();
    assert.ok((await range())[0]! < zoomed[0]!);
    const before = await range();
    const fingers = await session.page.createCDPSession();
    const touch = (type: 'touchStart' | 'touchMove' | 'touchEnd', distance: number): Promise<unknown> =>
        fingers.send('Input.dispatchTouchEvent', {
            type,
            touchPoints:
                type === 'touchEnd'
                    ? []
                    : [-1, 1].map((side, id) => ({x: box.x + box.width / 2 + side * distance, y: box.y + 80, id})),
        });
    await touch('touchStart', 60);
    for (const distance of [80, 110, 140]) await touch('touchMove', distance);
    await touch('touchEnd', 0);
    const pinched = await range();
    assert.ok(pinched[1]! - pinched[0]! < before[1]! - before[0]!, 'pinch');
    await session.page.focus('.chart');
    await session.page.keyboard.press('Home');
    await session.settled();
    assert.equal((await texts(session, '.figures tbody tr:first-child > *'))[2], '118.4');
});

test('a click on an alarm opens its list there, and a row goes back to its moment', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    await session.open(folder.write('plant.db', files.main));
    await session.settled();
    const strip = (await (await session.page.$('.events'))!.boundingBox())!;
    await session.page.mouse.click(strip.x + strip.width / 2, strip.y + 12);
    await session.settled();
    assert.equal(
        await session.page.$eval(
            '#view-alarms select[aria-label=Level]',
            (select) => (select as HTMLSelectElement).value,
        ),
        '=3',
    );
    const active = await soon(async () => (await texts(session, '#view-alarms .row.active'))[0]);
    assert.match(active, /^32024-05-0[89]/);
    await session.page.click('#view-alarms .row.active');
    await session.page.waitForSelector('dialog[open] .first');
    await session.page.click('dialog[open] .first');
    assert.equal(await session.page.$eval('#tab-trend', (tab) => tab.getAttribute('aria-selected')), 'true');
    const [from] = await session.page.$$eval('.trend input.time', (inputs) =>
        inputs.map((input) => (input as HTMLInputElement).value),
    );
    assert.match(from!, /^2024-05-0[89]/);
});

test('a click on an alarm or an entry opens the list of the file that has it', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    const line = async (name: string, hour: number): Promise<string> => {
        const {main} = await made([
            'CREATE TABLE L(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime NOT NULL,userName text,logName text,message text)',
            `insert into L(DATETIME,message) with recursive n(i) as (select 0 union all select i+1 from n where i<29)
             select strftime('%Y-%m-%d %H:%M:%f',1714953600+${hour}*3600+i*60,'unixepoch'),'${name} '||i from n`,
            `CREATE TABLE A(ID INTEGER PRIMARY KEY AUTOINCREMENT,LevelID INTEGER,DATETIME dateTime,AlarmObject text,AlarmType text,
             CurrentValue text,LimitValue text,AlarmDescription text,EndDate text,EndTime text)`,
            `insert into A(LevelID,DATETIME,AlarmObject,EndDate,EndTime) values
             (2,'2024-05-06 ${hour}:00:00','${name}','2024-05-06','${hour}:20:00')`,
        ]);
        return folder.write(`${name}.db`, main);
    };
    await session.open(await line('line1', 10), await line('line2', 20));
    await session.settled();
    await session.tab('trend');
    const strip = (await soon(async () => (await session.page.$('.events[style*="44px"]'))?.boundingBox()))!;
    for (const [lane, tab, text] of [
        [13, 'alarms', 'line2'],
        [31, 'log', 'line2 29'],
    ] as const) {
        await session.page.mouse.click(strip.x + strip.width - 26, strip.y + lane); // near the end
        const row = await soon(async () => (await texts(session, `#view-${tab} .row.active`))[0]);
        assert.ok(row.includes(text), row);
        await session.tab('trend');
    }
});

test('a row leads to its moment, with its series', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    await session.open(folder.write('plant.db', files.main));
    await session.settled();
    await session.tab('rows');
    await session.page.select('#view-rows select[aria-label=Table]', '0/T3');
    await session.settled();
    await session.page.click('#view-rows .rows .row');
    await session.page.waitForSelector('dialog[open] .first');
    await press(session, 'Show in trend');
    await session.settled();
    assert.deepEqual(await texts(session, '.figures tbody th'), [
        'Boiler flow temperature (°C)',
        'Feed pump pressure (bar)',
        'Level tank 2 (m)',
    ]);
    const [from] = await session.page.$$eval('.trend input.time', (inputs) =>
        inputs.map((input) => (input as HTMLInputElement).value),
    );
    assert.equal(from, '2024-05-05 21:00:00'); // six hours around midnight
});

test('the range is what its fields say, and what cannot be shown says why', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    const old = `insert into T1(DATETIME,Value) values('0001-01-01 00:00:00','5')`;
    await session.open(folder.write('plant.db', (await made([...plant, old])).main));
    await session.settled();
    const [from, to] = await session.page.$$('.trend input.time');
    const type = async (field: typeof from, text: string): Promise<void> => {
        await field!.click({count: 3});
        await field!.type(text);
        await field!.press('Enter');
    };
    const fields = (): Promise<(string | null)[][]> =>
        session.page.$$eval('.trend input.time', (inputs) =>
            inputs.map((input) => [(input as HTMLInputElement).value, input.getAttribute('aria-invalid')]),
        );
    const why = async (): Promise<string> => (await texts(session, '.bar .failure'))[0]!;
    const all = await fields();
    await type(from, '0001-01-01');
    assert.deepEqual(await fields(), [['0001-01-01', 'true'], all[1]]);
    assert.equal(await why(), 'The trend cannot show times before 1970.');
    assert.deepEqual(await axeFindings(session), []);
    await type(to, '0001-01-02');
    assert.deepEqual(await fields(), [
        ['0001-01-01', 'true'],
        ['0001-01-02', 'true'],
    ]);
    await type(to, '9999-12-31');
    assert.equal(await why(), 'The trend cannot show times before 1970. The trend cannot show more than 400 years.');
    await type(from, 'soon');
    assert.equal(await why(), 'Not a time: soon The trend cannot show more than 400 years.');
    await type(from, '2024-05-08 10:00:00');
    assert.deepEqual(await fields(), [
        ['2024-05-08 10:00:00', null],
        ['9999-12-31', 'true'],
    ]);
    assert.equal(await why(), 'The trend cannot show more than 400 years.');
    await type(to, all[1]![0]!);
    assert.deepEqual(await fields(), [['2024-05-08 10:00:00', null], all[1]]);
    assert.equal(await why(), '');
    await type(to, '2024-05-08 10:00:00');
    assert.equal(await why(), 'The trend cannot show less than 2 seconds.');
    assert.deepEqual((await fields())[1], ['2024-05-08 10:00:00', 'true']);
    await type(from, '9999-12-31 23:30');
    assert.deepEqual(await fields(), [
        ['9999-12-31 23:30:00', null],
        ['9999-12-31 23:59:59', null],
    ]);
    await session.page.focus('.chart');
    for (const key of ['-', '-', 'PageDown', 'PageDown']) await session.page.keyboard.press(key as '-');
    assert.equal((await fields())[1]![0], '9999-12-31 23:59:59');
    await session.settled();
    await session.tab('rows');
    await session.settled();
    await session.page.focus('#view-rows .scroller');
    await session.page.keyboard.press('End');
    await soon(async () => (await texts(session, '#view-rows .row.active'))[0]?.startsWith('0001'));
    await session.page.keyboard.press('Enter');
    await session.page.waitForSelector('dialog[open]');
    assert.deepEqual(await texts(session, 'dialog .actions button'), ['Close']);
    assert.deepEqual(await texts(session, 'dialog p'), ['The trend cannot show times before 1970.']);
});

test('search, filter and sort find the rows that device-db finds', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    await session.open(folder.write('plant.db', files.main));
    await session.settled();
    const status = (text: string, tab: string): Promise<unknown> =>
        soon(async () => (await texts(session, `#view-${tab} .status`))[0] === text);
    await session.tab('log');
    await session.page.type('#view-log input[type=search]', 'ACKNOWLEDGED');
    assert.ok(await status('100 rows', 'log'));
    await session.page.select('#view-log select[aria-label=User]', '=admin');
    assert.ok(await status('20 rows', 'log'));
    await session.tab('alarms');
    await session.page.select('#view-alarms select[aria-label=State]', 'active');
    assert.ok(await status('2 rows', 'alarms'));
    await session.page.select('#view-alarms select[aria-label=State]', '');
    await session.page.evaluate(() =>
        ([...document.querySelectorAll('#view-alarms .head button')] as HTMLElement[])
            .find((button) => button.textContent!.startsWith('Object'))!
            .click(),
    );
    assert.ok(await soon(async () => (await texts(session, '#view-alarms .rows .row'))[0]?.includes('Boiler')));
});

test('what was saved is the cells, and a picture', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    const devtools = await session.browser.target().createCDPSession();
    await devtools.send('Browser.setDownloadBehavior', {behavior: 'allow', downloadPath: folder.path});
    await session.open(folder.write('plant.db', files.main));
    await session.settled();
    await session.tab('log');
    await session.settled();
    const saved = (ending: string): Promise<string> =>
        soon(async () => readdirSync(folder.path).find((name) => name.endsWith(ending)));
    await press(session, 'CSV');
    await session.page.waitForSelector('dialog[open]');
    await press(session, 'Save');
    const csv = readFileSync(join(folder.path, await saved('.csv')), 'utf8');
    const lines = csv.split('\n');
    assert.equal(lines[0], 'time,user,log,message');
    assert.equal(
        lines[1],
        `2024-05-12 22:00:00.000,<img src=x onerror=alert(1)>,</script><script>alert(2)</script>,"""><b>%1"`,
    );
    assert.equal(csv.split(/\n(?=2024)/).length, 302);
    await session.tab('trend');
    await press(session, 'Picture');
    const png = readFileSync(join(folder.path, await saved('.png')));
    // The lines are in it, in their colours.
    const coloured = await session.page.evaluate(async (data) => {
        const picture = await createImageBitmap(
            new Blob([Uint8Array.from(atob(data), (character) => character.charCodeAt(0))]),
        );
        const canvas = new OffscreenCanvas(picture.width, picture.height);
        const context = canvas.getContext('2d')!;
        context.drawImage(picture, 0, 0);
        const pixels = context.getImageData(0, 0, picture.width, picture.height).data;
        const counts = [0, 0];
        for (let i = 0; i < pixels.length; i += 4) {
            counts[0]! += pixels[i] === 0x1f && pixels[i + 1] === 0x5f && pixels[i + 2] === 0xa8 ? 1 : 0;
            counts[1]! += pixels[i] === 0xc2 && pixels[i + 1] === 0x50 && pixels[i + 2] === 0x0b ? 1 : 0;
        }
        return counts;
    }, png.toString('base64'));
    assert.ok(
        coloured.every((count) => count > 1000),
        String(coloured),
    );
});

test('-wal and -journal beside the file are read, and a file that changes is noticed', chrome, async () => {
    using folder = new Folder();
    const samples = 'CREATE TABLE T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)';
    const wal = await made([
        'pragma journal_mode=wal',
        samples,
        "insert into T1 values(1,'2024-05-06 07:08:09','5'),(2,'2024-05-06 08:00:00','6')",
    ]);
    await using session = await Session.start('chrome');
    const [main, log] = [folder.write('wal.db', wal.main), folder.write('wal.db-wal', wal.wal!)];
    await session.open(main, log);
    await session.tab('rows');
    assert.ok(await soon(async () => (await texts(session, '#view-rows .status'))[0] === '2 rows'));
    appendFileSync(log, 'more');
    await session.tab('trend');
    await session.page.focus('.chart');
    await session.page.keyboard.press('+');
    assert.match(
        await soon(async () => (await texts(session, '.failure'))[0]),
        /wal\.db: it was changed or taken away/,
    );
});

test('files of one name can be told apart, and one that is given twice is shown once', chrome, async () => {
    using folder = new Folder();
    using other = new Folder();
    await using session = await Session.start('chrome');
    const file = (await made(['CREATE TABLE T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)']))
        .main;
    const [one, two] = [folder.write('history.db', file), other.write('history.db', file)];
    utimesSync(one, 1000, 1000);
    utimesSync(two, 2000, 2000);
    await session.open(one, two);
    assert.deepEqual(await texts(session, '.series .name'), ['T1, history.db', 'T1, history.db (2)']);
    assert.match((await texts(session, 'h1.file'))[0]!, /^history\.db, history\.db \(2\) /);
    await session.open(one, two, one);
    assert.ok(await soon(async () => (await texts(session, '.banner.failure'))[0] !== ''));
    assert.deepEqual(await texts(session, '.banner.failure'), ['Given twice, shown once: history.db']);
    assert.deepEqual(await texts(session, '.series .name'), ['T1, history.db', 'T1, history.db (2)']);
});

test('only levels that are whole numbers can be chosen, and each finds its own', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    const {main} = await made([
        `CREATE TABLE AlarmData(ID INTEGER PRIMARY KEY AUTOINCREMENT,LevelID INTEGER,DATETIME dateTime,AlarmObject text,AlarmType text,
         CurrentValue text,LimitValue text,AlarmDescription text,EndDate text,EndTime text)`,
        `insert into AlarmData(LevelID,DATETIME,EndDate,EndTime) select column1,'2024-05-06 00:00:10','2024-05-06','00:01:00'
         from (values(1),(1),(1.5),('high'),(''),(null),(-2),(5000000000))`,
    ]);
    await session.open(folder.write('levels.db', main));
    await session.tab('alarms');
    await session.settled();
    const options = (): Promise<string[]> => texts(session, '#view-alarms select[aria-label=Level] option');
    assert.deepEqual(await soon(async () => (await options()).length > 1 && (await options())), [
        'All levels',
        'Level 1 (2)',
        'Level -2 (1)',
    ]);
    const status = (text: string): Promise<boolean> =>
        soon(async () => (await texts(session, '#view-alarms .status'))[0] === text);
    for (const [level, rows] of [
        ['=1', '2 rows'],
        ['=-2', '1 row'],
        ['', '8 rows'],
    ] as const) {
        await session.page.select('#view-alarms select[aria-label=Level]', level);
        assert.ok(await status(rows), level);
    }
    // How long one lasted is in no column that could be sorted by.
    assert.ok(!(await texts(session, '#view-alarms .head button')).includes('Lasted'));
    assert.ok((await texts(session, '#view-alarms .head > *')).includes('Lasted'));
    assert.deepEqual(await axeFindings(session), []);
});

test('a list without a table prints nothing and does not fail', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    const table = 'CREATE TABLE T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)';
    await session.open(folder.write('series.db', (await made([table])).main));
    await session.tab('alarms');
    await press(session, 'Print');
    await new Promise((resume) => setTimeout(resume, 300));
    assert.deepEqual(await texts(session, '.banner.failure'), ['']);
});

test('the last row of a list that is taller than a browser shows is seen whole', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    const {main} = await made([
        'CREATE TABLE T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)',
        `insert into T1(DATETIME,Value) with recursive n(i) as (select 0 union all select i+1 from n where i<299999)
         select datetime(1714978800+i,'unixepoch'),i from n`,
    ]);
    await session.open(folder.write('long.db', main));
    await session.tab('rows');
    assert.ok(await soon(async () => (await texts(session, '#view-rows .status'))[0] === '300,000 rows'));
    await session.page.$eval('#view-rows .scroller', (each) => (each.scrollTop = 1e9));
    await soon(async () => (await texts(session, '#view-rows .rows .row'))[0]?.includes('2'));
    const [text, cut] = await session.page.$eval('#view-rows .scroller', (scroller) => {
        const row = scroller.querySelector('.rows .row:last-child')!;
        const end = scroller.getBoundingClientRect().top + scroller.clientTop + scroller.clientHeight;
        return [row.textContent, row.getBoundingClientRect().bottom - end] as const;
    });
    assert.match(text!, /299999/);
    assert.ok(Math.abs(cut) < 2, String(cut));
});

test('files without rows and without tables are shown as they are', chrome, async () => {
    using folder = new Folder();
    const table = 'CREATE TABLE T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)';
    await using session = await Session.start('chrome');
    await session.open(folder.write('empty.db', (await made([table])).main));
    await session.settled();
    assert.deepEqual(await texts(session, '.series .name'), ['T1']);
    assert.ok(await soon(async () => (await texts(session, '.figures td')).join() === ',,,0,'));
    assert.deepEqual(await texts(session, '.note'), ['T1: no rows yet']);
    const range = (): Promise<string[]> =>
        session.page.$$eval('.trend input.time', (all) => all.map((each) => (each as HTMLInputElement).value));
    assert.ok(
        (await range()).every((text) => text > '2020'),
        String(await range()),
    );
    await press(session, 'Week');
    const week = await range();
    await press(session, 'All');
    assert.notDeepEqual(await range(), week);
    await session.open(folder.write('other.db', (await made(['CREATE TABLE letters(a,b)'])).main));
    await session.settled();
    assert.match((await texts(session, '.series'))[0]!, /No series in this file/);
    for (const tab of tabs) await session.tab(tab);
    assert.match((await texts(session, '.cards'))[0]!, /letters/);
    assert.deepEqual(session.faults, []);
});

test('what could not be read says so wherever it is waited for', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    const {main} = await made([
        'CREATE TABLE T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)',
        `insert into T1(DATETIME,Value) with recursive n(i) as (select 0 union all select i+1 from n where i<20000)
         select datetime(1714978800+i,'unixepoch'),i from n`,
    ]);
    main.fill(0xff, Math.trunc(main.length / 2), Math.trunc(main.length / 2) + 20000);
    await session.open(folder.write('damaged.db', main));
    const figures = await soon(async () => {
        const cells = await texts(session, '.figures tbody td');
        return cells.includes('could not be read') && cells;
    });
    assert.deepEqual(figures, ['could not be read', '', '', '', '']);
    await session.settled(); // nothing is waited for any more
    await session.page.evaluate(() => (window.print = () => undefined));
    await press(session, 'Print');
    await session.page.waitForSelector('#paper td'); // it waits for what is asked
    assert.deepEqual((await texts(session, '#paper td')).slice(0, 4), figures.slice(0, 4));
    await session.tab('findings');
    assert.equal((await texts(session, '[aria-label=Tables] tbody tr > *')).at(-1), 'could not be read');
    await session.tab('rows');
    await session.page.type('#view-rows input[type=search]', '7');
    assert.ok(await soon(async () => (await texts(session, '#view-rows .status'))[0] === 'Could not be read'));
});

test('counts are said as they are: one, none and the highest', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    const {main} = await made([
        'CREATE TABLE T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)',
        `insert into T1 values(1,'2024-05-06 07:08:09','5'),(9223372036854775807,'2024-05-06 08:00:00','open')`,
    ]);
    await session.open(folder.write('one.db', main), folder.write('none.db', new Uint8Array(0)));
    await session.settled();
    assert.equal((await texts(session, '.note'))[0], 'T1: 1 value is not a number, marked ×');
    await session.tab('findings');
    const files = await texts(session, '[aria-label=Files] tbody tr > *');
    assert.equal(files[files.indexOf('none.db') + 3], 'none');
    assert.ok((await texts(session, '[aria-label=Tables] td')).includes('9,223,372,036,854,775,807'));
});

test('what is not a store file says so', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    const input = (await session.page.$('input[type=file]'))!;
    await (input as any).uploadFile(
        folder.write('letter.txt', 'Dear reader, this is no database at all. '.repeat(100)),
    );
    assert.match(await soon(async () => (await texts(session, '.failure'))[0]), /letter\.txt: file is not a database/);
});

test('the print shows the trend and its figures on one page', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    await session.open(folder.write('plant.db', files.main));
    await session.settled();
    await session.page.evaluate(() => {
        window.print = () => document.body.setAttribute('data-printed', '');
        ([...document.querySelectorAll('.trend button')] as HTMLElement[])
            .find((each) => each.textContent === 'Print')!
            .click();
    });
    await session.page.waitForSelector('[data-printed]');
    const paper = Buffer.from(await session.page.pdf({preferCSSPageSize: true})).toString('latin1');
    assert.equal([...paper.matchAll(/\/Type ?\/Page\b/g)].length, 1);
    assert.match((await texts(session, '#paper'))[0]!, /plant\.db.*device time.*58,202/s);
});

test('whole numbers are exact, however many digits they have', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    const {main} = await made([
        'CREATE TABLE T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)',
        `insert into T1(DATETIME,Value) with recursive n(i) as (select 0 union all select i+1 from n where i<8)
         select datetime(1714978800+i,'unixepoch'),123456781+i from n`,
    ]);
    await session.open(folder.write('counter.db', main));
    await session.settled();
    const figures = await texts(session, '.figures tbody td');
    assert.deepEqual(figures.slice(0, 4), ['123,456,781', '123,456,789', '123,456,785', '9']);
});

test('labels of an axis are few, whole and different', () => {
    const labels = (low: number, high: number): string[] => valueTicks(low, high, 4).map(number);
    assert.deepEqual(labels(0, 1), ['0', '0.5', '1']);
    assert.deepEqual(labels(-1.4e6, 0), ['-1,000,000', '-500,000', '0']);
    assert.deepEqual(labels(0.05, 0.35), ['0.1', '0.2', '0.3']);
    assert.deepEqual(labels(4006381333930.9, 4006381333933.1), [
        '4,006,381,333,931',
        '4,006,381,333,932',
        '4,006,381,333,933',
    ]);
    assert.deepEqual(labels(1e15, 1.4e15), [
        '1,000,000,000,000,000',
        '1,100,000,000,000,000',
        '1,200,000,000,000,000',
        '1,300,000,000,000,000',
        '1,400,000,000,000,000',
    ]);
    assert.deepEqual(labels(0, 1e-9), ['0', '5E-10', '1E-9']);
    // One label says nothing of a scale, however low it is.
    assert.deepEqual(valueTicks(40, 190, 2.3), [50, 100, 150]);
    for (let low = 0; low < 1; low += 0.01) {
        for (let size = 1; size < 10; size *= 1.01) assert.ok(valueTicks(low, low + size, 2).length >= 2);
    }
});

test('the finger that stays after a pinch moves on from there', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    await session.open(folder.write('plant.db', files.main));
    await session.settled();
    const finger = (type: string, pointerId: number, x: number): Promise<void> =>
        session.page.$eval(
            '.chart',
            (chart, ...[kind, id, at]) => {
                chart.setPointerCapture = () => undefined; // there is no such finger
                const {left, top, width} = chart.getBoundingClientRect();
                const place = {clientX: left + width / 2 + at, clientY: top + 60};
                const init = {pointerId: id, pointerType: 'touch', button: kind === 'pointermove' ? -1 : 0, ...place};
                chart.dispatchEvent(new PointerEvent(kind, {...init, bubbles: true}));
            },
            type,
            pointerId,
            x,
        );
    const length = async (): Promise<number> => {
        const [from, to] = await session.page.$$eval('.trend input.time', (inputs) =>
            inputs.map((input) => Date.parse(`${(input as HTMLInputElement).value}Z`)),
        );
        return to! - from!;
    };
    const all = await length();
    await finger('pointerdown', 1, -50);
    await finger('pointerdown', 2, 50);
    for (let d = 60; d <= 200; d += 20) {
        await finger('pointermove', 1, -d);
        await finger('pointermove', 2, d);
    }
    const pinched = await length();
    assert.ok(pinched < all / 3, `${pinched} of ${all}`);
    await finger('pointerup', 2, 200);
    await finger('pointermove', 1, -190);
    assert.equal(await length(), pinched);
    await finger('pointerup', 1, -190);
    assert.equal(await length(), pinched);
});

test('keys do not act behind a dialog, and what went wrong can be closed', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    const file = folder.write('plant.db', files.main);
    await session.open(file, file);
    assert.ok(await soon(async () => (await texts(session, '.banner.failure'))[0] !== ''));
    assert.deepEqual(await axeFindings(session), []);
    await session.page.click('.banner.failure button');
    await session.page.waitForSelector('.banner.failure', {hidden: true});
    await session.tab('log');
    await session.settled();
    await session.page.click('#view-log .rows .row');
    await session.page.waitForSelector('dialog[open]');
    await session.page.keyboard.press('1');
    assert.equal(await session.page.$eval('#tab-log', (tab) => tab.getAttribute('aria-selected')), 'true');
});

test('files that are opened one after the other leave nothing of those before', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    const file = folder.write('plant.db', files.main);
    const devtools = await session.page.createCDPSession();
    const counted = async (): Promise<number[]> => {
        await devtools.send('HeapProfiler.collectGarbage');
        const {Nodes, JSEventListeners} = await session.page.metrics();
        return [Nodes!, JSEventListeners!];
    };
    const open = async (): Promise<void> => {
        await session.open(file);
        await session.settled();
    };
    for (let i = 0; i < 2; ++i) await open();
    const before = await counted();
    for (let i = 0; i < 4; ++i) await open();
    let after: number[] = [];
    // What a browser has still under way holds elements for a moment; what is left behind stays.
    const isFreed = await soon(async () => {
        after = await counted();
        return after.every((count, i) => count < before[i]! * 1.3);
    });
    assert.ok(isFreed, `${before} nodes and listeners, then ${after}`);
});

test('files that are dropped while others are opened are the ones that are shown', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    const given = ['one.db', 'two.db', 'three.db'].map((name) => folder.write(name, files.main));
    const input = (await session.page.$('input[type=file]'))!;
    await session.page.evaluate(() => {
        const seen: string[] = ((window as any).seen = []);
        new MutationObserver(() => {
            const text = document.querySelector('h1.file, .lead')?.textContent;
            if (text && text !== seen.at(-1)) seen.push(text);
        }).observe(document.getElementById('app')!, {childList: true});
        // Once all are given each goes in on its own, before the one before is open.
        document.querySelector('input[type=file]')!.addEventListener(
            'change',
            (event) => {
                event.stopImmediatePropagation();
                for (const file of (event.target as HTMLInputElement).files!) {
                    const drop = new DataTransfer();
                    drop.items.add(file);
                    document.dispatchEvent(new DragEvent('drop', {dataTransfer: drop, bubbles: true}));
                }
            },
            {capture: true},
        );
    });
    await (input as any).uploadFile(...given);
    await session.page.waitForSelector('[role=tablist]');
    await session.settled();
    const seen = await session.page.evaluate(() => (window as any).seen as string[]);
    assert.ok(
        seen.slice(0, -1).every((text) => text.startsWith('Opening ')),
        seen.join(),
    );
    assert.match(seen.at(-1)!, /^three\.db/);
});

test('a browser prints the view that is shown, and what was printed before is gone', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    await session.open(folder.write('plant.db', files.main));
    await session.settled();
    const isSeen = (selector: string): Promise<boolean> =>
        session.page.$eval(selector, (each) => (each as HTMLElement).offsetParent !== null);
    await session.page.evaluate(() => (window.print = () => undefined));
    await session.tab('alarms');
    await session.settled();
    await press(session, 'Print');
    assert.ok(await soon(() => session.page.$('#paper td')));
    await session.page.emulateMediaType('print');
    assert.deepEqual([await isSeen('#paper table'), await isSeen('#view-alarms')], [true, false]);
    await session.page.evaluate(() => dispatchEvent(new Event('afterprint')));
    await session.page.emulateMediaType('screen');
    await session.tab('findings');
    await session.page.emulateMediaType('print');
    assert.deepEqual([await isSeen('#paper'), await isSeen('#view-findings .card')], [false, true]);
});

test('a list on paper says what it was filtered by', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    await session.open(folder.write('plant.db', files.main));
    await session.settled();
    await session.page.evaluate(() => (window.print = () => undefined));
    const said = async (tab: string, rows: string): Promise<string> => {
        assert.ok(await soon(async () => (await texts(session, `#view-${tab} .status`))[0] === rows));
        await session.page.evaluate(() => document.querySelector('#paper')!.replaceChildren());
        await press(session, 'Print');
        return soon(async () => (await texts(session, '#paper > p'))[0]);
    };
    await session.tab('alarms');
    assert.equal(await said('alarms', '400 rows'), '400 rows');
    await session.page.type('#view-alarms input[type=search]', 'level');
    await session.page.select('#view-alarms select[aria-label=State]', 'ended');
    await session.page.select('#view-alarms select[aria-label=Level]', '=2');
    await session.page.type('#view-alarms input[aria-label=From]', '2024-05-12\n');
    await session.page.type('#view-alarms input[aria-label=To]', '12.5.2024\n');
    assert.equal(
        await said('alarms', '3 rows'),
        '3 rows · Texts with “level” · Ended · Level 2 · from 2024-05-12 00:00:00 · to 2024-05-12 23:59:59',
    );
    await session.tab('log');
    await session.page.select('#view-log select[aria-label=User]', '=admin');
    await session.page.type('#view-log input[aria-label=From]', 'no time\n');
    assert.equal(await said('log', '60 rows'), '60 rows · User admin');
});

test('what is taken out of a list is what it shows, whatever its fields say', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    const devtools = await session.browser.target().createCDPSession();
    await devtools.send('Browser.setDownloadBehavior', {behavior: 'allow', downloadPath: folder.path});
    await session.open(folder.write('plant.db', files.main));
    await session.settled();
    await session.page.evaluate(() => (window.print = () => undefined));
    await session.tab('log');
    const from = '#view-log input[aria-label=From]';
    await session.page.type(from, '2024-05-12\n');
    const status = async (): Promise<string> => (await texts(session, '#view-log .status'))[0]!;
    assert.ok(await soon(async () => (await status()) === '40 rows'), await status());
    await session.page.type(from, 'x\n'); // the list stays
    const isInvalid = (): Promise<string | null> =>
        session.page.$eval(from, (field) => field.getAttribute('aria-invalid'));
    assert.equal(await isInvalid(), 'true');
    await press(session, 'Print');
    assert.equal(await soon(async () => (await texts(session, '#paper > p'))[0]), '40 rows · from 2024-05-12 00:00:00');
    await press(session, 'CSV');
    await session.page.waitForSelector('dialog[open]');
    await press(session, 'Save');
    const csv = await soon(async () => readdirSync(folder.path).find((name) => name.endsWith('.csv')));
    assert.equal(readFileSync(join(folder.path, csv), 'utf8').split(/\n(?=2024)/).length - 1, 40);
    await press(session, 'As in trend');
    assert.equal(await isInvalid(), 'false');
});

test('an end that says no length is shown as it is written, and a long length whole', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    const ends = [
        ['2026-05-06', '07:08:10'],
        ['2024-05-06', '7:20'],
        ['06.05.2024', '24:00:00'],
        ['2024-05-06', '07:00:00'],
        ['2024-05-06', ''],
        ['', ''],
    ];
    const alarms = [
        `CREATE TABLE A(ID INTEGER PRIMARY KEY AUTOINCREMENT,LevelID INTEGER,DATETIME dateTime,AlarmObject text,AlarmType text,
         CurrentValue text,LimitValue text,AlarmDescription text,EndDate text,EndTime text)`,
        ...ends.map(
            ([date, time]) =>
                `insert into A(LevelID,DATETIME,AlarmObject,EndDate,EndTime) values(1,'2024-05-06 07:08:09','x','${date}','${time}')`,
        ),
    ];
    await session.open(folder.write('alarms.db', (await made(alarms)).main));
    await session.tab('alarms');
    await session.settled();
    const lasted = '#view-alarms .rows .row > :nth-child(3)';
    assert.deepEqual((await texts(session, lasted)).reverse(), [
        '730 d 0:00:01',
        'until 2024-05-06 7:20',
        'until 06.05.2024 24:00:00',
        'until 2024-05-06 07:00:00',
        '',
        'active',
    ]);
    const cut = await session.page.$$eval(lasted, (all) =>
        all.map((each) => each.scrollWidth - each.clientWidth).filter((more) => more > 0),
    );
    assert.deepEqual(cut, []);
    await session.page.click('#view-alarms .rows .row:nth-child(4)');
    await session.page.waitForSelector('dialog[open]');
    assert.ok((await texts(session, 'dd')).includes('until 06.05.2024 24:00:00'));
});

test('a name at the beginning of a finding stays as it is', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    const unlisted = [...plant, "delete from tb_config where COLLECTOR='T3'"];
    await session.open(folder.write('unlisted.db', (await made(unlisted)).main));
    await session.settled();
    await session.tab('findings');
    const said = await texts(session, '.card p:not(.advice)');
    assert.ok(said.includes('tb_config does not list it.'), said.join());
    assert.ok(
        said.some((text) => /^Clock went back/.test(text)),
        said.join(),
    );
});

test('texts have no scale, and a picture says what the page says of them', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome');
    await session.page.evaluate(() => {
        const drawn: string[] = ((window as any).drawn = []);
        const {fillText} = CanvasRenderingContext2D.prototype;
        CanvasRenderingContext2D.prototype.fillText = function (text: string, ...place: any) {
            drawn.push(text);
            fillText.call(this, text, ...(place as [number, number]));
        };
    });
    const drawn = (): Promise<string[]> => session.page.evaluate(() => (window as any).drawn as string[]);
    const {main} = await made([
        'CREATE TABLE T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)',
        `insert into T1(DATETIME,Value) with recursive n(i) as (select 0 union all select i+1 from n where i<99)
         select datetime(1714978800+i*60,'unixepoch'),case i%2 when 0 then 'open' else 'closed' end from n`,
    ]);
    await session.open(folder.write('texts.db', main));
    const note = 'T1: 100 values are not numbers, marked ×';
    assert.ok(await soon(async () => (await texts(session, '.note'))[0] === note));
    await press(session, 'Picture');
    assert.ok(await soon(async () => (await drawn()).includes('Series')));
    const all = await drawn();
    assert.ok(all.includes(note), all.join());
    assert.ok(all.includes('T1'));
    assert.deepEqual(
        all.filter((text) => /^(0\.\d|1)$/.test(text)),
        [],
    );
    await session.page.evaluate(() => (window.print = () => undefined));
    await press(session, 'Print');
    assert.ok(await soon(async () => (await texts(session, '#paper'))[0]?.includes(note)));
    assert.deepEqual(session.faults, []);
});

test('a list with long names is no wider than a small window', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome', {width: 360, height: 640});
    const {main} = await made([
        ...plant,
        "update tb_config set NAME='Boiler 2, feed water pressure, primary side, behind the second valve' where COLLECTOR='T1'",
        "update OperatorLog set userName='Maximiliane von und zu Hohenstein-Waldenburg (night shift)' where userName='admin'",
    ]);
    await session.open(folder.write('long.db', main));
    await session.settled();
    for (const tab of ['rows', 'log']) {
        await session.tab(tab);
        await session.settled();
        assert.equal(await session.page.evaluate(() => document.documentElement.scrollWidth), 360, tab);
    }
});

test('times of panes are above each other, whatever the width of their labels', chrome, async () => {
    using folder = new Folder();
    await using session = await Session.start('chrome', {width: 400});
    await session.page.evaluate(() => {
        const lefts: Record<string, number> = ((window as any).lefts = {});
        const {fillText} = CanvasRenderingContext2D.prototype;
        CanvasRenderingContext2D.prototype.fillText = function (text: string, x: number, ...place: any) {
            lefts[text] = x;
            fillText.call(this, text, x, ...(place as [number]));
        };
    });
    const table = (name: string, value: string): string[] => [
        `CREATE TABLE ${name}(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)`,
        `insert into ${name}(DATETIME,Value) with recursive n(i) as (select 0 union all select i+1 from n where i<99)
         select datetime(1714978800+i*60,'unixepoch'),${value} from n`,
    ];
    const {main} = await made([...table('T1', 'i'), ...table('T2', '1000000000000000+i')]);
    await session.open(folder.write('wide.db', main));
    await session.settled();
    const places = (): Promise<[number, number]> =>
        session.page.evaluate(() => [(window as any).lefts['T1'], (window as any).lefts['T2']] as [number, number]);
    assert.ok(await soon(async () => (await places())[1] > 120));
    const [one, other] = await places();
    assert.equal(one, other);
    // Values that no computer counts to have a scale as well.
    await session.open(folder.write('huge.db', (await made([...table('T1', 'i'), ...table('T2', "'1e300'")])).main));
    await session.settled();
    assert.ok(await soon(async () => (await session.page.evaluate(() => (window as any).lefts['1E300'])) > 0));
    const [low, huge] = await places();
    assert.equal(low, huge);
});
