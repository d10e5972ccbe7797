// SPDX-License-Identifier: MIT
//
// The panes above each other in step, the events below them, both cursors, and everything that a hand can do to them.
import {mostColumns} from '../reading/source.js';
import type {CurveAnswer, LanesAnswer, MarksAnswer, RowQuery, Sample, TrendAnswer} from '../reading/source.js';
import {colour, h} from './dom.js';
import {drawEvents, heightOf, laneAt, lanesOf} from './events_strip.js';
import type {Lane} from './events_strip.js';
import {count, number, reckoned} from './format.js';
import {Pane, rightSide, showPanes} from './pane.js';
import type {Colours, Drawn, View} from './pane.js';
import {earliest, latest} from './workspace.js';
import type {Workspace} from './workspace.js';

const paneHeight = 150;
const axisHeight = 40;
const askAfter = 80; // milliseconds without another change of the view
const renewAfter = 20; // so that tables that grew together are asked for together

export function coloursOf(theme?: Element): Colours {
    return {faint: colour('muted', theme), grid: colour('grid', theme)};
}

/** The series of each pane: all in one, or one for each. */
export function groupsOf(workspace: Workspace): string[][] {
    const {chosen, isTogether} = workspace;
    return isTogether || chosen.length === 0 ? [chosen] : chosen.map((key) => [key]);
}

export class Chart {
    readonly element: HTMLElement;
    readonly answers = new Map<string, CurveAnswer>();
    /** Series whose answers are of another view, or not exact. */
    readonly pending = new Set<string>();
    /** Those that could not be read for this view. */
    readonly failed = new Set<string>();
    // The view that the answer of each table is of. When somebody leaves a view its answers count no more; when it moves
    // along with new rows they do until there are others, so that the figures do not flicker.
    private readonly answered = new Map<string, View>();
    private readonly waiting: (() => void)[] = []; // for the next answer
    lanes: readonly Lane[] = [];
    private readonly ofEvents = new Map<string, LanesAnswer | MarksAnswer>(); // by the tables of alarms and logs
    private panes: Pane[] = [];
    private left = 0; // of the panes, for the labels of their values
    private readonly stack = h('div', {class: 'panes'});
    private readonly strip = h('canvas', {class: 'events', 'aria-hidden': 'true'});
    private readonly cursorLine = h('div', {class: 'cursor', hidden: true});
    private readonly markLine = h('div', {class: 'cursor mark', hidden: true});
    private readonly selection = h('div', {class: 'selection', hidden: true});
    private readonly pointers = new Map<number, {x: number; y: number}>();
    private pressed: {x: number; view: View; selects: boolean; hasMoved: boolean} | null = null;
    private asked = new AbortController();
    private readonly wanted = new Set<string>(); // tables to ask for as soon as no question for them is under way
    private underWay = new Set<string>();
    private timer = 0;
    private asksWhenSeen = false;
    hasAsked = false; // nothing can be asked before some times are known

    /** `onAnswer`: figures may be others now. `onEvent`: an alarm or an entry was clicked. */
    constructor(
        private readonly workspace: Workspace,
        private readonly onAnswer: () => void,
        private readonly onEvent: (kind: Lane['kind'], row: Partial<RowQuery>) => void,
    ) {
        this.element = h(
            'div',
            {
                class: 'chart',
                tabindex: '0',
                role: 'application',
                'aria-roledescription': 'chart',
                'aria-label':
                    'Trend. Arrow keys move, plus and minus zoom, Home shows all, comma and period move the cursor, ' +
                    'Enter sets the second cursor, Escape removes it.',
            },
            this.stack,
            this.strip,
            this.selection,
            this.cursorLine,
            this.markLine,
        );
        this.listen();
        new ResizeObserver(() => this.layOut()).observe(this.element);
    }

    /** Asks and draws no more. */
    close(): void {
        clearTimeout(this.timer);
        this.asked.abort();
        this.panes.forEach((pane) => pane.destroy());
    }

    /** Panes for what is chosen now. */
    rebuild(): void {
        this.panes.forEach((pane) => pane.destroy());
        const groups = groupsOf(this.workspace);
        this.panes = groups.map((_, i) => new Pane(i === groups.length - 1, coloursOf(), 600, paneHeight));
        this.stack.replaceChildren(...this.panes.map((pane) => pane.element));
        for (const key of this.answers.keys()) {
            if (this.workspace.chosen.includes(key)) continue;
            this.answers.delete(key);
            this.answered.delete(key);
        }
        this.layOut();
        this.ask();
    }

