#!/usr/bin/env bash
# SPDX-License-Identifier: ISC
# Runs the READMEs' blocks fenced "```sh lab", file by file and in order,
# against a lab instance of this test's own: an example that fails fails the
# test. The lab's names and the build directory are put in for the default
# ones the examples show. Usage: readme_examples.sh SOURCE BUILD FILE...
set -uo pipefail
src=$1 build=$2
shift 2
[ "$(id -u)" -eq 0 ] || { echo "the lab needs root"; exit 77; }
# The big-endian pass is about the access points; these examples are the manager's.
[ -z "${TAVC_E2E_TARGET:-}" ] || { echo "examples run natively only"; exit 77; }
cd "$src"
instance=rd$(printf '%s' "$build" | cksum | cut -c1-8)
export TAVLAB_INSTANCE=$instance
trap 'lab/tavlab down >/dev/null 2>&1' EXIT
status=0
for f in "$@"; do
    script=$(awk '/^```sh lab$/ {on = 1; next} /^```/ {on = 0} on' "$f" |
             sed -e "s#\$PWD/build/dev#@BUILD@#g" -e "s#build/dev#@BUILD@#g" -e "s#@BUILD@#$build#g" -e "s#tavlab-mgr#tavlab-$instance-mgr#g")
    [ -n "$script" ] || { echo "$f: no runnable example"; status=1; continue; }
    echo "== $f"
    if ! out=$(bash -euo pipefail -x -c "$script" 2>&1); then
        printf '%s\n' "$out"
        echo "$f: an example failed (the last command above)"
        status=1
    fi
    lab/tavlab down >/dev/null 2>&1
done
exit $status
