// SPDX-License-Identifier: MIT

/** Rows that follow each other in a table: what all of them have in common. */
export interface Block {
    firstId: number;
    lastId: number; // or one after it that no other row has
    rows: number;
    timed: number; // of the rows, those with a time from 1970 on; the rest is of these
    numbers: number;
    earliest: number;
    latest: number;
    run: number; // which stretch without a step back of the clock they belong to
    sum: number;
    points: Float64Array; // of the numbers: first, lowest, highest and last, each with time and value
}

const rowsOfBlock = 128; // so few that the rows of a block are read again in well below a millisecond
const stride = 17;

/**
 * Sums of every 128 rows of a table in the order of recording, made while all of them are read once: any picture after
 * that needs only the rows of blocks that lie across the edge of a column.
 */
export class Blocks {
    private data = new Float64Array(1024 * stride);
    private count = 0;
    private open: Block | null = null;
    private before = -1; // the time of the row before
    private runs = 0;

    get size(): number {
        return this.count;
    }

    /** `time`: NaN without one. `value`: NaN for what is not a number. The ID is asked for when a block begins. */
    add(row: {readonly id: number}, time: number, value: number): void {
        const isTimed = time >= 0;
        const isBack = isTimed && time < this.before;
        if (isBack) ++this.runs;
        if (isTimed) this.before = time;
        let block = this.open;
        if (!block || block.rows >= rowsOfBlock || isBack) {
            const {id} = row;
            this.close(id - 1);
            block = this.open = {
                firstId: id,
                lastId: id,
                rows: 0,
                timed: 0,
                numbers: 0,
                earliest: time,
                latest: time,
                run: this.runs,
                sum: 0,
                points: new Float64Array(8),
            };
        }
        ++block.rows;
        if (!isTimed) return;
        if (block.timed++ === 0) block.earliest = time;
        block.latest = time; // times within a block do not go back
        if (Number.isNaN(value)) return;
        const {points} = block;
        if (block.numbers++ === 0) {
            for (let i = 0; i < 8; i += 2) {
                points[i] = time;
                points[i + 1] = value;
            }
        }
        block.sum += value;
        points[6] = time;
        points[7] = value;
        if (value < points[3]!) {
            points[2] = time;
            points[3] = value;
        }
        if (value > points[5]!) {
            points[4] = time;
            points[5] = value;
        }
    }

    /** All rows up to this ID are added. */
    close(lastId: number): void {
        const block = this.open;
        this.open = null;
        if (!block) return;
        block.lastId = lastId;
        if ((this.count + 1) * stride > this.data.length) {
            const larger = new Float64Array(this.data.length * 2);
            larger.set(this.data);
            this.data = larger;
        }
        const at = this.count++ * stride;
        this.data.set(
            [
                block.firstId,
                block.lastId,
                block.rows,
                block.timed,
                block.numbers,
                block.earliest,
                block.latest,
                block.run,
                block.sum,
            ],
            at,
        );
        this.data.set(block.points, at + 9);
    }

    at(index: number): Block {
        const {data} = this;
        const at = index * stride;
        return {
            firstId: data[at]!,
            lastId: data[at + 1]!,
            rows: data[at + 2]!,
            timed: data[at + 3]!,
            numbers: data[at + 4]!,
            earliest: data[at + 5]!,
            latest: data[at + 6]!,
            run: data[at + 7]!,
            sum: data[at + 8]!,
            points: data.subarray(at + 9, at + stride),
        };
    }

    /** The place of the first block from one on with rows between two times, both included; `size` without one. */
    next(index: number, from: number, to: number): number {
        const {data} = this;
        for (; index < this.count; ++index) {
            const at = index * stride;
            if (data[at + 3]! > 0 && data[at + 5]! <= to && data[at + 6]! >= from) break;
        }
        return index;
    }

    /** The block with the row of this number, from 0 on in the order of recording, and the number of its first row. */
    withRow(number: number): [Block, number] | null {
        let begin = 0;
        for (let i = 0; i < this.count; ++i) {
            const rows = this.data[i * stride + 2]!;
            if (number < begin + rows) return [this.at(i), begin];
            begin += rows;
        }
        return null;
    }
}
