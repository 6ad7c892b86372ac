# shellcheck shell=bash
# Sourced by the system tests. Gives each a private installation under $root, with the programs on PATH:
#   $root/bin $root/lib $root/etc $root/data, $work for the test's own files, $socket for the agent.
# shellcheck disable=SC2034 # the tests use what is set here
# The environment: QXP_BUILD (build tree), QXP_KEY and QXP_PUBLIC_KEY (PEM files of the key the build trusts).
set -euo pipefail

root=$(mktemp -d)
work=$root/work
socket=$root/agent.sock
data=$root/data/qxpmaint
log=$root/agent.log
agent=
export QXPAGENT_SOCKET=$socket

mkdir -p "$root/bin" "$root/lib" "$root/etc/plugins/qxpmaint" "$root/etc/trusted-keys" "$work"
cp "$QXP_BUILD/bin/qxpagent" "$QXP_BUILD/bin/qxpctl" "$root/bin/"
cp "$QXP_BUILD/lib/libqxpmaint.so" "$QXP_BUILD/lib/libqxhost.so" "$root/lib/"
printf '[qxpmaint]\ncheckcycle=1\n' >"$root/etc/plugins/qxpmaint/qxpmaint.conf"
PATH=$root/bin:$PATH
cd "$work"

cleanup() {
    local status=$?
    [ -z "$agent" ] || kill -KILL "$agent" 2>/dev/null || true
    if [ "$status" -ne 0 ] && [ -s "$log" ]; then
        echo "--- the end of the agent's log" >&2
        tail -n 25 "$log" | cut -c 1-400 >&2
    fi
    rm -rf "$root"
}
trap cleanup EXIT
trap 'echo "FAILED: ${BASH_SOURCE[0]}:$LINENO: $BASH_COMMAND" >&2' ERR

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# expect WHAT WANTED GOT
expect() { [ "$2" = "$3" ] || fail "$1: wanted '$2', got '$3'"; }

# expect_match WHAT REGEX GOT
expect_match() { [[ $3 =~ $2 ]] || fail "$1: wanted a match of '$2', got '$3'"; }

# exit_code COMMAND...: runs it with its output in $work/out and $work/err, and prints its exit code.
exit_code() {
    local status=0
    "$@" >"$work/out" 2>"$work/err" || status=$?
    echo "$status"
}

# wait_until COMMAND...: until it succeeds; fails after a minute.
wait_until() {
    local deadline=$((SECONDS + 60))
    until "$@"; do
        [ "$SECONDS" -lt "$deadline" ] || fail "waited a minute for: $*"
        sleep 0.05
    done
}

start_agent() {
    qxpagent --socket "$socket" --log "$log" &
    agent=$!
    wait_until agent_answers
}
agent_answers() {
    kill -0 "$agent" 2>/dev/null || fail "the agent ended"
    api http://agent/v1/status >/dev/null 2>&1
}

# stop_agent SIGNAL: leaves the exit code of the agent in $exit_status.
stop_agent() {
    kill "-$1" "$agent"
    local status=0
    wait "$agent" || status=$?
    agent=
    exit_status=$status
}

api() { curl --silent --show-error --max-time 90 --unix-socket "$socket" "$@"; }

# gone PID: true when the process has ended, if only its parent has not noticed yet.
gone() { [[ ! -e /proc/$1 || $(sed 's/.*) //' "/proc/$1/stat" 2>/dev/null) == [ZX]* ]]; }

# script NAME BODY: writes an executable script.
script() {
    printf '%s\n' "$2" >"$work/$1"
    chmod +x "$work/$1"
}
