// The device list from the overview.

function cell(row, text, className) {
  const td = document.createElement('td');
  td.textContent = text;
  if (className) {
    td.className = className;
  }
  row.appendChild(td);
  return td;
}

export function bytesText(bytes) {
  const units = ['B', 'KB', 'MB', 'GB', 'TB'];
  let value = bytes;
  let unit = 0;
  while (value >= 1024 && unit < units.length - 1) {
    value /= 1024;
    unit += 1;
  }
  return `${unit === 0 ? value : value.toFixed(1)} ${units[unit]}`;
}

function storageText(usage, limits) {
  const used = `${bytesText(usage.bytes)}, ${usage.files} files`;
  const quota = [];
  if (limits.maxBytes !== null) {
    quota.push(`${bytesText(limits.maxBytes)} (${Math.round((100 * usage.bytes) / limits.maxBytes)}%)`);
  }
  if (limits.maxFiles !== null) {
    quota.push(`${limits.maxFiles} files`);
  }
  return quota.length ? `${used} of ${quota.join(', ')}` : `${used} (no quota)`;
}

function orderText(order) {
  if (order.aborted) {
    return 'aborted';
  }
  return `event ${order.eventDuration} s, slice ${order.sliceDuration} s, ` +
    `silence ${order.silenceInterval} s, ${order.dailyEvents}/day` +
    (order.expired ? ', expired' : '');
}

// overview: GET /v1/admin/overview; onSelect(device id) when a row is chosen.
export function renderDevices(tbody, overview, zone, selected, onSelect) {
  tbody.replaceChildren();
  for (const device of overview.devices) {
    const row = document.createElement('tr');
    row.dataset.device = device.id;
    if (device.id === selected) {
      row.classList.add('selected');
    }
    const name = cell(row, '');
    const link = document.createElement('button');
    link.type = 'button';
    link.className = 'device-link';
    link.textContent = device.id;
    link.addEventListener('click', () => onSelect(device.id));
    name.appendChild(link);
    cell(row, device.lastRequest === null ? 'none since the service started'
      : zone.dateTime(device.lastRequest));
    cell(row, device.storeMode);
    cell(row, orderText(device.order));
    cell(row, String(device.eventsLeftToday));
    cell(row, device.keyMd5 ? device.keyMd5.slice(0, 8) : '(none yet)', 'mono');
    cell(row, storageText(device.usage, device.limits));
    cell(row, device.openRecording === null ? 'none' : `since ${zone.dateTime(device.openRecording)}`);
    cell(row, String(device.gaps));
    tbody.appendChild(row);
  }
  if (overview.devices.length === 0) {
    const row = document.createElement('tr');
    cell(row, 'No device has talked to this service yet.').colSpan = 9;
    tbody.appendChild(row);
  }
}
