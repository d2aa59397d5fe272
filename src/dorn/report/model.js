// Turns a build record into what the page shows: arrays of times, lanes, levels over time, stretches, tables. Nothing in
// this file touches the document, so it also runs outside a browser. All times are microseconds since the build began.

const OUTCOMES = ['ok', 'failed', 'signalled', 'overdue', 'cancelled', 'unknown', 'running', 'waiting'];
const FAILURES = ['failed', 'signalled', 'overdue'];

// A stretch counts as empty where at least this share of the slots is, on average.
const EMPTY_SHARE = 0.25;
// Stretches that cost less than this share of the build's slot time are not told.
const LEAST_LOSS = 0.005;
const MOST_STRETCHES = 12;
// Two jobs of a slot that overlap by less are drawn one behind the other.
const OVERLAP_US = 200;
const MOST_ROWS_OF_A_LANE = 12;
// Above this number only the slots that ran something get a lane.
const MOST_EMPTY_LANES = 64;

const LONGEST_COMMAND_OF_A_LABEL = 4000;

const isKnown = Number.isFinite;

function limit(value, low, high) {
  return Math.min(Math.max(value, low), high);
}

function textOf(value) {
  return typeof value === 'string' ? value : '';
}

function baseName(path) {
  return path.slice(Math.max(path.lastIndexOf('/'), path.lastIndexOf('\\')) + 1);
}

function toolName(job) {
  return baseName(textOf(job.tool)) || baseName(textOf(job.command).split(' ', 1)[0]) || '(unknown)';
}

// The words of a command line, quoted ones without their quotes.
function wordsOf(command) {
  return Array.from(
    command.slice(0, LONGEST_COMMAND_OF_A_LABEL).matchAll(/"((?:[^"\\]|\\.)*)"|\S+/g),
    ([word, quoted]) => quoted ?? word,
  );
}

// What tells one job from the next at a glance: its name, or its tool and the file that it works on.
function jobLabel(job) {
  if (textOf(job.name)) return job.name;
  const words = wordsOf(textOf(job.command)).slice(1);
  const isSource = (word) => /^[^-].*\.(c|cc|cpp|cxx|m|mm|s|S|rs|go|java|f90|cu|ts|y|l)$/.test(word);
  const output = words.indexOf('-o') >= 0 ? words[words.indexOf('-o') + 1] : undefined;
  const subject = words.find(isSource) || output || words.find((word) => /^[^-]/.test(word)) || '';
  if (!subject) return toolName(job);
  return `${toolName(job)} ${/\s/.test(subject) ? subject : baseName(subject)}`;
}

// Index of the first element that is greater than the value, in an array that does not descend.
function firstAbove(sorted, value) {
  let low = 0;
  let high = sorted.length;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (sorted[middle] > value) high = middle;
    else low = middle + 1;
  }
  return low;
}

// Joins intervals that touch or overlap; [[from, to], ...] sorted by their begin.
function joinIntervals(intervals) {
  const joined = [];
  for (const [from, to] of intervals) {
    const last = joined[joined.length - 1];
    if (last && from <= last[1]) last[1] = Math.max(last[1], to);
    else joined.push([from, to]);
  }
  return joined;
}

// How many of the intervals hold at each time: value[k] from time[k] on, 0 before.
function levelOf(begins, ends) {
  begins.sort();
  ends.sort();
  const time = [];
  const value = [];
  for (let b = 0, e = 0; e < ends.length;) {
    const at = b < begins.length ? Math.min(begins[b], ends[e]) : ends[e];
    while (b < begins.length && begins[b] === at) ++b;
    while (e < ends.length && ends[e] === at) ++e;
    time.push(at);
    value.push(b - e);
  }
  return {
    time: Float64Array.from(time),
    value: Int32Array.from(value),
    most: value.reduce((a, b) => Math.max(a, b), 0),
  };
}

// Calls visit(from, to, value) for each step of a level between two times.
function forEachStep(level, from, to, visit) {
  let at = from;
  let k = firstAbove(level.time, from) - 1;
  while (at < to) {
    const next = k + 1 < level.time.length ? Math.min(level.time[k + 1], to) : to;
    if (next > at) visit(at, next, k >= 0 ? level.value[k] : 0);
    at = Math.max(at, next);
    ++k;
  }
}

function areaOf(level, from, to) {
  let area = 0;
  forEachStep(level, from, to, (a, b, value) => {
    area += (b - a) * value;
  });
  return area;
}

