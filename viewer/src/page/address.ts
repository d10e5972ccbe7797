// SPDX-License-Identifier: MIT
//
// In the served form the address keeps what is shown, so that it reopens the same view. Everything in it comes from
// outside: what is not understood is left out.
import {timeText, writtenTime} from '../reading/times.js';
import {refusalOf} from './workspace.js';
import type {Tab, Workspace} from './workspace.js';

const tabs: readonly Tab[] = ['trend', 'alarms', 'log', 'rows', 'findings'];
const lists = ['alarms', 'log', 'rows'] as const;
const keepAfter = 300; // milliseconds without another change

/** The part of an address after the "#". */
export function addressOf(workspace: Workspace): string {
    const parts = new URLSearchParams({tab: workspace.tab});
    for (const key of workspace.chosen) parts.append('series', key);
    if (workspace.chosen.length === 0) parts.set('series', ''); // none, and not those of the beginning
    const {view, edge} = workspace;
    if (edge === 'end') parts.set('last', String(Math.round((view.to - view.from) / 1000)));
    else if (edge === null) {
        parts.set('from', timeText(view.from, true));
        parts.set('to', timeText(view.to, true));
    }
    if (workspace.isTogether) parts.set('together', '');
    for (const tab of lists) {
        for (const [name, value] of Object.entries(workspace.filters.get(tab) ?? {})) {
            if (value !== '') parts.set(`${tab}.${name}`, value);
        }
    }
    return parts.toString().replaceAll('%2F', '/').replaceAll('%3A', ':');
}

/** Takes over what an address says, before anything is shown. */
export function takeAddress(workspace: Workspace, address: string): void {
    const parts = new URLSearchParams(address);
    const tab = tabs.find((each) => each === parts.get('tab'));
    if (tab) workspace.tab = tab;
    const isSeries = (key: string): boolean => workspace.seriesTables.some((table) => table.key === key);
    const series = [...new Set(parts.getAll('series'))].filter(isSeries);
    if (series.length > 0 || parts.get('series') === '') workspace.setChosen(series);
    workspace.isTogether = parts.has('together');
    const [from, to] = [writtenTime(parts.get('from') ?? '', 'first'), writtenTime(parts.get('to') ?? '', 'last')];
    const length = Number(parts.get('last')) * 1000;
    if (from !== null && to !== null && refusalOf({from, to}) === '') workspace.setView({from, to});
    else if (length > 0) workspace.setView({from: 0, to: length}, 'end');
    for (const each of lists) {
        const prefix = `${each}.`;
        const filter = [...parts].filter(([name]) => name.startsWith(prefix));
        if (filter.length > 0)
            workspace.filters.set(
                each,
                Object.fromEntries(filter.map(([name, value]) => [name.slice(prefix.length), value])),
            );
    }
}

/** Keeps the address as what is shown changes; who goes to another one gets its view. */
export function keepAddress(workspace: Workspace): void {
    let timer = 0;
    workspace.onChange((change) => {
        if (!['view', 'chosen', 'tab', 'filter'].includes(change)) return;
        clearTimeout(timer);
        timer = window.setTimeout(() => history.replaceState(null, '', `#${addressOf(workspace)}`), keepAfter);
    });
    window.onhashchange = () => location.reload();
}
