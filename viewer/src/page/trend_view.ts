// SPDX-License-Identifier: MIT
import {timeText, writtenTime} from '../reading/times.js';
import {Chart} from './chart.js';
import {button, h} from './dom.js';
import {count, number, reckoned, share, span, time} from './format.js';
import {exportPicture, printTrend} from './picture.js';
import {earliest, latest, refusalOf} from './workspace.js';
import type {Workspace} from './workspace.js';

const hour = 3600000;
const lengths: readonly (readonly [string, number])[] = [
    ['1 h', hour],
    ['24 h', 24 * hour],
    ['Week', 168 * hour],
    ['Month', 30 * 24 * hour],
];
const fewSeries = 8;

function othersText(values: number): string {
    return values === 1 ? '1 value is not a number' : `${count(values)} values are not numbers`;
}

export class TrendView {
    readonly element: HTMLElement;
    readonly chart: Chart;
    private readonly list = h('ul', {class: 'series'});
    private readonly search = h('input', {
        type: 'search',
        placeholder: 'Find a series',
        'aria-label': 'Find a series',
        oninput: () => this.fillList(),
    });
    private readonly refusal = h('p', {class: 'failure', role: 'alert', id: 'range-refusal'});
    private readonly refusals = new Map<HTMLInputElement, string>();
    private readonly from = this.timeInput('From', 'first');
    private readonly to = this.timeInput('To', 'last');
    private readonly together = h('input', {
        type: 'checkbox',
        onchange: () => {
            this.workspace.isTogether = this.together.checked;
            this.workspace.tell('chosen');
        },
    });
    private readonly figures = h('tbody');
    private readonly heads = h('tr');
    private readonly progress = h(
        'div',
        {
            class: 'progress',
            role: 'progressbar',
            'aria-label': 'Reading',
            'aria-valuemin': '0',
            'aria-valuemax': '100',
            hidden: true,
        },
        h('div'),
    );
    private readonly note = h('p', {class: 'note'});
    private readonly missed = button('', () => this.workspace.showEnd(), {class: 'missed', hidden: true});
    private readonly summary = h('summary');
    private readonly chartBox = h('div', {class: 'chart-box'});

    constructor(private readonly workspace: Workspace) {
        this.chart = new Chart(
            workspace,
            () => this.showFigures(),
            (kind, row) => {
                workspace.wanted.set(kind, row);
                workspace.setTab(kind);
            },
        );
        this.chartBox.append(this.progress, this.chart.element);
        const aside = h('details', {class: 'chooser', open: innerWidth > 760}, this.summary, this.search, this.list);
        const bar = h(
            'div',
            {class: 'bar'},
            h(
                'div',
                {class: 'group', role: 'group', 'aria-label': 'Length of what is shown'},
                ...lengths.map(([text, length]) => button(text, () => workspace.setLength(length))),
                button('All', () => workspace.showAll()),
            ),
            h(
                'div',
                {class: 'group wide', role: 'group', 'aria-label': 'Shown'},
                this.from,
                h('span', {'aria-hidden': 'true'}, '–'),
                this.to,
                this.refusal,
            ),
            h('label', {class: 'check'}, this.together, 'One scale'),
            h(
                'div',
                {class: 'group end', role: 'group', 'aria-label': 'Take out'},
                button('Picture', () => void this.takeOut(exportPicture)),
                button('Print', () => void this.takeOut(printTrend)),
            ),
        );
        const table = h(
            'table',
            {class: 'figures'},
            h('caption', {class: 'unseen'}, 'Figures of what is shown'),
            h('thead', {}, this.heads),
            this.figures,
        );
        this.element = h(
            'section',
            {class: 'trend', 'aria-label': 'Trend'},
            aside,
            h(
                'div',
                {class: 'stage'},
                bar,
                this.chartBox,
                h('div', {class: 'below'}, this.note, this.missed),
                h('div', {class: 'scroll', tabindex: '0', role: 'group', 'aria-label': 'Figures'}, table),
            ),
        );
        this.together.checked = workspace.isTogether;
        this.fillList();
        this.chart.rebuild();
        workspace.onChange((change, tables) => {
            if (change === 'chosen') {
                this.fillList();
                this.chart.rebuild();
                this.showFigures();
            } else if (change === 'view') {
                this.chart.viewChanged();
                this.showRange();
                this.showFigures();
            } else if (change === 'cursor') {
                this.chart.drawCursors();
                this.showFigures();
            } else if (change === 'theme') {
                this.chart.draw();
            } else if (change === 'overview') {
                if (!this.chart.hasAsked) this.chart.ask();
                this.chart.draw();
                this.showFigures();
            } else if (change === 'tables') {
                this.fillList();
                this.chart.showEvents();
            } else if (change === 'renewed') {
                this.chart.renew(tables);
            } else if (change === 'live') {
                const rows = workspace.missedRows;
                this.missed.hidden = rows === 0;
                this.missed.textContent = `${count(rows)} new ${rows === 1 ? 'row' : 'rows'} →`;
            }
        });
        this.showRange();
        this.showFigures();
    }

