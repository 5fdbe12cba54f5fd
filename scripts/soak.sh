#!/usr/bin/env bash
# A soak run: the camera simulator recording all the time against vexo-cloud and mosquitto on
# free loopback ports for many camera hours on a fast clock, while the service and the broker
# go down and come back and the cloud sends remote triggers, all at seeded random moments
# (scripts/soak_plan.py). It samples the RSS and open descriptors of the camera and the
# service about every camera minute, then checks (scripts/soak_check.py) that they stayed
# flat, that every recording verifies (vexo-media verify), and that the footage covers the
# camera's time but for the gaps its spool reported.
#
#   scripts/soak.sh [--camera-hours H | --camera-minutes M] [--speed S] [--seed N] [--out DIR]
#                   [--spool-bytes SIZE] [--build DIR] [--time-limit S]
#
#   --camera-hours H    camera hours to run, may be a fraction (default 24)
#   --camera-minutes M  the same in camera minutes
#   --speed S           kit clock speed, a whole number (default 60: 24 h in 24 minutes)
#   --seed N            the schedule's seed (default 1); the same seed, the same schedule
#   --out DIR           data, logs, samples.csv, events.csv, summary.txt and soak.png
#                       (default ./vexo-data/soak; replaced)
#   --spool-bytes SIZE  the camera's spool bound (default 64M for runs of an hour and more,
#                       else 2M: small enough that the longer service outages overflow it)
#   --build DIR         take vexo-camsim, vexo-cloud and vexo-media from this build tree as
#                       they are (default: build them in build/release, RelWithDebInfo)
#   --time-limit S      stop and fail when the camera has not ended after S real seconds
#
# Progress (camera time done, RSS, descriptors, spool) goes to stderr every few seconds.
# Exit status 0 when every check passed, 1 when one failed (each failure is named), 2 when
# the run could not be set up. Every process it starts runs in TZ=UTC.
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
HOURS=24
MINUTES=""
SPEED=60
SEED=1
OUT="${PWD}/vexo-data/soak"
SPOOL_BYTES=""
BUILD=""
TIME_LIMIT=0 # none
DEVICE=soak-cam
# The kit clock starts five minutes before a local midnight, so every run crosses one.
START_EPOCH=1795478100 # 2026-11-23 23:55:00 UTC
WAIT_S=30              # bound on each start or stop of a server

die() { echo "soak: $*" >&2; exit 2; }
usage() { sed -n '2,/^set -euo/p' "${BASH_SOURCE[0]}" | sed '$d; s/^# \{0,1\}//' >&2; exit 2; }
while (($#)); do
    [[ $# -ge 2 ]] || usage
    case "$1" in
    --camera-hours) HOURS="$2" ;;
    --camera-minutes) MINUTES="$2" ;;
    --speed) SPEED="$2" ;;
    --seed) SEED="$2" ;;
    --out) OUT="$2" ;;
    --spool-bytes) SPOOL_BYTES="$2" ;;
    --build) BUILD="$2" ;;
    --time-limit) TIME_LIMIT="$2" ;;
    *) usage ;;
    esac
    shift 2
done
number='^([0-9]+([.][0-9]*)?|[.][0-9]+)$'
if [[ -n "${MINUTES}" ]]; then
    [[ "${MINUTES}" =~ ${number} ]] || die "--camera-minutes takes a number"
    TOTAL_S="$(awk -v m="${MINUTES}" 'BEGIN { printf "%d", m * 60 }')"
else
    [[ "${HOURS}" =~ ${number} ]] || die "--camera-hours takes a number"
    TOTAL_S="$(awk -v h="${HOURS}" 'BEGIN { printf "%d", h * 3600 }')"
fi
((TOTAL_S >= 300)) || die "a soak runs five camera minutes at least"
[[ "${SPEED}" =~ ^[1-9][0-9]*$ ]] && ((SPEED <= 1000)) || die "--speed takes a whole number 1..1000"
[[ "${SEED}" =~ ^[0-9]+$ ]] || die "--seed takes a whole number"
[[ "${TIME_LIMIT}" =~ ^[0-9]+$ ]] || die "--time-limit takes whole seconds"
[[ -n "${SPOOL_BYTES}" ]] || SPOOL_BYTES=$((TOTAL_S >= 3600 ? 64 : 2))M
command -v gnuplot >/dev/null || die "gnuplot is missing: run scripts/install-deps.sh"
MOSQUITTO="$(command -v mosquitto || echo /usr/sbin/mosquitto)"
[[ -x "${MOSQUITTO}" ]] || die "mosquitto is missing: run scripts/install-deps.sh"

