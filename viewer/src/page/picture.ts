// SPDX-License-Identifier: MIT
//
// Out again, for paper and for a report: the trend as it is shown, in light colours and with its figures.
import type {Cell} from '../reading/cells.js';
import type {TableInfo} from '../reading/source.js';
import {timeText} from '../reading/times.js';
import {coloursOf, groupsOf} from './chart.js';
import type {Chart} from './chart.js';
import {colour, download, h} from './dom.js';
import {drawEvents, heightOf} from './events_strip.js';
import {count} from './format.js';
import type {Column} from './list.js';
import {Pane, showPanes} from './pane.js';
import type {View} from './pane.js';
import type {Workspace} from './workspace.js';

const width = 1200;
const paneHeight = 320;
const panesHeight = 420; // so that the figures fit below it on a page of A4
const axisHeight = 40;
const lineHeight = 22;
const longestPrinted = 5000; // characters of a cell

function rangeText({from, to}: View): string {
    return `${timeText(from, false)} to ${timeText(to, false)}, device time`;
}

function filesText({files}: Workspace): string {
    return files.map(({name}) => name).join(', ');
}

function figuresOf(workspace: Workspace, chart: Chart): string[][] {
    return workspace.chosen.map((key) => [workspace.titleOf(workspace.table(key)), ...chart.figuresOf(key)]);
}

const figureHeads = ['Series', 'Lowest', 'Highest', 'Mean', 'Numbers'];

/** The panes and events alone, drawn in light colours. */
async function drawTrend(workspace: Workspace, chart: Chart): Promise<HTMLCanvasElement> {
    const {view} = workspace;
    const {lanes} = chart;
    const theme = h('div', {class: 'light offstage'});
    document.body.append(theme);
    const groups = groupsOf(workspace);
    const each = Math.max(110, Math.min(paneHeight, Math.floor(panesHeight / groups.length)));
    const ratio = devicePixelRatio;
    const canvas = h('canvas', {
        width: width * ratio,
        height: (groups.length * each + axisHeight + heightOf(lanes) + 8) * ratio,
    });
    const ctx = canvas.getContext('2d')!;
    ctx.fillStyle = '#ffffff';
    ctx.fillRect(0, 0, canvas.width, canvas.height);
    const panes = groups.map((_, i) => {
        const isLast = i === groups.length - 1;
        const pane = new Pane(isLast, coloursOf(theme), width, each + (isLast ? axisHeight : 0));
        theme.append(pane.element);
        return pane;
    });
    const drawn = groups.map((keys) => chart.drawnOf(keys, theme));
    const left = showPanes(panes, view, drawn, coloursOf(theme));
    await new Promise((resume) => setTimeout(resume)); // uPlot draws when the script rests
    panes.forEach((pane, i) => {
        ctx.drawImage(pane.canvas, 0, i * each * ratio);
        pane.destroy();
    });
    ctx.save();
    ctx.scale(ratio, ratio);
    ctx.translate(0, groups.length * each + axisHeight + 4);
    drawEvents(ctx, lanes, view, left, width, theme);
    ctx.restore();
    theme.remove();
    return canvas;
}

