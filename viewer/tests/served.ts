// SPDX-License-Identifier: MIT
//
// A stand-in for "device-db serve": the same questions, answered by the reading side over a file that a test can change.
import {readFileSync} from 'node:fs';
import {createServer} from 'node:http';
import type {IncomingMessage, Server, ServerResponse} from 'node:http';
import type {AddressInfo} from 'node:net';

import type {LocalSource} from '../src/reading/local.js';
import type {Order, RowQuery, Source} from '../src/reading/source.js';
import {viewer} from './browser.js';
import {filesOf, made, sourceOver} from './support.js';

export class Served {
    readonly address: URL;
    /** Every question that came. */
    readonly questions: URL[] = [];
    /** Gives each answer that takes long, in its own time, and parts of it before. */
    turn: (question: URL, answer: () => Promise<object>, part: (part: object) => void) => Promise<object> = (
        _,
        answer,
    ) => answer();
    private version = 0;
    private error = '';
    private readonly listeners = new Set<ServerResponse>();
    private isDown = false;
    private isStrange = false;
    private isFrozen = false;
    /** What a question waits for before it is answered. */
    slowly: (question: URL) => Promise<unknown> | void = () => undefined;

    private constructor(
        private readonly server: Server,
        private source: LocalSource,
    ) {
        const {port} = server.address() as AddressInfo;
        this.address = new URL(`http://127.0.0.1:${port}/`);
        server.on('request', (request: IncomingMessage, response: ServerResponse) => {
            if (this.isDown) request.socket.destroy();
            else if (!this.isFrozen) void this.answer(new URL(request.url!, this.address), response);
        });
    }

    static async start(statements: readonly string[]): Promise<Served> {
        const server = createServer();
        await new Promise<void>((ready) => server.listen(0, '127.0.0.1', ready));
        return new Served(server, await sourceOver(filesOf(await made(statements), 'plant.db')));
    }

    /** The file is made by these statements now. `isOther`: more than new rows. */
    async change(statements: readonly string[], isOther = false): Promise<void> {
        this.source = await sourceOver(filesOf(await made(statements), 'plant.db'));
        if (isOther) ++this.version;
        await this.tell();
    }

    /** The file cannot be read, or can again if `error` is empty. */
    async fail(error: string): Promise<void> {
        this.error = error;
        ++this.version;
        await this.tell();
    }

    /** Nothing is answered any more, or everything again. */
    setDown(isDown: boolean): void {
        this.isDown = isDown;
        if (isDown) this.server.closeAllConnections();
    }

    /** Connections stay, but nothing comes any more; or everything again. */
    setFrozen(isFrozen: boolean): void {
        this.isFrozen = isFrozen;
    }

    /** As after a new start, which knows no page of before; or as if its new address was opened. */
    setStrange(isStrange: boolean): void {
        this.isStrange = isStrange;
        this.server.closeAllConnections();
    }

    private async tell(): Promise<void> {
        for (const listener of this.listeners) listener.write(await this.event());
    }

    private async event(): Promise<string> {
        const tables = (await this.source.tables()).map(({key, lastId}) => ({key, lastId}));
        return `data: ${JSON.stringify({files: [{file: 0, version: this.version, error: this.error, tables}]})}\n\n`;
    }

    private async answer(address: URL, response: ServerResponse): Promise<void> {
        const {pathname, searchParams: parts} = address;
        if (this.isStrange) {
            response.writeHead(403, {'content-type': 'text/plain; charset=utf-8'});
            response.end('Open the address that device-db printed when it was started.\n');
            return;
        }
        if (pathname === '/') {
            response.setHeader('content-type', 'text/html; charset=utf-8');
            response.end(readFileSync(viewer, 'utf8').replace("connect-src 'none'", "connect-src 'self'"));
            return;
        }
        this.questions.push(address);
        await this.slowly(address);
        if (pathname === '/api/changes') {
            response.writeHead(200, {'content-type': 'text/event-stream'});
            response.write(`retry: 200\n\n${await this.event()}`);
            this.listeners.add(response);
            const heartbeat = setInterval(() => {
                if (!this.isFrozen) response.write('data: {"files":[]}\n\n');
            }, 300);
            response.on('close', () => {
                clearInterval(heartbeat);
                this.listeners.delete(response);
            });
            return;
        }
        if (pathname === '/api/open' || pathname === '/api/tables') {
            const answer =
                pathname === '/api/open'
                    ? (await this.source.open()).map((file) => ({...file, version: this.version}))
                    : await this.source.tables();
            response.setHeader('content-type', 'application/json');
            response.end(JSON.stringify(answer));
            return;
        }
        const write = (line: object): void => void response.write(`${JSON.stringify(line)}\n`);
        response.setHeader('content-type', 'application/x-ndjson');
        try {
            const seen = (part: object): void => write({part});
            const answer = (): Promise<object> => longAnswer(this.source, pathname, parts, seen);
            write({done: await this.turn(address, answer, seen)});
        } catch (error) {
            write({error: (error as Error).message});
        }
        response.end();
    }

    async [Symbol.asyncDispose](): Promise<void> {
        this.server.closeAllConnections();
        await new Promise((done) => this.server.close(done));
    }
}

function longAnswer(
    source: Source,
    question: string,
    parts: URLSearchParams,
    seen: (part: object) => void,
): Promise<object> {
    const table = parts.get('table')!;
    const number = (name: string): number | undefined => (parts.has(name) ? Number(parts.get(name)) : undefined);
    if (question === '/api/overview') return source.overview(table, seen);
    const [from, to] = [number('from'), number('to')];
    if (question === '/api/trend')
        return source.trend({table, from: from!, to: to!, columns: number('columns')!}, seen);
    const order = parts.get('order')!;
    const levels = parts.getAll('level').map(Number);
    const users = parts.getAll('user');
    const query: RowQuery = {
        table,
        from,
        to,
        containing: parts.get('containing') ?? undefined,
        state: (parts.get('state') as RowQuery['state'] | null) ?? undefined,
        levels: levels.length > 0 ? levels : undefined,
        users: users.length > 0 ? users : undefined,
        order: order.startsWith('by-')
            ? {column: order.slice(3), descending: parts.has('descending')}
            : (order as Order),
        offset: number('offset') ?? 0,
        limit: number('limit') ?? 100,
        id: number('id'),
        at: number('at'),
    };
    return source.rows(query, seen);
}
