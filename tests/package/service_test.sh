#!/usr/bin/env bash
# The service under a running systemd: start, reload, watchdog, access, stop, crash, upgrade, remove, and what becomes of
# running scripts.
# shellcheck source=tests/package/lib.sh
. "$(dirname "$0")/lib.sh"
unit=qxpagent.service

property() { systemctl show --property "$1" --value "$unit"; }
expect_active() { expect "$1: state of the unit" active "$(property ActiveState)"; }
gone() { [ ! -d "/proc/$1" ]; }
conf=$prefix/etc/qxpagent.conf
drop_ins=/run/systemd/system/$unit.d

# drop_in LINE...: puts these lines into the unit's section [Service]. drop_in_nothing takes them back.
drop_in() {
    mkdir -p "$drop_ins"
    printf '%s\n' '[Service]' "$@" >"$drop_ins/test.conf"
    systemctl daemon-reload
}
drop_in_nothing() {
    rm -r "$drop_ins"
    systemctl daemon-reload
}
# configure LINE...: the shipped configuration with these lines.
configure() {
    [ -e "$work/shipped.conf" ] || cp "$conf" "$work/shipped.conf"
    { cat "$work/shipped.conf" && printf '%s\n' "$@"; } >"$conf"
}
# in_journal TEXT: whether the unit has logged it since the test began.
in_journal() { journalctl --quiet --unit "$unit" --since "@$began" --grep "$1" >/dev/null; }
# restarted_from PID: whether it is active with another main process. Asked at one moment.
restarted_from() {
    local now
    now=$(systemctl show --property ActiveState,MainPID "$unit" | sort | paste -sd ' ')
    [[ $now == "ActiveState=active MainPID="* ]] && [ "${now##*=}" != 0 ] && [ "${now##*=}" != "$1" ]
}
# expect_owned WHEN GROUP: the directories on the way to the socket, and the socket.
expect_owned() {
    expect "$1: data" "750 root:$2" "$(mode_of "$prefix/data")"
    expect "$1: data/qxpagent" "750 root:$2" "$(mode_of "$prefix/data/qxpagent")"
    expect "$1: the socket" "660 root:$2" "$(mode_of "$prefix/data/qxpagent/agent.sock")"
    expect "$1: the database" "600 root:root" "$(mode_of "$prefix/data/qxpagent/agent.db")"
}
as() {
    local user=$1
    shift
    runuser --user "$user" -- "$@"
}
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
    qxpctl submit "$work/hang.json" >/dev/null 2>&1
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

