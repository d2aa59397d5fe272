// The timeline: one canvas with, from the top, an overview of the whole build, the axis, busy slots and waiting jobs over
// time, and the lanes of the slots. It draws what a model (model.js) holds, and what it draws is redrawn whole.

const GUTTER = 64;
const OVERVIEW = { y: 0, h: 26 };
const AXIS = { y: 30, h: 20 };
const BUSY = { y: 54, h: 52 };
const WAITING = { y: 112, h: 34 };
const LANES_Y = 158;
const LEAST_SPAN_US = 20;
const ZOOM_STEP = 1.5;
const COLOURS_OF_TOOLS = 8;
// Wheel events that go on after the page was scrolled belong to that scrolling.
const SCROLL_PAUSE_MS = 250;
const WAIT_STEPS_US = [1e4, 1e5, 1e6, 1e7];
const WAIT_NAMES = ['below 10 ms', 'below 100 ms', 'below 1 s', 'below 10 s', '10 s and more'];

function niceStep(least) {
  const steps = [];
  for (let unit = 1; unit < 1e8; unit *= 10) steps.push(unit, 2 * unit, 5 * unit);
  const long = [15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 14400, 28800, 86400, 604800].map((s) => s * 1e6);
  return [...steps.filter((step) => step <= 1e7), ...long].find((step) => step >= least) ?? least;
}

const pixelsOfColours = new Map();

// A colour of the style sheet, "#rrggbb", as a pixel of an ImageData seen as 32-bit words.
function pixelOf(colour, alpha) {
  let value = pixelsOfColours.get(colour);
  if (value === undefined) {
    const rgb = parseInt(colour.slice(1), 16);
    value = ((rgb & 255) << 16) | (rgb & 0xff00) | (rgb >> 16);
    pixelsOfColours.set(colour, value);
  }
  return ((Math.round(alpha * 255) << 24) | value) >>> 0;
}

// The average of a level in each pixel column of a span.
function averages(level, from, to, columns) {
  const sums = new Float64Array(columns);
  const width = (to - from) / columns;
  forEachStep(level, from, to, (a, b, value) => {
    if (!value) return;
    const first = limit(Math.floor((a - from) / width), 0, columns - 1);
    const last = limit(Math.floor((b - from) / width), 0, columns - 1);
    for (let c = first; c <= last; ++c) {
      const left = Math.max(a, from + c * width);
      const right = Math.min(b, from + (c + 1) * width);
      if (right > left) sums[c] += (value * (right - left)) / width;
    }
  });
  return sums;
}

class Timeline {
  // `parts`: the elements canvas, cursor, brush and tooltip. `listener`: onSelect(job), onOpen(job), describe(job, time)
  // for the tooltip's text.
  constructor(parts, model, listener) {
    this.parts = parts;
    this.model = model;
    this.listener = listener;
    this.context = parts.canvas.getContext('2d');
    this.from = model.begin;
    this.to = Math.max(model.end, model.begin + LEAST_SPAN_US);
    this.colourBy = 'tool';
    this.match = null;
    this.selected = -1;
    this.isDrawn = true;
    this.lastScroll = -Infinity;
    this.layOut();
    this.readColours();
    this.listen();
    new ResizeObserver(() => this.requestDraw()).observe(parts.canvas);
  }

  get end() {
    return Math.max(this.model.end, this.model.begin + LEAST_SPAN_US);
  }

  layOut() {
    const rows = this.model.lanes.reduce((sum, lane) => sum + lane.rows.length, 0);
    this.rowHeight = limit(Math.floor(400 / Math.max(rows, 1)), 2, 26);
    this.waitTrack = this.rowHeight > 4 ? 3 : 0;
    const gap = this.rowHeight > 8 ? 6 : 1;
    let y = LANES_Y;
    this.lanes = this.model.lanes.map((lane) => {
      const placed = { lane, y, h: lane.rows.length * this.rowHeight + this.waitTrack };
      y += placed.h + gap;
      return placed;
    });
    this.height = y + 4;
    this.parts.canvas.style.height = `${this.height}px`;
  }

