// SPDX-License-Identifier: MIT
//
// What is committed: the page is what its sources make, small, and nothing in it depends on where it was built.
import assert from 'node:assert/strict';
import {execFileSync} from 'node:child_process';
import {existsSync, readFileSync} from 'node:fs';
import {join} from 'node:path';
import {test} from 'node:test';
import {gzipSync} from 'node:zlib';

import {Folder, root} from './reference.js';

const build = (output: string): Buffer => {
    execFileSync(process.execPath, [join(root, 'build.mjs'), output], {cwd: '/'});
    return readFileSync(output);
};

test('the same sources give the same bytes, and they are those in the repository', () => {
    using folder = new Folder();
    const first = build(join(folder.path, 'first.html'));
    assert.ok(first.equals(build(join(folder.path, 'deeper', 'second.html'))));
    const committed = join(root, 'viewer.html');
    if (existsSync(committed))
        assert.ok(first.equals(readFileSync(committed)), 'viewer.html is not what the sources make: npm run build');
});

test('the page is small and holds no path of a machine', () => {
    using folder = new Folder();
    const page = build(join(folder.path, 'page.html'));
    assert.ok(page.length <= 900000, `${page.length} bytes`);
    const packed = gzipSync(page, {level: 9}).length;
    assert.ok(packed <= 550000, `${packed} bytes packed`);
    assert.ok(!page.includes(root));
    assert.equal(page.toString().split("connect-src 'none'").length, 2, 'what "device-db serve" replaces');
});

test('dependencies are pinned, and the lock file names no registry', () => {
    const {devDependencies} = JSON.parse(readFileSync(join(root, 'package.json'), 'utf8'));
    for (const [name, version] of Object.entries(devDependencies))
        assert.match(String(version), /^\d+\.\d+\.\d+(-[\w.]+)?$/, name);
    const lock = readFileSync(join(root, 'package-lock.json'), 'utf8');
    assert.ok(!lock.includes('"resolved"') && !lock.includes('://registry'));
    assert.ok(lock.includes('"integrity"'));
});
