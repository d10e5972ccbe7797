// SPDX-License-Identifier: MIT
//
// The served page in a real browser: rows that come, a connection that is lost, and an address that keeps the view.
import assert from 'node:assert/strict';
import {test} from 'node:test';

import {pathOf, Session} from './browser.js';
import type {BrowserName} from './browser.js';
import {plant} from './plant.js';
import {Served} from './served.js';
import {axeFindings, press, soon, texts} from './page.js';

const chrome = {skip: pathOf('chrome') ? false : 'Chromium is not installed'};
const later = (count: number): string[] => [
    ...plant,
    ...Array.from(
        {length: count},
        (_, i) =>
            `insert into T1(DATETIME,Value) values('2024-05-13 00:0${1 + Math.floor(i / 60)}:${10 + (i % 50)}','7${i % 10}')`,
    ),
];
const entries = (count: number): string[] => [
    ...plant,
    ...Array.from(
        {length: count},
        (_, i) =>
            `insert into OperatorLog(DATETIME,userName,logName,message) values('2024-05-13 00:00:${10 + i}.000','admin','Login','new ${i}')`,
    ),
];

const range = (session: Session): Promise<string[]> =>
    session.page.$$eval('.trend input.time', (inputs) => inputs.map((input) => (input as HTMLInputElement).value));
const shown = (session: Session, selector: string): Promise<string[]> =>
    session.page.$$eval(selector, (all) =>
        (all as HTMLElement[]).filter((each) => each.offsetParent !== null).map((each) => each.textContent ?? ''),
    );
const numbers = async (session: Session): Promise<string> =>
    (await texts(session, '.figures tbody tr:first-child > *'))[4]!;

async function opened(served: Served, address = served.address, name: BrowserName = 'chrome'): Promise<Session> {
    const session = await Session.start(name, {served: address});
    await session.page.waitForSelector('[role=tablist]');
    await session.settled();
    return session;
}

test('new rows appear where the end is shown, and move nobody who looks elsewhere', chrome, async () => {
    await using served = await Served.start(plant);
    await using session = await opened(served);
    assert.equal(await numbers(session), '58,202');
    assert.deepEqual(await shown(session, '.live'), ['● Live']);
    const all = await range(session);
    await served.change(later(3));
    assert.ok(await soon(async () => (await numbers(session)) === '58,205'));
    assert.ok((await range(session))[1]! > all[1]!);

    await press(session, '24 h');
    await session.settled();
    const end = await range(session);
    await served.change(later(60));
    assert.ok(await soon(async () => (await range(session))[1]! > end[1]!));
    const length = ([from, to]: readonly string[]): number => Date.parse(`${to}Z`) - Date.parse(`${from}Z`);
    assert.equal(length(await range(session)), length(end));

    await session.page.focus('.chart');
    await session.page.keyboard.press('ArrowLeft');
    await session.settled();
    const still = await range(session);
    await served.change(later(72));
    assert.ok(await soon(async () => (await shown(session, '.below .missed'))[0] === '12 new rows →'));
    assert.deepEqual(await range(session), still);
    assert.deepEqual(await axeFindings(session), []);
    await session.page.click('.below .missed');
    await session.settled();
    assert.deepEqual(await shown(session, '.missed'), []);
    assert.ok((await range(session))[1]! > still[1]!);
    assert.deepEqual(session.faults, []);
    assert.deepEqual(session.requests, []);
});

test('Firefox shows new rows as they come', {skip: pathOf('firefox') ? false : 'it is not installed'}, async () => {
    await using served = await Served.start(plant);
    await using session = await opened(served, served.address, 'firefox');
    await served.change(later(3));
    assert.ok(await soon(async () => (await numbers(session)) === '58,205'));
    served.setDown(true);
    assert.match(await soon(async () => (await shown(session, '.lost'))[0]), /connection is lost/);
    served.setDown(false);
    assert.ok(await soon(async () => (await shown(session, '.lost')).length === 0));
    assert.deepEqual(session.faults, []);
    assert.deepEqual(session.requests, []);
});

test('a list shows new rows at its edge, and stays where somebody reads', chrome, async () => {
    await using served = await Served.start(plant);
    await using session = await opened(served);
    const first = async (): Promise<string> => {
        const top = await session.page.$eval('#view-log .scroller', (each) => {
            const begin = each.getBoundingClientRect().top + 30;
            return [...each.querySelectorAll('.rows .row')].find(
                (row) => row.getBoundingClientRect().bottom > begin + 1,
            )?.textContent;
        });
        return top ?? '…'; // between scrolling and the next frame there is none
    };
    await session.tab('log');
    await session.settled();
    await served.change(entries(1));
    assert.ok(await soon(async () => (await first()).includes('new 0')));
    await session.page.$eval('#view-log .scroller', (each) => (each.scrollTop = 4000));
    const read = await soon(async () => {
        const row = await first();
        return !row.includes('…') && !row.includes('new') && row;
    });
    await served.change(entries(4));
    assert.ok(await soon(async () => (await shown(session, '#view-log .missed'))[0] === '3 new rows ↑'));
    assert.equal(await first(), read);
    assert.deepEqual(await axeFindings(session), []);
    await session.page.click('#view-log .missed');
    assert.ok(await soon(async () => (await first()).includes('new 3')));
    assert.deepEqual(await shown(session, '#view-log .missed'), []);
});

