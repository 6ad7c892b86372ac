#!/usr/bin/env bash
# Install, use, upgrade, remove and purge, on a machine without systemd.
# shellcheck source=tests/package/lib.sh
. "$(dirname "$0")/lib.sh"

agent=
start_agent() {
    "$prefix/bin/qxpagent" 2>"$work/agent.log" &
    agent=$!
    wait_until test -S "$prefix/data/qxpagent/agent.sock"
}
stop_agent() {
    kill -TERM "$agent"
    wait "$agent" || fail "the agent ended with $?: $(tail -n 5 "$work/agent.log")"
}
# run_policy KEY: a script from signing to its result.
run_policy() {
    qxpctl run --key "$1" "$work/hello.sh" >"$work/out" 2>"$work/err" || fail "qxpctl run: $(cat "$work/err")"
    grep -q '^hello from root$' "$work/out" || fail "the output of the script is missing: $(cat "$work/out")"
}
# Every file with mode, owner, type and target, and the groups; not what dpkg and apt keep for themselves, nor
# /opt itself, which dpkg removes with the last package below it.
snapshot() {
    find / -xdev \( -path /proc -o -path /sys -o -path /dev -o -path /run -o -path /tmp -o -path /test \
        -o -path /var/lib/dpkg -o -path /var/lib/apt -o -path /var/cache -o -path /var/log \) -prune \
        -o -printf '%p %m %u:%g %y %l\n' | grep -v '^/etc/g\(roup\|shadow\)- \|^/opt ' | sort
    cat /etc/group
}

install_dependencies /test/old/*.deb
snapshot >"$work/before"

echo "- install"
quietly dpkg -i /test/old/*.deb
old=$(version_of qxpmaint-agent)
expect "trusted-keys" "755 root:root" "$(mode_of "$prefix/etc/trusted-keys")"
expect "data" "750 root:root" "$(mode_of "$prefix/data")"
expect "the command in the path" "$prefix/bin/qxpctl" "$(realpath /usr/bin/qxpctl)"
expect "the agent in the path" "$prefix/bin/qxpagent" "$(realpath /usr/sbin/qxpagent)"
expect "the unit is enabled for a later boot" /lib/systemd/system/qxpagent.service \
    "$(readlink /etc/systemd/system/multi-user.target.wants/qxpagent.service)"
for package in "${packages[@]}"; do quietly dpkg -V "$package"; done

echo "- use"
start_agent
run_policy /test/key.pem
qxpctl keygen --scheme ed25519 --out "$work/ops" >/dev/null
if qxpctl run --key "$work/ops.key.pem" "$work/hello.sh" >/dev/null 2>"$work/err"; then fail "a stranger's key is trusted"; fi
grep -q 'script 1: bad signature' "$work/err" || fail "a stranger's key is not named as the reason: $(cat "$work/err")"
cp "$work/ops.pub.pem" "$prefix/etc/trusted-keys/"
run_policy "$work/ops.key.pem"
stop_agent

echo "- upgrade over a changed configuration"
echo '; mine' >>"$prefix/etc/qxpagent.conf"
touch "$prefix/data/qxpmaint/result/kept" "$prefix/data/qxpagent/kept"
quietly dpkg -i --force-confold /test/new/*.deb
[ "$(version_of qxpmaint-agent)" != "$old" ] || fail "the version is still $old"
grep -q '^; of the new version$' "$prefix/etc/qxpagent.conf.dpkg-dist" || fail "the new default is not beside it"
grep -q '^; of the new version$' "$prefix/etc/plugins/qxpmaint/qxpmaint.conf" || fail "an unchanged file stays old"
rm "$prefix/etc/qxpagent.conf.dpkg-dist"
start_agent
run_policy "$work/ops.key.pem"
stop_agent

all_kept() {
    grep -q '^; mine$' "$prefix/etc/qxpagent.conf" || fail "the administrator's configuration is gone"
    present "$prefix/etc/plugins/qxpmaint/qxpmaint.conf" "$prefix/etc/trusted-keys/ops.pub.pem" \
        "$prefix/data/qxpmaint/result/kept" "$prefix/data/qxpagent/kept"
}
all_kept

echo "- remove, and install again over what is left"
quietly dpkg -r "${packages[@]}"
all_kept
absent "$prefix/bin" "$prefix/lib" "$prefix/include" /usr/bin/qxpctl /usr/sbin/qxpagent
quietly dpkg -i --force-confold /test/new/*.deb
all_kept
start_agent
run_policy "$work/ops.key.pem"
stop_agent

echo "- purge the agent alone"
quietly dpkg -P qxpmaint-agent
absent "$prefix/data/qxpagent" "$prefix/etc/qxpagent.conf"
present "$prefix/data/qxpmaint/result/kept" "$prefix/etc/trusted-keys/ops.pub.pem"
quietly dpkg -P qxpmaint-dev qxpmaint
snapshot >"$work/after"
diff "$work/before" "$work/after" || fail "the purge left something (>) or took too much (<)"

echo "- purge what was removed before, the plugin first"
quietly dpkg -i /test/new/*.deb
start_agent
run_policy /test/key.pem
stop_agent
quietly dpkg -r "${packages[@]}"
quietly dpkg -P qxpmaint qxpmaint-dev qxpmaint-agent
snapshot >"$work/after"
diff "$work/before" "$work/after" || fail "the purge left something (>) or took too much (<)"
