#!/usr/bin/env bash
# Builds the project in every configuration and runs every test. Stops at the first stage
# that fails and exits non-zero; prints a summary of the stages at the end.
#
#   scripts/test-all.sh [stage...] [cmake option...]
#
# Stages (default: all, in this order):
#   native    gcc RelWithDebInfo build (benchmarks compiled too) + ctest, the fault sweep
#             (tests labelled "torture") included: it runs in this stage only
#   readme    the README as a reader runs it: its first command (scripts/run-camsim.sh, a
#             30 s run into build/readme/vexo-data; every export must decode cleanly), then
#             scripts/check-readme.sh, which runs the sh blocks of "The cloud on the network"
#             and "A locked-down broker" against that build/release (about 2 minutes
#             beside the build)
#   asan      AddressSanitizer + UndefinedBehaviorSanitizer build + ctest
#   tsan      ThreadSanitizer build + ctest
#   armhf     arm-linux-gnueabihf cross build + ctest under qemu-arm; size of the module
#   install   the module installed natively and into a copy of the armhf sysroot; the example
#             firmware in examples/consumer built against each install twice (CMake package,
#             pkg-config), linked and run (armhf under qemu-arm); the .deb packages built
#             (amd64: module and host tools; armhf: module) and their contents listed
#   tidy      clang-tidy-14 with the checked-in .clang-tidy over the module's and the kits'
#             sources (compile_commands.json of a configure-only build), warnings as errors
#   fuzz      the libFuzzer targets (fuzz/) built with clang under ASan+UBSan, each run for
#             VEXO_FUZZ_SECONDS (default 60) from its seeds by scripts/fuzz.sh, two at a time;
#             prints executions per second and coverage per target
#   format    clang-format --dry-run -Werror over the tracked C/C++ sources
#   coverage  --coverage build + ctest; prints "module line coverage: NN%"
# Every configure step gets -DVEXO_WERROR=ON (warnings are errors); cmake options given here
# (arguments starting with -D, e.g. -DVEXO_BUILD_HOST=OFF) come after the stage's own options.
#
# Environment:
#   VEXO_SKIP_INSTALL=1    do not run scripts/install-deps.sh first
#   VEXO_SKIP_COVERAGE=1   skip the coverage stage
#   VEXO_CLEAN=1           delete a stage's build directory before configuring
#   VEXO_JOBS=N            parallel build and test jobs (default 2)
#   VEXO_BUILD_ROOT=dir    where the build/<config> directories go (default <repo>/build;
#                          the readme stage builds in <repo>/build/release, as the README)
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD_ROOT="${VEXO_BUILD_ROOT:-${ROOT}/build}"
JOBS="${VEXO_JOBS:-2}"
ALL_STAGES=(native readme asan tsan armhf install tidy fuzz format coverage)
ARMHF_TRIPLET=arm-linux-gnueabihf
MODULE_LIB=libvexo_ipc_cloud_storage.a
# Directories whose sources make up the module (the coverage figure is over these).
MODULE_DIRS=(core events cloud upload)
# The native and armhf builds; the install stage installs from the same build directories.
# Prefix /usr: the library directory is then the multiarch one (lib/<triplet>), as in a
# Debian package or a camera's sysroot.
# The one build whose ctest runs the fault sweep (CTest label "torture"); every other stage
# leaves it out with -LE torture. Optimised, it takes a fraction of its Debug or sanitizer time.
SWEEP_CONFIG=native
# What the tidy stage checks (the whole tree takes too long on two cores).
TIDY_DIRS=(core events cloud upload kits)
NATIVE_ARGS=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEXO_BUILD_BENCH=ON -DCMAKE_INSTALL_PREFIX=/usr)
ARMHF_ARGS=(-DCMAKE_BUILD_TYPE=MinSizeRel -DCMAKE_TOOLCHAIN_FILE="${ROOT}/cmake/toolchain-armhf.cmake"
    -DCMAKE_INSTALL_PREFIX=/usr)
# The armhf sysroot, found as cmake/toolchain-armhf.cmake finds it.
ARMHF_SYSROOT="${VEXO_ARMHF_SYSROOT:-/opt/vexo-armhf-sysroot}"
ARMHF_TOOLCHAIN_ROOT=/usr/${ARMHF_TRIPLET}

usage() { sed -n '2,/^set -euo pipefail/p' "${BASH_SOURCE[0]}" | sed '$d; s/^# \{0,1\}//'; }