test('new rows are counted where as many are removed at the other side', chrome, async () => {
    const ring = (rows: number): string[] => [
        'CREATE TABLE T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)',
        `insert into T1(DATETIME,Value) with recursive n(i) as (select 0 union all select i+1 from n where i<${rows - 1})
         select datetime(1714978800+i,'unixepoch'),i from n`,
        ...logOf(rows),
        `delete from T1 where ID<=${rows - 1000}`,
        `delete from OperatorLog where ID<=${rows - 1000}`,
    ];
    await using served = await Served.start(ring(1000));
    await using session = await opened(served);
    const news = (selector: string, text: string): Promise<boolean> =>
        soon(async () => (await shown(session, `${selector} .missed`))[0] === text);
    const first = (tab: string): Promise<string> => entryAt(session, `#view-${tab} .rows .row`);
    await session.page.focus('.chart');
    await session.page.keyboard.press('+');
    await session.settled();
    await session.tab('log');
    await session.settled();
    await session.page.$eval('#view-log .scroller', (each) => (each.scrollTop = 3000));
    assert.ok(await soon(async () => (await first('log')) === 'm899'));
    await served.change(ring(1010));
    assert.ok(await news('#view-log', '10 new rows ↑'));
    assert.equal(await first('log'), 'm899');
    await session.tab('trend');
    assert.ok(await news('.below', '20 new rows →'));
    // The first row that is shown is always one that is removed.
    await session.tab('rows');
    await session.settled();
    await served.change(ring(1013));
    assert.ok(await news('#view-rows', '3 new rows ↓'));
    assert.equal(await first('rows'), '14');
});

test('what is pressed while new rows come is chosen', chrome, async () => {
    await using served = await Served.start(plant);
    await using session = await opened(served);
    const {mouse} = session.page;
    const press = async (selector: string, index: number): Promise<void> => {
        const [x, y] = await session.page.$$eval(
            selector,
            (all, at) => {
                const {left, top, width, height} = all[at]!.getBoundingClientRect();
                return [left + width / 2, top + height / 2] as const;
            },
            index,
        );
        await mouse.move(x, y);
        await mouse.down();
    };
    const rows = '#view-log .rows .row';
    await session.tab('log');
    await session.settled();
    await session.page.$eval('#view-log .scroller', (each) => (each.scrollTop = 4000));
    const text = await soon(() =>
        session.page.$$eval(rows, (all) => {
            const row = all[5]!;
            const isThere = Number(row.getAttribute('aria-rowindex')) > 100; // drawn after it was scrolled
            return isThere && !row.textContent.includes('…') && row.firstElementChild!.textContent;
        }),
    );
    await press(rows, 5);
    await served.change(entries(1));
    assert.ok(await soon(async () => (await shown(session, '#view-log .missed'))[0] === '1 new row ↑'));
    await mouse.up();
    await session.page.waitForSelector('dialog[open]', {timeout: 5000});
    assert.ok((await texts(session, 'dialog[open] dd')).includes(text));
    await session.page.keyboard.press('Escape');

    await session.tab('findings');
    await press('#view-findings .card button', 0);
    await served.change(entries(2));
    const count = async (): Promise<string> => (await texts(session, '#view-findings tbody')).join();
    const before = await count();
    await served.change(entries(3));
    assert.ok(await soon(async () => (await count()) !== before));
    await mouse.up();
    await session.page.waitForSelector('#view-findings[hidden]', {timeout: 5000});
});

/** A promise, and what fulfils it. */
function gate(): {readonly opened: Promise<void>; readonly open: () => void} {
    let open = (): void => undefined;
    const opened = new Promise<void>((resolve) => (open = resolve));
    return {opened, open};
}
const isPage = ({pathname, searchParams}: URL, limit: number): boolean =>
    pathname === '/api/rows' && Number(searchParams.get('limit')) >= limit;
const logOf = (count: number, ...more: readonly string[]): string[] => [
    'CREATE TABLE OperatorLog(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime NOT NULL,userName text,logName text,message text)',
    `insert into OperatorLog(DATETIME,userName,logName,message) with recursive n(i) as (select 0 union all select i+1 from n where i<${count - 1})
     select strftime('%Y-%m-%d %H:%M:%f',1714978800+i,'unixepoch'),'u'||(i%2),'Login','m'||i from n`,
    ...more,
];
const newEntry = (text: string): string =>
    `insert into OperatorLog(DATETIME,userName,logName,message) values('2024-06-01 00:00:00.000','u1','Login','${text}')`;
const entryAt = (session: Session, selector: string): Promise<string> =>
    session.page.$eval(selector, (row) => row.lastElementChild!.textContent ?? '').catch(() => '');

// What the page gives to be saved as a CSV: the last cell of each row.
async function savedCells(session: Session, tab: string): Promise<string[]> {
    await session.page.evaluate(() => {
        const make = URL.createObjectURL;
        URL.createObjectURL = (blob: Blob) => {
            if (blob.type === 'text/csv') (window as any).csv = blob;
            return make.call(URL, blob);
        };
    });
    await session.page.waitForSelector(`#view-${tab} .rows .row`);
    await press(session, 'CSV');
    await session.page.waitForSelector('dialog[open]');
    await press(session, 'Save');
    await session.page.waitForFunction(() => 'csv' in window, {timeout: 60000});
    const text = await session.page.evaluate(() => ((window as any).csv as Blob).text());
    return text
        .trim()
        .split('\n')
        .slice(1)
        .map((line) => line.split(',').at(-1)!);
}

