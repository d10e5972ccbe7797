// SPDX-License-Identifier: MIT
//
// Below the panes: a lane for each level of alarms, and a line of marks for the operator log.
import type {LanesAnswer, MarksAnswer} from '../reading/source.js';
import {colour} from './dom.js';
import {rightSide} from './pane.js';
import type {View} from './pane.js';

const laneHeight = 18;
const barHeight = 10;

/** The alarms of a level, or the entries of the log. Several files may have some: those of each table, by its key. */
export type Lane =
    | {readonly kind: 'alarms'; readonly level: number; readonly spans: ReadonlyMap<string, readonly number[]>}
    | {readonly kind: 'log'; readonly marks: ReadonlyMap<string, readonly number[]>};

export function levelColour(level: number, of?: Element): string {
    return colour(level >= 3 ? 'level3' : level === 2 ? 'level2' : level === 1 ? 'level1' : 'level0', of);
}

/** From above: the highest level first, the log last. `answers`: by their tables. */
export function lanesOf(answers: ReadonlyMap<string, LanesAnswer | MarksAnswer>): Lane[] {
    const levels = new Map<number, Map<string, readonly number[]>>();
    const marks = new Map<string, readonly number[]>();
    for (const [key, answer] of answers) {
        if (answer.kind === 'log') marks.set(key, answer.marks);
        else
            for (const {level, spans} of answer.lanes)
                levels.set(level, (levels.get(level) ?? new Map<string, readonly number[]>()).set(key, spans));
    }
    const lanes = [...levels].sort(([a], [b]) => b - a);
    return [
        ...lanes.map(([level, spans]): Lane => ({kind: 'alarms', level, spans})),
        ...(marks.size > 0 ? [{kind: 'log', marks} as const] : []),
    ];
}

export function heightOf(lanes: readonly Lane[]): number {
    return lanes.length === 0 ? 0 : lanes.length * laneHeight + 8;
}

/** The lane at a height of the strip. */
export function laneAt(lanes: readonly Lane[], y: number): Lane | null {
    return lanes[Math.floor((y - 4) / laneHeight)] ?? null;
}

export function drawEvents(
    ctx: CanvasRenderingContext2D,
    lanes: readonly Lane[],
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
    lanes.forEach((lane, row) => {
        if (lane.kind === 'alarms') {
            const middle = line(row, `Level ${lane.level}`);
            ctx.fillStyle = levelColour(lane.level, theme);
            for (const spans of lane.spans.values()) {
                for (let i = 0; i < spans.length; i += 2) {
                    const [begin, end] = [Math.max(left, x(spans[i]!)), Math.min(left + inner, x(spans[i + 1]!))];
                    if (end >= left && begin <= left + inner)
                        ctx.fillRect(begin, middle - barHeight / 2, Math.max(2, end - begin), barHeight);
                }
            }
        } else {
            const middle = line(row, 'Log');
            ctx.fillStyle = colour('log', theme);
            for (const marks of lane.marks.values()) {
                for (let i = 0; i < marks.length; i += 3) {
                    const at = x(marks[i]!);
                    if (at >= left && at <= left + inner) ctx.fillRect(at - 1, middle - barHeight / 2, 2, barHeight);
                }
            }
        }
    });
    ctx.restore();
}
