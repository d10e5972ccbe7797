// SPDX-License-Identifier: MIT
//
// The lists: alarms, operator log, and the rows of a series.
import {beginningOf, decodedTwice, visible} from '../reading/cells.js';
import type {Cell} from '../reading/cells.js';
import {csvOf} from '../reading/csv.js';
import type {Order, RowQuery, RowsAnswer, TableInfo} from '../reading/source.js';
import {hasMilliseconds, timeColumnOf} from '../reading/tables.js';
import {duration, endOfAlarm, timeIn, timeText, writtenTime} from '../reading/times.js';
import {askHowCsv, showRow} from './dialogs.js';
import {announce, button, download, h, setChildren} from './dom.js';
import {List} from './list.js';
import type {Column} from './list.js';
import {printRows} from './picture.js';
import type {Tab, Workspace} from './workspace.js';

const rowsAtOnce = 5000;
const mostPrinted = 1000;
const longestLine = 500; // characters of a cell, more than the widest screen shows
const longestChoice = 100;

// A cell can have megabytes: only what a line can show goes through all that follows, layout above all.
function lineOf(cell: Cell, most: number, isTwice = false): string {
    if (cell === null) return 'NULL';
    const begin = beginningOf(cell, most);
    return visible(isTwice ? decodedTwice(begin) : begin) + (begin.length < cell.length ? ' …' : '');
}
const cellAt =
    (place: number, isTwice = false) =>
    (row: readonly Cell[], most = longestLine): string =>
        lineOf(row[place]!, most, isTwice);

/** How long an alarm lasted, or that it still does; an end that does not say it, as it is written. */
export function lastedText(row: readonly Cell[], most = longestLine): string {
    const [date, clock] = [row[8]!, row[9]!];
    if (date === '' && clock === '') return 'active';
    if (!date || !clock) return '';
    const [begin, end] = [timeIn(row[2] ?? '', false), timeIn(endOfAlarm(date, clock), false)];
    return begin !== null && end !== null && end >= begin
        ? duration(end - begin)
        : `until ${lineOf(`${date} ${clock}`, most)}`;
}

// A file can have anything in the place of a level. Questions know whole numbers, which a server keeps in 32 bits.
function isLevel(text: string): boolean {
    return String(Number(text) | 0) === text;
}

/** Whether it is a time, or nothing; the field says it. */
function checkTime(field: HTMLInputElement, bound: 'first' | 'last'): boolean {
    const isTime = field.value.trim() === '' || writtenTime(field.value, bound) !== null;
    field.setAttribute('aria-invalid', String(!isTime));
    return isTime;
}

function markLevel(cell: HTMLElement, row: readonly Cell[]): void {
    const level = Number(row[1]);
    cell.className = `level level${level >= 3 ? 3 : level === 2 || level === 1 ? level : 0}`;
}

export function listColumns(kind: TableInfo['kind']): Column[] {
    if (kind === 'samples')
        return [
            {key: 'time', title: 'Time', width: '190px', text: cellAt(1)},
            {key: 'value', title: 'Value', width: 'minmax(120px, 1fr)', text: cellAt(2)},
            {key: 'id', title: 'ID', width: '110px', isNumber: true, text: cellAt(0)},
        ];
    if (kind === 'log')
        return [
            {key: 'time', title: 'Time', width: '224px', text: cellAt(1)},
            {key: 'user', title: 'User', width: '130px', text: cellAt(2)},
            {key: 'log', title: 'Log', width: 'minmax(150px, 1.5fr)', text: cellAt(3)},
            {key: 'message', title: 'Message', width: 'minmax(240px, 4fr)', text: cellAt(4)},
        ];
    return [
        {key: 'level', title: 'Level', width: '74px', text: cellAt(1), decorate: markLevel},
        {key: 'start', title: 'Start', width: '190px', text: cellAt(2)},
        {
            key: null,
            title: 'Lasted',
            width: '216px',
            text: lastedText,
            decorate: (cell, row) => cell.classList.toggle('strong', row[8] === '' && row[9] === ''),
        },
        {key: 'object', title: 'Object', width: 'minmax(100px, 1fr)', text: cellAt(3)},
        {key: 'type', title: 'Type', width: 'minmax(100px, 1fr)', text: cellAt(4)},
        {key: 'description', title: 'Text', width: 'minmax(180px, 3fr)', text: cellAt(7, true)},
        {key: 'value', title: 'Value', width: '90px', isNumber: true, text: cellAt(5)},
        {key: 'limit', title: 'Limit', width: '90px', isNumber: true, text: cellAt(6)},
    ];
}