  // After a change of the page's colours.
  readColours() {
    const style = getComputedStyle(document.documentElement);
    const read = (name) => style.getPropertyValue(`--${name}`).trim();
    this.colours = {};
    for (const name of [
      'ink',
      'ink-2',
      'ink-3',
      'line',
      'line-2',
      'surface',
      'lane',
      'accent',
      'busy',
      'busy-2',
      'waiting',
      'dim',
      'empty',
      'failure',
      'select',
    ])
      this.colours[name] = read(name);
    this.palettes = {
      tool: Array.from({ length: COLOURS_OF_TOOLS + 1 }, (_, k) => read(`tool-${k}`)),
      outcome: OUTCOMES.map((name) => read(`outcome-${name}`)),
      wait: WAIT_NAMES.map((_, k) => read(`wait-${k}`)),
    };
    this.font = `11px ${read('font')}`;
    this.requestDraw();
  }

  // Which colour of the palette a job has.
  kindOf(i, colourBy = this.colourBy) {
    const { model } = this;
    if (colourBy === 'outcome') return model.outcome[i];
    if (colourBy === 'tool') return Math.min(model.tools[model.tool[i]].rank, COLOURS_OF_TOOLS);
    const wait = waitOf(model, i);
    const step = WAIT_STEPS_US.findIndex((least) => wait < least);
    return step < 0 ? WAIT_STEPS_US.length : step;
  }

  setColourBy(colourBy) {
    this.colourBy = colourBy;
    this.requestDraw();
  }

  setMatch(match) {
    this.match = match;
    this.requestDraw();
  }

  select(job) {
    this.selected = job;
    if (job >= 0) this.reveal(job);
    this.requestDraw();
  }

  // Pans, and zooms out where that does not do, until the job is to be seen.
  reveal(job) {
    const [from, to] = this.spanOf(job);
    if (to > this.from && from < this.to) return;
    const span = Math.max(this.to - this.from, (to - from) * 1.2);
    this.setView((from + to - span) / 2, (from + to + span) / 2);
  }

  spanOf(job) {
    const { queued, start, stop } = this.model;
    return Number.isNaN(start[job]) ? [queued[job], stop[job]] : [start[job], stop[job]];
  }

  zoomToJob(job) {
    const [from, to] = this.spanOf(job);
    const margin = Math.max((to - from) * 0.4, LEAST_SPAN_US);
    this.setView(from - margin, to + margin);
  }

  showAll() {
    this.setView(this.model.begin, this.end);
  }

  setView(from, to) {
    const whole = this.end - this.model.begin;
    const span = limit(to - from, LEAST_SPAN_US, whole);
    const middle = (from + to) / 2;
    this.from = limit(middle - span / 2, this.model.begin, this.end - span);
    this.to = this.from + span;
    this.requestDraw();
  }

  zoom(factor, around = (this.from + this.to) / 2) {
    const span = this.to - this.from;
    const next = limit(span / factor, LEAST_SPAN_US, this.end - this.model.begin);
    const from = around - ((around - this.from) / span) * next;
    this.setView(from, from + next);
  }

  pan(share) {
    const by = (this.to - this.from) * share;
    this.setView(this.from + by, this.to + by);
  }

  isWhole() {
    return this.to - this.from >= (this.end - this.model.begin) * 0.9999;
  }

  get plotWidth() {
    return Math.max(1, this.width - GUTTER);
  }

  xOf(time) {
    return GUTTER + ((time - this.from) / (this.to - this.from)) * this.plotWidth;
  }

  timeAt(x) {
    return this.from + ((x - GUTTER) / this.plotWidth) * (this.to - this.from);
  }

  requestDraw() {
    if (!this.isDrawn) return;
    this.isDrawn = false;
    requestAnimationFrame(() => this.draw());
  }

  draw() {
    const begun = performance.now();
    this.isDrawn = true;
    this.fitCanvas();
    const { context, colours } = this;
    context.fillStyle = colours.surface;
    context.fillRect(0, 0, this.width, this.height);
    context.font = this.font;
    context.textBaseline = 'middle';
    this.drawOverview();
    this.drawAxis();
    this.drawLevel(BUSY, this.model.busy, Math.max(this.model.slots, this.model.busy.most, 1), 'Busy', 'busy');
    this.drawLevel(WAITING, this.model.waiting, Math.max(this.model.waiting.most, 1), 'Waiting', 'waiting');
    this.drawLanes();
    this.drawSelection();
    this.drawTime = performance.now() - begun;
  }

