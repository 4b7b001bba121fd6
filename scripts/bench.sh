#!/usr/bin/env bash
# SPDX-License-Identifier: ISC
# The performance table: builds the release daemon, the stand-ins and the
# benchmark programs, brings up a lab instance of its own (root) and prints
# the table of bench/bench_table.cpp: per op code and path the latency
# against its floor, the instructions per request under callgrind, start-up,
# size and memory. The table also goes to docs/performance.md (the README's
# Performance section shows it). Not part of CI.
#   --quick            about a minute: fewer rounds, 3,000 mixed requests
#   --baseline DAEMON  also count the instructions of another daemon binary
#   --out FILE         write the table there instead
# Usage: scripts/bench.sh [--quick] [--baseline DAEMON] [--out FILE]
set -euo pipefail
cd "$(dirname "$0")/.."

args=()
out=docs/performance.md
while [ $# -gt 0 ]; do
    case $1 in
        --quick) args+=(--quick); shift ;;
        --baseline) args+=(--baseline "$(readlink -f "$2")"); shift 2 ;;
        --out) out=$2; shift 2 ;;
        -h|--help) sed -n '3,12p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) echo "bench: unknown argument $1" >&2; exit 2 ;;
    esac
done
[ "$(id -u)" -eq 0 ] || { echo "bench: the lab needs root" >&2; exit 1; }

scripts/deps.sh
cmake --preset release >/dev/null
cmake --build build/release --target bench_table
tmp=$(mktemp)
trap 'rm -f "$tmp"' EXIT
build/release/bench/bench_table "${args[@]}" --out "$tmp"
{
    echo "<!-- Written by scripts/bench.sh; the README's Performance section explains it. -->"
    cat "$tmp"
} >"$out"
echo "bench: table written to $out"