began=$(date +%s)
install_dependencies /test/old/*.deb
quietly dpkg -i /test/old/qxpmaint_*.deb /test/old/qxpmaint-agent_*.deb

echo "- started and enabled by the installation"
expect_active "after the installation"
expect "enabled" enabled "$(systemctl is-enabled "$unit")"
quietly systemd-analyze verify "/lib/systemd/system/$unit"
[ ! -s "$work/quiet" ] || fail "systemd-analyze verify: $(cat "$work/quiet")"
[ "$(qxpctl run --key /test/key.pem "$work/hello.sh" 2>/dev/null)" = "hello from root" ] || fail "a script does not run"
in_journal 'started: plugin' || fail "the journal has no line of the start"

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

echo "- active means ready: not before the plugin runs"
expect "status line" "Serving $prefix/data/qxpagent/agent.sock" "$(property StatusText)"
systemctl stop "$unit"
mkfifo "$work/plugin.conf"
drop_in ExecStart= "ExecStart=$prefix/bin/qxpagent --init-param conf_path=$work/plugin.conf"
systemctl start --no-block "$unit"
wait_until test -S "$prefix/data/qxpagent/agent.sock"
expect "state while the plugin starts" activating "$(property ActiveState)"
# shellcheck disable=SC2016 # for the inner shell
timeout 120 sh -c 'cat "$1" >"$2"' - "$prefix/etc/plugins/qxpmaint/qxpmaint.conf" "$work/plugin.conf" ||
    fail "the plugin reads no configuration"
is_active() { [ "$(property ActiveState)" = active ]; }
wait_until is_active
drop_in_nothing
systemctl restart "$unit"

echo "- reload keeps the agent, and says what became of it"
main=$(property MainPID)
configure 'retention-days = 14' 'online = 192.0.2.10:8443'
systemctl reload "$unit"
wait_until in_journal 'configuration reloaded: changed retention-days'
wait_until in_journal 'a restart is needed for online'
configure 'retention-days = soon'
systemctl reload "$unit"
mistake_is_told() { [[ $(property StatusText) == *"$conf:"*'"retention-days" must be'* ]]; }
wait_until mistake_is_told
if "$prefix/bin/qxpagent" --check-config 2>"$work/err"; then fail "--check-config finds no mistake"; fi
grep -q "^$conf:[0-9]*: \"retention-days\" must be" "$work/err" || fail "--check-config says: $(cat "$work/err")"
configure
systemctl reload "$unit"
is_serving() { [ "$(property StatusText)" = "Serving $prefix/data/qxpagent/agent.sock" ]; }
wait_until is_serving
qxpctl run --key /test/key.pem "$work/hello.sh" >/dev/null 2>&1 || fail "no script runs after a reload"
expect "main process after a reload" "$main" "$(property MainPID)"

echo "- the socket is for root, then for a group, then for root again"
quietly useradd --system --groups qxpmaint alice
quietly useradd --system bob
# refused_in_one_line USER TEXT
refused_in_one_line() {
    if as "$1" qxpctl status >"$work/out" 2>"$work/err"; then fail "$1 may use the socket"; fi
    expect "output for $1" "" "$(cat "$work/out")"
    expect "lines of the reason for $1" 1 "$(wc -l <"$work/err")"
    grep -q "$2" "$work/err" || fail "$1 is not told why: $(cat "$work/err")"
}
expect_owned "by default" root
refused_in_one_line alice 'for the user root alone'
configure 'socket-group = qxpmaint'
systemctl restart "$unit"
expect_owned "with a socket group" qxpmaint
as alice qxpctl status >/dev/null || fail "a member of the group cannot use the socket"
refused_in_one_line bob 'the group qxpmaint: join that group'
systemctl stop "$unit"
configure
systemctl start "$unit"
expect_owned "with the group taken back" root
refused_in_one_line alice 'for the user root alone'
configure 'socket-group = qxpmaint'
systemctl restart "$unit"

echo "- an agent that hangs is killed and started anew"
drop_in WatchdogSec=2 RestartSec=100ms
systemctl restart "$unit"
main=$(property MainPID)
kill -STOP "$main"
wait_until restarted_from "$main"
in_journal 'Watchdog timeout' || fail "it was not the watchdog that ended the agent"
qxpctl run --key /test/key.pem "$work/hello.sh" >/dev/null 2>&1 || fail "no script runs after the watchdog"
drop_in_nothing
systemctl restart "$unit"
expect "OOMPolicy" continue "$(property OOMPolicy)"

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
wait_until restarted_from "$main"
expect_scripts_ended "crash"
qxpctl run --key /test/key.pem "$work/hello.sh" >/dev/null 2>&1 || fail "no script runs after a crash"

echo "- a mistake in the options ends the service at once, and no restart repeats it"
systemctl stop "$unit"
drop_in ExecStart= "ExecStart=$prefix/bin/qxpagent --log-level nonsense"
if systemctl start "$unit" 2>/dev/null; then fail "the agent starts with a mistake in its options"; fi
expect "state" failed "$(property ActiveState)"
expect "starts that were repeated" 0 "$(property NRestarts)"
drop_in_nothing
systemctl start "$unit"

echo "- an upgrade restarts what runs, and leaves alone what was stopped"
main=$(property MainPID)
quietly dpkg -i --force-confold /test/new/qxpmaint_*.deb /test/new/qxpmaint-agent_*.deb
expect_active "after an upgrade"
expect_owned "after an upgrade" qxpmaint
as alice qxpctl status >/dev/null || fail "after an upgrade a member of the group cannot use the socket"
[ "$(property MainPID)" != "$main" ] || fail "the old agent still runs after an upgrade"
systemctl stop "$unit"
systemctl disable --quiet "$unit"
quietly dpkg -i --force-confold /test/old/qxpmaint_*.deb /test/old/qxpmaint-agent_*.deb
expect "a stopped agent after an upgrade" inactive "$(property ActiveState)"
expect "a disabled agent after an upgrade" disabled "$(systemctl is-enabled "$unit" || true)"

echo "- removing stops the agent"
systemctl enable --quiet --now "$unit"
expect_active "enabled again"
start_hanging_script
quietly dpkg -r qxpmaint-agent
expect_scripts_ended "removal"
expect "agents left" 0 "$(agent_processes)"
grep -q '^socket-group = qxpmaint$' "$conf" || fail "the removal took the configuration"
present "$prefix/data/qxpagent/agent.db"
quietly gpasswd --delete alice qxpmaint
quietly dpkg -P qxpmaint-agent qxpmaint
absent "$prefix"
if getent group qxpmaint >/dev/null; then fail "the empty group is left after a purge"; fi
expect "the unit after a purge" not-found "$(property LoadState)"