  fitCanvas() {
    const { canvas } = this.parts;
    const scale = window.devicePixelRatio || 1;
    this.width = canvas.clientWidth;
    const width = Math.round(this.width * scale);
    const height = Math.round(this.height * scale);
    if (canvas.width !== width || canvas.height !== height) {
      canvas.width = width;
      canvas.height = height;
    }
    this.context.setTransform(scale, 0, 0, scale, 0, 0);
  }

  drawOverview() {
    const { context, colours, model } = this;
    const { y, h } = OVERVIEW;
    const columns = Math.floor(this.plotWidth);
    if (!this.overview || this.overview.length !== columns) {
      this.overview = averages(model.busy, model.begin, this.end, columns);
    }
    this.label('Build', y + h / 2);
    context.fillStyle = colours.lane;
    context.fillRect(GUTTER, y, this.plotWidth, h);
    const most = Math.max(model.slots, model.busy.most, 1);
    context.fillStyle = colours['busy-2'];
    this.fillColumns(this.overview, most, y, h);
    const [left, right] = this.windowEdges();
    if (!this.isWhole()) {
      context.globalAlpha = 0.6;
      context.fillStyle = colours.surface;
      context.fillRect(GUTTER, y, left - GUTTER, h);
      context.fillRect(right, y, this.width - right, h);
      context.globalAlpha = 1;
    }
    context.strokeStyle = colours.accent;
    context.strokeRect(Math.floor(left) + 0.5, y + 0.5, Math.max(2, Math.floor(right - left) - 1), h - 1);
  }

  // Where the view's window stands in the overview.
  windowEdges() {
    const scale = this.plotWidth / (this.end - this.model.begin);
    return [GUTTER + (this.from - this.model.begin) * scale, GUTTER + (this.to - this.model.begin) * scale];
  }

  fillColumns(values, most, y, h) {
    const { context } = this;
    context.beginPath();
    context.moveTo(GUTTER, y + h);
    values.forEach((value, c) => {
      const top = y + h - (value / most) * h;
      context.lineTo(GUTTER + c, top);
      context.lineTo(GUTTER + c + 1, top);
    });
    context.lineTo(GUTTER + values.length, y + h);
    context.closePath();
    context.fill();
  }

  drawAxis() {
    const { context, colours } = this;
    const step = niceStep(((this.to - this.from) / this.plotWidth) * 90);
    context.textAlign = 'center';
    for (let at = Math.ceil(this.from / step) * step; at <= this.to; at += step) {
      const x = Math.round(this.xOf(at)) + 0.5;
      context.strokeStyle = colours['line-2'];
      context.beginPath();
      context.moveTo(x, AXIS.y + AXIS.h - 3);
      context.lineTo(x, this.height);
      context.stroke();
      context.fillStyle = colours['ink-2'];
      context.textAlign = x < GUTTER + 20 ? 'left' : x > this.width - 24 ? 'right' : 'center';
      context.fillText(formatMark(at, step, this.end), x, AXIS.y + AXIS.h / 2);
    }
  }

  label(text, y, isFaint = false) {
    const { context, colours } = this;
    context.fillStyle = isFaint ? colours['ink-3'] : colours['ink-2'];
    context.textAlign = 'right';
    context.fillText(text, GUTTER - 10, y);
  }

  drawLevel(band, level, most, name, colour) {
    const { context, colours } = this;
    this.label(name, band.y + 7);
    this.label(
      band === BUSY ? `of ${formatCount(most)}` : level.most ? `≤ ${formatCount(most)}` : 'none',
      band.y + 21,
      true,
    );
    if (band === BUSY) this.shadeStretches(band);
    context.fillStyle = colours[colour];
    this.fillColumns(averages(level, this.from, this.to, Math.floor(this.plotWidth)), most, band.y, band.h);
    context.strokeStyle = colours.line;
    context.beginPath();
    context.moveTo(GUTTER, band.y + band.h + 0.5);
    context.lineTo(this.width, band.y + band.h + 0.5);
    context.stroke();
  }

