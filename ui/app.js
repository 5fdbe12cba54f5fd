// The page: device list, a device's day on the time line with its thumbnails, the player
// and the controls. State lives here; the other modules draw and ask.

import * as api from './api.js';
import { Controls } from './controls.js';
import { renderDevices } from './devices.js';
import { Player } from './player.js';
import { Timeline } from './timeline.js';
import { Zone } from './zone.js';

const $ = (id) => document.getElementById(id);

const state = {
  overview: null,
  zoneChoice: 'service',
  device: null,
  dayStart: null,
  recordings: [],
  alarms: [],
  gaps: [],
};

function zone() {
  if (state.zoneChoice === 'browser' || !state.overview) {
    return Zone.browser();
  }
  return new Zone(state.overview.timeZone, state.overview.utcOffset);
}

function say(text) {
  $('status').textContent = text;
}

const player = new Player($('player'), $('player-label'), $('download'), $('player-status'));

const timeline = new Timeline($('timeline'), {
  onPick: (t, slack) => pick(t, slack),
  onAlarm: (alarm, marker) => showAlarm(alarm, marker),
  onWindow: (from, to) => {
    $('window-label').textContent = `${zone().time(from).slice(0, 5)}–${zone().time(to).slice(0, 5)}`;
  },
});

const controls = new Controls($('order-form'), $('trigger-form'), $('control-answer'),
  () => refreshOverview());

async function refreshOverview() {
  try {
    state.overview = await api.overview();
  } catch (e) {
    say(`cannot read the devices: ${e.message}`);
    return;
  }
  const z = zone();
  $('zone-name').textContent = z.name;
  renderDevices($('devices').tBodies[0], state.overview, z, state.device, selectDevice);
}

async function selectDevice(device) {
  state.device = device;
  player.stop();
  for (const row of $('devices').tBodies[0].rows) {
    row.classList.toggle('selected', row.dataset.device === device);
  }
  try {
    const [recordings, alarms] = await Promise.all([api.recordings(device), api.alarms(device)]);
    state.recordings = recordings.recordings;
    state.gaps = recordings.gaps;
    state.alarms = alarms.alarms;
  } catch (e) {
    say(`cannot read ${device}: ${e.message}`);
    return;
  }
  // The day of the latest recording: what was just recorded is what one looks for first.
  const last = state.recordings[state.recordings.length - 1];
  const now = state.overview ? state.overview.now : Math.floor(Date.now() / 1000);
  state.dayStart = zone().dayStart(last ? last.startTime : now);
  $('day-section').hidden = false;
  $('controls-section').hidden = false;
  $('day-device').textContent = device;
  drawDay();
  controls.load(device).catch((e) => say(`cannot read the order: ${e.message}`));
}

function drawDay() {
  const z = zone();
  const start = state.dayStart;
  const end = z.shiftDay(start, 1);
  const overlaps = (from, to) => from < end && to >= start;
  const now = state.overview ? state.overview.now : Math.floor(Date.now() / 1000);
  const day = {
    recordings: state.recordings.filter((r) => overlaps(r.startTime, r.endTime || now)),
    gaps: state.gaps.filter((g) => overlaps(g.from, g.to)),
    alarms: state.alarms.filter((a) => a.time >= start && a.time < end),
  };
  $('day-label').textContent = `${z.date(start)} (${z.name})`;
  timeline.show({ start, end }, z, day, now);
  drawThumbnails(day.recordings, z);
  say(`${day.recordings.length} recordings, ${day.alarms.length} alarms, ` +
    `${day.gaps.length} gaps on ${z.date(start)}`);
}

function drawThumbnails(recordings, z) {
  const strip = $('thumbnails');
  strip.replaceChildren();
  for (const rec of recordings) {
    const figure = document.createElement('figure');
    figure.className = 'thumbnail';
    figure.dataset.start = rec.startTime;
    const img = document.createElement('img');
    img.loading = 'lazy';
    img.alt = `recording at ${z.time(rec.startTime)}`;
    img.src = api.thumbnailUrl(state.device, rec.startTime);
    img.addEventListener('error', () => img.classList.add('missing'), { once: true });
    const caption = document.createElement('figcaption');
    caption.textContent = z.time(rec.startTime);
    figure.append(img, caption);
    figure.addEventListener('click', () => play(rec, 0));
    strip.appendChild(figure);
  }
}

// Plays the recording under time t from t; else the nearest one within slack seconds, from
// its start or its end.
function pick(t, slack) {
  const now = state.overview ? state.overview.now : Math.floor(Date.now() / 1000);
  const end = (r) => r.endTime || now;
  const distance = (r) => (t < r.startTime ? r.startTime - t : t >= end(r) ? t - end(r) + 1 : 0);
  let best = null;
  for (const r of state.recordings) {
    if (distance(r) <= slack && (best === null || distance(r) < distance(best))) {
      best = r;
    }
  }
  if (!best) {
    say(`no recording at ${zone().time(t)}`);
    return;
  }
  const offset = Math.min(Math.max(t - best.startTime, 0), Math.max(end(best) - best.startTime - 1, 0));
  play(best, offset);
}

function play(rec, offset) {
  $('player-section').hidden = false;
  player.play(state.device, rec, offset, zone());
}

function showAlarm(alarm, marker) {
  const box = $('alarm-picture');
  const caption = box.querySelector('span');
  const img = box.querySelector('img');
  caption.textContent = `alarm at ${zone().dateTime(alarm.time)}` +
    (alarm.withPicture ? '' : ' (no picture)');
  if (alarm.withPicture && alarm.id !== undefined) {
    img.hidden = false;
    img.src = api.alarmPictureUrl(state.device, alarm.id);
  } else {
    img.hidden = true;
    img.removeAttribute('src');
  }
  const where = marker.getBoundingClientRect();
  box.style.left = `${window.scrollX + where.left}px`;
  box.style.top = `${window.scrollY + where.bottom + 4}px`;
  box.hidden = false;
}

$('prev-day').addEventListener('click', () => {
  state.dayStart = zone().shiftDay(state.dayStart, -1);
  drawDay();
});
$('next-day').addEventListener('click', () => {
  state.dayStart = zone().shiftDay(state.dayStart, 1);
  drawDay();
});
$('zoom-in').addEventListener('click', () => timeline.zoom(0.5));
$('zoom-out').addEventListener('click', () => timeline.zoom(2));
$('zoom-day').addEventListener('click', () => timeline.whole());
$('alarm-picture').addEventListener('click', () => { $('alarm-picture').hidden = true; });
$('zone-choice').addEventListener('change', (e) => {
  const middle = state.dayStart === null ? null : state.dayStart + 43200;
  state.zoneChoice = e.target.value;
  refreshOverview();
  if (middle !== null) {
    state.dayStart = zone().dayStart(middle);
    drawDay();
  }
});

refreshOverview();
setInterval(refreshOverview, 10000);
