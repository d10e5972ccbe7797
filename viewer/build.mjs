// SPDX-License-Identifier: MIT
//
// node build.mjs [OUTPUT]: the whole viewer as one HTML file, which needs nothing else. The same sources give the same
// bytes.
import zopfli from '@gfx/zopfli';
import {build} from 'esbuild';
import {createHash} from 'node:crypto';
import {mkdirSync, readFileSync, writeFileSync} from 'node:fs';
import {dirname} from 'node:path';
import {fileURLToPath} from 'node:url';

const here = fileURLToPath(new URL('.', import.meta.url));
const output = process.argv[2] ?? `${here}viewer.html`;

// What SQLite's package installs beside its functions: each part begins with one of these, and needs none of the others.
const unused = [
    'const toss3 = (...args) => {', // objects around the functions
    'const util = sqlite3.util;\n\t\t\tsqlite3.initWorker1API',
    'if (!sqlite3.wasm.exports.sqlite3_declare_vtab) return;',
    'if (sqlite3.config.disable?.vfs?.kvvfs) return;', // file systems of browsers
    '"use strict";\n\t\t\tif (sqlite3.config.disable?.vfs?.opfs',
    'if (!sqlite3.opfs || sqlite3.config.disable?.vfs?.opfs) return;',
    '"use strict";\n\t\t\tif (sqlite3.config.disable?.vfs?.["opfs-sahpool"]) return;',
    'if (!sqlite3.opfs || sqlite3.config.disable?.vfs?.["opfs-wl"]) return;',
];

function once(text, part, replacement) {
    if (text.split(part).length !== 2) throw new Error(`not once in SQLite's package: ${part}`);
    return text.replace(part, () => replacement);
}

function lean(text) {
    for (const part of unused) {
        const begin = 'sqlite3ApiBootstrap.initializers.push(function(sqlite3) {\n\t\t\t';
        text = once(text, begin + part, `${begin}return;${part}`);
    }
    const promiser = /\/\/#region src\/bin\/sqlite3-worker1-promiser\.mjs\n.*?\/\/#endregion\n/s.exec(text)[0];
    return once(text, promiser, 'var sqlite3_worker1_promiser_default = null;\n')
        .replaceAll(/new URL\("sqlite3[-\w.]*", import\.meta\.url\)(\.href)?/g, '""') // files of a web server
        .replaceAll('import.meta.url', '""');
}

const leanSqlite = {
    name: 'lean-sqlite',
    setup(setup) {
        setup.onLoad({filter: /sqlite-wasm\/dist\/index\.mjs$/}, ({path}) => ({
            contents: lean(readFileSync(path, 'utf8')),
        }));
    },
};

async function bundle(entry) {
    const result = await build({
        entryPoints: [`${here}${entry}`],
        bundle: true,
        minify: true,
        write: false,
        format: 'iife',
        target: ['chrome103', 'firefox113', 'safari16.4'],
        conditions: ['import'],
        platform: 'browser',
        legalComments: 'none',
        charset: 'utf8',
        plugins: [leanSqlite],
        logLevel: 'warning',
    });
    return result.outputFiles[0].text;
}

// Not by node's zlib, whose bytes change with its version; and smaller.
const packed = async (bytes) => Buffer.from(await zopfli.deflateAsync(bytes, {numiterations: 1})).toString('base64');
const hash = (text) => `'sha256-${createHash('sha256').update(text).digest('base64')}'`;

const worker = await packed(await bundle('src/worker/worker.ts'));
const sqlite = await packed(readFileSync(`${here}node_modules/@sqlite.org/sqlite-wasm/dist/sqlite3.wasm`));
const script = await bundle('src/page/main.ts');
const bundled = (
    await build({
        entryPoints: [`${here}src/page/style.css`],
        bundle: true,
        minify: true,
        write: false,
        charset: 'utf8',
    })
).outputFiles[0].text;
// The dark colours are those of a choice, and those of the system unless light is chosen.
const [, dark] = /\.dark\{([^}]*)\}/.exec(bundled);
const style = `${bundled}@media(prefers-color-scheme:dark){:root:not(.light){${dark}}}`;

const {devDependencies} = JSON.parse(readFileSync(`${here}package.json`, 'utf8'));
const versions = {
    sqlite: devDependencies['@sqlite.org/sqlite-wasm'].split('-')[0],
    package: devDependencies['@sqlite.org/sqlite-wasm'],
    uplot: devDependencies.uplot,
};
const licences = await packed(
    readFileSync(`${here}licences/NOTICE.txt`, 'utf8').replaceAll(/\{(\w+)\}/g, (_, name) => versions[name]) +
        readFileSync(`${here}licences/Apache-2.0.txt`, 'utf8'),
);

// Nothing is fetched: "none" but for what is in this file and what the page makes of it.
const policy = [
    "default-src 'none'",
    `script-src ${hash(script)} 'wasm-unsafe-eval'`,
    'worker-src blob:',
    `style-src ${hash(style)}`,
    'img-src blob: data:',
    "connect-src 'none'", // "device-db serve" makes it 'self'
    "base-uri 'none'",
    "form-action 'none'",
].join('; ');

const html = readFileSync(`${here}src/page/page.html`, 'utf8')
    .replace('<!-- policy -->', () => `<meta http-equiv="Content-Security-Policy" content="${policy}">`)
    .replace('<!-- style -->', () => `<style>${style}</style>`)
    .replace('<!-- data -->', () =>
        Object.entries({worker, sqlite, licences})
            .map(([id, data]) => `<script type="application/octet-stream" id="${id}">${data}</script>`)
            .join('\n'),
    )
    .replace('<!-- script -->', () => `<script>${script}</script>`);
mkdirSync(dirname(output), {recursive: true});
writeFileSync(output, html);
