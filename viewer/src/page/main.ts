// SPDX-License-Identifier: MIT
import {bytesText} from '../reading/cells.js';
import {WorkerSource} from '../worker/client.js';
import {showHelp} from './dialogs.js';
import {announce, button, h, unpacked} from './dom.js';
import {FindingsView} from './findings_view.js';
import {RowsView} from './rows_view.js';
import {TrendView} from './trend_view.js';
import {Workspace} from './workspace.js';
import type {Tab} from './workspace.js';

const app = document.getElementById('app')!;

async function startedWorker(): Promise<WorkerSource> {
    const [worker, module] = await Promise.all([unpacked('worker'), unpacked('sqlite')]);
    return WorkerSource.start(new Blob([worker], {type: 'text/javascript'}), await module.arrayBuffer());
}

let opened: WorkerSource | null = null;
let ready: Promise<WorkerSource> | null = null; // for the next files: SQLite takes a moment to start

const tabTitles: readonly (readonly [Tab, string])[] = [
    ['trend', 'Trend'],
    ['alarms', 'Alarms'],
    ['log', 'Log'],
    ['rows', 'Rows'],
    ['findings', 'Findings'],
];

function chooser(text: string, properties: Readonly<Record<string, unknown>> = {}): HTMLElement {
    const input = h('input', {
        type: 'file',
        multiple: true,
        class: 'unseen',
        tabindex: '-1',
        'aria-hidden': 'true',
        onchange: () => {
            if (input.files && input.files.length > 0) void openFiles([...input.files]);
            input.value = '';
        },
    });
    return h(
        'span',
        {},
        button(text, () => input.click(), properties),
        input,
    );
}

function showStart(failure = ''): void {
    app.replaceChildren(
        h(
            'main',
            {class: 'start'},
            h('h1', {}, 'Device records'),
            h('p', {class: 'lead'}, 'Drop a store file here to see its trends, alarms and operator log.'),
            h(
                'div',
                {class: 'drop'},
                chooser('Choose files', {class: 'first'}),
                h(
                    'p',
                    {class: 'faint'},
                    'Take what is beside it, too: NAME-wal and NAME-journal. Several files are shown together.',
                ),
            ),
            h('p', {class: 'failure', role: 'alert'}, failure),
            h(
                'p',
                {class: 'faint small'},
                'The file is only read, in this page and on this computer: nothing is sent anywhere.',
            ),
        ),
    );
}

async function openFiles(files: readonly File[]): Promise<void> {
    opened?.close();
    opened = null;
    app.replaceChildren(
        h(
            'main',
            {class: 'start'},
            h('h1', {}, 'Device records'),
            h('p', {class: 'lead', role: 'status'}, `Opening ${files.map(({name}) => name).join(', ')} …`),
        ),
    );
    try {
        const starting = ready ?? startedWorker();
        ready = null;
        const source = await starting;
        opened = source;
        await source.give(files);
        const infos = await source.open();
        const tables = await source.tables();
        const bad = infos.filter(({error}) => error !== '');
        if (infos.length === 0)
            throw new Error('these are only what lies beside a store file; drop the file itself with them');
        if (bad.length === infos.length) throw new Error(bad.map(({name, error}) => `${name}: ${error}`).join('\n'));
        showWorkspace(new Workspace(source, infos, tables));
    } catch (error) {
        opened?.close();
        opened = null;
        showStart(error instanceof Error ? error.message : String(error));
    }
}

function showWorkspace(workspace: Workspace): void {
    const {files} = workspace;
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
    const failure = h('p', {class: 'failure banner', role: 'alert', hidden: true});
    const bytes = files.reduce((sum, file) => sum + file.bytes + Math.max(0, file.walBytes), 0);
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
    app.replaceChildren(
        h(
            'header',
            {class: 'top'},
            h(
                'h1',
                {class: 'file', title: files.map(({name}) => name).join(', ')},
                files.map(({name}) => name).join(', '),
                h('span', {class: 'faint'}, ` ${bytesText(bytes)}`),
            ),
            strip,
            h(
                'div',
                {class: 'group end'},
                theme,
                button('?', showHelp, {title: 'Help', 'aria-label': 'Help', class: 'icon'}),
                chooser('Open …'),
            ),
        ),
        failure,
        h('main', {class: 'views'}, ...views),
    );
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
        if (change === 'failure') {
            failure.textContent = workspace.failure;
            failure.hidden = workspace.failure === '';
        }
        if (change === 'overview') {
            badge.textContent = String(findings.count);
            badge.hidden = findings.count === 0;
            badge.setAttribute('aria-label', `${findings.count} need attention`);
        }
    });
    document.onkeydown = (event) => {
        const tab = tabTitles[Number(event.key) - 1];
        const isTyping = event.target instanceof HTMLInputElement || event.target instanceof HTMLSelectElement;
        if (tab && !isTyping && !event.ctrlKey && !event.altKey && !event.metaKey) workspace.setTab(tab[0]);
    };
    show();
    void workspace.lookAtAll();
}

document.addEventListener('dragover', (event) => {
    event.preventDefault();
    document.body.classList.add('dropping');
});
document.addEventListener('dragleave', (event) => {
    if (event.relatedTarget === null) document.body.classList.remove('dropping');
});
document.addEventListener('drop', (event) => {
    event.preventDefault();
    document.body.classList.remove('dropping');
    const files = [...(event.dataTransfer?.files ?? [])];
    if (files.length > 0) void openFiles(files);
});
showStart();
ready = startedWorker();
ready.catch(() => undefined); // who opens a file is told
