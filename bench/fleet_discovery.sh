#!/usr/bin/env bash
# SPDX-License-Identifier: ISC
# One discovery against a fleet: brings up a lab instance of its own with N
# access points (default 64), captures the manager host's segment with
# dumpcap, and for each path (raw Ethernet, UDP broadcast) sends ROUNDS
# discoveries with tavctl, one at a time. For each it prints the time from
# the request on the wire to the first and to the last (N-th) reply, how many
# replies came, and the database commands each access point's daemon spent
# during it (xmldb counts them; SIGUSR1 makes it say so), which include its
# reading of the others' broadcast replies. Also up and down times. The
# capture is read back with the Wireshark dissector (tools/wireshark).
# Not a test: it prints figures. Needs root, tshark, a built tree.
#
#   bench/fleet_discovery.sh [-n N] [--rounds R] [--build DIR] [--keep-pcap FILE]
set -euo pipefail
cd "$(dirname "$0")/.."
src=$PWD

n=64 rounds=3 build= keep=
while [ $# -gt 0 ]; do
    case $1 in
    -n) n=$2; shift ;;
    --rounds) rounds=$2; shift ;;
    --build) build=$2; shift ;;
    --keep-pcap) keep=$2; shift ;;
    -h | --help) sed -n '2,15p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "fleet_discovery: unknown argument $1" >&2; exit 2 ;;
    esac
    shift
done
[ "$(id -u)" = 0 ] || { echo "fleet_discovery: must run as root" >&2; exit 1; }
command -v tshark >/dev/null || { echo "fleet_discovery: needs tshark (scripts/deps.sh)" >&2; exit 1; }
if [ -z "$build" ]; then build=build/release; [ -x $build/tavc/tavc ] || build=build/dev; fi
build=$(readlink -f "$build")
# The manager's side is the native dev tree's when the build is a release one.
tavctl_bin=$build/tools/tavctl/tavctl
[ -x "$tavctl_bin" ] || tavctl_bin=$src/build/dev/tools/tavctl/tavctl
cipher=$(dirname "$(dirname "$tavctl_bin")")/../sim/cipher/TAV_Auth.so

instance=fleet$$
lab() { lab/tavlab --instance "$instance" "$@"; }
tmp=$(mktemp -d) cap=
trap '[ -z "$cap" ] || kill "$cap" 2>/dev/null; lab down >/dev/null 2>&1 || true; rm -rf "$tmp"' EXIT
trap 'exit 130' INT TERM
now() { date +%s.%N; }
span() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", b - a }'; }

t0=$(now)
lab up -n "$n" --build "$build" >/dev/null
t1=$(now)
echo "lab of $n access points ($build): up in $(span "$t0" "$t1") s"

# Host pids of every daemon and database, from one pass over /proc; then
# wait until every daemon has bound its UDP port.
declare -A daemon=() db=()
for d in /proc/[0-9]*; do
    read -r comm 2>/dev/null <"$d/comm" || continue
    [ "$comm" = tavc ] || [ "$comm" = xmldb ] || continue
    for ((i = 1; i <= n; i++)); do
        [ "$d/ns/net" -ef "/run/netns/tavlab-$instance-ap$i" ] || continue
        if [ "$comm" = tavc ]; then daemon[$i]=${d#/proc/}; else db[$i]=${d#/proc/}; fi
        break
    done
done
[ ${#daemon[@]} = "$n" ] && [ ${#db[@]} = "$n" ] || { echo "fleet_discovery: found ${#daemon[@]} daemons and ${#db[@]} databases" >&2; exit 1; }
for i in "${!daemon[@]}"; do
    for ((k = 0; k < 200; k++)); do grep -q ':F600 ' "/proc/${daemon[$i]}/net/udp" && break; sleep 0.05; done
done

ip netns exec "tavlab-$instance-mgr" dumpcap -q -i eth0 -P -B 16 -w "$tmp/fleet.pcap" 2>"$tmp/dumpcap.err" &
cap=$!
for ((k = 0; k < 100; k++)); do grep -q Capturing "$tmp/dumpcap.err" && break; sleep 0.1; done

# Commands served by every database so far, one line per access point.
served() {
    local i
    for i in "${!db[@]}"; do kill -USR1 "${db[$i]}"; done
    sleep 0.2
    for i in "${!db[@]}"; do
        printf '%s %s\n' "$i" "$(sed -n 's/^xmldb: \([0-9]*\) commands served$/\1/p' \
            "/run/tavlab-$instance/ap$i/xmldb.log" | tail -n 1)"
    done | sort -n
}

rows=()
for path in "--iface eth0" "--udp 192.0.2.255"; do
    for ((r = 1; r <= rounds; r++)); do
        served >"$tmp/before"
        seq=$((RANDOM % 65536))
        # shellcheck disable=SC2086
        TAVCTL_CONFIG=/dev/null "$tavctl_bin" --netns "tavlab-$instance-mgr" --cipher "$cipher" $path \
            --seq "$seq" --timeout 5 --json discover >"$tmp/replies.json" 2>/dev/null || true
        served >"$tmp/after"
        spent=$(join "$tmp/before" "$tmp/after" | awk '{ d = $3 - $2; s += d; if (min == "" || d < min) min = d; if (d > max) max = d }
            END { printf "%.1f (%d to %d)", s / NR, min, max }')
        rows+=("${path%% *}|$seq|$spent")
        sleep 1
    done
done
sleep 0.5
kill -INT "$cap" && wait "$cap" || true
cap=
[ -z "$keep" ] || cp "$tmp/fleet.pcap" "$keep"

t2=$(now)
lab down
t3=$(now)

# Request time, and every reply's time, per sequence number, from the capture.
tshark -r "$tmp/fleet.pcap" -X lua_script:"$src/tools/wireshark/tav.lua" -Y 'tav.op == 0xa1' -T fields \
    -e frame.time_epoch -e tav.msg_type -e tav.sequence 2>/dev/null >"$tmp/times"
printf '\n%-6s %-7s %-12s %-12s %-8s %s\n' PATH SEQ FIRST_REPLY LAST_REPLY REPLIES "DB COMMANDS PER AP (mean, min to max)"
for row in "${rows[@]}"; do
    IFS='|' read -r path seq spent <<<"$row"
    awk -v seq="$(printf '0x%04x' "$seq")" -v path="${path#--}" -v spent="$spent" -v n="$n" '
        $3 == seq && ($2 == "0x7dfd" || $2 == "0xfdfd") && !sent { sent = $1 }
        $3 == seq && ($2 == "0x7eee" || $2 == "0xfeee") { t[++k] = $1 }
        END {
            if (!sent || !k) { printf "%-6s %-7s no request or no reply in the capture\n", path, seq; exit }
            printf "%-6s %-7s %-12s %-12s %-8s %s\n", path, seq, sprintf("%.1f ms", (t[1] - sent) * 1000),
                sprintf("%.1f ms", (t[k] - sent) * 1000), k (k == n ? "" : " (of " n ")"), spent
        }' "$tmp/times"
done
echo
echo "down in $(span "$t2" "$t3") s"
