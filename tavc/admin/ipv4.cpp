// SPDX-License-Identifier: ISC
// Ops 0x00E0 (general information) and 0x00E1 (IPv4 addressing of the
// device's interface).
#include <stdio.h>

#include "lrgbin/rgdb_getset.h"
#include "proto/tags.h"
#include "proto/wire.h"
#include "tavc/handlers.h"
#include "tavc/reply.h"
#include "tavc/service.h"
#include "tavc/tlv_walk.h"

TAV_HANDLER(tav_information_func) {
    (void)body;
    (void)body_length;
    Reply r(reply);
    r.add(tav::kTagInformation, "0.00.037");
    return r.finish(tav::kResultSuccess);
}

namespace {

struct SetIpv4 {
    char user_name[65];
    char password[65];
    char ip[16], netmask[16], gateway[16], dns[16];  // dotted text; empty when absent
    uint8_t wan_mode;
    bool refused;
};

// Addresses become dotted text as they are read.
Step take_address(void *p, uint16_t tag, const uint8_t *v, uint16_t taken) {
    auto *req = static_cast<SetIpv4 *>(p);
    char *dst = tag == tav::kTagIpAddress ? req->ip
                : tag == tav::kTagNetmask ? req->netmask
                : tag == tav::kTagGateway ? req->gateway
                                          : req->dns;
    if (taken == 4) snprintf(dst, sizeof req->ip, "%u.%u.%u.%u", v[0], v[1], v[2], v[3]);
    return Step::go_on();
}

Step take_address_mode(void *p, uint16_t, const uint8_t *v, uint16_t taken) {
    if (taken == 1 && v[0] != 0) static_cast<SetIpv4 *>(p)->refused = true;
    return Step::go_on();
}

Step refuse_unknown(void *p, uint16_t, const uint8_t *, uint16_t) {
    static_cast<SetIpv4 *>(p)->refused = true;
    return Step::go_on();
}

constexpr TlvRule kSetIpv4Rules[] = {
    tlv_call(tav::kTagAddressMode, Take::Fixed, 1, take_address_mode),
    tlv_skip(tav::kTagDeviceDnsType, Take::Fixed, 1),
    tlv_call(tav::kTagIpAddress, Take::Fixed, 4, take_address),
    tlv_call(tav::kTagNetmask, Take::Fixed, 4, take_address),
    tlv_call(tav::kTagGateway, Take::Fixed, 4, take_address),
    tlv_call(tav::kTagPrimaryDns, Take::Fixed, 4, take_address),
    tlv_skip(tav::kTagSecondaryDns, Take::Fixed, 4),
    tlv_u8(tav::kTagWanMode, TAVC_FIELD(SetIpv4, wan_mode)),
    tlv_skip(tav::kTagCustomizedDns, Take::Fixed, 1),
    tlv_precedence(),
    tlv_text(tav::kTagUserName, Take::Declared, 0, TAVC_FIELD(SetIpv4, user_name)),
    tlv_text(tav::kTagPassword, Take::Declared, 0, TAVC_FIELD(SetIpv4, password)),
};

constexpr TlvRequest<SetIpv4> kSetIpv4{
    kSetIpv4Rules,
    Take::Declared,
    ParamRefusal{tav::kResultRefused},
    PrecedenceRefusal{tav::kResultRefused},
    AuthRefusal{tav::kResultAuthFailed},
    tlv_credentials(TAVC_FIELD(SetIpv4, user_name), TAVC_FIELD(SetIpv4, password)),
    refuse_unknown,
};

}  // namespace

TAV_HANDLER(tav_set_ipv4_address) {
    SetIpv4 req{};
    if (Step s = tlv_request_prologue(kSetIpv4, body, body_length, reply, &req); s.ended())
        return s.result();
    if (req.refused) return tav::kResultAuthFailed;

    const unsigned long mode = req.wan_mode + 1ul;  // 1 static, 2 dynamic
    binary__rgdb_set_("/runtime/wan/inf:1/tavmode", 1);
    binary__rgdb_set_("/wan/rg/inf:1/mode", mode);
    binary__rgdb_set_("/wan/rg/inf:1/modebak", mode);
    if (req.wan_mode == 0) {
        _rgdb_set_("/wan/rg/inf:1/static/ip", req.ip);
        _rgdb_set_("/wan/rg/inf:1/static/netmask", req.netmask);
        _rgdb_set_("/wan/rg/inf:1/static/gateway", req.gateway);
        _rgdb_set_("/dnsrelay/server/primarydns", req.dns);
    }
    store_config_to_flash();
    submit_wlan();

    Reply r(reply);
    r.add(tav::kTagReplyStatus, uint8_t(req.refused ? 1 : 0));
    return r.finish(tav::kResultSuccess);
}
