#!/usr/bin/env bash
# Installs what the build and the tests need on Debian 12 (bookworm), idempotently:
#   - host packages from apt (compilers, CMake, cJSON, OpenSSL, GoogleTest, Google Benchmark,
#     the arm-linux-gnueabihf cross compiler, qemu-user, clang-format, clang-tidy, clang and
#     its sanitizer runtimes (the fuzz targets), gcovr; for the host
#     kit and tools: FFmpeg's libraries and command-line tools, nlohmann-json, pkg-config; for the network cloud: libcurl,
#     libmosquitto and the mosquitto broker (and nats-server for the broker-cluster test), cpp-httplib for the tests' and admin commands'
#     HTTP client, Boost (header-only Asio and Beast) for the service's HTTP server and the
#     load generator, nginx and jq for its comparison benchmark; libpq and the PostgreSQL
#     server for the metadata store on PostgreSQL and its tests; for the service's browser
#     view: node and npm, and chromium for its browser tests; for the S3 media store's tests:
#     ceph-mon, ceph-osd and radosgw, which scripts/ceph.sh runs as a one-node cluster; haproxy
#     in front of the service instances of scripts/cluster.sh and the cluster benchmark; for scripts/soak.sh: Debian's python3 and gnuplot);
#   - ui/node_modules from the committed package-lock.json (`npm ci`): hls.js, which the
#     build compiles into vexo-cloud, and puppeteer-core, which drives the browser tests;
#   - an armhf sysroot with cJSON and OpenSSL's libcrypto, built from the armhf .debs with
#     `dpkg-deb -x` (no multiarch install: amd64 and armhf versions of Multi-Arch: same
#     packages can be out of step on the mirrors, which makes apt refuse the install).
#
# Environment:
#   VEXO_ARMHF_SYSROOT        sysroot directory        (default /opt/vexo-armhf-sysroot)
#   VEXO_ARMHF_DEB_CACHE      where the .debs are kept (default /var/cache/vexo-armhf-debs)
#   VEXO_ARMHF_SYSROOT_REFRESH=1   rebuild the sysroot even when it is already there
#
# Exits non-zero when something needed could not be installed.
set -euo pipefail

SYSROOT="${VEXO_ARMHF_SYSROOT:-/opt/vexo-armhf-sysroot}"
DEB_CACHE="${VEXO_ARMHF_DEB_CACHE:-/var/cache/vexo-armhf-debs}"
ARMHF_TRIPLET=arm-linux-gnueabihf

HOST_PACKAGES=(
    build-essential cmake git ca-certificates
    libcjson-dev libssl-dev libsqlite3-dev
    googletest libgtest-dev libbenchmark-dev
    clang-format clang-tidy clang libclang-rt-14-dev
    g++-arm-linux-gnueabihf binutils-arm-linux-gnueabihf qemu-user
    gcovr
    pkg-config nlohmann-json3-dev openssl
    ffmpeg libavformat-dev libavcodec-dev libavutil-dev libswscale-dev libswresample-dev
    libcurl4-openssl-dev libmosquitto-dev mosquitto libcpp-httplib-dev nats-server
    libboost-dev nginx jq
    ceph-mon ceph-osd radosgw haproxy
    libpq-dev postgresql
    nodejs chromium
    python3 gnuplot-nox
)
# armhf packages unpacked into the sysroot; each -dev package is paired with its runtime
# package at the same version.
ARMHF_DEV_RUNTIME_PAIRS=(
    "libssl-dev libssl3"
    "libcjson-dev libcjson1"
)

log() { printf 'install-deps: %s\n' "$*"; }
die() { printf 'install-deps: ERROR: %s\n' "$*" >&2; exit 1; }

SUDO=()
if [[ "$(id -u)" -ne 0 ]]; then
    command -v sudo >/dev/null 2>&1 || die "not root and sudo is not available"
    SUDO=(sudo)
fi
run_root() { "${SUDO[@]}" "$@"; }
apt_get() { run_root env DEBIAN_FRONTEND=noninteractive apt-get -y -o Dpkg::Use-Pty=0 "$@"; }

NATIVE_ARCH="$(dpkg --print-architecture)"
is_installed() {
    # The native (or arch: all) instance; a multiarch armhf instance does not count.
    dpkg-query -W -f='${Architecture} ${db:Status-Status}\n' "$1" 2>/dev/null |
        grep -Eqx "(${NATIVE_ARCH}|all) installed"
}

has_candidate() {
    local cand
    cand="$(apt-cache policy "$1" 2>/dev/null | awk '/Candidate:/ {print $2; exit}')"
    [[ -n "${cand}" && "${cand}" != "(none)" ]]
}

UPDATED=0
apt_update() {
    # A partially failed update (e.g. one index of one architecture out of step during a
    # mirror sync, or an unreachable third-party source) still leaves usable lists; whether
    # they are usable is checked afterwards by looking for install candidates.
    local attempt
    for attempt in 1 2 3; do
        if apt_get update; then
            log "apt-get update: ok (attempt ${attempt})"
            UPDATED=1
            return 0
        fi
        log "apt-get update: failed (attempt ${attempt}/3)"
        ((attempt < 3)) && sleep $((attempt * 5))
    done
    log "apt-get update did not fully succeed; continuing with the lists that were fetched"
    UPDATED=1
}

