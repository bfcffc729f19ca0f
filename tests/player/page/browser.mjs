// SPDX-License-Identifier: Apache-2.0
// A headless Chromium, driven over its own protocol: a pipe of JSON messages, each ended by a zero
// byte, on descriptors 3 (to it) and 4 (from it). Needs nothing but Node.
import { spawn } from 'node:child_process';
import { mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';

export class Browser {
  /** @param program  of Chromium */
  static async start(program) {
    const browser = new Browser();
    browser.folder = mkdtempSync(join(tmpdir(), 'korvane-browser-'));
    browser.process = spawn(program, ['--headless', '--no-sandbox', '--disable-gpu', '--no-first-run',
      '--remote-debugging-pipe', `--user-data-dir=${browser.folder}`, '--disable-dev-shm-usage',
      '--disable-background-networking', '--disable-extensions', 'about:blank'],
      { stdio: ['ignore', 'ignore', 'ignore', 'pipe', 'pipe'] });
    browser.process.stdio[4].on('data', (bytes) => browser.#receive(bytes));
    return browser;
  }

  async stop() {
    const ended = new Promise((go) => this.process.on('exit', go));
    await this.send('Browser.close').catch(() => {});
    await ended;
    rmSync(this.folder, { recursive: true, force: true, maxRetries: 5 });
  }

  /** Opens an address in a page of its own and waits until it has loaded. */
  async open(address, { width = 1400, height = 900 } = {}) {
    const { targetId } = await this.send('Target.createTarget', { url: 'about:blank' });
    const { sessionId } = await this.send('Target.attachToTarget', { targetId, flatten: true });
    const page = new Page(this, sessionId, targetId);
    this.#pages.set(sessionId, page);
    for (const domain of ['Page', 'Runtime', 'Log', 'Performance']) await page.send(`${domain}.enable`);
    await page.send('Emulation.setDeviceMetricsOverride', { width, height, deviceScaleFactor: 1, mobile: false });
    await page.send('Page.navigate', { url: address });
    return page;
  }

  send(method, params = {}, sessionId) {
    const id = ++this.#last;
    this.process.stdio[3].write(JSON.stringify({ id, method, params, sessionId }) + '\0');
    return new Promise((resolve, reject) => this.#waiting.set(id, { resolve, reject, method }));
  }

  #last = 0;
  #waiting = new Map();
  #pages = new Map();
  #rest = '';
  #receive(bytes) {
    const parts = (this.#rest + bytes.toString()).split('\0');
    this.#rest = parts.pop();
    for (const part of parts) {
      const message = JSON.parse(part);
      const waiting = this.#waiting.get(message.id);
      if (waiting) {
        this.#waiting.delete(message.id);
        message.error ? waiting.reject(new Error(`${waiting.method}: ${message.error.message}`)) : waiting.resolve(message.result);
      } else {
        this.#pages.get(message.sessionId)?.happened(message);
      }
    }
  }
}

class Page {
  errors = [];

  constructor(browser, session, target) {
    Object.assign(this, { browser, session, target });
  }
  send(method, params) {
    return this.browser.send(method, params, this.session);
  }
  happened({ method, params }) {
    if (method === 'Runtime.exceptionThrown') this.errors.push(params.exceptionDetails.exception?.description ?? params.exceptionDetails.text);
    if (method === 'Log.entryAdded' && ['error', 'warning'].includes(params.entry.level)) this.errors.push(params.entry.text);
    if (method === 'Runtime.consoleAPICalled' && ['error', 'warning'].includes(params.type)) this.errors.push(JSON.stringify(params.args));
  }

  /** What an expression is on the page; a promise is waited for. */
  async evaluate(expression) {
    const { result, exceptionDetails } = await this.send('Runtime.evaluate', { expression, awaitPromise: true, returnByValue: true });
    if (exceptionDetails) throw new Error(exceptionDetails.exception?.description ?? exceptionDetails.text);
    return result.value;
  }
  text = (selector) => this.evaluate(`document.querySelector(${JSON.stringify(selector)})?.textContent`);

  /** Waits until an expression is true. */
  async until(expression, patienceMs = 20000) {
    for (const end = Date.now() + patienceMs; Date.now() < end;) {
      if (await this.evaluate(`Boolean(${expression})`).catch(() => false)) return;
      await new Promise((go) => setTimeout(go, 20));
    }
    throw new Error(`never true: ${expression}; the page says: ${this.errors}`);
  }
  /** Two pictures later, so that what was asked for is drawn. */
  settle = () => this.evaluate('new Promise((go) => requestAnimationFrame(() => requestAnimationFrame(() => setTimeout(go, 10))))');

  async press(key, { shift = false } = {}) {
    const event = { key, text: key.length === 1 ? key : undefined, modifiers: shift ? 8 : 0 };
    await this.send('Input.dispatchKeyEvent', { type: 'keyDown', ...event });
    await this.send('Input.dispatchKeyEvent', { type: 'keyUp', ...event, text: undefined });
    await this.settle();
  }
  /** The mouse goes down at the first point and up at the last. */
  async drag(...points) {
    const mouse = (type, [x, y], rest) => this.send('Input.dispatchMouseEvent', { type, x, y, button: 'left', clickCount: 1, ...rest });
    await mouse('mouseMoved', points[0], { button: 'none' });
    await mouse('mousePressed', points[0]);
    for (const point of points.slice(1)) await mouse('mouseMoved', point);
    await mouse('mouseReleased', points[points.length - 1]);
    await this.settle();
  }
  click = (x, y) => this.drag([x, y]);

  async screenshot(file, { full = false } = {}) {
    const { cssContentSize } = await this.send('Page.getLayoutMetrics');
    const clip = full ? { x: 0, y: 0, width: cssContentSize.width, height: cssContentSize.height, scale: 1 } : undefined;
    const { data } = await this.send('Page.captureScreenshot', { format: 'png', captureBeyondViewport: full, clip });
    writeFileSync(file, Buffer.from(data, 'base64'));
  }
  emulate = (features) => this.send('Emulation.setEmulatedMedia', { media: features.media ?? '', features: features.dark === undefined ? []
    : [{ name: 'prefers-color-scheme', value: features.dark ? 'dark' : 'light' }] });
  close = () => this.browser.send('Target.closeTarget', { targetId: this.target });
}
