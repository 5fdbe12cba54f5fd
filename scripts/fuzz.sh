#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/) in build/fuzz with clang and runs each for a while on a
# copy of its seed corpus (fuzz/corpus/<target>/ is never written).
#
#   scripts/fuzz.sh [seconds-per-target] [target...]      default: 60 s, every target
#
# VEXO_JOBS targets run at once (default 2, one per core here). For each it prints the executions per second and the
# coverage (libFuzzer's "cov:") reached, and for a crash the reproducer's path; a reproducer
# is replayed with `build/fuzz/fuzz/<target> <file>`, which also shows the target's own
# output (its message for a broken property, the kits' log lines): the runs here discard it,
# keeping libFuzzer's and the sanitizers' reports. Exit status 1 when any target crashed.
# The grown corpus, the run's log and any reproducer stay in build/fuzz/runs/<target>/.
# A reproducer worth keeping goes into fuzz/regressions/<target>/: the test builds replay it.
# VEXO_WERROR=ON makes compiler warnings errors, as in CI.
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD="${VEXO_BUILD_ROOT:-${ROOT}/build}/fuzz"
ALL_TARGETS=(mqtt_commands_fuzz cloud_answers_fuzz kv_record_fuzz media_parse_fuzz
    service_request_fuzz service_json_fuzz)

SECONDS_PER_TARGET="${1:-60}"
if [[ ! "${SECONDS_PER_TARGET}" =~ ^[1-9][0-9]*$ ]]; then
    echo "usage: $0 [seconds-per-target] [target...]  (targets: ${ALL_TARGETS[*]})" >&2
    exit 2
fi
shift $(($# > 0 ? 1 : 0))
TARGETS=("$@")
if [[ ${#TARGETS[@]} -eq 0 ]]; then
    TARGETS=("${ALL_TARGETS[@]}")
fi
for t in "${TARGETS[@]}"; do
    if [[ " ${ALL_TARGETS[*]} " != *" ${t} "* ]]; then
        echo "unknown target '${t}' (targets: ${ALL_TARGETS[*]})" >&2
        exit 2
    fi
done

launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
JOBS="${VEXO_JOBS:-2}"
CC=clang CXX=clang++ cmake -S "${ROOT}" -B "${BUILD}" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DVEXO_FUZZ=ON -DVEXO_BUILD_TESTS=OFF -DVEXO_WERROR="${VEXO_WERROR:-OFF}" \
    "${launcher[@]}" >/dev/null
cmake --build "${BUILD}" --parallel "${JOBS}" --target "${TARGETS[@]}"

fuzz_one() { # <target>: runs it, leaving its exit status in runs/<target>/status
    local t="$1" run="${BUILD}/runs/$1" status=0
    rm -rf "${run}"
    mkdir -p "${run}/corpus" "${run}/artifacts"
    cp "${ROOT}/fuzz/corpus/${t}/"* "${run}/corpus/"
    # -timeout: an input that runs longer than 10 s is reported as a hang. -close_fd_mask=3:
    # the targets' own stdout and stderr are dropped (a refused answer logs a line each time).
    "${BUILD}/fuzz/${t}" -max_total_time="${SECONDS_PER_TARGET}" -timeout=10 -close_fd_mask=3 \
        -print_final_stats=1 -artifact_prefix="${run}/artifacts/" "${run}/corpus" \
        >"${run}/log" 2>&1 || status=$?
    echo "${status}" >"${run}/status"
    echo "  ${t}: done (exit ${status})" >&2
}

echo "fuzzing ${#TARGETS[@]} targets for ${SECONDS_PER_TARGET} s each, ${JOBS} at a time" >&2
running=0
for t in "${TARGETS[@]}"; do
    if ((running >= JOBS)); then
        wait -n || true
        running=$((running - 1))
    fi
    fuzz_one "${t}" &
    running=$((running + 1))
done
wait

crashed=0
printf '\n%-22s %10s %8s  %s\n' target exec/s cov result
for t in "${TARGETS[@]}"; do
    run="${BUILD}/runs/${t}"
    status="$(cat "${run}/status")"
    execs="$(sed -n 's/^stat::average_exec_per_sec: *//p' "${run}/log" | tail -n 1)"
    cov="$(grep -o 'cov: [0-9]*' "${run}/log" | tail -n 1 | cut -d' ' -f2 || true)"
    reproducer="$(sed -n 's/.*Test unit written to //p' "${run}/log" | tail -n 1)"
    if [[ ${status} -ne 0 || -n "${reproducer}" ]]; then
        crashed=1
        printf '%-22s %10s %8s  CRASH (status %d): %s, log %s\n' "${t}" "${execs:-?}" \
            "${cov:-?}" "${status}" "${reproducer:-no reproducer written}" "${run}/log"
    else
        printf '%-22s %10s %8s  ok\n' "${t}" "${execs:-?}" "${cov:-?}"
    fi
done
exit "${crashed}"