for (const [filter, isWanted] of [
    ['', () => true],
    ['&log.search=m', () => true],
    ['&log.order=oldest', () => true],
    ['&log.order=log', () => true],
    ['&log.choice==u1', (i: number) => i % 2 === 1],
] as const) {
    test(`a CSV has each row once while rows come and go${filter}`, chrome, async () => {
        await using served = await Served.start(logOf(24000));
        await using session = await opened(served, new URL(`#tab=log${filter}`, served.address));
        let pages = 0;
        served.turn = async (question, answer) => {
            const found = await answer();
            if (isPage(question, 5000) && ++pages === 1)
                await served.change(
                    logOf(24000, newEntry('xm1'), newEntry('xm2'), 'delete from OperatorLog where ID<=300'),
                    true,
                );
            return found;
        };
        const all = await savedCells(session, 'log');
        const cells = all.filter((cell) => !cell.startsWith('x'));
        assert.equal(new Set(cells).size, cells.length, 'none twice');
        const wanted = Array.from({length: 23700}, (_, i) => i + 300).filter(isWanted);
        const there = new Set(cells);
        assert.deepEqual(
            wanted.filter((i) => !there.has(`m${i}`)),
            [],
            'none is missing',
        );
        assert.deepEqual(await shown(session, '.failure'), []);
    });
}

test('a CSV has each row once while the table is read, and its rows go from the beginning', chrome, async () => {
    const series = (...more: readonly string[]): string[] => [
        'CREATE TABLE T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)',
        `insert into T1 with recursive n(i) as (select 0 union all select i+1 from n where i<29999)
         select 2*i+2*(i>9000)*i,datetime(1714978800+i,'unixepoch'),i from n`,
        ...more,
    ];
    await using served = await Served.start(series());
    const reading = gate();
    const read = gate();
    let pages = 0;
    served.turn = async (question, answer) => {
        if (question.pathname === '/api/overview') await reading.opened;
        const found = await answer();
        if (question.pathname === '/api/overview') read.open();
        if (isPage(question, 5000)) ++pages;
        if (isPage(question, 5000) && pages === 2) {
            reading.open();
            await read.opened;
        }
        // The one that was taken last is among them.
        if (isPage(question, 5000) && pages === 4)
            await served.change(series('delete from T1 where Value<21000'), true);
        return found;
    };
    await using session = await Session.start('chrome', {served: new URL('#tab=rows', served.address)});
    await session.page.waitForSelector('#view-rows .rows .row');
    await press(session, 'CSV');
    assert.deepEqual(await texts(session, 'dialog[open] p:first-of-type'), ['All rows, exactly as the cells are.']);
    await session.page.keyboard.press('Escape');
    const cells = await savedCells(session, 'rows');
    assert.equal(new Set(cells).size, cells.length, 'none twice');
    const there = new Set(cells);
    const missing = Array.from({length: 30000}, (_, i) => i).filter((i) => !there.has(String(i)));
    assert.ok(missing.length < 12000 && missing.every((i) => i < 21000), `${missing.length} are missing`);
});

test('a CSV that is cancelled is not written', chrome, async () => {
    await using served = await Served.start(logOf(12000));
    await using session = await opened(served, new URL('#tab=log', served.address));
    const [second, held] = [gate(), gate()];
    let pages = 0;
    served.turn = async (question, answer) => {
        if (isPage(question, 5000) && ++pages === 2) {
            second.open();
            await held.opened;
        }
        return answer();
    };
    await session.page.evaluate(() => {
        URL.createObjectURL = () => ((window as any).isWritten = 'blob:nothing');
    });
    await press(session, 'CSV');
    await press(session, 'Save');
    await second.opened;
    await press(session, 'Cancel');
    held.open();
    await new Promise((resume) => setTimeout(resume, 1000));
    assert.equal(await session.page.evaluate(() => 'isWritten' in window), false);
    assert.ok(pages < 3, 'nothing more is asked');
    assert.deepEqual(await shown(session, '.failure'), []);
});

test('a renewal moves nobody who has scrolled since it was asked', chrome, async () => {
    await using served = await Served.start(logOf(12000));
    await using session = await opened(served, new URL('#tab=log', served.address));
    const scroll = async (top: number): Promise<void> => {
        await session.page.$eval('#view-log .scroller', (each, to) => (each.scrollTop = to), top);
        await soon(async () => (await entryAt(session, '#view-log .rows .row')) === `m${11999 - top / 30}`);
    };
    await scroll(3000);
    let [asked, held] = [gate(), gate()];
    served.turn = async (question, answer) => {
        const found = await answer();
        if (isPage(question, 400)) {
            asked.open();
            await held.opened;
        }
        return found;
    };
    await served.change(logOf(12000, newEntry('x1')));
    await asked.opened;
    await scroll(9000);
    held.open();
    assert.ok(await soon(async () => (await shown(session, '#view-log .missed'))[0] === '1 new row ↑'));
    assert.equal(await session.page.$eval('#view-log .scroller', (each) => each.scrollTop), 9030);
    // Who was at the edge and has left it stays where it is.
    await session.page.click('#view-log .missed');
    assert.ok(await soon(async () => (await entryAt(session, '#view-log .rows .row')) === 'x1'));
    [asked, held] = [gate(), gate()];
    await served.change(logOf(12000, newEntry('x1'), newEntry('x2')));
    await asked.opened;
    await session.page.$eval('#view-log .scroller', (each) => (each.scrollTop = 6000));
    held.open();
    assert.ok(await soon(async () => (await shown(session, '#view-log .missed'))[0] === '1 new row ↑'));
    assert.equal(await session.page.$eval('#view-log .scroller', (each) => each.scrollTop), 6030);
});

