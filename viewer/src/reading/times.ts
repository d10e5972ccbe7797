// SPDX-License-Identifier: MIT
//
// The times of the tables, "yyyy-MM-dd hh:mm:ss" and ".zzz" after it in the log. They are the device's local time and
// no zone is known, so milliseconds count from 1970 as if a time were UTC: for differences and for places in a picture.
// Nothing here asks for the zone of this computer, except localNow().

const dayLength = 86400000;
const daysOfMonth = [31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31];

/** Of the year 0001. */
export const secondsBefore1970 = 62135596800;

function isLeap(year: number): boolean {
    return year % 4 === 0 && (year % 100 !== 0 || year % 400 === 0);
}

/** Days since 1970; NaN for a day that does not exist. */
export function dayOf(year: number, month: number, day: number): number {
    if (
        year < 1 ||
        month < 1 ||
        month > 12 ||
        day < 1 ||
        day > daysOfMonth[month - 1]! + (month === 2 && isLeap(year) ? 1 : 0)
    )
        return NaN;
    const shifted = month > 2 ? year : year - 1; // years begin in March, so that the leap day is the last
    const era = Math.floor(shifted / 400);
    const yearOfEra = shifted - era * 400;
    const dayOfYear = Math.floor((153 * ((month + 9) % 12) + 2) / 5) + day - 1;
    return (
        era * 146097 + yearOfEra * 365 + Math.floor(yearOfEra / 4) - Math.floor(yearOfEra / 100) + dayOfYear - 719468
    );
}

/** Reads times from UTF-8. Most rows are of the same day as the row before, so the last day is kept. */
export class TimeReader {
    private readonly text = new Uint8Array(10);
    private day = NaN;
    private readonly length: number;

    constructor(private readonly milliseconds: boolean) {
        this.length = milliseconds ? 23 : 19;
    }

    /** NaN for a text in any other form, and for a day or an hour that does not exist. */
    read(bytes: Uint8Array, at: number, size: number): number {
        if (
            size !== this.length ||
            bytes[at + 10] !== 0x20 ||
            bytes[at + 13] !== 0x3a ||
            bytes[at + 16] !== 0x3a ||
            (this.milliseconds && bytes[at + 19] !== 0x2e)
        )
            return NaN;
        let isSame = true;
        for (let i = 0; i < 10; ++i) isSame = isSame && this.text[i] === bytes[at + i];
        if (!isSame) this.readDay(bytes, at);
        const hour = twoDigits(bytes, at + 11);
        const minute = twoDigits(bytes, at + 14);
        const second = twoDigits(bytes, at + 17);
        if (!(hour < 24 && minute < 60 && second < 60)) return NaN;
        const fraction = this.milliseconds ? digits(bytes, at + 20, 3) : 0;
        return this.day * dayLength + hour * 3600000 + minute * 60000 + second * 1000 + fraction;
    }

    private readDay(bytes: Uint8Array, at: number): void {
        for (let i = 0; i < 10; ++i) this.text[i] = bytes[at + i]!;
        const hasForm = bytes[at + 4] === 0x2d && bytes[at + 7] === 0x2d;
        this.day = hasForm ? dayOf(digits(bytes, at, 4), twoDigits(bytes, at + 5), twoDigits(bytes, at + 8)) : NaN;
    }
}

function twoDigits(bytes: Uint8Array, at: number): number {
    const tens = bytes[at]! - 48;
    const ones = bytes[at + 1]! - 48;
    return tens >= 0 && tens <= 9 && ones >= 0 && ones <= 9 ? tens * 10 + ones : NaN;
}

function digits(bytes: Uint8Array, at: number, count: number): number {
    let value = 0;
    for (let i = 0; i < count; ++i) {
        const digit = bytes[at + i]! - 48;
        if (!(digit >= 0 && digit <= 9)) return NaN;
        value = value * 10 + digit;
    }
    return value;
}

