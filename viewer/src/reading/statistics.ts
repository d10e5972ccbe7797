// SPDX-License-Identifier: MIT

/** The distances in time between neighbouring samples, in milliseconds. */
export class SampleDistances {
    /** A gap is a distance of more than this times the usual one. */
    static readonly gapFactor = 5;

    private readonly counts = new Map<number, number>();
    private last = -1; // a device samples regularly: most distances are the one before
    private lastCount = 0;
    private longestSoFar = -1;

    /** Two neighbours in the order of recording, `end` not before `begin`. True when no distance was longer so far. */
    add(begin: number, end: number): boolean {
        const distance = end - begin;
        if (distance !== this.last) {
            this.settle();
            this.last = distance;
        }
        ++this.lastCount;
        if (distance <= this.longestSoFar) return false;
        this.longestSoFar = distance;
        return true;
    }

    /** Half of the distances are not longer. -1 without any. */
    usual(): number {
        this.settle();
        let all = 0;
        for (const count of this.counts.values()) all += count;
        let seen = 0;
        for (const distance of [...this.counts.keys()].sort((a, b) => a - b)) {
            seen += this.counts.get(distance)!;
            if (2 * seen >= all) return distance;
        }
        return -1;
    }

    gaps(): number {
        const longestUsual = SampleDistances.gapFactor * Math.max(this.usual(), 1);
        let gaps = 0;
        for (const [distance, count] of this.counts) gaps += distance > longestUsual ? count : 0;
        return gaps;
    }

    private settle(): void {
        if (this.lastCount > 0) this.counts.set(this.last, (this.counts.get(this.last) ?? 0) + this.lastCount);
        this.lastCount = 0;
    }
}

/** The figures of a series, taken in one pass in the order of recording. */
export class SeriesStatistics {
    rows = 0;
    numbers = 0; // values that are numbers; the figures are of these
    lowest = 0;
    highest = 0;
    private sum = 0;

    /** `value`: NaN for what is not a number. */
    add(value: number): void {
        ++this.rows;
        if (Number.isNaN(value)) return;
        this.lowest = this.numbers === 0 ? value : Math.min(this.lowest, value);
        this.highest = this.numbers === 0 ? value : Math.max(this.highest, value);
        this.sum += value;
        ++this.numbers;
    }

    get mean(): number {
        return this.numbers > 0 ? this.sum / this.numbers : 0;
    }
}
