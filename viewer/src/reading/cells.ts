// SPDX-License-Identifier: MIT

/**
 * A cell of the file. Bytes that are not UTF-8 become one of U+DC80 to U+DCFF each: they occur in no valid text, so
 * bytesOf() gives back the very bytes. NULL is null.
 */
export type Cell = string | null;

const strict = new TextDecoder('utf-8', {fatal: true, ignoreBOM: true});
const encoder = new TextEncoder();
const escapeBase = 0xdc00;

/** The length of the UTF-8 sequence at this place, 0 if there is none. */
function sequenceAt(bytes: Uint8Array, at: number): number {
    const lead = bytes[at]!;
    const size = lead < 0x80 ? 1 : lead < 0xc2 ? 0 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : lead < 0xf5 ? 4 : 0;
    if (size === 0 || at + size > bytes.length) return 0;
    const second = size > 1 ? bytes[at + 1]! : 0x80;
    const lowest = lead === 0xe0 ? 0xa0 : lead === 0xf0 ? 0x90 : 0x80;
    const highest = lead === 0xed ? 0x9f : lead === 0xf4 ? 0x8f : 0xbf;
    if (second < lowest || second > highest) return 0;
    for (let i = 2; i < size; ++i) {
        if ((bytes[at + i]! & 0xc0) !== 0x80) return 0;
    }
    return size;
}

export function textOf(bytes: Uint8Array): string {
    try {
        return strict.decode(bytes);
    } catch {
        let text = '';
        let begin = 0;
        for (let at = 0; at < bytes.length;) {
            const size = sequenceAt(bytes, at);
            if (size > 0) {
                at += size;
                continue;
            }
            text += strict.decode(bytes.subarray(begin, at)) + String.fromCharCode(escapeBase + bytes[at]!);
            begin = ++at;
        }
        return text + strict.decode(bytes.subarray(begin));
    }
}

export function bytesOf(text: string): Uint8Array {
    if (!/[\udc80-\udcff]/.test(text)) return encoder.encode(text);
    const parts: number[] = [];
    for (const character of text) {
        const code = character.charCodeAt(0);
        if (character.length === 1 && code >= 0xdc80 && code <= 0xdcff) parts.push(code - escapeBase);
        else parts.push(...encoder.encode(character));
    }
    return Uint8Array.from(parts);
}

export function isUtf8(text: string): boolean {
    return !/(?<![\ud800-\udbff])[\udc80-\udcff]/.test(text);
}

function isAscii(text: string): boolean {
    return !/[^\x00-\x7f]/.test(text);
}

/** A cell that the store library encoded twice as it was meant; any other as it is. */
export function decodedTwice(cell: string): string {
    if (isAscii(cell)) return cell;
    const text = cell.startsWith('\ufeff') ? cell.slice(1) : cell; // as QString::fromUtf8() reads the beginning
    if (/[^\x00-\xff]/.test(text)) return cell;
    const once = Uint8Array.from(text, (character) => character.charCodeAt(0));
    if (once[0] === 0xef && once[1] === 0xbb && once[2] === 0xbf) return cell;
    try {
        return strict.decode(once);
    } catch {
        return cell;
    }
}

/**
 * For people, on as many lines as the text has: control characters, those that change the direction of a text and bytes
 * that are not UTF-8 as U+FFFD.
 */
export function shown(text: string): string {
    return text
        .replace(/\r\n/g, '\n')
        .replace(
            /[\x00-\x08\x0b-\x1f\x7f-\x9f\u2028-\u202e\u2066-\u2069]|(?<![\ud800-\udbff])[\udc80-\udcff]/g,
            '\ufffd',
        );
}

/** The same on one line: line ends and tabs are signs. */
export function visible(text: string): string {
    return shown(text).replace(/\n/g, ' \u21b5 ').replace(/\t/g, ' \u21e5 ');
}

