#!/usr/bin/env bash
# A single-node Ceph cluster with an S3 gateway, on loopback, for trying and testing
# `vexo-cloud serve --media s3://...` against a real object store:
#   one monitor, one OSD on the memstore object store (everything in memory, about 120 MB),
#   and radosgw with the beast frontend; an S3 user with known keys.
#
#   scripts/ceph.sh up     [--dir DIR] [--port P]   start it; prints the endpoint and keys
#   scripts/ceph.sh down   [--dir DIR]              stop it and remove DIR's cluster files
#   scripts/ceph.sh status [--dir DIR]              exit 0 when the gateway answers
#   scripts/ceph.sh gateway-stop|gateway-start [--dir DIR]
#                                                   stop the gateway alone (the store keeps
#                                                   its objects), start it again on its port
#
# DIR (default ./vexo-ceph) holds the configuration, the logs, the pid files and s3.env:
#   VEXO_S3_ENDPOINT=http://127.0.0.1:P  AWS_ACCESS_KEY_ID=...  AWS_SECRET_ACCESS_KEY=...
# P is the gateway's port (default: a free one). `up` waits for the gateway at most
# CEPH_UP_TIMEOUT seconds (default 90) and exits non-zero, with the logs' tails, when it does
# not come. The OSD holds CEPH_MEMSTORE_BYTES of objects in memory (default 1 GiB): writes
# stop when it is full. Needs Debian's ceph-mon, ceph-osd and radosgw (scripts/install-deps.sh).
set -euo pipefail

ACCESS_KEY=VEXOTESTACCESSKEY000
SECRET_KEY=vexo-test-secret-key-0000000000000000000
USER_ID=vexo

die() { printf 'ceph.sh: %s\n' "$*" >&2; exit 2; }

command_name="${1:-}"
[[ -n "${command_name}" ]] || die "usage: ceph.sh up|down|status|gateway-stop|gateway-start [--dir DIR] [--port P]"
shift
DIR=./vexo-ceph
PORT=
while (($#)); do
    case "$1" in
    --dir) DIR="$2"; shift 2 ;;
    --port) PORT="$2"; shift 2 ;;
    *) die "unknown option $1" ;;
    esac
done
mkdir -p "${DIR}"
DIR="$(cd "${DIR}" && pwd)"
CONF="${DIR}/ceph.conf"

free_port() {
    python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'
}

stop_pid_file() {
    local file="$1" pid i
    [[ -f "${file}" ]] || return 0
    pid="$(cat "${file}")"
    if kill -0 "${pid}" 2>/dev/null; then
        kill "${pid}" 2>/dev/null || true
        for i in $(seq 1 50); do
            kill -0 "${pid}" 2>/dev/null || break
            sleep 0.1
        done
        kill -9 "${pid}" 2>/dev/null || true
    fi
    rm -f "${file}"
}

