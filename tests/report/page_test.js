// Opens report pages in a headless Chromium and uses them as a reader would. Expects in the environment DORN, the
// program; WORK, a folder for pages and screenshots; and, if there is one, RECORD, the record of a real build.
'use strict';

const assert = require('node:assert');
const { execFileSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');
const { after, before, test } = require('node:test');
const { Browser } = require('./browser.js');
const { makeRecord } = require('./make_record.js');

const { DORN, WORK, RECORD } = process.env;
const inWork = (name) => path.join(WORK, name);
const isFailed = (job) => ['failed', 'signalled', 'overdue'].includes(job.outcome);
const ranFor = (job) => job.ended_us - job.started_us;
const counted = (number) => number.toLocaleString('en-GB');

let browser;
before(async () => {
  browser = await Browser.start();
});
after(async () => {
  await browser.close();
});

// Writes the page of a record, which may be text, and opens it at the size of a usual screen.
async function openPage(name, record, { scheme = 'light', width = 1440 } = {}) {
  fs.writeFileSync(inWork(`${name}.json`), typeof record === 'string' ? record : JSON.stringify(record));
  execFileSync(DORN, ['--report-from', inWork(`${name}.json`), inWork(`${name}.html`)]);
  await browser.resize(width, 1000);
  await browser.preferColours(scheme);
  return browser.open(inWork(`${name}.html`));
}

// A page says nothing on the console and asks for nothing but itself.
function assertQuiet() {
  assert.deepStrictEqual(browser.complaints, []);
  assert.deepStrictEqual(
    browser.requests.filter((url) => !url.startsWith('file:') && !url.startsWith('data:,')),
    [],
  );
  assert.strictEqual(browser.requests.filter((url) => url.startsWith('file:')).length, 1);
}

const textOf = (selector) => browser.evaluate(`document.querySelector(${JSON.stringify(selector)}).innerText`);
const figure = (name) =>
  browser.evaluate(
    `[...document.querySelectorAll('#figures dt')].find((dt) => dt.innerText === ${JSON.stringify(name)}).nextSibling.innerText`,
  );
const viewOf = () => browser.evaluate('[buildReport.timeline.from, buildReport.timeline.to]');
const focused = () => browser.evaluate('document.activeElement.id');
const selected = () => browser.evaluate('buildReport.timeline.selected');

// The middle of a job's bar, in the window.
function placeOf(job) {
  return browser.evaluate(`(() => {
    const { timeline, model } = buildReport;
    const box = timeline.parts.canvas.getBoundingClientRect();
    const place = timeline.placeOf(${job});
    return [box.x + (timeline.xOf(model.start[${job}]) + timeline.xOf(model.stop[${job}])) / 2, box.y + place.y + timeline.rowHeight / 2];
  })()`);
}

async function search(query) {
  await browser.evaluate("document.querySelector('#search').value = ''");
  await browser.press('/');
  assert.strictEqual(await focused(), 'search');
  await browser.type(query);
  await browser.press('Enter');
  await browser.evaluate(`new Promise((resolve) => setTimeout(() => { buildReport.page.search(); resolve(); }))`);
  return textOf('#found');
}

async function assertCounts(record) {
  const { jobs, build } = record;
  const failures = jobs.filter(isFailed);
  assert.strictEqual(await figure('Jobs'), counted(jobs.length));
  assert.strictEqual(await figure('Failures'), counted(failures.length));
  assert.strictEqual(await figure('Slots'), counted(build.slots));
  assert.strictEqual(await textOf('h1'), build.command);
  const cards = await browser.evaluate("document.querySelectorAll('#failure-list article').length");
  assert.strictEqual(cards, Math.min(10, failures.length));
  const tools = await browser.evaluate(
    "[...document.querySelectorAll('#tool-table tbody tr')].map((row) => [row.cells[0].innerText, row.cells[1]?.innerText])",
  );
  const ofFirst = jobs.filter((job) => path.basename(job.tool) === tools[0][0]);
  assert.strictEqual(tools[0][1], counted(ofFirst.length));
  const slowest = jobs.filter((job) => job.started_us !== null).sort((a, b) => ranFor(b) - ranFor(a))[0];
  const first = await textOf('#job-table tbody tr:first-child .one-line');
  assert.ok(slowest.command.startsWith(first.replace(/ …$/, '').slice(0, 60)), first);
}

test('a page shows what its record says', async () => {
  const record = makeRecord(700, 8, 'plain');
  await openPage('plain', record);
  await assertCounts(record);
  assert.match(await textOf('#about'), /Failed, exit 2/);
  assert.strictEqual(await figure('Slots busy'), '84 %');
  assertQuiet();
});

test('a bar has the colour of its tool, and a click on it opens its details', async () => {
  const record = makeRecord(60, 4, 'plain');
  await openPage('small', record);
  const job = record.jobs.findIndex((j) => j.tool === 'g++' && ranFor(j) > 1e6);
  const [x, y] = await placeOf(job);
  const pixel = await browser.evaluate(`(() => {
    const box = buildReport.timeline.parts.canvas.getBoundingClientRect();
    const place = buildReport.timeline.placeOf(${job});
    const at = buildReport.timeline.xOf(buildReport.model.start[${job}]) + 2;
    const [r, g, b] = buildReport.timeline.context.getImageData(at, place.y + 2, 1, 1).data;
    return '#' + [r, g, b].map((v) => v.toString(16).padStart(2, '0')).join('');
  })()`);
  assert.strictEqual(
    pixel,
    await browser.evaluate("getComputedStyle(document.documentElement).getPropertyValue('--tool-0').trim()"),
  );
  await browser.mouse('mouseMoved', x, y);
  assert.ok((await textOf('#tooltip')).includes(record.jobs[job].command.slice(0, 40)));
  await browser.click(x, y);
  assert.strictEqual(await textOf('#details .command'), record.jobs[job].command);
  await browser.press('Escape');
  assert.strictEqual(await browser.evaluate("document.querySelector('#details').hidden"), true);
});

test('wheel, keys and buttons zoom and pan within the build', async () => {
  const [from, to] = await viewOf();
  const box = await browser.evaluate(
    "(() => { const b = document.querySelector('#canvas').getBoundingClientRect(); return [b.x + b.width / 2, b.y + 200]; })()",
  );
  await browser.mouse('mouseWheel', ...box, { deltaX: 0, deltaY: -200 });
  await browser.frames();
  const near = await viewOf();
  assert.ok(near[0] > from && near[1] < to);
  await browser.evaluate("document.querySelector('#canvas').focus()");
  await browser.press('d');
  assert.ok((await viewOf())[0] > near[0]);
  for (let k = 0; k < 60; ++k) await browser.press('d');
  assert.ok(Math.abs((await viewOf())[1] - to) < 1);
  for (let k = 0; k < 45; ++k) await browser.press('+');
  const [a, b] = await viewOf();
  assert.ok(b - a >= 20 && b - a < 21);
  await browser.press('0');
  assert.deepStrictEqual(await viewOf(), [from, to]);
  assert.strictEqual(await browser.evaluate('document.documentElement.scrollTop'), 0);
});

test('the keyboard alone reaches every job', async () => {
  const record = makeRecord(60, 4, 'plain');
  await browser.open(inWork('small.html'));
  await browser.press('Tab');
  assert.strictEqual(await browser.evaluate('document.activeElement.className'), 'skip');
  for (let k = 0; (await focused()) !== 'canvas'; ++k) {
    assert.ok(k < 20);
    await browser.press('Tab');
  }
  const seen = new Set();
  await browser.press('ArrowRight');
  for (let lane = 0; lane < 4; ++lane) {
    for (let last = -1; last !== (await selected());) {
      last = await selected();
      await browser.press('ArrowLeft');
    }
    for (let last = -1; last !== (await selected());) {
      last = await selected();
      seen.add(last);
      await browser.press('ArrowRight');
    }
    await browser.press('ArrowDown');
  }
  assert.strictEqual(seen.size, record.jobs.length);
  await browser.press('Enter');
  assert.strictEqual(await focused(), 'details');
  assert.strictEqual(await textOf('#details .command'), record.jobs[await selected()].command);
  await browser.press('Escape');
  assert.strictEqual(await focused(), 'canvas');
  await browser.press('?');
  assert.strictEqual(await browser.evaluate("document.querySelector('#help').open"), true);
  await browser.press('Escape');
  assert.strictEqual(await browser.evaluate("document.querySelector('#help').open"), false);
  await browser.press('c');
  assert.strictEqual(await browser.evaluate("document.querySelector('#colour input:checked').value"), 'outcome');
  assertQuiet();
});

test('every control has a name', async () => {
  const nameless = await browser.evaluate(`[...document.querySelectorAll('button, input, canvas, a')].filter((e) =>
    !(e.getAttribute('aria-label') || e.innerText || e.labels?.[0]?.innerText || e.title)).map((e) => e.outerHTML)`);
  assert.deepStrictEqual(nameless, []);
});

test('a search counts, steps from match to match, and narrows the list of jobs', async () => {
  const record = makeRecord(700, 8, 'plain');
  await openPage('plain', record);
  const matching = record.jobs.filter((job) => job.command.includes('token') && job.tool === 'gcc');
  assert.ok(matching.length > 2);
  assert.match(await search('tool:gcc token'), new RegExp(`^${matching.length} of ${record.jobs.length} jobs`));
  await browser.evaluate('document.activeElement.blur()');
  const visited = [];
  for (let k = 0; k < 3; ++k) {
    await browser.press('n');
    visited.push(record.jobs[await selected()]);
  }
  assert.ok(visited.every((job) => matching.includes(job)));
  assert.ok(visited[0].started_us < visited[1].started_us && visited[1].started_us < visited[2].started_us);
  assert.strictEqual(
    await browser.evaluate("document.querySelectorAll('#job-table tbody tr').length"),
    Math.min(20, matching.length),
  );
  assert.match(await search('nowhere to be found'), /^0 of /);
  assert.match(await textOf('#jobs-hint'), /finds no job/);
});

test('dark and light follow the system, and the switch goes before it', async () => {
  const ground = () =>
    browser.evaluate(
      "(() => { const [r] = getComputedStyle(document.body).backgroundColor.match(/\\d+/g); return Number(r) < 128 ? 'dark' : 'light'; })()",
    );
  const canvasGround = () =>
    browser.evaluate('buildReport.timeline.context.getImageData(2, 150, 1, 1).data[0] < 128 ? "dark" : "light"');
  await openPage('plain', makeRecord(700, 8, 'plain'), { scheme: 'dark' });
  assert.deepStrictEqual([await ground(), await canvasGround()], ['dark', 'dark']);
  await browser.screenshot(inWork('dark.png'));
  await browser.evaluate("document.querySelector('#theme input[value=light]').click()");
  await browser.frames();
  assert.deepStrictEqual([await ground(), await canvasGround()], ['light', 'light']);
  await browser.screenshot(inWork('light.png'));
  await browser.evaluate("document.querySelector('#theme input[value=auto]').click()");
  await browser.frames();
  assert.strictEqual(await ground(), 'dark');
  await browser.preferColours('light');
  await browser.frames();
  assert.deepStrictEqual([await ground(), await canvasGround()], ['light', 'light']);
});

test('a narrow window needs no scrolling sideways', async () => {
  await openPage('plain', makeRecord(700, 8, 'plain'), { width: 390 });
  assert.ok((await browser.evaluate('document.documentElement.scrollWidth')) <= 390);
});

test('a build that has not ended, and one without jobs, are shown as such', async () => {
  const ended = makeRecord(300, 4, 'ended');
  await openPage('ended', ended);
  assert.match(await textOf('#about'), /Not ended/);
  assert.match(await textOf('#figures'), /until the last job known/);
  assert.match(
    await textOf('#legend'),
    new RegExp(`${ended.jobs.filter((job) => job.started_us === null).length} jobs never ran`),
  );
  const page = await textOf('body');
  assert.ok(!/NaN|undefined|null|Infinity/.test(page), page);
  assertQuiet();
  await openPage('empty', makeRecord(0, 8, 'empty'));
  assert.strictEqual(await figure('Jobs'), '0');
  assert.ok(!/NaN|undefined|null|Infinity/.test(await textOf('body')));
  assertQuiet();
});

test('text of a record stays text', async () => {
  const nasty = `</script><script>window.wasRun = 1</script><img src=x onerror="window.wasRun = 2"><!--\u2028\u0000"'`;
  const record = makeRecord(20, 2, 'plain');
  record.build.command = record.build.folder = record.build.host = nasty;
  for (const job of record.jobs)
    Object.assign(job, {
      command: nasty,
      folder: nasty,
      name: nasty,
      outcome: 'failed',
      output_head: nasty,
      tool: nasty,
    });
  await openPage('nasty', record);
  assert.strictEqual(await browser.evaluate("document.querySelector('h1').textContent"), nasty);
  await browser.evaluate('buildReport.page.open(0)');
  assert.strictEqual(await browser.evaluate("document.querySelector('#details .command').textContent"), nasty);
  assert.strictEqual(await browser.evaluate('typeof window.wasRun'), 'undefined');
  assert.strictEqual(await browser.evaluate("document.querySelectorAll('img').length"), 0);
  assertQuiet();
});

test('a damaged record is said to be one', async () => {
  for (const [record, said] of [
    ['{"kestrun_build_record": 1, "jobs": [', /damaged/],
    ['{}', /not a build record/],
    ['', /damaged/],
  ]) {
    await openPage('damaged', record);
    assert.match(await textOf('#trouble'), said);
    assertQuiet();
  }
});

test('a page prints in light colours', async () => {
  await openPage('plain', makeRecord(700, 8, 'plain'), { scheme: 'dark' });
  await browser.evaluate(`window.addEventListener('beforeprint', () => {
    window.printed = buildReport.timeline.context.getImageData(2, 150, 1, 1).data[0] > 128 ? 'light' : 'dark';
  })`);
  const { data } = await browser.send('Page.printToPDF', { printBackground: false, preferCSSPageSize: true });
  fs.writeFileSync(inWork('print.pdf'), Buffer.from(data, 'base64'));
  assert.strictEqual(await browser.evaluate('window.printed'), 'light');
  assert.strictEqual(await browser.evaluate('document.documentElement.dataset.theme'), 'dark');
});

// Times are told and not judged: they are the machine's.
test('100 000 jobs can be opened, searched and panned', async (context) => {
  const record = makeRecord(100000, 16, 'plain');
  const opened = await openPage('large', record);
  await assertCounts(record);
  const matching = record.jobs.filter((job) => job.command.includes('lexer')).length;
  assert.ok((await search('lexer')).startsWith(`${counted(matching)} of ${counted(record.jobs.length)} jobs`));
  const times = await browser.evaluate(`(async () => {
    const { timeline, page, model, readMs, shownMs } = buildReport;
    const measure = async (move) => {
      const times = [];
      for (let k = 0; k < 21; ++k) {
        move();
        await new Promise((resolve) => requestAnimationFrame(() => requestAnimationFrame(resolve)));
        times.push(timeline.drawTime);
      }
      return times.sort((a, b) => a - b)[10];
    };
    const whole = await measure(() => timeline.requestDraw());
    timeline.setView(model.end * 0.1, model.end * 0.6);
    const half = await measure(() => timeline.pan(0.005));
    timeline.setView(model.end * 0.4, model.end * 0.42);
    return { readMs, shownMs, search: page.searchTime, whole, half, near: await measure(() => timeline.pan(0.05)) };
  })()`);
  context.diagnostic(
    `100 000 jobs, milliseconds: opened ${opened.toFixed(0)}, of which the record read ${times.readMs.toFixed(0)}, shown ${times.shownMs.toFixed(0)}; ` +
      `search ${times.search.toFixed(0)}; drawing the whole ${times.whole.toFixed(1)}, panning a half ${times.half.toFixed(1)}, panning a fiftieth ${times.near.toFixed(1)}`,
  );
  assertQuiet();
  await browser.screenshot(inWork('large.png'));
});

test('the record of a real build', { skip: RECORD ? false : 'no record was given' }, async () => {
  const record = JSON.parse(fs.readFileSync(RECORD, 'utf8'));
  assert.ok(record.jobs.length > 0);
  await openPage('real', record);
  await assertCounts(record);
  assertQuiet();
  await browser.screenshot(inWork('real.png'), true);
});