test('an answer from before a renewal is not taken after it', chrome, async () => {
    await using served = await Served.start(logOf(12000));
    await using session = await opened(served, new URL('#tab=log', served.address));
    const [asked, held] = [gate(), gate()];
    let pages = 0;
    served.turn = async (question, answer) => {
        const found = await answer();
        if (isPage(question, 100) && !isPage(question, 400) && ++pages === 1) {
            asked.open();
            await held.opened;
        }
        return found;
    };
    await session.page.$eval('#view-log .scroller', (each) => (each.scrollTop = 9000));
    await asked.opened;
    const more = Array.from({length: 7}, (_, i) => newEntry(`x${i}`));
    await served.change(logOf(12000, ...more));
    const status = async (): Promise<string> => (await texts(session, '#view-log .status'))[0]!;
    const row = async (): Promise<string> => {
        const place = await session.page.$eval('#view-log .rows .row', (each) => each.getAttribute('aria-rowindex'));
        return `${place} ${await entryAt(session, '#view-log .rows .row')}`;
    };
    assert.ok(await soon(async () => (await status()) === '12,007 rows' && !(await row()).includes('…')));
    const before = await row();
    held.open();
    await new Promise((resume) => setTimeout(resume, 500));
    assert.equal(await status(), '12,007 rows');
    assert.equal(await row(), before);
    assert.equal(before, '302 m11706');
});

test('rows that come while another question is asked are no news of the former', chrome, async () => {
    await using served = await Served.start(logOf(12000));
    await using session = await opened(served, new URL('#tab=log&log.search=m11', served.address));
    const status = (text: string): Promise<boolean> =>
        soon(async () => (await texts(session, '#view-log .status'))[0] === text);
    assert.ok(await status('1,111 rows'));
    await session.page.$eval('#view-log .scroller', (each) => (each.scrollTop = 6000));
    const [asked, held, renewed] = [gate(), gate(), gate()];
    served.turn = async (question, answer) => {
        if (isPage(question, 400)) await renewed.opened;
        else if (isPage(question, 100) && !question.searchParams.has('containing')) {
            asked.open();
            await held.opened;
        }
        return answer();
    };
    await session.page.$eval('#view-log input[type=search]', (input) => {
        (input as HTMLInputElement).value = '';
        input.dispatchEvent(new Event('input'));
    });
    await asked.opened;
    await served.change(logOf(12000, newEntry('x')));
    await new Promise((resume) => setTimeout(resume, 500));
    held.open();
    assert.ok(await status('12,001 rows'));
    renewed.open();
    await new Promise((resume) => setTimeout(resume, 500));
    assert.deepEqual(await shown(session, '#view-log .missed'), []);
    assert.ok(await soon(async () => (await entryAt(session, '#view-log .rows .row')) === 'x'));
});

test('rows that are looked at stay while a search goes on', chrome, async () => {
    await using served = await Served.start(logOf(12000));
    await using session = await opened(served, new URL('#tab=log', served.address));
    const [more, all] = [gate(), gate()];
    served.turn = async (question, answer, part) => {
        const found = await answer();
        const {searchParams} = question;
        if (searchParams.get('offset') === '0' && searchParams.has('containing')) {
            part({...found, exact: false, share: 0.5, total: 6000});
            await more.opened;
            part({...found, exact: false, share: 0.7, total: 8000});
            await all.opened;
        }
        return found;
    };
    const status = (text: string): Promise<boolean> =>
        soon(async () => (await texts(session, '#view-log .status'))[0]!.startsWith(text));
    const seen = async (): Promise<string> =>
        `${await session.page.$eval('#view-log .scroller', (each) => each.scrollTop)} ` +
        (await entryAt(session, '#view-log .rows .row'));
    await session.page.$eval('#view-log .scroller', (each) => (each.scrollTop = 9000));
    await session.page.type('#view-log input[type=search]', 'm');
    assert.ok(await status('about 6,000 rows'));
    assert.equal(await seen(), '0 m11999');
    await session.page.$eval('#view-log .scroller', (each) => (each.scrollTop = 30000));
    assert.ok(await soon(async () => (await seen()) === '30000 m10999'));
    const never = new Promise(() => undefined);
    served.slowly = ({pathname}) => (pathname === '/api/rows' ? never : undefined);
    more.open();
    assert.ok(await status('about 8,000 rows'));
    assert.equal(await seen(), '30000 m10999');
    all.open();
    assert.ok(await status('12,000 rows'));
    assert.equal(await seen(), '30000 m10999');
});