    get inner(): number {
        return Math.max(50, this.element.clientWidth - this.left - rightSide);
    }

    /** The value at a moment; null without one that is nearer than a gap. */
    valueAt(answer: CurveAnswer, moment: number | null): number | null {
        const {from, to} = this.workspace.view;
        const distance = (to - from) / Math.max(1, answer.numbers - 1);
        const near = Math.max(10 * distance, (3 * (to - from)) / this.inner);
        return moment === null ? null : (nearestPoint(answer, moment, near)?.value ?? null);
    }

    /** Undefined while there is none, or one of a view that somebody has left. */
    answerInView(key: string): CurveAnswer | undefined {
        return this.answered.has(key) ? this.answers.get(key) : undefined;
    }

    /** The texts of a series for the range in view: the lowest, the highest, the mean and the number of its values. */
    figuresOf(key: string): string[] {
        const isUnread = !this.answers.has(key) && this.workspace.unread.has(key);
        if (this.failed.has(key) || isUnread) return ['could not be read', '', '', ''];
        const answer = this.answerInView(key);
        if (!answer) return ['…', '…', '…', '…'];
        const {exact, lowest, highest, mean, numbers} = answer;
        const about = (sample: Sample | null): string => (sample ? `${exact ? '' : '≈ '}${number(sample.value)}` : '');
        return [about(lowest), about(highest), exact && numbers > 0 ? reckoned(mean) : '', exact ? count(numbers) : ''];
    }

    /** Waits for answers of what is in view: exact ones of tables that were read, the first of series that were not. */
    async complete(): Promise<void> {
        const {workspace, answered, answers, failed} = this;
        const isMissing = (key: string): boolean => {
            const isThere = answered.get(key) === workspace.view;
            if (workspace.overviews.get(key)?.exact) return !isThere || answers.get(key)?.exact === false;
            return !isThere && workspace.chosen.includes(key);
        };
        while (this.hasAsked && this.keys().some((key) => !failed.has(key) && isMissing(key)))
            await new Promise<void>((resume) => this.waiting.push(resume));
    }

    timeAt(x: number): number {
        const {from, to} = this.workspace.view;
        return from + ((x - this.left) / this.inner) * (to - from);
    }

    private placeOf(time: number): number {
        const {from, to} = this.workspace.view;
        return this.left + ((time - from) / (to - from)) * this.inner;
    }

    private layOut(): void {
        const width = this.element.clientWidth;
        if (width === 0) return;
        const room = this.element.clientHeight - heightOf(this.lanes) - axisHeight;
        const each = Math.max(110, Math.floor(room / Math.max(1, this.panes.length)));
        this.panes.forEach((pane) => pane.resize(width, each + (pane.showsTimes ? axisHeight : 0)));
        this.draw();
        if (this.asksWhenSeen) {
            this.asksWhenSeen = false;
            this.ask();
        }
    }

    drawnOf(keys: readonly string[], theme?: Element): Drawn[] {
        return keys.map((key) => ({
            title: this.workspace.titleOf(this.workspace.table(key)),
            colour: colour(`series${this.workspace.colourOf(key)}`, theme),
            answer: this.answers.get(key) ?? null,
            steps: (this.workspace.overviews.get(key)?.steps ?? []).map(({after}) => after),
        }));
    }

    draw(): void {
        const colours = coloursOf();
        const drawn = groupsOf(this.workspace).map((keys) => this.drawnOf(keys));
        this.left = showPanes(this.panes, this.workspace.view, drawn, colours);
        const [width, height] = [this.element.clientWidth, heightOf(this.lanes)];
        this.strip.width = width * devicePixelRatio;
        this.strip.height = height * devicePixelRatio;
        this.strip.style.width = `${width}px`;
        this.strip.style.height = `${height}px`;
        const ctx = this.strip.getContext('2d')!;
        ctx.scale(devicePixelRatio, devicePixelRatio);
        drawEvents(ctx, this.lanes, this.workspace.view, this.left, width);
        this.drawCursors();
    }

    drawCursors(): void {
        for (const [line, time] of [
            [this.cursorLine, this.workspace.cursor],
            [this.markLine, this.workspace.mark],
        ] as const) {
            const place = time === null ? -1 : this.placeOf(time);
            line.hidden = !(place >= this.left && place <= this.left + this.inner);
            line.style.transform = `translateX(${place}px)`;
        }
    }

