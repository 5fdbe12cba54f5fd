#!/usr/bin/env bash
# The whole service on one machine, on loopback: PostgreSQL (scripts/pg.sh) for the metadata,
# a one-node Ceph gateway (scripts/ceph.sh) for the media, three NATS nodes (scripts/nats.sh)
# as the MQTT broker, N vexo-cloud instances sharing all three, and HAProxy in front of them
# (round robin, no stickiness: with the metadata and the media shared, any instance serves
# any request).
#
#   scripts/cluster.sh up     [--dir DIR] [--instances N] [--build DIR]
#       Starts every piece on free ports, waits for each (bounded) and writes DIR/cluster.env:
#         VEXO_CLUSTER_URL   HAProxy, the URL cameras and admin commands use
#         VEXO_CLOUD_URLS    the instances' own URLs, space-separated; VEXO_CLOUD_PIDS theirs
#         VEXO_ADMIN_TOKEN   the instances' --admin-token
#         VEXO_DB_URL VEXO_MEDIA_URL VEXO_S3_ENDPOINT AWS_ACCESS_KEY_ID AWS_SECRET_ACCESS_KEY
#         NATS_MQTT_URLS     the broker list for --mqtt;  VEXO_HAPROXY_PID
#   scripts/cluster.sh down   [--dir DIR]    stops everything up started (also a partial up)
#   scripts/cluster.sh status [--dir DIR]    one line per piece
# DIR defaults to ./vexo-cluster, N to 2, the build directory (holding service/http/vexo-cloud)
# to build/release. Needs haproxy, PostgreSQL, Ceph and nats-server
# (scripts/install-deps.sh).
set -euo pipefail

HERE="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
HAPROXY="${HAPROXY:-$(command -v haproxy || echo /usr/sbin/haproxy)}"
WAIT_S=30
BUCKET=vexo-media

die() {
    echo "cluster: $*" >&2
    exit 2
}
say() { echo "cluster: $*"; }

usage() {
    sed -n '2,20p' "${BASH_SOURCE[0]}" | sed 's/^# \{0,1\}//' >&2
    exit 2
}

command_name="${1:-}"
[[ -n "$command_name" ]] || usage
shift
DIR=./vexo-cluster
INSTANCES=2
BUILD=build/release
while (($#)); do
    case "$1" in
    --dir) DIR="$2"; shift 2 ;;
    --instances) INSTANCES="$2"; shift 2 ;;
    --build) BUILD="$2"; shift 2 ;;
    -h | --help) usage ;;
    *) die "unknown option $1" ;;
    esac
done
[[ "$INSTANCES" =~ ^[1-9][0-9]?$ ]] || die "--instances takes 1..99, not $INSTANCES"

free_port() {
    python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'
}

alive() {
    local state
    state="$(ps -o stat= -p "$1" 2>/dev/null)" || return 1
    [[ -n "$state" && "$state" != Z* ]]
}

# Ends pid with SIGTERM, SIGKILL after 10 s.
stop_pid() {
    local pid="$1"
    alive "$pid" || return 0
    kill -TERM "$pid" 2>/dev/null || true
    for _ in $(seq 1 100); do
        alive "$pid" || return 0
        sleep 0.1
    done
    kill -KILL "$pid" 2>/dev/null || true
}

find_cloud() {
    local candidate
    for candidate in "$BUILD/service/http/vexo-cloud" "$BUILD/vexo-cloud" "$BUILD/bin/vexo-cloud"; do
        [[ -x "$candidate" ]] && { echo "$candidate"; return 0; }
    done
    command -v vexo-cloud || die "no vexo-cloud in $BUILD (build it, or give --build DIR)"
}

env_value() {
    sed -n "s/^$2=//p" "$1" 2>/dev/null | head -n 1
}

# Waits until url answers HTTP at all (any status), at most WAIT_S seconds.
wait_http() {
    local url="$1" deadline=$((SECONDS + WAIT_S))
    until curl -s -o /dev/null -m 2 "$url"; do
        ((SECONDS < deadline)) || return 1
        sleep 0.1
    done
}

