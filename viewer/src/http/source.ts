// SPDX-License-Identifier: MIT
//
// The source over HTTP: the page was served by "device-db serve", which answers what the worker answers elsewhere.
import {bytesOf, distinctNames, isUtf8} from '../reading/cells.js';
import type {
    Change,
    FileChange,
    FileInfo,
    Overview,
    RowQuery,
    RowsAnswer,
    Seen,
    Source,
    TableInfo,
    TrendAnswer,
    TrendQuery,
} from '../reading/source.js';

type Parameters = readonly (readonly [string, string | number])[];

/** A line of an answer that takes long. */
type Line = {readonly part: unknown} | {readonly done: unknown} | {readonly error: string};

/** What the server tells of a file: its version grows with each change that is more than new rows. */
interface ServedChange {
    readonly file: number;
    readonly version: number;
    readonly error: string;
    readonly tables: readonly {readonly key: string; readonly lastId: number}[];
}

/** The version is the one of its changes: what happened before they are heard is not missed. */
type ServedFile = FileInfo & {readonly version?: number};

const retryAfter = 3000; // milliseconds
const patience = 40000; // two of the server's heartbeats and some more
// A browser opens six connections to a server, and one of them watches: so many long answers leave one to the lists.
const overviewsAtOnce = 2;
const trendsAtOnce = 2;

const notAnswered = 'device-db does not answer; is it still running?';
const noAnswer =
    'The connection is lost; trying again. If device-db was started anew, open the address that it printed.';
const refused = 'device-db was started anew: open the new address that it printed.';

/** Why the server is not heard. A browser does not say which answer it got when it was to listen. */
async function troubleOf(): Promise<string> {
    try {
        const {status} = await fetch('/api/open', {redirect: 'error'});
        return status === 403 ? refused : noAnswer;
    } catch {
        return noAnswer;
    }
}

/** What the server says of a question that it does not answer, in words for people. */
async function refusalOf(response: Response): Promise<Error> {
    const text = await response.text();
    const isJson = response.headers.get('content-type') === 'application/json';
    return new Error(isJson ? (JSON.parse(text) as {error: string}).error : text.trim() || response.statusText);
}

/** Bytes that are not UTF-8 stay what they are: the server compares bytes. */
function percentEncoded(value: string | number): string {
    const text = String(value);
    if (isUtf8(text)) return encodeURIComponent(text);
    return [...bytesOf(text)].map((byte) => `%${byte.toString(16).padStart(2, '0')}`).join('');
}

async function fetched(question: string, parameters: Parameters, signal: AbortSignal): Promise<Response> {
    const query = parameters.map(([name, value]) => `${name}=${percentEncoded(value)}`).join('&');
    let response: Response;
    try {
        response = await fetch(`/api/${question}${query === '' ? '' : `?${query}`}`, {signal, redirect: 'error'});
    } catch {
        signal.throwIfAborted();
        throw new Error(notAnswered);
    }
    if (!response.ok) throw await refusalOf(response);
    return response;
}

/** The lines of a body as they come. */
async function* linesOf(response: Response): AsyncGenerator<Line> {
    const reader = response.body!.getReader();
    const decoder = new TextDecoder();
    let rest = '';
    try {
        for (;;) {
            const {done, value} = await reader.read();
            if (done) return;
            // Only what is new is looked through: a line of many chunks would be with each of them.
            const [end, ...begun] = decoder.decode(value, {stream: true}).split('\n');
            const lines = [rest + end, ...begun];
            rest = lines.pop()!;
            for (const line of lines) yield JSON.parse(line) as Line;
        }
    } finally {
        reader.cancel().catch(() => undefined);
    }
}

/** Lets some through at once, the others wait in turn. */
class Gate {
    private readonly waiting: (() => void)[] = [];

    constructor(private free: number) {}