    /** The view has changed: what is there is drawn at once, the rest asked for when the hand rests. */
    viewChanged(): void {
        if (this.workspace.isFollowing) this.renew(this.keys());
        else {
            this.abort();
            this.answered.clear();
            this.workspace.chosen.forEach((key) => this.pending.add(key));
            this.askIn(askAfter);
        }
        this.draw();
    }

    /** Asks for everything in the view; what is under way is of no use any more. */
    ask(): void {
        this.abort();
        this.workspace.chosen.forEach((key) => this.pending.add(key));
        this.askNow();
    }

    /**
     * These tables have other rows. Exact pictures stay until there are others. A question that is under way is not
     * aborted but asked again after its answer: where rows come faster than answers, none would ever come.
     */
    renew(tables: Iterable<string>): void {
        const keys = this.keys();
        for (const key of tables) if (keys.includes(key)) this.wanted.add(key);
        if (this.wanted.size > 0) this.askIn(renewAfter);
    }

    // What is in view: the chosen series, all alarms and logs.
    private keys(): string[] {
        const {workspace} = this;
        const events = [...workspace.tablesOf('alarms'), ...workspace.tablesOf('log')];
        return [...workspace.chosen, ...events.map(({key}) => key)];
    }

    // Everything is to be asked for again.
    private abort(): void {
        this.asked.abort();
        this.asked = new AbortController();
        this.underWay = new Set();
        this.failed.clear();
        this.keys().forEach((key) => this.wanted.add(key));
    }

    private askIn(milliseconds: number): void {
        clearTimeout(this.timer);
        this.timer = window.setTimeout(() => this.askNow(), milliseconds);
    }

    private askNow(): void {
        clearTimeout(this.timer);
        const {chosen, full, overviews, unread} = this.workspace;
        if (this.element.isConnected && this.element.clientWidth === 0) {
            // Nobody sees it, and how many columns it has is not known.
            this.pending.clear();
            this.asksWhenSeen = true;
            return;
        }
        if (!full) {
            // Nobody knows yet which times there are.
            if (chosen.every((key) => overviews.get(key)?.exact || unread.has(key))) this.pending.clear();
            return;
        }
        this.hasAsked = true;
        const keys = this.keys();
        for (const key of this.wanted) {
            if (this.underWay.has(key)) continue;
            this.wanted.delete(key);
            if (keys.includes(key)) void this.askFor(key);
        }
    }

    private async askFor(key: string): Promise<void> {
        const {asked, underWay, workspace} = this;
        const {view} = workspace;
        underWay.add(key);
        try {
            if (workspace.table(key).kind === 'samples') await this.askForCurve(key, asked.signal);
            else await this.askForEvents(key, asked.signal);
        } catch (error) {
            workspace.fail(error);
            if (!asked.signal.aborted) this.noteAnswer(key, view); // there will be none
        }
        underWay.delete(key);
        if (!asked.signal.aborted && this.wanted.has(key)) this.askNow();
    }

    private noteAnswer(key: string, view: View): void {
        this.answered.set(key, view);
        this.waiting.splice(0).forEach((resume) => resume());
    }

    private async askForCurve(key: string, signal: AbortSignal): Promise<void> {
        const {source, view} = this.workspace;
        const columns = Math.round(this.inner);
        const isQuiet = !this.pending.has(key); // what is shown is exact, or was when more came
        const take = (answer: TrendAnswer): void => {
            if (answer.kind !== 'samples' || signal.aborted) return;
            if (isQuiet && !answer.exact && this.answers.get(key)?.exact) return;
            this.answers.set(key, answer);
            this.noteAnswer(key, view);
            this.draw();
            this.onAnswer();
        };
        this.failed.delete(key);
        this.pending.add(key);
        try {
            const exact = await source.trend({table: key, from: view.from, to: view.to, columns}, take, signal);
            if (signal.aborted) return; // it came just then
            this.pending.delete(key);
            take(exact);
            // With so few points a line to the next one outside is seen.
            if (exact.kind === 'samples' && exact.points.length < columns) {
                const length = view.to - view.from;
                const range = {from: Math.max(earliest, view.from - length), to: Math.min(latest, view.to + length)};
                const wide = await source.trend(
                    {table: key, ...range, columns: Math.min(mostColumns, 3 * columns)},
                    () => undefined,
                    signal,
                );
                if (wide.kind === 'samples')
                    take({...exact, lines: wide.lines, points: wide.points, others: wide.others});
            }
        } catch (error) {
            if (signal.aborted) return;
            this.pending.delete(key);
            this.failed.add(key);
            this.onAnswer();
            throw error;
        }
    }

