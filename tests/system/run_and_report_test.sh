#!/usr/bin/env bash
# Scripts from qxpctl through the agent and back.
# shellcheck source=tests/system/lib.sh disable=SC2016
. "$(dirname "$0")/lib.sh"
start_agent

script good.sh '#!/bin/bash
echo good output'
script bad.sh '#!/bin/bash
echo bad output'
script tool '#!/bin/sh
echo "tool in $(pwd)"'

expect "all succeed" 0 "$(exit_code qxpctl run --key "$QXP_KEY" good.sh,check=good tool)"
grep -q 'good output' out || fail "the output is shown"
grep -q "tool in $root/bin" out || fail "scripts run in the agent's directory"

expect "one fails" 1 "$(exit_code qxpctl run --key "$QXP_KEY" good.sh bad.sh,check=good)"
grep -q 'bad output' out || fail "the output of a failed run is shown"

expect "machine-readable" 0 "$(exit_code qxpctl run --json --key "$QXP_KEY" good.sh)"
jq -e . out >/dev/null || fail "--json prints JSON"

# A script signed with a key that is trusted by directory, added while the agent runs.
qxpctl keygen --scheme ed25519 --out ed >/dev/null
expect "an unknown key" 1 "$(exit_code timeout 60 qxpctl run --wait 20 --key ed.key.pem good.sh)"
qxpctl pack --key ed.key.pem --output ed.json good.sh
expect "verify without naming keys: not trusted" 1 "$(exit_code qxpctl verify ed.json)"
cp ed.pub.pem "$root/etc/trusted-keys/"
expect "verify without naming keys: trusted" 0 "$(exit_code qxpctl verify ed.json)"
expect "a trusted key" 0 "$(exit_code qxpctl run --key ed.key.pem good.sh)"
rm "$root/etc/trusted-keys/ed.pub.pem"
expect "a key withdrawn" 1 "$(exit_code timeout 60 qxpctl run --wait 20 --key ed.key.pem good.sh)"

# 63 scripts at once are the limit; more are refused as a whole.
script slow.sh '#!/bin/bash
sleep 1'
many=()
for n in $(seq 63); do many+=("slow.sh,id=slow$n"); done
expect "63 scripts" 0 "$(exit_code qxpctl run --key "$QXP_KEY" "${many[@]}")"

# Cursors: a reader that remembers where it was sees each report once.
last=$(api http://agent/v1/reports | jq .cursor)
expect "nothing new" 0 "$(api "http://agent/v1/reports?after=$last" | jq '.reports | length')"
qxpctl pack --key "$QXP_KEY" --id cursor --output p.json good.sh
qxpctl submit p.json >/dev/null
expect "one new" cursor "$(api "http://agent/v1/reports?after=$last&wait=30" | jq -r '.reports[].id')"

stop_agent TERM
expect "exit code of the agent" 0 "$exit_status"
