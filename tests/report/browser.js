// Drives a headless Chromium over its debugging pipe, without further packages.
'use strict';

const { spawn } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');

// One browser with one page. What the page logs as an error, throws, or asks of the network is kept in `complaints` and
// `requests` from the last open() on.
class Browser {
  static async start() {
    const browser = new Browser();
    browser.profile = fs.mkdtempSync(path.join(os.tmpdir(), 'kestrun-report-'));
    const flags = [
      '--headless=new',
      '--no-sandbox',
      '--disable-gpu',
      '--hide-scrollbars',
      '--no-first-run',
      '--disable-extensions',
      '--disable-background-networking',
      '--disable-dev-shm-usage',
      '--remote-debugging-pipe',
      `--user-data-dir=${browser.profile}`,
      'about:blank',
    ];
    browser.child = spawn(process.env.CHROMIUM ?? 'chromium', flags, {
      stdio: ['ignore', 'ignore', 'ignore', 'pipe', 'pipe'],
    });
    browser.ended = new Promise((resolve) => browser.child.once('exit', resolve));
    browser.ended.then(() => browser.failAll(new Error('the browser has ended')));
    browser.child.once('error', (error) => browser.failAll(error));
    browser.child.stdio[3].on('error', (error) => browser.failAll(error));
    browser.readAnswers();
    await browser.attach();
    return browser;
  }

  constructor() {
    this.answers = new Map();
    this.lastId = 0;
    this.complaints = [];
    this.requests = [];
    this.events = new Map();
  }

  failAll(error) {
    for (const { reject } of this.answers.values()) reject(error);
    this.answers.clear();
  }

  // Messages end with a zero byte.
  readAnswers() {
    let parts = [];
    this.child.stdio[4].on('data', (chunk) => {
      for (let end = chunk.indexOf(0); end >= 0; end = chunk.indexOf(0)) {
        parts.push(chunk.subarray(0, end));
        this.take(JSON.parse(Buffer.concat(parts).toString('utf8')));
        parts = [];
        chunk = chunk.subarray(end + 1);
      }
      parts.push(chunk);
    });
  }

  take(message) {
    if (message.id) {
      const { resolve, reject } = this.answers.get(message.id);
      this.answers.delete(message.id);
      if (message.error) reject(new Error(message.error.message));
      else resolve(message.result);
      return;
    }
    const { method, params } = message;
    if (method === 'Runtime.exceptionThrown')
      this.complaints.push(params.exceptionDetails.exception?.description ?? params.exceptionDetails.text);
    if (method === 'Runtime.consoleAPICalled' && ['error', 'warning'].includes(params.type))
      this.complaints.push(params.args.map((a) => a.value ?? a.description).join(' '));
    if (method === 'Log.entryAdded' && ['error', 'warning'].includes(params.entry.level))
      this.complaints.push(params.entry.text);
    if (method === 'Network.requestWillBeSent') this.requests.push(params.request.url);
    this.events.get(method)?.(params);
  }

  send(method, params = {}) {
    const id = ++this.lastId;
    const message = { id, method, params };
    if (this.session) message.sessionId = this.session;
    return new Promise((resolve, reject) => {
      this.answers.set(id, { resolve, reject });
      this.child.stdio[3].write(`${JSON.stringify(message)}\0`);
    });
  }

  async attach() {
    const { targetInfos } = await this.send('Target.getTargets');
    const target = targetInfos.find((info) => info.type === 'page');
    this.session = (await this.send('Target.attachToTarget', { targetId: target.targetId, flatten: true })).sessionId;
    for (const domain of ['Page', 'Runtime', 'Log', 'Network']) await this.send(`${domain}.enable`);
  }

  async resize(width, height, scale = 1) {
    await this.send('Emulation.setDeviceMetricsOverride', { width, height, deviceScaleFactor: scale, mobile: false });
  }

  async preferColours(scheme) {
    await this.send('Emulation.setEmulatedMedia', { features: [{ name: 'prefers-color-scheme', value: scheme }] });
  }

  // Opens a page of a file and waits until it says that it is ready. Milliseconds until then.
  async open(file) {
    this.complaints = [];
    this.requests = [];
    const begun = performance.now();
    const loaded = new Promise((resolve) => this.events.set('Page.loadEventFired', resolve));
    await this.send('Page.navigate', { url: `file://${path.resolve(file)}` });
    await loaded;
    await this.evaluate(`new Promise((resolve) => {
      const look = () => (document.documentElement.dataset.ready ? resolve() : requestAnimationFrame(look));
      look();
    })`);
    return performance.now() - begun;
  }

  // The value of an expression in the page; a promise's value if it is one.
  async evaluate(expression) {
    const { result, exceptionDetails } = await this.send('Runtime.evaluate', {
      expression,
      awaitPromise: true,
      returnByValue: true,
      userGesture: true,
    });
    if (exceptionDetails) throw new Error(exceptionDetails.exception?.description ?? exceptionDetails.text);
    return result.value;
  }

  // After two frames all that was asked to be drawn has been.
  frames() {
    return this.evaluate(
      'new Promise((resolve) => requestAnimationFrame(() => requestAnimationFrame(() => resolve())))',
    );
  }

  async press(key, modifiers = 0) {
    const text = key.length === 1 ? key : key === 'Enter' ? '\r' : undefined;
    const code = { Tab: 9, Enter: 13, Escape: 27, ArrowLeft: 37, ArrowUp: 38, ArrowRight: 39, ArrowDown: 40 }[key];
    const base = { key, modifiers, windowsVirtualKeyCode: code, code: code ? key : undefined };
    await this.send('Input.dispatchKeyEvent', { ...base, type: text ? 'keyDown' : 'rawKeyDown', text });
    await this.send('Input.dispatchKeyEvent', { ...base, type: 'keyUp' });
    await this.frames();
  }

  async type(text) {
    for (const letter of text) await this.press(letter);
  }

  async mouse(type, x, y, more = {}) {
    await this.send('Input.dispatchMouseEvent', { type, x, y, ...more });
  }

  async click(x, y) {
    await this.mouse('mousePressed', x, y, { button: 'left', buttons: 1, clickCount: 1 });
    await this.mouse('mouseReleased', x, y, { button: 'left', clickCount: 1 });
    await this.frames();
  }

  async screenshot(file, isWholePage = false) {
    const { data } = await this.send('Page.captureScreenshot', {
      format: 'png',
      captureBeyondViewport: isWholePage,
      ...(isWholePage ? { clip: await this.pageClip() } : {}),
    });
    fs.writeFileSync(file, Buffer.from(data, 'base64'));
  }

  async pageClip() {
    const { cssContentSize } = await this.send('Page.getLayoutMetrics');
    return { x: 0, y: 0, width: cssContentSize.width, height: cssContentSize.height, scale: 1 };
  }

  async close() {
    this.session = undefined;
    await this.send('Browser.close').catch(() => {});
    await this.ended;
    fs.rmSync(this.profile, { recursive: true, force: true, maxRetries: 5 });
  }
}

module.exports = { Browser };
