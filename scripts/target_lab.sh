#!/usr/bin/env bash
# SPDX-License-Identifier: ISC
# The whole lab on an access point's CPU: builds a cross preset's daemon,
# database server, rgdb, cipher (and its size-limit variants), the lab's
# preload shim and the unit tests; runs the unit tests under qemu; then every
# lab suite of the native build (build/dev) against access points that run
# the target's programs under qemu (TAVC_E2E_TARGET, lab/README.md). Prints
# the pass count and the time. The lab needs root.
#
# Usage: scripts/target_lab.sh [mips|mipsel|aarch64] [-j N] [extra ctest arguments for the lab run]
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
t0=$SECONDS

preset=mips
jobs=2
while (($#)); do
    case $1 in
        mips | mipsel | aarch64) preset=$1; shift ;;
        -j) jobs=$2; shift 2 ;;
        -h | --help) sed -n '2,9p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) break ;;
    esac
done
[ "$(id -u)" = 0 ] || { echo "target_lab: the lab needs root" >&2; exit 1; }
target=$root/build/$preset
scripts/deps.sh "g++-$(sed -n 's/^set(TAVC_CROSS_TRIPLE \(.*\))$/\1/p' "cmake/toolchains/$preset-linux-gnu.cmake")" \
    qemu-user googletest

# --- builds ------------------------------------------------------------------------
# The target's programs and unit tests (not its lab suites: those run natively).
cmake --preset "$preset" >/dev/null
nice cmake --build "$target" -j"$jobs" --target tavc xmldb rgdb tav_cipher tav_cipher_enc65508 \
    tav_cipher_dec1025 tavlab_qemu_shim tavc_unit_tests proto_test proto_device_check lrgbin_tests \
    lrgbin_store_tests tav_cipher_test profile_default_test
cmake --preset dev >/dev/null
nice cmake --build build/dev -j"$jobs"
echo "target_lab: built in $((SECONDS - t0)) s"

# --- unit tests under qemu ---------------------------------------------------------
# Per suite folder. Without binfmt_misc a target program cannot start another
# target program, so the database server's and tavctl's suites, which start
# theirs, stay out (the server runs on the target in every lab suite below;
# tavctl is the manager's), and so does the generated-doc check, where a host
# tool runs a target-built generator; packaging's check install trees of a
# whole build, the same on every CPU.
summary() { # LOG: "PASSED FAILED SKIPPED"
    local line total bad skipped
    line=$(grep -E '^[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$1" || echo "0% tests passed, 1 tests failed out of 1")
    total=$(sed -E 's/.* out of ([0-9]+).*/\1/' <<<"$line")
    bad=$(sed -E 's/.*, ([0-9]+) tests? failed.*/\1/' <<<"$line")
    skipped=$(grep -cE '^[[:space:]]+[0-9]+ - .* \((Skipped|Not Run)\)$' "$1" || true)
    echo "$((total - bad - skipped)) $bad $skipped"
}
t1=$SECONDS
u_pass=0 u_fail=0 u_skip=0
for s in tavc proto lrgbin lab profiles build hardening; do
    log=$target/target-unit-$s.log
    rc=0
    nice ctest --test-dir "$target/tests/$s" -L unit -E '^(protocol_doc|wireshark_tables)_current$' -j"$jobs" --output-on-failure \
        --timeout 300 >"$log" 2>&1 || rc=$?
    read -r p f k < <(summary "$log")
    ((rc == 0 || f > 0)) || f=1
    ((f == 0)) || cat "$log"
    u_pass=$((u_pass + p)) u_fail=$((u_fail + f)) u_skip=$((u_skip + k))
done
echo "target_lab: unit tests under qemu: $u_pass passed, $u_fail failed, $u_skip skipped in $((SECONDS - t1)) s"

# --- lab suites against the target's access points --------------------------------
t2=$SECONDS
log=$target/target-lab.log
run_tmp=$(mktemp -d "${TMPDIR:-/tmp}/tavc-target.XXXXXX")
finish() {
    ctest --test-dir build/dev -L lab -R '_cleanup$' >/dev/null 2>&1 || true
    rm -rf "$run_tmp"
}
trap finish EXIT
rc=0
TMPDIR=$run_tmp TEST_TMPDIR=$run_tmp TAVC_E2E_TARGET=$target \
    nice ctest --test-dir build/dev -L lab -j"$jobs" --output-on-failure "$@" >"$log" 2>&1 || rc=$?
read -r l_pass l_fail l_skip < <(summary "$log")
((rc == 0 || l_fail > 0)) || l_fail=1
((l_fail == 0)) || cat "$log"
sed -nE 's/^[[:space:]]+[0-9]+ - (.*) \((Skipped|Not Run)\)$/target_lab: skipped: \1/p' "$log"
echo "target_lab: lab suites against $preset access points: $l_pass passed, $l_fail failed, $l_skip skipped in $((SECONDS - t2)) s"

echo "$preset: $((u_pass + l_pass)) passed, $((u_fail + l_fail)) failed, $((u_skip + l_skip)) skipped in $((SECONDS - t0)) s"
((u_fail + l_fail == 0))
