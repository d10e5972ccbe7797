// SPDX-License-Identifier: MIT
//
// One picture with a scale of its own: axes and grid are uPlot's, the lines are drawn here, because gaps, steps of the
// clock and points of several series at different times have no place in one table of columns.
import uPlot from 'uplot';

import type {CurveAnswer} from '../reading/source.js';
import {number, timeLabels, timeTicks, valueTicks} from './format.js';

/** What is drawn of one series. */
export interface Drawn {
    readonly title: string;
    readonly colour: string;
    readonly answer: CurveAnswer | null;
    readonly steps: readonly number[]; // where the clock went back
}

export interface Colours {
    readonly faint: string;
    readonly grid: string;
}

export interface View {
    readonly from: number;
    readonly to: number;
}

export const rightSide = 16;

const font = '12px system-ui, sans-serif';
const axisHeight = 40;
const titleHeight = 20;
const labelWidth = 80;
const labelRoom = 22;
const valueDistance = 36;
const leastLeft = 64;
const labelMargin = 14; // between the edge, a label and the pane

export class Pane {
    readonly element = document.createElement('div');
    private readonly plot: uPlot;
    private drawn: readonly Drawn[] = [];
    private view: View = {from: 0, to: 1};
    private low = 0; // the ends of the scale
    private high = 1;
    private left = leastLeft;

    constructor(
        private readonly hasTimes: boolean,
        private colours: Colours,
        width: number,
        height: number,
    ) {
        this.element.className = 'pane';
        this.plot = new uPlot(
            {
                width,
                height,
                padding: [titleHeight, rightSide, hasTimes ? 0 : 6, 0],
                legend: {show: false},
                cursor: {show: false},
                scales: {
                    x: {time: false, range: () => [this.view.from, this.view.to]},
                    y: {range: () => [0, 1]}, // uPlot has no scale for whole parts of more than 17 digits
                },
                axes: [
                    {
                        show: true,
                        size: hasTimes ? axisHeight : 0,
                        font,
                        stroke: () => this.colours.faint,
                        grid: {stroke: () => this.colours.grid, width: 1},
                        ticks: {show: false},
                        splits: (self) =>
                            timeTicks(
                                this.view.from,
                                this.view.to,
                                Math.max(2, self.bbox.width / devicePixelRatio / labelWidth),
                            ),
                        values: (self, ticks) =>
                            (hasTimes ? timeLabels(ticks) : ticks.map(() => '')).map((label, i) =>
                                // Half of it would be cut off at the right edge.
                                self.bbox.width / devicePixelRatio - self.valToPos(ticks[i]!, 'x') < labelRoom
                                    ? ''
                                    : label,
                            ),
                    },
                    {
                        size: () => this.left,
                        font,
                        stroke: () => this.colours.faint,
                        grid: {stroke: () => this.colours.grid, width: 1},
                        ticks: {show: false},
                        splits: () => this.valueTicks().map((tick) => this.shareOf(tick)),
                        values: () => this.valueTicks().map(number),
                    },
                ],
                series: [{}, {show: true, paths: () => null, points: {show: false}}],
                hooks: {draw: [(self) => this.draw(self)]},
            },
            [
                [0, 1],
                [0, 1],
            ],
            this.element,
        );
        // uPlot's own element is for pointers; here the chart around all panes takes them.
        this.plot.root.setAttribute('aria-hidden', 'true');
    }

    resize(width: number, height: number): void {
        this.plot.setSize({width, height});
    }

    /** What is drawn with the next show(). The result is the room that its labels need at the left, in CSS pixels. */
    take(view: View, drawn: readonly Drawn[]): number {
        this.view = view;
        this.drawn = drawn;
        [this.low, this.high] = this.range();
        const {ctx} = this.plot;
        ctx.save();
        ctx.font = font;
        const widths = this.valueTicks().map((tick) => ctx.measureText(number(tick)).width);
        ctx.restore();
        return Math.max(leastLeft, Math.ceil(Math.max(...widths)) + labelMargin);
    }

    /** `left`: the same of all panes, so that times are above each other. */
    show(left: number, colours: Colours): void {
        const {view} = this;
        const isOther = this.left !== left;
        this.left = left;
        this.colours = colours;
        this.plot.setData([
            [view.from, view.to],
            [0, 1],
        ]);
        if (isOther) this.plot.redraw(false, true); // uPlot asks for it again only with another scale
    }

    get canvas(): HTMLCanvasElement {
        return this.plot.ctx.canvas;
    }

    get showsTimes(): boolean {
        return this.hasTimes;
    }

    destroy(): void {
        this.plot.destroy();
        this.element.remove();
    }

    private valueTicks(): number[] {
        if (this.drawn.every(({answer}) => (answer?.points ?? []).length === 0)) return []; // texts have no scale
        return valueTicks(this.low, this.high, this.plot.bbox.height / devicePixelRatio / valueDistance);
    }

    private shareOf(value: number): number {
        return (value - this.low) / (this.high - this.low);
    }

