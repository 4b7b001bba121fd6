#!/usr/bin/env bash
# Runs every test: installs what is missing, configures, builds, runs CTest.
# Usage: scripts/test.sh [--preset dev|asan] [extra ctest arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."

preset=dev
if [ "${1:-}" = "--preset" ]; then preset=$2; shift 2; fi

scripts/deps.sh
cmake --preset "$preset" >/dev/null
cmake --build "build/$preset" -j"$(nproc)"
# Lab tests create network namespaces: never leave one behind, even on failure.
trap 'lab/tavlab down >/dev/null 2>&1 || true' EXIT
ctest --test-dir "build/$preset" --output-on-failure -j1 "$@"
