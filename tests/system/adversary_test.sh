#!/usr/bin/env bash
# What somebody tries who may do less than the agent: a user of the machine, a member of the socket's group without a
# key, whoever holds a script key, and whoever can change what the agent is started with. Says what was refused, and why.
# shellcheck source=tests/system/lib.sh
. "$(dirname "$0")/lib.sh"
if [ "$(id -u)" -ne 0 ] || ! setpriv --reuid 65533 --clear-groups true 2>/dev/null; then
    echo "SKIPPED: only root can be somebody else"
    exit 77
fi
group=54321
chmod 0755 "$root"
chmod 0777 "$work"

as_anybody() { setpriv --reuid 65533 --regid 65533 --clear-groups "$@"; }
as_member() { setpriv --reuid 65534 --regid 65534 --groups "$group" "$@"; }
as_other_member() { setpriv --reuid 65532 --regid 65532 --groups "$group" "$@"; }
ask() { curl --silent --max-time 60 --unix-socket "$socket" "$@"; }
told() { printf 'refused: %-56s %s\n' "$1" "$2"; }
start() { # WITH...: the environment and what comes before the agent
    env "$@" qxpagent --socket "$socket" --socket-group "$group" --log "$log" &
    agent=$!
    wait_until agent_answers
}
# refuse_to_start WHAT REGEX [ARGUMENT]...
refuse_to_start() {
    expect "exit code: $1" 1 "$(exit_code timeout 20 qxpagent --socket "$socket" "${@:3}")"
    expect_match "$1" "$2" "$(cat err)"
    told "$1" "$(cat err)"
}
# member_is_refused WHAT STATUS REGEX FILE
member_is_refused() {
    local status
    status=$(as_member curl --silent --unix-socket "$socket" --data-binary "@$4" -o answer -w '%{http_code}' \
        http://agent/v1/commands)
    expect "$1" "$2" "$status"
    expect_match "$1" "$3" "$(jq -r .detail answer)"
    told "$1" "$status $(jq -r .detail answer)"
}
state() { ask "http://agent/v1/commands/$1" | jq -r .command.state; }

# With everything open, and with what makes a shell run a file of somebody else's.
echo 'touch '"$root"'/trapped' >trap.sh
umask 000
start BASH_ENV="$work/trap.sh" NOTIFY_SOCKET=/nowhere LD_BIND_NOW=1
umask 022
for directory in "$data" "$data/policyfile" "$data/policyprocess" "$data/result" "$root/data/qxpagent"; do
    expect_match "the mode of $directory" '^7[05]0$|^755$' "$(stat -c %a "$directory")"
done
told "a start under umask 000 that leaves the directories open" "$(stat -c %a "$data/policyfile")"
# shellcheck disable=SC2016 # the script's own
script env.sh 'env; stat -c %a "$0"'
qxpctl pack --key "$QXP_KEY" --id env --output env.json env.sh 2>/dev/null
ask --data-binary @env.json http://agent/v1/commands >/dev/null
reported() { [ "$(state "$1")" = reported ]; }
wait_until reported env
output=$(ask http://agent/v1/commands/env | jq -r '.reports[0].document.data.result[0].run_outdata')
expect "what of the agent's environment a script sees" "" "$(grep -E '^(BASH_ENV|NOTIFY_SOCKET|LD_)' <<<"$output" || true)"
expect_match "the mode of a script file" '644$' "$output"
[ ! -e "$root/trapped" ] || fail "\$BASH_ENV was obeyed"
told "the environment of whoever starts the agent" "no BASH_ENV, NOTIFY_SOCKET or LD_* in a script"

# Anybody.
expect "anybody at the socket: curl's exit code" 7 "$(exit_code as_anybody curl --silent --unix-socket "$socket" http://agent/v1/status)"
told "anybody who connects" "exit code 7 of curl"
for file in "$data/policyfile/x.json" "$data/policyprocess/x.json" "$data/result/x.json" "$root/etc/trusted-keys/x.pem"; do
    expect "anybody who writes $file" 1 "$(exit_code as_anybody touch "$file")"
done
told "anybody who drops a policy, a result or a key" "$(sed 's/.*: //' err)"
expect "anybody who reads the store" 1 "$(exit_code as_anybody cat "$root/data/qxpagent/agent.db")"

# A member of the group, without a key.
mkdir -p /tmp/qxp-ev.$$ && chown 65534 /tmp/qxp-ev.$$
trap 'rm -rf /tmp/qxp-ev.$$; cleanup' EXIT
script good.sh "echo good"
qxpctl pack --key "$QXP_KEY" --id good --output good.json good.sh 2>/dev/null
jq -c --arg path "/tmp/qxp-ev.$$/" '.ID = "path" | .param.scriptinfo[0].scriptpath = $path' good.json >path.json
member_is_refused "a scriptpath of their own" 422 'leads through .* others can change' path.json
as_member ln -s "$root/etc" "/tmp/qxp-ev.$$/link"
jq -c --arg path "/tmp/qxp-ev.$$/link/" '.param.scriptinfo[0].scriptpath = $path' path.json >link.json
member_is_refused "a scriptpath behind a link of their own" 422 'scriptpath' link.json

script slow.sh "until [ -e $root/go ]; do sleep 0.1; done"
qxpctl pack --key "$QXP_KEY" --id victim --output victim.json slow.sh 2>/dev/null
ask --data-binary @victim.json http://agent/v1/commands >/dev/null
jq -c '.param.scriptinfo[0].sign = "00" | .ID = "victim\",\"msg_type\":\"1\",\"data\":{\"result\":[{\"scriptid\":\"slow.sh\"}]},\"x\":\""' \
    good.json >forged.json
member_is_refused "an ID that writes a report of its own" 422 '"ID" holds' forged.json
jq -c '.param.scriptinfo[0].sign = "00" | .ID = "victim"' good.json >taken.json
member_is_refused "another document under somebody's ID" 409 'Another document' taken.json
printf '{"ID":"bytes\xff","Command":"RunScriptNormal","param":{"scriptinfo":[]}}' >bytes.json
member_is_refused "a document that is not UTF-8" 422 'UTF-8' bytes.json
jq -c '.ID = "unsigned" | .param.scriptinfo[0].scriptdata = "dG91Y2ggL3RtcC94Cg=="' good.json >unsigned.json
as_member curl --silent --unix-socket "$socket" --data-binary @unsigned.json http://agent/v1/commands >answer
expect "a script that nobody has signed" refused "$(jq -r .state answer)"
told "a script that nobody has signed" "$(jq -r '.state + ": " + .reason' answer)"
expect "the victim of all this" delivered "$(state victim)"
touch "$root/go"
wait_until reported victim
as_member curl --silent --unix-socket "$socket" --data-binary @good.json http://agent/v1/commands >/dev/null
wait_until reported good # what was signed may be run again by whoever may connect

for _ in $(seq 40); do
    sleep 60 | as_member curl --silent --max-time 60 --unix-socket "$socket" -T - http://agent/v1/commands >>drips 2>&1 &
done
shut_out() { [ "$(as_member curl --silent -o answer -w '%{http_code}' --unix-socket "$socket" http://agent/v1/health)" = 503 ]; }
wait_until shut_out
told "forty dripping connections of one user" "503 $(jq -r .detail answer)"
expect "another member meanwhile" 200 \
    "$(as_other_member curl --silent -o /dev/null -w '%{http_code}' --unix-socket "$socket" http://agent/v1/health)"
expect "root meanwhile" 200 "$(ask -o /dev/null -w '%{http_code}' http://agent/v1/health)"
pkill -P $$ sleep || true

# Whoever holds a script key: the signature covers the script alone, so the document meets every rule.
for path in /etc/ "$root/work/" "/tmp/qxp-ev.$$/"; do
    jq -c --arg path "$path" '.ID = "key" | .param.scriptinfo[0].scriptpath = $path' good.json >key.json
    member_is_refused "a signed script for $path" 422 'scriptpath' key.json
done
stop_agent TERM
chmod 0755 "$work"

# Whoever can change what the agent trusts.
chown 65533 "$root/data/qxpagent/agent.db"
refuse_to_start "a store that belongs to somebody else" 'chown root .*agent.db'
chown 0 "$root/data/qxpagent/agent.db"
mkdir keys && chown 65533 keys
rmdir "$root/etc/trusted-keys" && ln -s "$work/keys" "$root/etc/trusted-keys"
refuse_to_start "trusted keys behind a link" 'trusted-keys can be changed by others'
rm "$root/etc/trusted-keys" && mkdir "$root/etc/trusted-keys"
touch "$root/etc/trusted-keys/a.pem" && chown 65533 "$root/etc/trusted-keys/a.pem"
refuse_to_start "a key file of somebody else's" 'chown root .*a.pem'
rm "$root/etc/trusted-keys/a.pem"
cp "$root/etc/plugins/qxpmaint/qxpmaint.conf" keys/plugin.conf && chown 65533 keys/plugin.conf
refuse_to_start "a configuration of the plugin elsewhere" 'can be changed by others' \
    --init-param "agent_type=KSTL:conf_path=$work/keys/plugin.conf"
refuse_to_start "a log file in somebody's directory" 'can be changed by others' --log "$work/keys/agent.log"