function valueAt(level, time) {
  const k = firstAbove(level.time, time) - 1;
  return k >= 0 ? level.value[k] : 0;
}

function readTimes(model) {
  const { jobs, count } = model;
  model.queued = new Float64Array(count);
  model.start = new Float64Array(count);
  model.stop = new Float64Array(count);
  let begin = 0;
  let end = isKnown(model.build.duration_us) ? model.build.duration_us : 0;
  for (const job of jobs) {
    for (const time of [job.queued_us, job.started_us, job.ended_us]) {
      if (isKnown(time) && time < begin) begin = time;
      if (isKnown(time) && time > end) end = time;
    }
  }
  model.begin = begin;
  model.end = end;
  jobs.forEach((job, i) => {
    const start = isKnown(job.started_us) ? job.started_us : NaN;
    model.queued[i] = Math.min(isKnown(job.queued_us) ? job.queued_us : Infinity, Number.isNaN(start) ? end : start);
    model.start[i] = start;
    model.stop[i] = Math.max(isKnown(job.ended_us) ? job.ended_us : end, Number.isNaN(start) ? model.queued[i] : start);
  });
}

function outcomeOf(job) {
  if (OUTCOMES.includes(job.outcome)) return job.outcome;
  return 'unknown';
}

function readKinds(model) {
  const tools = new Map();
  model.tool = new Int32Array(model.count);
  model.outcome = new Uint8Array(model.count);
  model.outcomes = Object.fromEntries(OUTCOMES.map((name) => [name, 0]));
  model.jobs.forEach((job, i) => {
    const name = toolName(job);
    if (!tools.has(name)) tools.set(name, newTool(name, tools.size));
    const tool = tools.get(name);
    const outcome = outcomeOf(job);
    model.tool[i] = tool.index;
    model.outcome[i] = OUTCOMES.indexOf(outcome);
    ++model.outcomes[outcome];
    countJob(model, tool, job, i, outcome);
  });
  model.tools = [...tools.values()];
  model.toolsByTime = [...model.tools].sort((a, b) => b.time - a.time || b.jobs - a.jobs || (a.name < b.name ? -1 : 1));
  model.toolsByTime.forEach((tool, rank) => {
    tool.rank = rank;
  });
}

function newTool(name, index) {
  return { name, index, rank: 0, jobs: 0, ran: 0, failed: 0, time: 0, longest: -1, longestTime: 0, wait: 0, cpu: null };
}

function countJob(model, tool, job, i, outcome) {
  ++tool.jobs;
  if (FAILURES.includes(outcome)) ++tool.failed;
  tool.wait += waitOf(model, i);
  if (isKnown(job.cpu_us)) tool.cpu = (tool.cpu ?? 0) + job.cpu_us;
  if (Number.isNaN(model.start[i])) return;
  const time = runOf(model, i);
  ++tool.ran;
  tool.time += time;
  if (tool.longest < 0 || time > tool.longestTime) {
    tool.longest = i;
    tool.longestTime = time;
  }
}

// How long a job ran, so far if it still runs; NaN for one that never did.
function runOf(model, i) {
  return model.stop[i] - model.start[i];
}

function waitOf(model, i) {
  return Math.max(0, (Number.isNaN(model.start[i]) ? model.stop[i] : model.start[i]) - model.queued[i]);
}

function isFailure(model, i) {
  return FAILURES.includes(OUTCOMES[model.outcome[i]]);
}

// The jobs' order in time; those that never ran are at the moment when they were queued.
function orderInTime(model) {
  const key = Float64Array.from(model.start, (start, i) => (Number.isNaN(start) ? model.queued[i] : start));
  return Int32Array.from(key, (_, i) => i).sort((a, b) => key[a] - key[b] || a - b);
}

// One lane for each slot, and as many as it takes for jobs that ran without one.
function layLanes(model) {
  const bySlot = new Map();
  const slotless = [];
  const neverRan = [];
  for (const i of model.order) {
    const slot = model.jobs[i].slot;
    if (Number.isNaN(model.start[i])) neverRan.push(i);
    else if (Number.isInteger(slot) && slot >= 0) (bySlot.get(slot) ?? bySlot.set(slot, []).get(slot)).push(i);
    else slotless.push(i);
  }
  if (model.slots <= MOST_EMPTY_LANES) {
    for (let slot = 0; slot < model.slots; ++slot) if (!bySlot.has(slot)) bySlot.set(slot, []);
  }
  const slots = [...bySlot.keys()].sort((a, b) => a - b);
  model.lanes = slots.map((slot) => newLane(model, `${slot + 1}`, `Slot ${slot + 1}`, bySlot.get(slot)));
  if (slotless.length) model.lanes.push({ ...newLane(model, 'none', 'Without a slot', slotless), isSlotless: true });
  model.neverRan = neverRan;
}

