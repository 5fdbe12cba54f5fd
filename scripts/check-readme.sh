#!/usr/bin/env bash
# Runs the README's network walk-through for real: the ```sh blocks of its sections "The
# cloud on the network" and "A locked-down broker", in order, in one shell, from the
# repository root, against the tools in build/release (scripts/run-camsim.sh builds them).
# The README stays the source: an edit to it is what gets run. Then checks what the run
# left: recordings listed, alarms made, triggers received, exports that ffmpeg decodes.
#
#   scripts/check-readme.sh [README]      (default: the repository's README.md)
#
# Only what must differ on a shared machine is rewritten: the ports 1883, 8080 and 8883
# become free loopback ports, ./vexo-data a temporary directory, and a camera's
# --duration is cut to VEXO_README_CAMERA_S. How the blocks are read:
#   - a command ending in "&" runs in the background; the next command starts once every
#     (rewritten) port it names accepts connections;
#   - "# N. While it runs" after a vexo-camsim command: that camera runs in the background,
#     and once it has printed "[camsim] mqtt connected" (with --mqtt) the commands up to the
#     next "# N." comment run beside it; then the camera must end with status 0;
#   - a comment "# Once ... "TEXT" ..." among those: the next command waits until a
#     background program has printed TEXT since the command before it;
#   - any other command must exit 0.
# Every program it started is stopped on exit, also when a step fails. A failure names the
# README line of the command; the temporary directory is kept then (VEXO_README_KEEP=1
# keeps it always).
#
# Environment:
#   VEXO_README_TIMEOUT=S    bound on the whole run, seconds (default 600)
#   VEXO_README_WAIT_S=S     bound on each wait for a port or a line (default 60)
#   VEXO_README_CAMERA_S=S   longest camera --duration, kit seconds (default 40)
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
README="$(realpath "${1:-${ROOT}/README.md}")"
TIMEOUT_S="${VEXO_README_TIMEOUT:-600}"
WAIT_S="${VEXO_README_WAIT_S:-60}"
CAMERA_S="${VEXO_README_CAMERA_S:-40}"
SECTIONS=("The cloud on the network" "A locked-down broker")
PORTS=(1883 8080 8883)
BUILD="${ROOT}/build/release"
TOOLS=(tools/camsim/vexo-camsim service/http/vexo-cloud tools/media/vexo-media)

# The bound on the whole run: timeout signals this script's process group, whose EXIT
# trap then stops what the README started.
if [[ -z "${VEXO_README_BOUNDED:-}" ]]; then
    export VEXO_README_BOUNDED=1
    exec timeout --kill-after=20 "${TIMEOUT_S}" bash "${BASH_SOURCE[0]}" "${README}"
fi

NAME="$(basename "${README}")"
say() { printf 'check-readme: %s\n' "$*"; }
die() {
    printf 'check-readme: FAILED: %s\n' "$*" >&2
    exit 1
}

for tool in "${TOOLS[@]}"; do
    [[ -x "${BUILD}/${tool}" ]] ||
        die "${BUILD}/${tool} is missing: build it with scripts/run-camsim.sh first"
done
[[ -f "${README}" ]] || die "no README at ${README}"

CURRENT="" # "README.md:LINE: command", while it runs
FAILED=1

stop_pid() { # <pid>: TERM, then KILL if it has not ended within 10 s
    local pid="$1" i
    kill -TERM "${pid}" 2>/dev/null || return 0
    for ((i = 0; i < 100; i++)); do
        kill -0 "${pid}" 2>/dev/null || return 0
        sleep 0.1
    done
    kill -KILL "${pid}" 2>/dev/null || true
}