test('a very long list that is scrolled stays where it is when rows come', chrome, async () => {
    const series = (rows: number): string[] => [
        'CREATE TABLE T1(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)',
        `insert into T1(DATETIME,Value) with recursive n(i) as (select 0 union all select i+1 from n where i<${rows - 1})
         select datetime(1714978800+i,'unixepoch'),i from n`,
    ];
    await using served = await Served.start(series(10));
    let total = 3000000;
    served.turn = async ({pathname, searchParams}, answer) => {
        if (pathname !== '/api/rows') return answer();
        const [id, limit] = [Number(searchParams.get('id') ?? 0), Number(searchParams.get('limit'))];
        const offset = id > 0 ? id - 1 - limit / 2 : Number(searchParams.get('offset'));
        const count = Math.min(limit, total - offset);
        const rows = Array.from({length: count}, (_, i) => [String(offset + i + 1), '2024-05-06 00:00:00', 'v']);
        return {exact: true, share: 1, total, offset, found: id - 1, rows};
    };
    await using session = await opened(served, new URL('#tab=rows', served.address));
    const first = (): Promise<string> =>
        session.page.$eval('#view-rows .scroller', (scroller) => {
            const row = scroller.querySelector('.rows .row')!;
            return `${row.lastElementChild!.textContent} ${row.getBoundingClientRect().top}`;
        });
    await session.page.$eval('#view-rows .scroller', (each) => (each.scrollTop = 3333333));
    const before = await soon(async () => {
        const row = await first();
        return /^1,?\d{3},?\d{3} /.test(row) && row;
    });
    for (let i = 1; i <= 8; ++i) {
        ++total;
        await served.change(series(10 + i));
        const text = `${i} new ${i === 1 ? 'row' : 'rows'} ↓`;
        assert.ok(await soon(async () => (await shown(session, '#view-rows .missed'))[0] === text));
    }
    assert.equal(await first(), before);
});

test('the chosen row stays the chosen one when rows come', chrome, async () => {
    await using served = await Served.start(logOf(300));
    await using session = await opened(served, new URL('#tab=log', served.address));
    await session.settled();
    await session.page.focus('#view-log .scroller');
    for (let i = 0; i < 3; ++i) await session.page.keyboard.press('ArrowDown');
    const chosen = (): Promise<string> => entryAt(session, '#view-log .rows .row.active');
    assert.equal(await chosen(), 'm296');
    await served.change(logOf(300, newEntry('x1')));
    assert.ok(await soon(async () => (await entryAt(session, '#view-log .rows .row')) === 'x1'));
    assert.equal(await chosen(), 'm296');
    await session.page.keyboard.press('Enter');
    await session.page.waitForSelector('dialog[open]');
    assert.equal((await texts(session, 'dialog[open] dd'))[3], 'm296');
});

test('a list that is replaced asks nothing more', chrome, async () => {
    await using served = await Served.start(plant);
    await using session = await opened(served, new URL('#tab=rows', served.address));
    await session.settled();
    const [asked, held] = [gate(), gate()];
    const left: string[] = [];
    session.page.on('requestfailed', (request) => left.push(request.url()));
    served.turn = async (question, answer) => {
        if (question.searchParams.has('containing')) {
            asked.open();
            await held.opened;
        }
        return answer();
    };
    await session.page.type('#view-rows input[type=search]', '118.4');
    await asked.opened;
    await session.page.select('#view-rows select[aria-label=Table]', '0/T3');
    assert.ok(await soon(async () => left.some((url) => url.includes('T1') && url.includes('containing'))));
    held.open();
});

test('what somebody has open or scrolled stays when rows come', chrome, async () => {
    await using served = await Served.start(plant);
    await using session = await opened(served, new URL('#tab=log', served.address));
    await session.settled();
    const marked = (): Promise<boolean[]> =>
        session.page.$$eval('#view-log select[aria-label=User] option', (all) =>
            all.map((option) => 'isMarked' in option),
        );
    await session.page.$$eval('#view-log select[aria-label=User] option', (all) =>
        all.forEach((option) => Object.assign(option, {isMarked: true})),
    );
    const known = (await marked()).length;
    await served.change(later(3));
    await session.tab('findings');
    const counts = async (): Promise<string> => (await texts(session, '#view-findings tbody')).join();
    assert.ok(await soon(async () => (await counts()).includes('58,205')));
    assert.deepEqual(await marked(), Array(known).fill(true));

    await session.page.setViewport({width: 420, height: 800});
    const scroller = '#view-findings .scroll[aria-label=Tables]';
    await session.page.focus(scroller);
    await session.page.$eval(scroller, (each) => (each.scrollLeft = 200));
    await served.change(later(9));
    assert.ok(await soon(async () => (await counts()).includes('58,211')));
    assert.deepEqual(await session.page.$eval(scroller, (each) => [each.scrollLeft, each === document.activeElement]), [
        200,
        true,
    ]);
});

test('an alarm that ends is no longer active, and a table that comes is there', chrome, async () => {
    await using served = await Served.start(plant);
    await using session = await opened(served);
    await session.tab('alarms');
    await session.page.select('#view-alarms select[aria-label=State]', 'active');
    const status = (text: string): Promise<boolean> =>
        soon(async () => (await texts(session, '#view-alarms .status'))[0] === text);
    assert.ok(await status('2 rows'));
    await served.change(
        [
            ...plant,
            "update AlarmData set EndDate='2024-05-13',EndTime='01:00:00' where ID=390",
            'CREATE TABLE T4(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)',
        ],
        true,
    );
    assert.ok(await status('1 row'));
    await session.tab('trend');
    assert.ok(await soon(async () => (await texts(session, '.series .name')).includes('T4')));
});

test('a lost connection is shown and heals, and so does a file that is gone', chrome, async () => {
    await using served = await Served.start(plant);
    await using session = await opened(served);
    served.setDown(true);
    assert.match(await soon(async () => (await shown(session, '.lost'))[0]), /connection is lost/);
    assert.deepEqual(await shown(session, '.live'), []);
    assert.deepEqual(await axeFindings(session), []);
    await session.page.focus('.chart');
    await session.page.keyboard.press('+'); // is not answered
    assert.match(await soon(async () => (await shown(session, '.failure'))[0]), /does not answer/);
    await served.change(later(5));
    served.setDown(false);
    assert.ok(await soon(async () => (await shown(session, '.lost')).length === 0));
    assert.ok(await soon(async () => (await shown(session, '.failure')).length === 0));
    await session.page.keyboard.press('Home');
    assert.ok(await soon(async () => (await numbers(session)) === '58,207'));
    await served.fail('it is gone');
    assert.equal(await soon(async () => (await shown(session, '.lost'))[0]), 'plant.db: it is gone');
    await served.fail('');
    assert.ok(await soon(async () => (await shown(session, '.lost')).length === 0));
});