export class RowsView {
    readonly element: HTMLElement;
    private list: List | null = null;
    private table: TableInfo | null = null;
    private shown: RowQuery | null = null; // what the list shows: what is taken out is the same
    private readonly place = h('div', {class: 'list-place'});
    private readonly status = h('div', {class: 'status-place'});
    private readonly search = h('input', {
        type: 'search',
        placeholder: 'Search all texts',
        'aria-label': 'Search all texts',
        oninput: () => this.later(),
    });
    private readonly tableSelect = h('select', {
        'aria-label': 'Table',
        onchange: () => this.choose(this.tableSelect.value),
    });
    private readonly stateSelect = h(
        'select',
        {'aria-label': 'State', onchange: () => this.ask()},
        h('option', {value: ''}, 'Active and ended'),
        h('option', {value: 'active'}, 'Active'),
        h('option', {value: 'ended'}, 'Ended'),
    );
    private readonly choiceSelect = h('select', {onchange: () => this.ask()});
    private readonly from = this.timeInput('From', 'first');
    private readonly to = this.timeInput('To', 'last');
    private order: Order;
    private timer = 0;
    private isFresh = true;
    private isStale = false; // there are other rows, and nobody looks

    constructor(
        private readonly workspace: Workspace,
        private readonly tab: Tab & ('alarms' | 'log' | 'rows'),
    ) {
        this.order = tab === 'rows' ? 'recorded' : 'newest';
        this.choiceSelect.setAttribute('aria-label', tab === 'alarms' ? 'Level' : 'User');
        const bar = h(
            'div',
            {class: 'bar'},
            this.tableSelect,
            this.search,
            tab === 'alarms' && this.stateSelect,
            tab !== 'rows' && this.choiceSelect,
            h(
                'div',
                {class: 'group wide', role: 'group', 'aria-label': 'Between'},
                this.from,
                h('span', {'aria-hidden': 'true'}, '–'),
                this.to,
                button('As in trend', () => this.takeView()),
            ),
            this.status,
            h(
                'div',
                {class: 'group end', role: 'group', 'aria-label': 'Take out'},
                button('CSV', () => this.exportCsv()),
                button('Print', () => void this.print().catch((error) => workspace.fail(error))),
            ),
        );
        const title = {alarms: 'Alarms', log: 'Operator log', rows: 'Rows'}[tab];
        this.element = h('section', {class: 'records', 'aria-label': title}, bar, this.place);
        this.fillTables();
        workspace.onChange((change, tables) => {
            if (change === 'tables') this.takeTables();
            else if (change === 'renewed' && this.table && tables.has(this.table.key)) {
                this.isStale = true;
                if (workspace.tab === tab) this.renew();
            } else if (change === 'overview') {
                this.fillChoices();
                if (this.list && !this.list.isExact && this.table && workspace.overviews.get(this.table.key)?.exact)
                    void this.list.renew();
            }
        });
    }

    private renew(): void {
        this.isStale = false;
        void this.list?.renew();
    }

    private fillTables(): void {
        const {tables} = this;
        this.tableSelect.hidden = tables.length < 2;
        this.tableSelect.replaceChildren(
            ...tables.map((table) => h('option', {value: table.key}, this.workspace.titleOf(table))),
        );
        if (this.table) this.tableSelect.value = this.table.key;
    }

    // There are others: the one that is shown may be gone, or the first may have come.
    private takeTables(): void {
        this.fillTables();
        if (this.tables.some(({key}) => key === this.table?.key)) return;
        this.table = null;
        this.list?.close();
        this.list = null;
        this.isFresh = true;
        if (this.workspace.tab === this.tab) this.show();
    }

    private get tables(): TableInfo[] {
        return this.workspace.tablesOf(this.tab === 'rows' ? 'samples' : this.tab);
    }

    /** It is seen now: asks for what somebody wants to see in it. */
    show(): void {
        const wanted = this.workspace.wanted.get(this.tab);
        this.workspace.wanted.delete(this.tab);
        if (this.tables.length === 0) {
            this.place.replaceChildren(h('p', {class: 'empty'}, 'There is no such table in this file.'));
            return;
        }
        if (wanted) {
            this.search.value = '';
            this.stateSelect.value = '';
            this.setRange('', '');
            if (this.order !== 'recorded') this.order = 'newest';
            this.setLevel(wanted);
        }
        if (wanted?.table || this.isFresh) {
            if (this.isFresh && !wanted) this.takeFilter();
            const kept = this.tables.find(({key}) => key === this.tableSelect.value) ?? this.tables[0]!;
            this.choose(wanted?.table ?? kept.key, wanted);
        } else if (wanted) this.ask(wanted);
        else if (this.isStale) this.renew();
        else this.list?.draw();
        this.isFresh = false;
    }

