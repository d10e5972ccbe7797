// SPDX-License-Identifier: MIT
//
// What the views share: the source, what it said so far, what is chosen and which time is looked at.
import type {Change as SourceChange, FileInfo, Overview, RowQuery, Source, TableInfo} from '../reading/source.js';
import {localNow} from '../reading/times.js';
import {isCancelled} from '../worker/client.js';
import type {View} from './pane.js';

export type Tab = 'trend' | 'alarms' | 'log' | 'rows' | 'findings';
/** `tables`: there are others, or other files. `renewed`: some have other rows. `live`: what is said about watching. */
export type Change =
    'overview' | 'chosen' | 'view' | 'cursor' | 'tab' | 'theme' | 'failure' | 'filter' | 'tables' | 'renewed' | 'live';

/** What stays at the edge of the view when rows come: everything, or the end. Null: the view stays as it is. */
export type Edge = 'all' | 'end' | null;

const seriesColours = 8;

// What can be in view, in milliseconds. No source makes pictures of times before 1970.
export const earliest = 0;
export const latest = Date.UTC(9999, 11, 31, 23, 59, 59, 999);
const shortest = 2000;
const longest = 400 * 366 * 86400000;
const lastDay = 86400000;

/** Why this cannot be in view; empty: it can. */
export function refusalOf({from, to}: View): string {
    const cannot = (what: string): string => `The trend cannot show ${what}.`;
    if (Math.min(from, to) < earliest) return cannot('times before 1970');
    if (to - from > longest) return cannot('more than 400 years');
    return to - from < shortest ? cannot('less than 2 seconds') : '';
}

export class Workspace {
    readonly overviews = new Map<string, Overview>();
    chosen: string[] = []; // keys of series, in the order in which they were chosen
    private preferred: readonly string[] = []; // the same with those that are not there at the moment
    view: View = {from: 0, to: 1};
    edge: Edge = 'all';
    isFollowing = false; // the view changes because rows came, not by a hand
    isTogether = false;
    cursor: number | null = null;
    mark: number | null = null; // the second cursor
    tab: Tab = 'trend';
    failure = '';
    trouble = ''; // why nothing is heard of what is watched; empty otherwise
    readonly unreadable = new Map<number, string>(); // files that cannot be read at the moment, and why
    readonly unread = new Set<string>(); // tables whose reading failed
    /** Rows of each table that came since the view stays as it is. */
    readonly missed = new Map<string, number>();
    /** What the list of a kind is to show when it is opened next. */
    readonly wanted = new Map<Tab, Partial<RowQuery>>();
    /** What is set above each list. */
    readonly filters = new Map<Tab, Readonly<Record<string, string>>>();
    private readonly listeners = new Set<(change: Change, tables: ReadonlySet<string>) => void>();
    private readonly colours = new Map<string, number>();
    private readonly stale = new Set<string>(); // tables with rows that were not looked at yet
    private readonly looking = new Set<string>(); // those that are looked at again just now
    private counted = new Map<string, number>(); // the last ID of each table when it was looked at last
    private hasGrown = false; // files are longer, and what is said of them is to be asked for again
    private isHeld = false; // what is taken out is of this view
    private isOther = false; // files and tables are to be asked for again
    private isOpening = false;

    constructor(
        readonly source: Source,
        public files: readonly FileInfo[],
        public tables: readonly TableInfo[],
    ) {
        this.chooseFirst();
        this.countTables();
        this.tab =
            this.seriesTables.length > 0 || tables.length === 0
                ? 'trend'
                : tables[0]!.kind === 'alarms'
                  ? 'alarms'
                  : 'log';
    }

    /** `tables`: the keys of those that were renewed. */
    onChange(listener: (change: Change, tables: ReadonlySet<string>) => void): void {
        this.listeners.add(listener);
    }

    tell(change: Change, tables: ReadonlySet<string> = new Set()): void {
        this.listeners.forEach((listener) => listener(change, tables));
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
        this.preferred = [...this.preferred.filter((other) => other !== key), ...(isChosen ? [key] : [])];
        this.choosePreferred();
        if (isChosen) void this.look(key);
        this.tell('chosen');
        if (this.edge === 'all') this.showAll();
    }

