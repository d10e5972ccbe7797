// SPDX-License-Identifier: MIT
import {beginningOf, bytesText, rowsText, visible} from '../reading/cells.js';
import type {Cause, Finding} from '../reading/findings.js';
import type {TableInfo} from '../reading/source.js';
import {button, h, setChildren} from './dom.js';
import {count, share} from './format.js';
import type {Workspace} from './workspace.js';

/** What to do about it. */
const advice: Readonly<Record<Cause, string>> = {
    malformed:
        'Another program wrote these rows, or a host with another form of time. They are in the list of ' +
        'rows, but not in trends. ' +
        'Correct them in a copy of the file, or ask who writes them.',
    unset:
        'The device started without a set clock. Check its clock battery and its time service; the rows are ' +
        'right but for their time.',
    ahead:
        'Check the clock of the device, and the one of this computer. A recorder believes such a time only ' +
        'after a day.',
    back:
        'The clock was set, by a person, a time service or the end of summer time. The trend marks the place ' +
        'and draws a new line.',
    gap: 'The device was off, or its values did not change hands. Look for alarms and log entries at that time.',
    half:
        'An alarm needs a date and a time of its end, or two empty texts while it lasts. "device-db" ' +
        'finds them with "sql"; the program ' +
        'that ends alarms has to write both.',
    otherEnd: 'Shown as if it lasted on. The program that ends alarms should write yyyy-MM-dd and hh:mm:ss.',
    endsBefore: 'The clock was set back while the alarm was active, or its end was written wrongly.',
    definition:
        'Make the table anew as the store library does, and import its rows: "device-db export", then ' +
        '"import --create".',
    trigger: 'Something in the file acts by itself when rows are stored. Drop it unless you know what it is for.',
    unique: 'Drop the index, or make it one that is not unique: "device-db tune" makes the right one.',
    notListed:
        'The rows are whole; only the name for people is missing. A host adds it when it creates the series again.',
    noTable: 'Harmless: a series that was removed, or that had no table yet.',
    noConfiguration: 'The series have no names for people. A host adds the list when it creates a series.',
    damaged:
        'Stop the device, keep this file as it is, and run "device-db salvage": it gets the rows out that are whole.',
    rule: 'Rows break a rule of their table. "device-db check" lists them.',
    freePages: 'Harmless: the next rows go there. "device-db vacuum" makes the file smaller.',
    rollback:
        '"device-db tune", once and while the device is stopped, switches to write-ahead mode: readers ' +
        'then disturb nobody, and a page that "device-db serve" gives out shows each row as it comes.',
    noIndex: '"device-db tune" adds one. Here, the table is read once instead.',
    noLog: 'If there is a file of the same name with -wal at its end, drop both together.',
    rolledBack: 'The device lost power in the middle of a transaction. When it opens the file again it does the same.',
    foreign: 'Of another program; it is neither shown nor changed.',
};

// A name of a table stays as it is.
const plainWord = /^\p{L}+(?=[\s,;:.]|$)/u;

const ranks = {damage: 0, attention: 1, note: 2};
const titles = {damage: 'Damage', attention: 'Needs attention', note: 'Worth knowing'};

interface Found {
    readonly finding: Finding;
    readonly table: TableInfo | null;
    readonly file: string;
}

/** Those that say the same of several tables stand together. */
function alike(found: readonly Found[]): Found[][] {
    const groups = new Map<string, Found[]>();
    for (const each of found) {
        const {cause, what, detail, rows} = each.finding;
        const key = rows > 0 ? JSON.stringify([each.table?.key, cause, what]) : JSON.stringify([cause, what, detail]);
        groups.set(key, [...(groups.get(key) ?? []), each]);
    }
    return [...groups.values()];
}

function lastIdOf({lastId, lastIdText}: TableInfo): string {
    if (lastIdText !== undefined) return count(BigInt(lastIdText));
    return `${Number.isSafeInteger(lastId) ? '' : '≈ '}${count(lastId)}`;
}