cmd_up() {
    [[ -x "$HAPROXY" ]] || die "haproxy not found: run scripts/install-deps.sh"
    local cloud
    cloud="$(find_cloud)"
    cloud="$(cd "$(dirname "$cloud")" && pwd)/$(basename "$cloud")"
    mkdir -p "$DIR"
    DIR="$(cd "$DIR" && pwd)"
    if [[ -f "$DIR/pids" ]]; then
        while read -r _ pid; do
            alive "$pid" && die "a cluster already runs from $DIR (down first)"
        done <"$DIR/pids"
    fi
    : >"$DIR/pids"
    rm -f "$DIR/cluster.env"
    # From here on a failure takes down what was started.
    trap 'echo "cluster: up failed, stopping what was started" >&2; cmd_down >/dev/null 2>&1 || true' ERR

    local pg_port
    pg_port="$(free_port)"
    say "starting PostgreSQL on 127.0.0.1:$pg_port"
    "$HERE/pg.sh" start "$DIR/pg" "$pg_port" || false
    echo "pg $pg_port" >>"$DIR/pids"
    local db_url
    db_url="$("$HERE/pg.sh" url "$pg_port")"

    say "starting the Ceph gateway (about 15 s)"
    "$HERE/ceph.sh" up --dir "$DIR/ceph" >"$DIR/ceph.out" 2>&1 || { cat "$DIR/ceph.out" >&2; false; }
    echo "ceph 0" >>"$DIR/pids"
    local s3_endpoint access secret
    s3_endpoint="$(env_value "$DIR/ceph/s3.env" VEXO_S3_ENDPOINT)"
    access="$(env_value "$DIR/ceph/s3.env" AWS_ACCESS_KEY_ID)"
    secret="$(env_value "$DIR/ceph/s3.env" AWS_SECRET_ACCESS_KEY)"
    local media_url="s3://$BUCKET?endpoint=$s3_endpoint&region=us-east-1"

    say "starting three NATS nodes"
    # Twelve ports picked free before the nodes bind them: another program on the machine
    # may take one meanwhile, so a failed start is tried again on fresh ports.
    local attempt
    for attempt in 1 2 3; do
        "$HERE/nats.sh" up --dir "$DIR/nats" >"$DIR/nats.out" 2>&1 && break
        "$HERE/nats.sh" down --dir "$DIR/nats" >/dev/null 2>&1 || true
        ((attempt < 3)) || { cat "$DIR/nats.out" >&2; false; }
        say "the NATS nodes did not start (attempt $attempt: $(grep -m1 FTL "$DIR"/nats/n*.log 2>/dev/null | tail -c 120)); again"
    done
    echo "nats 0" >>"$DIR/pids"
    local mqtt_urls
    mqtt_urls="$(env_value "$DIR/nats/nats.env" NATS_MQTT_URLS)"

    local token
    token="$(od -An -N16 -tx1 /dev/urandom | tr -d ' \n')"
    local urls="" pids="" servers=""
    # One after the other: the first creates the bucket and brings the schema up to date.
    for i in $(seq 1 "$INSTANCES"); do
        local port
        port="$(free_port)"
        say "starting vexo-cloud $i on 127.0.0.1:$port"
        mkdir -p "$DIR/cloud$i"
        AWS_ACCESS_KEY_ID="$access" AWS_SECRET_ACCESS_KEY="$secret" \
            setsid "$cloud" serve --listen "127.0.0.1:$port" --data "$DIR/cloud$i" \
            --db "$db_url" --media "$media_url" --mqtt "$mqtt_urls" --admin-token "$token" \
            >"$DIR/cloud$i.log" 2>&1 </dev/null &
        local pid=$!
        echo "cloud$i $pid" >>"$DIR/pids"
        local deadline=$((SECONDS + WAIT_S))
        until grep -q "listening on" "$DIR/cloud$i.log"; do
            alive "$pid" || { tail -20 "$DIR/cloud$i.log" >&2; die "vexo-cloud $i ended at start"; }
            ((SECONDS < deadline)) || { tail -20 "$DIR/cloud$i.log" >&2; die "vexo-cloud $i did not start"; }
            sleep 0.1
        done
        urls+="${urls:+ }http://127.0.0.1:$port"
        pids+="${pids:+ }$pid"
        servers+="    server cloud$i 127.0.0.1:$port check"$'\n'
    done

    local lb_port
    lb_port="$(free_port)"
    say "starting HAProxy on 127.0.0.1:$lb_port"
    # Health checks every 500 ms, down after two misses: a dead instance leaves the rotation
    # within about a second. Any HTTP answer counts as alive: an instance whose database or
    # gateway is away answers 503 itself, and the camera reads that as an outage either way.
    # A request whose connection fails is sent to another instance (retries + redispatch);
    # the client and server timeouts leave room for multi-MB uploads on a slow link.
    cat >"$DIR/haproxy.cfg" <<EOF
global
    maxconn 4096
defaults
    mode http
    log global
    option dontlognull
    option http-keep-alive
    retries 3
    option redispatch 1
    timeout connect 2s
    timeout client 120s
    timeout server 120s
    timeout http-request 30s
    timeout http-keep-alive 10s
    timeout queue 10s
frontend vexo
    bind 127.0.0.1:$lb_port
    default_backend clouds
backend clouds
    balance roundrobin
    option httpchk GET /
    http-check expect rstatus ^[1-5][0-9][0-9]\$
    default-server inter 500ms fall 2 rise 2
    retry-on conn-failure empty-response response-timeout
$servers
EOF
    "$HAPROXY" -c -q -f "$DIR/haproxy.cfg" || die "HAProxy rejects $DIR/haproxy.cfg"
    setsid "$HAPROXY" -f "$DIR/haproxy.cfg" -db >"$DIR/haproxy.log" 2>&1 </dev/null &
    local lb_pid=$!
    echo "haproxy $lb_pid" >>"$DIR/pids"
    wait_http "http://127.0.0.1:$lb_port/" || { cat "$DIR/haproxy.log" >&2; die "HAProxy does not answer"; }
    trap - ERR

    cat >"$DIR/cluster.env.tmp" <<EOF
VEXO_CLUSTER_URL=http://127.0.0.1:$lb_port
VEXO_CLOUD_URLS="$urls"
VEXO_CLOUD_PIDS="$pids"
VEXO_ADMIN_TOKEN=$token
VEXO_DB_URL=$db_url
VEXO_MEDIA_URL="$media_url"
VEXO_S3_ENDPOINT=$s3_endpoint
AWS_ACCESS_KEY_ID=$access
AWS_SECRET_ACCESS_KEY=$secret
NATS_MQTT_URLS=$mqtt_urls
VEXO_HAPROXY_PID=$lb_pid
EOF
    mv "$DIR/cluster.env.tmp" "$DIR/cluster.env"
    say "up; $DIR/cluster.env:"
    cat "$DIR/cluster.env"
    cat <<EOF

Use it (set -a; . $DIR/cluster.env; set +a):
  vexo-camsim --cloud "\$VEXO_CLUSTER_URL" --mqtt "\$NATS_MQTT_URLS" --admin-token "\$VEXO_ADMIN_TOKEN" --device cam1 ...
  VEXO_CLOUD_URL="\$VEXO_CLUSTER_URL" vexo-cloud recordings cam1 --admin-token "\$VEXO_ADMIN_TOKEN"
  vexo-media verify --db "\$VEXO_DB_URL" --media "\$VEXO_MEDIA_URL" --data $DIR/cloud1 --device cam1
  scripts/cluster.sh down --dir $DIR
EOF
}

