#!/usr/bin/env bash
# A fleet of virtual cameras against vexo-cloud, then the same slices as plain PUTs against
# nginx's WebDAV module on the same machine: per request kind p50/p99/max latency, the
# upload rate, the servers' largest RSS, and the ratio of the upload p99s. Not part of the
# tests: it takes a few minutes and wants the machine to itself.
#
#   bench/fleet-load.sh [--cameras N] [--slice-bytes S] [--slice-every T] [--duration D]
#                       [--ramp R] [--threads N] [--out DIR]
#
#   --cameras N      cameras, each with its own connection (default 1000)
#   --slice-bytes S  bytes of a slice (default 750k: 75 MB/s from 1000 cameras at 10 s)
#   --slice-every T  seconds between a camera's slices (default 10)
#   --duration D     seconds each run lasts (default 120)
#   --ramp R         seconds over which the cameras start (default: T, so that the slices of
#                    the fleet are spread evenly)
#   --threads N      vexo-loadgen's network threads (default 1)
#   --out DIR        keep the results (tables, JSON, server logs) there; default: a
#                    temporary directory, removed at the end
#
# It builds vexo-cloud and vexo-loadgen in Release (build/bench), starts vexo-cloud on a free
# loopback port with a temporary data directory, runs vexo-loadgen against it while sampling
# the service's RSS, stops it; then starts nginx (configuration generated in the temporary
# directory, running as the current user, PUT into a directory) and runs vexo-loadgen
# --put-only against it. Needs `nginx` and `jq` (scripts/install-deps.sh) and an open-file
# limit of about twice the cameras (raised here up to the hard limit).
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD="${ROOT}/build/bench"
CAMERAS=1000
SLICE_BYTES=750k
SLICE_EVERY=10
DURATION=120
RAMP=""
THREADS=1
OUT=""
while (($#)); do
    case "$1" in
    --cameras) CAMERAS="$2" ;;
    --slice-bytes) SLICE_BYTES="$2" ;;
    --slice-every) SLICE_EVERY="$2" ;;
    --duration) DURATION="$2" ;;
    --ramp) RAMP="$2" ;;
    --threads) THREADS="$2" ;;
    --out) OUT="$2" ;;
    *)
        sed -n '2,/^set -euo/p' "${BASH_SOURCE[0]}" | sed '$d; s/^# \{0,1\}//' >&2
        exit 2
        ;;
    esac
    shift 2
done
RAMP="${RAMP:-${SLICE_EVERY}}"
# How long to wait for a server to come up or go down.
WAIT_S=30

log() { printf 'fleet-load: %s\n' "$*" >&2; }
die() { printf 'fleet-load: ERROR: %s\n' "$*" >&2; exit 1; }

NGINX="$(command -v nginx || echo /usr/sbin/nginx)"
[[ -x "${NGINX}" ]] || die "nginx not found: run scripts/install-deps.sh"
command -v jq >/dev/null || die "jq not found: run scripts/install-deps.sh"

# ---- open files: a connection per camera on each side, plus nginx's temporary files ----
need_files=$((CAMERAS * 2 + 1024))
hard_files="$(ulimit -Hn)"
if [[ "${hard_files}" != unlimited ]] && ((hard_files < need_files)); then
    die "${CAMERAS} cameras need ${need_files} open files; the hard limit is ${hard_files}"
fi
if [[ "$(ulimit -Sn)" != unlimited ]] && (($(ulimit -Sn) < need_files)); then
    ulimit -Sn "${need_files}"
fi

# ---- build ----
log "building vexo-cloud and vexo-loadgen (Release) in ${BUILD}"
cmake -S "${ROOT}" -B "${BUILD}" -DCMAKE_BUILD_TYPE=Release -DVEXO_BUILD_BENCH=ON \
    -DVEXO_BUILD_TESTS=OFF >/dev/null
cmake --build "${BUILD}" --target vexo-cloud vexo-loadgen --parallel 2 >/dev/null
CLOUD="${BUILD}/service/http/vexo-cloud"
LOADGEN="${BUILD}/tools/loadgen/vexo-loadgen"

# ---- the working directory and what has to go at the end ----
WORK="$(mktemp -d "${TMPDIR:-/tmp}/fleet-load.XXXXXX")"
RESULTS="${OUT:-${WORK}/results}"
mkdir -p "${RESULTS}"
SERVER_PID=""
SAMPLER_PID=""
cleanup() {
    local pid
    for pid in "${SAMPLER_PID}" "${SERVER_PID}"; do
        [[ -n "${pid}" ]] || continue
        kill "${pid}" 2>/dev/null || true
        wait "${pid}" 2>/dev/null || true
    done
    rm -rf "${WORK}"
}
trap cleanup EXIT

port_is_open() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# A loopback port nothing listens on, below the kernel's range for outgoing connections.
free_port() {
    local low high port
    low=20000
    high="$(awk '{ print $1 }' /proc/sys/net/ipv4/ip_local_port_range 2>/dev/null || echo 32768)"
    for _ in $(seq 200); do
        port=$((low + RANDOM % (high - low)))
        port_is_open "${port}" || { echo "${port}"; return 0; }
    done
    die "found no free loopback port"
}

# Waits (bounded) until a condition holds: wait_until <what> <command...>
wait_until() {
    local what="$1" i
    shift
    for ((i = 0; i < WAIT_S * 10; i++)); do
        "$@" && return 0
        sleep 0.1
    done
    die "gave up waiting for ${what}"
}

# The RSS in kB of a process and its children (nginx's workers), now.
rss_kb() {
    local pids
    pids="$( (pgrep -P "$1" || true) | tr '\n' ',')$1"
    ps -o rss= -p "${pids}" 2>/dev/null | awk '{ sum += $1 } END { print sum + 0 }'
}

