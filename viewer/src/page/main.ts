// SPDX-License-Identifier: MIT
import {HttpSource} from '../http/source.js';
import type {Source} from '../reading/source.js';
import {WorkerSource} from '../worker/client.js';
import {keepAddress, takeAddress} from './address.js';
import {button, h, unpacked} from './dom.js';
import {frameOf} from './frame.js';
import type {Frame} from './frame.js';
import {Workspace} from './workspace.js';

const app = document.getElementById('app')!;

async function startedWorker(): Promise<WorkerSource> {
    const [worker, module] = await Promise.all([unpacked('worker'), unpacked('sqlite')]);
    return WorkerSource.start(new Blob([worker], {type: 'text/javascript'}), await module.arrayBuffer());
}

let opened: WorkerSource | null = null;
let frame: Frame | null = null;
let turn = 0; // of what is opened: the files that were given last are shown
let ready: Promise<WorkerSource> | null = null; // for the next files: SQLite takes a moment to start

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

function showOpening(what: string): void {
    app.replaceChildren(
        h(
            'main',
            {class: 'start'},
            h('h1', {}, 'Device records'),
            h('p', {class: 'lead', role: 'status'}, `Opening ${what} …`),
        ),
    );
}

async function workspaceOver(source: Source): Promise<Workspace> {
    const infos = await source.open();
    const tables = await source.tables();
    const bad = infos.filter(({error}) => error !== '');
    if (infos.length === 0)
        throw new Error('these are only what lies beside a store file; drop the file itself with them');
    if (bad.length === infos.length) throw new Error(bad.map(({name, error}) => `${name}: ${error}`).join('\n'));
    return new Workspace(source, infos, tables);
}

const compared = 4096; // bytes: what SQLite changes with every transaction is among them

/** Whether it is one file that was chosen by two ways, or a copy of it with its time. */
async function isSameFile(one: File, other: File): Promise<boolean> {
    if (one.name !== other.name || one.size !== other.size || one.lastModified !== other.lastModified) return false;
    const [left, right] = await Promise.all(
        [one, other].map(async (file) => new Uint8Array(await file.slice(0, compared).arrayBuffer())),
    );
    return left!.every((byte, i) => byte === right![i]);
}

async function openFiles(given: readonly File[]): Promise<void> {
    const mine = ++turn;
    opened?.close();
    opened = null;
    frame?.close();
    frame = null;
    showOpening(given.map(({name}) => name).join(', '));
    try {
        const files: File[] = [];
        const twice = new Set<string>();
        for (const file of given) {
            const same = await Promise.all(files.map((other) => isSameFile(file, other)));
            if (same.includes(true)) twice.add(file.name);
            else files.push(file);
        }
        if (mine !== turn) return;
        const starting = ready ?? startedWorker();
        ready = null;
        const source = await starting;
        if (mine !== turn) return source.close();
        opened = source;
        await source.give(files);
        const workspace = await workspaceOver(source);
        if (mine !== turn) return;
        frame = frameOf(workspace, chooser('Open …'));
        app.replaceChildren(...frame.content);
        if (twice.size > 0) workspace.fail(new Error(`Given twice, shown once: ${[...twice].join(', ')}`));
        void workspace.lookAtAll();
    } catch (error) {
        if (mine !== turn) return;
        opened?.close();
        opened = null;
        showStart(error instanceof Error ? error.message : String(error));
    }
}

/** From "device-db serve": its files, as they change. */
async function openServed(): Promise<void> {
    showOpening('what is served');
    try {
        const workspace = await workspaceOver(new HttpSource());
        takeAddress(workspace, location.hash.slice(1));
        app.replaceChildren(...frameOf(workspace, null).content);
        keepAddress(workspace);
        workspace.watch();
        void workspace.lookAtAll();
    } catch (error) {
        app.replaceChildren(
            h(
                'main',
                {class: 'start'},
                h('h1', {}, 'Device records'),
                h('p', {class: 'failure', role: 'alert'}, error instanceof Error ? error.message : String(error)),
                h(
                    'div',
                    {},
                    button('Try again', () => void openServed(), {class: 'first'}),
                ),
            ),
        );
    }
}

function takeDrops(): void {
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
}

if (location.protocol === 'file:') {
    takeDrops();
    showStart();
    ready = startedWorker();
    ready.catch(() => undefined); // who opens a file is told
} else {
    void openServed();
}
