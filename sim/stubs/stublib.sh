# SPDX-License-Identifier: ISC
# Shared part of the access-point stubs (bash; sourced, never run).
#
# A stub only ever acts inside a lab access point: its private mount
# namespace provides /usr/lib/tavlab/lab.env and a /var/run that is the
# access point's own run directory (marked by /var/run/tavlab-ap). Anywhere
# else a stub refuses before doing anything, so it can never reach the host.

TAVLAB_ENV=/usr/lib/tavlab/lab.env
if [ ! -r "$TAVLAB_ENV" ] || [ ! -e /var/run/tavlab-ap ]; then
    echo "${0##*/}: not inside a tavlab access point; refusing to act" >&2
    exit 127
fi
# shellcheck source=/dev/null
. "$TAVLAB_ENV"
export PATH="$TAVLAB_PATH"

STUB_NAME=${0##*/}
STUB_EVENTS=/var/run/events.log
STUB_STATE=/var/run/xmldb.state

# One word of a command line, quoted so that a shell would read it back.
stub_quote() {
    local a=$1
    if [[ $a =~ ^[A-Za-z0-9_@%+=:,./-]+$ ]]; then
        printf '%s' "$a"
    elif [[ $a == *[[:cntrl:]]* ]]; then
        printf '%q' "$a"
    else
        printf "'%s'" "${a//\'/\'\\\'\'}"
    fi
}

# Appends "PROGRAM ARGS<TAB>TIME" to the event log, one write per line.
stub_log() {
    local line word secs=${EPOCHREALTIME%.*} usec=${EPOCHREALTIME#*.}
    line=$(stub_quote "$1")
    shift
    for word in "$@"; do line+=" $(stub_quote "$word")"; done
    TZ=UTC0 printf '%s\t%(%Y-%m-%dT%H:%M:%S)T.%sZ\n' "$line" "$secs" "$usec" >>"$STUB_EVENTS"
}

# The real database tool, on the access point's own socket.
rgdb_real() {
    if [ -z "${TAVLAB_RGDB:-}" ] || [ ! -x "$TAVLAB_RGDB" ]; then
        echo "$STUB_NAME: no rgdb tool in this lab build" >&2
        return 1
    fi
    "$TAVLAB_RGDB" -S /var/run/xmldb_sock "$@"
}

# Asks the access point's supervisor for a simulated reboot and returns at
# once, as the real command returns before the device goes down. The request
# is the file; the line on the supervisor's wake-up pipe only wakes it (the
# pipe is the supervisor's own, held open by it, so writing never blocks).
stub_request_reboot() {
    printf '%s\n' "$*" >/var/run/reboot.request
    [ -p /var/run/supervisor.wake ] && printf '\n' >/var/run/supervisor.wake
    return 0
}