    private async askForEvents(key: string, signal: AbortSignal): Promise<void> {
        const {source, view} = this.workspace;
        const take = (answer: TrendAnswer): void => {
            if (answer.kind === 'samples' || signal.aborted) return;
            this.ofEvents.set(key, answer);
            this.noteAnswer(key, view);
            this.showEvents();
        };
        const columns = Math.round(this.inner);
        take(await source.trend({table: key, from: view.from, to: view.to, columns}, take, signal));
    }

    /** What is known of the alarms and logs that there are. */
    showEvents(): void {
        const before = heightOf(this.lanes);
        for (const key of this.ofEvents.keys()) if (!this.keys().includes(key)) this.ofEvents.delete(key);
        this.lanes = lanesOf(this.ofEvents);
        if (heightOf(this.lanes) !== before) this.layOut();
        else this.draw();
    }

    private listen(): void {
        const {element} = this;
        element.addEventListener(
            'wheel',
            (event) => {
                if (event.ctrlKey || !event.shiftKey)
                    this.zoom(Math.exp(Math.max(-1, Math.min(1, event.deltaY / 300))), this.xOf(event));
                else this.pan((event.deltaY || event.deltaX) / this.inner / 2);
                event.preventDefault();
            },
            {passive: false},
        );
        element.addEventListener('pointerdown', (event) => this.press(event));
        element.addEventListener('pointermove', (event) => this.move(event));
        element.addEventListener('pointerup', (event) => this.release(event));
        element.addEventListener('pointercancel', (event) => {
            this.pointers.delete(event.pointerId);
            this.pressed = null;
            this.selection.hidden = true;
        });
        element.addEventListener('pointerleave', (event) => {
            if (event.pointerType === 'mouse' && !this.pressed) this.workspace.setCursor(null);
        });
        element.addEventListener('dblclick', () => this.workspace.showAll());
        element.addEventListener('keydown', (event) => this.key(event));
    }

    private xOf(event: MouseEvent): number {
        return event.clientX - this.element.getBoundingClientRect().left;
    }

    private zoom(factor: number, x = this.left + this.inner / 2): void {
        const {from, to} = this.workspace.view;
        const at = this.timeAt(Math.max(this.left, Math.min(this.left + this.inner, x)));
        this.workspace.setView({from: at - (at - from) * factor, to: at + (to - at) * factor});
    }

    private pan(share: number): void {
        const {from, to} = this.workspace.view;
        this.workspace.setView({from: from + share * (to - from), to: to + share * (to - from)});
    }

    private press(event: PointerEvent): void {
        if (event.button !== 0) return;
        this.element.setPointerCapture(event.pointerId);
        this.element.focus({preventScroll: true});
        this.pointers.set(event.pointerId, {x: this.xOf(event), y: event.clientY});
        this.pressed = {
            x: this.xOf(event),
            view: this.workspace.view,
            selects: event.shiftKey,
            hasMoved: this.pointers.size > 1,
        };
    }

    private move(event: PointerEvent): void {
        const x = this.xOf(event);
        const before = this.pointers.get(event.pointerId);
        if (before && this.pointers.size === 2) this.pinch(event.pointerId, x);
        if (before) this.pointers.set(event.pointerId, {x, y: event.clientY});
        if (!this.pressed || this.pointers.size !== 1) {
            if (this.pointers.size === 0 && x >= this.left) this.workspace.setCursor(this.timeAt(x));
            return;
        }
        if (Math.abs(x - this.pressed.x) > 4) this.pressed.hasMoved = true;
        if (this.pressed.hasMoved && this.pressed.selects) this.showSelection(this.pressed.x, x);
        else if (this.pressed.hasMoved) {
            const {from, to} = this.pressed.view;
            const shift = ((this.pressed.x - x) / this.inner) * (to - from);
            this.workspace.setView({from: from + shift, to: to + shift});
        }
    }

    private pinch(moved: number, x: number): void {
        const still = [...this.pointers].find(([id]) => id !== moved)![1].x;
        const before = this.pointers.get(moved)!.x;
        const [old, now] = [Math.abs(before - still), Math.abs(x - still)];
        if (old > 10 && now > 10) this.zoom(old / now, (still + x) / 2);
    }

    private showSelection(from: number, to: number): void {
        this.selection.hidden = false;
        this.selection.style.left = `${Math.min(from, to)}px`;
        this.selection.style.width = `${Math.abs(to - from)}px`;
    }