    // What an address says.
    private takeFilter(): void {
        const filter = this.workspace.filters.get(this.tab) ?? {};
        this.search.value = filter['search'] ?? '';
        this.stateSelect.value = filter['state'] ?? '';
        this.setRange(filter['from'] ?? '', filter['to'] ?? '');
        this.tableSelect.value = filter['table'] ?? '';
        const choice = filter['choice'] ?? '';
        if (choice.startsWith('=') && (this.tab === 'log' || isLevel(choice.slice(1)))) this.setChoice(choice);
        const order = filter['order'] ?? '';
        const column = order.replace(/^-/, '');
        if (order === 'newest' || order === 'oldest') this.order = order;
        else if (
            this.tab !== 'rows' &&
            listColumns(this.tab === 'log' ? 'log' : 'alarms').some(({key}) => key === column)
        )
            this.order = {column, descending: order !== column};
    }

    private keepFilter(): void {
        const {order} = this;
        this.workspace.filters.set(this.tab, {
            table: this.table!.key,
            search: this.search.value,
            state: this.stateSelect.value,
            choice: this.choiceSelect.value,
            from: this.from.value,
            to: this.to.value,
            order: typeof order === 'string' ? order : `${order.descending ? '-' : ''}${order.column}`,
        });
        this.workspace.tell('filter');
    }

    private timeInput(title: string, bound: 'first' | 'last'): HTMLInputElement {
        const input = h('input', {
            type: 'text',
            class: 'time',
            'aria-label': title,
            placeholder: title,
            spellcheck: 'false',
            autocomplete: 'off',
            title: 'A day, or a day and a time',
            onchange: () => {
                if (checkTime(input, bound)) this.ask();
                else announce(`Not a time: ${input.value}`);
            },
        });
        return input;
    }

    private takeView(): void {
        const {from, to} = this.workspace.view;
        this.setRange(timeText(from, false), timeText(to, false));
        this.ask();
    }

    private setRange(from: string, to: string): void {
        this.from.value = from;
        this.to.value = to;
        checkTime(this.from, 'first');
        checkTime(this.to, 'last');
    }

    private choose(key: string, wanted: Partial<RowQuery> = {}): void {
        const table = this.workspace.table(key);
        this.table = table;
        this.tableSelect.value = key;
        this.fillChoices();
        if (wanted.levels) this.setLevel(wanted);
        const sort = this.tab === 'rows' ? null : (column: string): void => this.sortBy(column);
        const query: RowQuery = {table: key, order: this.order, offset: 0, limit: 100};
        this.list?.close();
        this.list = new List(
            this.workspace.source,
            listColumns(table.kind),
            this.workspace.titleOf(table),
            query,
            (row) => showRow(this.workspace, table, row),
            (error) => this.workspace.fail(error),
            sort,
        );
        this.place.replaceChildren(this.list.element);
        this.status.replaceChildren(this.list.status);
        this.ask(wanted);
    }

    private fillChoices(): void {
        if (!this.table || this.tab === 'rows') return;
        const choices = this.workspace.overviews.get(this.table.key)?.choices ?? [];
        const before = this.choiceSelect.value;
        const sorted =
            this.tab === 'alarms'
                ? choices.filter(([level]) => isLevel(level)).sort(([a], [b]) => Number(b) - Number(a))
                : choices;
        const options = [
            h('option', {value: ''}, this.tab === 'alarms' ? 'All levels' : 'All users'),
            ...sorted.map(([text, rows]) => h('option', {value: `=${text}`}, `${this.choiceText(text)} (${rows})`)),
        ];
        // Somebody may have the list open: those that are the same stay.
        const known = [...this.choiceSelect.options];
        setChildren(
            this.choiceSelect,
            options.map((each) => known.find((other) => other.isEqualNode(each)) ?? each),
        );
        this.setChoice(before);
    }

    private choiceText(choice: string): string {
        return `${this.tab === 'alarms' ? 'Level ' : ''}${lineOf(choice, longestChoice) || '(none)'}`;
    }

    // One that no row has stays chosen.
    private setChoice(choice: string): void {
        if (this.choiceSelect.value === choice) return;
        this.choiceSelect.value = choice;
        if (this.choiceSelect.selectedIndex >= 0) return;
        this.choiceSelect.append(h('option', {value: choice}, this.choiceText(choice.slice(1))));
        this.choiceSelect.value = choice;
    }

    private setLevel({levels}: Partial<RowQuery>): void {
        const level = String(levels?.[0]);
        this.setChoice(isLevel(level) ? `=${level}` : '');
    }

    private sortBy(column: string): void {
        if (column === 'time' || column === 'start') this.order = this.order === 'newest' ? 'oldest' : 'newest';
        else
            this.order = {
                column,
                descending: typeof this.order === 'object' && this.order.column === column && !this.order.descending,
            };
        this.ask();
    }

