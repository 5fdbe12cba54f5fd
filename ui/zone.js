// Times shown in the service's zone or the browser's. A zone is an IANA name for Intl; the
// service's fixed offset now stands in when the browser does not know its zone's name.

export class Zone {
  constructor(name, fallbackOffset) {
    this.name = name;
    this.fallbackOffset = fallbackOffset; // seconds east of UTC, or null
    try {
      this.format = new Intl.DateTimeFormat('en-GB', {
        timeZone: name, hourCycle: 'h23', year: 'numeric', month: '2-digit', day: '2-digit',
        hour: '2-digit', minute: '2-digit', second: '2-digit',
      });
    } catch (e) {
      this.format = null;
    }
  }

  static browser() {
    return new Zone(Intl.DateTimeFormat().resolvedOptions().timeZone, null);
  }

  // Seconds east of UTC at epoch second t.
  offsetAt(t) {
    if (!this.format) {
      return this.fallbackOffset || 0;
    }
    const p = this.parts(t);
    const asUtc = Date.UTC(p.year, p.month - 1, p.day, p.hour, p.minute, p.second) / 1000;
    return asUtc - t;
  }

  parts(t) {
    if (!this.format) {
      const d = new Date((t + (this.fallbackOffset || 0)) * 1000);
      return { year: d.getUTCFullYear(), month: d.getUTCMonth() + 1, day: d.getUTCDate(),
        hour: d.getUTCHours(), minute: d.getUTCMinutes(), second: d.getUTCSeconds() };
    }
    const out = {};
    for (const part of this.format.formatToParts(new Date(t * 1000))) {
      if (part.type !== 'literal') {
        out[part.type] = Number(part.value);
      }
    }
    return out;
  }

  // The epoch second of the local midnight that starts the day holding t.
  dayStart(t) {
    const p = this.parts(t);
    const guess = Date.UTC(p.year, p.month - 1, p.day) / 1000;
    // The offset at midnight may differ from the one at t (a daylight saving change).
    let start = guess - this.offsetAt(guess);
    if (start > t) {
      start = guess - this.offsetAt(start);
    }
    return start;
  }

  // The day after (or before) the one starting at dayStart, as its start.
  shiftDay(dayStart, days) {
    return this.dayStart(dayStart + days * 86400 + 43200);
  }

  date(t) {
    const p = this.parts(t);
    return `${p.year}-${pad(p.month)}-${pad(p.day)}`;
  }

  time(t) {
    const p = this.parts(t);
    return `${pad(p.hour)}:${pad(p.minute)}:${pad(p.second)}`;
  }

  dateTime(t) {
    return `${this.date(t)} ${this.time(t)}`;
  }
}

function pad(n) {
  return String(n).padStart(2, '0');
}
