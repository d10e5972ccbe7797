// SPDX-License-Identifier: MIT
//
// A table of any length: only the rows that are in view exist, and only pages around them are asked for.
import type {Cell} from '../reading/cells.js';
import type {RowQuery, RowsAnswer, Source} from '../reading/source.js';
import {isCancelled} from '../worker/client.js';
import {announce, h, setChildren} from './dom.js';
import {count, share} from './format.js';

const rowHeight = 30;
const pageRows = 100;
const tallest = 8e6; // browsers know no taller element: longer tables scroll in proportion

export interface Column {
    readonly key: string | null; // null: rows cannot be sorted by it
    readonly title: string;
    readonly width: string; // of a grid
    readonly isNumber?: boolean;
    /** Of a long cell the beginning: so many characters, or as many as a line can show. */
    text(row: readonly Cell[], most?: number): string;
    decorate?(cell: HTMLElement, row: readonly Cell[]): void;
}

// A row in view. Whatever else is drawn anew, its element stays while its cells do: a click that began on it ends there.
interface Line {
    readonly element: HTMLElement;
    readonly cells: readonly Cell[] | undefined; // what is not read yet has none
    place: number;
}

function areEqual(some: readonly Cell[] | undefined, others: readonly Cell[] | undefined): boolean {
    return some === others || (!!some && !!others && some.every((cell, i) => cell === others[i]));
}

export class List {
    readonly element: HTMLElement;
    readonly status = h('span', {class: 'status', role: 'status'});
    /** Leads to rows that came meanwhile. */
    readonly news = h('button', {type: 'button', class: 'missed', hidden: true, onclick: () => this.goToNews()});
    total = 0;
    isExact = false;
    private query: RowQuery;
    // Null: asked for. A question and a renewal begin another map, so that no older answer gets into it.
    private pages = new Map<number, readonly (readonly Cell[])[] | null>();
    private asking = new AbortController();
    private isBusy = false; // with a question or a renewal: one at a time
    private isStale = false; // a renewal is wanted
    private lines: readonly Line[] = [];
    private active = 0;
    // A browser rounds where it scrolls to, and of a list that scrolls in proportion that is some rows: what was scrolled
    // to is the first row until somebody scrolls.
    private placed = {top: 0, row: 0};
    private missed = 0; // rows that came at an edge which is not in view
    private readonly head = h('div', {class: 'row head', role: 'row'});
    private readonly body = h('div', {class: 'rows', role: 'rowgroup'});
    private readonly space = h('div', {class: 'space', 'aria-hidden': 'true'});
    private readonly scroller: HTMLElement;
    private readonly observer = new ResizeObserver(() => this.draw());

    /** `open`: a row was chosen. `sort`: a head was. */
    constructor(
        private readonly source: Source,
        private readonly columns: readonly Column[],
        title: string,
        query: RowQuery,
        private readonly open: (row: readonly Cell[]) => void,
        private readonly fail: (error: unknown) => void,
        private readonly sort: ((column: string) => void) | null,
    ) {
        this.query = query;
        const template = columns.map(({width}) => width).join(' ');
        this.scroller = h(
            'div',
            {
                class: 'scroller',
                role: 'grid',
                tabindex: '0',
                'aria-label': title,
                'aria-colcount': columns.length,
                onscroll: () => this.scrolled(),
                onkeydown: (event: KeyboardEvent) => this.key(event),
            },
            h('div', {role: 'rowgroup', class: 'heads'}, this.head),
            this.body,
            this.space,
        );
        this.element = h('div', {class: 'list'}, this.scroller, this.news);
        this.element.style.setProperty('--columns', template);
        this.drawHead();
        this.observer.observe(this.scroller);
    }

    /** It is shown no more. */
    close(): void {
        this.asking.abort();
        this.observer.disconnect();
    }

