#!/usr/bin/env bash
# The cloud service as a cluster (vexo-cloud instances behind HAProxy, metadata in
# PostgreSQL, media in a Ceph S3 gateway) under the fleet benchmark's load, beside its floor
# in the same run: the same slices PUT straight into the gateway. Throughput and upload
# p50/p99 for the floor, one instance and two, the ratios to the floor, the CPU each process
# took, a table and a bar chart. Not part of the tests: it takes minutes and wants the
# machine to itself.
#
#   bench/cluster-bench.sh [--cameras N] [--seconds S] [--out DIR]
#
#   --cameras N   cameras, each with its own connection (default 1000), a 750 KB slice every
#                 10 s each (75 MB/s offered by 1000), as bench/fleet-load.sh
#   --seconds S   seconds each of the three runs lasts (default 120)
#   --out DIR     where the results go (default ./vexo-data/cluster-bench): results.md (the
#                 table and the CPU by process), cluster-bench.png, each run's JSON and table,
#                 the servers' logs
#
# Runs, one after the other on one database, each on a new object store:
#   floor   vexo-s3-floor: the slices PUT into the gateway at the cameras' times, through the
#           service's S3 client (SigV4, one connection per PUT, as the service's store does)
#   1 inst  vexo-loadgen's cameras through HAProxy to one vexo-cloud
#   2 inst  the same through HAProxy to two vexo-cloud sharing the database and the bucket
# Every run uses its own device names, so nothing a run stored is seen by the next.
#
# The pieces come from scripts/ceph.sh and scripts/pg.sh, the instances and a minimal HAProxy
# are started here. Builds RelWithDebInfo in
# ${VEXO_BENCH_BUILD:-build/clusterbench}. Needs haproxy, jq, gnuplot, Ceph and PostgreSQL
# (scripts/install-deps.sh).
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD="${VEXO_BENCH_BUILD:-${ROOT}/build/clusterbench}"
CAMERAS=1000
SECONDS_PER_RUN=120
OUT=./vexo-data/cluster-bench
SLICE_BYTES=750k
SLICE_EVERY=10
# Senders of the floor: each sends one slice at a time, so this bounds its concurrency.
FLOOR_SENDERS=64
while (($#)); do
    case "$1" in
    --cameras) CAMERAS="$2" ;;
    --seconds) SECONDS_PER_RUN="$2" ;;
    --out) OUT="$2" ;;
    *)
        sed -n '2,/^set -euo/p' "${BASH_SOURCE[0]}" | sed '$d; s/^# \{0,1\}//' >&2
        exit 2
        ;;
    esac
    shift 2
done
WAIT_S=60

log() { printf 'cluster-bench: %s\n' "$*" >&2; }
die() { printf 'cluster-bench: ERROR: %s\n' "$*" >&2; exit 1; }

for tool in haproxy jq gnuplot; do
    command -v "${tool}" >/dev/null || die "${tool} not found: run scripts/install-deps.sh"
done
need_files=$((CAMERAS * 3 + 1024))
if [[ "$(ulimit -Sn)" != unlimited ]] && (($(ulimit -Sn) < need_files)); then
    ulimit -Sn "${need_files}" || die "${CAMERAS} cameras need ${need_files} open files"
fi

# ---- build ----
log "building vexo-cloud, vexo-loadgen and vexo-s3-floor (RelWithDebInfo) in ${BUILD}"
cmake -S "${ROOT}" -B "${BUILD}" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache >/dev/null
cmake --build "${BUILD}" --target vexo-cloud vexo-loadgen vexo-s3-floor --parallel 2 >/dev/null
CLOUD="${BUILD}/service/http/vexo-cloud"
LOADGEN="${BUILD}/tools/loadgen/vexo-loadgen"
FLOOR="${BUILD}/tools/loadgen/vexo-s3-floor"

mkdir -p "${OUT}"
OUT="$(cd "${OUT}" && pwd)"
WORK="$(mktemp -d "${TMPDIR:-/tmp}/cluster-bench.XXXXXX")"
chmod 755 "${WORK}" # PostgreSQL runs as its own user when started by root
PG_PORT=""
HAPROXY_PID=""
CLOUD_PIDS=()
SAMPLER_PID=""