export class FindingsView {
    readonly element: HTMLElement;
    private readonly content = h('div', {class: 'findings'});

    constructor(private readonly workspace: Workspace) {
        this.element = h('section', {class: 'findings-view', 'aria-label': 'Findings'}, this.content);
        workspace.onChange((change) => {
            if (['overview', 'tables', 'live'].includes(change) && workspace.tab === 'findings') this.show();
        });
    }

    show(): void {
        const before = [...this.content.children];
        const focused = (document.activeElement as HTMLElement | null)?.dataset['focus'];
        // A table keeps the element that scrolls and has the focus.
        const withRowsOf = (each: HTMLElement): Element | undefined => {
            const [title, rows] = [each.getAttribute('aria-label'), each.querySelector('tbody')];
            const same = rows ? before.find((other) => other.getAttribute('aria-label') === title) : undefined;
            if (rows) same?.querySelector('tbody')?.replaceWith(rows);
            return same;
        };
        setChildren(
            this.content,
            [this.files(), this.tables(), ...this.findings()].map(
                (each) => before.find((other) => other.isEqualNode(each)) ?? withRowsOf(each) ?? each,
            ),
        );
        if (focused) this.content.querySelector<HTMLElement>(`[data-focus="${CSS.escape(focused)}"]`)?.focus();
    }

    private files(): HTMLElement {
        const {files} = this.workspace;
        const rows = files.map((file) =>
            h(
                'tr',
                {},
                h('th', {scope: 'row'}, file.name),
                h('td', {class: 'right'}, bytesText(file.bytes)),
                h(
                    'td',
                    {},
                    file.error !== ''
                        ? ''
                        : file.journal === 'wal'
                          ? file.walBytes > 0
                              ? `write-ahead, ${bytesText(file.walBytes)} in the log`
                              : 'write-ahead'
                          : 'rollback',
                ),
                h(
                    'td',
                    {class: 'right'},
                    file.error !== ''
                        ? ''
                        : file.pages === 0
                          ? 'none'
                          : `${count(file.pages)} of ${count(file.pageSize)} bytes, ${count(file.freePages)} free`,
                ),
                h('td', {}, file.encoding),
            ),
        );
        return h(
            'div',
            {class: 'scroll', tabindex: '0', role: 'group', 'aria-label': 'Files'},
            h(
                'table',
                {},
                h('caption', {}, 'Files'),
                h(
                    'thead',
                    {},
                    h(
                        'tr',
                        {},
                        ...['File', 'Size', 'Journal', 'Pages', 'Texts'].map((head, i) =>
                            h('th', {scope: 'col', class: (i === 1 || i === 3) && 'right'}, head),
                        ),
                    ),
                ),
                h('tbody', {}, ...rows),
            ),
        );
    }

    private tables(): HTMLElement {
        const {tables, overviews} = this.workspace;
        const rows = tables.map((table) => {
            const overview = overviews.get(table.key);
            return h(
                'tr',
                {},
                h('th', {scope: 'row'}, this.workspace.titleOf(table)),
                h('td', {class: 'faint'}, table.name),
                h('td', {}, table.kind),
                h('td', {class: 'right'}, overview ? `${overview.exact ? '' : '≈ '}${count(overview.rows)}` : '…'),
                h('td', {}, visible(beginningOf(overview?.first ?? '', 40))),
                h('td', {}, visible(beginningOf(overview?.last ?? '', 40))),
                h('td', {class: 'right'}, lastIdOf(table)),
                h('td', {}, table.indexed ? 'time' : 'none'),
                h('td', {}, this.readingOf(table)),
            );
        });
        return h(
            'div',
            {class: 'scroll', tabindex: '0', role: 'group', 'aria-label': 'Tables'},
            h(
                'table',
                {},
                h('caption', {}, 'Tables'),
                h(
                    'thead',
                    {},
                    h(
                        'tr',
                        {},
                        ...['Name', 'Table', 'Kind', 'Rows', 'First', 'Last', 'Last ID', 'Index', 'Read'].map(
                            (head, i) => h('th', {scope: 'col', class: (i === 3 || i === 6) && 'right'}, head),
                        ),
                    ),
                ),
                h('tbody', {}, ...rows),
            ),
        );
    }