    /** Another question: what it finds is shown from its beginning, or around the row that it names. */
    async ask(query: RowQuery): Promise<void> {
        this.asking.abort();
        this.asking = new AbortController();
        this.query = query;
        this.isExact = false;
        this.isStale = false;
        this.drawHead();
        this.showNews(0);
        this.status.textContent = 'Looking …';
        this.pages = new Map();
        await this.work(async (signal) => {
            let isFirst = true;
            const answer = await this.source.rows(
                {...query, offset: 0, limit: pageRows},
                (part) => {
                    this.take(part);
                    if (isFirst) this.goTo(0);
                    isFirst = false;
                    this.draw();
                },
                signal,
            );
            this.take(answer);
            if (isFirst || answer.found >= 0) this.goTo(Math.max(0, answer.found));
            this.draw();
            announce(this.status.textContent ?? '');
        });
    }

    /** The table has other rows: who looks at the edge where they come sees them, anything else stays where it is. */
    async renew(): Promise<void> {
        this.isStale = true;
        if (!this.isBusy) await this.work();
    }

    // What is wanted while it is under way comes after it; another question ends it.
    private async work(first?: (signal: AbortSignal) => Promise<void>): Promise<void> {
        const {signal} = this.asking;
        this.isBusy = true;
        try {
            await first?.(signal);
            first = undefined;
            while (this.isStale) {
                this.isStale = false;
                await this.renewOnce(signal);
            }
        } catch (error) {
            if (signal.aborted) return;
            if (first) this.status.textContent = 'Could not be read';
            this.fail(error);
        } finally {
            if (!signal.aborted) this.isBusy = false;
        }
    }

    private take(answer: RowsAnswer): void {
        this.total = answer.total;
        this.isExact = answer.exact;
        // A selection grows at its end: whole pages stay what they are while it is made.
        for (const [page, rows] of this.pages) if (rows && rows.length < pageRows) this.pages.delete(page);
        this.keepPage(answer);
        this.status.textContent =
            `${this.isExact ? '' : 'about '}${count(this.total)} ${this.total === 1 ? 'row' : 'rows'}` +
            (this.isExact ? '' : `, ${share(answer.share)} read`);
    }

    private get isNewestFirst(): boolean {
        return this.query.order === 'newest';
    }

    private showNews(rows: number): void {
        this.missed = rows;
        this.news.hidden = rows === 0;
        this.news.textContent = `${count(rows)} new ${rows === 1 ? 'row' : 'rows'} ${this.isNewestFirst ? '↑' : '↓'}`;
    }

    private goToNews(): void {
        this.showNews(0);
        this.scrollToFirst(this.isNewestFirst ? 0 : this.total);
        this.draw();
        this.scroller.focus();
    }

    private async renewOnce(signal: AbortSignal): Promise<void> {
        const asked = Math.floor(this.firstShown);
        const id = this.rowOf(asked)?.[0];
        const offset = Math.max(0, (Math.floor(asked / pageRows) - 1) * pageRows);
        const query = {...this.query, id: id ? Number(id) : undefined, at: undefined, offset, limit: 4 * pageRows};
        const answer = await this.source.rows(query, () => undefined, signal);
        signal.throwIfAborted();
        const {firstShown, isAtEdge} = this; // now: somebody may have scrolled since it was asked
        const {isExact: wasExact, total: before} = this;
        const known = this.shiftTo(answer, asked);
        const shift = known ?? 0;
        const active = this.rowOf(this.active)?.[0];
        const place = active ? answer.rows.findIndex(([each]) => each === active) : -1;
        this.active = place >= 0 ? answer.offset + place : this.active + shift;
        this.pages = new Map();
        this.take(answer);
        if (!isAtEdge) this.scrollToFirst(firstShown + shift);
        else if (!this.isNewestFirst) this.scrollToFirst(this.total);
        // Rows that are removed at the other side are no news less.
        const news = this.isNewestFirst && known !== null ? known : this.total - before - shift;
        if (wasExact && !isAtEdge && typeof this.query.order === 'string')
            this.showNews(Math.max(0, this.missed + news));
        this.draw();
    }

