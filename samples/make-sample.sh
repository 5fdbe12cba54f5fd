#!/usr/bin/env bash
# Makes the camera simulator's bundled clip, samples/sample.mp4, from ffmpeg's test sources:
# 20 s of 640x360 at 25 fps, H.264 without B-frames and a key frame every 2 s (50 frames), about
# 750 kbit/s of video, and mono AAC at 16 kHz (a 440 Hz tone with a beep every second). The
# flags make the output the same on every run with the same ffmpeg build (one encoder thread,
# bit-exact muxing, no metadata).
#
# Usage: samples/make-sample.sh [output]     (default: sample.mp4 next to this script)
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
output="${1:-${here}/sample.mp4}"

command -v ffmpeg >/dev/null 2>&1 || { echo "make-sample: ffmpeg not found (scripts/install-deps.sh installs it)" >&2; exit 1; }

ffmpeg -nostdin -hide_banner -loglevel error -y \
    -f lavfi -i "testsrc2=size=640x360:rate=25" \
    -f lavfi -i "sine=frequency=440:beep_factor=4:sample_rate=16000" \
    -t 20 \
    -map 0:v -map 1:a \
    -c:v libx264 -preset medium -profile:v high -pix_fmt yuv420p -threads 1 \
    -bf 0 -g 50 -keyint_min 50 -sc_threshold 0 \
    -b:v 750k -maxrate 900k -bufsize 1800k \
    -c:a aac -ac 1 -ar 16000 -b:a 32k \
    -map_metadata -1 -fflags +bitexact -flags:v +bitexact -flags:a +bitexact \
    -movflags +faststart \
    "${output}"

if command -v ffprobe >/dev/null 2>&1; then
    ffprobe -v error -show_entries format=duration,size,bit_rate \
        -show_entries stream=codec_name,profile,width,height,avg_frame_rate,bit_rate,sample_rate,channels \
        -of default=noprint_wrappers=1 "${output}"
fi
echo "make-sample: wrote ${output}"