stop_instances() {
    local pid
    for pid in "${SAMPLER_PID}" "${HAPROXY_PID}" "${CLOUD_PIDS[@]}"; do
        [[ -n "${pid}" ]] || continue
        kill -TERM "${pid}" 2>/dev/null || true
        wait "${pid}" 2>/dev/null || true
    done
    SAMPLER_PID=""
    HAPROXY_PID=""
    CLOUD_PIDS=()
}
cleanup() {
    stop_instances
    [[ -z "${PG_PORT}" ]] || "${ROOT}/scripts/pg.sh" stop "${WORK}/pg" >/dev/null 2>&1 || true
    "${ROOT}/scripts/ceph.sh" down --dir "${WORK}/ceph" >/dev/null 2>&1 || true
    rm -rf "${WORK}"
}
trap cleanup EXIT

port_is_open() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
free_port() {
    local port
    for _ in $(seq 200); do
        port=$((20000 + RANDOM % 12000))
        port_is_open "${port}" || { echo "${port}"; return 0; }
    done
    die "found no free loopback port"
}
wait_until() {
    local what="$1" i
    shift
    for ((i = 0; i < WAIT_S * 10; i++)); do
        "$@" && return 0
        sleep 0.1
    done
    die "gave up waiting for ${what}"
}

# CPU seconds used so far by every running process, summed per command name (utime and
# stime of /proc/PID/stat, in clock ticks). The bench's own processes are those whose
# command line names the working directory, and their children (PostgreSQL's backends);
# everything else on the machine is prefixed "other:".
TICKS="$(getconf CLK_TCK)"
cpu_by_command() {
    local dir stat cmd
    for dir in /proc/[0-9]*; do
        stat="$(cat "${dir}/stat" 2>/dev/null)" || continue
        cmd="$(tr '\0' ' ' <"${dir}/cmdline" 2>/dev/null)" || continue
        [[ "${cmd}" == *"${WORK}"* ]] && cmd=1 || cmd=0
        printf '%s %s\n' "${cmd}" "${stat}"
    done | awk -v hz="${TICKS}" '{
        o = index($0, "("); c = match($0, /\) [A-Z] /)
        name = substr($0, o + 1, c - o - 1); gsub(/ /, "_", name)
        split(substr($0, c + 2), f, " ")
        pid[NR] = $2; ppid[NR] = f[2]; comm[NR] = name; ticks[NR] = f[12] + f[13]
        if ($1 == 1) ours[$2] = 1
    } END {
        for (i = 1; i <= NR; i++) {
            n = (pid[i] in ours || ppid[i] in ours) ? comm[i] : "other:" comm[i]
            cpu[n] += ticks[i] / hz
        }
        for (n in cpu) print n, cpu[n]
    }' | LC_ALL=C sort
}
# Every 2 s while a run lasts: the busiest processes (top) and the machine's idle share.
start_sampler() {
    local file="$1"
    (
        while :; do
            printf '== %s\n' "$(date -u +%T)"
            top -b -n 1 -w 200 | sed -n '3p;8,17p'
            sleep 2
        done
    ) >"${file}" 2>&1 &
    SAMPLER_PID=$!
}

# run <name> <command...>: one measured run, its JSON, table, CPU by process and samples.
run() {
    local name="$1" status=0 start end
    shift
    cpu_by_command >"${WORK}/${name}.cpu0"
    start="$(date +%s.%N)"
    start_sampler "${OUT}/${name}.top"
    # The load generator ends before the last sample: its own CPU comes from the subshell's
    # children times.
    (
        code=0
        "$@" --cameras "${CAMERAS}" --slice-bytes "${SLICE_BYTES}" --slice-every "${SLICE_EVERY}" \
            --duration "${SECONDS_PER_RUN}" --ramp "${SLICE_EVERY}" --json \
            >"${OUT}/${name}.json" 2>"${OUT}/${name}.txt" || code=$?
        times >"${WORK}/${name}.times" # in a pipeline it would time the pipeline's shell
        exit "${code}"
    ) || status=$?
    end="$(date +%s.%N)"
    kill "${SAMPLER_PID}" 2>/dev/null || true
    wait "${SAMPLER_PID}" 2>/dev/null || true
    SAMPLER_PID=""
    cpu_by_command >"${WORK}/${name}.cpu1"
    ((status == 0 || status == 3)) || die "${name} failed (${status}): $(tail -5 "${OUT}/${name}.txt")"
    ((status == 0)) || log "${name}: some uploads failed (see ${OUT}/${name}.txt)"
    # CPU by command over the run, in per cent of one core, busiest first.
    {
        LC_ALL=C join -a 2 -e 0 -o 0,1.2,2.2 "${WORK}/${name}.cpu0" "${WORK}/${name}.cpu1"
        # "0m1.234s 0m0.567s": the driver's user and system time.
        sed -n '2s/\([0-9]*\)m\([0-9.]*\)s/\1 \2/gp' "${WORK}/${name}.times" |
            awk -v d="$(basename "$1")" '{ print d, 0, $1 * 60 + $2 + $3 * 60 + $4 }'
    } | awk -v t="$(echo "${end} - ${start}" | bc)" \
        '{ d = $3 - $2; if (d > 0.005 * t) printf "%s %.1f\n", $1, 100 * d / t }' |
        sort -k2,2nr >"${OUT}/${name}.cpu"
}