test('a page whose server was started anew says what to do, and goes on when that is done', chrome, async () => {
    await using served = await Served.start(plant);
    await using session = await opened(served);
    const said = (words: RegExp): Promise<boolean> =>
        soon(async () => words.test((await shown(session, '.lost'))[0] ?? ''));
    served.setDown(true);
    assert.ok(await said(/^The connection is lost; .* If device-db was started anew, open the address/));
    served.setStrange(true);
    served.setDown(false);
    assert.ok(await said(/^device-db was started anew: open the new address that it printed\. What is shown is/));
    assert.deepEqual(await axeFindings(session), []);
    served.setDown(true);
    assert.ok(await said(/^The connection is lost/));
    served.setStrange(false);
    served.setDown(false);
    assert.ok(await soon(async () => (await shown(session, '.lost')).length === 0));
    assert.deepEqual(await shown(session, '.live'), ['● Live']);
});

test('the address reopens the same view', chrome, async () => {
    await using served = await Served.start(plant);
    await using session = await opened(served);
    await session.page.click('.series input[value="0/T10"]');
    await session.page.click('.series input[value="0/T1"]');
    await session.page.focus('.chart');
    for (const key of ['+', '+', 'ArrowRight'] as const) await session.page.keyboard.press(key);
    const seen = await range(session);
    await session.tab('log');
    await session.page.type('#view-log input[type=search]', 'limit & more');
    const address = new URL(
        await soon(async () => {
            const hash = session.page.url();
            return hash.includes('log.search=limit') && hash.includes('more') && hash;
        }),
    );
    await using other = await opened(served, address);
    assert.equal(await other.page.$eval('#tab-log', (tab) => tab.getAttribute('aria-selected')), 'true');
    assert.equal(
        await other.page.$eval('#view-log input[type=search]', (input) => (input as HTMLInputElement).value),
        'limit & more',
    );
    await other.tab('trend');
    assert.deepEqual(await range(other), seen);
    assert.deepEqual(
        await other.page.$$eval('.series input:checked', (all) => all.map((each) => (each as HTMLInputElement).value)),
        ['0/T2', '0/T10'],
    );
});

test('a trend that nobody sees is asked for when somebody does, as wide as it is', chrome, async () => {
    await using served = await Served.start(plant);
    await using session = await opened(served, new URL('#tab=log', served.address));
    await served.change(later(3));
    await session.tab('rows');
    assert.ok(await soon(async () => (await texts(session, '#view-rows .status'))[0] === '58,205 rows'));
    await session.tab('trend');
    assert.ok(await soon(async () => (await numbers(session)) === '58,205'));
    const columns = served.questions
        .map(({searchParams}) => searchParams.get('columns'))
        .filter((each) => each !== null);
    assert.ok(columns.length > 0 && columns.every((each) => Number(each) > 300), String(columns));
});

test('an address that says nothing sensible shows what there is', chrome, async () => {
    await using served = await Served.start(plant);
    const nonsense =
        '#tab=x&series=0/no&from=2024-99-01&to=1&last=-5&together&log.choice=1&alarms.choice=1);--&alarms.order=x&rows.table=y';
    await using session = await opened(served, new URL(nonsense, served.address));
    assert.equal(await numbers(session), '58,202');
    for (const tab of ['alarms', 'log', 'rows', 'findings']) {
        await session.tab(tab);
        await session.settled();
    }
    assert.deepEqual(await shown(session, '.failure'), []);
    assert.deepEqual(session.faults, []);
});

const resting = (milliseconds: number): Promise<void> => new Promise((resume) => setTimeout(resume, milliseconds));
const asked = (served: Served, question: string): string[] =>
    served.questions
        .filter(({pathname}) => pathname === `/api/${question}`)
        .map(({searchParams}) => searchParams.get('table')!);

test('rows that come faster than pictures are seen, and only what changed is asked for', chrome, async () => {
    await using served = await Served.start(plant);
    await using session = await opened(served);
    served.slowly = ({pathname}) => (pathname === '/api/trend' ? resting(1000) : undefined);
    const seen = new Set<string>();
    let rows = 0;
    for (const end = Date.now() + 20000; seen.size < 3 && Date.now() < end;) {
        await served.change(later(++rows));
        seen.add(await numbers(session));
    }
    assert.equal(seen.size, 3, [...seen].join());
    served.slowly = () => undefined;
    await served.change(later(++rows));
    assert.ok(await soon(async () => (await numbers(session)) === `58,${202 + rows}`));
    await session.settled();

    await session.page.focus('.chart');
    await session.page.keyboard.press('ArrowLeft'); // nothing moves along
    await session.settled();
    served.questions.length = 0;
    await served.change([...later(rows), ...entries(1).slice(plant.length)]);
    assert.ok(await soon(async () => asked(served, 'trend').length > 0));
    await resting(500);
    assert.deepEqual(asked(served, 'trend'), ['0/OperatorLog']);
});