if [[ -z "${BUILD}" ]]; then
    BUILD="${ROOT}/build/release"
    cmake -S "${ROOT}" -B "${BUILD}" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEXO_BUILD_TESTS=OFF \
        >/dev/null
    cmake --build "${BUILD}" --target vexo-camsim vexo-cloud vexo-media --parallel 2 >/dev/null
fi
CLOUD="${BUILD}/service/http/vexo-cloud"
CAMSIM="${BUILD}/tools/camsim/vexo-camsim"
MEDIA="${BUILD}/tools/media/vexo-media"
for tool in "${CLOUD}" "${CAMSIM}" "${MEDIA}"; do
    [[ -x "${tool}" ]] || die "${tool} is not built"
done
export TZ=UTC

rm -rf "${OUT}"
mkdir -p "${OUT}/broker"
OUT="$(cd "${OUT}" && pwd)"
"${ROOT}/scripts/soak_plan.py" "${TOTAL_S}" "${SEED}" >"${OUT}/plan.txt"

camsim_pid=""
cloud_pid=""
broker_pid=""
stop_pid() { # <pid> <signal>: signals it and waits (WAIT_S at most) until it is gone
    local pid="$1" i
    [[ -n "${pid}" ]] || return 0
    # All of it with stderr to /dev/null, so that bash's "Killed" notice goes there too.
    {
        kill "-$2" "${pid}" || return 0
        for ((i = 0; i < WAIT_S * 10; i++)); do
            kill -0 "${pid}" || break
            sleep 0.1
        done
        kill -0 "${pid}" && kill -KILL "${pid}"
        wait "${pid}" || true
    } 2>/dev/null
}
cleanup() {
    stop_pid "${camsim_pid}" TERM
    stop_pid "${cloud_pid}" TERM
    stop_pid "${broker_pid}" TERM
}
trap cleanup EXIT