    // Who changes the range and takes it out at once gets what is in it, and not what was in the former one.
    private async takeOut(make: typeof exportPicture): Promise<void> {
        const {workspace, chart} = this;
        workspace.hold(true);
        try {
            await chart.complete();
            await make(workspace, chart, this.notes());
        } catch (error) {
            workspace.fail(error);
        } finally {
            workspace.hold(false);
        }
    }

    private timeInput(title: string, bound: 'first' | 'last'): HTMLInputElement {
        const input = h('input', {
            type: 'text',
            class: 'time',
            'aria-label': title,
            title: 'A day, or a day and a time',
            spellcheck: 'false',
            autocomplete: 'off',
            'aria-describedby': 'range-refusal',
            onchange: () => this.takeRange(input, bound),
        });
        return input;
    }

    // The other end stays, or is an hour away where it would come first.
    private takeRange(input: HTMLInputElement, bound: 'first' | 'last'): void {
        const given = writtenTime(input.value, bound);
        const {from, to} = this.workspace.view;
        const view =
            given === null
                ? null
                : bound === 'first'
                  ? {from: given, to: to > given ? to : Math.min(latest, given + hour)}
                  : {from: from < given ? from : Math.max(earliest, given - hour), to: given};
        const refusal = view ? refusalOf(view) : `Not a time: ${input.value}`;
        if (!view || refusal !== '') {
            this.refuse(input, input.value, refusal);
            return;
        }
        const other = input === this.from ? this.to : this.from;
        const stays = bound === 'first' ? view.to === to : view.from === from;
        const [text, before] = [other.value, this.refusals.get(other)];
        this.workspace.setView(view);
        this.showRange(true);
        if (stays && before !== undefined) this.refuse(other, text, before); // it still waits to be mended
    }

    private refuse(input: HTMLInputElement, text: string, refusal: string): void {
        input.value = text;
        this.refusals.set(input, refusal);
        this.showRefusals();
    }

    private showRefusals(): void {
        for (const input of [this.from, this.to]) input.removeAttribute('aria-invalid');
        for (const input of this.refusals.keys()) input.setAttribute('aria-invalid', 'true');
        this.refusal.textContent = [...new Set(this.refusals.values())].join(' ');
    }

    // Nobody's typing is disturbed before it is `taken`.
    private showRange(taken = false): void {
        for (const [input, at] of [
            [this.from, this.workspace.view.from],
            [this.to, this.workspace.view.to],
        ] as const) {
            if (!taken && document.activeElement === input && input.value !== input.defaultValue) continue;
            input.value = input.defaultValue = timeText(at, false);
            this.refusals.delete(input);
        }
        this.showRefusals();
    }

    private fillList(): void {
        const {workspace} = this;
        const {length} = workspace.seriesTables;
        this.summary.textContent = `Series (${length})`;
        this.search.hidden = length <= fewSeries;
        const wanted = this.search.value.toLowerCase();
        const shown = workspace.seriesTables.filter((table) =>
            `${workspace.titleOf(table)} ${table.name} ${table.description}`.toLowerCase().includes(wanted),
        );
        const focused = document.activeElement instanceof HTMLInputElement ? document.activeElement.value : null;
        this.list.replaceChildren(
            ...shown.map((table) => {
                const isChosen = workspace.chosen.includes(table.key);
                const check = h('input', {
                    type: 'checkbox',
                    checked: isChosen,
                    value: table.key,
                    onchange: () => workspace.choose(table.key, check.checked),
                });
                return h(
                    'li',
                    {},
                    h(
                        'label',
                        {title: table.description || table.name},
                        check,
                        h('span', {class: isChosen ? `swatch swatch${workspace.colourOf(table.key)}` : 'swatch'}),
                        h('span', {class: 'name'}, workspace.titleOf(table)),
                        table.title !== table.name && h('span', {class: 'faint'}, table.name),
                    ),
                );
            }),
        );
        if (shown.length === 0)
            this.list.append(
                h(
                    'li',
                    {class: 'faint'},
                    workspace.seriesTables.length === 0 ? 'No series in this file' : 'None found',
                ),
            );
        for (const input of this.list.querySelectorAll('input')) {
            if (input.value === focused) input.focus();
        }
    }

