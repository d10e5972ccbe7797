// SPDX-License-Identifier: MIT
//
// $MEASURE=FILE npm run measure: how long a large file takes, from the moment it is chosen, and the memory of the
// browser.
import {execFileSync} from 'node:child_process';
import {readFileSync} from 'node:fs';
import {loadavg} from 'node:os';

import {Session} from './browser.js';
import type {BrowserName} from './browser.js';

const file = process.env['MEASURE'];
if (!file) throw new Error('name a file in $MEASURE');
const name = (process.env['BROWSER'] ?? 'chrome') as BrowserName;
await using session = await Session.start(name);
const {page} = session;
await new Promise((resume) => setTimeout(resume, 1000)); // as long as a person needs to choose a file
const begin = performance.now();
const say = (what: string): void => console.log(`${what}: ${((performance.now() - begin) / 1000).toFixed(2)} s`);
const input = (await page.$('input[type=file]'))! as any;
await input.uploadFile(file);
await page.waitForSelector('.series .name');
say('series listed');
await page.waitForFunction(
    () =>
        [...document.querySelectorAll('.figures td')].some(
            (cell) => cell.textContent?.startsWith('≈') || /^\d/.test(cell.textContent ?? ''),
        ),
    {timeout: 300000, polling: 20},
);
say('first look');
const asked = performance.now();
await session.tab('rows');
await page.waitForFunction(() => /^\d{4}-/.test(document.querySelector('#view-rows .rows .row')?.textContent ?? ''), {
    polling: 5,
});
console.log(`rows, while all are read: ${((performance.now() - asked) / 1000).toFixed(2)} s`);
await session.tab('trend');
await page.waitForFunction(() => (document.querySelector('.progress') as HTMLElement).hidden, {
    timeout: 300000,
    polling: 20,
});
say('exact');
await page.focus('.chart');
for (const [what, length] of [
    ['a day', '24 h'],
    ['a month', 'Month'],
    ['an hour', '1 h'],
    ['all', 'All'],
]) {
    const from = performance.now();
    await page.evaluate(
        (text) =>
            ([...document.querySelectorAll('.trend button')] as HTMLElement[])
                .find((each) => each.textContent === text)!
                .click(),
        length,
    );
    await page
        .waitForFunction(() => !(document.querySelector('.progress') as HTMLElement).hidden, {
            polling: 5,
            timeout: 2000,
        })
        .catch(() => null);
    await page.waitForFunction(() => (document.querySelector('.progress') as HTMLElement).hidden, {
        timeout: 100000,
        polling: 5,
    });
    console.log(`${what}: ${((performance.now() - from) / 1000).toFixed(2)} s`);
}
const processes = execFileSync('ps', ['-eo', 'pid,pgid,args'])
    .toString()
    .split('\n')
    .map((line) => line.trim().split(/ +/))
    .filter(([, group]) => group === String(session.browser.process()!.pid))
    .filter((words) => words.some((word) => /^--type=renderer$|^-contentproc$/.test(word)))
    .map(([id]) => readFileSync(`/proc/${id}/status`, 'utf8'))
    .map((status) => Number(/^VmHWM:\s*(\d+) kB/m.exec(status)![1]) / 1000)
    .sort((a, b) => b - a)
    .slice(0, 3)
    .map((size) => `${Math.round(size)} MB`);
console.log(`load: ${loadavg()[0]!.toFixed(1)}`);
console.log(`largest processes of the page, at their peak: ${processes.join(', ')}`);