    // By how many places the rows that are looked at have moved; null if none of them is known. The first may be gone.
    private shiftTo({offset, rows}: RowsAnswer, from: number): number | null {
        const places = new Map(rows.map(([id], i) => [id, offset + i]));
        for (let i = from, row; (row = this.rowOf(i)); ++i) {
            const place = places.get(row[0]!);
            if (place !== undefined) return place - i;
        }
        return null;
    }

    // An answer around a row does not begin where a page does: only whole pages are kept, and the end of the table.
    private keepPage({offset, rows}: RowsAnswer): void {
        const end = offset + rows.length;
        for (let begin = Math.ceil(offset / pageRows) * pageRows; begin < end; begin += pageRows) {
            if (begin + pageRows <= end || end === this.total)
                this.pages.set(begin / pageRows, rows.slice(begin - offset, begin - offset + pageRows));
        }
    }

    private drawHead(): void {
        const {order} = this.query;
        const {sort} = this;
        this.head.replaceChildren(
            ...this.columns.map(({key, title, isNumber}, i) => {
                const isSorted =
                    typeof order === 'object'
                        ? order.column === key
                        : key === 'time' || key === 'start'
                          ? order === 'newest' || order === 'oldest'
                          : false;
                const descending = typeof order === 'object' ? order.descending : order === 'newest';
                const sorting = isSorted ? (descending ? 'descending' : 'ascending') : sort && key ? 'none' : undefined;
                return h(
                    'div',
                    {
                        role: 'columnheader',
                        class: isNumber && 'right',
                        'aria-colindex': i + 1,
                        'aria-sort': sorting,
                    },
                    sort && key
                        ? h(
                              'button',
                              {type: 'button', onclick: () => sort(key)},
                              title,
                              isSorted && h('span', {'aria-hidden': 'true'}, descending ? ' ↓' : ' ↑'),
                          )
                        : title,
                );
            }),
        );
    }

    private get height(): number {
        return Math.min(tallest, this.total * rowHeight);
    }

    private get firstShown(): number {
        const {scrollTop, clientHeight} = this.scroller;
        if (scrollTop === this.placed.top) return this.placed.row;
        const room = clientHeight - rowHeight;
        const most = Math.max(1, this.height - room);
        const rows = Math.max(0, this.total - room / rowHeight);
        return this.height < tallest ? scrollTop / rowHeight : (scrollTop / most) * rows;
    }

    private goTo(row: number): void {
        this.active = row;
        this.scrollTo(row);
    }

    private scrollTo(row: number): void {
        const room = this.scroller.clientHeight - rowHeight;
        this.scrollToFirst(row - room / rowHeight / 2);
    }

    private scrollToFirst(row: number): void {
        const room = this.scroller.clientHeight - rowHeight;
        const rows = Math.max(1, this.total - room / rowHeight);
        const first = Math.max(0, Math.min(row, this.total - room / rowHeight));
        this.space.style.height = `${this.height}px`;
        this.scroller.scrollTop = this.height < tallest ? first * rowHeight : (first / rows) * (this.height - room);
        if (room > 0) this.placed = {top: this.scroller.scrollTop, row: first}; // one that is hidden does not scroll
    }

    /** Where new rows come. */
    private get isAtEdge(): boolean {
        const {scrollTop, clientHeight, scrollHeight} = this.scroller;
        return this.isNewestFirst ? scrollTop < rowHeight : scrollTop + clientHeight >= scrollHeight - 1;
    }

    private scrolled(): void {
        if (this.missed > 0 && this.isAtEdge) this.showNews(0);
        this.draw();
    }

