#!/usr/bin/env bash
# A three-node NATS cluster on loopback for trying the camera and the service against a
# broker other than mosquitto: Debian's nats-server 2.9 with JetStream and the MQTT listener
# on every node (MQTT 3.1.1, QoS 0 and 1; sessions and queued QoS 1 messages live in
# JetStream streams replicated to all three nodes, so one node can die without losing them).
#
#   scripts/nats.sh up [--dir DIR]
#       Picks free loopback ports, writes DIR/nN.conf, starts the three nodes (logs
#       DIR/nN.log, JetStream stores DIR/nN/) and waits until they are routed to each other
#       and JetStream answers. Writes DIR/nats.env and prints it: each node's MQTT URL,
#       monitoring URL and pid, and NATS_MQTT_URLS, the comma-separated list that
#       vexo-camsim --mqtt takes.
#   scripts/nats.sh down [--dir DIR]
#       Ends the nodes that up started (SIGTERM, then SIGKILL).
#   scripts/nats.sh status [--dir DIR]
#       One line per node: running or not, and the routes it has.
# DIR defaults to ./nats-cluster.
set -euo pipefail

NATS_SERVER="${NATS_SERVER:-$(command -v nats-server || echo /usr/sbin/nats-server)}"
NODES=3
UP_TIMEOUT_S=30
DOWN_TIMEOUT_S=10

die() {
    echo "nats: $*" >&2
    exit 2
}

usage() {
    sed -n '2,20p' "${BASH_SOURCE[0]}" | sed 's/^# \{0,1\}//' >&2
    exit 2
}

# A loopback port nothing listens on and that this run has not handed out yet.
TAKEN=" "
free_port() {
    local port
    for _ in $(seq 1 200); do
        port=$((20000 + RANDOM % 40000))
        [[ "$TAKEN" == *" $port "* ]] && continue
        if [[ -z "$(ss -Hltn "sport = :$port")" ]]; then
            TAKEN+="$port "
            echo "$port"
            return 0
        fi
    done
    die "no free loopback port found"
}

# The value of "key" (a number) in a monitoring endpoint's JSON, or nothing.
json_number() {
    sed -n "s/.*\"$2\": *\([0-9][0-9]*\).*/\1/p" <<<"$1" | head -n 1
}

routes_of() {
    local body
    body="$(curl -fsS --max-time 2 "$1/routez" 2>/dev/null)" || return 1
    json_number "$body" num_routes
}

healthy() {
    curl -fsS --max-time 2 "$1/healthz" 2>/dev/null | grep -q '"ok"'
}

# Whether pid runs; a node killed from outside can stay a zombie until its parent reaps it.
alive() {
    local state
    state="$(ps -o stat= -p "$1" 2>/dev/null)" || return 1
    [[ -n "$state" && "$state" != Z* ]]
}

load_env() {
    [[ -f "$DIR/nats.env" ]] || die "no cluster in $DIR (no nats.env)"
    # shellcheck disable=SC1091
    source "$DIR/nats.env"
}

cmd_up() {
    [[ -x "$NATS_SERVER" ]] || die "nats-server not found: run scripts/install-deps.sh"
    if [[ -f "$DIR/nats.env" ]]; then
        load_env
        for i in $(seq 1 "$NODES"); do
            local pid_var="NATS_N${i}_PID"
            alive "${!pid_var}" && die "a cluster already runs from $DIR (down first)"
        done
    fi
    mkdir -p "$DIR"
    DIR="$(cd "$DIR" && pwd)"
    # A port found free can be taken by someone else before a node binds it (tests start
    # servers side by side): such a start is stopped and tried again on new ports.
    local attempt
    for attempt in 1 2 3; do
        start_nodes && return 0
        cmd_down >/dev/null 2>&1 || true
        echo "nats: a port was taken before its node bound it (attempt $attempt); again" >&2
    done
    die "the nodes lost their ports three times"
}

