// SPDX-License-Identifier: MIT
//
// What is around the views: their tabs, what went wrong, and whether what is watched still answers.
import {bytesText} from '../reading/cells.js';
import {showHelp} from './dialogs.js';
import {announce, button, h} from './dom.js';
import {FindingsView} from './findings_view.js';
import {RowsView} from './rows_view.js';
import {TrendView} from './trend_view.js';
import type {Tab, Workspace} from './workspace.js';

const tabTitles: readonly (readonly [Tab, string])[] = [
    ['trend', 'Trend'],
    ['alarms', 'Alarms'],
    ['log', 'Log'],
    ['rows', 'Rows'],
    ['findings', 'Findings'],
];

/** Everything but the start. */
export interface Frame {
    readonly content: readonly Node[];
    /** Lets go of what is outside of it: it is not shown any more. */
    close(): void;
}

/** `opener`: what opens other files, where there is something. */
export function frameOf(workspace: Workspace, opener: HTMLElement | null): Frame {
    const trend = new TrendView(workspace);
    const lists = {
        alarms: new RowsView(workspace, 'alarms'),
        log: new RowsView(workspace, 'log'),
        rows: new RowsView(workspace, 'rows'),
    };
    const findings = new FindingsView(workspace);
    const elements: Record<Tab, HTMLElement> = {
        trend: trend.element,
        alarms: lists.alarms.element,
        log: lists.log.element,
        rows: lists.rows.element,
        findings: findings.element,
    };
    const badge = h('span', {class: 'badge', hidden: true});
    const tabs = tabTitles.map(([tab, title]) =>
        h(
            'button',
            {
                type: 'button',
                role: 'tab',
                id: `tab-${tab}`,
                'aria-controls': `view-${tab}`,
                onclick: () => workspace.setTab(tab),
            },
            title,
            tab === 'findings' && badge,
        ),
    );
    const views = tabTitles.map(([tab]) =>
        h('div', {role: 'tabpanel', id: `view-${tab}`, 'aria-labelledby': `tab-${tab}`, class: 'view'}, elements[tab]),
    );
    const failureText = h('span');
    const forget = (): void => {
        workspace.failure = '';
        workspace.tell('failure');
    };
    const failure = h(
        'p',
        {class: 'failure banner', role: 'alert', hidden: true},
        button('', forget, {class: 'icon close', title: 'Close', 'aria-label': 'Close'}),
        failureText,
    );
    const name = h('h1', {class: 'file'});
    const lost = h('p', {class: 'banner lost', role: 'status', hidden: true});
    const live = h('span', {class: 'live', hidden: true}, '● Live');
    const strip = h(
        'div',
        {
            role: 'tablist',
            class: 'tabs',
            'aria-label': 'Views',
            onkeydown: (event: KeyboardEvent) => {
                const step = event.key === 'ArrowRight' ? 1 : event.key === 'ArrowLeft' ? -1 : 0;
                const now = tabTitles.findIndex(([tab]) => tab === workspace.tab);
                if (step !== 0) {
                    const next = (now + step + tabs.length) % tabs.length;
                    workspace.setTab(tabTitles[next]![0]);
                    tabs[next]!.focus();
                }
            },
        },
        ...tabs,
    );
    const dark = matchMedia('(prefers-color-scheme: dark)');
    const theme = button(
        '◐',
        () => {
            const root = document.documentElement;
            const isDark = root.classList.contains('dark') || (dark.matches && !root.classList.contains('light'));
            root.classList.toggle('dark', !isDark);
            root.classList.toggle('light', isDark);
            workspace.tell('theme');
        },
        {title: 'Light or dark', 'aria-label': 'Light or dark', class: 'icon'},
    );
    dark.onchange = () => workspace.tell('theme');
    const showFiles = (): void => {
        const {files} = workspace;
        const names = files.map((file) => file.name).join(', ');
        const bytes = files.reduce((sum, file) => sum + file.bytes + Math.max(0, file.walBytes), 0);
        name.title = names;
        name.replaceChildren(names, h('span', {class: 'faint'}, ` ${bytesText(bytes)}`));
    };
    const showLive = (): void => {
        const {trouble, unreadable, files, source} = workspace;
        const reasons = [...unreadable].map(([file, error]) => `${files[file]?.name ?? ''}: ${error}`);
        lost.textContent = trouble === '' ? reasons.join(' · ') : `${trouble} What is shown is what was there before.`;
        lost.hidden = lost.textContent === '';
        live.hidden = !source.watch || !lost.hidden;
    };
    const content = [
        h(
            'header',
            {class: 'top'},
            name,
            live,
            strip,
            h(
                'div',
                {class: 'group end'},
                theme,
                button('?', showHelp, {title: 'Help', 'aria-label': 'Help', class: 'icon'}),
                opener,
            ),
        ),
        lost,
        failure,
        h('main', {class: 'views'}, ...views),
    ];
    const show = (): void => {
        tabTitles.forEach(([tab, title], i) => {
            const isShown = tab === workspace.tab;
            views[i]!.hidden = !isShown;
            tabs[i]!.setAttribute('aria-selected', String(isShown));
            tabs[i]!.tabIndex = isShown ? 0 : -1;
            if (isShown) announce(title);
        });
        if (workspace.tab === 'findings') findings.show();
        else if (workspace.tab !== 'trend') lists[workspace.tab].show();
    };
    workspace.onChange((change) => {
        if (change === 'tab') show();
        if (change === 'tables' || change === 'live') showFiles();
        if (change === 'live') showLive();
        if (change === 'failure') {
            failureText.textContent = workspace.failure;
            failure.hidden = workspace.failure === '';
        }
        if (change === 'overview' || change === 'tables') {
            badge.textContent = String(findings.count);
            badge.hidden = findings.count === 0;
            badge.setAttribute('aria-label', `${findings.count} need attention`);
        }
    });
    document.onkeydown = (event) => {
        const tab = tabTitles[Number(event.key) - 1];
        const isTyping = event.target instanceof HTMLInputElement || event.target instanceof HTMLSelectElement;
        const isBehind = document.querySelector('dialog[open]') !== null;
        if (tab && !isTyping && !isBehind && !event.ctrlKey && !event.altKey && !event.metaKey)
            workspace.setTab(tab[0]);
    };
    showFiles();
    showLive();
    show();
    return {
        content,
        close: () => {
            dark.onchange = null;
            trend.chart.close();
        },
    };
}