    private readingOf({key}: TableInfo): string {
        const overview = this.workspace.overviews.get(key);
        if (this.workspace.unread.has(key)) return 'could not be read';
        return overview?.exact ? '' : overview ? share(overview.share) : 'waits';
    }

    private findings(): HTMLElement[] {
        const {files, tables, overviews, unread} = this.workspace;
        const found: Found[] = [];
        for (const [place, file] of files.entries()) {
            if (file.error !== '')
                found.push({
                    table: null,
                    file: file.name,
                    finding: {
                        severity: 'damage',
                        cause: 'damaged',
                        table: '',
                        what: file.error,
                        rows: 0,
                        firstId: 0,
                        detail: '',
                    },
                });
            found.push(...file.findings.map((finding) => ({finding, table: null, file: file.name})));
            for (const table of tables.filter((each) => each.file === place))
                found.push(
                    ...(overviews.get(table.key)?.findings ?? []).map((finding) => ({finding, table, file: file.name})),
                );
        }
        found.sort((a, b) => ranks[a.finding.severity] - ranks[b.finding.severity]);
        const isDone = tables.every(({key}) => overviews.get(key)?.exact);
        const sections = (['damage', 'attention', 'note'] as const).flatMap((severity) => {
            const some = found.filter(({finding}) => finding.severity === severity);
            return some.length === 0
                ? []
                : [
                      h('h2', {}, titles[severity]),
                      h('ul', {class: 'cards'}, ...alike(some).map((each) => this.card(each))),
                  ];
        });
        if (sections.length === 0)
            sections.push(
                h(
                    'p',
                    {class: 'empty'},
                    unread.size > 0
                        ? 'Nothing odd in what could be read.'
                        : isDone
                          ? 'Nothing odd was found.'
                          : 'Nothing odd so far.',
                ),
            );
        return sections;
    }

    private card(alike: readonly Found[]): HTMLElement {
        const {workspace} = this;
        const {finding, table} = alike[0]!;
        const where = alike
            .map((each) => (each.table ? workspace.titleOf(each.table) : each.finding.table || each.file))
            .join(', ');
        const action =
            table &&
            finding.firstId > 0 &&
            button(
                'Show the row',
                () => {
                    const tab = table.kind === 'samples' ? 'rows' : table.kind === 'alarms' ? 'alarms' : 'log';
                    workspace.wanted.set(tab, {table: table.key, id: finding.firstId});
                    workspace.setTab(tab);
                },
                {'data-focus': `${table.key} ${finding.cause}`, 'data-row': finding.firstId},
            );
        const text = visible(finding.what) + (finding.detail === '' ? '' : `; ${visible(finding.detail)}`);
        return h(
            'li',
            {class: `card card-${finding.severity}`},
            h('h3', {}, where, finding.rows > 0 && h('span', {class: 'faint'}, ` ${rowsText(finding.rows)}`)),
            h('p', {}, `${text.replace(plainWord, (word) => word.charAt(0).toUpperCase() + word.slice(1))}.`),
            h('p', {class: 'advice'}, advice[finding.cause]),
            action,
        );
    }

    /** How many need a look. */
    get count(): number {
        const {files, overviews} = this.workspace;
        const all = [
            ...files.flatMap(({findings}) => findings),
            ...[...overviews.values()].flatMap(({findings}) => findings),
        ];
        return all.filter(({severity}) => severity !== 'note').length + files.filter(({error}) => error !== '').length;
    }
}