/** Milliseconds of a time of the tables; null for any other text. Negative before 1970. */
export function timeIn(text: string, milliseconds: boolean): number | null {
    if (text.length !== (milliseconds ? 23 : 19)) return null;
    const bytes = Uint8Array.from(text, (character) => Math.min(255, character.charCodeAt(0)));
    const time = new TimeReader(milliseconds).read(bytes, 0, bytes.length);
    return Number.isNaN(time) ? null : time;
}

/** The same, -1 for any other text. */
export function millisecondsOf(text: string, milliseconds: boolean): number {
    return timeIn(text, milliseconds) ?? -1;
}

export function isTime(text: string, milliseconds: boolean): boolean {
    return timeIn(text, milliseconds) !== null;
}

/** The least and the greatest of some times. */
export class TimeSpan {
    from = Infinity;
    to = -Infinity;

    /** NaN is left out. */
    add(time: number): void {
        if (time < this.from) this.from = time;
        if (time > this.to) this.to = time;
    }

    get isEmpty(): boolean {
        return this.from > this.to;
    }
}

const padded = (number: number, width: number): string => String(number).padStart(width, '0');

/** A time as the tables have it. */
export function timeText(time: number, milliseconds: boolean): string {
    const text = new Date(time).toISOString(); // of UTC, whatever the zone
    return `${text.slice(0, 10)} ${text.slice(11, milliseconds ? 23 : 19)}`;
}

/** The end of an alarm in the form of the other times: the store takes any text, hosts write `/` or `-`. */
export function endOfAlarm(date: string | null, time: string | null): string {
    return `${date ?? ''} ${time ?? ''}`.replaceAll('/', '-');
}

/** "2 d 03:04:05", "1:05:00", "0.250 s". */
export function duration(milliseconds: number): string {
    if (milliseconds < 1000) return `${(milliseconds / 1000).toFixed(3)} s`;
    const seconds = Math.floor(milliseconds / 1000);
    const rest = seconds % 86400;
    return (
        (seconds >= 86400 ? `${Math.floor(seconds / 86400)} d ` : '') +
        `${Math.floor(rest / 3600)}:` +
        `${padded(Math.floor(rest / 60) % 60, 2)}:${padded(rest % 60, 2)}`
    );
}

/** The wall clock of this computer, as milliseconds of the tables. */
export function localNow(now = new Date()): number {
    return Date.UTC(
        now.getFullYear(),
        now.getMonth(),
        now.getDate(),
        now.getHours(),
        now.getMinutes(),
        now.getSeconds(),
    );
}

const written = new RegExp(
    '^(?:(\\d{4})([-/.])(\\d{1,2})\\2(\\d{1,2})|(\\d{1,2})\\.(\\d{1,2})\\.(\\d{4}))' +
        '(?:[ T]+(\\d{1,2}):(\\d\\d)(?::(\\d\\d)(?:[.,](\\d{1,9}))?)?)?$',
);

/**
 * A time of the device as people write it: the year first (- / .) or the day first (6.5.2024), with or without a time
 * of day. What is left out is filled up to the bound: a day as the last bound ends at 23:59:59.999. Null: not a time.
 */
export function writtenTime(given: string, bound: 'first' | 'last'): number | null {
    const match = written.exec(given.trim());
    if (!match) return null;
    const [year, month, day] = match[1] !== undefined ? [match[1], match[3], match[4]] : [match[7], match[6], match[5]];
    const part = (text: string | undefined, highest: number): number =>
        text !== undefined ? Number(text) : bound === 'last' ? highest : 0;
    const hour = part(match[8], 23);
    const minute = part(match[9], 59);
    const second = part(match[10], 59);
    const fraction = part(match[11]?.slice(0, 3).padEnd(3, '0'), 999);
    const days = dayOf(Number(year), Number(month), Number(day));
    if (Number.isNaN(days) || hour > 23 || minute > 59 || second > 59) return null;
    return days * dayLength + hour * 3600000 + minute * 60000 + second * 1000 + fraction;
}
