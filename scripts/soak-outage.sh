#!/usr/bin/env bash
# A long all-time run of the camera against vexo-cloud on loopback with a cloud outage every
# hour of camera time, to see that the camera's memory and open descriptors stay flat while
# its spool fills and empties again and again. Not part of the tests: it takes a while.
#
#   scripts/soak-outage.sh [--hours H] [--speed S] [--outage SECS] [--out DIR]
#
#   --hours H      camera hours to run (default 24)
#   --speed S      kit clock speed (default 120: 24 h in 12 minutes)
#   --outage SECS  camera seconds the service is down each hour (default 300)
#   --out DIR      where the data, logs and results go (default ./vexo-data/soak)
#
# Every hour of camera time the service is killed with SIGKILL and started again on the same
# port and data after the outage. The camera's RSS, open descriptors and spool files are
# sampled every few real seconds into DIR/samples.csv; at the end the first and last samples
# are compared, and with gnuplot installed DIR/soak.png shows them over camera time.
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD="${ROOT}/build/release"
HOURS=24
SPEED=120
OUTAGE=300
OUT="${PWD}/vexo-data/soak"
while (($#)); do
    case "$1" in
    --hours) HOURS="$2" ;;
    --speed) SPEED="$2" ;;
    --outage) OUTAGE="$2" ;;
    --out) OUT="$2" ;;
    *)
        sed -n '2,/^set -euo/p' "${BASH_SOURCE[0]}" | sed '$d; s/^# \{0,1\}//' >&2
        exit 2
        ;;
    esac
    shift 2
done
[[ "${HOURS}" =~ ^[1-9][0-9]*$ && "${SPEED}" =~ ^[1-9][0-9]*$ && "${OUTAGE}" =~ ^[1-9][0-9]*$ ]] ||
    { echo "soak: --hours, --speed and --outage take whole numbers above 0" >&2; exit 2; }
((OUTAGE < 3600)) || { echo "soak: --outage must be under an hour" >&2; exit 2; }

cmake -S "${ROOT}" -B "${BUILD}" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEXO_BUILD_TESTS=OFF >/dev/null
cmake --build "${BUILD}" --target vexo-camsim vexo-cloud --parallel 2 >/dev/null
CLOUD="${BUILD}/service/http/vexo-cloud"
CAMSIM="${BUILD}/tools/camsim/vexo-camsim"

rm -rf "${OUT}"
mkdir -p "${OUT}"
cloud_pid=""
camsim_pid=""
cleanup() {
    [[ -n "${camsim_pid}" ]] && kill "${camsim_pid}" 2>/dev/null || true
    [[ -n "${cloud_pid}" ]] && kill "${cloud_pid}" 2>/dev/null || true
    wait 2>/dev/null || true
}
trap cleanup EXIT

start_cloud() { # <listen address>
    "${CLOUD}" serve --data "${OUT}/cloud" --listen "$1" --quiet >>"${OUT}/cloud.log" 2>&1 &
    cloud_pid=$!
    local i
    for i in $(seq 1 100); do
        if grep -q "listening on" "${OUT}/cloud.log" 2>/dev/null &&
            [[ "$(grep -c 'listening on' "${OUT}/cloud.log")" -ge "${starts}" ]]; then
            return 0
        fi
        sleep 0.1
    done
    echo "soak: vexo-cloud did not start; see ${OUT}/cloud.log" >&2
    exit 1
}

starts=1
start_cloud 127.0.0.1:0
url="$(grep -o 'listening on [^ ]*' "${OUT}/cloud.log" | head -n 1 | cut -d' ' -f3)"
listen="${url#http://}"
echo "soak: vexo-cloud at ${url}; ${HOURS} camera hours at speed ${SPEED}, ${OUTAGE} s down each hour"

"${CAMSIM}" --data "${OUT}/camera" --device soak-cam --cloud "${url}" --mode alltime \
    --speed "${SPEED}" --duration $((HOURS * 3600)) --quiet >"${OUT}/camsim.log" 2>&1 &
camsim_pid=$!
spool_dir="${OUT}/camera/camera/spool"

sample() { # <camera seconds>: one line of samples.csv
    local rss fds spool
    rss="$(awk '/^VmRSS:/ {print $2}' "/proc/${camsim_pid}/status" 2>/dev/null || echo 0)"
    # Either may be gone or not there yet: count nothing then.
    fds="$({ find "/proc/${camsim_pid}/fd" -mindepth 1 -maxdepth 1 2>/dev/null || true; } | wc -l)"
    spool="$({ find "${spool_dir}" -maxdepth 1 -name '*.item' 2>/dev/null || true; } | wc -l)"
    echo "$1,${rss:-0},${fds},${spool}" >>"${OUT}/samples.csv"
}

echo "camera_s,rss_kb,fds,spool_items" >"${OUT}/samples.csv"
started=${SECONDS}
next_outage=3600 # camera seconds
down_until=0
while kill -0 "${camsim_pid}" 2>/dev/null; do
    camera_s=$(((SECONDS - started) * SPEED))
    if ((down_until == 0 && camera_s >= next_outage && camera_s < HOURS * 3600)); then
        kill -9 "${cloud_pid}" 2>/dev/null || true
        wait "${cloud_pid}" 2>/dev/null || true
        cloud_pid=""
        down_until=$((camera_s + OUTAGE))
        printf 'soak: %5d camera s: service killed\n' "${camera_s}"
    elif ((down_until != 0 && camera_s >= down_until)); then
        starts=$((starts + 1))
        start_cloud "${listen}"
        down_until=0
        next_outage=$((next_outage + 3600))
        printf 'soak: %5d camera s: service back\n' "${camera_s}"
    fi
    sample "${camera_s}"
    sleep 2
done
wait "${camsim_pid}" && status=0 || status=$?
camsim_pid=""
echo "soak: camera ended with status ${status}"

# Start: the first sample after the first camera minute (start-up allocations done); end:
# the last sample taken while the camera ran.
awk -F, -v out="${OUT}/summary.txt" '
    NR > 1 && $2 > 0 { if (!first && $1 >= 60) first = $0; last = $0; if ($2 > max) max = $2 }
    END {
        split(first, a, ","); split(last, b, ",")
        printf "camera RSS   start %d kB (at %d s), end %d kB (at %d s), max %d kB\n", a[2], a[1], b[2], b[1], max > out
        printf "open fds     start %d, end %d\n", a[3], b[3] > out
        printf "spool items  at the end %d\n", b[4] > out
    }' "${OUT}/samples.csv"
cat "${OUT}/summary.txt"
grep -E '^(uploads:|spool |reader:)' "${OUT}/camsim.log" || true

if command -v gnuplot >/dev/null 2>&1; then
    gnuplot <<EOF
set terminal png size 1000,500
set output "${OUT}/soak.png"
set datafile separator ","
set key autotitle columnhead
set xlabel "camera hours"
set ylabel "RSS, MB"
set y2label "open fds, spool items"
set y2tics
set ytics nomirror
plot "${OUT}/samples.csv" using (\$1/3600):(\$2/1024) with lines title "RSS (MB)", \
     "" using (\$1/3600):3 axes x1y2 with lines title "open fds", \
     "" using (\$1/3600):4 axes x1y2 with lines title "spool items"
EOF
    echo "soak: picture in ${OUT}/soak.png"
fi
exit "${status}"