    /** Figures of the range, and of both cursors. */
    showFigures(): void {
        const {workspace, chart} = this;
        const heads = this.headTexts();
        this.heads.replaceChildren(...heads.map((head, i) => h('th', {scope: 'col', class: i > 0 && 'right'}, head)));
        this.figures.replaceChildren(...workspace.chosen.map((key) => this.figureRow(key)));
        const shares = workspace.chosen.map((key) => chart.answers.get(key)?.share ?? 1);
        const least = Math.min(1, ...shares);
        const isReading = chart.pending.size > 0;
        this.progress.hidden = !isReading;
        this.progress.setAttribute('aria-valuenow', String(Math.round(least * 100)));
        (this.progress.firstElementChild as HTMLElement).style.width = `${least < 1 ? least * 100 : 4}%`;
        const notes = this.notes();
        if (isReading && least < 1) notes.unshift(`Reading every row: ${share(least)}`);
        if (workspace.chosen.length === 0) notes.push('Choose a series to see it.');
        this.note.textContent = notes.join(' · ');
    }

    private headTexts(): string[] {
        const {cursor, mark} = this.workspace;
        const second = (moment: number): number => Math.round(moment / 1000) * 1000;
        const heads = ['Series', 'Lowest', 'Highest', 'Mean', 'Numbers'];
        heads.push(cursor === null ? 'At cursor' : time(second(cursor)));
        if (mark !== null) heads.push(time(second(mark)));
        if (mark !== null)
            heads.push(cursor === null ? 'Difference' : `Difference, ${span(second(cursor) - second(mark))}`);
        return heads;
    }

    private figureRow(key: string): HTMLElement {
        const {workspace, chart} = this;
        const {cursor, mark} = workspace;
        const swatch = h('span', {class: `swatch swatch${workspace.colourOf(key)}`});
        const head = h('th', {scope: 'row'}, swatch, workspace.titleOf(workspace.table(key)));
        const answer = chart.failed.has(key) ? undefined : chart.answers.get(key);
        const at = (moment: number | null): number | null => (answer ? chart.valueAt(answer, moment) : null);
        const [here, there] = [at(cursor), at(mark)];
        const text = (value: number | null): string => (value === null ? '' : number(value));
        const cells = [...chart.figuresOf(key), text(here)];
        if (mark !== null) cells.push(text(there), here !== null && there !== null ? reckoned(here - there) : '');
        const {lowest, highest} = chart.answerInView(key) ?? {};
        const moments = [lowest, highest].map((sample) => sample && time(sample.time));
        return h('tr', {}, head, ...cells.map((cell, i) => h('td', {class: 'right', title: moments[i]}, cell)));
    }

    private notes(): string[] {
        return this.workspace.chosen.flatMap((key) => this.notesOf(key));
    }

    // What is said about a series below the chart.
    private notesOf(key: string): string[] {
        const {workspace, chart} = this;
        const answer = chart.answers.get(key);
        const title = workspace.titleOf(workspace.table(key));
        const {from, to} = workspace.view;
        const overview = workspace.overviews.get(key);
        const notes: string[] = [];
        if (overview?.exact && overview.rows === 0) notes.push(`${title}: no rows yet`);
        if (answer && !answer.exact && answer.isSample)
            notes.push(`${title}: dots are ${count(answer.seen)} of about ${count(answer.of)} rows`);
        if (answer?.exact && answer.rows > answer.numbers)
            notes.push(`${title}: ${othersText(answer.rows - answer.numbers)}, marked ×`);
        const steps = (overview?.steps ?? []).filter(({after}) => after >= from && after <= to);
        if (steps.length > 0) {
            const often =
                steps.length === 1 ? `by ${span(steps[0]!.before - steps[0]!.after)}` : `${steps.length} times`;
            notes.push(`${title}: dashed where the clock went back, ${often}`);
        }
        return notes;
    }
}
