// SPDX-License-Identifier: MIT
import {beginningOf, decodedTwice, grouped, rowsText, shown} from '../reading/cells.js';
import type {Cell} from '../reading/cells.js';
import type {CsvOptions} from '../reading/csv.js';
import type {TableInfo} from '../reading/source.js';
import {columnsOf} from '../reading/tables.js';
import {button, h, unpacked} from './dom.js';
import {lastedText, momentOf} from './rows_view.js';
import {refusalOf} from './workspace.js';
import type {Workspace} from './workspace.js';

function open(title: string, content: readonly Node[], actions: readonly Node[]): HTMLDialogElement {
    const heading = h('h2', {id: 'dialog-title'}, title);
    const dialog = h(
        'dialog',
        {
            'aria-labelledby': 'dialog-title',
            onclose: () => dialog.remove(),
            onclick: (event: Event) => {
                if (event.target === dialog)
                    // beside it
                    dialog.close();
            },
        },
        h('div', {class: 'dialog'}, heading, ...content, h('div', {class: 'actions'}, ...actions)),
    );
    document.body.append(dialog);
    dialog.showModal();
    dialog.scrollTop = 0; // its buttons have the focus, and are at its end
    return dialog;
}

const longestCell = 100000; // characters: laying out a hundred times as many takes seconds

/** A row whole: every cell, with line ends and tabs as they are. */
export function showRow(workspace: Workspace, table: TableInfo, row: readonly Cell[]): void {
    const list = h('dl');
    const add = (title: string, cell: Cell, isTwice = false): void => {
        const begin = cell === null ? null : beginningOf(cell, longestCell);
        const text = begin === null ? 'NULL' : shown(isTwice ? decodedTwice(begin) : begin);
        const left = (cell?.length ?? 0) - (begin?.length ?? 0);
        const rest = left > 0 && h('p', {class: 'faint'}, `… ${grouped(left)} more; the CSV has all`);
        list.append(h('dt', {}, title), h('dd', {class: cell === null && 'faint'}, text, rest));
    };
    columnsOf(table.kind).forEach((column, i) => add(column.title, row[i + 1] ?? null, column.twice));
    if (table.kind === 'alarms') add('Lasted', lastedText(row) || 'not known');
    add('ID', row[0] ?? null);
    const moment = momentOf(table, row);
    const refusal = moment === null ? '' : refusalOf({from: moment, to: moment + 3600000});
    const dialog = open(
        workspace.titleOf(table),
        refusal === '' ? [list] : [list, h('p', {class: 'faint'}, refusal)],
        [
            moment !== null &&
                refusal === '' &&
                button(
                    'Show in trend',
                    () => {
                        dialog.close();
                        workspace.goTo(moment, table);
                    },
                    {class: 'first'},
                ),
            button('Close', () => dialog.close()),
        ].filter((action): action is HTMLButtonElement => action !== false),
    );
}

/**
 * How a CSV is to be written; `write` is called with the answer, and with a signal that ends it when the dialog is
 * closed. `rows`: null while nobody knows how many.
 */
export function askHowCsv(
    name: string,
    rows: number | null,
    write: (options: CsvOptions, signal: AbortSignal) => Promise<void>,
): void {
    const writing = new AbortController();
    const separator = h(
        'select',
        {id: 'csv-separator'},
        h('option', {value: ','}, 'Comma'),
        h('option', {value: ';'}, 'Semicolon'),
        h('option', {value: '\t'}, 'Tab'),
    );
    const decimal = h('input', {type: 'checkbox'});
    const bom = h('input', {type: 'checkbox'});
    const save = button(
        'Save',
        () => {
            save.disabled = true;
            save.textContent = 'Writing …';
            const options = {
                separator: separator.value as CsvOptions['separator'],
                decimalComma: decimal.checked,
                bom: bom.checked,
            };
            void write(options, writing.signal).then(() => dialog.close());
        },
        {class: 'first'},
    );
    const dialog = open(
        `Save ${name}`,
        [
            h('p', {}, `${rows === null ? 'All rows' : rowsText(rows)}, exactly as the cells are.`),
            h('p', {class: 'field'}, h('label', {for: 'csv-separator'}, 'Separator'), separator),
            h('label', {class: 'check'}, decimal, 'Numbers with a decimal comma'),
            h('label', {class: 'check'}, bom, 'Mark as UTF-8, for older spreadsheets'),
        ],
        [save, button('Cancel', () => dialog.close())],
    );
    dialog.addEventListener('close', () => writing.abort());
}

export function showHelp(): void {
    const keys: readonly (readonly [string, string])[] = [
        ['Drag, arrow left and right', 'move'],
        ['Wheel, pinch, + and −', 'zoom'],
        ['Shift and drag', 'zoom to what is marked'],
        ['Shift and wheel, Page up and down', 'move far'],
        ['Double click, Home', 'show all'],
        ['Click, Enter', 'set the second cursor'],
        [', and . (with Shift: faster)', 'move the cursor'],
        ['Escape', 'remove the second cursor'],
        ['Click on an alarm or a log mark', 'show it in its list'],
        ['1 to 5', 'change the view'],
    ];
    const list = h('dl', {class: 'keys'});
    keys.forEach(([key, what]) => list.append(h('dt', {}, key), h('dd', {}, what)));
    const dialog = open(
        'Mouse, fingers and keys',
        [
            list,
            h(
                'p',
                {class: 'faint'},
                'Times are those of the device, exactly as the file has them, whatever the zone of this ' +
                    'computer. The file is only read; ' +
                    'nothing leaves this computer.',
            ),
        ],
        [
            button('Licences', () => {
                dialog.close();
                void showLicences();
            }),
            button('Close', () => dialog.close(), {class: 'first'}),
        ],
    );
}

/** What the page is made of, with versions, and under which terms. */
async function showLicences(): Promise<void> {
    const text = await (await unpacked('licences')).text();
    const content = h('pre', {class: 'licences', tabindex: '0', role: 'group', 'aria-label': 'Licences'}, text);
    const dialog = open('Licences', [content], [button('Close', () => dialog.close(), {class: 'first'})]);
}