    private release(event: PointerEvent): void {
        const {pressed} = this;
        this.pointers.delete(event.pointerId);
        const [left] = this.pointers.values();
        if (left) {
            // The finger that stays moves on from here, not from where both were put down.
            this.pressed = {x: left.x, view: this.workspace.view, selects: false, hasMoved: true};
            return;
        }
        this.pressed = null;
        this.selection.hidden = true;
        if (!pressed) return;
        const x = this.xOf(event);
        if (pressed.hasMoved && pressed.selects) {
            const [from, to] = [this.timeAt(Math.min(pressed.x, x)), this.timeAt(Math.max(pressed.x, x))];
            this.workspace.setView({from, to});
        } else if (!pressed.hasMoved) {
            this.click(event, x);
        }
    }

    private click(event: PointerEvent, x: number): void {
        const time = this.timeAt(x);
        const y = event.clientY - this.strip.getBoundingClientRect().top;
        const lane = y >= 0 ? laneAt(this.lanes, y) : null;
        if (lane) {
            const row = rowAt(lane, time);
            if (row) this.onEvent(lane.kind, row);
        } else {
            this.workspace.setCursor(time);
            this.workspace.setMark(time);
        }
    }

    private key(event: KeyboardEvent): void {
        const {workspace} = this;
        const middle = (workspace.view.from + workspace.view.to) / 2;
        const step = ((workspace.view.to - workspace.view.from) / this.inner) * (event.shiftKey ? 20 : 2);
        const moveCursor = (by: number): void => {
            const {from, to} = workspace.view;
            workspace.setCursor(Math.max(from, Math.min((workspace.cursor ?? middle) + by, to)));
        };
        const actions: Record<string, () => void> = {
            ArrowLeft: () => this.pan(-0.1),
            ArrowRight: () => this.pan(0.1),
            PageUp: () => this.pan(-0.9),
            PageDown: () => this.pan(0.9),
            ArrowUp: () => this.zoom(0.7),
            ArrowDown: () => this.zoom(1 / 0.7),
            '+': () => this.zoom(0.7),
            '=': () => this.zoom(0.7),
            '-': () => this.zoom(1 / 0.7),
            Home: () => workspace.showAll(),
            ',': () => moveCursor(-step),
            '.': () => moveCursor(step),
            '<': () => moveCursor(-step),
            '>': () => moveCursor(step),
            Enter: () => workspace.setMark(workspace.cursor ?? middle),
            Escape: () => workspace.setMark(null),
        };
        const action = event.ctrlKey || event.metaKey || event.altKey ? undefined : actions[event.key];
        if (action) {
            action();
            event.preventDefault();
        }
    }
}

// What a click on a lane leads to: the nearest entry, or this time in the table with the nearest alarm.
function rowAt(lane: Lane, time: number): Partial<RowQuery> | null {
    let found: Partial<RowQuery> | null = null;
    let least = Infinity;
    const take = (distance: number, row: Partial<RowQuery>): void => {
        if (distance < least) [least, found] = [distance, row];
    };
    if (lane.kind === 'log') {
        for (const [table, marks] of lane.marks) {
            for (let i = 0; i < marks.length; i += 3) take(Math.abs(marks[i]! - time), {table, id: marks[i + 2]!});
        }
    } else {
        for (const [table, spans] of lane.spans) {
            let distance = Number.MAX_VALUE; // a level without alarms in view has a list, too
            for (let i = 0; i < spans.length; i += 2)
                distance = Math.min(distance, Math.max(0, spans[i]! - time, time - spans[i + 1]!));
            take(distance, {table, at: time, levels: [lane.level]});
        }
    }
    return found;
}

/** The point that is nearest to a time; null without one within this distance. */
function nearestPoint(answer: CurveAnswer, time: number, within: number): {time: number; value: number} | null {
    const {points} = answer;
    let [low, high] = [0, points.length / 2];
    while (low < high) {
        const middle = (low + high) >> 1;
        if (points[2 * middle]! < time) low = middle + 1;
        else high = middle;
    }
    const candidates = [low - 1, low].filter((i) => i >= 0 && 2 * i < points.length);
    const nearest = candidates.sort((a, b) => Math.abs(points[2 * a]! - time) - Math.abs(points[2 * b]! - time))[0];
    return nearest !== undefined && Math.abs(points[2 * nearest]! - time) <= within
        ? {time: points[2 * nearest]!, value: points[2 * nearest + 1]!}
        : null;
}