/** A PNG with the names of what is shown, the figures and what is said about them below. */
export async function exportPicture(workspace: Workspace, chart: Chart, notes: readonly string[]): Promise<void> {
    const {view} = workspace;
    const figures = figuresOf(workspace, chart);
    const trend = await drawTrend(workspace, chart);
    const ratio = devicePixelRatio;
    const theme = h('div', {class: 'light offstage'});
    document.body.append(theme);
    const head = 64;
    const canvas = h('canvas', {
        width: trend.width,
        height: trend.height + (head + (figures.length + notes.length + 2) * lineHeight) * ratio,
    });
    const ctx = canvas.getContext('2d')!;
    ctx.fillStyle = '#ffffff';
    ctx.fillRect(0, 0, canvas.width, canvas.height);
    ctx.drawImage(trend, 0, head * ratio);
    ctx.scale(ratio, ratio);
    ctx.textBaseline = 'middle';
    ctx.fillStyle = colour('text', theme);
    ctx.font = '600 16px system-ui, sans-serif';
    ctx.fillText(filesText(workspace), 16, 24, width - 32);
    ctx.font = '13px system-ui, sans-serif';
    ctx.fillStyle = colour('muted', theme);
    ctx.fillText(rangeText(view), 16, 46);
    const top = head + trend.height / ratio + lineHeight / 2 + 4;
    [figureHeads, ...figures].forEach((cells, row) => {
        const y = top + row * lineHeight;
        if (row > 0) {
            ctx.fillStyle = colour(`series${workspace.colourOf(workspace.chosen[row - 1]!)}`, theme);
            ctx.fillRect(16, y - 5, 10, 10);
        }
        ctx.fillStyle = colour(row === 0 ? 'muted' : 'text', theme);
        cells.forEach((cell, i) => {
            ctx.textAlign = i === 0 ? 'left' : 'right';
            ctx.fillText(cell, i === 0 ? 34 : 460 + i * 160, y, i === 0 ? 420 : 150);
        });
    });
    ctx.textAlign = 'left';
    ctx.fillStyle = colour('muted', theme);
    notes.forEach((note, i) => ctx.fillText(note, 16, top + (figures.length + 1 + i) * lineHeight, width - 32));
    theme.remove();
    const blob = await new Promise<Blob | null>((resolve) => canvas.toBlob(resolve, 'image/png'));
    if (!blob) throw new Error('the browser could not make the picture');
    download(`trend ${timeText(view.from, false).slice(0, 10)}.png`, blob);
}

function print(workspace: Workspace, title: string, content: readonly Node[]): void {
    const paper = document.getElementById('paper')!;
    paper.replaceChildren(h('header', {}, h('h1', {}, title), h('p', {}, filesText(workspace))), ...content);
    document.body.classList.add('printing');
    window.addEventListener('afterprint', () => document.body.classList.remove('printing'), {once: true});
    window.print();
}

export async function printTrend(workspace: Workspace, chart: Chart, notes: readonly string[]): Promise<void> {
    const {view} = workspace;
    const figures = figuresOf(workspace, chart);
    const image = h('img', {src: (await drawTrend(workspace, chart)).toDataURL('image/png'), alt: ''});
    const rows = figures.map((cells, row) =>
        h(
            'tr',
            {},
            ...cells.map((cell, i) =>
                i === 0
                    ? h(
                          'th',
                          {scope: 'row'},
                          h('span', {class: `swatch swatch${workspace.colourOf(workspace.chosen[row]!)}`}),
                          cell,
                      )
                    : h('td', {class: 'right'}, cell),
            ),
        ),
    );
    const table = h(
        'table',
        {},
        h('thead', {}, h('tr', {}, ...figureHeads.map((head, i) => h('th', {class: i > 0 && 'right'}, head)))),
        h('tbody', {}, ...rows),
    );
    await image.decode();
    print(workspace, 'Trend', [h('p', {}, rangeText(view)), image, table, h('p', {}, notes.join(' · '))]);
}

export function printRows(
    workspace: Workspace,
    table: TableInfo,
    columns: readonly Column[],
    rows: readonly (readonly Cell[])[],
    total: number | null, // null: not known yet
    filter: readonly string[], // what they have in common
): void {
    const title = table.kind === 'alarms' ? 'Alarms' : table.kind === 'log' ? 'Operator log' : workspace.titleOf(table);
    const body = rows.map((row) =>
        h(
            'tr',
            {},
            ...columns.map((column) => h('td', {class: column.isNumber && 'right'}, column.text(row, longestPrinted))),
        ),
    );
    print(workspace, title, [
        h(
            'p',
            {},
            [
                rows.length === total
                    ? `${count(total)} ${total === 1 ? 'row' : 'rows'}`
                    : `The first ${count(rows.length)}${total === null ? '' : ` of ${count(total)}`} rows`,
                ...filter,
            ].join(' · '),
        ),
        h(
            'table',
            {},
            h(
                'thead',
                {},
                h('tr', {}, ...columns.map((column) => h('th', {class: column.isNumber && 'right'}, column.title))),
            ),
            h('tbody', {}, ...body),
        ),
    ]);
}
