# SPDX-License-Identifier: ISC
# The simulated mesh service of an access point (bash; sourced by the submit
# and nb_submit stubs after stublib.sh, never run).
#
# The access points around this one live in /var/run/mesh.peers, one per
# line: MAC, MEMBER (1 in the array, 0 seen but unmanaged), STATUS, MODEL,
# DEVNAME, tab-separated. The file is seeded from the lists the database
# holds when the service first acts, and survives simulated reboots. Approving
# or removing an access point changes the file; the database lists change
# only when the service is asked to refresh them, as on the device.

MESH_PEERS=/var/run/mesh.peers
MESH_KEYS=/runtime/super_mesh

mesh_seed() {
    [ -e "$MESH_PEERS" ] && return 0
    local tmp=$MESH_PEERS.$$ i base model mac
    : >"$tmp" || return 1
    for ((i = 1; ; i++)); do
        base=$MESH_KEYS/mesh_member_ap_list/index:$i
        model=$(rgdb_real -g "$base/model") && [ -n "$model" ] || break
        mac=$(rgdb_real -g "$base/mac")
        printf '%s\t1\t%s\t%s\t%s\n' "${mac,,}" "$(rgdb_real -g "$base/status")" "$model" \
            "$(rgdb_real -g "$base/devname")" >>"$tmp"
    done
    for ((i = 1; ; i++)); do
        base=$MESH_KEYS/mesh_unmanaged_ap_list/index:$i
        model=$(rgdb_real -g "$base/model") && [ -n "$model" ] || break
        mac=$(rgdb_real -g "$base/mac")
        printf '%s\t0\t1\t%s\t%s\n' "${mac,,}" "$model" "$model" >>"$tmp"
    done
    mv -f "$tmp" "$MESH_PEERS"
}

# mesh_set_member MAC 0|1: an access point the service has not seen is left
# alone, as the service can act only on access points around it.
mesh_set_member() {
    local mac=${1,,} member=$2
    mesh_seed || return 1
    awk -F '\t' -v OFS='\t' -v mac="$mac" -v m="$member" \
        '$1 == mac { $2 = m; if (m == 1) $3 = 1 } { print }' "$MESH_PEERS" >"$MESH_PEERS.$$" &&
        mv -f "$MESH_PEERS.$$" "$MESH_PEERS"
}

# mesh_publish 1|0: rewrites the member (1) or unmanaged (0) list keys.
mesh_publish() {
    local member=$1 list=mesh_unmanaged_ap_list i=0 mac m status model devname
    [ "$member" = 1 ] && list=mesh_member_ap_list
    mesh_seed || return 1
    rgdb_real -d "$MESH_KEYS/$list" || return 1
    while IFS=$'\t' read -r mac m status model devname; do
        [ "$m" = "$member" ] || continue
        i=$((i + 1))
        rgdb_real -s "$MESH_KEYS/$list/index:$i/model" "$model"
        rgdb_real -s "$MESH_KEYS/$list/index:$i/mac" "$mac"
        if [ "$member" = 1 ]; then
            rgdb_real -s "$MESH_KEYS/$list/index:$i/devname" "$devname"
            rgdb_real -s "$MESH_KEYS/$list/index:$i/status" "$status"
        fi
    done <"$MESH_PEERS"
}
