// SPDX-License-Identifier: ISC
// Message types, target checks, the op-code table and the reply header.
#include <stdio.h>
#include <string.h>

#include <span>

#include "lrgbin/rgdb_getset.h"
#include "proto/wire.h"
#include "tavc/handlers.h"
#include "tavc/dispatch.h"
#include "tavc/identity.h"
#include "tavc/registry.h"
#include "tavc/transport.h"

constexpr tav_function_row tav_function[kTavFunctionCount] = {
    {0x00A0, tav_report},
    {0x00A1, tav_discovery},
    {0x00A3, tav_user_verification},
    {0x00A4, tav_change_ID_and_password},
    {0x00AA, tav_reset},
    {0x00AB, tav_reset_factory_settings},
    {0x00DA, tav_get_snmp_configuration},
    {0x00D4, tav_set_snmp_configuration},
    {0x00E0, tav_information_func},
    {0x00E1, tav_set_ipv4_address},
    {0x00E3, tav_set_device_information},
    {0x00E4, tav_get_device_date_time},
    {0x00E5, tav_set_device_date_time},
    {0x00E6, tav_set_ag_profile},
    {0x0100, tav_firmware_upgrade},
    {0x0101, tav_configuration_backup},
    {0x0102, tav_configuration_restore},
    {0x0103, tav_reboot},
    {0x0104, tav_hello},
    {0x0105, tav_bye},
    {0x00A5, tav_query_supported_optional_functions},
    {0x2003, tav_get_device_status},
    {0x2004, tav_get_ssid_list},
    {0x2005, tav_set_ssid_list},
    {0x2006, tav_get_wireless_information},
    {0x2007, tav_set_wireless_information},
    {0x2008, tav_get_client_list},
    {0x2009, tav_get_ap_array_information},
    {0x200A, tav_set_ap_array_information},
    {0x200B, tav_get_ap_array_device_list},
    {0x200C, tav_set_ap_array_member_list},
};

// The table and the wire definition must list the same op codes in the same
// order (the supported-functions answer depends on it).
static constexpr bool table_matches_wire() {
    for (int i = 0; i < kTavFunctionCount; ++i)
        if (tav_function[i].op_code != tav::kOpCodes[size_t(i)].code) return false;
    return true;
}
static_assert(table_matches_wire());

// Reply storage lives for the whole process: nothing is allocated per request.
static uint8_t g_reply_body[kReplyBodySize];
static uint8_t g_reply_plain[tav::kIpv4HeaderLen + tav::kReplyArea];

int tav_function_parameter_check(const void *body, const void *reply) {
    return (body == nullptr || reply == nullptr) ? 255 : 0;
}

int operation_is_allowed(uint16_t op_code) {
    if (rgdb_get_digit("/qm5_agent/running") == 0) return 1;
    const tav::OpCodeInfo *info = tav::find_op_code(op_code);
    if (info != nullptr && info->allowed_when_managed) return 1;
    puts("NOTICE:operation is not allowed in current mode");
    return 0;
}

int tav_func_find(uint16_t op_code) {
    if (operation_is_allowed(op_code) == 0) return -1;
    for (int i = 0; i < kTavFunctionCount; ++i) {
        if (tav_function[i].handler == nullptr) {
            printf("can't found op code  [%02x]\n", op_code);
            return -1;
        }
        if (tav_function[i].op_code == op_code) return i;
    }
    return -1;
}

// Runs the row's handler on an empty reply body; only the low 16 bits of its
// result go on the wire. The body length is kept within the reply area
// whatever it stored.
static void call_handler(int row, const uint8_t *body, uint16_t body_length, int *result,
                         uint16_t *reply_length) {
    tav_tmp_server->functions[0].op_code = tav_function[row].op_code;
    // Handlers only append through Reply, and only the first n bytes after
    // the length are sent: a cleared length is a cleared body.
    memset(g_reply_body, 0, 2);
    int rc = tav_function[row].handler(body, body_length, g_reply_body);
    uint16_t n;
    memcpy(&n, g_reply_body, sizeof n);
    if (n > tav::kReplyArea) n = uint16_t(tav::kReplyArea);
    *result = rc & 0xFFFF;
    *reply_length = n;
}

static bool is_mac(const uint8_t *p, const uint8_t *mac) { return memcmp(p, mac, 6) == 0; }

// Serves one request of either form: runs the handler and sends the reply
// header (sequence echoed, the row's op code, the requester's addresses)
// and body by the path the request came.
static int serve(const tav::Header &h, const uint8_t *body, int row) {
    int result;
    uint16_t n;
    call_handler(row, body, h.body_length, &result, &n);

    tav::Header r;
    r.ipv4 = h.ipv4;
    r.msg_type = h.ipv4 ? tav::kMsgIpv4Reply : tav::kMsgL2Reply;
    r.sequence = h.sequence;
    r.op_code = tav_function[row].op_code;
    memcpy(r.target_mac.data(), tav_tmp_server->mac, 6);
    if (h.ipv4) memcpy(r.target_ip.data(), &tav_tmp_server->addr.sin_addr, 4);
    r.result = uint16_t(result);
    r.version = tav::kVersion;
    r.body_length = n;
    tav::encode_header(r, g_reply_plain);
    memcpy(g_reply_plain + r.size(), g_reply_body + 2, n);
    uint16_t total = uint16_t(r.size() + n);
    if (h.ipv4)
        send_msg_L4(g_reply_plain, total);
    else
        send_msg_L2(g_reply_plain, total);
    return 0;
}

int handle_L2_msg(const uint8_t *plain, uint16_t len) {
    auto h = tav::decode_header(std::span<const uint8_t>(plain, len), false);
    if (!h) return -1;
    const uint8_t *target = plain + 6;
    if (!is_mac(target, device_info->mac) && !is_mac(target, tav::kBroadcastMac.data()))
        return -1;
    int row = tav_func_find(h->op_code);
    if (row < 0) return -1;
    return serve(*h, plain + tav::kL2HeaderLen, row);
}

int IPv4_check_receiver(const uint8_t *plain) {
    static const uint8_t zero[6] = {0, 0, 0, 0, 0, 0};
    const uint8_t *mac = plain + 6;
    const uint8_t *ip = plain + 12;
    bool mac_ok = is_mac(mac, device_info->mac) || is_mac(mac, zero);
    bool ip_ok = memcmp(ip, device_info->ip_address, 4) == 0 || memcmp(ip, zero, 4) == 0;
    return (mac_ok && ip_ok) ? 0 : -1;
}

int handle_ipv4_msg(const uint8_t *plain, uint16_t len) {
    auto h = tav::decode_header(std::span<const uint8_t>(plain, len), true);
    if (!h) return -1;
    if (IPv4_check_receiver(plain) != 0) return -1;
    int row = tav_func_find(h->op_code);
    if (row < 0) return -1;
    return serve(*h, plain + tav::kIpv4HeaderLen, row);
}

int handle_ipv6_msg(const uint8_t *, uint16_t) { return -1; }

int process_message(const uint8_t *plain, uint16_t len) {
    if (plain == nullptr || len < 2) return 0;
    uint16_t type = tav::get_be16(plain);
    switch (type) {
    case tav::kMsgL2Request:
        handle_L2_msg(plain, len);
        return 0;
    case tav::kMsgIpv4Request:
        handle_ipv4_msg(plain, len);
        return 0;
    case tav::kMsgIpv6Request:
        handle_ipv6_msg(plain, len);
        return 0;
    default:
        break;
    }
    for (uint16_t silent : tav::kSilentMsgTypes)
        if (type == silent) return 0;
    puts("Unknow message_type !");
    return 0;
}
