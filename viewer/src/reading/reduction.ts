// SPDX-License-Identifier: MIT

export interface Point {
    readonly time: number; // milliseconds
    readonly value: number;
}

/**
 * The column, of so many of equal width from the time `first` to `last`, that a time belongs to; times before and after
 * belong to the outermost.
 */
export function pictureColumn(time: number, first: number, last: number, columns: number): number {
    const part = (time - first) / (last - first + 1);
    return Math.max(0, Math.min(columns - 1, Math.floor(part * columns)));
}

// Of each column: first, lowest, highest and last, each with its time and value.
const cellsOfColumn = 8;

/**
 * Reduces any number of points to at most four in each column of a picture: the first, the lowest, the highest and the
 * last. A line through them covers the very same pixels as one through all, so no spike is lost. The points may come in
 * any order.
 */
export class Reduction {
    readonly first: number;
    readonly last: number;
    readonly columns: number;
    count = 0;
    private readonly cells: Float64Array;
    private readonly used: Uint8Array;

    /** `columns` of equal width from the time `first` to `last`; points outside belong to the outermost columns. */
    constructor(first: number, last: number, columns: number) {
        this.first = first;
        this.last = Math.max(first, last);
        this.columns = Math.max(1, columns);
        this.cells = new Float64Array(this.columns * cellsOfColumn);
        this.used = new Uint8Array(this.columns);
    }

    columnOf(time: number): number {
        return pictureColumn(time, this.first, this.last, this.columns);
    }

    add(time: number, value: number): void {
        ++this.count;
        this.take(time, value);
    }

    /** The first, the lowest, the highest and the last of so many points of one column: pairs from `at` on. */
    addFour(points: ArrayLike<number>, at: number, count: number): void {
        this.count += count;
        for (let i = at; i < at + cellsOfColumn; i += 2) this.take(points[i]!, points[i + 1]!);
    }

    /** Adds what another reduction of the same columns holds. */
    merge(other: Reduction): void {
        this.count += other.count;
        for (let column = 0; column < this.columns; ++column) {
            for (let i = 0; other.used[column] && i < cellsOfColumn; i += 2)
                this.take(other.cells[column * cellsOfColumn + i]!, other.cells[column * cellsOfColumn + i + 1]!);
        }
    }

    // Of equal values the earliest: points that were summed up come in another order.
    private take(time: number, value: number): void {
        const column = this.columnOf(time);
        const {cells} = this;
        const at = column * cellsOfColumn;
        if (!this.used[column]) {
            this.used[column] = 1;
            for (let i = at; i < at + cellsOfColumn; i += 2) {
                cells[i] = time;
                cells[i + 1] = value;
            }
            return;
        }
        const put = (place: number): void => {
            cells[at + place] = time;
            cells[at + place + 1] = value;
        };
        if (time < cells[at]!) put(0);
        if (time >= cells[at + 6]!) put(6);
        if (value < cells[at + 3]! || (value === cells[at + 3]! && time < cells[at + 2]!)) put(2);
        if (value > cells[at + 5]! || (value === cells[at + 5]! && time < cells[at + 4]!)) put(4);
    }

    /** In the order of time. */
    points(): Point[] {
        const points: Point[] = [];
        for (let column = 0; column < this.columns; ++column) {
            if (!this.used[column]) continue;
            const four: Point[] = [];
            for (let i = column * cellsOfColumn; i < (column + 1) * cellsOfColumn; i += 2)
                four.push({time: this.cells[i]!, value: this.cells[i + 1]!});
            four.sort((a, b) => a.time - b.time);
            let before: Point | null = null;
            for (const point of four) {
                // the same point may be two of them
                if (!before || before.time !== point.time || before.value !== point.value) points.push(point);
                before = point;
            }
        }
        return points;
    }

    /**
     * As drawn: a new line begins where there is a pause of at least ten times the mean distance and three columns.
     * `count`: of all points of the picture, if these are only some.
     */
    lines(count = this.count): Point[][] {
        const lines: Point[][] = [];
        const distance = (this.last - this.first) / Math.max(1, count - 1);
        const column = (this.last - this.first) / this.columns;
        const pause = Math.max(10 * distance, 3 * column);
        let before: Point | null = null;
        for (const point of this.points()) {
            if (!before || point.time - before.time > pause) lines.push([]);
            lines[lines.length - 1]!.push(point);
            before = point;
        }
        return lines;
    }
}
