// SPDX-License-Identifier: ISC
// Presence: discovery, the supported-functions list, hello/bye/report
// requests and the device's own hello, report and bye broadcasts.
#include <string.h>

#include <span>

#include "proto/tags.h"
#include "proto/wire.h"
#include "tavc/handlers.h"
#include "tavc/reply.h"
#include "tavc/announce.h"
#include "tavc/dispatch.h"
#include "tavc/identity.h"
#include "tavc/registry.h"
#include "tavc/transport.h"

using namespace tav;

TAV_HANDLER(tav_report) {
    (void)body, (void)body_length, (void)reply;
    return tav::kResultSuccess;
}

TAV_HANDLER(tav_hello) {
    (void)body, (void)body_length, (void)reply;
    return tav::kResultSuccess;
}

TAV_HANDLER(tav_bye) {
    (void)body, (void)body_length, (void)reply;
    tav_server *prev = nullptr;
    for (tav_server *s = tav_server_list; s != nullptr; prev = s, s = s->next) {
        if (memcmp(s->mac, tav_tmp_server->mac, 6) != 0) continue;
        if (prev)
            prev->next = s->next;
        else
            tav_server_list = s->next;
        tav_server_release(s);
        break;
    }
    return tav::kResultSuccess;
}

TAV_HANDLER(tav_discovery) {
    (void)body_length;
    if (tav_function_parameter_check(body, reply) != 0) return tav::kResultRefused;
    init_device_status();
    const device_status &d = *device_info;
    Reply r(reply);
    r.add(kTagVendor, d.vendor);
    r.add(kTagModelName, d.model_name);
    r.add(kTagHostName, d.host_name);
    r.add(kTagFirmwareVersion, d.firmware_version);
    r.add(kTagReservedWord, get_be32(d.reserved_word));
    r.add(kTagMac, d.mac);
    r.add(kTagTavMode, d.tav_mode);
    r.add(kTagSystemName, d.system_name);
    r.add(kTagIpAddress, d.ip_address);
    r.add(kTagWebPort, get_be16(d.web_port));  // both held in network order
    r.add(kTagNetmask, d.netmask);
    r.add(kTagGateway, d.gateway);
    r.add(kTagPrimaryDns, d.primary_dns);
    r.add(kTagSecondaryDns, d.secondary_dns);
    r.add(kTagWanMode, d.wan_mode);
    r.add(kTagDateTime, d.date_time);
    r.add(kTagProductType, d.product_type);
    r.add(kTagHardwareVersion, d.hardware_version);
    r.add(kTagManagedStatus, d.managed_status);
    r.add(kTagNmsServer, d.nms_server);
    r.add(kTagAddressMode, d.address_mode);
    r.add(kTagAgUuid, d.ag_uuid);
    r.add(kTagConnectionStatus, get_be16(d.connection_status));
    return r.finish(tav::kResultSuccess);
}

TAV_HANDLER(tav_query_supported_optional_functions) {
    (void)body_length;
    if (tav_function_parameter_check(body, reply) != 0) return tav::kResultRefused;
    Reply r(reply);
    r.close_with(2);  // room kept for tag 501
    for (const tav_function_row &row : tav_function)
        if (tav::is_advertised(row.op_code)) r.add(kTagSupportedFunction, uint16_t(row.op_code));
    r.close(kTagEolOrCnt, uint16_t{0});
    return r.finish(tav::kResultSuccess);
}

// The device's own messages: raw form, type 0x7FFF, sequence 0, no target.
static void own_header(uint8_t *out, uint16_t op_code, uint16_t body_length) {
    tav::Header h;
    h.msg_type = tav::kMsgAnnounce;
    h.op_code = op_code;
    h.version = tav::kVersion;
    h.body_length = body_length;
    tav::encode_header(h, out);
}

int tav_own_hello() {
    uint8_t plain[tav::kL2HeaderLen];
    own_header(plain, tav::kOpHello, 0);
    return send_msg_L2(plain, sizeof plain);
}

int tav_own_bye() {
    uint8_t plain[tav::kL2HeaderLen];
    own_header(plain, tav::kOpBye, 0);
    return send_msg_L2(plain, sizeof plain);
}

int report_device_info() {
    // Texts are bounded by the record's fields, so the body stays far below
    // this buffer; the writer would stop at its end anyway.
    static uint8_t plain[1024];
    memset(plain, 0, sizeof plain);
    init_device_status();
    const device_status &d = *device_info;
    Reply w(std::span<uint8_t>(plain + tav::kL2HeaderLen, sizeof plain - tav::kL2HeaderLen));
    w.add(kTagModelName, d.model_name);
    w.add(kTagProductType, d.product_type);
    w.add(kTagFirmwareVersion, d.firmware_version);
    w.add(kTagMac, d.mac);
    w.add(kTagHardwareVersion, d.hardware_version);
    w.add(kTagSystemName, d.system_name);
    w.add(kTagIpAddress, d.ip_address);
    w.add(kTagNetmask, d.netmask);
    w.add(kTagInterfaceName, d.interface_name);
    own_header(plain, tav::kOpReport, uint16_t(w.size()));
    return send_msg_L2(plain, uint16_t(tav::kL2HeaderLen + w.size()));
}
