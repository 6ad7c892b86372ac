#!/usr/bin/env bash
# Starting and stopping the agent, and what it leaves behind.
# shellcheck source=tests/system/lib.sh
. "$(dirname "$0")/lib.sh"

has_pid() { [ -s "$work/pid" ]; }

for signal in TERM INT; do
    start_agent
    expect "mode of the socket" 660 "$(stat -c %a "$socket")"
    expect "the plugin is started" 2 "$(api http://agent/v1/status | jq .plugin_status)"
    rm -f pid
    script long.sh "#!/bin/bash
trap '' TERM
echo \$\$ >$work/pid
while :; do sleep 1; done"
    qxpctl pack --key "$QXP_KEY" --output p.json long.sh
    qxpctl submit p.json >/dev/null
    wait_until has_pid
    stop_agent "$signal"
    expect "exit code after SIG$signal" 0 "$exit_status"
    gone "$(cat pid)" || fail "a script that ignores SIGTERM outlived the agent"
    [ ! -e "$socket" ] || fail "the socket is left"
    expect "files left in the data directory" "" "$(find "$data" -maxdepth 1 -type f)"
done

# A run-once that is still waiting when the agent stops.
start_agent
script wait.sh "#!/bin/bash
echo \$\$ >$work/pid
exec sleep 1000"
rm -f pid
qxpctl pack --key "$QXP_KEY" --output "$data/policyprocess/once.json" wait.sh
api -X POST -d '{"name":"once.json"}' http://agent/v1/runonce >/dev/null 2>&1 &
once=$!
wait_until has_pid
stop_agent TERM
expect "exit code with a run-once waiting" 0 "$exit_status"
wait "$once" || true
wait_until gone "$(cat pid)"

# The socket of an agent that was killed is replaced; that of a living one is not.
start_agent
kill -KILL "$agent"
wait "$agent" 2>/dev/null || true
[ -S "$socket" ] || fail "the socket of a killed agent is there for the next"
start_agent
expect "a second agent" 1 "$(exit_code qxpagent --socket "$socket")"
expect_match "what the second agent says" "$socket" "$(cat err)"
api http://agent/v1/status >/dev/null || fail "the first agent still answers"

# A policy dropped while no agent runs is run by the next one.
stop_agent TERM
script later.sh '#!/bin/bash
echo later'
qxpctl pack --key "$QXP_KEY" --id later --output "$data/policyfile/later.json" later.sh
start_agent
expect "a policy that waited" later "$(api 'http://agent/v1/reports?id=later&wait=60' | jq -r '.reports[0].document.ID')"
stop_agent TERM