    async pass<Answer>(ask: () => Promise<Answer>, signal: AbortSignal): Promise<Answer> {
        if (this.free > 0) --this.free;
        else await new Promise<void>((go) => this.waiting.push(go));
        try {
            signal.throwIfAborted();
            return await ask();
        } finally {
            const next = this.waiting.shift();
            if (next) next();
            else ++this.free;
        }
    }
}

/** What comes last, the rest through `seen`. */
async function asked<Answer>(
    question: string,
    parameters: Parameters,
    seen: Seen<Answer>,
    signal: AbortSignal,
): Promise<Answer> {
    try {
        for await (const line of linesOf(await fetched(question, parameters, signal))) {
            if ('error' in line) throw new Error(line.error);
            if ('done' in line) return line.done as Answer;
            seen(line.part as Answer);
        }
    } catch (error) {
        signal.throwIfAborted();
        throw error instanceof TypeError ? new Error('the connection was lost in the middle of an answer') : error;
    }
    throw new Error('the connection was lost in the middle of an answer');
}

// JSON has none.
function withNaN(overview: Overview): Overview {
    return {...overview, from: overview.from ?? NaN, to: overview.to ?? NaN};
}

function parametersOf(query: RowQuery): Parameters {
    const {order} = query;
    const isColumn = typeof order !== 'string';
    const given: [string, string | number | undefined][] = [
        ['table', query.table],
        ['from', query.from],
        ['to', query.to],
        ['containing', query.containing || undefined],
        ['state', query.state],
        ...(query.levels ?? []).map((level): [string, number] => ['level', Math.trunc(level)]),
        ...(query.users ?? []).map((user): [string, string] => ['user', user]),
        ['order', isColumn ? `by-${order.column}` : order],
        ['descending', isColumn && order.descending ? 'true' : undefined],
        ['offset', query.offset],
        ['limit', query.limit],
        ['id', query.id],
        ['at', query.at],
    ];
    const isTime = (name: string): boolean => ['from', 'to', 'at'].includes(name);
    return given.flatMap(([name, value]) =>
        value === undefined ? [] : [[name, isTime(name) ? Math.floor(value as number) : value] as const],
    );
}

/** A source that asks the server of the page. */
export class HttpSource implements Source {
    private readonly known = new Map<string, number>(); // the last IDs of tables
    private readonly versions = new Map<number, number>(); // of files
    private readonly stops = new Set<() => void>();
    private readonly underWay = new Set<AbortController>(); // the questions that have no answer yet
    private readonly overviews = new Gate(overviewsAtOnce);
    private readonly trends = new Gate(trendsAtOnce);

    /** Ends all watching. */
    close(): void {
        this.stops.forEach((stop) => stop());
    }

    async open(): Promise<readonly FileInfo[]> {
        const files = await this.answerOf<ServedFile[]>('open');
        // Later ones come with the changes: one that was not heard yet is not to be passed over.
        files.forEach(({version}, file) => {
            if (version !== undefined && !this.versions.has(file)) this.versions.set(file, version);
        });
        const names = distinctNames(files.map(({name}) => name));
        return files.map((file, i) => ({...file, name: names[i]!}));
    }

    async tables(): Promise<readonly TableInfo[]> {
        const tables = await this.answerOf<TableInfo[]>('tables');
        for (const {key, lastId} of tables) this.known.set(key, lastId);
        return tables;
    }

    async overview(table: string, seen: Seen<Overview>, signal?: AbortSignal): Promise<Overview> {
        const parameters: Parameters = [['table', table]];
        const take = (part: Overview): void => seen(withNaN(part));
        return this.asking(signal, async (signal) =>
            withNaN(await this.overviews.pass(() => asked('overview', parameters, take, signal), signal)),
        );
    }

