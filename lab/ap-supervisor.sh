#!/bin/bash
# SPDX-License-Identifier: ISC
# Supervisor of one simulated access point; started by tavlab as
#
#   ip netns exec LAB-apN unshare -m -p -f --mount-proc --propagation private \
#       bash ap-supervisor.sh N LAB
#
# so it runs as process 1 of the access point's own process namespace, in its
# network namespace and in a private mount namespace. There it
#   - lays the lab over the system: /usr/lib/TAV_Auth.so (the lab's cipher),
#     /usr/lib/tavlab (stubs, environment, profile, marker), every device
#     command (reboot, date, submit, tftp, ...) by name in /usr/local/sbin,
#     /usr/local/bin, /usr/sbin, /usr/bin, /sbin and /bin, /etc/templates; a
#     writable private /var; and the access point's run directory
#     /run/LAB/apN as /var/run (= /run);
#   - runs the safety probe (probe.sh) and refuses to go on unless it passes;
#   - starts xmldb and the daemon (when built), the daemon through the probe;
#   - turns reboot requests of the stubs into a simulated reboot: daemon
#     stopped with SIGTERM, its leftover children killed, database restarted
#     from the committed state (or the profile), identity keys set again,
#     daemon started again.
# Between events it sleeps in `wait -n` and starts nothing: see the main loop.
# SIGTERM stops everything; when this process ends, the kernel ends every
# process of the access point.
set -u

N=${1:?usage: ap-supervisor.sh N [LAB]}
LAB=${2:-tavlab}
AP=ap$N
RUN=/run/$LAB/$AP
PRIV=/run/$LAB/.$AP
LAYERS=$PRIV/layers

log() {
    local now
    TZ=UTC0 printf -v now '%(%H:%M:%S)T' -1
    printf '%s %s\n' "$now" "$*"
}

# The verdict `tavlab up` waits for: in the ready file (the lab's path until
# /run is the access point's own), then the access point's number on the
# lab's FIFO (fd 7, when tavlab up left one), so that up wakes at once
# instead of polling.
READY=$RUN/ready
ready() { # STATE
    printf '%s\n' "$1" >"$READY"
    if { true >&7; } 2>/dev/null; then
        printf '%s\n' "$N" >&7
        exec 7>&-
    fi
}

fail() {
    log "error: $*"
    ready "failed: $*"
    exit 1
}

[ "$$" = 1 ] || fail "must run as process 1 of its own process namespace"
[ -r "$LAYERS/usr-lib/tavlab/lab.env" ] && [ -r "$PRIV/supervisor.env" ] &&
    [ -r "$PRIV/probe.sh" ] || fail "missing $LAYERS (start the lab with tavlab up)"
# What the supervisor needs from the lab's private files, read before /run
# becomes the access point's own.
# shellcheck source=/dev/null
. "$LAYERS/usr-lib/tavlab/lab.env"
# shellcheck source=/dev/null
. "$PRIV/supervisor.env"
PROBE_CODE=$(<"$PRIV/probe.sh")
# Opened read-write so that this never blocks; outside the access point's /run.
[ -p "/run/$LAB/up.fifo" ] && exec 7<>"/run/$LAB/up.fifo"

# --- Mounts (private to this namespace) --------------------------------------
# Nothing below may propagate to the host, whatever unshare did.
mount --make-rprivate / || fail "cannot make the mount namespace private"

overlay_ro() { # TARGET LAYER: LAYER's entries shadow TARGET's, read-only
    mount -t overlay "$LAB-$AP" -o "lowerdir=$2:$1" "$1" || fail "overlay on $1"
}
bind_ro() { # DIR TARGET: TARGET shows DIR only (nothing of the host's)
    mount -o bind,ro "$1" "$2" || fail "bind on $2"
}
if [ "$SUP_BREAK_OVERLAYS" = 1 ]; then
    log "test-only: the overlays are left out"
