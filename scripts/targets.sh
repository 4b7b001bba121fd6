#!/usr/bin/env bash
# SPDX-License-Identifier: ISC
# Cross builds for the access points' CPUs, with the release flags: the
# daemon and the substitutes (database server, rgdb, cipher) for big- and
# little-endian MIPS and 64-bit ARM, each daemon checked by
# scripts/check_hardening.sh; the daemon also against musl and for MIPS
# without PIE. Prints the stripped daemon's size per target and fails when a
# check fails or the big-endian MIPS daemon (PIE) is over its 100 KiB budget.
# (Tests on big-endian MIPS: scripts/target_lab.sh.)
# Usage: scripts/targets.sh [-j N]
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc)
case ${1-} in
    -j) jobs=$2 ;;
    -h|--help) sed -n '2,9p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    '') ;;
    *) echo "targets: unknown argument: $1" >&2; exit 2 ;;
esac
scripts/deps.sh musl-tools googletest $(for t in mips mipsel aarch64; do
    echo "g++-$t-linux-gnu libc6-dev-${t/aarch64/arm64}-cross"; done)
budget=$((100 * 1024))
hardening='-Wall -Wextra -fstack-protector-strong -D_FORTIFY_SOURCE=2'

# PRESET BUILD-DIR TARGETS [CMAKE-ARGS...]: configures and builds quietly.
build() {
    local preset=$1 dir=$2 targets=$3
    shift 3
    cmake --preset "$preset" -B "$dir" "$@" >/dev/null
    # shellcheck disable=SC2086
    cmake --build "$dir" -j"$jobs" --target $targets >/dev/null
}
sizes=()
size_of() { sizes+=("$(printf '%-28s %7d bytes %6.1f KiB' "$1" "$2" "$(awk -v b="$2" 'BEGIN { print b / 1024 }')")"); }

failed=0
for preset in mips mipsel aarch64; do
    build "$preset" "build/$preset" "tavc xmldb rgdb tav_cipher"
    echo "targets: $preset"
    scripts/check_hardening.sh "build/$preset/tavc/tavc" | sed 's/^/  /' || failed=1
done
build release build/release tavc
build musl build/musl tavc
build mips build/mips-nopie tavc -DTAVC_BUILD_TESTS=OFF -DCMAKE_POSITION_INDEPENDENT_CODE=OFF -DCMAKE_C_FLAGS="$hardening" \
    -DCMAKE_CXX_FLAGS="$hardening" -DCMAKE_EXE_LINKER_FLAGS='-s -no-pie -Wl,-z,relro,-z,now -Wl,-z,noexecstack'

mips=$(stat -c %s build/mips/tavc/tavc)
size_of "x86_64, glibc, PIE" "$(stat -c %s build/release/tavc/tavc)"
size_of "x86_64, musl, PIE" "$(stat -c %s build/musl/tavc/tavc)"
size_of "MIPS32 big-endian, PIE" "$mips"
size_of "MIPS32 big-endian, no PIE" "$(stat -c %s build/mips-nopie/tavc/tavc)"
size_of "MIPS32 little-endian, PIE" "$(stat -c %s build/mipsel/tavc/tavc)"
size_of "AArch64, PIE" "$(stat -c %s build/aarch64/tavc/tavc)"
echo "targets: stripped release daemon"
printf '  %s\n' "${sizes[@]}"
if ((mips > budget)); then
    echo "targets: the big-endian MIPS daemon is $mips bytes, over its budget of $budget" >&2
    failed=1
fi
exit $failed
