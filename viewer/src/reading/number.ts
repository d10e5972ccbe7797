// SPDX-License-Identifier: MIT
//
// What a number is: host/number.cpp decides, not JavaScript. A unit, a decimal comma, "nan", "inf", hexadecimal digits,
// an empty text and what a double cannot hold are not numbers.

const form = /^[ \t]*[+-]?(?:[0-9]+\.?[0-9]*|\.[0-9]+)(?:[eE][+-]?[0-9]+)?[ \t]*$/;

/** The number that a value text holds, or null. */
export function numberOf(text: string): number | null {
    if (!form.test(text)) return null;
    const value = Number(text.replace(/[ \t]/g, ''));
    if (!Number.isFinite(value)) return null;
    // A number that is too small for a double is refused as one that is too large is.
    if (value === 0 && /[1-9]/.test(text.replace(/[eE].*/, ''))) return null;
    return value;
}

const powers = Array.from({length: 23}, (_, exponent) => Number(`1e${exponent}`));
const largestExact = 900719925474098; // any digit after it still fits into 53 bits

/**
 * The same for UTF-8 in memory; NaN for what is not a number. Plain decimals, nearly all that devices write, are read
 * without a string: both the digits and the power of ten are exact then, so their quotient is the nearest double.
 */
export function numberIn(bytes: Uint8Array, begin: number, end: number): number {
    let at = begin;
    let isNegative = false;
    if (at < end && (bytes[at] === 0x2d || bytes[at] === 0x2b)) {
        isNegative = bytes[at] === 0x2d;
        ++at;
    }
    let digits = 0;
    let decimals = -1;
    const first = at;
    for (; at < end; ++at) {
        const digit = bytes[at]! - 48;
        if (digit >= 0 && digit <= 9) {
            if (digits > largestExact) return slowly(bytes, begin, end);
            digits = digits * 10 + digit;
            if (decimals >= 0) ++decimals;
        } else if (digit === -2 && decimals < 0) {
            decimals = 0;
        } else {
            return slowly(bytes, begin, end);
        }
    }
    if (at - first - (decimals >= 0 ? 1 : 0) < 1 || decimals > 22) return slowly(bytes, begin, end);
    const value = decimals > 0 ? digits / powers[decimals]! : digits;
    return isNegative ? -value : value;
}

function slowly(bytes: Uint8Array, begin: number, end: number): number {
    let text = '';
    for (let i = begin; i < end; ++i) {
        if (bytes[i]! >= 0x80 || text.length > 4096) return NaN;
        text += String.fromCharCode(bytes[i]!);
    }
    return numberOf(text) ?? NaN;
}

/** The fewest digits that read back as the same double, as host/number.cpp writes them but for the exponent's form. */
export function numberText(value: number): string {
    return Object.is(value, -0) ? '-0' : String(value);
}
