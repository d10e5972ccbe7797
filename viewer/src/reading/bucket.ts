// SPDX-License-Identifier: MIT
//
// Summing up samples, as host/bucket.cpp does: what a span of time has in common, and how the file holds it.
import {numberOf} from './number.js';

/** Of the samples of one span. Times are seconds since the year 1 began. */
export interface Sum {
    rows: number;
    numbers: number;
    sum: number;
    points: Float64Array; // lowest, highest, first and last: time and value of each
}

export const lowest = 0;
export const highest = 2;
export const first = 4;
export const last = 6;

const mostRows = 2 ** 40;
const decimal = /^-?(?:[0-9]+\.?[0-9]*|\.[0-9]+)(?:[eE][+-]?[0-9]+)?$/;

/**
 * A bucket as the file has it: docs/files.md, "Trends". `start`: the second at which it begins; `width` in seconds.
 * Null for a text that is not one.
 */
export function sumOf(text: string, start: number, width: number): Sum | null {
    const fields = text.split(';');
    const counts = /^(\d*)(?:\/(\d+))?$/.exec(fields.shift()!);
    const rows = counts?.[1] ? Number(counts[1]) : width;
    const numbers = counts?.[2] !== undefined ? Number(counts[2]) : rows;
    if (!counts || rows < 1 || numbers > rows || rows > mostRows) return null;
    const points = new Float64Array(8);
    if (numbers === 0) return fields.length === 0 ? {rows, numbers, sum: 0, points} : null;
    const sum = decimal.test(fields[0] ?? '') ? Number(fields.shift()) : NaN;
    if (!Number.isFinite(sum)) return null;
    for (let i = 0; i < 8; i += 2) {
        const value = fields.shift();
        if ((value === '-' && i > lowest) || (value === '+' && i > highest)) {
            points.copyWithin(i, value === '-' ? lowest : highest, value === '-' ? lowest + 2 : highest + 2);
            continue;
        }
        const number = numberOf(value ?? '');
        const offset = fields.length === 0 && i === last ? String(width - 1) : fields.shift();
        if (number === null || offset === undefined || !/^\d*$/.test(offset) || Number(offset) >= width) return null;
        points[i] = start + Number(offset);
        points[i + 1] = number;
    }
    return fields.length === 0 ? {rows, numbers, sum, points} : null;
}

/** The samples of one span, added up in any order; of samples with equal times the one recorded first comes first. */
export class Bucket {
    rows = 0;
    numbers = 0;
    readonly points = new Float64Array(8);
    private total = 0;
    private rest = 0; // what rounding took from the sum

    /** `value`: NaN for what is not a number. */
    add(time: number, value: number): void {
        ++this.rows;
        if (!Number.isNaN(value)) {
            this.addToSum(value);
            this.take(1, time, value, time, value, time, value, time, value);
        }
    }

    addSum({rows, numbers, sum, points}: Sum): void {
        this.rows += rows;
        if (numbers === 0) return;
        this.addToSum(sum);
        this.take(
            numbers,
            points[lowest]!,
            points[lowest + 1]!,
            points[highest]!,
            points[highest + 1]!,
            points[first]!,
            points[first + 1]!,
            points[last]!,
            points[last + 1]!,
        );
    }

    get sum(): number {
        return this.total + this.rest;
    }

    get mean(): number {
        return this.numbers > 0 ? this.sum / this.numbers : 0;
    }

    private take(
        numbers: number,
        lowTime: number,
        low: number,
        highTime: number,
        high: number,
        firstTime: number,
        firstValue: number,
        lastTime: number,
        lastValue: number,
    ): void {
        const {points} = this;
        const isFirst = this.numbers === 0;
        this.numbers += numbers;
        if (isFirst || low < points[lowest + 1]! || (low === points[lowest + 1]! && lowTime < points[lowest]!))
            this.put(lowest, lowTime, low);
        if (isFirst || high > points[highest + 1]! || (high === points[highest + 1]! && highTime < points[highest]!))
            this.put(highest, highTime, high);
        if (isFirst || firstTime < points[first]!) this.put(first, firstTime, firstValue);
        if (isFirst || lastTime >= points[last]!) this.put(last, lastTime, lastValue);
    }

    private put(place: number, time: number, value: number): void {
        this.points[place] = time;
        this.points[place + 1] = value;
    }

    // Neumaier's summation: what a long sum loses to rounding is kept beside it.
    private addToSum(value: number): void {
        const sum = this.total + value;
        if (Number.isFinite(sum))
            this.rest += Math.abs(this.total) >= Math.abs(value) ? this.total - sum + value : value - sum + this.total;
        else this.rest = 0; // the values are too large to be summed up
        this.total = sum;
    }
}
