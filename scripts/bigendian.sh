#!/usr/bin/env bash
# SPDX-License-Identifier: ISC
# Builds the device code for s390x (64-bit, big-endian) and runs its unit
# tests under user-mode qemu, then checks that the cross-built daemon needs
# nothing but libc.
#
# Usage: scripts/bigendian.sh [--clean] [-j N]
#   --clean   start from empty build directories (GoogleTest included)
#
# Build trees: build/gtest-s390x (GoogleTest for the target, installed into
# build/gtest-s390x/prefix) and build/s390x (this project, dev flags).
#
# Only the device code's suites are run, and only those whose binaries run on
# their own: without binfmt_misc a target program cannot start another target
# program (the xmldb and tavctl suites spawn theirs), and the generated-doc
# check has a host tool run a target-built generator.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

clean=0
jobs=$(nproc)
while (($#)); do
    case $1 in
        --clean) clean=1; shift ;;
        -j) jobs=$2; shift 2 ;;
        -h|--help) sed -n '2,15p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) echo "bigendian: unknown argument: $1" >&2; exit 2 ;;
    esac
done

triple=s390x-linux-gnu
toolchain=$root/cmake/toolchains/s390x-linux-gnu.cmake
gtest_src=/usr/src/googletest
gtest_build=$root/build/gtest-s390x
gtest_prefix=$gtest_build/prefix
build=$root/build/s390x

# Test directories (under tests/) whose unit tests run in one process, and
# tests in them that cannot run here.
suites=(tavc proto lrgbin)
exclude='^protocol_doc_current$'
# The daemon and what the suites link.
targets=(tavc tavc_unit_tests proto_test proto_device_check lrgbin_tests lrgbin_store_tests)

# --- packages ------------------------------------------------------------
scripts/deps.sh "g++-$triple" qemu-user googletest

if ((clean)); then
    rm -rf "$gtest_build" "$build"
fi

# --- GoogleTest for the target ---------------------------------------------
# Rebuilt only when the googletest package or the toolchain file changes.
stamp="$(dpkg-query -W -f='${Version}' googletest) $(sha256sum "$toolchain" | cut -c1-16)"
if [ "$(cat "$gtest_prefix/.stamp" 2>/dev/null)" != "$stamp" ]; then
    echo "bigendian: building GoogleTest for $triple"
    rm -rf "$gtest_build"
    cmake -S "$gtest_src" -B "$gtest_build" -G Ninja --toolchain "$toolchain" \
        -DCMAKE_BUILD_TYPE=Release -DBUILD_GMOCK=OFF -DINSTALL_GTEST=ON \
        -DCMAKE_INSTALL_PREFIX="$gtest_prefix" >/dev/null
    cmake --build "$gtest_build" -j"$jobs" >/dev/null
    cmake --install "$gtest_build" >/dev/null
    echo "$stamp" >"$gtest_prefix/.stamp"
fi
gtest_dir=$(dirname "$(find "$gtest_prefix" -name GTestConfig.cmake | head -n1)")

# --- this project ------------------------------------------------------------
echo "bigendian: configuring $build"
cmake --preset dev -B "$build" --toolchain "$toolchain" \
    -DGTest_DIR="$gtest_dir" >/dev/null
echo "bigendian: building ${targets[*]}"
cmake --build "$build" -j"$jobs" --target "${targets[@]}"

# --- tests under qemu ----------------------------------------------------------
passed=0
failed=0
for s in "${suites[@]}"; do
    log=$build/bigendian-$s.log
    rc=0
    ctest --test-dir "$build/tests/$s" -L unit -E "$exclude" -j"$jobs" \
        --output-on-failure --timeout 300 >"$log" 2>&1 || rc=$?
    # "97% tests passed, 1 tests failed out of 30"
    line=$(grep -E '^[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" || true)
    if [ -z "$line" ]; then
        cat "$log"
        echo "bigendian: no test ran in tests/$s" >&2
        failed=$((failed + 1))
        continue
    fi
    total=$(sed -E 's/.* out of ([0-9]+).*/\1/' <<<"$line")
    bad=$(sed -E 's/.*, ([0-9]+) tests? failed.*/\1/' <<<"$line")
    ((rc == 0 || bad > 0)) || bad=1
    passed=$((passed + total - bad))
    failed=$((failed + bad))
    if ((bad)); then cat "$log"; fi
    echo "bigendian: tests/$s: $((total - bad)) passed, $bad failed"
done

# --- the daemon needs libc alone -------------------------------------------------
tavc_bin=$build/tavc/tavc
needed=$(readelf -d "$tavc_bin" | sed -n 's/.*(NEEDED).*\[\(.*\)\].*/\1/p' | tr '\n' ' ')
machine=$(readelf -h "$tavc_bin" | sed -n 's/^ *Machine: *//p')
data=$(readelf -h "$tavc_bin" | sed -n 's/^ *Data: *//p')
extra=$(tr ' ' '\n' <<<"$needed" | grep -vxE 'libc\.so\.6|libdl\.so\.2|' || true)
if [ -z "$extra" ] && [[ $data == *"big endian"* ]]; then
    passed=$((passed + 1))
    echo "bigendian: tavc ($machine, $data) needs: $needed"
else
    failed=$((failed + 1))
    echo "bigendian: tavc ($machine, $data) needs more than libc: $needed" >&2
fi

echo "s390x: $passed passed, $failed failed"
((failed == 0))
