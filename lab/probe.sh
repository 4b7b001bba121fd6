# SPDX-License-Identifier: ISC
# tavlab's safety probe (bash). Run as
#
#   bash -c "$(cat probe.sh)" tavlab-probe ID CIPHER HOST [-- CMD...]
#
# in exactly the process and environment that CMD (or the daemon) is going to
# get. It checks that this process sees the access point's root (the lab's
# marker ID in /usr/lib/tavlab and in /run), that every device command name
# and every absolute path of one resolves to a lab stub, on this PATH and on
# the default PATHs a child without an environment gets, that the cipher
# library is the lab's (CIPHER: its sha256, or "-" for none), and that the
# capabilities to set the clock, reboot or load modules are gone. Then it
# execs CMD. Otherwise it prints one line naming what resolved where, runs
# nothing and exits 126. The code is passed as text, not as a file, so that it
# also speaks where the lab's files are missing.
set -u
want_id=${1:-} want_cipher=${2:-} host=${3:-?}
shift 3 2>/dev/null || set --
[ "${1:-}" = -- ] && shift

stubs=/usr/lib/tavlab/stubs
names=(reboot date submit nb_submit tftp rgdb sys halt poweroff shutdown hwclock)
problems=()
bad() { problems+=("$1"); }

# Where PATH lookup would find NAME first, in $hit (empty when it is
# nowhere). A variable, not output: the probe runs before every command, and a
# subshell per name and PATH would cost most of its time.
first_on() { # PATHLIST NAME
    local d e
    hit=
    IFS=: read -ra e <<<"$1"
    [ ${#e[@]} -gt 0 ] || e=(.)
    for d in "${e[@]}"; do
        [ -n "$d" ] || d=.
        if [ -f "$d/$2" ] && [ -x "$d/$2" ]; then
            hit=$d/$2
            return
        fi
    done
}
where() { readlink -f -- "$1" 2>/dev/null || printf '%s' "$1"; }

# The root the lab set up: its marker, seen through the overlays and the
# access point's /run.
id= run_id=
read -r id 2>/dev/null </usr/lib/tavlab/lab.id
read -r run_id 2>/dev/null </run/tavlab-ap
if [ -z "$id" ]; then
    bad "/usr/lib/tavlab/lab.id is missing: this is not the access point's root"
elif [ "$id" != "$want_id" ]; then
    bad "/usr/lib/tavlab/lab.id is another lab's: this is not the access point's root"
fi
[ -n "$want_id" ] && [ "$run_id" = "$want_id" ] ||
    bad "/run is not the access point's run directory"
if [ -n "$want_id" ] && [ "$id" = "$want_id" ]; then
    read -r tid 2>/dev/null </etc/templates/.lab.id
    [ "${tid:-}" = "$want_id" ] || bad "/etc/templates is not the lab's"
fi

# Capabilities: CAP_SYS_BOOT (22), CAP_SYS_MODULE (16), CAP_SYS_TIME (25).
# Read again when the line did not come: once in about a thousand probes of
# a fleet starting at once the read came back without it. The verdict is the
# same; an unreadable set still fails.
capbnd=
for try in 1 2 3; do
    while read -r k v; do [ "$k" = CapBnd: ] && capbnd=$v; done </proc/self/status 2>/dev/null
    [ -n "$capbnd" ] && break
done
if [ -z "$capbnd" ] || (((16#$capbnd >> 16 | 16#$capbnd >> 22 | 16#$capbnd >> 25) & 1)); then
    bad "the capability bounding set (${capbnd:-unknown}) still allows setting the clock, rebooting or loading modules"
fi

# Device commands by name, on the PATH given and on the default PATHs of a
# shell or of execvp() started without any environment, and at every
# absolute path a command line or a child may use. What is not a stub is
# reported per name: where it resolved, and through which paths.
declare -A wrong=() via=() missing=()
not_stub() { # NAME HOW RESOLVED
    case " ${wrong[$1]:-} " in *" $3 "*) ;; *) wrong[$1]+=" $3" ;; esac
    case " ${via[$1]:-} " in *" $2 "*) ;; *) via[$1]+=" $2" ;; esac
}
sh_path=$(env -i /bin/sh -c 'printf %s "$PATH"' 2>/dev/null)
bash_path=$(env -i /bin/bash -c 'printf %s "$PATH"' 2>/dev/null)
libc_path=$(getconf PATH 2>/dev/null)
declare -A dirs=([/usr/local/sbin]=1 [/usr/local/bin]=1 [/usr/sbin]=1 [/usr/bin]=1 [/sbin]=1 [/bin]=1)
for label in PATH sh bash libc; do
    case $label in
    PATH) list=${PATH-} ;;
    sh) list=$sh_path ;;
    bash) list=$bash_path ;;
    libc) list=$libc_path ;;
    esac
    [ "$label" = PATH ] || label="$label's default PATH"
    IFS=: read -ra entries <<<"$list"
    for d in "${entries[@]}"; do [ "${d:0:1}" = / ] && dirs[$d]=1; done
    for n in "${names[@]}"; do
        first_on "$list" "$n"
        if [ -z "$hit" ]; then
            missing[$n]+=" ${label// /^}"
        elif ! [ "$hit" -ef "$stubs/$n" ]; then
            not_stub "$n" "${label// /^}" "$(where "$hit")"
        fi
    done
done
for d in "${!dirs[@]}"; do
    for n in "${names[@]}"; do
        p=$d/$n
        if [ -e "$p" ] || [ -L "$p" ]; then
            [ "$p" -ef "$stubs/$n" ] || not_stub "$n" "$p" "$(where "$p")"
        fi
    done
done
list=
for n in "${names[@]}"; do
    [ -n "${wrong[$n]:-}" ] || continue
    how=${via[$n]# }
    list+="${list:+, }$n ->${wrong[$n]} (via ${how// /, })"
done
[ -z "$list" ] || bad "device commands that are not lab stubs: ${list//^/ }"
list=
for n in "${names[@]}"; do
    how=${missing[$n]:-}
    [ -n "$how" ] || continue
    [ "$how" = " PATH sh's^default^PATH bash's^default^PATH libc's^default^PATH" ] && how=" any^PATH"
    how=${how# }
    list+="${list:+, }$n (on ${how// /, })"
done
[ -z "$list" ] || bad "device commands not found: ${list//^/ }"
for p in /usr/sbin/submit /usr/sbin/sys; do
    [ -e "$p" ] || bad "$p is missing"
done
[ -d /etc/templates ] || bad "/etc/templates is missing"

# The cipher library.
if [ "$want_cipher" = - ]; then
    [ ! -e /usr/lib/TAV_Auth.so ] || bad "/usr/lib/TAV_Auth.so is $(where /usr/lib/TAV_Auth.so), not the lab's (the lab has none)"
else
    sum=$(sha256sum 2>/dev/null </usr/lib/TAV_Auth.so)
    if [ -z "$sum" ]; then
        bad "/usr/lib/TAV_Auth.so is missing"
    elif [ "${sum%% *}" != "$want_cipher" ]; then
        bad "/usr/lib/TAV_Auth.so is $(where /usr/lib/TAV_Auth.so), not the lab's cipher"
    fi
fi

if [ ${#problems[@]} -gt 0 ]; then
    msg=${problems[0]}
    for ((i = 1; i < ${#problems[@]}; i++)); do msg+="; ${problems[i]}"; done
    echo "tavlab: $host failed its safety probe, so nothing was run: $msg" >&2
    exit 126
fi
[ $# -eq 0 ] && exit 0
exec "$@"