test('a table that takes long to read holds up no other', chrome, async () => {
    await using served = await Served.start(plant);
    await using session = await opened(served);
    served.slowly = ({pathname, searchParams}) =>
        pathname === '/api/overview' && searchParams.get('table') === '0/T1' ? resting(20000) : undefined;
    await session.tab('log');
    await session.settled();
    await served.change([...later(1), ...entries(1).slice(plant.length)]);
    const begin = Date.now();
    assert.ok(await soon(async () => (await texts(session, '#view-log .status'))[0] === '302 rows'));
    assert.ok(Date.now() - begin < 10000);
});

/** What a page gives to be printed: the range and the figures of the first series. */
async function printed(session: Session): Promise<readonly string[] | null> {
    return session.page.evaluate(() => (window as any).printed ?? null);
}
async function takePrints(session: Session): Promise<void> {
    await session.page.evaluate(() => {
        window.print = () => {
            const cells = document.querySelectorAll('#paper > p:first-of-type, #paper tbody tr:first-child > *');
            (window as any).printed = [...cells].map((each) => each.textContent);
        };
    });
}
const figures = (session: Session): Promise<string[]> => texts(session, '.figures tbody tr:first-child > *');

test('the figures on screen and on paper are those of the range that is shown', chrome, async () => {
    await using served = await Served.start(plant);
    await using session = await opened(served);
    await takePrints(session);
    const all = await figures(session);
    const held = gate();
    served.slowly = ({pathname}) => (pathname === '/api/trend' ? held.opened : undefined);
    await session.page.$eval('.trend input[aria-label=To]', (input) => {
        (input as HTMLInputElement).value = '2024-05-06 12:00:00';
        input.dispatchEvent(new Event('change'));
    });
    await press(session, 'Print');
    await resting(500);
    assert.deepEqual((await figures(session)).slice(1, 5), ['…', '…', '…', '…']);
    assert.equal(await printed(session), null);
    held.open();
    const [said, ...cells] = (await soon(() => printed(session)))!;
    await session.settled();
    assert.equal(said, `${(await range(session)).join(' to ')}, device time`);
    assert.deepEqual(cells, (await figures(session)).slice(0, 5));
    assert.notDeepEqual(cells, all.slice(0, 5));
});

test('figures that are not exact yet say so on paper, too', chrome, async () => {
    await using served = await Served.start(plant);
    const held = gate();
    served.turn = async (_, answer, part) => {
        const found = await answer();
        part({...found, exact: false, share: 0.5});
        await held.opened;
        return found;
    };
    await using session = await Session.start('chrome', {served: served.address});
    await session.page.waitForSelector('[role=tablist]');
    await takePrints(session);
    assert.ok(await soon(async () => (await figures(session))[1]?.startsWith('≈ ')));
    await press(session, 'Print');
    const cells = (await soon(() => printed(session)))!.slice(1);
    assert.match(cells[1]!, /^≈ \d/);
    assert.deepEqual(cells, (await figures(session)).slice(0, 5));
    held.open();
});

test('lists do not wait for pictures', chrome, async () => {
    const series = [5, 6, 7, 8].flatMap((i) => [
        `CREATE TABLE T${i}(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)`,
        `insert into T${i}(DATETIME,Value) values('2024-05-06 00:00:00','1'),('2024-05-12 00:00:00','2')`,
    ]);
    await using served = await Served.start([...plant, ...series]);
    served.slowly = ({pathname}) => (pathname === '/api/trend' ? resting(15000) : undefined);
    const all = [1, 2, 3, 5, 6, 7, 8].map((i) => `series=0/T${i}`).join('&');
    await using session = await Session.start('chrome', {served: new URL(`#tab=trend&${all}`, served.address)});
    assert.ok(await soon(async () => asked(served, 'trend').length >= 2));
    await resting(500);
    const begin = Date.now();
    await session.tab('log');
    assert.ok(await soon(async () => (await texts(session, '#view-log .status'))[0] === '301 rows'));
    assert.ok(Date.now() - begin < 7000);
});

/** A page that waits two seconds for its server. */
async function openedInHaste(served: Served): Promise<Session> {
    const session = await opened(served);
    await session.page.evaluateOnNewDocument(() => {
        const real = window.setTimeout.bind(window) as (handler: () => void, after?: number) => number;
        (window as any).setTimeout = (handler: () => void, after = 0) => real(handler, after > 30000 ? 2000 : after);
    });
    await session.page.reload();
    await session.page.waitForSelector('[role=tablist]');
    await session.settled();
    return session;
}

test('a server that hangs is a lost connection', chrome, async () => {
    await using served = await Served.start(plant);
    await using session = await openedInHaste(served);
    await resting(3000); // hears heartbeats
    assert.deepEqual(await shown(session, '.live'), ['● Live']);
    served.setFrozen(true);
    assert.match(await soon(async () => (await shown(session, '.lost'))[0]), /^The connection is lost/);
    assert.deepEqual(await shown(session, '.live'), []);
    await served.change(later(3));
    served.setFrozen(false);
    assert.ok(await soon(async () => (await shown(session, '.lost')).length === 0));
    assert.ok(await soon(async () => (await numbers(session)) === '58,205'));
});