# Starts the nodes and waits for the cluster; returns 1 when a node lost a port to someone
# else, dies on any other failure.
start_nodes() {
    local client_ports=() cluster_ports=() mqtt_ports=() http_ports=()
    for i in $(seq 1 "$NODES"); do
        client_ports+=("$(free_port)")
        cluster_ports+=("$(free_port)")
        mqtt_ports+=("$(free_port)")
        http_ports+=("$(free_port)")
    done
    local routes=""
    for i in $(seq 0 $((NODES - 1))); do
        routes+="    nats-route://127.0.0.1:${cluster_ports[$i]}"$'\n'
    done
    local env="$DIR/nats.env.tmp" urls=""
    : >"$env"
    for i in $(seq 1 "$NODES"); do
        local k=$((i - 1)) name="n$i"
        mkdir -p "$DIR/$name"
        # server_name and a cluster name are what JetStream needs in a cluster; the MQTT
        # listener needs JetStream. Three replicas of the MQTT streams: every node holds
        # the sessions, and two of three keep a quorum when one dies.
        cat >"$DIR/$name.conf" <<EOF
server_name: $name
listen: 127.0.0.1:${client_ports[$k]}
http: 127.0.0.1:${http_ports[$k]}
jetstream {
  store_dir: "$DIR/$name"
}
cluster {
  name: vexo
  listen: 127.0.0.1:${cluster_ports[$k]}
  routes: [
$routes  ]
}
mqtt {
  listen: 127.0.0.1:${mqtt_ports[$k]}
  stream_replicas: $NODES
}
EOF
        setsid "$NATS_SERVER" -c "$DIR/$name.conf" >"$DIR/$name.log" 2>&1 </dev/null &
        local pid=$!
        local url="mqtt://127.0.0.1:${mqtt_ports[$k]}"
        urls+="${urls:+,}$url"
        {
            echo "NATS_N${i}_MQTT=$url"
            echo "NATS_N${i}_MONITOR=http://127.0.0.1:${http_ports[$k]}"
            echo "NATS_N${i}_PID=$pid"
        } >>"$env"
    done
    echo "NATS_MQTT_URLS=$urls" >>"$env"
    mv "$env" "$DIR/nats.env"
    load_env
    # Formed: every node routed to the other two, and JetStream (which the MQTT listener
    # keeps its sessions in) healthy on each.
    local deadline=$((SECONDS + UP_TIMEOUT_S))
    while true; do
        local ready=0
        for i in $(seq 1 "$NODES"); do
            local mon_var="NATS_N${i}_MONITOR" pid_var="NATS_N${i}_PID"
            if ! alive "${!pid_var}"; then
                grep -q 'address already in use' "$DIR/n$i.log" && return 1
                cat "$DIR/n$i.log" >&2
                cmd_down >/dev/null 2>&1 || true # the nodes that did start
                die "node n$i ended at start (log above)"
            fi
            local n
            n="$(routes_of "${!mon_var}" || true)"
            if [[ "${n:-0}" -ge $((NODES - 1)) ]] && healthy "${!mon_var}"; then
                ready=$((ready + 1))
            fi
        done
        [[ $ready -eq $NODES ]] && break
        if ((SECONDS >= deadline)); then
            cmd_down >/dev/null 2>&1 || true
            die "the cluster did not form within ${UP_TIMEOUT_S} s (logs in $DIR)"
        fi
        sleep 0.2
    done
    cat "$DIR/nats.env"
}

cmd_down() {
    load_env
    local pids=()
    for i in $(seq 1 "$NODES"); do
        local pid_var="NATS_N${i}_PID"
        if alive "${!pid_var}"; then
            kill -TERM "${!pid_var}" 2>/dev/null || true
            pids+=("${!pid_var}")
        fi
    done
    local deadline=$((SECONDS + DOWN_TIMEOUT_S))
    for pid in "${pids[@]}"; do
        while alive "$pid" && ((SECONDS < deadline)); do
            sleep 0.1
        done
        kill -KILL "$pid" 2>/dev/null || true
    done
    echo "nats: stopped ${#pids[@]} node(s)"
}

cmd_status() {
    load_env
    local down=0
    for i in $(seq 1 "$NODES"); do
        local pid_var="NATS_N${i}_PID" mon_var="NATS_N${i}_MONITOR" mqtt_var="NATS_N${i}_MQTT"
        if alive "${!pid_var}"; then
            echo "n$i ${!mqtt_var} pid ${!pid_var}: running, $(routes_of "${!mon_var}" || echo '?') routes"
        else
            echo "n$i ${!mqtt_var} pid ${!pid_var}: not running"
            down=1
        fi
    done
    return $down
}

[[ $# -ge 1 ]] || usage
COMMAND="$1"
shift
DIR="./nats-cluster"
while [[ $# -gt 0 ]]; do
    case "$1" in
    --dir)
        [[ $# -ge 2 ]] || usage
        DIR="$2"
        shift 2
        ;;
    *) usage ;;
    esac
done
case "$COMMAND" in
up) cmd_up ;;
down) cmd_down ;;
status) cmd_status ;;
*) usage ;;
esac
