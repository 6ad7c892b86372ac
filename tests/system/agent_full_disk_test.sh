#!/usr/bin/env bash
# A disk that fills up under the agent's store, on a small file system of its own.
# shellcheck source=tests/system/lib.sh
. "$(dirname "$0")/lib.sh"
store=$root/data/qxpagent
mkdir -p "$store"
if ! mount -t tmpfs -o size=1500k,mode=0750 none "$store" 2>why; then
    echo "SKIPPED: no file system can be mounted here: $(head -n 1 why)"
    exit 77
fi
finish() {
    local status=$?
    set +e
    umount -l "$store"
    (exit "$status")
    cleanup
}
trap finish EXIT

script big.sh '#!/bin/bash
head -c 200000 /dev/zero | tr "\0" x'
script huge.sh "#!/bin/bash
# $(head -c 500000 /dev/zero | tr '\0' x)"
start_agent
# submit ID SCRIPT: prints the status.
submit() {
    qxpctl pack --key "$QXP_KEY" --id "$1" --output p.json "$2" 2>/dev/null
    api -o answer -w '%{http_code}' --data-binary @p.json http://agent/v1/commands
}
reports() { api "http://agent/v1/reports" | jq "$@"; }
state() { api "http://agent/v1/commands" | jq -r --arg id "$1" '.commands[] | select(.id == $id) | .state'; }
said() { grep -q 'waits in memory: The store .* has no room' "$log"; }

accepted=0
until said; do
    accepted=$((accepted + 1))
    [ "$accepted" -lt 20 ] || fail "the disk does not fill up"
    status=$(submit "c$accepted" big.sh)
    [ "$status" = 202 ] || break
    settled() { [ "$(state "c$accepted")" = reported ] || said; }
    wait_until settled
done
stored=$(reports '.reports | length')
[ "$stored" -ge 2 ] || fail "something was stored before: $stored"
head -c 2000000 /dev/zero >"$store/filler" 2>/dev/null || true
expect "a command when the disk is full" 507 "$(submit refused huge.sh)"
expect_match "and why" 'no room' "$(jq -r .detail answer)"
expect "what was stored is there" "$stored" "$(reports '.reports | length')"
expect "and whole" 200000 "$(reports '.reports[0].document.data.result[0].run_outdata | length')"

rm "$store/filler"
mount -o remount,size=16m "$store"
expect "a command when there is room again" 202 "$(submit again big.sh)"
reported() { [ "$(state "$1")" = reported ]; }
wait_until reported again
wait_until reported "c$accepted" # whose report has waited
stop_agent TERM
expect "exit code of the agent" 0 "$exit_status"
start_agent
expect "what was stored, after a restart" "$((stored + 1))" \
    "$(reports '[.reports[] | select(.source == "plugin" and .id != "again")] | length')"
expect "commands without a final state" "" \
    "$(api http://agent/v1/commands | jq -r '.commands[] | select(.state == "delivered" or .state == "received") | .id')"
echo "$accepted commands before the disk was full, $stored reports kept"
stop_agent TERM
