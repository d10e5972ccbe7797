// SPDX-License-Identifier: MIT
//
// Builds the page and tests/NAME.ts into out/ and runs that: with the test runner if the name ends in _test. Without
// names all tests.
import {build} from 'esbuild';
import {spawnSync} from 'node:child_process';
import {readdirSync} from 'node:fs';
import {fileURLToPath} from 'node:url';

const here = fileURLToPath(new URL('..', import.meta.url));
const wanted = process.argv.slice(2);
const names = readdirSync(`${here}tests`)
    .filter((name) => name.endsWith('_test.ts'))
    .map((name) => name.slice(0, -3));
const chosen = wanted.length > 0 ? wanted : names;
await build({
    entryPoints: chosen.map((name) => `${here}tests/${name}.ts`),
    outdir: `${here}out/tests`,
    outExtension: {'.js': '.mjs'},
    bundle: true,
    platform: 'node',
    format: 'esm',
    target: 'node20',
    packages: 'external',
    sourcemap: 'inline',
    logLevel: 'warning',
});
spawnSync(process.execPath, [`${here}build.mjs`, `${here}out/viewer.html`], {stdio: 'inherit'});
const files = chosen.map((name) => `${here}out/tests/${name}.mjs`);
const isTest = chosen.every((name) => name.endsWith('_test'));
const options = ['--enable-source-maps', ...(isTest ? ['--test', '--test-concurrency=3'] : [])];
const done = spawnSync(process.execPath, [...options, ...files], {stdio: 'inherit', cwd: here});
process.exit(done.status ?? 1);
