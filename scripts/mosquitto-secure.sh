#!/usr/bin/env bash
# A locked-down mosquitto broker for vexo-cloud and its cameras, on a loopback port: TLS only,
# no anonymous clients, a login for the service and one per device, and an ACL by which a
# device may only read its own command topic and only the service may publish commands.
#
#   scripts/mosquitto-secure.sh write DIR PORT SERVICE_USER DEVICE...
#       Writes DIR/mosquitto.conf, DIR/passwd (hashed) and DIR/acl. Each login's password
#       is DIR/users/NAME.password (made at random when missing; pass it to vexo-cloud and
#       vexo-camsim with --mqtt-password-file). The broker's certificate is DIR/server.crt
#       with its key DIR/server.key, made self-signed for 127.0.0.1 when missing; clients
#       trust it with --mqtt-ca DIR/server.crt. A device's login is its device id.
#   scripts/mosquitto-secure.sh start DIR PORT SERVICE_USER DEVICE...
#       write, then runs mosquitto in the background (log DIR/mosquitto.log).
#   scripts/mosquitto-secure.sh stop DIR
#       Ends the broker that start began.
# With VEXO_MQTT_REQUIRE_CERTIFICATE=1, clients must also show a certificate that an
# authority in DIR/server.crt signed (append further authorities to that file).
#
# The tests write the same files with "write" and run mosquitto -c DIR/mosquitto.conf
# themselves, so a person and the tests use one configuration.
set -euo pipefail

MOSQUITTO="${MOSQUITTO:-/usr/sbin/mosquitto}"
START_TIMEOUT_S=10

die() {
    echo "mosquitto-secure: $*" >&2
    exit 2
}

usage() {
    sed -n '2,19p' "${BASH_SOURCE[0]}" | sed 's/^# \{0,1\}//' >&2
    exit 2
}

# Names end up in topic patterns and the password file: the device id alphabet only.
check_name() {
    [[ "$1" =~ ^[A-Za-z0-9._-]{1,63}$ ]] || die "bad login name '$1' (1..63 of A-Z a-z 0-9 . _ -)"
}

make_certificate() {
    local dir="$1"
    command -v openssl >/dev/null || die "openssl is needed to make ${dir}/server.crt"
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 365 \
        -subj "/CN=127.0.0.1" -addext "subjectAltName=IP:127.0.0.1,DNS:localhost" \
        -addext "basicConstraints=critical,CA:TRUE" \
        -keyout "${dir}/server.key" -out "${dir}/server.crt" 2>/dev/null ||
        die "openssl could not make ${dir}/server.crt"
}

random_password() {
    head -c 24 /dev/urandom | base64 | tr -d '/+=\n'
    echo
}

write_files() {
    local dir="$1" port="$2" service="$3"
    shift 3
    if [[ ! "${port}" =~ ^[0-9]{1,5}$ ]] || ((10#${port} < 1 || 10#${port} > 65535)); then
        die "bad port '${port}'"
    fi
    port=$((10#${port}))
    check_name "${service}"
    (($# > 0)) || die "name at least one device"
    local name
    for name in "$@"; do
        check_name "${name}"
        [[ "${name}" != "${service}" ]] || die "a device may not use the service's login '${name}'"
    done
    command -v mosquitto_passwd >/dev/null || die "mosquitto_passwd not found (package mosquitto)"

    umask 077
    mkdir -p "${dir}/users"
    dir="$(cd "${dir}" && pwd)"
    if [[ ! -s "${dir}/server.crt" || ! -s "${dir}/server.key" ]]; then
        make_certificate "${dir}"
    fi

    # The password file is written in plain text and hashed in place, so that no password
    # appears on a command line.
    : >"${dir}/passwd"
    for name in "${service}" "$@"; do
        local file="${dir}/users/${name}.password"
        [[ -s "${file}" ]] || random_password >"${file}"
        printf '%s:%s\n' "${name}" "$(head -n 1 "${file}")" >>"${dir}/passwd"
    done
    mosquitto_passwd -U "${dir}/passwd" || die "mosquitto_passwd could not hash ${dir}/passwd"

    cat >"${dir}/acl" <<EOF
# The service publishes every device's commands and reads nothing.
user ${service}
topic write vexo/+/cmd

# Any other login is a device whose login is its device id: it reads its own commands and
# publishes nothing.
pattern read vexo/%u/cmd
EOF

    cat >"${dir}/mosquitto.conf" <<EOF
# Written by scripts/mosquitto-secure.sh. The one listener comes first: a listener setting
# above it would make mosquitto open its default, plain listener on port 1883 as well.
listener ${port} 127.0.0.1
cafile ${dir}/server.crt
certfile ${dir}/server.crt
keyfile ${dir}/server.key
tls_version tlsv1.2
require_certificate $([[ "${VEXO_MQTT_REQUIRE_CERTIFICATE:-0}" == 1 ]] && echo true || echo false)
# The login is the client id: nobody can take over (or throw out) another login's session.
use_username_as_clientid true

per_listener_settings false
allow_anonymous false
password_file ${dir}/passwd
acl_file ${dir}/acl

# Sessions and queued commands survive a restart.
persistence true
persistence_location ${dir}/
pid_file ${dir}/mosquitto.pid
# Run as root it would switch to the mosquitto user, which may not read DIR.
user $(id -un)
log_dest stderr
log_dest file ${dir}/mosquitto.log
log_type error
log_type warning
log_type notice
log_type information
EOF
}

start() {
    local dir="$1"
    write_files "$@"
    dir="$(cd "${dir}" && pwd)"
    if [[ -s "${dir}/mosquitto.pid" ]] && kill -0 "$(cat "${dir}/mosquitto.pid")" 2>/dev/null; then
        die "a broker from ${dir} runs already (pid $(cat "${dir}/mosquitto.pid"))"
    fi
    : >"${dir}/mosquitto.log"
    "${MOSQUITTO}" -c "${dir}/mosquitto.conf" -d || die "mosquitto did not start: $(cat "${dir}/mosquitto.log")"
    local waited=0
    until grep -q " running" "${dir}/mosquitto.log"; do
        ((waited < START_TIMEOUT_S * 10)) || die "mosquitto is not running: $(cat "${dir}/mosquitto.log")"
        sleep 0.1
        waited=$((waited + 1))
    done
    echo "mosquitto-secure: broker on mqtts://127.0.0.1:$2 (pid $(cat "${dir}/mosquitto.pid"))"
    echo "  CA file:   ${dir}/server.crt"
    echo "  passwords: ${dir}/users/<login>.password (service login '$3', devices: ${*:4})"
}

stop() {
    local dir="$1" pid
    [[ -s "${dir}/mosquitto.pid" ]] || die "no ${dir}/mosquitto.pid: nothing to stop"
    pid="$(cat "${dir}/mosquitto.pid")"
    kill "${pid}" 2>/dev/null || die "no broker with pid ${pid} runs"
    local waited=0
    while kill -0 "${pid}" 2>/dev/null; do
        ((waited < START_TIMEOUT_S * 10)) || die "mosquitto (pid ${pid}) does not end"
        sleep 0.1
        waited=$((waited + 1))
    done
    rm -f "${dir}/mosquitto.pid"
}

case "${1:-}" in
write)
    (($# >= 5)) || usage
    write_files "${@:2}"
    ;;
start)
    (($# >= 5)) || usage
    start "${@:2}"
    ;;
stop)
    (($# == 2)) || usage
    stop "$2"
    ;;
*) usage ;;
esac
