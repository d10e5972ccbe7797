// SPDX-License-Identifier: MIT
//
// A real browser with the page from disk, and a proxy that nothing may ask: every request that is not for a file goes
// there, from whatever thread.
import {existsSync} from 'node:fs';
import {createServer} from 'node:net';
import type {AddressInfo, Server} from 'node:net';
import {join} from 'node:path';
import {pathToFileURL} from 'node:url';

import puppeteer from 'puppeteer-core';
import type {Browser, Page} from 'puppeteer-core';

import {root} from './reference.js';

export type BrowserName = 'chrome' | 'firefox';

const places: Record<BrowserName, readonly string[]> = {
    chrome: ['/usr/bin/chromium', '/usr/bin/google-chrome'],
    firefox: ['/usr/bin/firefox-esr', '/usr/bin/firefox'],
};

export function pathOf(name: BrowserName): string | null {
    return places[name].find((path) => existsSync(path)) ?? null;
}

/** The page that is tested; run.mjs builds it. */
export const viewer = join(root, 'out', 'viewer.html');

// What a browser asks for itself, whatever page it shows: its owner's account, its own settings. No option keeps it
// from that.
const ofBrowser =
    /^(CONNECT (accounts\.google\.com|update\.googleapis\.com|[-\w.]+\.mozilla\.(com|org|net)):443|(GET|POST) http:\/\/(update\.googleapis|clients2\.google)\.com\/\S*) /;

export class Session {
    readonly faults: string[] = [];

    private constructor(
        readonly browser: Browser,
        readonly page: Page,
        private readonly proxy: Server,
        readonly requests: readonly string[],
    ) {}

    static async start(
        name: BrowserName,
        options: {
            zone?: string;
            width?: number;
            height?: number;
            dark?: boolean;
            served?: URL;
            inPlace?: string; // the page under test, whatever the server gives out
        } = {},
    ): Promise<Session> {
        const requests: string[] = [];
        const proxy = createServer((socket) => {
            socket.on('data', (data) => {
                const request = data.toString('latin1').split('\r\n')[0]!;
                if (!ofBrowser.test(request)) requests.push(request);
                socket.destroy();
            });
            socket.on('error', () => undefined);
        });
        await new Promise<void>((ready) => proxy.listen(0, '127.0.0.1', ready));
        const {port} = proxy.address() as AddressInfo;
        const common = {
            browser: name,
            executablePath: pathOf(name)!,
            headless: true,
            defaultViewport: {width: options.width ?? 1440, height: options.height ?? 900},
            env: {...process.env, TZ: options.zone ?? 'UTC'},
        };
        const browser =
            name === 'chrome'
                ? await puppeteer.launch({
                      ...common,
                      args: [
                          '--no-sandbox',
                          '--disable-gpu',
                          '--disable-quic',
                          '--no-first-run',
                          '--disable-background-networking',
                          '--disable-component-update',
                          '--disable-sync',
                          '--disable-domain-reliability',
                          '--disable-features=OptimizationHints,MediaRouter,AutofillServerCommunication',
                          `--proxy-server=127.0.0.1:${port}`,
                          `--proxy-bypass-list=<-loopback>;${options.served?.host ?? ''}`,
                      ],
                  })
                : await puppeteer.launch({
                      ...common,
                      extraPrefsFirefox: {
                          'network.proxy.type': 1,
                          'network.proxy.http': '127.0.0.1',
                          'network.proxy.http_port': port,
                          'network.proxy.ssl': '127.0.0.1',
                          'network.proxy.ssl_port': port,
                          'network.proxy.allow_hijacking_localhost': true,
                          'network.proxy.no_proxies_on': options.served?.host ?? '',
                          'network.captive-portal-service.enabled': false,
                          'network.connectivity-service.enabled': false,
                          'app.normandy.enabled': false,
                          'browser.region.update.enabled': false,
                          'services.settings.server': 'data:,',
                          'toolkit.telemetry.server': 'data:,',
                          'extensions.getAddons.cache.enabled': false,
                          'browser.safebrowsing.provider.mozilla.updateURL': '',
                          'datareporting.policy.dataSubmissionEnabled': false,
                          'ui.systemUsesDarkTheme': options.dark ? 1 : 0,
                      },
                  });
        const page = await browser.newPage();
        const session = new Session(browser, page, proxy, requests);
        page.on('pageerror', (error) => session.faults.push(String(error)));
        page.on('console', (message) => {
            if (message.type() === 'error') session.faults.push(message.text());
        });
        if (name === 'chrome')
            await page.emulateMediaFeatures([{name: 'prefers-color-scheme', value: options.dark ? 'dark' : 'light'}]);
        requests.length = 0; // what the browser does for itself while it starts
        if (options.inPlace !== undefined) {
            await page.setRequestInterception(true);
            page.on('request', (request) => {
                const {pathname, search} = new URL(request.url());
                if (pathname === '/' && search === '')
                    void request.respond({contentType: 'text/html; charset=utf-8', body: options.inPlace!});
                else void request.continue();
            });
        }
        await page.goto((options.served ?? pathToFileURL(viewer)).href);
        await page.waitForFunction(() => location.search === ''); // the address with a token leads there
        return session;
    }

    /** Gives files to the page as a person would choose them. */
    async open(...files: readonly string[]): Promise<void> {
        const input = await this.page.waitForSelector('input[type=file]');
        await (input as any).uploadFile(...files);
        await input!.dispose(); // it would keep all of the page that it is in
        await (await this.page.waitForSelector('[role=tablist]'))!.dispose();
    }

    /** Every table was read and every series drawn. */
    async settled(): Promise<void> {
        await this.page.waitForFunction(
            () => {
                const progress = document.querySelector('.progress');
                const status = [...document.querySelectorAll('.view:not([hidden]) .status')].map(
                    (each) => each.textContent ?? '',
                );
                return (
                    (progress === null || (progress as HTMLElement).hidden) &&
                    !status.some((text) => /about|Looking|read$/.test(text))
                );
            },
            {timeout: 60000},
        );
    }

    async tab(name: string): Promise<void> {
        await this.page.click(`#tab-${name}`);
    }

    async close(): Promise<void> {
        await this.browser.close();
        this.proxy.close();
    }

    [Symbol.asyncDispose](): Promise<void> {
        return this.close();
    }
}
