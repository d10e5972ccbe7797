// SPDX-License-Identifier: MIT
//
// Alarms and entries of the log as they lie in time.
import type {Range} from './curve.js';
import type {Lane} from './source.js';

interface Alarm {
    readonly level: number;
    readonly begin: number;
    readonly end: number; // Infinity while it lasts, and where the end is in a form of its own
}

/** 2,000 alarms one over the other show nothing: each level has a lane, in which those that overlap are one. */
export class Lanes {
    private readonly alarms: Alarm[] = [];
    private isSorted = true;

    /** Times in milliseconds; an alarm without a time is left out. `end`: negative for none. */
    add(level: number, begin: number, end: number): void {
        if (!(begin >= 0)) return;
        this.alarms.push({level, begin, end: end >= 0 ? end : Infinity});
        this.isSorted = false;
    }

    /** When the last one ends that has an end, or the last one begins; NaN without any. */
    get last(): number {
        return this.alarms.reduce((last, {begin, end}) => {
            const time = Number.isFinite(end) ? Math.max(begin, end) : begin;
            return last >= time ? last : time;
        }, NaN);
    }

    between({from, to, columns}: Range): Lane[] {
        if (!this.isSorted) this.alarms.sort((a, b) => b.level - a.level || a.begin - b.begin);
        this.isSorted = true;
        const column = (to - from) / columns;
        const lanes: (Lane & {spans: number[]; alarms: number})[] = [];
        for (const {level, begin, end} of this.alarms) {
            if (begin > to || end < from) continue;
            let lane = lanes[lanes.length - 1];
            if (!lane || lane.level !== level) lanes.push((lane = {level, alarms: 0, spans: []}));
            ++lane.alarms;
            const {spans} = lane;
            const [left, right] = [Math.max(begin, from), Math.min(end, to)];
            if (spans.length > 0 && left <= spans[spans.length - 1]! + column)
                spans[spans.length - 1] = Math.max(spans[spans.length - 1]!, right);
            else spans.push(left, right);
        }
        return lanes;
    }
}

/** The moments of a log, and which entry is where. */
export class Marks {
    private times: number[] = [];
    private ids: number[] = [];
    private isSorted = true;

    add(id: number, time: number): void {
        if (!(time >= 0)) return;
        this.isSorted = this.isSorted && !(time < this.times[this.times.length - 1]!);
        this.times.push(time);
        this.ids.push(id);
    }

    /** Time, number of entries and ID of the first, for each column that has some. */
    between({from, to, columns}: Range): number[] {
        if (!this.isSorted) {
            const order = this.times.map((_, i) => i).sort((a, b) => this.times[a]! - this.times[b]! || a - b);
            this.times = order.map((i) => this.times[i]!);
            this.ids = order.map((i) => this.ids[i]!);
            this.isSorted = true;
        }
        const width = Math.max(1, (to - from) / columns);
        const marks: number[] = [];
        let place = -1;
        for (let i = firstFrom(this.times, from); i < this.times.length && this.times[i]! <= to; ++i) {
            const column = Math.floor((this.times[i]! - from) / width);
            if (column === place) ++marks[marks.length - 2]!;
            else marks.push(this.times[i]!, 1, this.ids[i]!);
            place = column;
        }
        return marks;
    }
}

/** The place of the first that is not below. */
export function firstFrom(sorted: ArrayLike<number>, value: number): number {
    let [low, high] = [0, sorted.length];
    while (low < high) {
        const middle = (low + high) >> 1;
        if (sorted[middle]! < value) low = middle + 1;
        else high = middle;
    }
    return low;
}