function newLane(model, label, title, jobs) {
  return {
    label,
    title,
    jobs,
    rows: layRows(model, jobs),
    busy: joinIntervals(jobs.map((i) => [model.start[i], model.stop[i]])),
    waits: joinIntervals(jobs.map((i) => [model.queued[i], model.start[i]]).sort((a, b) => a[0] - b[0])),
  };
}

// Jobs of one lane that run at the same time, as the jobs below one that lends its slot, stand one below the other.
function layRows(model, jobs) {
  const rows = [];
  for (const i of jobs) {
    let row = rows.find((r) => model.start[i] >= r.until - OVERLAP_US);
    if (!row && rows.length < MOST_ROWS_OF_A_LANE) rows.push((row = { jobs: [], stops: [], until: -Infinity }));
    row = row ?? rows[rows.length - 1];
    row.until = Math.max(row.until, model.stop[i]);
    row.jobs.push(i);
    row.stops.push(row.until);
  }
  if (!rows.length) rows.push({ jobs: [], stops: [] });
  return rows.map((row) => ({ jobs: Int32Array.from(row.jobs), stops: Float64Array.from(row.stops) }));
}

function findLevels(model) {
  const busy = model.lanes.flatMap((lane) =>
    lane.isSlotless ? lane.jobs.map((i) => [model.start[i], model.stop[i]]) : lane.busy,
  );
  model.busy = levelOf(
    Float64Array.from(busy, (b) => b[0]),
    Float64Array.from(busy, (b) => b[1]),
  );
  const until = Float64Array.from(model.start, (start, i) => (Number.isNaN(start) ? model.stop[i] : start));
  model.waiting = levelOf(Float64Array.from(model.queued), until);
}

// The maximal stretches in which the empty share of the slots is above EMPTY_SHARE: all segments of maximal score, where
// a step's score is its length times what its empty share has over that. Linear in the number of steps.
function findEmptyStretches(model) {
  if (!model.slots || model.end <= model.begin) return [];
  const found = [];
  let total = 0;
  forEachStep(model.busy, model.begin, model.end, (from, to, value) => {
    const score = (to - from) * (Math.max(0, model.slots - value) / model.slots - EMPTY_SHARE);
    if (score > 0) addSegment(found, { from, to, before: total, after: total + score, previous: -1 });
    total += score;
  });
  return found;
}

// Takes a segment into the list of those found so far, joined with the ones before it where that makes a better one.
function addSegment(found, segment) {
  for (;;) {
    let j = found.length - 1;
    while (j >= 0 && found[j].before >= segment.before) j = found[j].previous;
    segment.previous = j;
    if (j < 0 || found[j].after >= segment.after) break;
    segment.from = found[j].from;
    segment.before = found[j].before;
    found.length = j;
  }
  found.push(segment);
}

function tellStretches(model) {
  const all = model.slots * (model.end - model.begin);
  const stretches = findEmptyStretches(model).map(({ from, to }) => {
    const busy = areaOf(model.busy, from, to);
    const waiting = areaOf(model.waiting, from, to) / (to - from);
    return { from, to, lost: model.slots * (to - from) - busy, busy: busy / (to - from), waiting };
  });
  const told = stretches.filter((s) => s.lost >= all * LEAST_LOSS).sort((a, b) => b.lost - a.lost);
  model.stretches = told.slice(0, MOST_STRETCHES);
  for (const stretch of model.stretches) findWhatRan(model, stretch);
}

// The jobs that took most of a stretch.
function findWhatRan(model, stretch) {
  const ran = [];
  for (let i = 0; i < model.count; ++i) {
    const time = Math.min(model.stop[i], stretch.to) - Math.max(model.start[i], stretch.from);
    if (time > 0) ran.push([time, i]);
  }
  ran.sort((a, b) => b[0] - a[0]);
  stretch.jobs = ran.length;
  stretch.ran = ran.slice(0, 3).map(([time, job]) => ({ job, time }));
}

