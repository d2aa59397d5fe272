// What the report page computes from a record, against slow and obvious reckonings, without a browser.
'use strict';

const assert = require('node:assert');
const fs = require('node:fs');
const path = require('node:path');
const { test } = require('node:test');
const { makeRecord } = require('./make_record.js');

const sources = path.join(__dirname, '../../src/dorn/report');
const text = ['model.js', 'format.js'].map((name) => fs.readFileSync(path.join(sources, name), 'utf8')).join('\n');
const { buildModel, searchJobs, valueAt, areaOf, jobLabel, formatTime, formatMark, formatShare } = new Function(
  `${text}; return { buildModel, searchJobs, valueAt, areaOf, jobLabel, formatTime, formatMark, formatShare };`,
)();

function recordOf(jobs, build = {}) {
  return { kestrun_build_record: 1, build: { duration_us: 1000000, slots: 2, ...build }, jobs };
}

function job(queued, started, ended, slot, more = {}) {
  return {
    number: 1,
    tool: 'cc',
    command: 'cc -c a.c',
    queued_us: queued,
    started_us: started,
    ended_us: ended,
    slot,
    outcome: 'ok',
    ...more,
  };
}

const ms = (from, to, slot, more) => job(from * 1000, from * 1000, to * 1000, slot, more);

test('levels are what counting the jobs at a moment gives', () => {
  const model = buildModel(makeRecord(600, 5, 'plain'));
  for (let k = 0; k < 300; ++k) {
    const at = (model.end * k) / 300 + 0.5;
    const busy = model.jobs.filter((j) => j.started_us <= at && at < j.ended_us).length;
    const waiting = model.jobs.filter((j) => j.queued_us <= at && at < j.started_us).length;
    assert.strictEqual(valueAt(model.busy, at), busy);
    assert.strictEqual(valueAt(model.waiting, at), waiting);
  }
  const sum = model.jobs.reduce((time, j) => time + j.ended_us - j.started_us, 0);
  assert.ok(Math.abs(areaOf(model.busy, model.begin, model.end) - sum) < 1);
  assert.ok(Math.abs(model.totals.busyShare - sum / (5 * model.end)) < 1e-9);
});

test('each job that ran stands in the lane of its slot, and the jobs of a row do not overlap', () => {
  const model = buildModel(makeRecord(600, 5, 'ended'));
  const placed = new Set();
  for (const lane of model.lanes) {
    for (const row of lane.rows) {
      row.jobs.forEach((i, k) => {
        placed.add(i);
        assert.strictEqual(String(model.jobs[i].slot + 1), lane.label);
        if (k) assert.ok(model.start[i] >= model.stop[row.jobs[k - 1]]);
      });
    }
  }
  assert.strictEqual(placed.size, model.jobs.filter((j) => j.started_us !== null).length);
  assert.strictEqual(model.neverRan.length, model.count - placed.size);
});

test('jobs that run at the same time in one slot get rows of their own, and the slot is busy once', () => {
  const model = buildModel(recordOf([ms(0, 900, 0), ms(100, 300, 0), ms(150, 200, 0), ms(300, 500, 0)]));
  assert.deepStrictEqual(
    model.lanes[0].rows.map((row) => [...row.jobs]),
    [[0], [1, 3], [2]],
  );
  assert.strictEqual(model.busy.most, 1);
  assert.strictEqual(model.totals.busyTime, 900000);
});

test('processor time is not counted twice where jobs are below others', () => {
  const below = (number, parent, cpu) => ms(0, 100, 0, { number, parent, cpu_us: cpu });
  assert.strictEqual(
    buildModel(recordOf([below(1, 0, 900), below(2, 1, 300), below(3, 2, 100), below(4, 77, 20)])).totals.cpu,
    920,
  );
});

test('a stretch is found where slots are empty, not where they are full, and across a short busy moment', () => {
  const full = [ms(0, 300, 0), ms(0, 300, 1)];
  const stretches = (jobs) =>
    buildModel(recordOf(jobs)).stretches.map((s) => [s.from / 1000, s.to / 1000, s.lost / 1000]);
  assert.deepStrictEqual(stretches([ms(0, 1000, 0), ms(0, 1000, 1)]), []);
  assert.deepStrictEqual(stretches([...full, ms(300, 1000, 0)]), [[300, 1000, 700]]);
  assert.deepStrictEqual(stretches([...full, ms(300, 1000, 0), ms(500, 510, 1)]), [[300, 1000, 690]]);
  assert.deepStrictEqual(stretches([ms(200, 900, 0), ms(300, 900, 1)]), [
    [0, 300, 500],
    [900, 1000, 200],
  ]);
});