test('what was asked over a path that fell silent is asked again', chrome, async () => {
    await using served = await Served.start(plant);
    await using session = await openedInHaste(served);
    served.setFrozen(true); // what comes now is never answered, not even later
    await served.change(later(3));
    await session.page.focus('.chart');
    await session.page.keyboard.press('+');
    await session.tab('log');
    await session.page.type('#view-log input[type=search]', 'acknowledged');
    assert.match(await soon(async () => (await shown(session, '.lost'))[0]), /^The connection is lost/);
    served.setFrozen(false);
    assert.ok(await soon(async () => (await shown(session, '.live')).length === 1));
    assert.ok(await soon(async () => (await texts(session, '#view-log .status'))[0] === '100 rows'));
    await session.tab('trend');
    await session.settled();
    await press(session, 'All');
    await session.settled();
    assert.equal(await numbers(session), '58,205');
    await served.change(later(5));
    assert.ok(await soon(async () => (await numbers(session)) === '58,207'));
    assert.deepEqual(await shown(session, '.failure'), []);
});

test('files whose tables could not be asked for are opened again with the next change', chrome, async () => {
    const table = 'CREATE TABLE T4(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)';
    await using served = await Served.start(plant);
    await using session = await opened(served);
    let refused = 0;
    await session.page.setRequestInterception(true);
    session.page.on('request', (request) => {
        if (refused === 0 && request.url().endsWith('/api/tables')) void request.abort().then(() => ++refused);
        else void request.continue();
    });
    await served.change([...plant, table], true);
    assert.ok(await soon(async () => refused === 1 && (await shown(session, '.failure')).length === 1));
    await served.change([...later(3), table]);
    assert.ok(await soon(async () => (await texts(session, '.series .name')).includes('T4')));
});

test('the facts of files and tables keep up with the rows that come', chrome, async () => {
    await using served = await Served.start(logOf(100));
    await using session = await opened(served, new URL('#tab=findings', served.address));
    const facts = async (): Promise<string> =>
        (await texts(session, '#view-findings tbody td:nth-child(4), #view-findings tbody td:nth-child(7)')).join();
    const size = async (): Promise<string> => (await texts(session, 'h1.file'))[0]!;
    assert.ok(await soon(async () => (await facts()).endsWith('100,100')), await facts());
    const [before, small] = [await facts(), await size()];
    await served.change(logOf(20000));
    assert.ok(await soon(async () => (await facts()).endsWith('20,000,20,000')), await facts());
    const pages = (text: string): string => text.split(' of ')[0]!;
    assert.ok(await soon(async () => pages(await facts()) !== pages(before)), await facts());
    assert.notEqual(await size(), small);
    await served.change(['create table t(a)'], true);
    assert.ok(await soon(async () => !(await texts(session, '#view-findings tbody')).join().includes('OperatorLog')));
});

test('what changes before the page listens is seen', chrome, async () => {
    await using served = await Served.start(plant);
    let isFirst = true;
    served.slowly = async ({pathname}) => {
        if (pathname !== '/api/changes' || !isFirst) return;
        isFirst = false;
        await served.change(
            [...plant, 'CREATE TABLE T4(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)'],
            true,
        );
    };
    await using session = await opened(served);
    assert.ok(await soon(async () => (await texts(session, '.series .name')).includes('T4')));
});

test('a page that is opened before its device has made the tables shows them when they come', chrome, async () => {
    const table = (name: string): string =>
        `CREATE TABLE ${name}(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text)`;
    const row = (name: string): string => `insert into ${name}(DATETIME,Value) values('2024-05-06 07:08:09','5')`;
    const fresh = ['create table t(a)', 'drop table t'];
    await using served = await Served.start(fresh);
    await using session = await opened(served);
    const figures = async (): Promise<string> => (await texts(session, '.figures tbody tr > *')).join();
    assert.match((await texts(session, '.series'))[0]!, /No series/);
    await served.change([...fresh, table('T1')], true);
    assert.ok(await soon(async () => (await figures()) === 'T1,,,,0,'), await figures());
    await served.change([...fresh, table('T1'), row('T1')]);
    assert.ok(await soon(async () => (await figures()) === 'T1,5,5,5,1,'), await figures());
    assert.match((await range(session))[0]!, /^2024-05-06 07/);
    // Another file in its place, which is empty at first, too.
    await served.change(fresh, true);
    assert.ok(await soon(async () => (await figures()) === ''));
    await served.change([...fresh, table('T2'), row('T2'), row('T2')], true);
    assert.ok(await soon(async () => (await figures()) === 'T2,5,5,5,2,'), await figures());
    assert.deepEqual(session.faults, []);
});

test('lanes and marks go with their tables, and a series that comes back is chosen again', chrome, async () => {
    await using served = await Served.start(plant);
    await using session = await opened(served);
    const height = (): Promise<string> =>
        session.page.$eval('canvas.events', (canvas) => (canvas as HTMLElement).style.height);
    const chosen = (): Promise<string> =>
        session.page.$$eval('.series input:checked', (all) =>
            all.map((each) => (each as HTMLInputElement).value).join(),
        );
    assert.ok(await soon(async () => (await height()) === '80px'));
    await served.change([...plant, 'drop table AlarmData'], true);
    assert.ok(await soon(async () => (await height()) === '26px'));
    await served.change([...plant, 'drop table AlarmData', 'drop table OperatorLog', 'drop table T1'], true);
    assert.ok(await soon(async () => (await height()) === '0px'));
    assert.ok(await soon(async () => (await chosen()) === '0/T2'));
    await served.change(plant, true);
    assert.ok(await soon(async () => (await height()) === '80px'));
    assert.ok(await soon(async () => (await chosen()) === '0/T1,0/T2'));
    await session.settled();
    assert.equal(await numbers(session), '58,202');
});