function sumTotals(model) {
  const { jobs, count, start } = model;
  const length = model.end - model.begin;
  const numbers = new Set(jobs.map((job) => job.number));
  const totals = { ran: 0, failed: 0, time: 0, cpu: null, cpuKnown: 0, memory: null, memoryJob: -1 };
  for (let i = 0; i < count; ++i) {
    const job = jobs[i];
    if (isFailure(model, i)) ++totals.failed;
    // A job's processor time holds that of the jobs below it.
    if (isKnown(job.cpu_us) && !numbers.has(job.parent)) totals.cpu = (totals.cpu ?? 0) + job.cpu_us;
    if (isKnown(job.cpu_us)) ++totals.cpuKnown;
    if (isKnown(job.peak_memory_bytes) && job.peak_memory_bytes > (totals.memory ?? -1)) {
      totals.memory = job.peak_memory_bytes;
      totals.memoryJob = i;
    }
    if (Number.isNaN(start[i])) continue;
    ++totals.ran;
    totals.time += runOf(model, i);
  }
  const waits = Float64Array.from(jobs, (_, i) => waitOf(model, i)).sort();
  totals.medianWait = count ? waits[count >> 1] : null;
  totals.mostWait = count ? waits[count - 1] : null;
  totals.busyTime = areaOf(model.busy, model.begin, model.end);
  totals.busyShare = model.slots && length > 0 ? Math.min(1, totals.busyTime / (model.slots * length)) : null;
  model.hasJobsBelowOthers = jobs.some((job) => numbers.has(job.parent));
  model.totals = totals;
}

// Throws an Error with a sentence for the reader where the record is none.
function buildModel(record) {
  if (!record || typeof record !== 'object' || !isKnown(record.kestrun_build_record)) {
    throw new Error('This is not a build record.');
  }
  const build = record.build && typeof record.build === 'object' ? record.build : {};
  const jobs = (Array.isArray(record.jobs) ? record.jobs : []).filter((job) => job && typeof job === 'object');
  const model = { version: record.kestrun_build_record, build, jobs, count: jobs.length };
  model.slots =
    isKnown(build.slots) && build.slots > 0
      ? build.slots
      : jobs.reduce((most, job) => Math.max(most, Number.isInteger(job.slot) ? job.slot + 1 : 0), 0);
  readTimes(model);
  readKinds(model);
  model.order = orderInTime(model);
  layLanes(model);
  findLevels(model);
  sumTotals(model);
  tellStretches(model);
  model.failures = [...model.order].filter((i) => isFailure(model, i));
  return model;
}

const DURATION_UNITS = { us: 1, ms: 1e3, s: 1e6, m: 6e7, min: 6e7, h: 3.6e9 };

// One condition of a search, as a function of a job's index; words that are no known condition are searched as text.
function conditionOf(model, key, text) {
  const { jobs } = model;
  const duration = /^([\d.]+)(us|ms|s|m|min|h)?$/.exec(text);
  const limit = duration ? Number(duration[1]) * DURATION_UNITS[duration[2] ?? 's'] : NaN;
  switch (key) {
    case 'tool':
      return (i) => model.tools[model.tool[i]].name.toLowerCase() === text;
    case 'outcome':
      return (i) => OUTCOMES[model.outcome[i]] === text;
    case 'slot':
      return (i) => String(jobs[i].slot + 1) === text && jobs[i].slot !== null;
    case 'over':
      return (i) => runOf(model, i) > limit;
    case 'waited':
      return (i) => waitOf(model, i) > limit;
    default:
      return (i) => searchTexts(model)[i].includes(text);
  }
}

function searchTexts(model) {
  model.texts =
    model.texts ??
    model.jobs.map((job) =>
      `${textOf(job.name)}\n${textOf(job.tool)}\n${textOf(job.command)}\n${textOf(job.folder)}\n#${job.number}`.toLowerCase(),
    );
  return model.texts;
}

// Which jobs a search finds, 1 for each; null for a search without words. All words must hold.
function searchJobs(model, query) {
  const conditions = [];
  for (const [, key, quoted, plain] of query
    .toLowerCase()
    .matchAll(/(?:(tool|outcome|slot|over|waited):)?(?:"([^"]*)"|(\S+))/g)) {
    conditions.push(conditionOf(model, key, quoted ?? plain));
  }
  if (!conditions.length) return null;
  return Uint8Array.from(model.jobs, (_, i) => (conditions.every((holds) => holds(i)) ? 1 : 0));
}