cleanup() {
    local pid file
    trap - EXIT INT TERM
    for pid in $(jobs -p); do
        stop_pid "${pid}"
    done
    # Brokers that scripts/mosquitto-secure.sh started leave the background themselves.
    while IFS= read -r -d '' file; do
        pid="$(cat "${file}" 2>/dev/null || true)"
        if [[ "${pid}" =~ ^[0-9]+$ && "$(cat "/proc/${pid}/comm" 2>/dev/null)" == mosquitto ]]; then
            stop_pid "${pid}"
        fi
    done < <(find "${WORK}" -name mosquitto.pid -print0 2>/dev/null)
    wait 2>/dev/null || true
    if ((FAILED)) || [[ "${VEXO_README_KEEP:-0}" == 1 ]]; then
        say "logs and data kept in ${WORK}"
    else
        rm -rf "${WORK}"
    fi
}
on_signal() {
    printf 'check-readme: FAILED: stopped by a signal (the %s s bound?)%s\n' "${TIMEOUT_S}" \
        "${CURRENT:+ while running ${CURRENT}}" >&2
    exit 1
}
# ---- the README's blocks, as items: commands, comment paragraphs, block starts -----------

# "block<TAB>LINE<TAB>SECTION" where a wanted block starts, "LINE<TAB>TEXT" for its lines,
# "missing<TAB>SECTION" for a wanted section without a block.
extract() {
    awk -v wanted="$(printf '%s\n' "${SECTIONS[@]}")" '
        BEGIN { n = split(wanted, names, "\n"); for (i = 1; i <= n; i++) want[names[i]] = i - 1 }
        /^[[:space:]]*```/ {
            if (fence) { fence = 0; wanted_block = 0; next }
            fence = 1
            if ($0 ~ /^```sh[[:space:]]*$/ && section != "") {
                wanted_block = 1; found[section] = 1
                printf "block\t%d\t%d\n", NR, want[section]
            }
            next
        }
        fence { if (wanted_block) printf "%d\t%s\n", NR, $0; next }
        /^#+ / { title = $0; sub(/^#+ +/, "", title); section = (title in want) ? title : "" }
        END { for (s in want) if (!(s in found)) print "missing\t" s }
    ' "${README}"
}

KINDS=()    # cmd | note (a comment paragraph, without the "# ") | block
LINES=()    # README line where it starts
TEXTS=()    # the command with its continuation lines joined, or the comment's text
SECTION=()  # index into SECTIONS
section=-1
note="" note_line=0 pending="" pending_line=0
add() {
    KINDS+=("$1")
    LINES+=("$2")
    TEXTS+=("$3")
    SECTION+=("${section}")
}
flush_note() {
    [[ -z "${note}" ]] || add note "${note_line}" "${note}"
    note=""
}

