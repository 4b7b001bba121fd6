#!/bin/bash
# SPDX-License-Identifier: ISC
# Firmware script that starts the central-management agent. Records the
# call and leaves a stand-in process named "qm5_agent" (inside the access
# point's own process namespace), as the real agent would keep running.
[ -n "${BASH_VERSION:-}" ] || exec /bin/bash "$0" "$@"
. /usr/lib/tavlab/stubs/stublib.sh || exit 127

stub_log qm5_agent.sh "$@"
(
    exec </dev/null >/dev/null 2>&1
    exec -a qm5_agent sleep 2147483647
) &
echo $! >/var/run/qm5_agent.pid
exit 0