    draw(): void {
        this.space.style.height = `${this.height}px`;
        const first = Math.max(0, Math.floor(this.firstShown));
        const last = Math.min(this.total, first + Math.ceil(this.scroller.clientHeight / rowHeight) + 1);
        this.scroller.setAttribute('aria-rowcount', String(this.isExact ? this.total + 1 : -1));
        const before = new Set(this.lines);
        this.lines = Array.from({length: Math.max(0, last - first)}, (_, i) => this.lineAt(first + i, before));
        const shift =
            this.height < tallest ? first * rowHeight : this.scroller.scrollTop - (this.firstShown % 1) * rowHeight;
        this.body.style.transform = `translateY(${shift}px)`;
        setChildren(
            this.body,
            this.lines.map(({element}) => element),
        );
        const active = this.lines.find(({place}) => place === this.active);
        if (active) this.scroller.setAttribute('aria-activedescendant', active.element.id);
        else this.scroller.removeAttribute('aria-activedescendant');
    }

    private rowOf(i: number): readonly Cell[] | undefined {
        return this.pages.get(Math.floor(i / pageRows))?.[i % pageRows];
    }

    private lineAt(place: number, before: Set<Line>): Line {
        const cells = this.rowOf(place);
        if (!cells) void this.load(Math.floor(place / pageRows));
        const kept = [...before].find((line) => areEqual(line.cells, cells));
        if (kept) before.delete(kept);
        const line = kept ?? this.newLine(cells, place);
        line.place = place;
        const {element} = line;
        const isActive = place === this.active;
        element.classList.toggle('active', isActive);
        element.setAttribute('aria-rowindex', String(place + 2));
        element.setAttribute('aria-selected', String(isActive));
        if (isActive) element.id = `row-${this.query.table}-${place}`.replaceAll(/\s/g, '_');
        else element.removeAttribute('id');
        return line;
    }

    private newLine(cells: readonly Cell[] | undefined, place: number): Line {
        const element = h(
            'div',
            {role: 'row', class: 'row'},
            ...this.columns.map((column, at) => {
                const cell = h(
                    'div',
                    {role: 'gridcell', 'aria-colindex': at + 1, class: column.isNumber && 'right'},
                    cells ? column.text(cells) : '…',
                );
                if (cells) column.decorate?.(cell, cells);
                return cell;
            }),
        );
        const line = {element, cells, place};
        element.onclick = () => {
            this.active = line.place;
            this.draw();
            if (cells) this.open(cells);
        };
        return line;
    }

    private async load(page: number): Promise<void> {
        const {pages, total} = this;
        if (pages.has(page)) return;
        pages.set(page, null);
        try {
            const {rows} = await this.source.rows(
                {...this.query, id: undefined, at: undefined, offset: page * pageRows, limit: pageRows},
                () => undefined,
                this.asking.signal,
            );
            if (pages !== this.pages) return;
            // A page that was not whole may be by now.
            if (rows.length < pageRows && total !== this.total) pages.delete(page);
            else pages.set(page, rows);
            if (pages.size > 50) this.forget(page);
            this.draw();
        } catch (error) {
            pages.delete(page);
            if (!isCancelled(error)) this.fail(error);
        }
    }

    private forget(near: number): void {
        for (const page of this.pages.keys()) {
            if (Math.abs(page - near) > 20) this.pages.delete(page);
        }
    }

    private key(event: KeyboardEvent): void {
        if (event.target !== this.scroller) return;
        const screen = Math.max(1, Math.floor(this.scroller.clientHeight / rowHeight) - 2);
        const moves: Record<string, number> = {
            ArrowDown: this.active + 1,
            ArrowUp: this.active - 1,
            PageDown: this.active + screen,
            PageUp: this.active - screen,
            Home: 0,
            End: this.total - 1,
        };
        const row = this.rowOf(this.active);
        const next = moves[event.key];
        if (event.key === 'Enter' && row) this.open(row);
        else if (next !== undefined) {
            this.active = Math.max(0, Math.min(this.total - 1, next));
            const first = Math.ceil(this.firstShown);
            if (this.active < first || this.active >= first + screen) this.scrollTo(this.active);
            this.draw();
        } else return;
        event.preventDefault();
    }
}
