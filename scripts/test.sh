#!/usr/bin/env bash
# Runs every test: installs what is missing, configures, builds, runs the
# device code's unit tests on a big-endian target (s390x under qemu), then
# every suite through CTest.
# Usage: scripts/test.sh [--preset dev|asan] [--no-bigendian] [extra ctest arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."

preset=dev
bigendian=1
while [ $# -gt 0 ]; do
    case $1 in
        --preset) preset=$2; shift 2 ;;
        --no-bigendian) bigendian=0; shift ;;
        *) break ;;
    esac
done

scripts/deps.sh
if ((bigendian)); then scripts/bigendian.sh; fi

cmake --preset "$preset" >/dev/null
cmake --build "build/$preset" -j"$(nproc)"
# Lab tests create network namespaces: never leave one behind, even on failure.
trap 'lab/tavlab down >/dev/null 2>&1 || true' EXIT
ctest --test-dir "build/$preset" --output-on-failure -j1 "$@"
