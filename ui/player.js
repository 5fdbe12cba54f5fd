// Plays a recording with hls.js from a given second of it: the service makes the recording
// an HLS playlist of its media files, so playback runs on across them and seeks anywhere.

import * as api from './api.js';

export class Player {
  constructor(video, label, download, status) {
    this.video = video;
    this.label = label;
    this.download = download;
    this.status = status;
    this.hls = null;
    this.video.addEventListener('error', () => {
      const error = this.video.error;
      this.say(`playback error${error ? `: ${error.message || error.code}` : ''}`);
    });
  }

  say(text) {
    this.status.textContent = text;
  }

  // recording: as the recordings listing has it; offset: seconds into it.
  play(device, recording, offset, zone) {
    this.stop();
    const start = recording.startTime;
    this.label.textContent = `${device}, ${zone.dateTime(start)}` +
      (offset > 0 ? ` from +${offset} s` : '');
    this.download.href = api.exportUrl(device, start);
    this.download.setAttribute('download', `${device}_${start}.mp4`);
    const Hls = window.Hls;
    if (!Hls) {
      this.say(window.vexoHlsMissing || 'hls.js did not load');
      return;
    }
    if (!Hls.isSupported()) {
      this.say('this browser cannot play HLS through Media Source Extensions');
      return;
    }
    const hls = new Hls({ startPosition: offset, enableWorker: true });
    this.hls = hls;
    hls.on(Hls.Events.ERROR, (event, data) => {
      if (data.fatal) {
        this.say(`playback failed: ${data.type} ${data.details}`);
        hls.destroy();
      }
    });
    hls.on(Hls.Events.MANIFEST_PARSED, () => {
      this.say('playing');
      this.video.play().catch((e) => this.say(`cannot start: ${e.message}`));
    });
    hls.loadSource(api.playlistUrl(device, start));
    hls.attachMedia(this.video);
  }

  stop() {
    if (this.hls) {
      this.hls.destroy();
      this.hls = null;
    }
  }
}