cmd_down() {
    mkdir -p "$DIR"
    DIR="$(cd "$DIR" && pwd)"
    [[ -f "$DIR/pids" ]] || { say "nothing started from $DIR"; return 0; }
    # The front first, the shared stores last.
    local name pid
    while read -r name pid; do
        case "$name" in
        haproxy | cloud*) stop_pid "$pid" ;;
        esac
    done < <(tac "$DIR/pids")
    if grep -q '^nats ' "$DIR/pids" || [[ -f "$DIR/nats/nats.env" ]]; then
        "$HERE/nats.sh" down --dir "$DIR/nats" >/dev/null 2>&1 || true
    fi
    [[ -d "$DIR/ceph" ]] && { "$HERE/ceph.sh" down --dir "$DIR/ceph" >/dev/null 2>&1 || true; }
    [[ -d "$DIR/pg" ]] && { "$HERE/pg.sh" stop "$DIR/pg" >/dev/null 2>&1 || true; }
    rm -f "$DIR/pids" "$DIR/cluster.env"
    say "stopped"
}

cmd_status() {
    DIR="$(cd "$DIR" 2>/dev/null && pwd)" || die "no cluster in $DIR"
    [[ -f "$DIR/cluster.env" ]] || die "no cluster in $DIR (no cluster.env)"
    local ok=0 line
    if pg_isready_cmd "$(env_value "$DIR/cluster.env" VEXO_DB_URL)"; then
        echo "postgresql  running  $(env_value "$DIR/cluster.env" VEXO_DB_URL)"
    else
        echo "postgresql  down"; ok=1
    fi
    if "$HERE/ceph.sh" status --dir "$DIR/ceph" >/dev/null 2>&1; then
        echo "gateway     running  $(env_value "$DIR/cluster.env" VEXO_S3_ENDPOINT)"
    else
        echo "gateway     down"; ok=1
    fi
    while read -r line; do
        echo "nats        $line"
        [[ "$line" == *"not running"* ]] && ok=1
    done < <("$HERE/nats.sh" status --dir "$DIR/nats" 2>&1 || true)
    local name pid
    while read -r name pid; do
        [[ "$name" == cloud* || "$name" == haproxy ]] || continue
        if alive "$pid"; then
            printf '%-11s running  pid %s\n' "$name" "$pid"
        else
            printf '%-11s down\n' "$name"; ok=1
        fi
    done <"$DIR/pids"
    return $ok
}

pg_isready_cmd() {
    local bin="${VEXO_PG_BIN:-/usr/lib/postgresql/15/bin}/pg_isready"
    "$bin" -q -d "$1"
}

case "$command_name" in
up) cmd_up ;;
down) cmd_down ;;
status) cmd_status ;;
*) die "unknown command $command_name (up, down or status)" ;;
esac