# Samples the RSS of pid every half second into file (the largest seen so far).
start_sampler() {
    local pid="$1" file="$2"
    (
        max=0
        while kill -0 "${pid}" 2>/dev/null; do
            rss="$(rss_kb "${pid}")"
            ((rss > max)) && max="${rss}" && echo "${max}" >"${file}"
            sleep 0.5
        done
    ) &
    SAMPLER_PID=$!
}

stop_server() {
    kill "${SAMPLER_PID}" 2>/dev/null || true
    wait "${SAMPLER_PID}" 2>/dev/null || true
    SAMPLER_PID=""
    kill -TERM "${SERVER_PID}" 2>/dev/null || true
    wait "${SERVER_PID}" 2>/dev/null || true
    SERVER_PID=""
}

# run_loadgen <name> <server URL> [extra options]: the table on the terminal, JSON kept.
run_loadgen() {
    local name="$1" url="$2" status=0
    shift 2
    "${LOADGEN}" --server "${url}" --cameras "${CAMERAS}" --slice-bytes "${SLICE_BYTES}" \
        --slice-every "${SLICE_EVERY}" --duration "${DURATION}" --ramp "${RAMP}" \
        --threads "${THREADS}" --progress --progress-every 10 --json "$@" \
        >"${RESULTS}/${name}.json" 2>"${RESULTS}/${name}.txt" || status=$?
    ((status == 0 || status == 3)) || die "vexo-loadgen failed (${status}): $(cat "${RESULTS}/${name}.txt")"
    ((status == 0)) || log "${name}: some requests failed (see the table)"
}

# ---- 1. vexo-cloud ----
log "vexo-cloud: ${CAMERAS} cameras, a ${SLICE_BYTES}-byte slice every ${SLICE_EVERY} s, ${DURATION} s"
"${CLOUD}" serve --data "${WORK}/cloud" --listen 127.0.0.1:0 --quiet >"${RESULTS}/vexo-cloud.log" 2>&1 &
SERVER_PID=$!
wait_until "vexo-cloud to listen" grep -q "listening on" "${RESULTS}/vexo-cloud.log"
CLOUD_URL="$(sed -n 's/^vexo-cloud: listening on \([^ ]*\) .*/\1/p' "${RESULTS}/vexo-cloud.log")"
start_sampler "${SERVER_PID}" "${RESULTS}/vexo-cloud.rss"
run_loadgen vexo-cloud "${CLOUD_URL}"
stop_server
rm -rf "${WORK}/cloud"

# ---- 2. nginx, WebDAV PUT into a directory ----
NG="${WORK}/nginx"
mkdir -p "${NG}/www" "${NG}/tmp"
NGINX_PORT="$(free_port)"
user_line=""
# Started by root, nginx's workers would switch to "nobody", who may not write here.
[[ "$(id -u)" -eq 0 ]] && user_line="user $(id -un) $(id -gn);"
cat >"${NG}/nginx.conf" <<EOF
${user_line}
worker_processes auto;
daemon off;
pid ${NG}/nginx.pid;
error_log ${NG}/error.log warn;
events { worker_connections $((CAMERAS + 512)); }
http {
    access_log off;
    client_body_temp_path ${NG}/tmp/body;
    proxy_temp_path ${NG}/tmp/proxy;
    fastcgi_temp_path ${NG}/tmp/fastcgi;
    uwsgi_temp_path ${NG}/tmp/uwsgi;
    scgi_temp_path ${NG}/tmp/scgi;
    keepalive_requests 100000;
    server {
        listen 127.0.0.1:${NGINX_PORT};
        root ${NG}/www;
        location /upload/ {
            dav_methods PUT;
            create_full_put_path on;
            client_max_body_size 64m;
        }
    }
}
EOF
log "nginx on port ${NGINX_PORT}: the same slices as plain PUTs"
"${NGINX}" -p "${NG}" -e "${NG}/error.log" -c "${NG}/nginx.conf" &
SERVER_PID=$!
wait_until "nginx to listen on ${NGINX_PORT}" port_is_open "${NGINX_PORT}"
start_sampler "${SERVER_PID}" "${RESULTS}/nginx.rss"
run_loadgen nginx "http://127.0.0.1:${NGINX_PORT}/upload" --put-only
stop_server
cp "${NG}/error.log" "${RESULTS}/nginx-error.log"

# ---- the result ----
for name in vexo-cloud nginx; do
    printf '\n== %s ==\n' "${name}"
    grep -v '^vexo-loadgen: .* s: ' "${RESULTS}/${name}.txt" || true
    printf 'largest RSS: %s MB (with its workers)\n' \
        "$(awk '{ printf "%.1f", $1 / 1024 }' "${RESULTS}/${name}.rss" 2>/dev/null || echo "?")"
done
p99() { jq -r '.requests.upload.p99_ms // empty' "$1"; }
vexo_p99="$(p99 "${RESULTS}/vexo-cloud.json")"
nginx_p99="$(p99 "${RESULTS}/nginx.json")"
printf '\nupload p99: vexo-cloud %s ms, nginx %s ms' "${vexo_p99:-?}" "${nginx_p99:-?}"
if [[ -n "${vexo_p99}" && -n "${nginx_p99}" ]]; then
    awk -v a="${vexo_p99}" -v b="${nginx_p99}" \
        'BEGIN { if (b > 0) printf ", ratio vexo-cloud / nginx %.2f\n", a / b; else print "" }'
else
    echo
fi
[[ -z "${OUT}" ]] || log "results kept in ${OUT}"