/** At most so many units of a text from its beginning; what they stand for ends whole, encoded twice or not. */
export function beginningOf(text: string, most: number): string {
    if (text.length <= most) return text;
    // Bytes that go on, the second half of a pair, a line end after its first character: four of them are no text.
    const goesOn = (at: number): boolean => /[\x80-\xbf\udc00-\udfff\n]/.test(text[at]!);
    let end = most;
    while (end > most - 4 && goesOn(end)) --end;
    return text.slice(0, goesOn(end) ? most : end);
}

/** The order of the bytes of two texts, as SQLite and the C++ side compare. Negative: the first comes first. */
export function compareBytes(a: string, b: string): number {
    if (isAscii(a) && isAscii(b)) return a < b ? -1 : a > b ? 1 : 0;
    const left = bytesOf(a);
    const right = bytesOf(b);
    for (let i = 0; i < Math.min(left.length, right.length); ++i) {
        if (left[i] !== right[i]) return left[i]! - right[i]!;
    }
    return left.length - right.length;
}

/** One UTF-16 unit as Unicode's simple case folding has it. */
function folded(unit: string): string {
    if (unit === '\u0131')
        // the dotless i folds to itself
        return unit;
    const upper = unit.toUpperCase();
    const lower = (upper.length === 1 ? upper : unit).toLowerCase();
    return lower.length === 1 ? lower : unit;
}

/** Whether one name comes before another as people count: S2 before S10, whatever the case of the letters. */
export function comesBefore(name: string, other: string): boolean {
    const isDigit = (character: string): boolean => character >= '0' && character <= '9';
    const numberAt = (text: string, begin: number): [string, number] => {
        let end = begin;
        while (end < text.length && isDigit(text[end]!)) ++end;
        return [text.slice(begin, end).replace(/^0+(?=.)/, ''), end];
    };
    let i = 0;
    let k = 0;
    while (i < name.length && k < other.length) {
        if (isDigit(name[i]!) && isDigit(other[k]!)) {
            const [left, leftEnd] = numberAt(name, i);
            const [right, rightEnd] = numberAt(other, k);
            i = leftEnd;
            k = rightEnd;
            if (left !== right) return left.length !== right.length ? left.length < right.length : left < right;
        } else {
            const left = folded(name[i++]!);
            const right = folded(other[k++]!);
            if (left !== right) return left < right;
        }
    }
    const rest = name.length - i - (other.length - k);
    return rest === 0 ? name < other : rest < 0;
}

/** A name as SQL and the stores compare it: without regard to the case of ASCII letters. */
export function plainName(name: string): string {
    return name.replace(/[A-Z]/g, (letter) => letter.toLowerCase());
}

/** Whether two names are one. */
export function isSameName(a: string, b: string): boolean {
    return plainName(a) === plainName(b);
}

/** The names of files, those that had one already with a number. */
export function distinctNames(names: readonly string[]): string[] {
    const used = new Set<string>();
    return names.map((name) => {
        let distinct = name;
        for (let i = 2; used.has(distinct) || (i > 2 && names.includes(distinct)); ++i) distinct = `${name} (${i})`;
        used.add(distinct);
        return distinct;
    });
}

/** 1234567 as "1,234,567". */
export function grouped(number: number): string {
    return String(number).replace(/\B(?=(\d{3})+$)/g, ',');
}

/** "1 row", "1,234 rows". */
export function rowsText(rows: number): string {
    return grouped(rows) + (rows === 1 ? ' row' : ' rows');
}

/** "12.3 MB". */
export function bytesText(bytes: number): string {
    if (bytes < 1000) return `${bytes} B`;
    let value = bytes;
    let unit = 'B';
    for (const next of ['kB', 'MB', 'GB']) {
        if (value < 999.5) break;
        value /= 1000;
        unit = next;
    }
    return `${value.toFixed(value < 99.95 ? 1 : 0)} ${unit}`;
}

/** An identifier of SQL between double quotes. */
export function identifier(name: string): string {
    return `"${name.replaceAll('"', '""')}"`;
}
