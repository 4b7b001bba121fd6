#!/usr/bin/env bash
# SPDX-License-Identifier: ISC
# The lab demo: builds everything, brings up three simulated access points and
# a manager host in network namespaces (a lab instance named "demo", beside any
# other lab), and lets the manager find and ask them by raw Ethernet and UDP.
# Needs root. `--keep` leaves the lab up afterwards (`lab/tavlab --instance
# demo down` removes it).
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

# A lab instance of its own: other labs on this machine are left alone.
instance=demo
lab() { lab/tavlab --instance "$instance" "$@"; }
[ $keep -eq 1 ] || trap 'lab down >/dev/null 2>&1 || true' EXIT
lab down >/dev/null 2>&1 || true
lab up -n "$n" --build build/dev
sleep 1

# The lab's administrator account is admin / admin (sim/profiles/default).
export TAVCTL_CONFIG=/dev/null TAVCTL_NETNS=tavlab-$instance-mgr TAVCTL_IFACE=eth0 \
       TAVCTL_CIPHER=$PWD/build/dev/sim/cipher/TAV_Auth.so TAVCTL_USER=admin TAVCTL_PASSWORD=admin
tavctl() { build/dev/tools/tavctl/tavctl "$@"; }

step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
step "ap1's configuration database (sim/xmldb), read with rgdb inside the access point"
for k in /sys/hostname /runtime/wan/inf:1/mac /runtime/wan/inf:1/ip /wlan/inf:1/ssid; do
    printf '%-28s %s\n' "$k" "$(lab exec ap1 rgdb -g "$k")"
done
step "discovery over raw Ethernet (EtherType 0x2386) from the manager"
tavctl discover
step "discovery over UDP broadcast 192.0.2.255:62976"
tavctl --udp 192.0.2.255 discover
step "the fleet's status, asked of every access point in parallel"
tavctl status
step "the same as JSON for scripts (one array, one object per access point)"
tavctl --udp 224.0.0.1 --json time get
step "a change, read back: ap1's system name"
tavctl --target ap1 device set --name Demo-Lobby
tavctl --target ap1 device set --name AP-Lab-1 >/dev/null
step "the lab's access points"
lab status
if [ $keep -eq 1 ]; then
    printf '\nThe lab is still up: try `lab/tavlab --instance %s status`, then `lab/tavlab --instance %s down`.\n' \
        "$instance" "$instance"
fi
