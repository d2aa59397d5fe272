// Fills the page from the model and ties its parts together.

const COLOUR_NAMES = ['tool', 'outcome', 'wait'];

class Page {
  constructor(model) {
    this.model = model;
    this.match = null;
    this.matches = null;
    this.details = new Details(this);
    this.sections = new Sections(this);
  }

  show() {
    byId('page').hidden = false;
    new Head(this).show();
    this.timeline = new Timeline(
      { canvas: byId('canvas'), cursor: byId('cursor'), brush: byId('brush'), tooltip: byId('tooltip') },
      this.model,
      {
        onSelect: (job) => this.select(job),
        onOpen: (job, byKey) => this.details.open(job, byKey),
        describe: (job, time) => this.describePlace(job, time),
      },
    );
    this.showLegend();
    this.sections.show();
    this.showFoot();
    this.listen();
    this.showFound();
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
    this.sections.jobsShown = JOBS_AT_FIRST;
    this.showFound();
    this.sections.showAnew();
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
    if (this.details.isOpen) this.details.open(list[next]);
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
    this.details.open(job, true);
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
    this.sections.showAnew();
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
      this.sections.jobsShown += JOBS_MORE;
      this.sections.showJobs();
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
      Escape: !this.details.isOpen ? undefined : () => this.details.close(),
    };
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
