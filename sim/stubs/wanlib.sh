# SPDX-License-Identifier: ISC
# The simulated WAN service of an access point (bash; sourced after
# stublib.sh by the submit stub for `submit WAN`, and by the supervisor at
# every boot from a committed state; never run).
#
# It gives the access point's interface (br0, in the access point's own
# network namespace) the IPv4 settings the database holds, and writes what
# the interface runs with to /runtime/wan/inf:1/{ip,netmask,gateway,
# primarydns}, so that discovery shows what the database holds:
#   - static (/wan/rg/inf:1/mode 1): /wan/rg/inf:1/static/{ip,netmask,
#     gateway} and /dnsrelay/server/primarydns;
#   - DHCP (mode 2): the lab has no DHCP server; the service leases the
#     address of the lab's plan, 192.0.2.(10+N)/24, gateway 192.0.2.1, and
#     keeps the configured DNS server.
# Only addresses of the documentation ranges 192.0.2.0/24, 198.51.100.0/24
# and 203.0.113.0/24 are applied, with a prefix of 24 to 30 bits that stays
# within one of them; anything else is refused and changes nothing. An
# address outside the lab's subnet is applied as it is: every documentation
# range is on-link on the lab's segment (the manager has routes for them),
# so the access point still answers raw Ethernet, 224.0.0.1 and unicast UDP
# to its new address, while the subnet broadcast 192.0.2.255 no longer
# reaches it, as on a real segment. No default route: nothing lies beyond.
# Each outcome is a line of /var/run/wan.log.

WAN_LOG=/var/run/wan.log
WAN_IF=br0
WAN_RANGES=(192.0.2 198.51.100 203.0.113)

wan_log() { printf '%s\n' "$*" >>"$WAN_LOG"; }

# A dotted quad: its value as a number in $WAN_NUM.
wan_quad() {
    local IFS=. o
    local -a q
    [[ $1 =~ ^[0-9]{1,3}(\.[0-9]{1,3}){3}$ ]] || return 1
    read -ra q <<<"$1"
    WAN_NUM=0
    for o in "${q[@]}"; do
        ((10#$o <= 255)) || return 1
        WAN_NUM=$((WAN_NUM * 256 + 10#$o))
    done
}

# The /24 documentation range of an address, or failure.
wan_range() {
    local r
    for r in "${WAN_RANGES[@]}"; do
        [[ $1 == "$r".* ]] && return 0
    done
    return 1
}

# Checks ADDRESS/MASK and GATEWAY: sets WAN_PREFIX, or WAN_WHY and fails.
wan_check() { # ADDRESS MASK GATEWAY
    local addr mask host bits=0
    no() { WAN_WHY=$*; return 1; }
    wan_quad "$1" && wan_range "$1" || { no "'$1' is not an address of the documentation ranges"; return; }
    addr=$WAN_NUM
    wan_quad "$2" || { no "netmask '$2' is not an address"; return; }
    mask=$WAN_NUM
    while ((bits < 32 && (mask >> (31 - bits) & 1))); do bits=$((bits + 1)); done
    ((bits == 32 || (mask & ((1 << (32 - bits)) - 1)) == 0)) || { no "netmask $2 is not contiguous"; return; }
    ((bits >= 24 && bits <= 30)) || { no "netmask $2 (/$bits) is not within one documentation range"; return; }
    host=$((addr & ~mask & 0xFFFFFFFF))
    ((host != 0 && host != (~mask & 0xFFFFFFFF))) || { no "$1/$bits is not a host address"; return; }
    if [ -n "$3" ] && [ "$3" != 0.0.0.0 ]; then
        wan_quad "$3" && wan_range "$3" || { no "gateway '$3' is not an address of the documentation ranges"; return; }
    fi
    WAN_PREFIX=$bits
}

# Applies the database's settings (WHY: "submit WAN" or "boot").
wan_apply() { # WHY
    local mode ip mask gw dns how cur r
    mode=$(rgdb_real -g /wan/rg/inf:1/mode) || return 1
    dns=$(rgdb_real -g /dnsrelay/server/primarydns)
    if [ "$mode" = 2 ]; then
        how=dhcp ip=$TAVLAB_IP mask=$TAVLAB_NETMASK gw=192.0.2.1
    else
        how=static
        ip=$(rgdb_real -g /wan/rg/inf:1/static/ip)
        mask=$(rgdb_real -g /wan/rg/inf:1/static/netmask)
        gw=$(rgdb_real -g /wan/rg/inf:1/static/gateway)
    fi
    if ! wan_check "$ip" "$mask" "$gw"; then
        wan_log "$1: refused $how $ip/$mask: $WAN_WHY"
        echo "${STUB_NAME:-wan}: WAN: refused: $WAN_WHY" >&2
        return 1
    fi
    # Only in the access point's own namespace: br0 with its own MAC.
    [ "$(cat "/sys/class/net/$WAN_IF/address" 2>/dev/null)" = "$TAVLAB_MAC" ] || {
        wan_log "$1: refused: no $WAN_IF of this access point here"
        return 1
    }
    cur=$(ip -4 -o addr show dev "$WAN_IF" | awk '{print $4}')
    local was=
    if [ "$cur" != "$ip/$WAN_PREFIX" ]; then
        was=" (was ${cur:-none})"
        {
            echo "addr flush dev $WAN_IF"
            echo "addr add $ip/$WAN_PREFIX brd + dev $WAN_IF"
            for r in "${WAN_RANGES[@]}"; do echo "route replace $r.0/24 dev $WAN_IF metric 100"; done
        } | ip -batch - || { wan_log "$1: ip failed for $ip/$WAN_PREFIX"; return 1; }
    fi
    local k v
    for k in ip:"$ip" netmask:"$mask" gateway:"$gw" primarydns:"$dns"; do
        v=${k#*:} k=/runtime/wan/inf:1/${k%%:*}
        [ "$(rgdb_real -g "$k")" = "$v" ] || rgdb_real -s "$k" "$v" || return 1
    done
    wan_log "$1: $how $ip/$WAN_PREFIX gateway ${gw:-none}$was"
}
