// Drives Debian's chromium (headless, through puppeteer-core) through the browser view of a
// running vexo-cloud. Started by ui_browser_test, which fills the service's data with a
// camera simulator run and passes what to expect in the environment:
//   VEXO_UI_URL       the service, e.g. http://127.0.0.1:PORT
//   VEXO_UI_TOKEN     its admin token
//   VEXO_UI_DEVICE    the camera's id
//   VEXO_UI_RECORDINGS, VEXO_UI_ALARMS   how many the day view must draw
//   VEXO_UI_OUT       where screenshots and the downloaded MP4 go
//   VEXO_UI_STEPS     "view" (login, device list, day view, refusals) or "playback"
//   VEXO_UI_CHROMIUM  the browser
//   VEXO_UI_PACKAGES  ui/, where `npm ci` installed puppeteer-core
// Every wait is bounded; the first failed check ends the run with status 1.
import { writeFileSync } from 'node:fs';
import { createRequire } from 'node:module';

// puppeteer-core is a development package of ui/ (its package.json pins it).
const puppeteer = createRequire(`${process.env.VEXO_UI_PACKAGES}/package.json`)('puppeteer-core');

const env = process.env;
const base = env.VEXO_UI_URL;
const device = env.VEXO_UI_DEVICE;
const out = env.VEXO_UI_OUT;
const WAIT_MS = 30000;

class CheckFailed extends Error {}

function check(condition, message) {
  if (!condition) {
    throw new CheckFailed(message);
  }
  console.log(`ok: ${message}`);
}

async function waitFor(page, what, fn, ...args) {
  try {
    return await page.waitForFunction(fn, { timeout: WAIT_MS, polling: 100 }, ...args);
  } catch (e) {
    throw new CheckFailed(`timed out waiting for ${what}: ${e.message}`);
  }
}

async function screenshot(page, name) {
  await page.screenshot({ path: `${out}/${name}.png`, fullPage: true });
  console.log(`screenshot: ${out}/${name}.png`);
}

async function submitLogin(page, token) {
  await page.goto(`${base}/ui/`);
  await page.waitForSelector('#login-form', { timeout: WAIT_MS });
  await page.type('#token', token);
  const [answer] = await Promise.all([
    page.waitForNavigation({ timeout: WAIT_MS }),
    page.click('#login-button'),
  ]);
  return answer;
}

async function wrongTokenGetsNothing(browser) {
  const context = await browser.createBrowserContext();
  const page = await context.newPage();
  const answer = await submitLogin(page, `${env.VEXO_UI_TOKEN}-wrong`);
  check(answer.status() === 401, `a wrong token is answered 401 (got ${answer.status()})`);
  check(await page.$('#login-form') !== null, 'a wrong token gets the login form again');
  check(await page.$eval('#login-error', (e) => !e.hidden), 'the login page says the token was wrong');
  check(await page.$('#devices') === null, 'a wrong token shows no device list');
  check(!(await page.content()).includes(device), 'a wrong token shows nothing of the camera');
  check((await page.cookies()).length === 0, 'a wrong token gets no cookie');
  await context.close();

  for (const path of ['/v1/admin/overview', `/v1/admin/devices/${device}/recordings`]) {
    const bare = await fetch(`${base}${path}`);
    check(bare.status === 401, `${path} without the cookie is answered 401 (got ${bare.status})`);
    const forged = await fetch(`${base}${path}`, { headers: { Cookie: 'vexo_session=' + '0'.repeat(64) } });
    check(forged.status === 401, `${path} with an invented session is answered 401`);
  }
}

async function logIn(page) {
  const answer = await submitLogin(page, env.VEXO_UI_TOKEN);
  check(new URL(page.url()).pathname === '/ui/', `the login leads to /ui/ (at ${page.url()})`);
  check(answer.status() === 200, 'the page loads after the login');
  const cookie = (await page.cookies()).find((c) => c.name === 'vexo_session');
  check(cookie && /^[0-9a-f]{64}\.[0-9]+\.[0-9a-f]{64}$/.test(cookie.value),
    'the session cookie is a random id, its expiry and their HMAC, in hex');
  check(cookie.httpOnly && cookie.sameSite === 'Strict' && cookie.path === '/',
    'the session cookie is HttpOnly, SameSite=Strict, Path=/');
  return cookie;
}