# ---- the object store and the database ----
ADMIN_TOKEN="bench-$(date +%s)"
# The object store keeps everything in memory: a new one for each run, sized for the run's
# slices (a 1000-camera minute is 3.75 GB at 750 KB every 10 s) and half as much again.
store_bytes="$(numfmt --from=si "${SLICE_BYTES^^}")"
store_bytes=$((store_bytes * CAMERAS * (SECONDS_PER_RUN / SLICE_EVERY) * 3 / 2 + (256 << 20)))
# fresh_store: the gateway of a new one-node Ceph (scripts/ceph.sh), its address and keys
# exported.
fresh_store() {
    "${ROOT}/scripts/ceph.sh" down --dir "${WORK}/ceph" >/dev/null 2>&1 || true
    log "Ceph S3 gateway (scripts/ceph.sh), $((store_bytes >> 20)) MiB in memory"
    CEPH_MEMSTORE_BYTES="${store_bytes}" "${ROOT}/scripts/ceph.sh" up --dir "${WORK}/ceph" \
        >>"${OUT}/ceph.log" 2>&1 || die "ceph.sh up failed: $(tail -5 "${OUT}/ceph.log")"
    set -a
    # shellcheck disable=SC1091
    . "${WORK}/ceph/s3.env"
    set +a
    MEDIA_URL="s3://vexo-media?endpoint=${VEXO_S3_ENDPOINT}"
}
log "PostgreSQL (scripts/pg.sh)"
PG_PORT="$(free_port)"
"${ROOT}/scripts/pg.sh" start "${WORK}/pg" "${PG_PORT}" >"${OUT}/pg.log" 2>&1 ||
    die "pg.sh start failed: $(tail -5 "${OUT}/pg.log")"
DB_URL="$("${ROOT}/scripts/pg.sh" url "${PG_PORT}")"

# ---- instances behind HAProxy ----
# start_cluster <n>: n vexo-cloud on free ports sharing the database and bucket, HAProxy in
# front (round robin, HTTP keep-alive on both sides); sets CLUSTER_URL.
start_cluster() {
    local n="$1" i port servers=""
    for ((i = 1; i <= n; i++)); do
        port="$(free_port)"
        "${CLOUD}" serve --data "${WORK}/cloud${n}-${i}" --db "${DB_URL}" --media "${MEDIA_URL}" \
            --listen "127.0.0.1:${port}" --admin-token "${ADMIN_TOKEN}" --quiet \
            >"${OUT}/vexo-cloud-${n}-${i}.log" 2>&1 &
        CLOUD_PIDS+=($!)
        wait_until "vexo-cloud ${i} of ${n} on ${port}" port_is_open "${port}"
        servers+="    server cloud${i} 127.0.0.1:${port}"$'\n'
    done
    port="$(free_port)"
    cat >"${WORK}/haproxy-${n}.cfg" <<EOF
global
    maxconn $((CAMERAS * 2 + 256))
defaults
    mode http
    timeout connect 5s
    timeout client 90s
    timeout server 90s
    option http-keep-alive
frontend cameras
    bind 127.0.0.1:${port}
    default_backend clouds
backend clouds
    balance roundrobin
${servers}
EOF
    haproxy -db -f "${WORK}/haproxy-${n}.cfg" >"${OUT}/haproxy-${n}.log" 2>&1 &
    HAPROXY_PID=$!
    wait_until "HAProxy on ${port}" port_is_open "${port}"
    CLUSTER_URL="http://127.0.0.1:${port}"
}

