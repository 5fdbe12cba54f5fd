// The day as an SVG time line: recordings as bars, gaps the camera reported as hatched
// bars, alarms as markers. Shows a window of the day, from the whole day down to one hour,
// moved by the wheel (zooming around the pointer) and the buttons; a click on the line
// hands the time under the pointer (and how many seconds a few pixels are) to onPick.

const SVG = 'http://www.w3.org/2000/svg';
const WIDTH = 1000;
const HEIGHT = 110;
const MIN_SPAN = 3600;
const DAY = 86400;

function el(name, attrs, parent) {
  const node = document.createElementNS(SVG, name);
  for (const [key, value] of Object.entries(attrs)) {
    node.setAttribute(key, value);
  }
  if (parent) {
    parent.appendChild(node);
  }
  return node;
}

export class Timeline {
  constructor(svg, { onPick, onAlarm, onWindow }) {
    this.svg = svg;
    this.onPick = onPick;
    this.onAlarm = onAlarm;
    this.onWindow = onWindow;
    this.svg.setAttribute('viewBox', `0 0 ${WIDTH} ${HEIGHT}`);
    this.svg.setAttribute('preserveAspectRatio', 'none');
    this.day = { start: 0, end: DAY };
    this.from = 0;
    this.span = DAY;
    this.data = { recordings: [], gaps: [], alarms: [] };
    this.svg.addEventListener('click', (e) => {
      if (!e.target.classList.contains('alarm')) {
        // A bar may be a pixel or two wide on the whole day: four pixels either side count.
        const slack = (this.span / this.svg.getBoundingClientRect().width) * 4;
        this.onPick(this.timeAt(e), slack);
      }
    });
    this.svg.addEventListener('wheel', (e) => {
      e.preventDefault();
      this.zoom(e.deltaY < 0 ? 0.5 : 2, this.timeAt(e));
    }, { passive: false });
  }

  // day: {start, end} epoch seconds (a day may have 23 or 25 hours); zone formats labels.
  show(day, zone, data, now) {
    this.day = day;
    this.zone = zone;
    this.data = data;
    this.now = now;
    this.from = day.start;
    this.span = day.end - day.start;
    this.draw();
  }

  timeAt(event) {
    const box = this.svg.getBoundingClientRect();
    const x = Math.min(Math.max((event.clientX - box.left) / box.width, 0), 1);
    return Math.floor(this.from + x * this.span);
  }

  x(t) {
    return ((t - this.from) / this.span) * WIDTH;
  }

  // factor < 1 zooms in, around time `at` (the middle when not given).
  zoom(factor, at) {
    const full = this.day.end - this.day.start;
    const span = Math.min(Math.max(this.span * factor, MIN_SPAN), full);
    const centre = at === undefined ? this.from + this.span / 2 : at;
    const share = (centre - this.from) / this.span;
    let from = centre - share * span;
    from = Math.min(Math.max(from, this.day.start), this.day.end - span);
    this.from = Math.round(from);
    this.span = Math.round(span);
    this.draw();
  }

  whole() {
    this.zoom(Infinity);
  }

  draw() {
    const svg = this.svg;
    while (svg.firstChild) {
      svg.removeChild(svg.firstChild);
    }
    const to = this.from + this.span;
    el('rect', { class: 'track', x: 0, y: 30, width: WIDTH, height: 50 }, svg);
    this.drawTicks(to);
    for (const gap of this.data.gaps) {
      this.bar(gap.from, gap.to, 'gap', 72, 8,
        `gap ${this.zone.time(gap.from)}–${this.zone.time(gap.to)}: ${gap.reason}`);
    }
    for (const rec of this.data.recordings) {
      const end = rec.endTime || this.now;
      const kind = rec.endTime ? 'recording' : 'recording open';
      const bar = this.bar(rec.startTime, end, kind, 34, 36,
        `${this.zone.time(rec.startTime)}–${rec.endTime ? this.zone.time(end) : 'open'}, ` +
        `${rec.files} files`);
      if (bar) {
        bar.dataset.start = rec.startTime;
      }
    }
    for (const alarm of this.data.alarms) {
      if (alarm.time < this.from || alarm.time > to) {
        continue;
      }
      const marker = el('circle', { class: 'alarm', cx: this.x(alarm.time), cy: 22, r: 6 }, svg);
      marker.dataset.time = alarm.time;
      el('title', {}, marker).textContent = `alarm ${this.zone.time(alarm.time)}`;
      marker.addEventListener('mouseenter', () => this.onAlarm(alarm, marker));
      marker.addEventListener('click', () => this.onAlarm(alarm, marker));
    }
    this.onWindow(this.from, to);
  }

  bar(from, to, kind, y, height, title) {
    const end = this.from + this.span;
    if (to < this.from || from > end) {
      return null;
    }
    const x0 = this.x(Math.max(from, this.from));
    const x1 = this.x(Math.min(Math.max(to, from + 1), end));
    const rect = el('rect', { class: kind, x: x0, y, width: Math.max(x1 - x0, 2), height },
      this.svg);
    el('title', {}, rect).textContent = title;
    return rect;
  }

  drawTicks(to) {
    // A tick each hour on the whole day, each 5 minutes on one hour.
    const steps = [300, 600, 900, 1800, 3600, 7200];
    const step = steps.find((s) => this.span / s <= 14) || 7200;
    // Ticks on the zone's round times, not UTC's (zones may be off by half hours).
    const offset = this.zone.offsetAt(this.from);
    const first = Math.ceil((this.from + offset) / step) * step - offset;
    for (let t = first; t <= to; t += step) {
      const x = this.x(t);
      el('line', { class: 'tick', x1: x, x2: x, y1: 80, y2: 86 }, this.svg);
      // Labels at the edges are anchored inside the line so that they stay whole.
      const anchor = x < 20 ? 'start' : x > WIDTH - 20 ? 'end' : 'middle';
      el('text', { class: 'tick-label', x, y: 100, 'text-anchor': anchor }, this.svg).textContent =
        this.zone.time(t).slice(0, 5);
    }
  }
}
