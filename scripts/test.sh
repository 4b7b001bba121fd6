#!/usr/bin/env bash
# SPDX-License-Identifier: ISC
# Runs every test: installs what is missing, configures, builds, runs every
# suite through CTest, several at a time (each lab suite has lab instances of
# its own), then the big-endian pass: the unit tests and every lab suite on
# MIPS under qemu (scripts/target_lab.sh mips).
# Usage: scripts/test.sh [--preset dev|asan] [--no-bigendian] [-j N] [extra ctest arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."

preset=dev
bigendian=1
jobs=$(($(nproc) + 1))  # lab suites spend most of their time waiting
while [ $# -gt 0 ]; do
    case $1 in
        -j) jobs=$2; shift 2 ;;
        --preset) preset=$2; shift 2 ;;
        --no-bigendian) bigendian=0; shift ;;
        *) break ;;
    esac
done

scripts/deps.sh

cmake --preset "$preset" >/dev/null
cmake --build "build/$preset" -j"$(nproc)"

# Everything the tests write to a temporary directory goes to one of this
# run's own, removed at the end.
run_tmp=$(mktemp -d "${TMPDIR:-/tmp}/tavc-test.XXXXXX")
export TMPDIR=$run_tmp TEST_TMPDIR=$run_tmp
# Lab tests create network namespaces under lab instances of their own (named
# after the build tree), which their ctest cleanup entries take down. When the
# run did not get that far (interrupted), run those entries: they remove the
# tests' instances only, never a lab someone brought up by hand.
done_ctest=0
finish() {
    if [ "$done_ctest" = 0 ]; then
        ctest --test-dir "build/$preset" -L lab -R '_cleanup$' >/dev/null 2>&1 || true
    fi
    rm -rf "$run_tmp"
}
trap finish EXIT
status=0
ctest --test-dir "build/$preset" --output-on-failure -j"$jobs" "$@" || status=$?
done_ctest=1
# A whole run only: extra ctest arguments ask for a part of the suites.
if ((bigendian)) && [ "$preset" = dev ] && (($# == 0)); then scripts/target_lab.sh mips || status=1; fi
exit "$status"
