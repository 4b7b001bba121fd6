#!/bin/bash
# SPDX-License-Identifier: ISC
# Firmware script /etc/templates/webs.sh: restarts a service on the device;
# here it is only recorded. /var/run/webs.delay (set by tests) holds seconds
# the restart takes (default 0, at most 60).
[ -n "${BASH_VERSION:-}" ] || exec /bin/bash "$0" "$@"
. /usr/lib/tavlab/stubs/stublib.sh || exit 127

stub_log webs.sh "$@"
delay=0
[ -r /var/run/webs.delay ] && read -r delay _ </var/run/webs.delay
[[ $delay =~ ^[0-9]+$ ]] && [ "$delay" -le 60 ] || delay=0
sleep "$delay"
exit 0
