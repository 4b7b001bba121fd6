#!/usr/bin/env bash
# SPDX-License-Identifier: ISC
# Test share of the code: non-blank lines of tracked test files (under a
# test/, tests/ or fuzz/ folder) against the non-blank lines of every other
# tracked source file. Usage: scripts/test_ratio.sh [--max PERCENT]
set -euo pipefail
cd "$(dirname "$0")/.."
max=
case ${1-} in
    --max) [[ ${2-} =~ ^[0-9]+$ ]] || { echo "usage: $0 [--max PERCENT]" >&2; exit 2; }; max=$2 ;;
    '') ;;
    *) echo "usage: $0 [--max PERCENT]" >&2; exit 2 ;;
esac
count() { # non-blank lines of the NUL-separated files on stdin
    xargs -0 -r cat -- | grep -c '[^[:space:]]' || true
}
src='\.(c|cc|cpp|cxx|h|hh|hpp|py|sh)$'
all=$(git ls-files -z | grep -zE "$src" | count)
tests=$(git ls-files -z | grep -zE "$src" | grep -zE '(^|/)(tests?|fuzz)/' | count)
other=$((all - tests))
pct=$(( other > 0 ? (tests * 100 + other / 2) / other : 0 ))
echo "tests $tests lines, other code $other lines: $pct%"
if [ -n "$max" ] && (( tests * 100 > max * other )); then exit 1; fi
