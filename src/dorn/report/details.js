// The panel with all that is known of one job.

class Details {
  constructor(page) {
    this.page = page;
    this.model = page.model;
  }

  get isOpen() {
    return !byId('details').hidden;
  }

  open(job, takesFocus = false) {
    const panel = byId('details');
    if (takesFocus) this.opener = document.activeElement;
    panel.replaceChildren(...this.detailsOf(job));
    panel.hidden = false;
    document.body.classList.add('has-details');
    panel.scrollTop = 0;
    if (takesFocus) panel.focus();
  }

  close() {
    const panel = byId('details');
    const hadFocus = panel.contains(document.activeElement);
    panel.hidden = true;
    document.body.classList.remove('has-details');
    this.page.select(-1);
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
            onclick: () => this.close(),
          },
          '×',
        ),
      ),
      make('p', {}, this.page.outcomeBadge(job), ` job ${raw.number ?? UNKNOWN}`),
      make('pre', { class: 'command', tabindex: '0', 'aria-label': 'Command' }, command || '(command not known)'),
      make(
        'div',
        { class: 'row' },
        make(
          'button',
          { type: 'button', class: 'plain', onclick: (event) => copyText(event.target, command) },
          'Copy command',
        ),
        make(
          'button',
          { type: 'button', class: 'plain', onclick: () => this.page.timeline.zoomToJob(job) },
          'Zoom to job',
        ),
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
      { type: 'button', class: 'link', onclick: () => this.page.open(parent) },
      `${raw.parent}, ${cutText(jobLabel(this.model.jobs[parent]), 40)}`,
    );
  }
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
