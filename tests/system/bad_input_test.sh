#!/usr/bin/env bash
# What the programs say to mistakes: one clear line, the right exit code, nothing done by halves.
# shellcheck source=tests/system/lib.sh disable=SC2016
. "$(dirname "$0")/lib.sh"

# one_line WHAT EXIT_CODE REGEX COMMAND...
one_line() {
    expect "exit code: $1" "$2" "$(exit_code "${@:4}")"
    expect_match "$1" "$3" "$(cat err)"
    expect "lines on standard error: $1" 1 "$(wc -l <err)"
}

script good.sh '#!/bin/bash
echo good'
qxpctl pack --key "$QXP_KEY" --id good --output good.json good.sh

one_line "no agent" 3 "$socket" qxpctl submit good.json
one_line "no such script" 2 'none\.sh' qxpctl pack --key "$QXP_KEY" none.sh
one_line "no such key" 2 'none\.pem' qxpctl pack --key none.pem good.sh
one_line "a public key to sign with" 2 "$QXP_PUBLIC_KEY" qxpctl pack --key "$QXP_PUBLIC_KEY" good.sh
one_line "a directory as script" 2 "$root" qxpctl pack --key "$QXP_KEY" "$root"
one_line "a path for a shell to stumble over" 2 'path' qxpctl pack --key "$QXP_KEY" 'good.sh,path=/opt/$(id)'
one_line "an unknown attribute" 2 'colour' qxpctl pack --key "$QXP_KEY" good.sh,colour=red
one_line "a policy that is no JSON" 2 'JSON' qxpctl verify --key "$QXP_PUBLIC_KEY" good.sh
expect "no sub-command" 2 "$(exit_code qxpctl)"
expect "help" 0 "$(exit_code qxpctl run --help)"
expect "an unknown option of the agent" 2 "$(exit_code qxpagent --nonsense)"
one_line "no plugin" 1 'none\.so' qxpagent --socket "$socket" --log "$log" --plugin none.so
mv "$root/etc/plugins/qxpmaint/qxpmaint.conf" conf
one_line "no configuration file" 1 'qxpmaint\.conf' qxpagent --socket "$socket" --log "$log"
mv conf "$root/etc/plugins/qxpmaint/qxpmaint.conf"
[ ! -e "$socket" ] || fail "an agent that could not start left its socket"

start_agent
status_of() { api -o body -w '%{http_code} %{content_type}' "$@"; }
problem() {
    expect "$1" "$2 application/problem+json" "$(status_of "${@:4}")"
    expect_match "detail: $1" "$3" "$(jq -r .detail body)"
}
problem "a command that is no JSON" 422 'JSON' -d 'no json' http://agent/v1/commands
expect "a run-once that is not there" false "$(api -d '{"name":"none.json"}' http://agent/v1/runonce | jq .accepted)"

# Deep nesting and broken text reach the plugin or are refused, and the agent lives on.
printf '{"ID":"deep","Command":"RunScriptNormal","param":%s}' "$(printf '[%.0s' $(seq 100000))" >deep.json
status_of -d @deep.json http://agent/v1/commands >/dev/null
printf '{"ID":"\xff\xfe","Command":"Reboot"}' >bytes.json
problem "text that is not UTF-8" 422 'UTF-8' --data-binary @bytes.json http://agent/v1/commands
jq -c '.ID = "path" | .param.scriptinfo[0].scriptpath = "/opt/$(id)"' good.json >path.json
problem "a path for a shell to stumble over, past the tool" 422 'scriptpath' -d @path.json http://agent/v1/commands
expect_match "verify tells the same" 'does not take it.*scriptpath' "$(qxpctl verify --key "$QXP_PUBLIC_KEY" path.json)"
jq -c '.ID = "open" | .param.scriptinfo[0].scriptpath = "/tmp"' good.json >open.json
problem "a directory that is not named" 422 'scriptpath' -d @open.json http://agent/v1/commands
jq -c '.ID = "unsigned" | .param.scriptinfo[0].sign = "01100000ff"' good.json >unsigned.json
expect "nothing that may run" refused "$(api -d @unsigned.json http://agent/v1/commands | jq -r .state)"
expect "and the plugin says so" 4 "$(api 'http://agent/v1/reports?id=unsigned' | jq -r '.reports[0].document.msg_type')"
expect "a good policy still runs" 0 "$(exit_code qxpctl run --key "$QXP_KEY" good.sh)"
stop_agent TERM
expect "exit code of the agent" 0 "$exit_status"
