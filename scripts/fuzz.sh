#!/usr/bin/env bash
# SPDX-License-Identifier: ISC
# Builds the fuzz preset and runs every libFuzzer target for a bounded time,
# starting from the generated seed corpora (plus the corpus kept from earlier
# runs in build/fuzz/corpus). Fails on any finding: the crashing input is left
# in build/fuzz/findings/TARGET/ and replays with
#   build/fuzz/fuzz/TARGET build/fuzz/findings/TARGET/crash-...
# Prints executions, coverage and time per target; --summary FILE also writes
# them as "target execs cov ft corpus seconds" lines. --runs N runs each
# target to N executions instead of for a time (scripts/fuzz.sh --runs
# 10000000: the deep run, one target per CPU at a time).
# Usage: scripts/fuzz.sh [SECONDS-PER-TARGET (default 60) | --runs N] [--summary FILE] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=60
runs=""
summary=""
only=()
while [ $# -gt 0 ]; do
    case $1 in
        --summary) summary=$2; shift 2 ;;
        --runs) runs=$2; shift 2 ;;
        -h|--help) sed -n '3,12p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        [0-9]*) seconds=$1; shift ;;
        *) only+=("$1"); shift ;;
    esac
done

scripts/deps.sh
cmake --preset fuzz >/dev/null
cmake --build build/fuzz --target fuzz_all -j"$(nproc)"

out=build/fuzz
seeds=$out/seeds
rm -rf "$seeds"
"$out/fuzz/make_seeds" "$seeds"

mapfile -t targets < "$out/fuzz/targets.txt"
((${#only[@]})) && targets=("${only[@]}")
[ -n "$summary" ] && : > "$summary"

# One target: fuzzes for the set time, prints its figures, and leaves its
# status in $out/TARGET.rc.
fuzz_one() {
    local t=$1
    local corpus=$out/corpus/${t%_fuzz} findings=$out/findings/$t log=$out/$t.log
    mkdir -p "$corpus" "$findings" "$seeds/${t%_fuzz}"  # a target may have no seeds
    local dict=() maxlen=4096
    # The daemon deciphers at most 1024 bytes.
    [ "$t" = engine_fuzz ] && dict=(-dict="$seeds/engine.dict") maxlen=1024
    local rc=0 bound=(-max_total_time="$seconds") t0=$SECONDS
    [ -n "$runs" ] && bound=(-runs="$runs")
    "$out/fuzz/$t" "${bound[@]}" -max_len="$maxlen" -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$findings/" "${dict[@]}" \
        "$corpus" "$seeds/${t%_fuzz}" >"$log" 2>&1 || rc=$?
    local took=$((SECONDS - t0))
    local execs cov ft units
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1 || true)
    cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | cut -d' ' -f2 || true)
    ft=$(grep -o 'ft: [0-9]*' "$log" | tail -1 | cut -d' ' -f2 || true)
    units=$(grep -o 'corp: [0-9]*' "$log" | tail -1 | cut -d' ' -f2 || true)
    printf 'fuzz: %-12s execs %-10s cov %-6s ft %-6s corpus %-6s %s s\n' "$t" "${execs:-?}" "${cov:-?}" \
        "${ft:-?}" "${units:-?}" "$took"
    [ -n "$summary" ] && echo "$t ${execs:-0} ${cov:-0} ${ft:-0} ${units:-0} $took" >> "$summary"
    if [ $rc -ne 0 ]; then
        echo "fuzz: $t FOUND A PROBLEM (exit $rc); its log: $log" >&2
        grep -E '^(==[0-9]+==|SUMMARY|engine_fuzz|base64_fuzz|fuzz guard|.*runtime error)' "$log" | head -20 >&2
        ls "$findings" >&2
    fi
    echo "$rc" > "$out/$t.rc"
}

# As many targets at a time as there are CPUs, each for the whole time.
running=0
for t in "${targets[@]}"; do
    [ -n "$t" ] || continue
    if [ -n "$runs" ]; then echo "fuzz: $t to $runs executions"; else echo "fuzz: $t for ${seconds}s"; fi
    fuzz_one "$t" &
    running=$((running + 1))
    if [ "$running" -ge "$(nproc)" ]; then
        wait -n || true
        running=$((running - 1))
    fi
done
wait
good=0 bad=0
for t in "${targets[@]}"; do
    [ -n "$t" ] || continue
    if [ "$(cat "$out/$t.rc" 2>/dev/null)" = 0 ]; then good=$((good + 1)); else bad=$((bad + 1)); fi
done
echo "fuzz: $good passed, $bad failed"
[ "$bad" = 0 ]