  shadeStretches(band) {
    const { context, colours, model } = this;
    context.fillStyle = colours.empty;
    for (const { from, to } of model.stretches) {
      const left = Math.max(this.xOf(from), GUTTER);
      const right = Math.min(this.xOf(to), this.width);
      if (right > left) context.fillRect(left, band.y, Math.max(1, right - left), band.h);
    }
  }

  drawLanes() {
    const { context, colours } = this;
    const isLabelled = this.rowHeight > 8;
    this.lanes.forEach((placed, number) => {
      const { lane, y, h } = placed;
      if (isLabelled || number % Math.ceil(16 / this.rowHeight) === 0)
        this.label(isLabelled && number === 0 ? `Slot ${lane.label}` : lane.label, y + h / 2);
      context.fillStyle = colours.lane;
      context.fillRect(GUTTER, y, this.plotWidth, h - this.waitTrack);
    });
    context.save();
    context.beginPath();
    context.rect(GUTTER, LANES_Y - 4, this.plotWidth, this.height);
    context.clip();
    for (const placed of this.lanes) {
      if (this.waitTrack) this.drawWaits(placed);
      placed.lane.rows.forEach((row, k) => this.drawRow(row, placed.y + k * this.rowHeight));
    }
    context.restore();
  }

  // When some job that later ran in this slot was waiting; runs of pixels become one rectangle.
  drawWaits({ lane, y, h }) {
    const { context, colours } = this;
    context.fillStyle = colours.waiting;
    let left = -1;
    let right = -1;
    const flush = () => {
      if (right > left) context.fillRect(left, y + h - 2, right - left, 2);
    };
    for (const [from, to] of lane.waits) {
      if (to < this.from) continue;
      if (from > this.to) break;
      const x = this.xOf(Math.max(from, this.from));
      const until = this.xOf(Math.min(to, this.to));
      if (x > right + 0.5) {
        flush();
        left = x;
      }
      right = Math.max(right, until);
    }
    flush();
  }

  // Jobs that are wide enough become rectangles; the others share pixel columns, in each of which the longest job gives
  // the colour and the busy share the strength.
  drawRow(row, y) {
    const { model } = this;
    const height = this.rowHeight;
    const fine = this.emptyColumns(Math.ceil(this.plotWidth) + 1);
    const failures = [];
    for (let k = firstAbove(row.stops, this.from); k < row.jobs.length; ++k) {
      const i = row.jobs[k];
      if (model.start[i] > this.to) break;
      const x = this.xOf(model.start[i]);
      const width = this.xOf(model.stop[i]) - x;
      if (width >= 2) this.drawBar(i, x, y, width, height);
      else this.addFine(fine, i, x - GUTTER, width);
      if (isFailure(model, i) && !this.isDimmed(i)) failures.push(x);
    }
    if (fine.used) this.drawFine(fine, y, height);
    this.drawMarks(failures, y);
  }

  isDimmed(i) {
    return this.match !== null && !this.match[i];
  }

  drawBar(i, x, y, width, height) {
    const { context, colours } = this;
    const left = Math.max(x, GUTTER - 4);
    const right = Math.min(x + width, this.width + 4);
    const inset = width > 4 ? 1 : 0.5;
    context.fillStyle = this.isDimmed(i) ? colours.dim : this.palettes[this.colourBy][this.kindOf(i)];
    context.fillRect(left, y, Math.max(1, right - left - inset), height);
    const room = right - Math.max(left, GUTTER) - 10;
    if (height < 14 || room < 28) return;
    context.fillStyle = this.isDimmed(i) ? colours['ink-3'] : colours.surface;
    context.textAlign = 'left';
    context.fillText(
      this.shorten(jobLabel(this.model.jobs[i]), room),
      Math.max(left, GUTTER) + 5,
      y + height / 2 + 0.5,
    );
  }

  // The text, or its beginning, that fits; "" where too little of it would.
  shorten(text, room) {
    const { context } = this;
    if (context.measureText(text).width <= room) return text;
    let length = Math.floor(text.length * (room / context.measureText(text).width));
    while (length > 2 && context.measureText(`${text.slice(0, length)}…`).width > room) --length;
    return length > 2 ? `${text.slice(0, length)}…` : '';
  }