async function deviceList(page) {
  // A request as the camera makes it, so that the list has a last request to show.
  const config = await fetch(`${base}/v1/devices/${device}/storage/config`,
    { headers: { 'X-Vexo-Device': device } });
  check(config.status === 200, `the camera's storage/config request is answered (${config.status})`);
  await page.reload();
  await waitFor(page, 'the camera in the device list',
    (id) => document.querySelector(`#devices tr[data-device="${id}"]`) !== null, device);
  const cells = await page.$$eval(`#devices tr[data-device="${device}"] td`,
    (tds) => tds.map((td) => td.textContent));
  console.log(`device row: ${JSON.stringify(cells)}`);
  check(/^[0-9a-f]{8}$/.test(cells[5]), `the key column shows 8 hex digits (${cells[5]})`);
  check(/\d/.test(cells[1]), `the last request is a time (${cells[1]})`);
  check(cells[2] === 'event', `the store mode is the order's (${cells[2]})`);
  check(/files/.test(cells[6]) && !/^0 B/.test(cells[6]), `storage shows what is kept (${cells[6]})`);
  await screenshot(page, 'device-list');
}

async function dayView(page) {
  await page.click(`#devices tr[data-device="${device}"] .device-link`);
  const recordings = Number(env.VEXO_UI_RECORDINGS);
  const alarms = Number(env.VEXO_UI_ALARMS);
  await waitFor(page, `${recordings} recording bars and ${alarms} alarm markers`,
    (r, a) => document.querySelectorAll('#timeline rect.recording').length === r &&
      document.querySelectorAll('#timeline circle.alarm').length === a, recordings, alarms);
  check(true, `the day view draws ${recordings} recordings and ${alarms} alarms`);
  await screenshot(page, 'day-view');
}

// The next day has nothing of the camera; the day before it is the recording's again.
async function otherDays(page) {
  const label = await page.$eval('#day-label', (e) => e.textContent);
  await page.click('#next-day');
  await waitFor(page, 'an empty next day', (before) =>
    document.querySelector('#day-label').textContent !== before &&
    document.querySelectorAll('#timeline rect.recording, #timeline circle.alarm').length === 0, label);
  await page.click('#prev-day');
  await waitFor(page, 'the recording\'s day again', (before, r) =>
    document.querySelector('#day-label').textContent === before &&
    document.querySelectorAll('#timeline rect.recording').length === r, label,
    Number(env.VEXO_UI_RECORDINGS));
  check(true, 'the next day is empty and the previous one shows the recording again');
}

async function controlAnswer(page, button) {
  await page.$eval('#control-answer', (e) => { e.className = ''; e.textContent = ''; });
  await page.click(button);
  await waitFor(page, `the answer to ${button}`,
    () => ['ok', 'refused'].includes(document.querySelector('#control-answer').className));
  return page.$eval('#control-answer', (e) => [e.className, e.textContent]);
}

// A change with only the cookie needs X-Vexo-UI; the page's own controls send it.
async function changesNeedTheHeader(page) {
  const status = await page.evaluate(async (id) => {
    const answer = await fetch(`/v1/admin/devices/${id}/order`, {
      method: 'PUT', body: '{"eventDuration":30}', headers: { 'Content-Type': 'application/json' } });
    return answer.status;
  }, device);
  check(status === 403, `an order change without X-Vexo-UI is answered 403 (got ${status})`);
  await page.$eval('#order-form [name=eventDuration]', (e) => { e.value = '25'; });
  let answer = await controlAnswer(page, '#order-form button[type=submit]');
  check(answer[0] === 'ok' && answer[1].includes('"eventDuration":25'),
    `the page's order change is taken and its answer shown (${answer[1]})`);
  await page.$eval('#order-form [name=eventDuration]', (e) => { e.value = '1801'; });
  answer = await controlAnswer(page, '#order-form button[type=submit]');
  check(answer[0] === 'refused' && answer[1].includes('400'),
    `an order out of range is refused and the refusal shown (${answer[1]})`);
  answer = await controlAnswer(page, '#trigger-pic');
  check(answer[0] === 'ok' && answer[1].includes('"action":"pic"'),
    `a picture request is sent and its answer shown (${answer[1]})`);
  answer = await controlAnswer(page, '#abort');
  check(answer[0] === 'ok' && answer[1].includes('"aborted":true'),
    `an abort is sent and the aborted order shown (${answer[1]})`);
}

