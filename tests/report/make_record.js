// Writes a build record as a build might leave it, for tests of the report page:
//   node make_record.js JOBS SLOTS [plain|ended|empty] >record.json
// The jobs come from a simulated build: a phase of one job at a time, compilations in groups with an archive behind each,
// a long link step, tests. The same arguments give the same record. In "ended", which is as a build that was broken off,
// some jobs still run or wait, and figures are unknown.
'use strict';

function randomNumbers(seed) {
  let state = seed >>> 0;
  return () => {
    state = (Math.imul(state, 1664525) + 1013904223) >>> 0;
    return state / 4294967296;
  };
}

let random;
const between = (low, high) => low + random() * (high - low);
// Most are short, some are very long.
const longTailed = (typical) => typical * Math.exp(between(-1, 1) + (random() < 0.03 ? between(1, 2.2) : 0));

const FOLDERS = ['core', 'parser', 'net', 'render', 'store', 'util', 'format', 'session'];
const WORDS = [
  'buffer',
  'token',
  'queue',
  'frame',
  'layout',
  'index',
  'cache',
  'stream',
  'table',
  'writer',
  'lexer',
  'socket',
];

function compileTask(k) {
  const folder = FOLDERS[k % FOLDERS.length];
  const isC = random() < 0.35;
  const file = `${WORDS[Math.floor(random() * WORDS.length)]}_${k}.${isC ? 'c' : 'cc'}`;
  const tool = isC ? 'gcc' : 'g++';
  return {
    tool,
    command: `${tool} -std=${isC ? 'c11' : 'c++20'} -O2 -Wall -Iinclude -Isrc/${folder} -c src/${folder}/${file} -o out/${folder}/${file.replace(/\.cc?$/, '.o')}`,
    time: longTailed(isC ? 260e3 : 900e3),
    memory: between(isC ? 24 : 90, isC ? 60 : 420) * 1048576,
  };
}

function otherTask(tool, args, time, memory = 8) {
  return { tool, command: `${tool} ${args}`, time: longTailed(time), memory: memory * 1048576 };
}

// Phases of a build; the jobs of one begin when those before it have ended.
function phasesOf(count) {
  const phases = [];
  const configure = Math.min(Math.ceil(count * 0.02), 12);
  for (let k = 0; k < configure; ++k) phases.push([otherTask('sh', `configure/check_${k}.sh`, 60e3)]);
  let left = count - configure;
  let number = 0;
  for (let group = 0; left > 3; ++group) {
    const size = Math.min(Math.max(Math.ceil(count / 6), 4), left - 2);
    const phase = [];
    for (let k = 0; k < size - 1; ++k) {
      phase.push(
        random() < 0.08
          ? otherTask('python3', `tools/generate.py --table ${number} --out out/gen_${number}.h`, 180e3, 40)
          : compileTask(number),
      );
      ++number;
    }
    phases.push(phase, [
      otherTask(
        'ar',
        `rcs out/lib${FOLDERS[group % FOLDERS.length]}.a out/${FOLDERS[group % FOLDERS.length]}/*.o`,
        120e3,
        20,
      ),
    ]);
    left -= size;
  }
  if (left > 1) phases.push([otherTask('ld', '-o out/program out/*.a -lm', 3.5e6, 700)]);
  while (left-- > 1) phases.push([otherTask('strip', 'out/program', 90e3)]);
  if (left > -1) phases.push([otherTask('./out/program', '--self-test', 700e3)]);
  return phases;
}

