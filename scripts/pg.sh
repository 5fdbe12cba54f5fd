#!/usr/bin/env bash
# A throw-away PostgreSQL server for the tests and for trying --db postgresql://...:
#   scripts/pg.sh start DIR PORT   creates a cluster in DIR (when it has none yet) and starts
#                                  it on 127.0.0.1:PORT, its socket in DIR; waits until it
#                                  takes connections (at most VEXO_PG_WAIT seconds, default 30)
#   scripts/pg.sh stop DIR         stops it (fast: open connections are ended)
#   scripts/pg.sh url PORT         prints the URL to give --db
# The server refuses to run as root, so as root it runs as the user postgres (which the
# Debian package creates); DIR is then handed to that user. Connections from this machine
# need no password (trust), so keep it to tests. Tuned for tests: no fsync.
set -euo pipefail

PG_BIN="${VEXO_PG_BIN:-/usr/lib/postgresql/15/bin}"
WAIT="${VEXO_PG_WAIT:-30}"

die() { printf 'pg.sh: %s\n' "$*" >&2; exit 1; }
usage() { die "usage: pg.sh start DIR PORT | stop DIR | url PORT"; }

as_owner() {
    if [[ "$(id -u)" -eq 0 ]]; then
        runuser -u postgres -- "$@"
    else
        "$@"
    fi
}

start() {
    local dir="$1" port="$2"
    [[ -x "$PG_BIN/initdb" ]] || die "no PostgreSQL in $PG_BIN: run scripts/install-deps.sh"
    [[ "$port" =~ ^[0-9]+$ ]] || die "bad port: $port"
    mkdir -p "$dir"
    if [[ "$(id -u)" -eq 0 ]]; then
        chown postgres: "$dir"
        chmod 700 "$dir"
    fi
    as_owner test -w "$dir" || die "$dir is not reachable by the server's user"
    if [[ ! -f "$dir/data/PG_VERSION" ]]; then
        as_owner "$PG_BIN/initdb" -D "$dir/data" -U postgres --auth=trust -E UTF8 \
            --no-instructions >"$dir/initdb.log" 2>&1 ||
            die "initdb failed: $(tail -5 "$dir/initdb.log")"
    fi
    as_owner "$PG_BIN/pg_ctl" -D "$dir/data" -l "$dir/server.log" -s \
        -o "-c listen_addresses=127.0.0.1 -p $port -k $dir -c fsync=off" start ||
        die "the server did not start: $(tail -5 "$dir/server.log" 2>/dev/null)"
    local waited=0
    until "$PG_BIN/pg_isready" -q -h 127.0.0.1 -p "$port"; do
        if ((waited >= WAIT * 10)); then
            die "the server on port $port is not ready after ${WAIT}s: $(tail -5 "$dir/server.log")"
        fi
        sleep 0.1
        waited=$((waited + 1))
    done
}

stop() {
    local dir="$1"
    [[ -f "$dir/data/postmaster.pid" ]] || return 0
    as_owner "$PG_BIN/pg_ctl" -D "$dir/data" -s -m fast -w stop
}

case "${1:-}" in
start) [[ $# -eq 3 ]] || usage; start "$2" "$3" ;;
stop) [[ $# -eq 2 ]] || usage; stop "$2" ;;
url) [[ $# -eq 2 ]] || usage; printf 'postgresql://postgres@127.0.0.1:%s/postgres\n' "$2" ;;
*) usage ;;
esac
