#!/bin/bash
# SPDX-License-Identifier: ISC
# The Wireshark dissector on lab traffic: tavctl's discovery by both paths, an
# SSID list and a refused SSID set, captured on the manager host, decoded by
# tshark through the lab cipher and again as manager capture records.
# Usage: dissector_test.sh BUILD INSTANCE (as root; status 77: skipped). The
# access points run TAVC_E2E_TARGET's programs when it names a cross build.
set -u
build=$1 instance=$2
src=$(cd "$(dirname "$0")/../.." && pwd)
[ "$(id -u)" = 0 ] || { echo "SKIPPED: the lab needs root"; exit 77; }
command -v tshark >/dev/null || { echo "tshark is missing (scripts/deps.sh installs it)"; exit 1; }
lab() { "$src/lab/tavlab" --instance "$instance" "$@"; }
tmp=$(mktemp -d) cap=
trap '[ -z "$cap" ] || kill "$cap" 2>/dev/null; lab down >/dev/null 2>&1; rm -rf "$tmp"' EXIT
lab down >/dev/null 2>&1
lab up -n 2 --build "${TAVC_E2E_TARGET:-$build}" >/dev/null || exit 1
for ap in ap1 ap2; do  # each daemon takes requests once its UDP port is bound
    lab probe $ap >/dev/null || exit 1
    for ((i = 0; i < 100; i++)); do lab exec $ap grep -q ':F600 ' /proc/net/udp && break; sleep 0.1; done
done
ip netns exec "tavlab-$instance-mgr" dumpcap -q -i eth0 -P -w "$tmp/lab.pcap" 2>"$tmp/dumpcap.err" &
cap=$!
for ((i = 0; i < 100; i++)); do grep -q Capturing "$tmp/dumpcap.err" && break; sleep 0.1; done
tavctl() {
    TAVCTL_CONFIG=/dev/null TAVCTL_PASSWORD=${PW:-admin} "$build/tools/tavctl/tavctl" --netns "tavlab-$instance-mgr" \
        --cipher "$build/sim/cipher/TAV_Auth.so" --timeout 3 "$@" >>"$tmp/tavctl.out" 2>&1
}
tavctl --iface eth0 discover
tavctl --udp 192.0.2.255 discover
tavctl --iface eth0 --target 02:7a:76:00:00:01 ssid list
PW=wrong tavctl --iface eth0 --target 02:7a:76:00:00:01 ssid set --index 1 --name Refused --user admin
# tavctl's own records of the same, by UDP, secrets masked.
PW=wrong tavctl --udp 192.0.2.255 --pcap "$tmp/own.pcap" --target 02:7a:76:00:00:01 ssid set --index 1 --name Refused \
    --user admin
sleep 0.3
kill -INT "$cap" && wait "$cap"
cap=

"$src/tools/wireshark/tav_records.py" --cipher "$build/sim/cipher/TAV_Auth.so" "$tmp/lab.pcap" "$tmp/rec.pcap" >/dev/null

fails=0
# FILTER FIELDS EXPECTED: the fields of the matching messages, one line each,
# sorted and without repeats, in both captures (or in $files).
check() {
    local file filter=$1 fields=$2 want=$3 got f
    for file in ${files:-lab.pcap rec.pcap}; do
        args=()
        for f in $fields; do args+=(-e "$f"); done
        got=$(tshark -r "$tmp/$file" -X lua_script:"$src/tools/wireshark/tav.lua" -Y "$filter" -T fields \
            -E separator='|' -E aggregator=, "${args[@]}" 2>"$tmp/tshark.err" | sort -u)
        [ "$got" = "$want" ] && continue
        printf 'FAILED %s: %s (%s)\n  want: %s\n  got:  %s\n' "$file" "$filter" "$fields" "${want//$'\n'/$'\n        '}" \
            "${got//$'\n'/$'\n        '}"
        grep -v 'Running as user' "$tmp/tshark.err"
        fails=$((fails + 1))
    done
}
# Discovery: both replies on each path, the identity by tag name and kind.
check 'tav.op == 0xa1 && tav.msg_type == 0x7eee' 'tav.tag.host_name tav.tag.ip_address tav.tag.mac tav.tag.web_port' \
    'ap1|192.0.2.11|02:7a:76:00:00:01|80
ap2-lobby|192.0.2.12|02:7a:76:00:00:02|80'
check 'tav.op == 0xa1 && tav.msg_type == 0xfeee' 'tav.target_ip tav.version tav.tag.system_name tav.tag.netmask' \
    '192.0.2.1|5|AP-Lab-1|255.255.255.0
192.0.2.1|5|Lobby AP 2|255.255.255.0'
check 'tav.op == 0xa1 && tav.msg_type == 0xfdfd' 'tav.target_ip tav.body_length tav.deciphered' '0.0.0.0|0|1'
# The SSID list (read by ssid list, and again by ssid set): every SSID of
# both bands with its index, band and secrets.
check 'tav.op == 0x2004 && tav.msg_type == 0x7eee' 'tav.result tav.tag.ssid_index tav.tag.band tav.tag.ssid_name' \
    '0x0000|0,1,2,3,4,5,6,7,0,1,2,3,4,5,6,7|1,1,1,1,1,1,1,1,2,2,2,2,2,2,2,2|Quelbo-Lab,Quelbo-Guest,Quelbo-Legacy,Quelbo-Corp,Quelbo-Mixed,Quelbo-WEP,Quelbo-Office,Quelbo-24G-7,Quelbo-Lab-5G,Quelbo-Guest-5G,Quelbo-Corp-5G,Quelbo-Radius,Quelbo-Transition,Quelbo-Staff,Quelbo-Open-5G,Quelbo-5G-7'
check 'tav.op == 0x2004 && tav.msg_type == 0x7eee' 'tav.tag.radius_address tav.tag.radius_secret' \
    '198.51.100.10,198.51.100.11,198.51.100.10,203.0.113.5,198.51.100.11|radius-secret-corp,radius-secret-office,radius-secret-corp,radius-secret-lab,radius-secret-staff'
# The refused set: what was asked, with whose credentials, and the answer.
check 'tav.op == 0x2005 && (tav.msg_type == 0x7dfd || tav.msg_type == 0x7eee)' 'tav.msg_type tav.tag.ssid_index tav.tag.ssid_name tav.tag.user_name tav.tag.password' \
    '0x7dfd|1|Refused|admin|wrong
0x7eee||||'
check 'tav.op == 0x2005 && tav.msg_type == 0x7eee' 'tav.result tav.result_meaning tav.tlv.name' \
    '0x0040|authentication failed|'
# Nothing of the protocol left undeciphered, and every record's direction.
check 'tav && !tav.deciphered' 'frame.number' ''
files=rec.pcap check 'tav_record.received == 0' 'tav.msg_type tav_record.path' "$(printf '0x7dfd|1\n0xfdfd|2')"
files=own.pcap check 'tav.op == 0x2005 && tav_record.received == 0' \
    'tav_record.masked tav_record.src_ip tav_record.dst_port tav.tag.user_name tav.tag.password tav.tag.ssid_name' \
    '1|192.0.2.1|62976|admin|*****|Refused'
[ "$(stat -c %a "$tmp/own.pcap")" = 600 ] || { echo "FAILED: tavctl --pcap made a file others can read"; fails=$((fails + 1)); }
[ "$fails" = 0 ] || { echo "tavctl said:"; cat "$tmp/tavctl.out"; exit 1; }
echo "dissector: every check passed"
