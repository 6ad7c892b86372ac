# shellcheck shell=bash
# Sourced by the package tests. Those run as root inside a throw-away Debian tree, with in /test: the packages of this
# build in old/, the same of a higher version in new/, key.pem (the private half of the key that the plugin trusts).
# shellcheck disable=SC2034 # the tests use what is set here
set -euo pipefail

prefix=/opt/qxpmaint
packages=(qxpmaint qxpmaint-agent qxpmaint-dev)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'echo "FAILED: ${BASH_SOURCE[0]}:$LINENO: $BASH_COMMAND" >&2' ERR
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# expect WHAT WANTED GOT
expect() { [ "$2" = "$3" ] || fail "$1: wanted '$2', got '$3'"; }

# wait_until COMMAND...: until it succeeds; fails after two minutes.
wait_until() {
    local deadline=$((SECONDS + 120))
    until "$@"; do
        [ "$SECONDS" -lt "$deadline" ] || fail "waited two minutes for: $*"
        sleep 0.1
    done
}

# present PATH..., absent PATH...: fail with the first path for which it is otherwise.
present() {
    local path
    for path in "$@"; do [ -e "$path" ] || fail "$path is missing"; done
}
absent() {
    local path
    for path in "$@"; do if [ -e "$path" ] || [ -L "$path" ]; then fail "$path is there"; fi; done
}

quietly() {
    "$@" >"$work/quiet" 2>&1 || {
        cat "$work/quiet" >&2
        fail "$*"
    }
}

# install_dependencies PACKAGE_FILE...: what the packages need and do not bring themselves.
install_dependencies() {
    local wanted
    wanted=$(for package in "$@"; do dpkg-deb -f "$package" Depends; done | tr ',' '\n' | sed 's/^ *//' |
        grep -v '^qxpmaint' | sort -u | paste -sd ,)
    quietly apt-get update -qq
    quietly apt-get satisfy -y -qq --no-install-recommends "$wanted"
}

# A script that says who runs it.
# shellcheck disable=SC2016 # for that script
echo 'echo "hello from $(id -un)"' >"$work/hello.sh"

# mode_of PATH: mode, owner and group.
mode_of() { stat -c '%a %U:%G' "$1"; }

version_of() { dpkg-query -W -f '${Version}' "$1"; }