    /** Before anything is shown. */
    setChosen(keys: readonly string[]): void {
        this.preferred = keys;
        this.choosePreferred();
    }

    private chooseFirst(): void {
        this.setChosen(this.seriesTables.slice(0, 2).map(({key}) => key));
    }

    // A series that goes and comes back, such as while its file is replaced, is chosen as before.
    private choosePreferred(): void {
        const series = this.seriesTables.map(({key}) => key);
        this.chosen = this.preferred.filter((key) => series.includes(key));
        for (const key of this.colours.keys()) if (!this.chosen.includes(key)) this.colours.delete(key);
        this.chosen.forEach((key) => this.colourOf(key));
    }

    /** Of what is chosen; of everything if that has no times; the last day if nothing has. Null: nobody knows yet. */
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
        const keys = this.tables.map(({key}) => key);
        const isRead = keys.every((key) => this.overviews.get(key)?.exact || this.unread.has(key));
        return of(this.chosen) ?? of(keys) ?? (isRead ? {from: localNow() - lastDay, to: localNow()} : null);
    }

    showAll(): void {
        this.edge = 'all';
        const {full} = this;
        if (full) this.setView(padded(full), 'all');
    }

    /** So much of the end of what there is. */
    showEnd(length = this.view.to - this.view.from): void {
        const {full} = this;
        const to = full ? full.to + length * 0.02 : this.view.to;
        this.setView({from: to - length, to}, 'end');
    }

    /** What cannot be in view is the edge of what a hand can move to. */
    setView({from, to}: View, edge: Edge = null): void {
        const length = Math.max(shortest, Math.min(to - from, longest));
        const middle = (from + to) / 2;
        const begin = Math.max(earliest, Math.min(middle - length / 2, latest - length));
        this.edge = edge;
        if (edge !== null && this.missed.size > 0) {
            this.missed.clear();
            this.tell('live');
        }
        if (this.view.from === begin && this.view.to === begin + length) return;
        this.view = {from: begin, to: begin + length};
        this.tell('view');
    }

    /** So much of the end of what there is, or around the middle of what is looked at. */
    setLength(length: number): void {
        if (this.edge !== null) return this.showEnd(length);
        const to = (this.view.from + this.view.to + length) / 2;
        this.setView({from: to - length, to});
    }

    /** A moment of a table in the middle of the view, under the cursor; a series is shown if it was not yet. */
    goTo(time: number, {key, kind}: TableInfo): void {
        const length = Math.min(this.view.to - this.view.from, this.edge === 'all' ? 6 * 3600000 : Infinity);
        this.cursor = time;
        this.setView({from: time - length / 2, to: time + length / 2});
        if (kind === 'samples' && !this.chosen.includes(key)) this.choose(key, true);
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
        this.followEdge(); // without a table nothing else did
    }

    private async look(key: string): Promise<void> {
        if (this.overviews.get(key)?.exact) return;
        try {
            this.takeOverview(key, await this.source.overview(key, (overview) => this.takeOverview(key, overview)));
        } catch (error) {
            if (!isCancelled(error)) this.unread.add(key);
            this.fail(error);
            this.tell('overview');
        }
    }

    private takeOverview(key: string, overview: Overview): void {
        this.overviews.set(key, overview);
        this.unread.delete(key);
        this.tell('overview');
        this.followEdge();
    }

    private followEdge(): void {
        if (this.isHeld) return;
        if (this.edge === 'all') this.showAll();
        else if (this.edge === 'end') this.showEnd();
    }

    private followRows(): void {
        this.isFollowing = true;
        this.followEdge();
        this.isFollowing = false;
    }

    /** While it is held the view follows nothing. */
    hold(isHeld: boolean): void {
        this.isHeld = isHeld;
        this.followRows();
    }

    /** From now on what happens to the files is shown. Without effect on files that cannot change. */
    watch(): void {
        this.source.watch?.((change) => this.takeChange(change));
    }

    private takeChange({trouble, files}: SourceChange): void {
        let isBack = trouble === '' && this.trouble !== '';
        this.trouble = trouble;
        for (const {file, error, isOther, tables} of files) {
            if (error !== '') this.unreadable.set(file, error);
            else isBack = this.unreadable.delete(file) || isBack;
            this.isOther ||= isOther && error === '';
            for (const {key, lastId} of tables) this.takeLastId(key, lastId);
        }
        if (isBack) {
            // What was asked in between had no answer.
            this.failure = '';
            this.tell('failure');
            this.isOther = true;
        }
        this.tell('live');
        void this.renew();
    }

    private takeLastId(key: string, lastId: number): void {
        this.stale.add(key);
        this.hasGrown = true;
        this.tables = this.tables.map((table) => {
            if (table.key !== key) return table;
            const {lastIdText: _, ...others} = table; // of the former one
            return {...others, lastId};
        });
    }

    // Each table is looked at on its own, so that none waits for one that takes long. What changes while it is looked at
    // is looked at together after that.
    private async renew(): Promise<void> {
        if (this.isOpening || this.trouble !== '') return;
        this.isOpening = true;
        try {
            do {
                if (this.isOther) await this.openAgain();
                this.lookAtStale();
                if (this.hasGrown) await this.measure();
            } while (this.isOther || this.hasGrown);
        } catch (error) {
            this.isOther = true; // the next change asks again
            this.fail(error);
        } finally {
            this.isOpening = false;
        }
        this.lookAtStale();
    }

    private lookAtStale(): void {
        for (const key of this.stale) {
            if (this.looking.has(key)) continue;
            this.stale.delete(key);
            if (this.table(key)) void this.lookAgain(key);
        }
    }

    private async measure(): Promise<void> {
        this.hasGrown = false;
        this.files = await this.source.open();
        this.tell('live');
    }

    private async openAgain(): Promise<void> {
        this.isOther = this.hasGrown = false;
        const hadSeries = this.seriesTables.length > 0;
        this.files = await this.source.open();
        this.tables = await this.source.tables();
        this.countTables();
        for (const key of this.overviews.keys()) if (!this.table(key)) this.overviews.delete(key);
        const before = this.chosen;
        this.choosePreferred();
        // Where there was no series, nobody could choose: a page that is opened now would show the first.
        if (!hadSeries && this.chosen.length === 0) this.chooseFirst();
        this.tables.forEach(({key}) => this.stale.add(key));
        if (before.join() !== this.chosen.join()) this.tell('chosen'); // first, so that there is a pane for each
        this.tell('tables');
    }

    private countTables(): void {
        this.counted = new Map(this.tables.map(({key, lastId}) => [key, this.counted.get(key) ?? lastId]));
    }

    private async lookAgain(key: string): Promise<void> {
        this.looking.add(key);
        try {
            const overview = await this.source.overview(key, () => undefined);
            if (this.table(key)) this.takeRenewed(key, overview);
        } catch (error) {
            if (this.table(key)) this.fail(error);
        }
        this.looking.delete(key);
        if (this.stale.has(key)) void this.renew();
    }

    private takeRenewed(key: string, overview: Overview): void {
        this.overviews.set(key, overview);
        this.unread.delete(key);
        // By IDs: a device may remove a row for each that it stores.
        const {lastId} = this.table(key);
        const more = lastId - this.counted.get(key)!;
        this.counted.set(key, lastId);
        if (this.edge === null && more > 0) this.missed.set(key, (this.missed.get(key) ?? 0) + more);
        this.tell('overview');
        this.followRows();
        this.tell('renewed', new Set([key]));
        this.tell('live');
    }

    /** Rows that came since the view stays as it is, of what the trend shows. */
    get missedRows(): number {
        const isShown = (key: string): boolean => this.chosen.includes(key) || this.table(key)?.kind !== 'samples';
        return [...this.missed].reduce((sum, [key, rows]) => sum + (isShown(key) ? rows : 0), 0);
    }
}

function padded({from, to}: View): View {
    const room = Math.max(1000, (to - from) * 0.01);
    return {from: from - room, to: to + room};
}