    private later(): void {
        clearTimeout(this.timer);
        this.timer = window.setTimeout(() => this.ask(), 200);
    }

    private query(): RowQuery {
        const choice = this.choiceSelect.value;
        const state = this.stateSelect.value as 'active' | 'ended' | '';
        return {
            table: this.table!.key,
            order: this.order,
            offset: 0,
            limit: 100,
            containing: this.search.value || undefined,
            from: writtenTime(this.from.value, 'first') ?? undefined,
            to: writtenTime(this.to.value, 'last') ?? undefined,
            state: this.tab === 'alarms' && state !== '' ? state : undefined,
            levels: this.tab === 'alarms' && choice !== '' ? [Number(choice.slice(1))] : undefined,
            users: this.tab === 'log' && choice !== '' ? [choice.slice(1)] : undefined,
        };
    }

    private ask(wanted?: Partial<RowQuery>): void {
        if (!this.table) return;
        clearTimeout(this.timer);
        this.isStale = false;
        this.keepFilter();
        this.shown = this.query();
        void this.list?.ask({...this.shown, id: wanted?.id, at: wanted?.at});
    }

    // Each row that is there, once, in pieces. While a table is read, and while rows come and go, none keeps its number:
    // a piece begins with the row that was taken last, and is asked for around it where the list has moved.
    private async *allRows(
        query: RowQuery,
        atOnce: number,
        signal?: AbortSignal,
    ): AsyncGenerator<readonly (readonly Cell[])[]> {
        const ask = (part: Partial<RowQuery>): Promise<RowsAnswer> =>
            this.workspace.source.rows({...query, ...part}, () => undefined, signal);
        let answer = await ask({offset: 0, limit: atOnce});
        for (let {rows} = answer; rows.length > 0;) {
            yield rows;
            const last = rows[rows.length - 1]![0]!;
            answer = await ask({offset: answer.offset + answer.rows.length - 1, limit: atOnce + 1});
            if (answer.rows[0]?.[0] !== last) answer = await ask({id: Number(last), offset: 0, limit: 2 * atOnce});
            let begin = 1 + answer.rows.findIndex(([id]) => id === last);
            // It has gone. In the order of recording, those after it are known nevertheless.
            if (begin === 0)
                begin = query.order === 'recorded' ? answer.rows.findIndex(([id]) => BigInt(id!) > BigInt(last)) : -1;
            if (begin < 0) throw new Error('Rows were removed while they were taken out; try again.');
            rows = answer.rows.slice(begin);
        }
    }

    private exportCsv(): void {
        const {table, list, shown} = this;
        if (!table || !shown) return;
        askHowCsv(`${table.name}.csv`, list?.isExact ? list.total : null, async (options, signal) => {
            try {
                const parts: BlobPart[] = [];
                for await (const rows of this.allRows(shown, rowsAtOnce, signal))
                    parts.push(csvOf(table.kind, rows, options, parts.length === 0) as BlobPart);
                if (parts.length === 0) parts.push(csvOf(table.kind, [], options) as BlobPart);
                download(
                    `${table.name.replaceAll(/[^\p{L}\p{N}_-]+/gu, '_')}.csv`,
                    new Blob(parts, {type: 'text/csv'}),
                );
            } catch (error) {
                this.workspace.fail(error);
            }
        });
    }

    // In the words of the page, as it is asked.
    private filterTexts({containing, from, to, state, levels, users}: RowQuery): string[] {
        const choice = levels?.join() ?? users?.join();
        return [
            containing !== undefined && `Texts with “${visible(containing)}”`,
            state !== undefined && (state === 'active' ? 'Active' : 'Ended'),
            choice !== undefined && `${this.tab === 'log' ? 'User ' : ''}${this.choiceText(choice)}`,
            from !== undefined && `from ${timeText(from, false)}`,
            to !== undefined && `to ${timeText(to, false)}`,
        ].filter((text) => text !== false);
    }

    private async print(): Promise<void> {
        const {table, list, shown} = this;
        if (!table || !shown) return;
        const filter = this.filterTexts(shown);
        const {value} = await this.allRows(shown, mostPrinted + 1).next();
        const rows: readonly (readonly Cell[])[] = value ?? [];
        const total = rows.length <= mostPrinted ? rows.length : list?.isExact ? list.total : null;
        printRows(this.workspace, table, listColumns(table.kind), rows.slice(0, mostPrinted), total, filter);
    }
}

/** The moment of a row; null if its time is in another form. */
export function momentOf(table: TableInfo, row: readonly Cell[]): number | null {
    return timeIn(row[timeColumnOf(table.kind)] ?? '', hasMilliseconds(table.kind));
}