async function playback(page, cookie) {
  // The first recording with at least two media files; play it from 1 s in.
  const rec = await page.evaluate(async (id) => {
    const answer = await fetch(`/v1/admin/devices/${id}/recordings`);
    return (await answer.json()).recordings.find((r) => r.files >= 2 && r.endTime > 0);
  }, device);
  check(rec !== undefined, 'a closed recording with two media files or more exists');
  await page.evaluate(() => {
    window.vexoErrors = [];
    document.querySelector('#player').addEventListener('error', (e) => {
      window.vexoErrors.push(String(e.target.error && e.target.error.message));
    });
  });
  // The wheel over the bar zooms in around it down to one hour; then a click 1 s into it.
  const selector = `#timeline rect.recording[data-start="${rec.startTime}"]`;
  let box = await (await page.$(selector)).boundingBox();
  await page.mouse.move(box.x + box.width / 2, box.y + box.height / 2);
  for (let i = 0; i < 6; i += 1) {
    await page.mouse.wheel({ deltaY: -100 });
  }
  await waitFor(page, 'the one-hour window', () => {
    const m = /^(\d\d):(\d\d)–(\d\d):(\d\d)$/.exec(document.querySelector('#window-label').textContent);
    return m && (((m[3] * 60 + Number(m[4])) - (m[1] * 60 + Number(m[2])) + 1440) % 1440) === 60;
  });
  box = await (await page.$(selector)).boundingBox();
  const seconds = (rec.endTime - rec.startTime);
  check(box.width > 3, `the bar is wider once zoomed in (${box.width} px)`);
  await page.mouse.click(box.x + box.width / seconds, box.y + box.height / 2);
  await waitFor(page, 'the player to start', () => document.querySelector('#player-status').textContent !== '')
    .catch(async (e) => {
      throw new CheckFailed(`${e.message}; the page says: ${await page.$eval('#status', (s) => s.textContent)}`);
    });
  await waitFor(page, 'playback past 3 s', () => document.querySelector('#player').currentTime > 3)
    .catch(async (e) => {
      throw new CheckFailed(`${e.message}; the player says: ${await page.$eval('#player-status', (s) => s.textContent)}`);
    });
  check(await page.evaluate(() => window.vexoErrors.length === 0), 'no error event while playing');
  await screenshot(page, 'player');

  const durations = await page.evaluate(async (id, start) => {
    const answer = await fetch(`/v1/admin/devices/${id}/recordings/${start}/playlist.m3u8`);
    return [...(await answer.text()).matchAll(/#EXTINF:([0-9.]+)/g)].map((m) => Number(m[1]));
  }, device, rec.startTime);
  check(durations.length === rec.files, `the playlist has one entry per media file (${durations})`);
  const target = durations[0] + 0.5;
  await page.evaluate((t) => { document.querySelector('#player').currentTime = t; }, target);
  await waitFor(page, `playback from ${target} s on`,
    (t) => { const v = document.querySelector('#player'); return !v.seeking && v.currentTime > t + 1; },
    target);
  check(await page.evaluate(() => window.vexoErrors.length === 0),
    'a seek into the second media file plays on without an error');

  const href = await page.$eval('#download', (a) => a.href);
  const download = await fetch(href, { headers: { Cookie: `vexo_session=${cookie.value}` } });
  check(download.status === 200, `the download answers 200 (got ${download.status})`);
  check((download.headers.get('content-disposition') || '').includes(`${device}_${rec.startTime}.mp4`),
    'the download is named after the recording');
  writeFileSync(`${out}/download.mp4`, Buffer.from(await download.arrayBuffer()));
  console.log(`download: ${out}/download.mp4`);

  await page.hover('#timeline circle.alarm');
  await waitFor(page, 'the alarm picture', () => {
    const img = document.querySelector('#alarm-picture img');
    return !document.querySelector('#alarm-picture').hidden && img.complete && img.naturalWidth > 0;
  });
  check(true, 'hovering the alarm shows its picture');
}

const browser = await puppeteer.launch({
  executablePath: env.VEXO_UI_CHROMIUM,
  headless: true,
  args: ['--no-sandbox', '--autoplay-policy=no-user-gesture-required', '--mute-audio'],
});
let status = 0;
try {
  const page = await browser.newPage();
  await page.setViewport({ width: 1280, height: 900 });
  page.on('pageerror', (e) => console.log(`page error: ${e.message}`));
  page.on('console', (m) => console.log(`page console: ${m.text()}`));
  if (env.VEXO_UI_STEPS === 'playback') {
    const cookie = await logIn(page);
    await deviceList(page);
    await dayView(page);
    await playback(page, cookie);
  } else {
    await wrongTokenGetsNothing(browser);
    await logIn(page);
    await deviceList(page);
    await dayView(page);
    await otherDays(page);
    await changesNeedTheHeader(page);
  }
} catch (e) {
  console.log(`FAILED: ${e instanceof CheckFailed ? e.message : e.stack}`);
  status = 1;
} finally {
  await browser.close();
}
process.exit(status);
