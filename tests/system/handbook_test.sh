#!/usr/bin/env bash
# The examples of the handbook, pasted from top to bottom on a fresh installation.
# shellcheck disable=SC2016
docs=$(cd "$(dirname "$0")/../../docs" && pwd)
# shellcheck source=tests/system/lib.sh
. "$(dirname "$0")/lib.sh"
socket=$root/data/qxpagent/agent.sock

# read_examples DOCUMENT: N.command and N.shown for each line of its console blocks that begins with "$ ".
read_examples() {
    awk '
        function fail(why) { print "line " FNR ": " why > "/dev/stderr"; failed = 1; exit 1 }
        /^```/ { block = block == "" ? ($0 == "```" ? "plain" : substr($0, 4)) : ""; shown = ""; next }
        block != "console" && block != "" && /(curl|qxpctl) / { fail("an example that no test runs: " $0) }
        block != "console" { next }
        sub(/^\$ /, "") { print > (++count ".command"); shown = count ".shown"; printf "" > shown; next }
        shown == "" { fail("a block that begins without a command") }
        { print > shown }
        END { if (!failed && count == 0) fail("no examples") }
    ' "$1"
}

# run_examples: in one shell, as a person would; N.got is what each printed, N.status its exit code.
run_examples() {
    local n
    for ((n = 1; ; n++)); do
        [ -e "$n.command" ] || break
        printf 'exec >%s.got 2>&1\n%s\necho $? >%s.status\n' "$n" "$(cat "$n.command")" "$n"
    done >walk
    env -u QXPAGENT_SOCKET PATH="${PATH#"$root/bin:"}" QXPMAINT="$root" bash walk
}

# comparable FILE: its text without what no two runs have in common. What is masked keeps its type and form.
comparable() {
    jq -S '
        def masked($key):
            if type == "number" and ($key | IN("cursor", "last_cursor", "sequence", "last_sequence", "uptime_seconds",
                "bytes", "uid", "gid", "pid")) then "NUMBER"
            elif type != "string" then .
            elif $key | IN("user", "version", "plugin_version") then "TEXT"
            elif $key == "sha256" then sub("^[0-9a-f]{64}$"; "SHA-256")
            elif $key == "run_runningtime" then sub("^[0-9]+$"; "NUMBER")
            else gsub("[0-9]{4}-[0-9]{2}-[0-9]{2}[T ][0-9]{2}:[0-9]{2}:[0-9]{2}([.][0-9]{3}[+-][0-9]{2}:[0-9]{2})?"; "TIME")
                | gsub("[0-9]{18}[.]sh"; "NUMBER.sh") end;
        walk(if type == "object" then with_entries(.key as $key | .value |= masked($key)) else . end)
    ' "$1" 2>/dev/null || cat "$1"
}

# check_examples DOCUMENT: true when each does what stands below it.
check_examples() (
    local dir n
    dir=$(mktemp -d -p "$work")
    cd "$dir" || exit
    read_examples "$1" || exit
    run_examples
    for ((n = 1; ; n++)); do
        [ -e "$n.command" ] || break
        sed -i "s|/opt/qxpmaint|$root|g" "$n.shown"
        comparable "$n.shown" >wanted
        comparable "$n.got" >given
        if [ "$(cat "$n.status" 2>/dev/null)" != 0 ] || ! diff -u wanted given >different; then
            printf 'EXAMPLE %s of %s, exit code %s: %s\n' "$n" "$(basename "$1")" "$(cat "$n.status" 2>/dev/null)" "$(cat "$n.command")"
            cat "$n.got" different
            exit 1
        fi
    done
)

# These say what the checking is worth.
example() { printf '%s\n' '```console' "$@" '```' >"$work/example.md"; }
must_fail() { ! check_examples "$work/example.md" >out 2>&1 || fail "an example passed: $(cat "$work/example.md")"; }
start_agent
health='$ curl -sS --unix-socket "$QXPMAINT/data/qxpagent/agent.sock" http://agent/v1/health'
example "$health" '{"status":"ok"}'
check_examples "$work/example.md"
example "$health" '{"status":"failing"}'
must_fail
example "$health"
must_fail
example '$ true' '$ if'
must_fail
example '$ true' '$ exit 3'
must_fail
sed -i 's/console//' example.md
must_fail
example '$ true'
printf '%s\n' '```' 'curl http://agent/v1/health' '```' >>example.md
must_fail

check_examples "$docs/operating.md"

# Each path of the API has its example.
while read -r path; do
    grep -Eq "^\\$ .*http://agent${path/\{*\}/[^ ?]+}([ ?'\")]|\$)" "$docs/operating.md" || fail "no example of $path"
done < <(sed -n 's|^  \(/.*\):$|\1|p' "$docs/openapi.yaml")

stop_agent TERM
expect "exit code of the agent" 0 "$exit_status"
