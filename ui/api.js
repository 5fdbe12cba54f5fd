// The service's admin interface as the page uses it: same-origin requests that carry the
// session cookie, and X-Vexo-UI on changes (the service refuses a change without it).

export class ApiError extends Error {
  constructor(status, message) {
    super(message);
    this.status = status;
  }
}

async function request(method, path, body) {
  const init = { method, credentials: 'same-origin', headers: {} };
  if (method !== 'GET') {
    init.headers['X-Vexo-UI'] = '1';
  }
  if (body !== undefined) {
    init.headers['Content-Type'] = 'application/json';
    init.body = JSON.stringify(body);
  }
  const answer = await fetch(path, init);
  if (answer.status === 401) {
    // The session ended (logout elsewhere, expiry, a restarted service): log in again.
    window.location.assign('/ui/login');
    throw new ApiError(401, 'not logged in');
  }
  const text = await answer.text();
  let json = null;
  try {
    json = text ? JSON.parse(text) : null;
  } catch (e) {
    throw new ApiError(answer.status, `not JSON: ${text.slice(0, 80)}`);
  }
  if (!answer.ok) {
    throw new ApiError(answer.status, (json && json.error) || `HTTP ${answer.status}`);
  }
  return json;
}

const devicePath = (device) => `/v1/admin/devices/${encodeURIComponent(device)}`;

export const overview = () => request('GET', '/v1/admin/overview');
export const recordings = (device) => request('GET', `${devicePath(device)}/recordings`);
export const alarms = (device) => request('GET', `${devicePath(device)}/alarms`);
export const order = (device) => request('GET', `${devicePath(device)}/order`);
export const setOrder = (device, change) => request('PUT', `${devicePath(device)}/order`, change);
export const trigger = (device, body) => request('POST', `${devicePath(device)}/trigger`, body);
export const abortOrder = (device) => request('POST', `${devicePath(device)}/abort`);

export const recordingPath = (device, start) => `${devicePath(device)}/recordings/${start}`;
export const playlistUrl = (device, start) => `${recordingPath(device, start)}/playlist.m3u8`;
export const thumbnailUrl = (device, start) => `${recordingPath(device, start)}/thumbnail.jpg`;
export const exportUrl = (device, start) => `${recordingPath(device, start)}/export.mp4`;
export const alarmPictureUrl = (device, id) =>
  `${devicePath(device)}/alarms/${encodeURIComponent(id)}/picture.jpg`;