  emptyColumns(columns) {
    if (this.fine?.cover.length !== columns) {
      this.fine = { weight: new Float32Array(columns), cover: new Float32Array(columns), job: new Int32Array(columns) };
    } else if (this.fine.used) {
      this.fine.weight.fill(0);
      this.fine.cover.fill(0);
    }
    this.fine.used = false;
    return this.fine;
  }

  addFine(fine, i, x, width) {
    fine.used = true;
    const weight = (this.isDimmed(i) ? 1e-6 : 1) * (width + 1e-3);
    const first = limit(Math.floor(x), 0, fine.cover.length - 1);
    const last = limit(Math.floor(x + width), 0, fine.cover.length - 1);
    for (let c = first; c <= last; ++c) {
      fine.cover[c] += Math.max(0, Math.min(x + width, c + 1) - Math.max(x, c));
      if (weight <= fine.weight[c]) continue;
      fine.weight[c] = weight;
      fine.job[c] = i;
    }
  }

  drawFine(fine, y, height) {
    const columns = fine.cover.length;
    const line = this.fineLine(columns);
    const pixels = new Uint32Array(line.image.data.buffer);
    for (let c = 0; c < columns; ++c) {
      if (fine.weight[c] === 0) pixels[c] = 0;
      else pixels[c] = this.finePixel(fine.job[c], fine.cover[c]);
    }
    line.context.putImageData(line.image, 0, 0);
    this.context.imageSmoothingEnabled = false;
    this.context.drawImage(line.canvas, 0, 0, columns, 1, GUTTER, y, columns, height);
  }

  finePixel(i, cover) {
    const isDimmed = this.isDimmed(i);
    const colour = isDimmed ? this.colours.dim : this.palettes[this.colourBy][this.kindOf(i)];
    const least = this.match !== null && !isDimmed ? 0.8 : 0.3;
    return pixelOf(colour, limit(cover, least, 1));
  }

  // One line of pixels, drawn first and stretched over a row then.
  fineLine(columns) {
    if (this.line && this.line.canvas.width === columns) return this.line;
    const canvas = document.createElement('canvas');
    canvas.width = columns;
    canvas.height = 1;
    const context = canvas.getContext('2d');
    this.line = { canvas, context, image: context.createImageData(columns, 1) };
    return this.line;
  }

  // Failures also have a mark, for eyes and printers that do not tell the colours apart.
  drawMarks(places, y) {
    const { context, colours } = this;
    let last = -Infinity;
    for (const x of places) {
      if (x - last < 3) continue;
      last = x;
      const at = Math.max(x, GUTTER);
      context.beginPath();
      context.moveTo(at - 1, y - 3);
      context.lineTo(at + 8, y - 3);
      context.lineTo(at - 1, y + 6);
      context.closePath();
      context.fillStyle = colours.failure;
      context.fill();
      context.strokeStyle = colours.surface;
      context.stroke();
    }
  }

  // The row in which a job is drawn; undefined for one that never ran.
  placeOf(job) {
    this.places = this.places ?? this.findPlaces();
    return this.places.get(job);
  }

  findPlaces() {
    const places = new Map();
    this.lanes.forEach((placed, lane) =>
      placed.lane.rows.forEach((row, k) => {
        for (const i of row.jobs) places.set(i, { lane, y: placed.y + k * this.rowHeight });
      }),
    );
    return places;
  }

  drawSelection() {
    const { context, colours, model, selected } = this;
    const place = selected >= 0 ? this.placeOf(selected) : undefined;
    if (!place) return;
    const x = this.xOf(model.start[selected]);
    const width = Math.max(3, this.xOf(model.stop[selected]) - x);
    const queue = this.xOf(model.queued[selected]);
    context.save();
    context.beginPath();
    context.rect(GUTTER - 2, AXIS.y, this.plotWidth + 2, this.height);
    context.clip();
    context.fillStyle = colours.waiting;
    context.fillRect(queue, place.y + this.rowHeight, Math.max(0, x - queue), 4);
    if (x - queue > 2) context.fillRect(queue, place.y - 1, 2, this.rowHeight + 5);
    context.lineWidth = 2;
    context.strokeStyle = colours.select;
    context.strokeRect(x, place.y - 1, width, this.rowHeight + 2);
    context.lineWidth = 1;
    if (isFailure(model, selected)) this.drawMarks([x], place.y);
    context.restore();
  }

