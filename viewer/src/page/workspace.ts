// SPDX-License-Identifier: MIT
//
// What the views share: the source, what it said so far, what is chosen and which time is looked at.
import type {FileInfo, Overview, RowQuery, Source, TableInfo} from '../reading/source.js';
import {isCancelled} from '../worker/client.js';
import type {View} from './pane.js';

export type Tab = 'trend' | 'alarms' | 'log' | 'rows' | 'findings';
export type Change = 'overview' | 'chosen' | 'view' | 'cursor' | 'tab' | 'theme' | 'failure';

const seriesColours = 8;
const shortest = 2000; // milliseconds that can be in view

export class Workspace {
    readonly overviews = new Map<string, Overview>();
    chosen: string[] = []; // keys of series, in the order in which they were chosen
    view: View = {from: 0, to: 1};
    showsAll = true;
    isTogether = false;
    cursor: number | null = null;
    mark: number | null = null; // the second cursor
    tab: Tab = 'trend';
    failure = '';
    /** What the list of a kind is to show when it is opened next. */
    readonly wanted = new Map<Tab, Partial<RowQuery>>();
    private readonly listeners = new Set<(change: Change) => void>();
    private readonly colours = new Map<string, number>();

    constructor(
        readonly source: Source,
        readonly files: readonly FileInfo[],
        readonly tables: readonly TableInfo[],
    ) {
        const series = this.seriesTables;
        this.chosen = series.slice(0, Math.min(series.length, 2)).map(({key}) => key);
        this.chosen.forEach((key) => this.colourOf(key));
        this.tab = series.length > 0 || tables.length === 0 ? 'trend' : tables[0]!.kind === 'alarms' ? 'alarms' : 'log';
    }

    onChange(listener: (change: Change) => void): void {
        this.listeners.add(listener);
    }

    tell(change: Change): void {
        this.listeners.forEach((listener) => listener(change));
    }

    get seriesTables(): TableInfo[] {
        return this.tables.filter(({kind}) => kind === 'samples');
    }

    tablesOf(kind: TableInfo['kind']): TableInfo[] {
        return this.tables.filter((table) => table.kind === kind);
    }

    table(key: string): TableInfo {
        return this.tables.find((table) => table.key === key)!;
    }

    titleOf({title, unit, file}: TableInfo): string {
        const named = unit === '' ? title : `${title} (${unit})`;
        return this.files.length > 1 && this.tables.some((other) => other.title === title && other.file !== file)
            ? `${named}, ${this.files[file]!.name}`
            : named;
    }

    /** The number of the colour of a series, from 1 on: it keeps it while it is chosen. */
    colourOf(key: string): number {
        let colour = this.colours.get(key);
        if (colour === undefined) {
            const used = this.chosen.filter((other) => other !== key).map((other) => this.colours.get(other));
            colour =
                Array.from({length: seriesColours}, (_, i) => i + 1).find((each) => !used.includes(each)) ??
                1 + (this.chosen.length % seriesColours);
            this.colours.set(key, colour);
        }
        return colour;
    }

    choose(key: string, isChosen: boolean): void {
        this.chosen = this.chosen.filter((other) => other !== key);
        if (isChosen) this.chosen.push(key);
        else this.colours.delete(key);
        if (isChosen) void this.look(key);
        this.tell('chosen');
        if (this.showsAll) this.showAll();
    }

    /** Of what is chosen; of everything if that has no times. */
    get full(): View | null {
        const of = (keys: readonly string[]): View | null => {
            const known = keys.map((key) => this.overviews.get(key)).filter((each) => each && !Number.isNaN(each.from));
            return known.length === 0
                ? null
                : {
                      from: Math.min(...known.map((each) => each!.from)),
                      to: Math.max(...known.map((each) => each!.to)),
                  };
        };
        return of(this.chosen) ?? of(this.tables.map(({key}) => key));
    }

    showAll(): void {
        this.showsAll = true;
        const {full} = this;
        if (full) this.setView(padded(full), true);
    }

    setView({from, to}: View, isAll = false): void {
        const length = Math.max(shortest, Math.min(to - from, 400 * 366 * 86400000));
        const middle = (from + to) / 2;
        const begin = Math.max(0, Math.min(middle - length / 2, 253402300800000 - length));
        this.showsAll = isAll;
        if (this.view.from === begin && this.view.to === begin + length) return;
        this.view = {from: begin, to: begin + length};
        this.tell('view');
    }

    /** So much of the end of what there is, or around the middle of what is looked at. */
    setLength(length: number): void {
        const {full} = this;
        const to = this.showsAll && full ? full.to + length * 0.02 : (this.view.from + this.view.to + length) / 2;
        this.setView({from: to - length, to});
    }

    /** A moment in the middle of the view, under the cursor. */
    goTo(time: number): void {
        const length = Math.min(this.view.to - this.view.from, this.showsAll ? 6 * 3600000 : Infinity);
        this.cursor = time;
        this.setView({from: time - length / 2, to: time + length / 2});
        this.setTab('trend');
    }

    setTab(tab: Tab): void {
        this.tab = tab;
        this.tell('tab');
    }

    setCursor(time: number | null): void {
        this.cursor = time;
        this.tell('cursor');
    }

    setMark(time: number | null): void {
        this.mark = time;
        this.tell('cursor');
    }

    fail(error: unknown): void {
        if (isCancelled(error)) return;
        this.failure = error instanceof Error ? error.message : String(error);
        this.tell('failure');
    }

    /** Everything is read once; what is looked at comes first. */
    async lookAtAll(): Promise<void> {
        const first = [...this.chosen, ...this.tables.filter(({kind}) => kind !== 'samples').map(({key}) => key)];
        const rest = this.tables.map(({key}) => key).filter((key) => !first.includes(key));
        for (const key of [...first, ...rest]) await this.look(key);
    }

    private async look(key: string): Promise<void> {
        const take = (overview: Overview): void => {
            this.overviews.set(key, overview);
            this.tell('overview');
            if (this.showsAll) this.showAll();
        };
        if (this.overviews.get(key)?.exact) return;
        try {
            take(await this.source.overview(key, take));
        } catch (error) {
            this.fail(error);
        }
    }
}

function padded({from, to}: View): View {
    const room = Math.max(1000, (to - from) * 0.01);
    return {from: from - room, to: to + room};
}
