// SPDX-License-Identifier: MIT
//
// node build.mjs [OUTPUT]: the whole viewer as one HTML file, which needs nothing else. The same sources give the same
// bytes.
import {build} from 'esbuild';
import {createHash} from 'node:crypto';
import {mkdirSync, readFileSync, writeFileSync} from 'node:fs';
import {dirname} from 'node:path';
import {fileURLToPath} from 'node:url';
import {deflateRawSync} from 'node:zlib';

const here = fileURLToPath(new URL('.', import.meta.url));
const output = process.argv[2] ?? `${here}viewer.html`;

// Those parts of SQLite's package that only files of a web server need.
const withoutOthers = {
    name: 'without-others',
    setup(setup) {
        setup.onLoad({filter: /sqlite-wasm\/dist\/index\.mjs$/}, ({path}) => ({
            contents: readFileSync(path, 'utf8')
                .replaceAll(/new URL\("sqlite3[-\w.]*", import\.meta\.url\)(\.href)?/g, '""')
                .replaceAll('import.meta.url', '""'),
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
        plugins: [withoutOthers],
        logLevel: 'warning',
    });
    return result.outputFiles[0].text;
}

// Compressed by a library whose bytes could change with its version, so node's version is pinned by CI.
const packed = (bytes) => deflateRawSync(bytes, {level: 9}).toString('base64');
const hash = (text) => `'sha256-${createHash('sha256').update(text).digest('base64')}'`;

const worker = packed(await bundle('src/worker/worker.ts'));
const sqlite = packed(readFileSync(`${here}node_modules/@sqlite.org/sqlite-wasm/dist/sqlite3.wasm`));
const script = await bundle('src/page/main.ts');
const style = (
    await build({
        entryPoints: [`${here}src/page/style.css`],
        bundle: true,
        minify: true,
        write: false,
        charset: 'utf8',
    })
).outputFiles[0].text;

// Nothing is fetched: "none" but for what is in this file and what the page makes of it.
const policy = [
    "default-src 'none'",
    `script-src ${hash(script)} 'wasm-unsafe-eval'`,
    'worker-src blob:',
    `style-src ${hash(style)}`,
    'img-src blob: data:',
    "base-uri 'none'",
    "form-action 'none'",
].join('; ');

const html = readFileSync(`${here}src/page/page.html`, 'utf8')
    .replace('<!-- policy -->', () => `<meta http-equiv="Content-Security-Policy" content="${policy}">`)
    .replace('<!-- style -->', () => `<style>${style}</style>`)
    .replace(
        '<!-- data -->',
        () =>
            `<script type="application/octet-stream" id="worker">${worker}</script>\n` +
            `<script type="application/octet-stream" id="sqlite">${sqlite}</script>`,
    )
    .replace('<!-- script -->', () => `<script>${script}</script>`);
mkdirSync(dirname(output), {recursive: true});
writeFileSync(output, html);