port_is_open() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
free_port() {
    /usr/bin/python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

broker_starts=0
start_broker() { # on BROKER_PORT, keeping its sessions in OUT/broker across restarts
    broker_starts=$((broker_starts + 1))
    "${MOSQUITTO}" -c "${OUT}/broker/mosquitto.conf" >"${OUT}/broker/mosquitto-${broker_starts}.log" 2>&1 &
    broker_pid=$!
    local i
    for ((i = 0; i < WAIT_S * 10; i++)); do
        port_is_open "${BROKER_PORT}" && return 0
        kill -0 "${broker_pid}" 2>/dev/null || break
        sleep 0.1
    done
    echo "soak: mosquitto did not come up on port ${BROKER_PORT}; see ${OUT}/broker" >&2
    exit 2
}

cloud_starts=0
start_cloud() { # <listen address>
    cloud_starts=$((cloud_starts + 1))
    local log="${OUT}/cloud-${cloud_starts}.log" i
    "${CLOUD}" serve --data "${OUT}/cloud" --listen "$1" --mqtt "mqtt://127.0.0.1:${BROKER_PORT}" \
        >"${log}" 2>&1 &
    cloud_pid=$!
    for ((i = 0; i < WAIT_S * 10; i++)); do
        grep -qs "listening on" "${log}" && return 0
        kill -0 "${cloud_pid}" 2>/dev/null || break
        sleep 0.1
    done
    echo "soak: vexo-cloud did not start; see ${log}" >&2
    exit 2
}

BROKER_PORT="$(free_port)"
cat >"${OUT}/broker/mosquitto.conf" <<EOF
listener ${BROKER_PORT} 127.0.0.1
allow_anonymous true
persistence true
persistence_location ${OUT}/broker/
user root
log_dest stderr
log_type error
log_type warning
log_type notice
EOF
start_broker
start_cloud 127.0.0.1:0
CLOUD_URL="$(grep -o 'listening on [^ ]*' "${OUT}/cloud-1.log" | cut -d' ' -f3)"
CLOUD_LISTEN="${CLOUD_URL#http://}"
export VEXO_CLOUD_URL="${CLOUD_URL}"
echo "soak: ${TOTAL_S} camera s at speed ${SPEED}, seed ${SEED}, spool ${SPOOL_BYTES};" \
    "vexo-cloud ${CLOUD_URL}, mosquitto port ${BROKER_PORT}; results in ${OUT}" >&2

# The ring buffer holds 10 s of real time, as a camera's 10-second ring does at speed 1: a
# stall of the machine (a slow fsync, a busy core) is not SPEED times worse than on a camera.
RING_S=$((SPEED * 10 < 3600 ? SPEED * 10 : 3600))
"${CAMSIM}" --data "${OUT}" --device "${DEVICE}" --cloud "${CLOUD_URL}" --ring-seconds "${RING_S}" \
    --mqtt "mqtt://127.0.0.1:${BROKER_PORT}" --mode alltime --daily 10000 --speed "${SPEED}" \
    --duration "${TOTAL_S}" --start "${START_EPOCH}" --spool-bytes "${SPOOL_BYTES}" \
    >"${OUT}/camsim.out" 2>"${OUT}/camsim.log" &
camsim_pid=$!

# Camera time. The simulator prints the camera seconds since its module was ready every 10
# of them; the kit clock runs at exactly SPEED times real time, so between those lines the
# camera time is the real time since the module was ready, times SPEED. That origin is
# taken from the lines: each one seen gives an upper bound (it was printed before it was
# read), the smallest bound is kept.
origin_us=""
last_line=""
now_us() { local t="${EPOCHREALTIME}"; now="$((10#${t/./}))"; }
camera_ms() { # sets ms: the camera ms since the module was ready; -1 before the first line
    local line now s bound
    line="$(tail -c 400 "${OUT}/camsim.log" | grep -o '^\[ *[0-9]*\.[0-9]s/' | tail -n 1 || true)"
    now_us
    if [[ -n "${line}" && "${line}" != "${last_line}" ]]; then
        last_line="${line}"
        s="${line//[^0-9]/}" # tenths of a second
        bound=$((now - 10#${s} * 100000 / SPEED))
        if [[ -z "${origin_us}" ]] || ((bound < origin_us)); then
            origin_us="${bound}"
        fi
    fi
    if [[ -z "${origin_us}" ]]; then ms=-1; else ms=$(((now - origin_us) * SPEED / 1000)); fi
}

rss_kb() { # <pid>: 0 when it is gone
    awk '/^VmRSS:/ { print $2; found = 1 } END { if (!found) print 0 }' "/proc/$1/status" \
        2>/dev/null || echo 0
}
fd_count() { # <pid>: 0 when it is gone
    local fds=("/proc/$1/fd/"*)
    [[ -e "${fds[0]}" ]] && echo "${#fds[@]}" || echo 0
}
spool_items() {
    local items=("${OUT}/camera/spool/"*.item)
    [[ -e "${items[0]}" ]] && echo "${#items[@]}" || echo 0
}

cloud_up=1
broker_up=1
sample() { # <camera ms>
    local c_rss c_fds s_rss=0 s_fds=0
    c_rss="$(rss_kb "${camsim_pid}")"
    c_fds="$(fd_count "${camsim_pid}")"
    if ((cloud_up)); then
        s_rss="$(rss_kb "${cloud_pid}")"
        s_fds="$(fd_count "${cloud_pid}")"
    fi
    echo "$(($1 / 1000)),${c_rss},${c_fds},${s_rss},${s_fds},${cloud_starts},${cloud_up},${broker_up},$(spool_items)" \
        >>"${OUT}/samples.csv"
    last_rss="${c_rss}"
    last_cloud_rss="${s_rss}"
}

triggers_sent=0
event() { # <camera s> <kind> <argument>
    local at="$1" kind="$2" arg="$3" note=""
    case "${kind}" in
    cloud-down)
        stop_pid "${cloud_pid}" "$([[ "${arg}" == kill ]] && echo KILL || echo TERM)"
        cloud_pid=""
        cloud_up=0
        ;;
    cloud-up)
        start_cloud "${CLOUD_LISTEN}"
        cloud_up=1
        ;;
    broker-down)
        stop_pid "${broker_pid}" TERM
        broker_pid=""
        broker_up=0
        ;;
    broker-up)
        start_broker
        broker_up=1
        ;;
    trigger)
        local action="${arg%%:*}" duration=()
        [[ "${arg}" == *:* ]] && duration=(--duration "${arg#*:}")
        if ((!cloud_up)); then
            note="not sent: the service is down"
        elif "${CLOUD}" trigger "${DEVICE}" "${action}" "${duration[@]}" >>"${OUT}/triggers.log" 2>&1; then
            triggers_sent=$((triggers_sent + 1))
            note="sent"
        else
            note="refused, see triggers.log"
        fi
        ;;
    esac
    echo "${at},${kind},${arg},${note}" >>"${OUT}/events.csv"
}

echo "camera_s,camsim_rss_kb,camsim_fds,cloud_rss_kb,cloud_fds,cloud_instance,cloud_up,broker_up,spool_items" \
    >"${OUT}/samples.csv"
echo "camera_s,event,argument,result" >"${OUT}/events.csv"
mapfile -t plan < <(grep -v '^window' "${OUT}/plan.txt")
next_event=0
sample_every_ms=$((TOTAL_S * 1000 / 300 < 60000 ? TOTAL_S * 1000 / 300 : 60000))
next_sample_ms=0
# Half a sample interval in real time, between 0.05 and 0.5 s.
poll_s="$(awk -v ms="${sample_every_ms}" -v s="${SPEED}" \
    'BEGIN { p = ms / s / 2000; if (p < 0.05) p = 0.05; if (p > 0.5) p = 0.5; printf "%.2f", p }')"