    // Of what is in view: lines may reach out of it at both sides.
    private range(): [number, number] {
        let [low, high] = [Infinity, -Infinity];
        for (const {answer} of this.drawn) {
            const points = answer?.points ?? [];
            for (let i = 0; i < points.length; i += 2) {
                if (points[i]! >= this.view.from && points[i]! <= this.view.to) {
                    low = Math.min(low, points[i + 1]!);
                    high = Math.max(high, points[i + 1]!);
                }
            }
        }
        if (low > high) return [0, 1];
        const room = high > low ? (high - low) * 0.06 : low === 0 ? 1 : Math.abs(low) * 0.02;
        const range: [number, number] = [low - room, high + room];
        return range.every(Number.isFinite) ? range : [low / 2 - 1, high / 2 + 1];
    }

    private draw(plot: uPlot): void {
        const {ctx, bbox} = plot;
        const ratio = devicePixelRatio;
        ctx.save();
        ctx.beginPath();
        ctx.rect(bbox.left, bbox.top, bbox.width, bbox.height);
        ctx.clip();
        const x = (time: number): number => plot.valToPos(time, 'x', true);
        const y = (value: number): number => plot.valToPos(this.shareOf(value), 'y', true);
        ctx.lineJoin = 'round';
        for (const {answer, colour, steps} of this.drawn) {
            ctx.strokeStyle = ctx.fillStyle = colour;
            ctx.lineWidth = ratio;
            ctx.setLineDash([4 * ratio, 4 * ratio]);
            ctx.beginPath();
            for (const step of steps) {
                ctx.moveTo(Math.round(x(step)) + 0.5, bbox.top);
                ctx.lineTo(Math.round(x(step)) + 0.5, bbox.top + bbox.height);
            }
            ctx.stroke();
            ctx.setLineDash([]);
            if (!answer) continue;
            ctx.lineWidth = 1.5 * ratio;
            if (answer.isSample) this.drawDots(ctx, answer.points, x, y, 2.5 * ratio);
            for (const line of answer.lines) drawLine(ctx, line, x, y, ratio);
            // Values that are not numbers have no place on the scale: crosses at its lower edge.
            const size = 3 * ratio;
            const low = bbox.top + bbox.height - 6 * ratio;
            ctx.beginPath();
            for (const time of answer.others) {
                const at = x(time);
                ctx.moveTo(at - size, low - size);
                ctx.lineTo(at + size, low + size);
                ctx.moveTo(at - size, low + size);
                ctx.lineTo(at + size, low - size);
            }
            ctx.stroke();
        }
        ctx.restore();
        this.drawTitles(plot);
    }

    // Above the pane, so that nobody has to know a series by its colour.
    private drawTitles({ctx, bbox}: uPlot): void {
        const ratio = devicePixelRatio;
        ctx.save();
        ctx.scale(ratio, ratio);
        ctx.font = font;
        ctx.textAlign = 'left';
        ctx.textBaseline = 'middle';
        const middle = bbox.top / ratio - titleHeight / 2 + 1;
        const right = (bbox.left + bbox.width) / ratio;
        let x = bbox.left / ratio;
        for (const {title, colour} of this.drawn) {
            ctx.fillStyle = colour;
            ctx.fillRect(x, middle - 2, 12, 4);
            ctx.fillStyle = this.colours.faint;
            if (right - x > labelWidth) ctx.fillText(title, x + 18, middle, right - x - 18);
            x += 18 + ctx.measureText(title).width + 18;
            if (x > right) break;
        }
        ctx.restore();
    }

    private drawDots(
        ctx: CanvasRenderingContext2D,
        points: readonly number[],
        x: (time: number) => number,
        y: (value: number) => number,
        size: number,
    ): void {
        for (let i = 0; i < points.length; i += 2)
            ctx.fillRect(x(points[i]!) - size / 2, y(points[i + 1]!) - size / 2, size, size);
    }
}

/** All of these, one above the other, with the same room for their labels, which is the result, in CSS pixels. */
export function showPanes(
    panes: readonly Pane[],
    view: View,
    drawn: readonly (readonly Drawn[])[],
    colours: Colours,
): number {
    const left = Math.max(leastLeft, ...panes.map((pane, i) => pane.take(view, drawn[i]!)));
    panes.forEach((pane) => pane.show(left, colours));
    return left;
}

function drawLine(
    ctx: CanvasRenderingContext2D,
    line: readonly number[],
    x: (time: number) => number,
    y: (value: number) => number,
    ratio: number,
): void {
    if (line.length === 2) {
        // a single point between two gaps
        ctx.fillRect(x(line[0]!) - 1.5 * ratio, y(line[1]!) - 1.5 * ratio, 3 * ratio, 3 * ratio);
        return;
    }
    ctx.beginPath();
    ctx.moveTo(x(line[0]!), y(line[1]!));
    for (let i = 2; i < line.length; i += 2) ctx.lineTo(x(line[i]!), y(line[i + 1]!));
    ctx.stroke();
}