else
    overlay_ro /usr/lib "$LAYERS/usr-lib"
    bind_ro "$LAYERS/usr-lib/tavlab" /usr/lib/tavlab
    for d in $SUP_SHADOW_DIRS; do
        # A link (/sbin -> usr/sbin) is covered by its target; a missing
        # directory holds nothing to run.
        [ -L "$d" ] || [ ! -d "$d" ] && continue
        overlay_ro "$d" "/run/$LAB/.shadow"
    done
    overlay_ro /etc "$LAYERS/etc"
    bind_ro "$LAYERS/etc/templates" /etc/templates
fi
# Writable /var whose changes (/var/config.bin, ...) stay in the lab.
mount -t overlay "$LAB-$AP" \
    -o "lowerdir=/var,upperdir=$PRIV/var/upper,workdir=$PRIV/var/work" /var ||
    fail "overlay on /var"
# Scripts that write to the console write to the access point's log.
if [ -e /dev/console ]; then
    mount --bind "$RUN/console.log" /dev/console || fail "bind on /dev/console"
fi
# /var/run is a link to /run: the run directory becomes the whole /run.
mount --bind "$RUN" /run || fail "bind on /run"
[ -e /var/run/tavlab-ap ] || fail "run directory not in place"
READY=/var/run/ready
cd / || fail "no /"

export PATH=$TAVLAB_PATH
echo "$$" >/var/run/supervisor.pid
# Wake-ups: a stub that asks for a reboot writes a line here after its request
# file (a pipe keeps the line until it is read, so none is lost between a
# look at the request file and the wait). Held open read-write by this
# process, so a writer never blocks and never meets a missing reader.
WAKE=/var/run/supervisor.wake
[ ! -e "$WAKE" ] || rm -f "$WAKE"
mkfifo -m 600 "$WAKE" && exec 3<>"$WAKE" || fail "cannot make $WAKE"

