#!/usr/bin/env bash
# SPDX-License-Identifier: ISC
# Reads a binary's ELF headers (of any target) and checks the release
# hardening: stack protector, FORTIFY_SOURCE, PIE, full RELRO, non-executable
# stack, and that the only shared library it needs is libc (and its loader).
# One line per property, "yes" or "no"; exit status 1 when any is missing, 77
# when the binary is absent.
# Usage: scripts/check_hardening.sh [BINARY (default build/release/tavc/tavc)]
set -uo pipefail
cd "$(dirname "$0")/.."

bin=${1:-build/release/tavc/tavc}
case $bin in -h|--help) sed -n '2,7p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;; esac
[ -f "$bin" ] || { echo "check_hardening: no binary at $bin" >&2; exit 77; }

dyn=$(readelf -dW "$bin")
prog=$(readelf -lW "$bin")
syms=$(readelf -W --dyn-syms "$bin" | awk '{print $8}')
type=$(readelf -hW "$bin" | sed -n 's/^ *Type: *//p')

failed=0
check() {  # NAME CONDITION-RESULT DETAIL
    if [ "$2" = 0 ]; then echo "$1: yes ($3)"; else echo "$1: no ($3)"; failed=1; fi
}

grep -q '^__stack_chk_fail@' <<<"$syms"
check "stack protector" $? "__stack_chk_fail imported"

fortified=$(grep -E '^__[a-z0-9_]+_chk@' <<<"$syms" | grep -v '^__stack_chk_fail@' | cut -d@ -f1 | sort -u | tr '\n' ' ')
[ -n "$fortified" ]
check "FORTIFY_SOURCE" $? "checked calls: ${fortified:-none}"

[[ $type == DYN* ]] && grep -Eq 'FLAGS_1.*PIE' <<<"$dyn"
check "PIE" $? "type $type"

grep -q 'GNU_RELRO' <<<"$prog" && grep -Eq '\(FLAGS\).*BIND_NOW|FLAGS_1.*NOW' <<<"$dyn"
check "full RELRO" $? "GNU_RELRO segment and BIND_NOW"

stack=$(grep 'GNU_STACK' <<<"$prog" | awk '{print $7}')
[ -n "$stack" ] && [[ $stack != *E* ]]
check "non-executable stack" $? "GNU_STACK flags ${stack:-absent}"

# The C library, and on some targets (MIPS) its dynamic loader by name.
needed=$(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"$dyn" | tr '\n' ' ')
others=$(tr ' ' '\n' <<<"$needed" | grep -vxE 'libc\.so(\.6)?|ld\.so\.1|ld-linux[-a-z0-9_.]*\.so\.[0-9]+|' || true)
grep -qE '(^| )libc\.so(\.6)? ' <<<"$needed" && [ -z "$others" ]
check "only libc" $? "needs: ${needed:-nothing}"

exit $failed
