// Fills the page from the model and ties its parts together. Text from the record becomes text nodes only.

const JOBS_AT_FIRST = 20;
const JOBS_MORE = 50;
const TOOLS_SHOWN = 15;
const FAILURES_SHOWN = 10;
const LONGEST_COMMAND_OF_A_LIST = 400;
const LONGEST_COMMAND_IN_LARGE = 160;
const COLOUR_NAMES = ['tool', 'outcome', 'wait'];

const byId = (id) => document.getElementById(id);

// An element with attributes, of which "on..." are listeners, and children, of which null is none.
function make(tag, attributes = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (name.startsWith('on')) element.addEventListener(name.slice(2), value);
    else if (value === true) element.setAttribute(name, '');
    else if (value !== null && value !== undefined && value !== false) element.setAttribute(name, value);
  }
  element.append(...children.filter((child) => child !== null && child !== undefined));
  return element;
}

function cutText(text, most = LONGEST_COMMAND_OF_A_LIST) {
  return text.length > most ? `${text.slice(0, most)} …` : text;
}

function quoteForSearch(text) {
  return /[\s"]/.test(text) ? `"${text.replaceAll('"', '')}"` : text;
}

class Page {
  constructor(model) {
    this.model = model;
    this.match = null;
    this.matches = null;
    this.sort = { key: 'ran', isDown: true };
    this.jobsShown = JOBS_AT_FIRST;
    this.failuresShown = FAILURES_SHOWN;
    this.areAllToolsShown = false;
  }

  show() {
    byId('page').hidden = false;
    this.showHead();
    this.timeline = new Timeline(
      { canvas: byId('canvas'), cursor: byId('cursor'), brush: byId('brush'), tooltip: byId('tooltip') },
      this.model,
      {
        onSelect: (job) => this.select(job),
        onOpen: (job, byKey) => this.openDetails(job, byKey),
        describe: (job, time) => this.describePlace(job, time),
      },
    );
    this.showLegend();
    this.showFailures();
    this.showStretches();
    this.showTools();
    this.showJobs();
    this.showFoot();
    this.listen();
    this.showFound();
  }

  showHead() {
    const { build, count, totals, slots } = this.model;
    const command = textOf(build.command) || '(command not known)';
    document.title = `Build report: ${cutText(command, 80)}`;
    byId('command').textContent = command;
    byId('command').classList.toggle('long', command.length > LONGEST_COMMAND_IN_LARGE);
    byId('about').replaceChildren(this.stateBadge(), ...this.aboutBuild());
    byId('figures').replaceChildren(
      ...[
        this.figure(
          'Duration',
          isKnown(build.duration_us) ? formatTime(build.duration_us) : formatTime(this.model.end),
          isKnown(build.duration_us) ? null : 'until the last job known',
        ),
        this.figure('Jobs', formatCount(count), this.outcomesInWords()),
        this.figure(
          'Failures',
          formatCount(totals.failed),
          totals.failed ? make('a', { href: '#failures' }, 'show them') : 'no job failed',
          totals.failed ? 'bad' : null,
        ),
        this.figure(
          'Slots',
          slots ? formatCount(slots) : UNKNOWN,
          slots ? `${formatCount(this.model.busy.most)} busy at most` : null,
        ),
        this.figure(
          'Slots busy',
          formatShare(totals.busyShare),
          totals.busyShare === null ? null : 'of the slots’ time',
        ),
        this.figure('Processor time', formatTime(totals.cpu), this.cpuInWords()),
        this.figure(
          'Wait for a slot',
          formatTime(totals.medianWait),
          count ? `median; longest ${formatTime(totals.mostWait)}` : null,
        ),
        this.figure('Peak memory', formatBytes(totals.memory), this.memoryInWords()),
      ],
    );
  }

  stateBadge() {
    const { build } = this.model;
    if (!isKnown(build.exit_code)) return make('span', { class: 'badge state-unknown' }, 'Not ended');
    if (build.exit_code === 0) return make('span', { class: 'badge state-ok' }, 'Succeeded');
    return make('span', { class: 'badge state-failed' }, `Failed, exit ${build.exit_code}`);
  }

  aboutBuild() {
    const { build } = this.model;
    const parts = [];
    if (isKnown(build.started_unix_us)) parts.push(formatDate(build.started_unix_us));
    if (textOf(build.folder)) parts.push(make('span', { class: 'mono' }, build.folder));
    if (textOf(build.host)) parts.push(`on ${build.host}`);
    if (isKnown(build.jobs_dropped) && build.jobs_dropped > 0) {
      parts.push(
        make(
          'strong',
          {},
          `${plural(build.jobs_dropped, 'further job was', 'further jobs were')} not kept in the record`,
        ),
      );
    }
    return parts.map((part) => make('span', {}, part));
  }

  figure(name, value, note, kind) {
    return make(
      'div',
      { class: kind },
      make('dt', {}, name),
      make('dd', {}, value),
      note ? make('dd', { class: 'note' }, note) : null,
    );
  }

  outcomesInWords() {
    const { outcomes } = this.model;
    const told = ['ok', 'cancelled', 'running', 'waiting', 'unknown'].filter((name) => outcomes[name]);
    return (
      told.map((name) => `${formatCount(outcomes[name])} ${name}`).join(', ') || (this.model.count ? null : 'none')
    );
  }

  cpuInWords() {
    const { totals, count, end, begin } = this.model;
    if (totals.cpu === null) return count ? 'not known' : null;
    const cores = end > begin ? `${(totals.cpu / (end - begin)).toFixed(2)} processors on average` : null;
    return totals.cpuKnown < totals.ran
      ? `known of ${formatCount(totals.cpuKnown)} of ${formatCount(totals.ran)} jobs`
      : cores;
  }

  memoryInWords() {
    const { totals, jobs } = this.model;
    if (totals.memoryJob < 0) return this.model.count ? 'not known' : null;
    return make(
      'button',
      { type: 'button', class: 'link', onclick: () => this.open(totals.memoryJob) },
      cutText(jobLabel(jobs[totals.memoryJob]), 28),
    );
  }

  describePlace(job, time) {
    const { model } = this;
    const moment = make(
      'p',
      { class: 'tip-time' },
      `${formatTime(time)}: ${formatCount(valueAt(model.busy, time))} busy, ` +
        `${formatCount(valueAt(model.waiting, time))} waiting`,
    );
    if (job < 0) return [moment];
    const raw = model.jobs[job];
    return [
      make(
        'p',
        { class: 'tip-title' },
        make('i', { class: 'dot', style: `background:${this.colourOf(job)}` }),
        cutText(jobLabel(raw), 80),
      ),
      make(
        'p',
        {},
        `ran ${formatTime(runOf(model, job))}, waited ${formatTime(waitOf(model, job))}, ${describeOutcome(raw, OUTCOMES[model.outcome[job]])}`,
      ),
      make('p', { class: 'mono tip-command' }, cutText(textOf(raw.command), 220)),
      moment,
    ];
  }

  colourOf(job, colourBy = this.timeline.colourBy) {
    return this.timeline.palettes[colourBy][this.timeline.kindOf(job, colourBy)];
  }

  showLegend() {
    const { timeline, model } = this;
    const palette = timeline.palettes[timeline.colourBy];
    const entries = {
      tool: () => {
        const named = model.toolsByTime.slice(0, COLOURS_OF_TOOLS);
        const items = named.map((tool, k) =>
          this.legendItem(palette[k], tool.name, `tool:${quoteForSearch(tool.name)}`),
        );
        const others = model.toolsByTime.length - named.length;
        if (others > 0)
          items.push(this.legendItem(palette[COLOURS_OF_TOOLS], plural(others, 'other tool', 'other tools')));
        return items;
      },
      outcome: () =>
        OUTCOMES.flatMap((name, k) =>
          model.outcomes[name] ? [this.legendItem(palette[k], name, `outcome:${name}`)] : [],
        ),
      wait: () =>
        WAIT_NAMES.map((name, k) =>
          this.legendItem(
            palette[k],
            `waited ${name}`,
            k ? ['waited:10ms', 'waited:100ms', 'waited:1s', 'waited:10s'][k - 1] : null,
          ),
        ),
    }[timeline.colourBy]();
    const fixed = [this.legendItem(timeline.colours.waiting, 'line below a slot: a job waited that ran there')];
    if (model.totals.failed) fixed.push(make('li', {}, make('i', { class: 'flag' }), 'failure'));
    if (model.neverRan.length) fixed.push(make('li', {}, `${plural(model.neverRan.length, 'job', 'jobs')} never ran`));
    byId('legend').replaceChildren(...(model.count ? [...entries, ...fixed] : []));
  }

  legendItem(colour, text, query) {
    const swatch = make('i', { class: 'swatch', style: `background:${colour}` });
    if (!query) return make('li', {}, swatch, text);
    return make(
      'li',
      {},
      make(
        'button',
        { type: 'button', class: 'link', title: `Search ${query}`, onclick: () => this.toggleSearch(query) },
        swatch,
        text,
      ),
    );
  }

  toggleSearch(query) {
    byId('search').value = byId('search').value.trim() === query ? '' : query;
    this.search();
  }

  search() {
    const begun = performance.now();
    this.match = searchJobs(this.model, byId('search').value);
    this.matches = this.match && this.model.order.filter((i) => this.match[i]);
    this.timeline.setMatch(this.match);
    this.jobsShown = JOBS_AT_FIRST;
    this.showFound();
    this.showTools();
    this.showJobs();
    this.searchTime = performance.now() - begun;
  }

  showFound() {
    const { model, matches } = this;
    const time = matches ? matches.reduce((sum, i) => sum + (runOf(model, i) || 0), 0) : 0;
    byId('found').textContent = matches
      ? `${formatCount(matches.length)} of ${plural(model.count, 'job', 'jobs')}, ${formatTime(time)}`
      : plural(model.count, 'job', 'jobs');
    for (const id of ['match-previous', 'match-next']) byId(id).disabled = !matches || !matches.length;
  }

  // Goes along a list of jobs that is in the order of time, around its end.
  stepAlong(list, direction) {
    if (!list || !list.length) return;
    const at = list.indexOf(this.timeline.selected);
    const next = at < 0 ? (direction > 0 ? 0 : list.length - 1) : (at + direction + list.length) % list.length;
    this.select(list[next]);
    if (!byId('details').hidden) this.openDetails(list[next]);
  }

  select(job) {
    this.timeline.select(job);
    const { model } = this;
    byId('spoken').textContent =
      job < 0
        ? ''
        : `${jobLabel(model.jobs[job])}, ${describeOutcome(model.jobs[job], OUTCOMES[model.outcome[job]])}, ` +
          `ran ${formatTime(runOf(model, job))}, waited ${formatTime(waitOf(model, job))}`;
  }

  open(job) {
    this.select(job);
    this.openDetails(job, true);
  }

  openDetails(job, takesFocus = false) {
    const panel = byId('details');
    if (takesFocus) this.opener = document.activeElement;
    panel.replaceChildren(...this.detailsOf(job));
    panel.hidden = false;
    document.body.classList.add('has-details');
    panel.scrollTop = 0;
    if (takesFocus) panel.focus();
  }

  closeDetails() {
    const panel = byId('details');
    const hadFocus = panel.contains(document.activeElement);
    panel.hidden = true;
    document.body.classList.remove('has-details');
    this.select(-1);
    if (hadFocus && this.opener && this.opener.isConnected) this.opener.focus();
  }

  detailsOf(job) {
    const raw = this.model.jobs[job];
    const command = textOf(raw.command);
    return [
      make(
        'div',
        { class: 'details-head' },
        make('h2', {}, cutText(jobLabel(raw), 120)),
        make(
          'button',
          {
            type: 'button',
            class: 'plain',
            'aria-label': 'Close the details',
            title: 'Close (Esc)',
            onclick: () => this.closeDetails(),
          },
          '×',
        ),
      ),
      make('p', {}, this.outcomeBadge(job), ` job ${raw.number ?? UNKNOWN}`),
      make('pre', { class: 'command', tabindex: '0', 'aria-label': 'Command' }, command || '(command not known)'),
      make(
        'div',
        { class: 'row' },
        make(
          'button',
          { type: 'button', class: 'plain', onclick: (event) => copyText(event.target, command) },
          'Copy command',
        ),
        make('button', { type: 'button', class: 'plain', onclick: () => this.timeline.zoomToJob(job) }, 'Zoom to job'),
      ),
      make('dl', { class: 'facts' }, ...this.factsOf(job)),
      ...(textOf(raw.output_head)
        ? [make('h3', {}, 'Output, first lines'), make('pre', { class: 'output', tabindex: '0' }, raw.output_head)]
        : []),
    ];
  }

  factsOf(job) {
    const { model } = this;
    const raw = model.jobs[job];
    const base = isKnown(model.build.started_unix_us) ? model.build.started_unix_us : null;
    const moment = (time) =>
      isKnown(time) ? `${formatTime(time)}${base === null ? '' : `  (${formatClock(base + time)})`}` : UNKNOWN;
    const hasRun = isKnown(raw.started_us);
    const cpuShare =
      isKnown(raw.cpu_us) && runOf(model, job) > 0
        ? `  (${formatShare(raw.cpu_us / runOf(model, job))} of its time)`
        : '';
    const facts = [
      ['Folder', textOf(raw.folder) || UNKNOWN],
      ['Queued at', moment(raw.queued_us)],
      ['Waited', formatTime(waitOf(model, job)) + (hasRun || isKnown(raw.ended_us) ? '' : ' so far')],
      ['Started at', moment(raw.started_us)],
      ['Ran', hasRun ? formatTime(runOf(model, job)) + (isKnown(raw.ended_us) ? '' : ' so far') : UNKNOWN],
      ['Ended at', moment(raw.ended_us)],
      ['Slot', Number.isInteger(raw.slot) ? String(raw.slot + 1) : UNKNOWN],
      ['Exit code', isKnown(raw.exit_code) ? String(raw.exit_code) : UNKNOWN],
      ['Signal', isKnown(raw.signal) ? (raw.signal ? String(raw.signal) : 'none') : UNKNOWN],
      ['Processor time', formatTime(raw.cpu_us) + cpuShare],
      ['Peak memory', formatBytes(raw.peak_memory_bytes)],
      ['Output', formatBytes(raw.output_bytes)],
      ['Project', textOf(raw.project) || UNKNOWN],
      ['Tool', textOf(raw.tool) || UNKNOWN],
      ['Process', isKnown(raw.client_pid) ? String(raw.client_pid) : UNKNOWN],
      ['Below job', this.parentLink(raw)],
    ];
    return facts.flatMap(([name, value]) => (value === null ? [] : [make('dt', {}, name), make('dd', {}, value)]));
  }

  parentLink(raw) {
    if (!raw.parent) return null;
    this.byNumber = this.byNumber ?? new Map(this.model.jobs.map((job, i) => [job.number, i]));
    const parent = this.byNumber.get(raw.parent);
    if (parent === undefined) return String(raw.parent);
    return make(
      'button',
      { type: 'button', class: 'link', onclick: () => this.open(parent) },
      `${raw.parent}, ${cutText(jobLabel(this.model.jobs[parent]), 40)}`,
    );
  }

  outcomeBadge(job) {
    const outcome = OUTCOMES[this.model.outcome[job]];
    return make('span', { class: `badge outcome-${outcome}` }, describeOutcome(this.model.jobs[job], outcome));
  }

  jobButton(job, most = 60) {
    return make(
      'button',
      { type: 'button', class: 'link', title: 'Details', onclick: () => this.open(job) },
      cutText(jobLabel(this.model.jobs[job]), most),
    );
  }

  showFailures() {
    const { failures } = this.model;
    const list = failures.slice(0, this.failuresShown).map((job) => this.failureCard(job));
    const rest = failures.length - list.length;
    if (rest > 0) {
      list.push(
        make(
          'button',
          {
            type: 'button',
            class: 'plain',
            onclick: () => {
              this.failuresShown += JOBS_MORE;
              this.showFailures();
            },
          },
          `Show ${formatCount(Math.min(rest, JOBS_MORE))} of ${formatCount(rest)} more`,
        ),
      );
    }
    if (failures.length && !failures.some((job) => textOf(this.model.jobs[job].output_head))) {
      list.unshift(
        make('p', { class: 'hint' }, 'What they printed is not in the record: it went to the build’s own output.'),
      );
    }
    byId('failures-title').textContent = failures.length ? `Failures (${formatCount(failures.length)})` : 'Failures';
    byId('failure-list').replaceChildren(...(list.length ? list : [make('p', { class: 'hint' }, 'No job failed.')]));
  }

  failureCard(job) {
    const { model } = this;
    const raw = model.jobs[job];
    return make(
      'article',
      { class: 'failure' },
      make('h3', {}, this.jobButton(job, 120), ' ', this.outcomeBadge(job)),
      make('p', { class: 'mono dimmed' }, cutText(textOf(raw.command))),
      make(
        'p',
        { class: 'dimmed' },
        `${isKnown(raw.started_us) ? `started at ${formatTime(raw.started_us)}, ran ${formatTime(runOf(model, job))}` : 'never ran'}` +
          `${textOf(raw.folder) ? ` in ${raw.folder}` : ''}`,
      ),
      textOf(raw.output_head) ? make('pre', { class: 'output', tabindex: '0' }, raw.output_head) : null,
    );
  }

  showStretches() {
    const { stretches, slots, end, begin } = this.model;
    byId('stretches-hint').textContent = this.emptinessInWords();
    const head = make(
      'thead',
      {},
      make(
        'tr',
        {},
        ...['When', 'Length', 'Busy', 'Empty slot time', 'Waiting', 'What ran then'].map((name, k) =>
          make('th', { scope: 'col', class: k > 0 && k < 5 && k !== 3 ? 'number' : null }, name),
        ),
      ),
    );
    const all = slots * (end - begin);
    const rows = stretches.map((stretch) => this.stretchRow(stretch, all, stretches[0].lost));
    byId('stretch-table').replaceChildren(...(rows.length ? [head, make('tbody', {}, ...rows)] : []));
  }

  emptinessInWords() {
    const { stretches, slots, end, begin, totals, count } = this.model;
    if (totals.busyShare === null) return 'Not known.';
    const empty = slots * (end - begin) - totals.busyTime;
    const sum = `In all, slots stood empty for ${formatTime(Math.max(0, empty))} of ${formatTime(slots * (end - begin))}. `;
    const least = count
      ? `The same jobs take at least ${formatTime(totals.busyTime / slots)} in ${plural(slots, 'slot', 'slots')}. `
      : '';
    return (
      sum +
      least +
      (stretches.length
        ? `Below are the stretches in which on average at least ${formatShare(EMPTY_SHARE)} of the slots were empty, the most costly first; ` +
          'the chart of busy slots is tinted there.'
        : 'There was no longer stretch of it.')
    );
  }

  stretchRow(stretch, all, most) {
    const { slots } = this.model;
    const zoom = () => {
      const margin = (stretch.to - stretch.from) * 0.05;
      this.timeline.setView(stretch.from - margin, stretch.to + margin);
      byId('timeline').scrollIntoView();
    };
    return make(
      'tr',
      {},
      make(
        'td',
        {},
        make(
          'button',
          { type: 'button', class: 'link nowrap', title: 'Show in the timeline', onclick: zoom },
          `${formatTime(stretch.from)} – ${formatTime(stretch.to)}`,
        ),
      ),
      make('td', { class: 'number' }, formatTime(stretch.to - stretch.from)),
      make('td', { class: 'number' }, `${stretch.busy.toFixed(1)} of ${slots}`),
      make(
        'td',
        {},
        barOf(stretch.lost / most, `${formatTime(stretch.lost)}, ${formatShare(stretch.lost / all)}`, 'empty'),
      ),
      make('td', { class: 'number' }, stretch.waiting < 0.05 ? 'none' : stretch.waiting.toFixed(1)),
      make('td', {}, ...this.whatRan(stretch)),
    );
  }

  whatRan(stretch) {
    if (!stretch.jobs) return [make('span', { class: 'dimmed' }, 'no job: the build command itself was at work')];
    const parts = stretch.ran.flatMap(({ job, time }, k) => [
      k ? ', ' : '',
      this.jobButton(job, 40),
      ` ${formatTime(time)}`,
    ]);
    const rest = stretch.jobs - stretch.ran.length;
    return [...parts, rest > 0 ? make('span', { class: 'dimmed' }, `, and ${plural(rest, 'other', 'others')}`) : ''];
  }

  showTools() {
    const { model } = this;
    byId('tools-hint').hidden = !model.hasJobsBelowOthers;
    const tools = this.areAllToolsShown ? model.toolsByTime : model.toolsByTime.slice(0, TOOLS_SHOWN);
    const names = ['Tool', 'Jobs', 'Failed', 'Time', 'Mean', 'Longest', 'Processor time', 'Waited'];
    const head = make(
      'thead',
      {},
      make(
        'tr',
        {},
        ...names.map((name, k) => make('th', { scope: 'col', class: k && k !== 3 && k !== 5 ? 'number' : null }, name)),
      ),
    );
    const rows = tools.map((tool) => this.toolRow(tool));
    const rest = model.toolsByTime.length - tools.length;
    if (rest > 0) {
      rows.push(
        make(
          'tr',
          {},
          make(
            'td',
            { colspan: names.length },
            make(
              'button',
              {
                type: 'button',
                class: 'plain',
                onclick: () => {
                  this.areAllToolsShown = true;
                  this.showTools();
                },
              },
              plural(rest, 'more tool', 'more tools'),
            ),
          ),
        ),
      );
    }
    byId('tool-table').replaceChildren(
      ...(rows.length ? [head, make('tbody', {}, ...rows)] : [make('caption', { class: 'hint' }, 'No job has run.')]),
    );
  }

  toolRow(tool) {
    const { model } = this;
    const query = `tool:${quoteForSearch(tool.name)}`;
    const isChosen = byId('search').value.trim() === query;
    const colour = this.timeline.palettes.tool[Math.min(tool.rank, COLOURS_OF_TOOLS)];
    return make(
      'tr',
      { class: isChosen ? 'chosen' : null },
      make(
        'td',
        {},
        make(
          'button',
          {
            type: 'button',
            class: 'link tool',
            'aria-pressed': String(isChosen),
            title: `Search ${query}`,
            onclick: () => this.toggleSearch(query),
          },
          make('i', { class: 'swatch', style: `background:${colour}` }),
          cutText(tool.name, 32),
        ),
      ),
      make('td', { class: 'number' }, formatCount(tool.jobs)),
      make('td', { class: tool.failed ? 'number bad' : 'number' }, formatCount(tool.failed)),
      make(
        'td',
        {},
        barOf(
          tool.time / (model.toolsByTime[0].time || 1),
          `${formatTime(tool.time)}, ${formatShare(tool.time / (model.totals.time || 1))}`,
          null,
          colour,
        ),
      ),
      make('td', { class: 'number' }, tool.ran ? formatTime(tool.time / tool.ran) : UNKNOWN),
      make(
        'td',
        {},
        ...(tool.longest >= 0 ? [`${formatTime(tool.longestTime)} `, this.jobButton(tool.longest, 32)] : [UNKNOWN]),
      ),
      make('td', { class: 'number' }, formatTime(tool.cpu)),
      make('td', { class: 'number' }, formatTime(tool.wait)),
    );
  }

  // Jobs by a column; those without a value come last.
  sortedJobs() {
    const { model } = this;
    const { key, isDown } = this.sort;
    const values = {
      ran: (i) => runOf(model, i),
      waited: (i) => waitOf(model, i),
      start: (i) => model.start[i],
      cpu: (i) => model.jobs[i].cpu_us,
      memory: (i) => model.jobs[i].peak_memory_bytes,
    }[key];
    const worst = isDown ? -Infinity : Infinity;
    const keys = Float64Array.from(model.jobs, (_, i) => (isKnown(values(i)) ? values(i) : worst));
    const jobs = Int32Array.from(this.matches ?? model.order);
    return jobs.sort((a, b) => (keys[a] === keys[b] ? a - b : isDown ? keys[b] - keys[a] : keys[a] - keys[b]));
  }

  showJobs() {
    const columns = [
      ['Job'],
      ['Outcome'],
      ['Ran', 'ran'],
      ['Waited', 'waited', true],
      ['Started at', 'start', true],
      ['Processor', 'cpu', true],
      ['Memory', 'memory', true],
    ];
    const jobs = this.sortedJobs();
    const shown = jobs.slice(0, this.jobsShown);
    const most = this.model.tools.reduce((time, tool) => Math.max(time, tool.longestTime), 1);
    const head = make('thead', {}, make('tr', {}, ...columns.map((column) => this.jobsHeader(...column))));
    byId('job-table').replaceChildren(
      ...(shown.length ? [head, make('tbody', {}, ...[...shown].map((job) => this.jobRow(job, most)))] : []),
    );
    byId('jobs-title').textContent = this.sort.key === 'ran' && this.sort.isDown ? 'Slowest jobs' : 'Jobs';
    byId('jobs-hint').textContent = shown.length
      ? `${formatCount(shown.length)} of ${plural(jobs.length, 'job', 'jobs')}${this.matches ? ' that the search finds' : ''}.`
      : this.matches
        ? 'The search finds no job.'
        : 'There are no jobs.';
    byId('jobs-more').hidden = shown.length === jobs.length;
  }

  jobsHeader(name, key, isNumber) {
    if (!key) return make('th', { scope: 'col' }, name);
    const { sort } = this;
    const isSorted = sort.key === key;
    const turn = () => {
      this.sort = { key, isDown: isSorted ? !sort.isDown : true };
      this.showJobs();
      byId('job-table').querySelector(`button[data-key="${key}"]`)?.focus();
    };
    return make(
      'th',
      {
        scope: 'col',
        class: isNumber ? 'number' : null,
        'aria-sort': isSorted ? (sort.isDown ? 'descending' : 'ascending') : null,
      },
      make(
        'button',
        { type: 'button', class: 'link', 'data-key': key, onclick: turn },
        `${name}${isSorted ? (sort.isDown ? ' ↓' : ' ↑') : ''}`,
      ),
    );
  }

  jobRow(job, most) {
    const { model } = this;
    const raw = model.jobs[job];
    const ran = runOf(model, job);
    return make(
      'tr',
      {},
      make(
        'td',
        { class: 'wide' },
        this.jobButton(job),
        make('div', { class: 'mono dimmed one-line' }, cutText(textOf(raw.command), 200)),
      ),
      make(
        'td',
        {},
        OUTCOMES[model.outcome[job]] === 'ok' ? make('span', { class: 'dimmed' }, 'succeeded') : this.outcomeBadge(job),
      ),
      make(
        'td',
        {},
        Number.isNaN(ran) ? 'never' : barOf(ran / most, formatTime(ran), null, this.colourOf(job, 'tool')),
      ),
      make('td', { class: 'number' }, formatTime(waitOf(model, job))),
      make('td', { class: 'number' }, formatTime(raw.started_us ?? NaN)),
      make('td', { class: 'number' }, formatTime(raw.cpu_us)),
      make('td', { class: 'number' }, formatBytes(raw.peak_memory_bytes)),
    );
  }

  showFoot() {
    const version = textOf(this.model.build.kestrun_version);
    const save = make('button', { type: 'button', class: 'link', onclick: saveRecord }, 'Save the record (JSON)');
    byId('foot').replaceChildren(make('span', {}, `Kestrun${version ? ` ${version}` : ''}`), save);
  }

  setColour(colourBy) {
    document.querySelector(`#colour input[value="${colourBy}"]`).checked = true;
    this.timeline.setColourBy(colourBy);
    this.showLegend();
  }

  // After a change of the page's colours.
  repaint() {
    this.timeline.readColours();
    this.timeline.draw();
    this.showLegend();
    this.showTools();
    this.showJobs();
  }

  listen() {
    const { timeline } = this;
    const onClick = (id, action) => byId(id).addEventListener('click', action);
    let pause = 0;
    byId('search').addEventListener('input', () => {
      clearTimeout(pause);
      pause = setTimeout(() => this.search(), 120);
    });
    byId('search').addEventListener('keydown', (event) => this.onSearchKey(event));
    byId('colour').addEventListener('change', (event) => this.setColour(event.target.value));
    onClick('match-next', () => this.stepAlong(this.matches, 1));
    onClick('match-previous', () => this.stepAlong(this.matches, -1));
    onClick('zoom-in', () => timeline.zoom(ZOOM_STEP));
    onClick('zoom-out', () => timeline.zoom(1 / ZOOM_STEP));
    onClick('zoom-fit', () => timeline.showAll());
    onClick('help-open', () => byId('help').showModal());
    onClick('jobs-more', () => {
      this.jobsShown += JOBS_MORE;
      this.showJobs();
    });
    document.addEventListener('keydown', (event) => this.onKey(event));
    onThemeChange(() => this.repaint());
  }

  onSearchKey(event) {
    if (event.key === 'Enter') this.stepAlong(this.matches, event.shiftKey ? -1 : 1);
    if (event.key !== 'Escape') return;
    event.target.value = '';
    this.search();
    byId('canvas').focus();
  }

  onKey(event) {
    if (event.ctrlKey || event.altKey || event.metaKey || event.defaultPrevented || byId('help').open) return;
    if (event.target.matches('input[type="search"], select, textarea')) return;
    const action = this.keys()[event.key.length === 1 && event.key !== 'N' ? event.key.toLowerCase() : event.key];
    if (!action) return;
    event.preventDefault();
    action();
  }

  keys() {
    const { timeline, model } = this;
    const colour = COLOUR_NAMES[(COLOUR_NAMES.indexOf(timeline.colourBy) + 1) % COLOUR_NAMES.length];
    return {
      '/': () => {
        byId('search').focus();
        byId('search').select();
      },
      '?': () => byId('help').showModal(),
      n: () => this.stepAlong(this.matches, 1),
      N: () => this.stepAlong(this.matches, -1),
      f: () => this.stepAlong(model.failures, 1),
      c: () => this.setColour(colour),
      '+': () => timeline.zoom(ZOOM_STEP),
      '=': () => timeline.zoom(ZOOM_STEP),
      '-': () => timeline.zoom(1 / ZOOM_STEP),
      0: () => timeline.showAll(),
      a: () => timeline.pan(-0.25),
      d: () => timeline.pan(0.25),
      z: () => {
        if (timeline.selected >= 0) timeline.zoomToJob(timeline.selected);
      },
      Escape: byId('details').hidden ? undefined : () => this.closeDetails(),
    };
  }
}

// A bar whose length is the share, with its figure behind it.
function barOf(share, text, kind, colour) {
  const style = `width:${(limit(share, 0, 1) * 100).toFixed(1)}%${colour ? `;background:${colour}` : ''}`;
  return make(
    'div',
    { class: 'meter' },
    make('div', { class: 'track' }, make('i', { class: kind, style })),
    make('span', {}, text),
  );
}

async function copyText(button, text) {
  try {
    await navigator.clipboard.writeText(text);
    button.textContent = 'Copied';
  } catch {
    getSelection().selectAllChildren(button.closest('aside').querySelector('.command'));
    button.textContent = 'Selected: copy with Ctrl+C';
  }
}

function saveRecord() {
  const link = make('a', {
    download: 'build-record.json',
    href: URL.createObjectURL(new Blob([byId('record').textContent], { type: 'application/json' })),
  });
  link.click();
  setTimeout(() => URL.revokeObjectURL(link.href), 1000);
}

// A page opened from a file may have no storage; the choice then holds for as long as the page is open.
function storedTheme() {
  try {
    return localStorage.getItem('kestrun-report-theme') ?? 'auto';
  } catch {
    return 'auto';
  }
}

function storeTheme(choice) {
  try {
    localStorage.setItem('kestrun-report-theme', choice);
  } catch {
    return;
  }
}

const systemIsDark = matchMedia('(prefers-color-scheme: dark)');

function applyTheme(choice, isPrinted = false) {
  const isDark = !isPrinted && (choice === 'dark' || (choice === 'auto' && systemIsDark.matches));
  document.documentElement.dataset.theme = isDark ? 'dark' : 'light';
}

// A printed page is light, and its canvas has to be drawn before the printer sees it.
function onThemeChange(repaint) {
  const chosen = () => document.querySelector('#theme input:checked')?.value ?? 'auto';
  const apply = (isPrinted) => {
    applyTheme(chosen(), isPrinted);
    repaint();
  };
  byId('theme').addEventListener('change', () => {
    storeTheme(chosen());
    apply(false);
  });
  systemIsDark.addEventListener('change', () => apply(false));
  window.addEventListener('beforeprint', () => apply(true));
  window.addEventListener('afterprint', () => apply(false));
}

function start() {
  const begun = performance.now();
  try {
    const record = JSON.parse(byId('record').textContent.trim());
    const read = performance.now();
    const page = new Page(buildModel(record));
    page.show();
    byId('loading').remove();
    // For a look from the browser's console.
    window.buildReport = {
      model: page.model,
      timeline: page.timeline,
      page,
      readMs: read - begun,
      shownMs: performance.now() - begun,
    };
  } catch (error) {
    byId('page').hidden = true;
    byId('loading').remove();
    byId('trouble').hidden = false;
    byId('trouble').textContent =
      error instanceof SyntaxError
        ? 'The build record in this page is damaged and cannot be shown.'
        : `The build record cannot be shown. ${error.message}`;
  }
  document.documentElement.dataset.ready = 'yes';
}

applyTheme(storedTheme());
document.querySelector(`#theme input[value="${storedTheme()}"]`)?.click();
requestAnimationFrame(() => setTimeout(start));