# --- Safety probe ------------------------------------------------------------
# In exactly the daemon's environment; `probe -- CMD...` runs CMD after it
# passed. /var/run/probe ("passed" or "failed: WHY") lets `tavlab exec` in.
probe() {
    env -i PATH="$TAVLAB_PATH" HOME=/ /bin/bash -c "$PROBE_CODE" tavlab-probe \
        "$SUP_ID" "$SUP_CIPHER_SUM" "$AP" "$@"
}
check_probe() {
    local why
    if why=$(probe 2>&1); then
        echo passed >/var/run/probe
        return 0
    fi
    why=${why#"tavlab: $AP failed its safety probe, so nothing was run: "}
    printf 'failed: %s\n' "$why" >/var/run/probe
    log "safety probe failed: $why"
    return 1
}
if ! check_probe; then
    if [ "$SUP_BREAK_OVERLAYS" = 1 ]; then
        # Test-only: stay up, running nothing, so tests can knock on the door.
        ready "unsafe: $(</var/run/probe)"
        trap 'exit 0' TERM INT HUP
        while :; do read -r -u 3 _; done
    fi
    fail "safety probe: $(cat /var/run/probe)"
fi

# --- Database ----------------------------------------------------------------
XMLDB_PID=
db() { "$TAVLAB_RGDB" -S /var/run/xmldb_sock "$@"; }

start_xmldb() {
    if [ -z "$TAVLAB_XMLDB" ]; then
        log "notice: no xmldb in the build; database not started"
        return 0
    fi
    rm -f /var/run/xmldb_sock
    # It loads the committed state when there is one, else the profile.
    # It also keeps the simulated traffic counters (-t: held while
    # stats.hold exists).
    "$TAVLAB_XMLDB" -s /var/run/xmldb_sock -f "$TAVLAB_PROFILE" -p /var/run/xmldb.state \
        -t /var/run/stats.hold </dev/null >>/var/run/xmldb.log 2>&1 3>&- 7>&- &
    XMLDB_PID=$!
    # Its socket appears within milliseconds; this polls only while it starts.
    # Bounded by time, not by looks: with a fleet starting on two busy CPUs
    # each look (a sleep process) may itself take that long.
    local end=$((SECONDS + 30))
    while [ "$SECONDS" -lt "$end" ]; do
        [ -S /var/run/xmldb_sock ] && return 0
        kill -0 "$XMLDB_PID" 2>/dev/null || break
        sleep 0.01
    done
    XMLDB_PID=
    log "error: xmldb did not come up (see xmldb.log)"
    return 1
}

stop_pid() { # PID [GRACE]: SIGTERM, SIGKILL after GRACE seconds; status in STATUS
    local pid=$1 grace=${2:-5} timer who st
    kill -TERM "$pid" 2>/dev/null
    # Whichever ends first, the process or a timer of its grace.
    sleep "$grace" 3>&- 7>&- &
    timer=$!
    for (( ; ; )); do
        who=
        wait -n -p who "$pid" "$timer" 2>/dev/null
        st=$?
        # Again only when a signal of ours cut the wait short.
        [ -n "${who:-}" ] || [ "$st" -le 128 ] && break
    done
    kill "$timer" 2>/dev/null
    if [ "${who:-}" = "$pid" ]; then
        STATUS=$st
    else
        kill -KILL "$pid" 2>/dev/null
        wait "$pid" 2>/dev/null
        STATUS=$?
    fi
    wait "$timer" 2>/dev/null
}

stop_xmldb() {
    [ -n "$XMLDB_PID" ] || return 0
    stop_pid "$XMLDB_PID" 3
    XMLDB_PID=
}

set_identity() {
    [ -n "$XMLDB_PID" ] && [ -n "$TAVLAB_RGDB" ] || return 0
    # The profile has them already (tavlab wrote them into it); a state file,
    # which xmldb loads instead when there is one, may not.
    if [ -e /var/run/xmldb.state ]; then
        db -s /runtime/wan/inf:1/mac "$TAVLAB_MAC" &&
            db -s /sys/hostname "${TAVLAB_HOSTNAME:-$TAVLAB_AP}" || log "warning: could not set the identity keys"
    fi
    # The interface takes the committed IPv4 settings, as the WAN service
    # does at a device's boot (the first boot of up has the plan's already).
    if [ -e /var/run/xmldb.state ] || [ "$BOOTS" -gt 1 ]; then
        (. /usr/lib/tavlab/stubs/stublib.sh && . /usr/lib/tavlab/stubs/wanlib.sh && wan_apply boot) 3>&- 7>&- || log "warning: the WAN settings were not applied (wan.log)"
    fi
    # The simulated clock starts from the machine's time (read, never set).
    if [ -z "$(db -g /runtime/time/date)" ] || [ -z "$(db -g /runtime/time/time)" ]; then
        db -s /runtime/time/date "$(TZ=UTC0 printf '%(%m/%d/%Y)T' -1)"
        db -s /runtime/time/time "$(TZ=UTC0 printf '%(%H:%M:%S)T' -1)"
    fi
}

# --- Daemon ------------------------------------------------------------------
TAVC_PID=
start_daemon() {
    if [ -z "$TAVLAB_TAVC" ]; then
        log "notice: daemon not started (${TAVLAB_TAVC_WHY:-not built})"
        rm -f /var/run/tavc.pid
        return 0
    fi
    if ! check_probe; then
        log "daemon not started: the safety probe failed"
        rm -f /var/run/tavc.pid
        return 0
    fi
    # tavlab up --daemon-caps: the daemon holds only these. It runs as root
    # (the stubs write root's files, as the device's commands do), so at exec
    # its permitted and effective sets become this bounding set, as systemd
    # does for a root unit with CapabilityBoundingSet=; what it runs inherits
    # them. Dropped before the probe, which sees the daemon's own sets.
    local caps=()
    [ -n "${TAVLAB_TAVC_CAPS:-}" ] && caps=(setpriv --bounding-set "$TAVLAB_TAVC_CAPS" --)
    # Own session and process group, so a reboot can end all its children.
    # The probe checks again in the daemon's own process, then becomes it.
    setsid "${caps[@]}" env -i PATH="$TAVLAB_PATH" HOME=/ /bin/bash -c \
        "$PROBE_CODE" tavlab-probe "$SUP_ID" "$SUP_CIPHER_SUM" "$AP" -- \
        /usr/bin/env -i PATH="$TAVLAB_PATH" HOME=/ "$TAVLAB_TAVC" \
        </dev/null >>/var/run/tavc.out 2>>/var/run/tavc.err 3>&- 7>&- &
    TAVC_PID=$!
    echo "$TAVC_PID" >/var/run/tavc.pid
}

stop_daemon() {
    [ -n "$TAVC_PID" ] || return 0
    stop_pid "$TAVC_PID" 5
    log "daemon (pid $TAVC_PID) ended with status $STATUS"
    kill -KILL -- "-$TAVC_PID" 2>/dev/null # what it left running
    TAVC_PID=
    rm -f /var/run/tavc.pid
}

BOOTS=0
boot() {
    BOOTS=$((BOOTS + 1))
    echo "$BOOTS" >/var/run/boot_count
    local from=profile
    [ -s /var/run/xmldb.state ] && from="committed state"
    start_xmldb && set_identity
    start_daemon
    log "boot $BOOTS: database from the $from, daemon ${TAVC_PID:-not running}"
}

shutdown() {
    stop_daemon
    stop_xmldb
}

# --- Main loop ---------------------------------------------------------------
# The supervisor sleeps in `wait -n` on its children and wakes only for an
# event: the daemon or the database ending, a line on the wake-up pipe (read
# by a child that then ends), SIGTERM, or SIGUSR1. Nothing is polled, so an
# idle access point costs no CPU. A reboot request is the file the stub
# writes: a wake-up without it (a stray signal, a second line for a request
# already taken) only makes the loop look again.
# A stop also writes a line, so that a signal that comes between the loop's
# look at STOP and its wait still ends the wait.
STOP=0 WAITER=
trap ':' USR1
trap 'STOP=1; printf "\n" >&3' TERM INT HUP

boot
if [ -n "$TAVLAB_XMLDB" ] && [ -z "$XMLDB_PID" ]; then
    shutdown
    fail "xmldb did not start"
fi
ready ok

while [ "$STOP" = 0 ]; do
    if [ -e /var/run/reboot.request ]; then
        reason=
        read -r reason </var/run/reboot.request 2>/dev/null
        rm -f /var/run/reboot.request
        log "reboot (${reason:-requested})"
        shutdown
        delay=0
        [ -r /var/run/reboot.delay ] && read -r delay _ </var/run/reboot.delay
        [[ $delay =~ ^[0-9]+$ ]] && [ "$delay" -le 600 ] && [ "$delay" -gt 0 ] && sleep "$delay"
        boot
        continue
    fi
    # The waiter: a child that ends when a line comes on the wake-up pipe.
    if [ -z "$WAITER" ]; then
        (read -r -u 3 _) 7>&- &
        WAITER=$!
    fi
    who=
    wait -n -p who
    status=$?
    case ${who:-} in
    "") ;; # a signal: STOP, or just a look around
    "$WAITER") WAITER= ;;
    "$TAVC_PID")
        log "daemon (pid $TAVC_PID) exited on its own with status $status"
        TAVC_PID=
        rm -f /var/run/tavc.pid
        ;;
    "$XMLDB_PID")
        log "database (pid $XMLDB_PID) exited on its own with status $status"
        XMLDB_PID=
        ;;
    esac
done
log "stopping"
shutdown
rm -f /var/run/ready
exit 0
