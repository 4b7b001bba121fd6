#!/usr/bin/env bash
# SPDX-License-Identifier: ISC
# What an idle lab costs: brings up a lab instance of its own with N access
# points (default 8), lets it settle, then measures over SECONDS (default 60)
#   - the CPU time of the lab's own processes (utime + stime, with what their
#     reaped children used, from /proc/PID/stat of every process in the lab's
#     network namespaces, before and after the window): the main figure, as
#     other work on the machine does not disturb it;
#   - the whole machine's busy time (/proc/stat), with a window of the same
#     length before the lab came up as the baseline.
# Takes its lab down at the end, also when interrupted. Needs root.
#
#   scripts/lab_idle.sh [N [SECONDS]] [--build DIR] [--no-baseline]
set -euo pipefail
cd "$(dirname "$0")/.."

n=8 secs=60 build=build/dev baseline=1 pos=0
while [ $# -gt 0 ]; do
    case $1 in
    --build) build=$2; shift ;;
    --no-baseline) baseline=0 ;;
    -h | --help) sed -n '2,12p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *)
        [[ $1 =~ ^[0-9]+$ ]] || { echo "lab_idle: unknown argument $1" >&2; exit 2; }
        if [ $pos = 0 ]; then n=$1; else secs=$1; fi
        pos=$((pos + 1))
        ;;
    esac
    shift
done
[ "$(id -u)" = 0 ] || { echo "lab_idle: must run as root" >&2; exit 1; }
[ "$secs" -ge 1 ] || { echo "lab_idle: SECONDS must be at least 1" >&2; exit 2; }

instance=idle$$
lab() { lab/tavlab --instance "$instance" "$@"; }
trap 'lab down >/dev/null 2>&1 || true' EXIT
trap 'exit 130' INT TERM
hz=$(getconf CLK_TCK)

# Busy jiffies of the whole machine: everything but idle and iowait.
machine_busy() {
    local cpu user nice system idle iowait irq softirq steal rest
    read -r cpu user nice system idle iowait irq softirq steal rest </proc/stat
    echo $((user + nice + system + irq + softirq + steal))
}

# Start time and CPU ticks of every process of the lab; ticks count the
# process's own time and that of the children it reaped.
declare -A start_of=() ticks_of=() comm_of=()
lab_ticks() { # fills start_of, ticks_of and comm_of, by pid
    local ns p line f comm
    start_of=() ticks_of=() comm_of=()
    for ns in $(ip netns list | awk -v p="tavlab-$instance-" 'index($1, p) == 1 {print $1}'); do
        for p in $(ip netns pids "$ns" 2>/dev/null); do
            line=$(cat "/proc/$p/stat" 2>/dev/null) || continue
            # Fields after the command name, which may hold spaces: state is
            # the first, utime the 12th, stime, cutime, cstime, then
            # starttime the 20th.
            read -ra f <<<"${line##*) }"
            comm=${line#*(} comm_of[$p]=${comm%%)*}
            start_of[$p]=${f[19]}
            ticks_of[$p]=$((f[11] + f[12] + f[13] + f[14]))
        done
    done
}

pct() { # TICKS: per cent of one CPU over the window
    awk -v t="$1" -v hz="$hz" -v s="$secs" 'BEGIN { printf "%.2f", 100 * t / hz / s }'
}

base=
if [ $baseline = 1 ]; then
    echo "lab_idle: the machine without the lab for $secs s" >&2
    b0=$(machine_busy)
    sleep "$secs"
    base=$(($(machine_busy) - b0))
fi

t0=$(date +%s.%N)
lab up -n "$n" --build "$build" >/dev/null
t1=$(date +%s.%N)
sleep 5 # what start-up leaves to settle

echo "lab_idle: the lab of $n idle for $secs s" >&2
lab_ticks
declare -A s0=() k0=()
for p in "${!start_of[@]}"; do s0[$p]=${start_of[$p]} k0[$p]=${ticks_of[$p]}; done
m0=$(machine_busy)
sleep "$secs"
m1=$(machine_busy)
lab_ticks
procs=${#ticks_of[@]} own=0
declare -A by_comm=()
for p in "${!ticks_of[@]}"; do
    if [ "${s0[$p]:-}" = "${start_of[$p]}" ]; then
        t=$((ticks_of[$p] - k0[$p]))
    else
        t=${ticks_of[$p]} # born during the window
    fi
    own=$((own + t))
    by_comm[${comm_of[$p]}]=$((${by_comm[${comm_of[$p]}]:-0} + t))
done

t2=$(date +%s.%N)
lab down
t3=$(date +%s.%N)
trap - EXIT

echo "lab of $n access points, idle for $secs s ($procs processes at the end):"
echo "  lab processes:  $((own * 1000 / hz)) ms of CPU = $(pct "$own") % of one CPU"
by=
for c in "${!by_comm[@]}"; do by+="${by:+, }$c $((by_comm[$c] * 1000 / hz)) ms"; done
echo "    by program:   ${by:-none}"
whole=$((m1 - m0))
if [ -n "$base" ]; then
    echo "  whole machine:  $(pct "$whole") % of one CPU busy (without the lab: $(pct "$base") %," \
        "difference $(pct $((whole - base))) %)"
else
    echo "  whole machine:  $(pct "$whole") % of one CPU busy"
fi
awk -v a="$t0" -v b="$t1" -v c="$t2" -v d="$t3" \
    'BEGIN { printf "  up: %.2f s, down: %.2f s\n", b - a, d - c }'
