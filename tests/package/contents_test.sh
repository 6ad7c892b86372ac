#!/usr/bin/env bash
# What is in the packages, and what script/package refuses. Runs on the building machine.
#
#   contents_test.sh PACKAGE_DIR PUBLIC_KEY    the packages, and the key that they were built with
set -euo pipefail
trap 'echo "FAILED: ${BASH_SOURCE[0]}:$LINENO: $BASH_COMMAND" >&2' ERR
debs=$1
key=$(realpath "$2")
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    echo "FAILED: $*" >&2
    exit 1
}
expect() { [ "$2" = "$3" ] || fail "$1: wanted '$2', got '$3'"; }

# refused WANTED_TEXT ARGUMENTS...
refused() {
    local wanted=$1 status=0
    shift
    "$top/script/package" "$@" >"$work/out" 2>"$work/err" || status=$?
    expect "exit code of script/package $*" 2 "$status"
    grep -q "$wanted" "$work/err" || fail "script/package $* does not say '$wanted' but: $(cat "$work/err")"
    [ ! -e "$work/refused" ] || fail "script/package $* left something in its output directory"
}
echo "- keys that are refused"
openssl genrsa -out "$work/private.pem" 1024 2>/dev/null
openssl genrsa 2048 2>/dev/null | openssl rsa -pubout -out "$work/long.pem" 2>/dev/null
openssl genrsa -3 1024 2>/dev/null | openssl rsa -pubout -out "$work/exponent.pem" 2>/dev/null
openssl genpkey -algorithm ed25519 | openssl pkey -pubout -out "$work/ed25519.pem"
refused "a key is needed"
refused "there is no key file" "$work/missing.pem" "$work/refused"
refused "holds a private key" "$work/private.pem" "$work/refused"
refused "not an RSA key of 1024 bits" "$work/long.pem" "$work/refused"
refused "exponent .* is not 65537" "$work/exponent.pem" "$work/refused"
refused "not an RSA public key" "$work/ed25519.pem" "$work/refused"
if cmake -S "$top" -B "$work/keyless" --preset package >"$work/out" 2>&1; then fail "cmake prepares packages without a key"; fi
grep -q 'Packages need the public key' "$work/out" || fail "cmake does not say that packages need a key"

echo "- contents"
for deb in "$debs"/*.deb "$debs"/*.ddeb; do
    name=$(dpkg-deb -f "$deb" Package)
    dpkg-deb -R "$deb" "$work/$name"
    dpkg-deb -c "$deb" | awk '{print $1, $2, $6, $7, $8}' | sed 's/ *$//' >"$work/$name.list"
    (cd "$work/$name" && md5sum --quiet -c DEBIAN/md5sums) || fail "$name: wrong checksums"
    if awk '$2 != "root/root"' "$work/$name.list" | grep -q .; then fail "$name: files that are not root's"; fi
    if grep -E '^[^l].{7}w' "$work/$name.list"; then fail "$name: files that everybody may write"; fi
done
expect "packages" "qxpmaint qxpmaint-agent qxpmaint-dev" \
    "$(for deb in "$debs"/*.deb; do dpkg-deb -f "$deb" Package; done | sort | paste -sd ' ')"
# files_with_private_key FILE_OR_DIRECTORY...: a key itself, not a program that knows the words.
files_with_private_key() { grep -rlazP -e '-----BEGIN [A-Z0-9 ]*PRIVATE KEY-----\s+[A-Za-z0-9+/]{16}' "$@"; }
files_with_private_key "$work/private.pem" >/dev/null || fail "the search for private keys finds none"
if files_with_private_key "$work"/qxpmaint*/; then fail "a private key is in a package"; fi
if find "$work"/qxpmaint*/ -name '*.pem' -o -name '*.key' | grep .; then fail "a key file is in a package"; fi
if grep -rlaF "$top" "$work"/qxpmaint*/; then fail "a path of the building machine is in a package"; fi

version=$(dpkg-deb -f "$debs"/qxpmaint_*.deb Version)
for name in qxpmaint-agent qxpmaint-dev; do
    dpkg-deb -f "$debs/${name}_"*.deb Depends | grep -qF "qxpmaint (= $version)" || fail "$name does not need this qxpmaint"
done
for library in libssl3 libcjson1 libinih1; do
    dpkg-deb -f "$debs"/qxpmaint_*.deb Depends | grep -qw "$library" || fail "qxpmaint does not depend on $library"
done
man=$work/qxpmaint-agent/usr/share/man
for page in man1/qxpctl.1 man8/qxpagent.8; do
    zcat "$man/$page.gz" >"$work/page"
    expect "warnings of groff in $page" "" "$(groff -man -Tutf8 -ww -z "$work/page" 2>&1)"
done
expect "what qxpagent.conf(5) leads to" ".so man8/qxpagent.8" "$(zcat "$man/man5/qxpagent.conf.5.gz")"
# Every option, and so every key of the configuration file.
zcat "$man/man8/qxpagent.8.gz" | groff -man -Tascii -P-c -P-b -P-u -P-o >"$work/page"
LD_LIBRARY_PATH=$work/qxpmaint/opt/qxpmaint/lib "$work/qxpmaint-agent/opt/qxpmaint/bin/qxpagent" --help >"$work/help"
[ "$(grep -c '^ *--' "$work/help")" -ge 13 ] || fail "qxpagent --help has no options: $(cat "$work/help")"
while read -r option; do
    grep -q -- "^ *$option\b" "$work/page" || fail "qxpagent(8) does not name $option"
done < <(grep -o '^ *--[a-z-]*' "$work/help")

for program in "$work"/qxpmaint/opt/qxpmaint/lib/*.so "$work"/qxpmaint-agent/opt/qxpmaint/bin/*; do
    run_path=$(readelf -d "$program" | sed -n 's/.*RUNPATH.*\[\(.*\)\]/\1/p')
    # shellcheck disable=SC2016 # $ORIGIN is for the loader
    case $run_path in
        '$ORIGIN' | '$ORIGIN/../lib') ;;
        *) fail "$program: run path '$run_path'" ;;
    esac
done

echo "- the same again"
SOURCE_DATE_EPOCH=$(stat -c %Y "$work/qxpmaint/opt/qxpmaint/lib/libqxpmaint.so") "$top/script/package" "$key" "$work/again" >/dev/null
for deb in "$debs"/*.deb; do cmp "$deb" "$work/again/$(basename "$deb")" || fail "the same sources and key make another package"; done

echo "- lintian"
TMPDIR=$work lintian --allow-root --fail-on error --tag-display-limit 0 "$debs"/*.deb || fail "lintian finds errors"
