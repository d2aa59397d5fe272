// The head of the page: the build and its figures.

const LONGEST_COMMAND_IN_LARGE = 160;

class Head {
  constructor(page) {
    this.page = page;
    this.model = page.model;
  }

  show() {
    const command = textOf(this.model.build.command) || '(command not known)';
    document.title = `Build report: ${cutText(command, 80)}`;
    byId('command').textContent = command;
    byId('command').classList.toggle('long', command.length > LONGEST_COMMAND_IN_LARGE);
    byId('about').replaceChildren(this.stateBadge(), ...this.aboutBuild());
    byId('figures').replaceChildren(...this.countsOf(), ...this.measuresOf());
  }

  countsOf() {
    const { build, count, totals, slots } = this.model;
    const isTimed = isKnown(build.duration_us);
    const duration = formatTime(isTimed ? build.duration_us : this.model.end);
    const failures = totals.failed ? make('a', { href: '#failures' }, 'show them') : 'no job failed';
    const most = slots ? `${formatCount(this.model.busy.most)} busy at most` : null;
    return [
      this.figure('Duration', duration, isTimed ? null : 'until the last job known'),
      this.figure('Jobs', formatCount(count), this.outcomesInWords()),
      this.figure('Failures', formatCount(totals.failed), failures, totals.failed ? 'bad' : null),
      this.figure('Slots', slots ? formatCount(slots) : UNKNOWN, most),
    ];
  }

  measuresOf() {
    const { count, totals } = this.model;
    const longest = count ? `median; longest ${formatTime(totals.mostWait)}` : null;
    return [
      this.figure('Slots busy', formatShare(totals.busyShare), totals.busyShare === null ? null : 'of the slots’ time'),
      this.figure('Processor time', formatTime(totals.cpu), this.cpuInWords()),
      this.figure('Wait for a slot', formatTime(totals.medianWait), longest),
      this.figure('Peak memory', formatBytes(totals.memory), this.memoryInWords()),
    ];
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
      { type: 'button', class: 'link', onclick: () => this.page.open(totals.memoryJob) },
      cutText(jobLabel(jobs[totals.memoryJob]), 28),
    );
  }
}
