#!/usr/bin/env bash
# SPDX-License-Identifier: ISC
# Installs the Debian packages the build, the lab and the tests need (and any
# named as arguments), only when something is missing, so a prepared machine
# needs no network. Usage: scripts/deps.sh [EXTRA-PACKAGE...]
set -euo pipefail

pkgs=(cmake ninja-build g++ gcc libgtest-dev libgmock-dev binutils
      iproute2 util-linux procps clang libclang-rt-14-dev scdoc man-db python3-jsonschema tshark valgrind
      pkg-config libcpp-httplib-dev chromium chromium-driver python3-selenium python3-prometheus-client "$@")

missing=()
for p in "${pkgs[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
    if [ "$(id -u)" -ne 0 ]; then
        echo "deps: missing packages: ${missing[*]} (run as root to install them)" >&2
        exit 1
    fi
    echo "deps: installing ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    # tshark's package asks whether non-root users may capture: no, and no
    # question, so the install never waits for an answer.
    echo "wireshark-common wireshark-common/install-setuid boolean false" | debconf-set-selections
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