# ---- 1. the armhf architecture, so that apt knows the armhf package lists ----
if ! dpkg --print-foreign-architectures | grep -qx armhf; then
    log "adding the armhf architecture to dpkg"
    run_root dpkg --add-architecture armhf
    apt_update
fi

# ---- 2. host packages ----
missing=()
for pkg in "${HOST_PACKAGES[@]}"; do
    is_installed "${pkg}" || missing+=("${pkg}")
done
if ((${#missing[@]})); then
    ((UPDATED)) || apt_update
    for pkg in "${missing[@]}"; do
        has_candidate "${pkg}" || die "package ${pkg} has no install candidate (apt lists missing?)"
    done
    log "installing: ${missing[*]}"
    apt_get install --no-install-recommends "${missing[@]}"
    for pkg in "${missing[@]}"; do
        is_installed "${pkg}" || die "package ${pkg} is still not installed"
    done
else
    log "host packages: all present (${HOST_PACKAGES[*]})"
fi

for tool in g++ cmake ctest clang-format gcovr "${ARMHF_TRIPLET}-g++" "${ARMHF_TRIPLET}-size" qemu-arm \
    pkg-config ffmpeg ffprobe openssl; do
    command -v "${tool}" >/dev/null 2>&1 || die "${tool} not found on PATH after the install"
done
[[ -f /usr/src/googletest/CMakeLists.txt ]] || die "/usr/src/googletest (GoogleTest sources) missing"

# ---- 3. the armhf sysroot ----
sysroot_ok() {
    [[ -f "${SYSROOT}/usr/include/cjson/cJSON.h" &&
       -f "${SYSROOT}/usr/include/openssl/evp.h" &&
       -f "${SYSROOT}/usr/include/${ARMHF_TRIPLET}/openssl/configuration.h" &&
       -e "${SYSROOT}/usr/lib/${ARMHF_TRIPLET}/libcjson.so" &&
       -e "${SYSROOT}/usr/lib/${ARMHF_TRIPLET}/libcrypto.so" &&
       -f "${SYSROOT}/.vexo-sysroot-packages" ]]
}

if sysroot_ok && [[ "${VEXO_ARMHF_SYSROOT_REFRESH:-0}" != 1 ]]; then
    log "armhf sysroot: already present in ${SYSROOT} ($(tr '\n' ' ' <"${SYSROOT}/.vexo-sysroot-packages"))"
else
    ((UPDATED)) || apt_update
    run_root mkdir -p "${DEB_CACHE}"
    stage="$(mktemp -d)"
    trap 'rm -rf "${stage}"' EXIT
    manifest=()
    for pair in "${ARMHF_DEV_RUNTIME_PAIRS[@]}"; do
        read -r dev runtime <<<"${pair}"
        version="$(apt-cache policy "${dev}:armhf" | awk '/Candidate:/ {print $2; exit}')"
        [[ -n "${version}" && "${version}" != "(none)" ]] ||
            die "no armhf candidate for ${dev} (is the armhf package list fetched?)"
        for pkg in "${dev}" "${runtime}"; do
            deb_glob="${DEB_CACHE}/${pkg}_${version//:/%3a}_armhf.deb"
            if [[ -f "${deb_glob}" ]]; then
                log "armhf: ${pkg} ${version} already downloaded"
            else
                log "armhf: downloading ${pkg}:armhf=${version}"
                (cd "${DEB_CACHE}" && run_root apt-get download "${pkg}:armhf=${version}") ||
                    die "apt-get download ${pkg}:armhf=${version} failed"
                [[ -f "${deb_glob}" ]] || die "expected ${deb_glob} after the download"
            fi
            dpkg-deb -x "${deb_glob}" "${stage}/root" || die "dpkg-deb -x ${deb_glob} failed"
            manifest+=("${pkg}:armhf=${version}")
        done
    done
    printf '%s\n' "${manifest[@]}" >"${stage}/root/.vexo-sysroot-packages"
    run_root rm -rf "${SYSROOT}"
    run_root mkdir -p "$(dirname "${SYSROOT}")"
    run_root cp -a "${stage}/root" "${SYSROOT}"
    sysroot_ok || die "the armhf sysroot in ${SYSROOT} is incomplete after unpacking"
    log "armhf sysroot: unpacked ${manifest[*]} into ${SYSROOT}"
fi

# The browser view's packages, exactly as the lock file pins them. Only the native build
# uses them: a cross build has no service and needs no node.
UI_DIR="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/ui"
if [[ -f "${UI_DIR}/node_modules/.package-lock.json" ]] &&
    cmp -s <(jq -S .packages "${UI_DIR}/package-lock.json" | jq -S 'del(.[""])') \
        <(jq -S .packages "${UI_DIR}/node_modules/.package-lock.json"); then
    log "ui: node_modules already matches package-lock.json"
else
    # Debian's nodejs comes without npm; other builds of nodejs (NodeSource's) bring their own.
    command -v npm >/dev/null 2>&1 || apt_get install --no-install-recommends npm ||
        die "npm could not be installed"
    log "ui: npm ci"
    (cd "${UI_DIR}" && npm ci --no-audit --no-fund) || die "npm ci in ${UI_DIR} failed"
fi

log "done: gcc $(g++ -dumpfullversion), $(cmake --version | head -n1), $(${ARMHF_TRIPLET}-g++ --version | head -n1), $(qemu-arm --version | head -n1), $(clang-format --version), gcovr $(gcovr --version | head -n1 | awk '{print $2}')"