last_rss=0
last_cloud_rss=0
shown_at=${SECONDS}
started_at=${SECONDS}
while kill -0 "${camsim_pid}" 2>/dev/null; do
    camera_ms
    if ((ms >= 0 && ms <= TOTAL_S * 1000)); then
        if ((ms >= next_sample_ms)); then
            sample "${ms}"
            next_sample_ms=$((next_sample_ms + sample_every_ms))
        fi
        while ((next_event < ${#plan[@]})); do
            read -r at kind arg <<<"${plan[next_event]}"
            ((at * 1000 <= ms)) || break
            event "${at}" "${kind}" "${arg:-}"
            next_event=$((next_event + 1))
        done
    fi
    if ((SECONDS - shown_at >= 5 && ms >= 0)); then
        shown_at=${SECONDS}
        printf 'soak: %5.2f / %.2f camera h (%3d%%), %d s real | camsim RSS %d MB | vexo-cloud RSS %d MB%s%s | spool %d items | events %d/%d\n' \
            "$(awk -v ms="${ms}" 'BEGIN { print ms / 3600000 }')" \
            "$(awk -v s="${TOTAL_S}" 'BEGIN { print s / 3600 }')" \
            $((ms / 10 / TOTAL_S)) $((SECONDS - started_at)) $((last_rss / 1024)) \
            $((last_cloud_rss / 1024)) "$( ((cloud_up)) || echo ' (down)')" \
            "$( ((broker_up)) || echo ', broker down')" "$(spool_items)" "${next_event}" \
            "${#plan[@]}" >&2
    fi
    if ((TIME_LIMIT > 0 && SECONDS - started_at > TIME_LIMIT)); then
        echo "soak: FAIL: the camera is at ${ms} of ${TOTAL_S}000 camera ms after the" \
            "${TIME_LIMIT} s real time allowed; stopping" >&2
        exit 1 # the trap stops what runs
    fi
    sleep "${poll_s}"
done
camsim_status=0
wait "${camsim_pid}" || camsim_status=$?
camsim_pid=""
real_s=$((SECONDS - started_at))
echo "soak: the camera ended with status ${camsim_status} after ${real_s} s real time" >&2

# Every event is due before the final window, so the servers are up; stop them cleanly for
# the checks to read a settled data directory.
stop_pid "${cloud_pid}" TERM
cloud_pid=""
stop_pid "${broker_pid}" TERM
broker_pid=""

ls_status=0
verify_status=0
"${MEDIA}" ls --data "${OUT}/cloud" >"${OUT}/ls.txt" 2>&1 || ls_status=$?
"${MEDIA}" verify --data "${OUT}/cloud" >"${OUT}/verify.txt" 2>&1 || verify_status=$?

check_status=0
/usr/bin/python3 "${ROOT}/scripts/soak_check.py" --out "${OUT}" --start "${START_EPOCH}" \
    --total "${TOTAL_S}" --speed "${SPEED}" --real "${real_s}" --camsim-status "${camsim_status}" \
    --ls-status "${ls_status}" --verify-status "${verify_status}" --triggers-sent "${triggers_sent}" || check_status=$?

rm -f "${OUT}/soak.png"
gnuplot <<EOF 2>"${OUT}/gnuplot.log" || { echo "soak: gnuplot failed, see ${OUT}/gnuplot.log" >&2; rm -f "${OUT}/soak.png"; }
set terminal pngcairo size 1200,700 noenhanced
set output "${OUT}/soak.png"
set datafile separator ","
set multiplot layout 2,1 title "soak: ${TOTAL_S} camera s at speed ${SPEED}, seed ${SEED}"
set xlabel "camera hours"
set ylabel "RSS, MB"
set key outside right top
set offsets 0, 0, graph 0.1, 0
plot "${OUT}/samples.csv" using (\$1/3600):(\$2/1024) every ::1 with lines title "vexo-camsim", \
     "" using (\$1/3600):(\$7 > 0 ? \$4/1024 : NaN) every ::1 with lines title "vexo-cloud"
set ylabel "open descriptors"
plot "${OUT}/samples.csv" using (\$1/3600):3 every ::1 with steps title "vexo-camsim", \
     "" using (\$1/3600):(\$7 > 0 ? \$5 : NaN) every ::1 with steps title "vexo-cloud", \
     "" using (\$1/3600):9 every ::1 with steps title "spool items"
unset multiplot
EOF
[[ -s "${OUT}/soak.png" ]] && echo "soak: picture in ${OUT}/soak.png" >&2
((check_status == 0)) || exit 1
exit 0