stages=()
cmake_args=()
for arg in "$@"; do
    case "${arg}" in
    -h | --help)
        usage
        exit 0
        ;;
    -*) cmake_args+=("${arg}") ;;
    *)
        if [[ " ${ALL_STAGES[*]} " != *" ${arg} "* ]]; then
            echo "test-all: unknown stage '${arg}' (stages: ${ALL_STAGES[*]})" >&2
            exit 2
        fi
        stages+=("${arg}")
        ;;
    esac
done
((${#stages[@]})) || stages=("${ALL_STAGES[@]}")

mkdir -p "${BUILD_ROOT}"
NOTES_FILE="${BUILD_ROOT}/test-all-notes.txt"
: >"${NOTES_FILE}"

say() { printf '\n==> %s\n' "$*"; }
note() { printf '%s\n' "$*" | tee -a "${NOTES_FILE}"; }

# ---- helpers used by the stages (each stage runs in a subshell with errexit on) ----

configure_and_build() { # <config> <cmake args...>
    local config="$1"
    shift
    local dir="${BUILD_ROOT}/${config}"
    if [[ "${VEXO_CLEAN:-0}" == 1 ]]; then
        rm -rf "${dir}"
    fi
    say "${config}: configure"
    cmake -S "${ROOT}" -B "${dir}" -DVEXO_WERROR=ON "$@" "${cmake_args[@]}"
    say "${config}: build (-j${JOBS})"
    cmake --build "${dir}" --parallel "${JOBS}"
}

run_ctest() { # <config> [prefix command...]
    local config="$1"
    shift
    local select=(-LE torture)
    if [[ "${config}" == "${SWEEP_CONFIG}" ]]; then
        select=()
    fi
    say "${config}: ctest (-j${JOBS}) ${select[*]}"
    # --no-tests=error: a configuration without any test is a failure, not a pass.
    "$@" ctest --test-dir "${BUILD_ROOT}/${config}" --output-on-failure --no-tests=error \
        --parallel "${JOBS}" "${select[@]}"
}

stage_native() {
    # Optimised: gcc runs some of its checks (-Wnull-dereference, -Wmaybe-uninitialized) only
    # when it optimises. The sanitizer stages stay Debug.
    configure_and_build native "${NATIVE_ARGS[@]}"
    run_ctest native
}

stage_readme() {
    local data="${BUILD_ROOT}/readme/vexo-data" log="${BUILD_ROOT}/readme/run-camsim.log"
    if [[ "${VEXO_CLEAN:-0}" == 1 ]]; then
        rm -rf "${ROOT}/build/release"
    fi
    mkdir -p "${BUILD_ROOT}/readme"
    say "readme: scripts/run-camsim.sh --duration 30 (the README's first command)"
    VEXO_SKIP_INSTALL=1 VEXO_DATA="${data}" bash "${ROOT}/scripts/run-camsim.sh" --duration 30 |
        tee "${log}"
    local exported
    exported="$(grep -c 'decodes cleanly)$' "${log}" || true)"
    ((exported > 0)) || {
        echo "readme: scripts/run-camsim.sh exported no recording that decodes" >&2
        return 1
    }
    say "readme: scripts/check-readme.sh (the README's network walk-through)"
    bash "${ROOT}/scripts/check-readme.sh"
    note "readme: run-camsim.sh exported ${exported} decodable recording(s); README walk-through passed"
}

stage_asan() {
    export ASAN_OPTIONS="detect_leaks=1 abort_on_error=1${ASAN_OPTIONS:+ ${ASAN_OPTIONS}}"
    export UBSAN_OPTIONS="print_stacktrace=1 halt_on_error=1${UBSAN_OPTIONS:+ ${UBSAN_OPTIONS}}"
    configure_and_build asan -DCMAKE_BUILD_TYPE=Debug -DVEXO_SANITIZE=address,undefined
    run_ctest asan
}

stage_tsan() {
    export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=${ROOT}/scripts/tsan.supp${TSAN_OPTIONS:+ ${TSAN_OPTIONS}}"
    configure_and_build tsan -DCMAKE_BUILD_TYPE=Debug -DVEXO_SANITIZE=thread
    # gcc 12's ThreadSanitizer cannot map its shadow memory when the kernel randomises
    # mmap addresses with more than 28 bits; run the tests without address randomisation then.
    local runner=()
    local rnd_bits
    rnd_bits="$(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null || echo 0)"
    if ((rnd_bits > 28)); then
        echo "tsan: vm.mmap_rnd_bits=${rnd_bits}: running the tests under setarch -R"
        runner=(setarch "$(uname -m)" -R)
    fi
    run_ctest tsan "${runner[@]}"
}

stage_armhf() {
    configure_and_build armhf "${ARMHF_ARGS[@]}"
    run_ctest armhf
    local lib="${BUILD_ROOT}/armhf/${MODULE_LIB}"
    [[ -f "${lib}" ]] || {
        echo "armhf: ${lib} was not built" >&2
        return 1
    }
    say "armhf: ${ARMHF_TRIPLET}-size ${MODULE_LIB} (MinSizeRel)"
    local table totals
    table="$("${ARMHF_TRIPLET}-size" -t "${lib}")"
    printf '%s\n' "${table}"
    totals="$(printf '%s\n' "${table}" | awk '/\(TOTALS\)/ {print "text=" $1 " data=" $2 " bss=" $3 " total=" $4 " bytes"}')"
    [[ -n "${totals}" ]] || {
        echo "armhf: no totals line in the size output" >&2
        return 1
    }
    note "armhf ${MODULE_LIB} (MinSizeRel): ${totals}"
}

# Runs an armhf program under qemu-arm as the armhf build's tests run: the cross toolchain's
# loader, the sysroot's shared libraries and then the toolchain's C runtime.
run_armhf() { # <sysroot> <program> [args...]
    local sysroot="$1"
    shift
    qemu-arm -L "${ARMHF_TOOLCHAIN_ROOT}" \
        -E "LD_LIBRARY_PATH=${sysroot}/usr/lib/${ARMHF_TRIPLET}:${ARMHF_TOOLCHAIN_ROOT}/lib" "$@"
}

# Builds examples/consumer against an installed module twice, through its CMake package and
# through pkg-config, and runs both programs. The runner is empty natively, run_armhf <sysroot>
# for armhf.
build_consumer() { # <name> <out dir> <cmake args (one string, split on spaces)> <make args> <runner...>
    local name="$1" out="$2" cmake_extra="$3" make_extra="$4"
    shift 4
    local src="${ROOT}/examples/consumer"
    say "install: ${name} consumer through find_package(VexoCloudStorage)"
    # shellcheck disable=SC2086 # the extra arguments are words on purpose
    cmake -S "${src}" -B "${out}/cmake" -DCMAKE_BUILD_TYPE=Release ${cmake_extra}
    cmake --build "${out}/cmake"
    "$@" "${out}/cmake/consumer"
    say "install: ${name} consumer through pkg-config (examples/consumer/Makefile)"
    # shellcheck disable=SC2086
    make -C "${src}" --no-print-directory OUT="${out}" ${make_extra}
    "$@" "${out}/consumer"
}

stage_install() {
    local out="${BUILD_ROOT}/install"
    rm -rf "${out}"
    mkdir -p "${out}/packages"

    # ---- native: into a prefix of its own ----
    configure_and_build native "${NATIVE_ARGS[@]}"
    say "install: cmake --install native --prefix ${out}/native"
    cmake --install "${BUILD_ROOT}/native" --prefix "${out}/native"
    local pc_dir
    pc_dir="$(dirname "$(find "${out}/native" -name vexo-cloud-storage.pc -print -quit)")"
    [[ -f "${pc_dir}/vexo-cloud-storage.pc" ]] || {
        echo "install: no vexo-cloud-storage.pc under ${out}/native" >&2
        return 1
    }
    PKG_CONFIG_PATH="${pc_dir}" build_consumer native "${out}/consumer-native" \
        "-DCMAKE_PREFIX_PATH=${out}/native" ""

    # ---- armhf: into a copy of the sysroot, as a camera's firmware build has it ----
    configure_and_build armhf "${ARMHF_ARGS[@]}"
    local sysroot="${out}/armhf-sysroot"
    say "install: the module into ${sysroot} (a symlinked copy of ${ARMHF_SYSROOT})"
    cp -as "$(realpath "${ARMHF_SYSROOT}")/." "${sysroot}"
    DESTDIR="${sysroot}" cmake --install "${BUILD_ROOT}/armhf" --component dev
    local pc_libdir="${sysroot}/usr/lib/${ARMHF_TRIPLET}/pkgconfig:${sysroot}/usr/lib/pkgconfig"
    PKG_CONFIG_SYSROOT_DIR="${sysroot}" PKG_CONFIG_LIBDIR="${pc_libdir}" PKG_CONFIG_PATH="" \
        build_consumer armhf "${out}/consumer-armhf" \
        "-DCMAKE_TOOLCHAIN_FILE=${ROOT}/cmake/toolchain-armhf.cmake -DVEXO_ARMHF_SYSROOT=${sysroot}" \
        "CC=${ARMHF_TRIPLET}-gcc" run_armhf "${sysroot}"

    # ---- Debian packages ----
    say "install: cpack (DEB)"
    local config
    for config in native armhf; do
        (cd "${out}/packages" && cpack -G DEB --config "${BUILD_ROOT}/${config}/CPackConfig.cmake" \
            -B "${out}/packages")
    done
    local expected=(vexo-cloud-storage-dev:amd64 vexo-cloud-tools:amd64 vexo-cloud-storage-dev:armhf)
    local must_hold=(
        "vexo-cloud-storage-dev:/libvexo_ipc_cloud_storage.a$"
        "vexo-cloud-storage-dev:/include/vexo-cloud-storage/vexo_ipc_cloud_storage.h$"
        "vexo-cloud-storage-dev:/include/vexo-cloud-storage/vexo_platform.h$"
        "vexo-cloud-storage-dev:/cmake/VexoCloudStorage/VexoCloudStorageConfig.cmake$"
        "vexo-cloud-storage-dev:/pkgconfig/vexo-cloud-storage.pc$"
        "vexo-cloud-tools:/usr/bin/vexo-camsim$"
        "vexo-cloud-tools:/usr/bin/vexo-media$"
        "vexo-cloud-tools:/usr/bin/vexo-cloud$"
    )
    local want deb package arch listed=0
    for want in "${expected[@]}"; do
        package="${want%%:*}"
        arch="${want##*:}"
        deb="$(find "${out}/packages" -maxdepth 1 -name "${package}_*_${arch}.deb" -print -quit)"
        [[ -n "${deb}" ]] || {
            echo "install: no ${package} package for ${arch} in ${out}/packages" >&2
            return 1
        }
        say "install: $(basename "${deb}")"
        dpkg-deb --field "${deb}" Package Architecture Version Depends
        dpkg-deb --contents "${deb}" | tee "${deb%.deb}.contents"
        local rule
        for rule in "${must_hold[@]}"; do
            [[ "${rule%%:*}" == "${package}" ]] || continue
            grep -Eq -- "${rule#*:}" "${deb%.deb}.contents" || {
                echo "install: $(basename "${deb}") holds nothing matching ${rule#*:}" >&2
                return 1
            }
        done
        listed=$((listed + 1))
    done
    note "install: consumer built and run natively and on armhf (find_package, pkg-config); ${listed} .deb packages in ${out}/packages"
}

stage_tidy() {
    local dir="${BUILD_ROOT}/tidy"
    say "tidy: configure ${dir} for compile_commands.json"
    # Configure only: nothing here is compiled. The host parts are configured too, since the
    # host kit's sources need their include directories.
    cmake -S "${ROOT}" -B "${dir}" -DCMAKE_BUILD_TYPE=Debug -DVEXO_BUILD_BENCH=OFF \
        "${cmake_args[@]}" >/dev/null
    local dirs_re
    dirs_re="$(
        IFS='|'
        printf '%s' "${TIDY_DIRS[*]}"
    )"
    say "tidy: $(clang-tidy-14 --version | grep -m1 -o 'LLVM version [0-9.]*') over ${TIDY_DIRS[*]} (-j${JOBS})"
    # gcc-only warning options in the compile commands mean nothing to clang. Findings are
    # errors through WarningsAsErrors in .clang-tidy (run-clang-tidy-14 has no option for it):
    # any finding makes clang-tidy, and with it this script, exit non-zero.
    run-clang-tidy-14 -p "${dir}" -j "${JOBS}" -quiet \
        -extra-arg=-Wno-unknown-warning-option "^${ROOT}/(${dirs_re})/.*\.(c|cc)$"
    local count
    count="$(grep -cE "\"file\": \"${ROOT}/(${dirs_re})/.*\.(c|cc)\"" "${dir}/compile_commands.json" || true)"
    note "tidy: ${count} sources of ${TIDY_DIRS[*]} clean"
}

stage_fuzz() {
    say "fuzz: ${VEXO_FUZZ_SECONDS:-60} s per target"
    VEXO_WERROR=ON VEXO_JOBS="${JOBS}" bash "${ROOT}/scripts/fuzz.sh" "${VEXO_FUZZ_SECONDS:-60}" |
        tee "${BUILD_ROOT}/fuzz-summary.txt"
    note "fuzz: $(grep -c ' ok$' "${BUILD_ROOT}/fuzz-summary.txt") targets ran without a crash"
}

stage_format() {
    say "format: clang-format --dry-run -Werror ($(clang-format --version))"
    local files=()
    mapfile -d '' files < <(git -C "${ROOT}" -c safe.directory="${ROOT}" ls-files -z -- \
        '*.c' '*.cc' '*.cpp' '*.cxx' '*.h' '*.hh' '*.hpp')
    if ((${#files[@]} == 0)); then
        echo "format: git ls-files found no C/C++ sources in ${ROOT}" >&2
        return 1
    fi
    (cd "${ROOT}" && clang-format --dry-run -Werror "${files[@]}")
    note "format: ${#files[@]} tracked C/C++ files clean"
}

stage_coverage() {
    configure_and_build coverage -DCMAKE_BUILD_TYPE=Debug -DVEXO_COVERAGE=ON -DVEXO_BUILD_HOST=OFF \
        -DVEXO_BUILD_BENCH=OFF
    # Counts from an earlier run would add up with this one.
    find "${BUILD_ROOT}/coverage" -name '*.gcda' -delete
    run_ctest coverage
    say "coverage: gcovr over ${MODULE_DIRS[*]}"
    local root_re dirs_re report summary percent
    root_re="$(printf '%s' "${ROOT}" | sed 's/[][\.*^$+?(){}|]/\\&/g')"
    dirs_re="$(
        IFS='|'
        printf '%s' "${MODULE_DIRS[*]}"
    )"
    report="${BUILD_ROOT}/coverage/module-coverage.txt"
    summary="$(gcovr --root "${ROOT}" --object-directory "${BUILD_ROOT}/coverage" \
        --filter "${root_re}/(${dirs_re})/" --output "${report}" --print-summary)"
    printf '%s\n' "${summary}"
    echo "(per-file report: ${report})"
    percent="$(printf '%s\n' "${summary}" | awk '/^lines:/ {sub(/%$/, "", $2); print $2; exit}')"
    [[ -n "${percent}" ]] || {
        echo "coverage: gcovr printed no line summary" >&2
        return 1
    }
    note "module line coverage: ${percent}%"
}

# ---- run ----

summary_names=()
summary_results=()
summary_secs=()

print_summary() {
    local i
    printf '\n==> summary\n'
    for i in "${!summary_names[@]}"; do
        printf '  %-9s %-7s %5ss\n' "${summary_names[$i]}" "${summary_results[$i]}" "${summary_secs[$i]}"
    done
    if [[ -s "${NOTES_FILE}" ]]; then
        sed 's/^/  /' "${NOTES_FILE}"
    fi
}

run_stage() { # <name> <function>; returns the stage's exit status
    local name="$1" fn="$2" start rc
    start=${SECONDS}
    set +e
    (
        set -euo pipefail
        "${fn}"
    )
    rc=$?
    set -e
    summary_names+=("${name}")
    summary_secs+=($((SECONDS - start)))
    if ((rc == 0)); then
        summary_results+=(ok)
    else
        summary_results+=(FAILED)
        print_summary
        printf '\ntest-all: stage "%s" FAILED (exit %d); later stages were not run\n' "${name}" "${rc}" >&2
        exit 1
    fi
}

stage_deps() { bash "${ROOT}/scripts/install-deps.sh"; }

if [[ "${VEXO_SKIP_INSTALL:-0}" != 1 ]]; then
    run_stage deps stage_deps
fi

for stage in "${stages[@]}"; do
    if [[ "${stage}" == coverage && "${VEXO_SKIP_COVERAGE:-0}" == 1 ]]; then
        summary_names+=(coverage)
        summary_results+=(skipped)
        summary_secs+=(0)
        continue
    fi
    run_stage "${stage}" "stage_${stage}"
done

print_summary
printf '\ntest-all: all selected stages passed\n'
