#!/usr/bin/env bash
# The service under a running systemd: start, reload, stop, crash, upgrade, remove, and what becomes of running scripts.
# shellcheck source=tests/package/lib.sh
. "$(dirname "$0")/lib.sh"
unit=qxpagent.service

property() { systemctl show --property "$1" --value "$unit"; }
expect_active() { expect "$1: state of the unit" active "$(property ActiveState)"; }
gone() { [ ! -d "/proc/$1" ]; }
agent_processes() { pgrep -x qxpagent | wc -l; }

# Starts a script that hangs, with a child in its output pipe and one that has left session, pipe and parent, and waits
# until both are there. Sets $in_pipe and $escaped to their process ids.
start_hanging_script() {
    rm -f "$work"/pid.*
    cat >"$work/hang.sh" <<SCRIPT
sleep 100001 &
echo \$! >$work/pid.in_pipe.new && mv $work/pid.in_pipe.new $work/pid.in_pipe
(setsid bash -c 'echo \$\$ >$work/pid.escaped.new && mv $work/pid.escaped.new $work/pid.escaped; exec sleep 100002' </dev/null >/dev/null 2>&1 &)
wait
SCRIPT
    qxpctl pack --key /test/key.pem --output "$work/hang.json" "$work/hang.sh" 2>/dev/null
    qxpctl submit "$work/hang.json" >/dev/null
    wait_until test -s "$work/pid.in_pipe"
    wait_until test -s "$work/pid.escaped"
    in_pipe=$(cat "$work/pid.in_pipe")
    escaped=$(cat "$work/pid.escaped")
    if gone "$in_pipe" || gone "$escaped"; then fail "the script does not hang"; fi
}
expect_scripts_ended() {
    gone "$in_pipe" || fail "$1: the child of the script still runs"
    gone "$escaped" || fail "$1: the process that left its run still runs"
}

install_dependencies /test/old/*.deb
quietly dpkg -i /test/old/qxpmaint_*.deb /test/old/qxpmaint-agent_*.deb

echo "- started and enabled by the installation"
expect_active "after the installation"
expect "enabled" enabled "$(systemctl is-enabled "$unit")"
quietly systemd-analyze verify "/lib/systemd/system/$unit"
[ ! -s "$work/quiet" ] || fail "systemd-analyze verify: $(cat "$work/quiet")"
[ "$(qxpctl run --key /test/key.pem "$work/hello.sh" 2>/dev/null)" = "hello from root" ] || fail "a script does not run"
journalctl --quiet --unit "$unit" --grep 'started: plugin' >/dev/null || fail "the journal has no line of the start"

echo "- a script can do what root can: mount for all, write anywhere"
cat >"$work/root.sh" <<'SCRIPT'
set -e
mkdir -p /mnt/from-script
mount -t tmpfs none /mnt/from-script
touch /usr/from-script /root/from-script /tmp/from-script
echo mounted
SCRIPT
expect "the script" mounted "$(qxpctl run --key /test/key.pem "$work/root.sh" 2>/dev/null)"
mountpoint -q /mnt/from-script || fail "what a script mounts is not there for others"
present /usr/from-script /root/from-script /tmp/from-script
umount /mnt/from-script

echo "- reload keeps the agent"
main=$(property MainPID)
systemctl reload "$unit"
qxpctl run --key /test/key.pem "$work/hello.sh" >/dev/null 2>&1 || fail "no script runs after a reload"
expect "main process after a reload" "$main" "$(property MainPID)"

echo "- stop ends running scripts, also one that left its run"
start_hanging_script
systemctl stop "$unit"
expect_scripts_ended "stop"
expect "state after a stop" inactive "$(property ActiveState)"
expect "result of the stop" success "$(property Result)"
expect "exit code of the agent" 0 "$(property ExecMainStatus)"

echo "- a crash ends running scripts, and the agent comes back"
systemctl start "$unit"
main=$(property MainPID)
start_hanging_script
kill -KILL "$main"
restarted() { [ "$(property ActiveState)" = active ] && [ "$(property MainPID)" != "$main" ]; }
wait_until restarted
expect_scripts_ended "crash"
qxpctl run --key /test/key.pem "$work/hello.sh" >/dev/null 2>&1 || fail "no script runs after a crash"

echo "- a mistake in the options ends the service at once, and no restart repeats it"
systemctl stop "$unit"
mkdir -p "/run/systemd/system/$unit.d"
printf '[Service]\nExecStart=\nExecStart=%s --log-level nonsense\n' "$prefix/bin/qxpagent" \
    >"/run/systemd/system/$unit.d/mistake.conf"
systemctl daemon-reload
if systemctl start "$unit" 2>/dev/null; then fail "the agent starts with a mistake in its options"; fi
expect "state" failed "$(property ActiveState)"
rm -r "/run/systemd/system/$unit.d"
systemctl daemon-reload
systemctl start "$unit"

echo "- an upgrade restarts what runs, and leaves alone what was stopped"
main=$(property MainPID)
quietly dpkg -i /test/new/qxpmaint_*.deb /test/new/qxpmaint-agent_*.deb
expect_active "after an upgrade"
[ "$(property MainPID)" != "$main" ] || fail "the old agent still runs after an upgrade"
systemctl stop "$unit"
systemctl disable --quiet "$unit"
quietly dpkg -i /test/old/qxpmaint_*.deb /test/old/qxpmaint-agent_*.deb
expect "a stopped agent after an upgrade" inactive "$(property ActiveState)"
expect "a disabled agent after an upgrade" disabled "$(systemctl is-enabled "$unit" || true)"

echo "- removing stops the agent"
systemctl enable --quiet --now "$unit"
expect_active "enabled again"
start_hanging_script
quietly dpkg -r qxpmaint-agent
expect_scripts_ended "removal"
expect "agents left" 0 "$(agent_processes)"
quietly dpkg -P qxpmaint-agent qxpmaint
expect "the unit after a purge" not-found "$(property LoadState)"
