// SPDX-License-Identifier: MIT
//
// What people read: numbers in the form of their language, times exactly as the device has them.
import {duration, timeText} from '../reading/times.js';

const value = new Intl.NumberFormat(undefined, {maximumSignificantDigits: 15});
const huge = new Intl.NumberFormat(undefined, {maximumSignificantDigits: 15, notation: 'scientific'});
const whole = new Intl.NumberFormat();
const percent = new Intl.NumberFormat(undefined, {style: 'percent'});

/** A number of the file, with all its digits: a double holds fifteen of them, or a whole number. */
export function number(of: number): string {
    if (Number.isSafeInteger(of)) return whole.format(of || 0); // of the two zeros there is one
    const size = Math.abs(of);
    return size >= 1e15 || size < 1e-6 ? huge.format(of) : value.format(of);
}

/** A number that was reckoned, such as a mean: eight digits, and all of its whole part. */
export function reckoned(of: number): string {
    return number(Math.abs(of) >= 1e8 ? Math.round(of) : Number(of.toPrecision(8)));
}

export function count(of: number | bigint): string {
    return whole.format(of);
}

export function share(of: number): string {
    return percent.format(of);
}

/** To the second, or to the millisecond where there is one. */
export function time(of: number): string {
    return timeText(of, of % 1000 !== 0);
}

/** A span with its sign. */
export function span(of: number): string {
    return (of < 0 ? '\u2212' : '') + duration(Math.abs(of));
}

const second = 1000;
const minute = 60 * second;
const hour = 60 * minute;
const day = 24 * hour;
const steps = [
    1,
    2,
    5,
    10,
    20,
    50,
    100,
    200,
    500,
    second,
    2 * second,
    5 * second,
    10 * second,
    15 * second,
    30 * second,
    minute,
    2 * minute,
    5 * minute,
    10 * minute,
    15 * minute,
    30 * minute,
    hour,
    2 * hour,
    3 * hour,
    6 * hour,
    12 * hour,
    day,
    2 * day,
    7 * day,
    14 * day,
];
const months = [1, 2, 3, 6, 12, 24, 60, 120, 240, 600, 1200];

/**
 * The places of the labels of an axis of values: multiples of 1, 2 or 5 times a power of ten, at most so many; more
 * where that would leave less than two, which say nothing of a scale.
 */
export function valueTicks(low: number, high: number, most: number): number[] {
    const least = (high - low) / Math.max(1, most);
    const power = 10 ** Math.floor(Math.log10(least));
    const sizes = [0.5, 1, 2, 5, 10].map((each) => each * power);
    const place = sizes.findIndex((each) => each >= least * 0.999);
    const ticksOf = (step: number): number[] => {
        const ticks: number[] = [];
        for (let i = Math.ceil(low / step); i * step <= high && ticks.length <= Math.max(most, 5); ++i)
            ticks.push(Number((i * step).toPrecision(15)));
        return ticks;
    };
    const ticks = ticksOf(sizes[place]!);
    return ticks.length < 2 ? ticksOf(sizes[place - 1]!) : ticks;
}

/** The places of the labels of an axis of time, at most so many. */
export function timeTicks(from: number, to: number, most: number): number[] {
    const step = steps.find((each) => (to - from) / each <= most);
    const ticks: number[] = [];
    if (step !== undefined) {
        // Weeks begin on a Monday, as 1970-01-05 did.
        const origin = step >= 7 * day ? 4 * day : 0;
        for (let at = Math.ceil((from - origin) / step) * step + origin; at <= to; at += step) ticks.push(at);
        return ticks;
    }
    const every = months.find((each) => (to - from) / (30.4 * day * each) <= most) ?? 1200;
    const first = new Date(from).getUTCFullYear() * 12;
    for (let month = Math.floor(first / every) * every; ; month += every) {
        const at = Date.UTC(Math.floor(month / 12), month % 12, 1);
        if (at > to) return ticks;
        if (at >= from) ticks.push(at);
    }
}

/** The labels of timeTicks(): the day is below the first and wherever it changes. */
export function timeLabels(ticks: readonly number[]): string[] {
    const step = ticks.length > 1 ? ticks[1]! - ticks[0]! : day;
    let before = '';
    return ticks.map((tick) => {
        const text = timeText(tick, true);
        const date = text.slice(0, 10);
        if (step >= 28 * day)
            return ticks.every((each) => timeText(each, false).slice(5, 10) === '01-01')
                ? date.slice(0, 4)
                : date.slice(0, 7);
        if (step >= day) return date;
        const clock = step < second ? text.slice(11) : step < minute ? text.slice(11, 19) : text.slice(11, 16);
        const label = date === before ? clock : `${clock}\n${date}`;
        before = date;
        return label;
    });
}
