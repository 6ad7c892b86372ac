#!/usr/bin/env bash
# Kills the agent again and again while clients submit, scripts run and results come in, and then counts: no accepted
# command is lost, each has one final state, no script ran twice, and each result is there once.
#
#   QXP_KILLS=200    how often it is killed (default 20)
# shellcheck source=tests/system/lib.sh
. "$(dirname "$0")/lib.sh"
kills=${QXP_KILLS:-20}
clients=3
per_command=2

# A pool of scripts, all different, each of which notes that it ran: signed 60 at a time, taken by the clients in turn.
pool=$((kills * clients * per_command * 6))
mkdir scripts
for n in $(seq "$pool"); do
    printf '#!/bin/bash\necho s%s >>%s/ran\nsleep 0.%s\necho done %s\n' "$n" "$work" $((RANDOM % 4)) "$n" >"scripts/s$n"
done
seq "$pool" | sed 's|.*|scripts/s&,id=s&,type=sh|' | xargs -n 60 qxpctl pack --key "$QXP_KEY" --output - |
    jq -c '.param.scriptinfo[]' >signed
jq -c -n --argjson size "$per_command" '
    [inputs] as $all | range(0; $all | length; $size) as $at
    | {ID: "c\($at)", Command: (if $at / $size % 2 == 0 then "RunScriptNormal" else "RunScriptFile" end),
       param: {scriptinfo: $all[$at:$at + $size]}}' signed >commands
expect "commands" $((pool / per_command)) "$(wc -l <commands)"

# client NUMBER: submits every so-manieth command, each until it is answered for, and notes the answer.
client() {
    local document status
    while read -r document; do
        [ ! -e stop ] || break
        printf '%s' "$document" >"document$1"
        until status=$(api -o "answer$1" -w '%{http_code}' --data-binary "@document$1" http://agent/v1/commands \
            2>/dev/null) && [[ $status == 20[02] ]]; do
            sleep 0.02
        done
        printf '%s %s\n' "$(jq -r .ID "document$1")" "$status" >>"accepted$1"
        sleep 0.05
    done < <(awk -v n="$1" -v clients="$clients" 'NR % clients == n % clients' commands)
}
client_pids=()
for n in $(seq "$clients"); do
    client "$n" &
    client_pids+=($!)
done

for n in $(seq "$kills"); do
    qxpagent --socket "$socket" --log "$log" &
    agent=$!
    [ $((n % 4)) -eq 0 ] || wait_until agent_answers # else at any moment of its start
    sleep "$((RANDOM % 2)).$((RANDOM % 1000 + 1000))"
    kill -KILL "$agent"
    wait "$agent" 2>/dev/null || true
done
start_agent
touch stop
wait "${client_pids[@]}"

# all WHAT: every entry of /v1/WHAT, one a line.
all() {
    local after=0 page
    while page=$(api "http://agent/v1/$1?after=$after") && [ "$(jq ".$1 | length" <<<"$page")" -gt 0 ]; do
        jq -c ".$1[]" <<<"$page"
        after=$(jq ".$2" <<<"$page")
    done
}
open_commands() { all commands sequence | jq -r 'select(.state == "received" or .state == "delivered") | .id'; }
nothing_open() { [ -z "$(open_commands)" ]; }
wait_until nothing_open
all commands sequence >journal
all reports cursor >stored
stop_agent TERM
expect "exit code of the agent" 0 "$exit_status"

cat accepted* | sort >accepted
cut -d' ' -f1 accepted | sort -u >accepted_ids
jq -r .id journal | sort >journal_ids
lost=$(comm -23 accepted_ids journal_ids | wc -l)
doubled=$(uniq -d journal_ids | wc -l)
jq -r 'select(.source != "agent") | .document as $d | $d.data.result[]? | $d.ID + " " + .scriptid' stored | sort >results
twice=$(uniq -d results | wc -l)
ran_twice=$(sort ran | uniq -d | wc -l)
# A final report beside the state: the agent's report of an interruption, the plugin's of a refusal.
wrong_words=$(jq -n --slurpfile journal journal --slurpfile reports stored '
    ($reports | map(select(.source == "agent")) | group_by(.id) | map({key: .[0].id, value: length}) | from_entries)
        as $interrupted
    | [$journal[] | select((.state == "interrupted") != ($interrupted[.id] == 1))] | length')
sort results | cut -d' ' -f1 | uniq -c | awk '{print $2, $1}' >results_by_id
incomplete=$(jq -r '[.id, .state, .expected, (.unreported | length)] | join(" ")' journal |
    awk 'NR == FNR {got[$1] = $2; next}
        $2 != "refused" && got[$1] + 0 != $3 - $4 {print}
        $2 == "reported" && $4 != 0 {print}' results_by_id - | wc -l)

echo "killed $kills times"
echo "accepted $(wc -l <accepted_ids) commands, of which $(awk '$2 == 200' accepted | wc -l) were known when sent again"
echo "journal: $(jq -r .state journal | sort | uniq -c | awk '{print $2, $1}' | paste -sd, -), lost $lost, doubled $doubled"
echo "reports: $(jq -r .source stored | sort | uniq -c | awk '{print $2, $1}' | paste -sd, -)"
echo "results $(wc -l <results), stored twice $twice; scripts that ran $(wc -l <ran), twice $ran_twice"
echo "commands whose final state does not fit their reports $wrong_words, their results $incomplete"
expect "lost" 0 "$lost"
expect "doubled" 0 "$doubled"
expect "results stored twice" 0 "$twice"
expect "scripts that ran twice" 0 "$ran_twice"
expect "wrong final states" 0 "$wrong_words"
expect "results that do not add up" 0 "$incomplete"
[ "$(wc -l <accepted_ids)" -ge "$kills" ] || fail "too few commands were accepted to tell anything"