function outcomeOf(task) {
  const draw = random();
  const source = / -c (\S+)/.exec(task.command)?.[1];
  if (draw < 0.002 && source) {
    const line = Math.floor(between(10, 300));
    return {
      outcome: 'failed',
      exit_code: 1,
      output_head:
        `${source}: In function 'int open_table(const char*)':\n${source}:${line}:17: error: 'lenght' was not declared in this scope; ` +
        `did you mean 'length'?\n  ${line} |   if (size < lenght) return -1;\n      |              ^~~~~~\n      |              length\n`,
    };
  }
  if (draw < 0.0025) return { outcome: 'signalled', exit_code: null, signal: 11 };
  if (draw < 0.0028) return { outcome: 'overdue', exit_code: null, signal: 9 };
  if (draw < 0.0034) return { outcome: 'cancelled', exit_code: null, signal: 15 };
  return { outcome: 'ok', exit_code: 0 };
}

function makeJob(number, task, times) {
  const job = {
    number,
    parent: 0,
    project: '',
    name: '',
    client_pid: 4000 + number * 2,
    tool: task.tool,
    command: task.command,
    folder: '/home/robin/example',
    ...times,
    outcome: 'ok',
    exit_code: 0,
    signal: 0,
    cpu_us: Math.round((times.ended_us - times.started_us) * between(0.82, 0.99)),
    peak_memory_bytes: Math.round(task.memory),
    output_bytes: 0,
  };
  Object.assign(job, outcomeOf(task));
  if (job.output_head) job.output_bytes = job.output_head.length;
  return job;
}

function runPhases(phases, slots) {
  const free = new Array(slots).fill(0);
  const jobs = [];
  let now = 120e3;
  for (const phase of phases) {
    let end = now;
    phase.forEach((task, k) => {
      const slot = free.indexOf(Math.min(...free));
      const queued = now + k * 150 * Math.min(1, 2e6 / (150 * phase.length));
      const start = Math.max(queued + 90, free[slot] + between(30, 400));
      free[slot] = start + task.time;
      end = Math.max(end, free[slot]);
      const times = {
        queued_us: Math.round(queued),
        started_us: Math.round(start),
        ended_us: Math.round(free[slot]),
        slot,
      };
      jobs.push(makeJob(jobs.length + 1, task, times));
    });
    now = end + between(2e3, 30e3);
  }
  return { jobs, end: Math.round(now + 40e3) };
}

// Takes what a build that was broken off at a moment does not know.
function breakOff(jobs, at) {
  for (const job of jobs) {
    if (job.ended_us <= at) continue;
    const isWaiting = job.started_us > at;
    Object.assign(job, {
      ended_us: null,
      outcome: isWaiting ? 'waiting' : 'running',
      exit_code: null,
      signal: null,
      cpu_us: null,
      peak_memory_bytes: null,
      output_bytes: null,
    });
    delete job.output_head;
    if (isWaiting) Object.assign(job, { started_us: null, slot: null });
  }
  return jobs.filter((job) => job.queued_us <= at);
}

function makeRecord(count, slots, kind) {
  random = randomNumbers(20261123);
  const build = {
    started_unix_us: 1795467228000000,
    duration_us: 0,
    command: `make -j${slots * 2} all check`,
    folder: '/home/robin/example',
    exit_code: 0,
    slots,
    host: 'builder',
    kestrun_version: '1.0.0.0',
    jobs_dropped: 0,
  };
  if (kind === 'empty') return { kestrun_build_record: 1, build: { ...build, duration_us: 34000 }, jobs: [] };
  const { jobs, end } = runPhases(phasesOf(count), slots);
  build.duration_us = end;
  build.exit_code = jobs.some((job) => ['failed', 'signalled', 'overdue'].includes(job.outcome)) ? 2 : 0;
  if (kind !== 'ended') return { kestrun_build_record: 1, build, jobs };
  return {
    kestrun_build_record: 1,
    build: { ...build, duration_us: null, exit_code: null },
    jobs: breakOff(jobs, end * 0.5),
  };
}

module.exports = { makeRecord };
if (require.main === module) {
  const [count, slots, kind] = process.argv.slice(2);
  process.stdout.write(JSON.stringify(makeRecord(Number(count), Number(slots), kind ?? 'plain')));
}
