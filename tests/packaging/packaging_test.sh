#!/bin/sh
# SPDX-License-Identifier: ISC
# What an install of a build tree gives, and the service files built on it,
# each check staged in a temporary directory (arguments: tests/packaging).
set -u
d=$(mktemp -d) && trap 'rm -rf "$d"' EXIT || exit 1
export LC_ALL=C
check=$1 && shift
stage() { cmake --install "$1" ${2:+--component "$2"} --prefix "$3" >/dev/null; }
case $check in
staging) # each component's tree file by file; the whole install is their union
    b=$1 && shift
    for c in device manager substitutes ''; do stage "$b" "$c" "$d/${c:-all}" || exit 1; done
    cd "$d" && find device manager substitutes ! -type d | sort >got && printf '%s\n' "$@" | sort | diff - got &&
        find all ! -type d | cut -d/ -f2- | sort >whole && cut -d/ -f2- got | sort | diff - whole ;;
systemd) # systemd-analyze exits 0 on unknown keys and bad values: any output fails
    command -v systemd-analyze >/dev/null || exit 77
    stage "$1" device "$d" || exit 1
    sed "s|^ExecStart=/usr/sbin/tavc$|ExecStart=$d/$2/tavc|" "$d/lib/systemd/system/tavc.service" >"$d/tavc.service"
    out=$(systemd-analyze verify --man=no "$d/tavc.service" 2>&1)  # the pages: "man" below
    [ -z "$out" ] || { echo "$out"; exit 1; } ;;
openwrt) # the package installs what the device component does, the procd script for the unit
    sh -n "$2/files/tavc.init" || exit 1
    DESTDIR="$d/root" cmake --install "$1" --component device --prefix /usr >/dev/null || exit 1
    (cd "$d/root" && find . ! -type d | cut -c3- | grep -v "^usr/$3/" |
        sed 's|^usr/lib/systemd/system/tavc.service$|etc/init.d/tavc|' | sort) >"$d/want"
    awk '$1 ~ /^[$][(]INSTALL_(BIN|DATA|CONF)[)]$/ { d = $NF; sub(/^[$][(]1[)][/]/, "", d); print d }' "$2/Makefile" |
        sort | diff "$d/want" - ;;
man) # every page renders without a warning
    for f; do MANWIDTH=80 man --warnings -l "$f" 2>&1 >/dev/null | grep . && exit 1; done; exit 0 ;;
*) echo "packaging_test: unknown check $check" >&2; exit 2 ;;
esac