    async trend(query: TrendQuery, seen: Seen<TrendAnswer>, signal?: AbortSignal): Promise<TrendAnswer> {
        const {table, from, to, columns} = query;
        const parameters: Parameters = [
            ['table', table],
            ['from', Math.floor(from)],
            ['to', Math.floor(to)],
            ['columns', columns],
        ];
        return this.asking(signal, (signal) =>
            this.trends.pass(() => asked('trend', parameters, seen, signal), signal),
        );
    }

    async rows(query: RowQuery, seen: Seen<RowsAnswer>, signal?: AbortSignal): Promise<RowsAnswer> {
        if (query.levels?.length === 0 || query.users?.length === 0)
            return {exact: true, share: 1, total: 0, offset: 0, found: -1, rows: []}; // one of none
        return this.asking(signal, (signal) => asked('rows', parametersOf(query), seen, signal));
    }

    private answerOf<Answer>(question: string): Promise<Answer> {
        return this.asking(undefined, async (signal) => {
            const response = await fetched(question, [], signal);
            try {
                return (await response.json()) as Answer;
            } catch (error) {
                signal.throwIfAborted();
                throw error;
            }
        });
    }

    // A question ends when nobody waits for its answer any more, or when nothing is heard of the server.
    private async asking<Answer>(
        given: AbortSignal | undefined,
        ask: (signal: AbortSignal) => Promise<Answer>,
    ): Promise<Answer> {
        given?.throwIfAborted();
        const question = new AbortController();
        const leave = (): void => question.abort(given!.reason);
        given?.addEventListener('abort', leave);
        this.underWay.add(question);
        try {
            return await ask(question.signal);
        } finally {
            given?.removeEventListener('abort', leave);
            this.underWay.delete(question);
        }
    }

    watch(listener: (change: Change) => void): () => void {
        let events: EventSource | null = null;
        let timer: ReturnType<typeof setTimeout> | undefined;
        let before = ''; // nobody needs to hear of the first connection
        const say = (trouble: string, files: readonly FileChange[]): void => {
            if (trouble !== before || files.length > 0) listener({trouble, files});
            before = trouble;
        };
        // The server is heard every 15 seconds, whatever happens. One that hangs does not end its connections, nor does
        // a network that is gone: what was asked over them would wait for ever, and hold up what is asked after it.
        const wait = (): void => {
            clearTimeout(timer);
            timer = setTimeout(() => {
                events?.close();
                this.underWay.forEach((question) => question.abort(new Error(notAnswered)));
                say(noAnswer, []);
                connect();
            }, patience);
        };
        const connect = (): void => {
            const source = (events = new EventSource('/api/changes'));
            wait();
            source.onmessage = ({data}: MessageEvent<string>) => {
                wait();
                say(
                    '',
                    (JSON.parse(data) as {files: ServedChange[]}).files.flatMap((file) => this.changeOf(file)),
                );
            };
            source.onerror = async () => {
                // A browser gives up where it gets another answer, such as that of a server that was started anew.
                // Who opens the new address beside this page lets both in.
                const hasGivenUp = source.readyState === EventSource.CLOSED;
                if (hasGivenUp) {
                    clearTimeout(timer);
                    timer = setTimeout(connect, retryAfter);
                }
                const trouble = hasGivenUp ? await troubleOf() : noAnswer;
                if (source === events) say(trouble, []);
            };
        };
        const stop = (): void => {
            clearTimeout(timer);
            events?.close();
            events = null;
            this.stops.delete(stop);
        };
        this.stops.add(stop);
        connect();
        return stop;
    }

    // The first event of each connection has all there is: what is known already is no change.
    private changeOf({file, version, error, tables}: ServedChange): FileChange[] {
        const grown = tables.filter(({key, lastId}) => lastId > (this.known.get(key) ?? 0));
        for (const {key, lastId} of tables) this.known.set(key, lastId);
        const isOther = this.versions.has(file) && this.versions.get(file) !== version;
        this.versions.set(file, version);
        return isOther || error !== '' || grown.length > 0 ? [{file, error, isOther, tables: grown}] : [];
    }
}
