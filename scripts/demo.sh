#!/usr/bin/env bash
# SPDX-License-Identifier: ISC
# The lab demo: builds everything, brings up three simulated access points and
# a manager host in network namespaces, and lets the manager find them by raw
# Ethernet and by UDP. Needs root. `--keep` leaves the lab up afterwards
# (`lab/tavlab down` removes it).
set -euo pipefail
cd "$(dirname "$0")/.."

keep=0
n=3
while [ $# -gt 0 ]; do
    case $1 in
        --keep) keep=1 ;;
        -n) n=$2; shift ;;
        -h|--help) sed -n '2,6p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) echo "demo: unknown option $1" >&2; exit 2 ;;
    esac
    shift
done
[ "$(id -u)" -eq 0 ] || { echo "demo: must run as root (network namespaces)" >&2; exit 1; }

scripts/deps.sh
cmake --preset dev >/dev/null
cmake --build build/dev -j"$(nproc)"

lab=lab/tavlab
[ $keep -eq 1 ] || trap '$lab down >/dev/null 2>&1 || true' EXIT
$lab down >/dev/null 2>&1 || true
$lab up -n "$n" --build build/dev
sleep 1

tavctl() { build/dev/tools/tavctl/tavctl --netns tavlab-mgr --cipher build/dev/sim/cipher/TAV_Auth.so "$@"; }

step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
step "ap1's configuration database (sim/xmldb), read with rgdb inside the access point"
for k in /sys/hostname /runtime/wan/inf:1/mac /runtime/wan/inf:1/ip /wlan/inf:1/ssid; do
    printf '%-28s %s\n' "$k" "$($lab exec ap1 rgdb -g "$k")"
done
step "discovery over raw Ethernet (EtherType 0x2386) from the manager"
tavctl --iface eth0 --timeout 2 discover
step "discovery over UDP broadcast 192.0.2.255:62976"
tavctl --udp 192.0.2.255 --timeout 2 discover
step "the same over UDP, as JSON for scripts"
tavctl --udp 224.0.0.1 --timeout 2 --json discover
step "functions served by ap1"
tavctl --iface eth0 --target 02:7a:76:00:00:01 functions
step "the lab's access points"
$lab status
if [ $keep -eq 1 ]; then
    printf '\nThe lab is still up: try `lab/tavlab status`, then `lab/tavlab down`.\n'
fi
