// SPDX-License-Identifier: MIT
import {bytesOf} from './cells.js';
import type {Cell} from './cells.js';
import {numberOf} from './number.js';
import {columnsOf} from './tables.js';
import type {Kind} from './tables.js';

export interface CsvOptions {
    readonly separator: ',' | ';' | '\t';
    /** Numbers with a comma in place of the point, for a spreadsheet of such a country. Cells are exact without it. */
    readonly decimalComma: boolean;
    readonly bom: boolean; // a mark that the text is UTF-8, for spreadsheets that guess otherwise
}

function line(cells: readonly string[], separator: string): string {
    const row = cells
        .map((cell) => (cell.includes(separator) || /["\n\r]/.test(cell) ? `"${cell.replaceAll('"', '""')}"` : cell))
        .join(separator);
    return `${row === '' ? '""' : row}\n`; // a row of one empty cell would be an empty line
}

/** The columns whose texts may be numbers. */
const valueColumns = new Set(['value', 'limit']);

/** Rows as RFC 4180 has them, as device-db writes them: exactly the cells, NULL as an empty text, without the IDs. */
export function csvOf(
    kind: Kind,
    rows: readonly (readonly Cell[])[],
    options: CsvOptions,
    withHead = true,
): Uint8Array {
    const columns = columnsOf(kind);
    const head = withHead
        ? line(
              columns.map(({key}) => key),
              options.separator,
          )
        : '';
    const text = (cell: Cell, column: number): string =>
        options.decimalComma && cell !== null && valueColumns.has(columns[column]!.key) && numberOf(cell) !== null
            ? cell.replace('.', ',')
            : (cell ?? '');
    const body = rows.map((row) => line(row.slice(1).map(text), options.separator)).join('');
    return bytesOf((options.bom && withHead ? '\ufeff' : '') + head + body);
}
