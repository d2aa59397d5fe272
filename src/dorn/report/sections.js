// What stands below the timeline: failures, empty stretches, tools, jobs.

const JOBS_AT_FIRST = 20;
const JOBS_MORE = 50;
const TOOLS_SHOWN = 15;
const FAILURES_SHOWN = 10;

class Sections {
  constructor(page) {
    this.page = page;
    this.model = page.model;
    this.sort = { key: 'ran', isDown: true };
    this.jobsShown = JOBS_AT_FIRST;
    this.failuresShown = FAILURES_SHOWN;
    this.areAllToolsShown = false;
  }

  show() {
    this.showFailures();
    this.showStretches();
    this.showTools();
    this.showJobs();
  }

  // After a search, and after a change of the page's colours.
  showAnew() {
    this.showTools();
    this.showJobs();
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
      make('h3', {}, this.page.jobButton(job, 120), ' ', this.page.outcomeBadge(job)),
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
    const head = tableHead(['When', '#Length', '#Busy', 'Empty slot time', '#Waiting', 'What ran then']);
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
      this.page.timeline.setView(stretch.from - margin, stretch.to + margin);
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
      this.page.jobButton(job, 40),
      ` ${formatTime(time)}`,
    ]);
    const rest = stretch.jobs - stretch.ran.length;
    return [...parts, rest > 0 ? make('span', { class: 'dimmed' }, `, and ${plural(rest, 'other', 'others')}`) : ''];
  }

  showTools() {
    const { model } = this;
    byId('tools-hint').hidden = !model.hasJobsBelowOthers;
    const tools = this.areAllToolsShown ? model.toolsByTime : model.toolsByTime.slice(0, TOOLS_SHOWN);
    const head = tableHead(['Tool', '#Jobs', '#Failed', 'Time', '#Mean', 'Longest', '#Processor time', '#Waited']);
    const rows = tools.map((tool) => this.toolRow(tool));
    const rest = model.toolsByTime.length - tools.length;
    if (rest > 0) rows.push(this.moreToolsRow(rest));
    byId('tool-table').replaceChildren(
      ...(rows.length ? [head, make('tbody', {}, ...rows)] : [make('caption', { class: 'hint' }, 'No job has run.')]),
    );
  }

  moreToolsRow(rest) {
    const showAll = () => {
      this.areAllToolsShown = true;
      this.showTools();
    };
    const button = makeButton('plain', showAll, {}, plural(rest, 'more tool', 'more tools'));
    return make('tr', {}, make('td', { colspan: 8 }, button));
  }

  toolRow(tool) {
    const { model, page } = this;
    const isChosen = byId('search').value.trim() === toolQuery(tool);
    const colour = page.timeline.palettes.tool[Math.min(tool.rank, COLOURS_OF_TOOLS)];
    const share = tool.time / (model.toolsByTime[0].time || 1);
    const time = `${formatTime(tool.time)}, ${formatShare(tool.time / (model.totals.time || 1))}`;
    return make(
      'tr',
      { class: isChosen ? 'chosen' : null },
      cell(this.toolButton(tool, isChosen, colour)),
      numberCell(formatCount(tool.jobs)),
      numberCell(formatCount(tool.failed), tool.failed ? 'bad' : ''),
      cell(barOf(share, time, null, colour)),
      numberCell(tool.ran ? formatTime(tool.time / tool.ran) : UNKNOWN),
      tool.ran ? cell(`${formatTime(tool.longestTime)} `, page.jobButton(tool.longest, 32)) : cell(UNKNOWN),
      numberCell(formatTime(tool.cpu)),
      numberCell(formatTime(tool.wait)),
    );
  }

  toolButton(tool, isChosen, colour) {
    const query = toolQuery(tool);
    const attributes = { 'aria-pressed': String(isChosen), title: `Search ${query}` };
    const swatch = make('i', { class: 'swatch', style: `background:${colour}` });
    return makeButton('link tool', () => this.page.toggleSearch(query), attributes, swatch, cutText(tool.name, 32));
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
    const jobs = Int32Array.from(this.page.matches ?? model.order);
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
      ? `${formatCount(shown.length)} of ${plural(jobs.length, 'job', 'jobs')}${this.page.matches ? ' that the search finds' : ''}.`
      : this.page.matches
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
        this.page.jobButton(job),
        make('div', { class: 'mono dimmed one-line' }, cutText(textOf(raw.command), 200)),
      ),
      make(
        'td',
        {},
        OUTCOMES[model.outcome[job]] === 'ok'
          ? make('span', { class: 'dimmed' }, 'succeeded')
          : this.page.outcomeBadge(job),
      ),
      make(
        'td',
        {},
        Number.isNaN(ran) ? 'never' : barOf(ran / most, formatTime(ran), null, this.page.colourOf(job, 'tool')),
      ),
      make('td', { class: 'number' }, formatTime(waitOf(model, job))),
      make('td', { class: 'number' }, formatTime(raw.started_us ?? NaN)),
      make('td', { class: 'number' }, formatTime(raw.cpu_us)),
      make('td', { class: 'number' }, formatBytes(raw.peak_memory_bytes)),
    );
  }
}

function toolQuery(tool) {
  return `tool:${quoteForSearch(tool.name)}`;
}
