// SPDX-License-Identifier: MIT
//
// What the tests of the page ask of it.
import {readFileSync} from 'node:fs';
import {createRequire} from 'node:module';

import type {Session} from './browser.js';

const axe = readFileSync(createRequire(import.meta.url).resolve('axe-core/axe.min.js'), 'utf8');

/** Calls until it gives something: pages answer when they can. */
export async function soon<Result>(ask: () => Promise<Result | null | undefined | false>): Promise<Result> {
    for (const end = Date.now() + 30000; ;) {
        const answer = await ask();
        if (answer || Date.now() > end) return answer as Result;
        await new Promise((resume) => setTimeout(resume, 50));
    }
}

export function texts(session: Session, selector: string): Promise<string[]> {
    return session.page.$$eval(selector, (elements) => elements.map((element) => element.textContent ?? ''));
}

/** A button that is seen, by its text. */
export function press(session: Session, text: string): Promise<void> {
    return session.page.evaluate(
        (wanted) =>
            ([...document.querySelectorAll('button')] as HTMLElement[])
                .filter((each) => each.offsetParent !== null)
                .find((each) => each.textContent === wanted)!
                .click(),
        text,
    );
}

/** What an accessibility checker finds in the page as it is. */
export async function axeFindings(session: Session): Promise<string[]> {
    const rules = ['wcag2a', 'wcag2aa', 'wcag21a', 'wcag21aa', 'wcag22aa', 'best-practice'];
    const found = (await session.page.evaluate(`${axe};axe.run({runOnly: ${JSON.stringify(rules)}})`)) as {
        violations: {id: string; nodes: {html: string; failureSummary: string}[]}[];
    };
    return found.violations.map(({id, nodes}) => `${id}: ${nodes[0]!.html} ${nodes[0]!.failureSummary}`);
}