  // The job at a place of the canvas, or the nearest within some pixels; -1 if there is none.
  jobAt(x, y) {
    const placed = this.lanes.find((p) => y >= p.y - 2 && y < p.y + p.h + 2);
    if (!placed || x < GUTTER) return -1;
    const row = placed.lane.rows[limit(Math.floor((y - placed.y) / this.rowHeight), 0, placed.lane.rows.length - 1)];
    const { model } = this;
    const from = this.timeAt(x - 3);
    const to = this.timeAt(x + 3);
    let best = -1;
    let least = Infinity;
    for (let k = firstAbove(row.stops, from); k < row.jobs.length && model.start[row.jobs[k]] <= to; ++k) {
      const i = row.jobs[k];
      const distance =
        Math.max(0, this.xOf(model.start[i]) - x, x - this.xOf(model.stop[i])) + (this.isDimmed(i) ? 2 : 0);
      if (distance >= least) continue;
      least = distance;
      best = i;
    }
    return best;
  }

  // The neighbour of the selected job in its slot, or the first that is in view.
  step(direction) {
    const place = this.selected >= 0 ? this.placeOf(this.selected) : undefined;
    if (!place) return this.firstInView();
    const { jobs } = this.lanes[place.lane].lane;
    return jobs[limit(jobs.indexOf(this.selected) + direction, 0, jobs.length - 1)];
  }

  // The job of the next lane that is nearest in time.
  stepLane(direction) {
    const place = this.selected >= 0 ? this.placeOf(this.selected) : undefined;
    if (!place) return this.firstInView();
    const at = this.model.start[this.selected];
    for (let k = place.lane + direction; k >= 0 && k < this.lanes.length; k += direction) {
      const job = nearestInTime(this.model, this.lanes[k].lane.jobs, at);
      if (job >= 0) return job;
    }
    return this.selected;
  }

  firstInView() {
    const middle = this.isWhole() ? this.model.begin : (this.from + this.to) / 2;
    for (const { lane } of this.lanes) {
      const job = nearestInTime(this.model, lane.jobs, middle);
      if (job >= 0) return job;
    }
    return -1;
  }

  listen() {
    const { canvas } = this.parts;
    canvas.addEventListener('wheel', (event) => this.onWheel(event), { passive: false });
    canvas.addEventListener('pointerdown', (event) => this.onDown(event));
    canvas.addEventListener('pointermove', (event) => this.onMove(event));
    canvas.addEventListener('pointerup', (event) => this.onUp(event));
    canvas.addEventListener('pointercancel', () => this.endDrag());
    canvas.addEventListener('pointerleave', () => this.hideHints());
    canvas.addEventListener('dblclick', (event) => this.onDoubleClick(event));
    canvas.addEventListener('keydown', (event) => this.onKey(event));
    window.addEventListener(
      'scroll',
      () => {
        this.lastScroll = performance.now();
      },
      { passive: true },
    );
  }

  onWheel(event) {
    if (performance.now() - this.lastScroll < SCROLL_PAUSE_MS) return;
    const isSideways = event.shiftKey || Math.abs(event.deltaX) > Math.abs(event.deltaY);
    const unit = event.deltaMode === 1 ? 16 : event.deltaMode === 2 ? 400 : 1;
    if (isSideways) {
      this.pan(((event.deltaX || event.deltaY) * unit) / this.plotWidth);
    } else {
      if (event.deltaY > 0 && this.isWhole()) return;
      this.zoom(Math.exp(-limit(event.deltaY * unit, -200, 200) * 0.004), this.timeAt(Math.max(event.offsetX, GUTTER)));
    }
    event.preventDefault();
    this.hideHints();
  }

  onDown(event) {
    if (event.button !== 0) return;
    const { offsetX: x, offsetY: y } = event;
    const kind = y < OVERVIEW.y + OVERVIEW.h + 2 ? 'window' : y < LANES_Y - 4 ? 'span' : 'pan';
    this.drag = { kind, x, y, from: this.from, to: this.to, hasMoved: false };
    this.parts.canvas.setPointerCapture(event.pointerId);
    if (kind === 'window') this.moveWindow(x);
  }

