// SPDX-License-Identifier: MIT
//
// npm run pictures: a picture of each view into out/pictures, to be looked at, and those that the documentation shows.
import {copyFileSync, mkdirSync} from 'node:fs';
import {join} from 'node:path';

import type {Page} from 'puppeteer-core';

import {Session} from './browser.js';
import {press} from './page.js';
import {plant} from './plant.js';
import {Folder, root} from './reference.js';
import {Served} from './served.js';
import {made} from './support.js';

const target = join(root, 'out', 'pictures');
mkdirSync(target, {recursive: true});
const shown: Readonly<Record<string, string>> = {
    wide_trend: 'viewer-trend',
    wide_alarms: 'viewer-alarms',
    wide_findings: 'viewer-findings',
    dark_trend: 'viewer-dark',
    narrow_trend: 'viewer-narrow',
    wide_live_elsewhere: 'viewer-live',
};

/** Takes pictures of one kind; those that the documentation shows go there as well. */
function camera(page: Page, kind: string): (view: string) => Promise<void> {
    return async (view) => {
        const name = `${kind}_${view}`;
        const path: `${string}.png` = `${join(target, name)}.png`;
        await page.screenshot({path});
        const picture = shown[name];
        if (picture) copyFileSync(path, join(root, '..', 'docs', `${picture}.png`));
    };
}
using folder = new Folder();
const file = folder.write('boiler house.db', (await made(plant)).main);
const kinds = {
    wide: {width: 1280, height: 760},
    dark: {width: 1280, height: 760, dark: true},
    narrow: {width: 400, height: 800},
};
for (const [kind, options] of Object.entries(kinds)) {
    await using session = await Session.start('chrome', options);
    const {page} = session;
    const shoot = camera(page, kind);
    await shoot('start');
    await session.open(file);
    await session.settled();
    await page.focus('.chart');
    await page.keyboard.press('.');
    for (let i = 0; i < 6; ++i) await page.keyboard.press('<');
    await page.keyboard.press('Enter');
    for (let i = 0; i < 9; ++i) await page.keyboard.press('>');
    await page.evaluate(() => (document.activeElement as HTMLElement).blur());
    await shoot('trend');
    for (const tab of ['alarms', 'log', 'rows', 'findings']) {
        await session.tab(tab);
        await session.settled();
        await page.evaluate(() => (document.activeElement as HTMLElement).blur());
        await shoot(tab);
    }
    await session.tab('log');
    await page.click('#view-log .rows .row:nth-child(3)');
    await page.waitForSelector('dialog[open]');
    await shoot('row');
    await page.keyboard.press('Escape');
    await page.click('button[aria-label=Help]');
    await press(session, 'Licences');
    await page.waitForSelector('.licences');
    await shoot('licences');
    await page.keyboard.press('Escape');
    await session.tab('trend');
    await session.settled();
    await page.evaluate(() => (window.print = () => undefined));
    await press(session, 'Print');
    await page.waitForSelector('#paper img', {hidden: true});
    await page.emulateMediaType('print');
    await shoot('print');
}

// The served form: at the end, elsewhere when rows come, and without its server.
const more = (count: number): string[] =>
    Array.from(
        {length: count},
        (_, i) => `insert into T1(DATETIME,Value) values('2024-05-13 00:${10 + i}:00','7${i % 10}')`,
    );
for (const [kind, options] of Object.entries(kinds)) {
    await using served = await Served.start(plant);
    await using session = await Session.start('chrome', {...options, served: served.address});
    const {page} = session;
    const shoot = camera(page, kind);
    await page.waitForSelector('[role=tablist]');
    await session.settled();
    await press(session, '24 h');
    await served.change([...plant, ...more(20)]);
    await session.settled();
    await shoot('live');
    await page.focus('.chart');
    await page.keyboard.press('ArrowLeft');
    await served.change([...plant, ...more(32)]);
    await page.waitForSelector('.below .missed:not([hidden])');
    await session.settled();
    await shoot('live_elsewhere');
    served.setDown(true);
    await page.waitForSelector('.lost:not([hidden])');
    await shoot('live_lost');
}