while IFS=$'\t' read -r line text; do
    case "${line}" in
    missing) die "${NAME} has no \`\`\`sh block under the heading \"${text}\"" ;;
    block)
        [[ -z "${pending}" ]] || die "${NAME}:${pending_line}: the command ends in a '\\'"
        flush_note
        section="${text#*$'\t'}"
        add block "${text%%$'\t'*}" ""
        continue
        ;;
    esac
    if [[ -n "${pending}" ]]; then
        pending+=" ${text#"${text%%[![:space:]]*}"}"
    elif [[ "${text}" =~ ^[[:space:]]*#[[:space:]]*(.*)$ ]]; then
        [[ -n "${note}" ]] || note_line="${line}"
        note+="${note:+ }${BASH_REMATCH[1]}"
        continue
    elif [[ "${text}" =~ ^[[:space:]]*$ ]]; then
        flush_note
        continue
    else
        flush_note
        pending="${text}"
        pending_line="${line}"
    fi
    if [[ "${pending}" =~ ^(.*[^[:space:]])[[:space:]]*\\$ ]]; then
        pending="${BASH_REMATCH[1]}"
        continue
    fi
    add cmd "${pending_line}" "${pending}"
    pending=""
done < <(extract)
[[ -z "${pending}" ]] || die "${NAME}:${pending_line}: the command ends in a '\\'"
flush_note
((${#KINDS[@]})) || die "no commands found in ${NAME}"

# ---- rewriting for a shared machine ------------------------------------------------------

WORK="$(mktemp -d "${TMPDIR:-/tmp}/check-readme.XXXXXX")"
mkdir -p "${WORK}/logs"
trap cleanup EXIT
trap on_signal INT TERM

port_is_open() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# Below the kernel's range for outgoing connections and port-0 binds (32768.. by default):
# a client socket there, of the tests running beside this, would make the bind fail.
ephemeral_low="$(awk '{ print $1 }' /proc/sys/net/ipv4/ip_local_port_range 2>/dev/null || true)"
[[ "${ephemeral_low}" =~ ^[0-9]+$ ]] && ((ephemeral_low > 12000)) || ephemeral_low=32768
declare -A NEW_PORT=()
for port in "${PORTS[@]}"; do
    for ((try = 0; try < 200; try++)); do
        candidate=$((10000 + RANDOM % (ephemeral_low - 10000)))
        if ! port_is_open "${candidate}" && [[ " ${NEW_PORT[*]} " != *" ${candidate} "* ]]; then
            NEW_PORT[${port}]="${candidate}"
            break
        fi
    done
    [[ -n "${NEW_PORT[${port}]:-}" ]] || die "found no free loopback port for ${port}"
done

rewrite() { # <command>: the command as it runs here
    local c="$1" port
    c="${c//.\/vexo-data/${WORK}}"
    for port in "${PORTS[@]}"; do
        c="$(sed -E "s/(^|[^0-9])${port}([^0-9]|$)/\\1${NEW_PORT[${port}]}\\2/g" <<<"${c}")"
    done
    if [[ "${c}" == *vexo-camsim* && "${c}" =~ --duration[[:space:]]+([0-9]+) ]] &&
        ((BASH_REMATCH[1] > CAMERA_S)); then
        c="${c/--duration ${BASH_REMATCH[1]}/--duration ${CAMERA_S}}"
    fi
    printf '%s' "${c}"
}

# ---- running -----------------------------------------------------------------------------

declare -A OUT=() ERR=() # README line -> its command's stdout / stderr file
BG_LOGS=()               # the output files of programs in the background
declare -A MARK=()       # such a file -> its size when the last command ended
CAMERA_PID=""            # the camera a "While it runs" step runs beside, its line and command
CAMERA_LINE=""
CAMERA_CMD=""
TRIGGERS_SENT=0         # vexo-cloud trigger / abort commands run beside that camera
ABORTS_SENT=0

fail_at() { # <line> <command> <message>
    local line="$1" cmd="$2" message="$3" f
    printf '\ncheck-readme: FAILED at %s:%s: %s\n  %s\n' "${NAME}" "${line}" "${message}" \
        "${cmd}" >&2
    for f in "${OUT[${line}]:-}" "${ERR[${line}]:-}"; do
        [[ -s "${f}" ]] || continue
        echo "  --- its output (${f}):" >&2
        if (($(wc -l <"${f}") <= 30)); then
            sed 's/^/  | /' "${f}" >&2
        else # the first lines (an error before a usage text) and the last
            { head -n 8 "${f}" && echo "..." && tail -n 22 "${f}"; } | sed 's/^/  | /' >&2
        fi
    done
    exit 1
}

show() { # <file>: a command's output, indented, at most 40 lines
    [[ -s "$1" ]] || return 0
    head -n 40 "$1" | sed 's/^/    /'
    (($(wc -l <"$1") <= 40)) || echo "    ..."
}

mark_background() {
    local f
    for f in "${BG_LOGS[@]}"; do
        MARK[${f}]="$(stat -c %s "${f}" 2>/dev/null || echo 0)"
    done
}

listens() { # <pid> <port>: the process listens on that TCP port
    local hex inode
    hex="$(printf '%04X' "$2")"
    for inode in $(awk -v p=":${hex}" '$2 ~ p "$" && $4 == "0A" { print $10 }' \
        /proc/net/tcp /proc/net/tcp6 2>/dev/null); do
        find "/proc/$1/fd" -lname "socket:\[${inode}\]" 2>/dev/null | grep -q . && return 0
    done
    return 1
}

# A program started in the background is ready when every port its command names accepts
# connections and it listens on one of them itself (so an old one on that port is no help).
wait_until_ready() { # <line> <command> <pid>
    local line="$1" cmd="$2" pid="$3" port i ports=() open own
    for port in "${PORTS[@]}"; do
        [[ "${cmd}" =~ (^|[^0-9])${port}([^0-9]|$) ]] && ports+=("${NEW_PORT[${port}]}")
    done
    ((${#ports[@]})) || return 0
    for ((i = 0; ; i++)); do
        kill -0 "${pid}" 2>/dev/null || fail_at "${line}" "${cmd}" "it ended at once"
        open=1 own=0
        for port in "${ports[@]}"; do
            if ! port_is_open "${port}"; then
                open=0
                break
            fi
            listens "${pid}" "${port}" && own=1
        done
        ((open && own)) && return 0
        ((i < WAIT_S * 10)) ||
            fail_at "${line}" "${cmd}" "not listening on its port within ${WAIT_S} s"
        sleep 0.1
    done
}

wait_for_text() { # <line> <what to name> <text>: a background program prints the text
    local line="$1" what="$2" text="$3" f i
    say "${NAME}:${line}: waiting for \"${text}\""
    CURRENT="${NAME}:${line}: the wait for \"${text}\""
    for ((i = 0; ; i++)); do
        for f in "${BG_LOGS[@]}"; do
            tail -c +"$((${MARK[${f}]:-0} + 1))" "${f}" 2>/dev/null | grep -qF -- "${text}" &&
                return 0
        done
        kill -0 "${CAMERA_PID}" 2>/dev/null ||
            fail_at "${line}" "${what}" "the camera ended before \"${text}\" was printed"
        ((i < WAIT_S * 10)) || fail_at "${line}" "${what}" "no \"${text}\" within ${WAIT_S} s"
        sleep 0.1
    done
}

run_cmd() { # <item>: runs a command item, in the foreground unless it ends in '&'
    local line="${LINES[$1]}" cmd="${TEXTS[$1]}" actual status
    actual="$(rewrite "${cmd}")"
    OUT[${line}]="${WORK}/logs/${line}.out"
    ERR[${line}]="${WORK}/logs/${line}.err"
    CURRENT="${NAME}:${line}: ${cmd}"
    printf '\n%s:%s $ %s\n' "${NAME}" "${line}" "${actual}"
    if [[ -n "${CAMERA_PID}" && "${cmd}" =~ vexo-cloud[[:space:]]+trigger ]]; then
        TRIGGERS_SENT=$((TRIGGERS_SENT + 1))
    elif [[ -n "${CAMERA_PID}" && "${cmd}" =~ vexo-cloud[[:space:]]+abort ]]; then
        ABORTS_SENT=$((ABORTS_SENT + 1))
    fi
    if [[ "${actual}" =~ \&[[:space:]]*$ ]]; then
        eval "${actual}" >"${OUT[${line}]}" 2>"${ERR[${line}]}" </dev/null
        BG_LOGS+=("${OUT[${line}]}" "${ERR[${line}]}")
        wait_until_ready "${line}" "${cmd}" $!
    else
        set +e
        eval "${actual}" >"${OUT[${line}]}" 2>"${ERR[${line}]}" </dev/null
        status=$?
        set -e
        ((status == 0)) || fail_at "${line}" "${cmd}" "exit status ${status}"
        show "${OUT[${line}]}"
        show "${ERR[${line}]}"
    fi
    mark_background
}

start_camera() { # <item>: a camera that the next step's commands run beside
    local line="${LINES[$1]}" cmd="${TEXTS[$1]}" actual
    actual="$(rewrite "${cmd}")"
    OUT[${line}]="${WORK}/logs/${line}.out"
    ERR[${line}]="${WORK}/logs/${line}.err"
    CURRENT="${NAME}:${line}: ${cmd}"
    printf '\n%s:%s $ %s    (in the background: the next step runs beside it)\n' "${NAME}" \
        "${line}" "${actual}"
    eval "exec ${actual}" >"${OUT[${line}]}" 2>"${ERR[${line}]}" </dev/null &
    CAMERA_PID=$!
    CAMERA_LINE="${line}"
    CAMERA_CMD="${cmd}"
    BG_LOGS+=("${OUT[${line}]}" "${ERR[${line}]}")
    if [[ "${cmd}" == *--mqtt* ]]; then
        wait_for_text "${line}" "${cmd}" "[camsim] mqtt connected"
    fi
    mark_background
}

end_camera() { # the camera of a "While it runs" step must end, with status 0
    local status
    [[ -n "${CAMERA_PID}" ]] || return 0
    say "waiting for the camera of ${NAME}:${CAMERA_LINE} to end"
    CURRENT="${NAME}:${CAMERA_LINE}: ${CAMERA_CMD}"
    set +e
    wait "${CAMERA_PID}"
    status=$?
    set -e
    CAMERA_PID=""
    show "${OUT[${CAMERA_LINE}]}"
    ((status == 0)) || fail_at "${CAMERA_LINE}" "${CAMERA_CMD}" "the camera ended with status ${status}"
}

while_it_runs() { [[ "$1" =~ ^[0-9]+\.[[:space:]]+While[[:space:]]+it[[:space:]]+runs ]]; }

cd "${ROOT}"
say "running the sh blocks of \"${SECTIONS[0]}\" and \"${SECTIONS[1]}\" in ${README}"
say "ports 1883 8080 8883 -> ${NEW_PORT[1883]} ${NEW_PORT[8080]} ${NEW_PORT[8883]};" \
    "./vexo-data -> ${WORK}; camera --duration at most ${CAMERA_S}"
for ((i = 0; i < ${#KINDS[@]}; i++)); do
    text="${TEXTS[$i]}"
    case "${KINDS[$i]}" in
    block) end_camera ;;
    note)
        if [[ "${text}" =~ ^[0-9]+\. ]]; then
            end_camera # a new step: the camera of the one before has had its time
            # (One that follows a camera command was taken with it, below.)
            ! while_it_runs "${text}" ||
                die "${NAME}:${LINES[$i]}: \"While it runs\" follows no vexo-camsim command"
        elif [[ -n "${CAMERA_PID}" && "${text}" =~ ^Once[^\"]*\"([^\"]+)\" ]]; then
            wait_for_text "${LINES[$i]}" "# ${text}" "${BASH_REMATCH[1]}"
        fi
        ;;
    cmd)
        next=$((i + 1))
        if ((next < ${#KINDS[@]})) && [[ "${KINDS[${next}]}" == note ]] &&
            while_it_runs "${TEXTS[${next}]}"; then
            [[ "${text}" == *vexo-camsim* ]] ||
                die "${NAME}:${LINES[${next}]}: \"While it runs\" follows no vexo-camsim command"
            start_camera "${i}"
            i="${next}" # its "While it runs" note is taken
        else
            run_cmd "${i}"
        fi
        ;;
    esac
done
end_camera
CURRENT=""

# ---- what the run left -------------------------------------------------------------------

check_failed() {
    printf '\ncheck-readme: FAILED: %s\n' "$*" >&2
    exit 1
}

find_cmd() { # <section index> <regex>: the item of the first command there that matches
    local k
    for ((k = 0; k < ${#KINDS[@]}; k++)); do
        if [[ "${KINDS[$k]}" == cmd && "${SECTION[$k]}" == "$1" && "${TEXTS[$k]}" =~ $2 ]]; then
            printf '%s' "${k}"
            return 0
        fi
    done
    check_failed "the section \"${SECTIONS[$1]}\" of ${NAME} has no command matching '$2'" \
        "any more; scripts/check-readme.sh checks its result (adapt the check to the README)"
}

expect() { # <line> <file> <text> <what it shows>: the command's output holds the text
    grep -qF -- "$3" "$2" ||
        check_failed "${NAME}:$1: $4: \"$3\" is not in its output ($2)"
}

decodes_cleanly() { # <file>: ffmpeg decodes every stream without a complaint
    local errors
    if ! errors="$(ffmpeg -nostdin -v error -i "$1" -f null - 2>&1)" || [[ -n "${errors}" ]]; then
        check_failed "ffmpeg does not decode $1 cleanly: ${errors:-exit status not 0}"
    fi
}

say "checking what the walk-through left"

# The cloud on the network: the camera received what vexo-cloud sent it, the service lists
# recordings and alarms, and the export plays.
item="$(find_cmd 0 'vexo-camsim')"
line="${LINES[${item}]}"
((TRIGGERS_SENT > 0)) ||
    check_failed "no vexo-cloud trigger ran beside the camera of ${NAME}:${line}"
expect "${line}" "${OUT[${line}]}" "; ${TRIGGERS_SENT} remote triggers received" \
    "the camera got each trigger sent while it ran"
if ((ABORTS_SENT > 0)); then
    expect "${line}" "${ERR[${line}]}" "-> no order" "the abort took the camera's order"
fi
item="$(find_cmd 0 'vexo-cloud[[:space:]]+recordings')"
line="${LINES[${item}]}"
expect "${line}" "${OUT[${line}]}" 'KEY MD5' "the service lists the camera's recordings"
if ((ABORTS_SENT > 0)); then
    # Right after the abort the recording reads "open"; "left open by the camera" once the
    # service can tell. Either way it has no end.
    expect "${line}" "${OUT[${line}]}" ' open ' "the aborted recording is left open"
fi
item="$(find_cmd 0 'vexo-cloud[[:space:]]+alarms')"
line="${LINES[${item}]}"
alarms="$(grep -c '"time"' "${OUT[${line}]}" || true)"
((alarms >= TRIGGERS_SENT)) ||
    check_failed "${NAME}:${line}: ${alarms} alarms listed for ${TRIGGERS_SENT} triggers"
expect "${line}" "${OUT[${line}]}" '"withPicture": true' "the picture trigger made an alarm"
item="$(find_cmd 0 'vexo-media[[:space:]]+export')"
line="${LINES[${item}]}"
[[ "$(rewrite "${TEXTS[${item}]}")" =~ --out-dir[[:space:]]+([^[:space:]]+) ]] ||
    check_failed "${NAME}:${line}: the export names no --out-dir"
out_dir="${BASH_REMATCH[1]}"
exports=()
mapfile -t exports < <(find "${out_dir}" -type f \( -name '*.mp4' -o -name '*.mkv' \) | sort)
((${#exports[@]})) || check_failed "${NAME}:${line}: the export wrote no file in ${out_dir}"
for f in "${exports[@]}"; do
    decodes_cleanly "${f}"
    say "  ${f##*/} decodes cleanly ($(ffprobe -v error -show_entries format=duration \
        -of csv=p=0 "${f}") s)"
done

# A locked-down broker: the camera logged in over TLS and its scheduled triggers came back
# to it as commands through the broker.
item="$(find_cmd 1 'vexo-camsim')"
line="${LINES[${item}]}"
expect "${line}" "${ERR[${line}]}" "[camsim] mqtt connected" "the camera logged in to the broker"
scheduled="$(grep -o -- '--trigger' <<<"${TEXTS[${item}]}" | wc -l)"
if ((scheduled > 0)); then
    expect "${line}" "${OUT[${line}]}" \
        "; ${scheduled} remote triggers received (${scheduled} scheduled)" \
        "each trigger came back over the locked-down broker"
fi
grep -Eq '^cloud .*: [1-9][0-9]* recordings$' "${OUT[${line}]}" ||
    check_failed "${NAME}:${line}: the camera's summary lists no recording"

FAILED=0
say "passed: ${#exports[@]} exports decode, ${TRIGGERS_SENT} triggers received over MQTT," \
    "${scheduled} over the locked-down broker"