  onMove(event) {
    const { offsetX: x, offsetY: y } = event;
    if (!this.drag) return this.showHints(x, y);
    if (Math.abs(x - this.drag.x) > 3) this.drag.hasMoved = true;
    if (!this.drag.hasMoved) return undefined;
    this.hideHints();
    if (this.drag.kind === 'window') this.moveWindow(x);
    if (this.drag.kind === 'span') this.showBrush(this.drag.x, x);
    if (this.drag.kind === 'pan') {
      const by = ((this.drag.x - x) / this.plotWidth) * (this.to - this.from);
      this.setView(this.drag.from + by, this.drag.to + by);
    }
    return undefined;
  }

  onUp(event) {
    const { drag } = this;
    this.endDrag();
    if (!drag) return;
    const { offsetX: x, offsetY: y } = event;
    if (drag.hasMoved && drag.kind === 'span') {
      this.setView(this.timeAt(Math.max(GUTTER, Math.min(x, drag.x))), this.timeAt(Math.max(x, drag.x)));
    }
    if (drag.hasMoved || drag.kind !== 'pan') return;
    const job = this.jobAt(x, y);
    this.listener.onSelect(job);
    if (job >= 0) this.listener.onOpen(job);
  }

  endDrag() {
    this.drag = null;
    this.parts.brush.hidden = true;
  }

  moveWindow(x) {
    const at = this.model.begin + ((x - GUTTER) / this.plotWidth) * (this.end - this.model.begin);
    const half = (this.to - this.from) / 2;
    this.setView(at - half, at + half);
  }

  showBrush(from, to) {
    const { brush } = this.parts;
    const left = Math.max(GUTTER, Math.min(from, to));
    brush.hidden = false;
    brush.style.left = `${left}px`;
    brush.style.width = `${Math.max(0, Math.max(from, to) - left)}px`;
    brush.style.top = `${AXIS.y}px`;
    brush.style.height = `${this.height - AXIS.y}px`;
  }

  showHints(x, y) {
    const { cursor, tooltip, canvas } = this.parts;
    if (x < GUTTER) return this.hideHints();
    const job = this.jobAt(x, y);
    canvas.style.cursor = job >= 0 ? 'pointer' : y < LANES_Y - 4 ? 'crosshair' : 'default';
    cursor.hidden = y < AXIS.y;
    cursor.style.left = `${x}px`;
    const text = y < AXIS.y ? null : this.listener.describe(job, this.timeAt(x));
    tooltip.hidden = !text;
    if (text) tooltip.replaceChildren(...text);
    if (text) this.placeTooltip(x, y);
    return undefined;
  }

  placeTooltip(x, y) {
    const { tooltip } = this.parts;
    const width = tooltip.offsetWidth;
    const left = x + 14 + width > this.width ? Math.max(0, x - width - 14) : x + 14;
    tooltip.style.left = `${left}px`;
    tooltip.style.top = `${y + 16}px`;
  }

  hideHints() {
    this.parts.cursor.hidden = true;
    this.parts.tooltip.hidden = true;
  }

  onDoubleClick(event) {
    if (event.offsetY < LANES_Y - 4) return this.showAll();
    const job = this.jobAt(event.offsetX, event.offsetY);
    return job >= 0 ? this.zoomToJob(job) : this.showAll();
  }

  onKey(event) {
    if (event.ctrlKey || event.altKey || event.metaKey) return;
    const moves = {
      ArrowLeft: () => this.step(-1),
      ArrowRight: () => this.step(1),
      ArrowUp: () => this.stepLane(-1),
      ArrowDown: () => this.stepLane(1),
    };
    if (event.key === 'Enter' && this.selected >= 0) this.listener.onOpen(this.selected, true);
    else if (moves[event.key]) this.listener.onSelect(moves[event.key]());
    else return;
    event.preventDefault();
  }
}

function nearestInTime(model, jobs, at) {
  let best = -1;
  for (const i of jobs) {
    if (best >= 0 && Math.abs(model.start[i] - at) > Math.abs(model.start[best] - at)) break;
    best = i;
  }
  return best;
}