down() {
    stop_pid_file "${DIR}/run/client.rgw.pid"
    stop_pid_file "${DIR}/run/osd.0.pid"
    stop_pid_file "${DIR}/run/mon.a.pid"
    rm -rf "${DIR}/mon" "${DIR}/osd" "${DIR}/run" "${DIR}/s3.env" "${DIR}/ceph.conf" \
        "${DIR}"/*.keyring "${DIR}/monmap"
}

gateway_answers() {
    [[ -f "${DIR}/s3.env" ]] || return 1
    local endpoint
    endpoint="$(sed -n 's/^VEXO_S3_ENDPOINT=//p' "${DIR}/s3.env")"
    curl -s -o /dev/null -m 2 "${endpoint}/"
}

show_logs() {
    local log
    for log in "${DIR}"/log/*.log; do
        [[ -f "${log}" ]] || continue
        printf '==> %s <==\n' "${log}" >&2
        tail -n 15 "${log}" >&2
    done
}

up() {
    for tool in ceph-mon ceph-osd radosgw radosgw-admin ceph monmaptool ceph-authtool; do
        command -v "${tool}" >/dev/null 2>&1 || die "${tool} not found: run scripts/install-deps.sh"
    done
    down
    mkdir -p "${DIR}/mon" "${DIR}/osd/0" "${DIR}/run" "${DIR}/log"
    local fsid mon_port timeout deadline
    fsid="$(cat /proc/sys/kernel/random/uuid)"
    mon_port="$(free_port)"
    [[ -n "${PORT}" ]] || PORT="$(free_port)"
    timeout="${CEPH_UP_TIMEOUT:-90}"
    cat >"${CONF}" <<EOF
[global]
fsid = ${fsid}
mon host = v2:127.0.0.1:${mon_port}
mon initial members = a
public network = 127.0.0.0/8
auth cluster required = none
auth service required = none
auth client required = none
ms bind ipv6 = false
client mount timeout = 30
# No authentication, hence no encryption: "secure" connections need cephx.
ms mon client mode = crc
ms mon service mode = crc
ms mon cluster mode = crc
ms client mode = crc
ms service mode = crc
ms cluster mode = crc
run dir = ${DIR}/run
pid file = ${DIR}/run/\$name.pid
admin socket = ${DIR}/run/\$name.asok
log file = ${DIR}/log/\$name.log
keyring = ${DIR}/\$name.keyring
osd pool default size = 1
osd pool default min size = 1
osd pool default pg num = 8
osd pool default pgp num = 8
osd pool default pg autoscale mode = off
mon allow pool size one = true
mon allow pool delete = true
mon max pg per osd = 1000
mon warn on pool no redundancy = false
# The objects live in memory and the monitor's own store is a few MB: a developer's nearly
# full disk must not keep the monitor from starting (it refuses below 5 % free by default).
mon data avail crit = 1
mon data avail warn = 2
osd crush chooseleaf type = 0
[mon]
mon data = ${DIR}/mon/\$id
[osd]
osd data = ${DIR}/osd/\$id
osd objectstore = memstore
memstore device bytes = ${CEPH_MEMSTORE_BYTES:-1073741824}
osd journal size = 0
[client.rgw]
rgw frontends = beast endpoint=127.0.0.1:${PORT}
rgw data = ${DIR}/rgw
rgw dns name = 127.0.0.1
EOF
    ceph-authtool --create-keyring "${DIR}/mon.keyring" --gen-key -n mon. --cap mon 'allow *' \
        >/dev/null
    monmaptool --create --fsid "${fsid}" --addv a "[v2:127.0.0.1:${mon_port}]" \
        "${DIR}/monmap" >/dev/null
    ceph-mon -c "${CONF}" --mkfs -i a --monmap "${DIR}/monmap" --keyring "${DIR}/mon.keyring"
    ceph-mon -c "${CONF}" -i a
    local osd_uuid
    osd_uuid="$(cat /proc/sys/kernel/random/uuid)"
    ceph -c "${CONF}" --connect-timeout 20 osd new "${osd_uuid}" >/dev/null
    ceph-osd -c "${CONF}" -i 0 --mkfs --osd-uuid "${osd_uuid}" 2>>"${DIR}/log/mkfs.log"
    ceph-osd -c "${CONF}" -i 0
    mkdir -p "${DIR}/rgw"
    # Authentication is off, but the gateway still wants a keyring to read.
    ceph-authtool --create-keyring "${DIR}/client.rgw.keyring" --gen-key -n client.rgw >/dev/null
    radosgw -c "${CONF}" -n client.rgw
    deadline=$((SECONDS + timeout))
    cat >"${DIR}/s3.env" <<EOF
VEXO_S3_ENDPOINT=http://127.0.0.1:${PORT}
AWS_ACCESS_KEY_ID=${ACCESS_KEY}
AWS_SECRET_ACCESS_KEY=${SECRET_KEY}
EOF
    until gateway_answers; do
        if ((SECONDS >= deadline)); then
            show_logs
            die "the gateway did not answer within ${timeout}s"
        fi
        sleep 0.5
    done
    # The user goes in once the gateway has made its pools.
    until radosgw-admin -c "${CONF}" user create --uid "${USER_ID}" --display-name "${USER_ID}" \
        --access-key "${ACCESS_KEY}" --secret-key "${SECRET_KEY}" >/dev/null 2>>"${DIR}/log/user.log"; do
        if ((SECONDS >= deadline)); then
            show_logs
            die "could not create the S3 user within ${timeout}s"
        fi
        sleep 0.5
    done
    cat "${DIR}/s3.env"
}

gateway_start() {
    [[ -f "${CONF}" && -f "${DIR}/s3.env" ]] || die "no cluster in ${DIR}"
    local deadline=$((SECONDS + ${CEPH_UP_TIMEOUT:-90}))
    radosgw -c "${CONF}" -n client.rgw
    until gateway_answers; do
        if ((SECONDS >= deadline)); then
            show_logs
            die "the gateway did not answer again within ${CEPH_UP_TIMEOUT:-90}s"
        fi
        sleep 0.2
    done
}

case "${command_name}" in
up) up ;;
gateway-stop) stop_pid_file "${DIR}/run/client.rgw.pid" ;;
gateway-start) gateway_start ;;
down) down ;;
status)
    gateway_answers || { echo "ceph.sh: the gateway in ${DIR} does not answer" >&2; exit 1; }
    cat "${DIR}/s3.env"
    ;;
*) die "unknown command ${command_name} (up, down, status, gateway-stop or gateway-start)" ;;
esac