fresh_store
# The object store's first writes are slow (pools, first objects): not part of the floor.
log "warming the gateway up"
"${FLOOR}" --server "${VEXO_S3_ENDPOINT}/vexo-floor" --cameras 20 --slice-bytes "${SLICE_BYTES}" \
    --slice-every 1 --duration 5 --device-prefix w- >/dev/null 2>"${OUT}/warm-up.txt" ||
    die "the warm-up failed: $(tail -5 "${OUT}/warm-up.txt")"
log "floor: ${CAMERAS} cameras' slices PUT into ${VEXO_S3_ENDPOINT}, ${SECONDS_PER_RUN} s"
run floor "${FLOOR}" --server "${VEXO_S3_ENDPOINT}/vexo-floor" --threads "${FLOOR_SENDERS}" \
    --device-prefix f-
for n in 1 2; do
    fresh_store
    start_cluster "${n}"
    log "${n} instance(s): ${CAMERAS} cameras through ${CLUSTER_URL}, ${SECONDS_PER_RUN} s"
    run "cluster${n}" "${LOADGEN}" --server "${CLUSTER_URL}" --admin-token "${ADMIN_TOKEN}" \
        --device-prefix "c${n}-"
    stop_instances
done

# ---- the result ----
field() { jq -r "$2" "${OUT}/$1.json"; }
floor_mb="$(field floor '.upload_mb_s')"
floor_p99="$(field floor '.requests.upload.p99_ms')"
{
    printf '%s cameras, a %s-byte slice every %s s, %s s per run (offered %s MB/s)\n\n' \
        "${CAMERAS}" "${SLICE_BYTES}" "${SLICE_EVERY}" "${SECONDS_PER_RUN}" \
        "$(field floor '.offered_mb_s')"
    echo "| config | MB/s | uploads/s | upload p50 ms | upload p99 ms | errors | MB/s / floor | p99 / floor |"
    echo "|---|---|---|---|---|---|---|---|"
    for name in floor cluster1 cluster2; do
        jq -r --arg name "${name}" --argjson fmb "${floor_mb}" --argjson fp99 "${floor_p99}" '
            .requests.upload as $u
            | [$name, .upload_mb_s, ((($u.count - $u.errors) / .elapsed_s) * 100 | round / 100),
               $u.p50_ms, $u.p99_ms, $u.errors,
               (if $fmb > 0 then (.upload_mb_s / $fmb * 100 | round / 100) else "-" end),
               (if $fp99 > 0 then ($u.p99_ms / $fp99 * 100 | round / 100) else "-" end)]
            | "| " + (map(tostring) | join(" | ")) + " |"' "${OUT}/${name}.json"
    done
    echo
    echo "CPU over each run in per cent of one core ($(nproc) cores = $(($(nproc) * 100))), the bench's"
    echo "processes by command, busiest first, then the rest of the machine:"
    for name in floor cluster1 cluster2; do
        awk -v name="${name}" '
            /^other:/ { others += $2; if (n++ < 3) top = top sprintf(" %s %s%%", substr($1, 7), $2); next }
            { ours = ours sprintf(" %s %s%%,", $1, $2) }
            END { printf "  %-9s%s others %.0f%% (%s )\n", name, ours, others, top }' \
            "${OUT}/${name}.cpu"
    done
} >"${OUT}/results.md"
cat "${OUT}/results.md"

for name in floor cluster1 cluster2; do
    printf '%s %s %s %s\n' "${name}" "$(field "${name}" '.upload_mb_s')" \
        "$(field "${name}" '.requests.upload.p50_ms')" "$(field "${name}" '.requests.upload.p99_ms')"
done | sed 's/^cluster1/"1 instance"/; s/^cluster2/"2 instances"/' >"${WORK}/chart.dat"
gnuplot <<EOF
set terminal pngcairo size 900,420
set output "${OUT}/cluster-bench.png"
set multiplot layout 1,2 title "${CAMERAS} cameras, ${SLICE_BYTES} every ${SLICE_EVERY} s, ${SECONDS_PER_RUN} s"
set style data histograms
set style fill solid 0.8 border -1
set boxwidth 0.7
set yrange [0:*]
set grid ytics
set title "throughput (MB/s)"
plot "${WORK}/chart.dat" using 2:xtic(1) notitle lc rgb "#4477aa"
set title "upload latency (ms)"
set logscale y
set yrange [0.5:*]
plot "${WORK}/chart.dat" using 3:xtic(1) title "p50" lc rgb "#66ccee", \
     "" using 4 title "p99" lc rgb "#ee6677"
unset multiplot
EOF
log "results in ${OUT} (results.md, cluster-bench.png)"
