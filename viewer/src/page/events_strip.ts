// SPDX-License-Identifier: MIT
//
// Below the panes: a lane for each level of alarms, and a line of marks for the operator log.
import type {LanesAnswer, MarksAnswer} from '../reading/source.js';
import {colour} from './dom.js';
import {rightSide} from './pane.js';
import type {View} from './pane.js';

const laneHeight = 18;
const barHeight = 10;

export interface Events {
    readonly alarms: LanesAnswer | null;
    readonly log: MarksAnswer | null;
}

export function levelColour(level: number, of?: Element): string {
    return colour(level >= 3 ? 'level3' : level === 2 ? 'level2' : level === 1 ? 'level1' : 'level0', of);
}

export type Lane = {readonly kind: 'alarms'; readonly level: number} | {readonly kind: 'log'};

/** The lanes that there are, from above. */
export function lanesOf({alarms, log}: Events): Lane[] {
    const lanes: Lane[] = (alarms?.lanes ?? []).map(({level}) => ({kind: 'alarms', level}));
    return log ? [...lanes, {kind: 'log'}] : lanes;
}

export function heightOf(events: Events): number {
    const lanes = lanesOf(events).length;
    return lanes === 0 ? 0 : lanes * laneHeight + 8;
}

/** The lane at a height of the strip. */
export function laneAt(events: Events, y: number): Lane | null {
    return lanesOf(events)[Math.floor((y - 4) / laneHeight)] ?? null;
}

export function drawEvents(
    ctx: CanvasRenderingContext2D,
    events: Events,
    view: View,
    left: number,
    width: number,
    theme?: Element,
): void {
    const inner = width - left - rightSide;
    const x = (time: number): number => left + ((time - view.from) / (view.to - view.from)) * inner;
    ctx.font = '12px system-ui, sans-serif';
    ctx.textAlign = 'right';
    ctx.textBaseline = 'middle';
    const line = (row: number, title: string): number => {
        const middle = 4 + row * laneHeight + laneHeight / 2;
        ctx.fillStyle = colour('muted', theme);
        ctx.fillText(title, left - 8, middle);
        ctx.fillStyle = colour('lane', theme);
        ctx.fillRect(left, middle - barHeight / 2, inner, barHeight);
        return middle;
    };
    ctx.save();
    (events.alarms?.lanes ?? []).forEach(({level, spans}, row) => {
        const middle = line(row, `Level ${level}`);
        ctx.fillStyle = levelColour(level, theme);
        for (let i = 0; i < spans.length; i += 2) {
            const [begin, end] = [Math.max(left, x(spans[i]!)), Math.min(left + inner, x(spans[i + 1]!))];
            if (end >= left && begin <= left + inner)
                ctx.fillRect(begin, middle - barHeight / 2, Math.max(2, end - begin), barHeight);
        }
    });
    if (events.log) {
        const middle = line(events.alarms?.lanes.length ?? 0, 'Log');
        ctx.fillStyle = colour('log', theme);
        const {marks} = events.log;
        for (let i = 0; i < marks.length; i += 3) {
            const at = x(marks[i]!);
            if (at >= left && at <= left + inner) ctx.fillRect(at - 1, middle - barHeight / 2, 2, barHeight);
        }
    }
    ctx.restore();
}
