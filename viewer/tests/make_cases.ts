// SPDX-License-Identifier: MIT
//
// Writes cases/*.json anew from device-db. A case that changes is a change of behaviour: look at the difference.
import {writeFileSync} from 'node:fs';
import {join} from 'node:path';

import {definitions, numbers, times} from './definitions.js';
import {answersOf, deviceDb, numbersOf, root, timesOf} from './reference.js';

const program = deviceDb();
if (!program) throw new Error('build device-db first, or name it in $DEVICE_DB');
const folder = join(root, 'cases');
const lines = (values: readonly unknown[]): string =>
    `[\n${values.map((value) => JSON.stringify(value)).join(',\n')}\n]\n`;
const found = await numbersOf(program, numbers);
writeFileSync(join(folder, 'numbers.json'), lines(numbers.map((text, i) => [text, found[i]])));
const moments = await timesOf(program, times);
writeFileSync(join(folder, 'times.json'), lines(times.map((text, i) => [text, moments[i]])));
for (const definition of definitions) {
    const name = definition.name.replaceAll(/[^a-z]+/g, '_');
    const text = JSON.stringify(await answersOf(program, definition), null, 1);
    const short = text.replaceAll(/\[[-\d\s,.e+]*\]/g, (list) => list.replaceAll(/\s/g, ''));
    writeFileSync(join(folder, `file_${name}.json`), `${short}\n`);
}