test('a stretch names the jobs that took most of it', () => {
  const model = buildModel(
    recordOf([ms(0, 300, 1), ms(0, 320, 0), ms(400, 420, 0), ms(500, 1000, 0), ms(450, 470, 1)]),
  );
  assert.strictEqual(model.stretches.length, 1);
  assert.deepStrictEqual(
    model.stretches[0].ran.map(({ job: i, time }) => [i, time / 1000]),
    [
      [3, 500],
      [1, 20],
      [2, 20],
    ],
  );
  assert.strictEqual(model.stretches[0].jobs, 4);
});

test('what is not there yet, or not known, counts as such', () => {
  const model = buildModel(
    recordOf(
      [
        job(0, 1000, null, 0, { outcome: 'running' }),
        job(500, null, null, null, { outcome: 'waiting' }),
        job(0, 10, 20, null),
        job(100, null, 400, null, { outcome: 'cancelled' }),
        { number: 9, outcome: 'melted' },
        null,
      ],
      { duration_us: null, slots: null, exit_code: null },
    ),
  );
  assert.strictEqual(model.count, 5);
  assert.strictEqual(model.end, 1000);
  assert.deepStrictEqual([model.totals.ran, model.totals.cpu, model.totals.memory, model.slots], [2, null, null, 1]);
  assert.deepStrictEqual([model.outcomes.running, model.outcomes.waiting, model.outcomes.unknown], [1, 1, 1]);
  assert.strictEqual(valueAt(model.waiting, 450), 1);
  assert.strictEqual(model.lanes[1].isSlotless, true);
});

test('an empty build is a build', () => {
  const model = buildModel(recordOf([], { duration_us: 0, slots: 0 }));
  assert.deepStrictEqual(
    [model.count, model.stretches.length, model.totals.busyShare, model.totals.medianWait],
    [0, 0, null, null],
  );
  for (const none of [null, [], {}, 'x', { jobs: [] }]) assert.throws(() => buildModel(none), /not a build record/);
});

test('a search finds the jobs for which all of its words hold', () => {
  const model = buildModel(
    recordOf([
      ms(0, 300, 0, { command: 'cc -c Alpha.c', folder: '/x' }),
      ms(0, 20, 1, { tool: '/usr/bin/ld', command: 'ld a:b' }),
      job(0, 5000000, 5900000, 1, { outcome: 'failed', tool: 'my tool', command: '' }),
    ]),
  );
  const found = (query) => {
    const match = searchJobs(model, query);
    return match && [...match.keys()].filter((i) => match[i]);
  };
  const cases = {
    '': null,
    '  ': null,
    alpha: [0],
    'ALPHA cc': [0],
    'alpha ld': [],
    'tool:ld': [1],
    'tool:"my tool"': [2],
    'outcome:failed': [2],
    'over:0.1s': [0, 2],
    'over:200ms outcome:ok': [0],
    'slot:2': [1, 2],
    'waited:1s': [2],
    'a:b': [1],
    'over:x': [],
  };
  for (const [query, jobs] of Object.entries(cases)) assert.deepStrictEqual(found(query), jobs, query);
});

test('a job is labelled by its name, else by its tool and its file', () => {
  const label = (command, more = {}) => jobLabel({ tool: command.split(' ')[0], command, ...more });
  assert.strictEqual(label('gcc -I x -c src/a.c -o out/a.o'), 'gcc a.c');
  assert.strictEqual(label('/usr/bin/ld -o out/prog x.a'), 'ld prog');
  assert.strictEqual(label('sh -c "cd /x && \\"make\\" y"'), 'sh cd /x && \\"make\\" y');
  assert.strictEqual(label('make'), 'make');
  assert.strictEqual(label('gcc -c a.c', { name: 'My job' }), 'My job');
  assert.strictEqual(jobLabel({}), '(unknown)');
});

test('times are written with the figures that matter', () => {
  const cases = [
    [0, '0 s'],
    [999, '999 µs'],
    [1500, '1.5 ms'],
    [9999, '10 ms'],
    [999499, '999 ms'],
    [999600, '1.00 s'],
    [59990000, '60.0 s'],
    [59996000, '1 min 00 s'],
    [3599400000, '59 min 59 s'],
    [3600000000, '1 h 00 min'],
    [-2000, '−2.0 ms'],
    [NaN, '–'],
    [null, '–'],
  ];
  for (const [us, expected] of cases) assert.strictEqual(formatTime(us), expected);
  assert.strictEqual(formatMark(61500000, 500000, 9e7), '1:01.5');
  assert.strictEqual(formatMark(5000, 5000, 34000), '5 ms');
  assert.strictEqual(formatMark(7.2e9, 6e8, 9e9), '2:00 h');
  assert.strictEqual(formatShare(0.9999), '99.9 %');
});
