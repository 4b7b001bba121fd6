// SPDX-License-Identifier: ISC
// Op 0x00E3: change the system name or the web server's port.
#include "lrgbin/rgdb_getset.h"
#include "proto/tags.h"
#include "proto/wire.h"
#include "tavc/handlers.h"
#include "tavc/reply.h"
#include "tavc/service.h"
#include "tavc/tlv_walk.h"
#include "tavc/trace.h"

namespace {

enum : uint8_t { kSetName = 0, kSetWebPort = 1 };

struct SetDeviceInfo {
    char user_name[65];
    char password[65];
    char name[64];
    uint8_t type;
    uint16_t web_port;
    bool unknown_tag;
};

Step mark_unknown(void *req, uint16_t tag, const uint8_t *, uint16_t) {
    static_cast<SetDeviceInfo *>(req)->unknown_tag = true;
    TAV_DEBUG("not support!tag = %u", tag);
    return Step::go_on();
}

constexpr TlvRule kSetDeviceInfoRules[] = {
    tlv_text(tav::kTagDeviceName, Take::DeclaredMax, 64, TAVC_FIELD(SetDeviceInfo, name)),
    tlv_u8(tav::kTagDeviceInfoType, TAVC_FIELD(SetDeviceInfo, type)),
    tlv_be16(tav::kTagWebPort, TAVC_FIELD(SetDeviceInfo, web_port)),
    tlv_precedence(),
    tlv_text(tav::kTagUserName, Take::Declared, 0, TAVC_FIELD(SetDeviceInfo, user_name)),
    tlv_text(tav::kTagPassword, Take::Declared, 0, TAVC_FIELD(SetDeviceInfo, password)),
};

constexpr TlvRequest<SetDeviceInfo> kSetDeviceInfo{
    kSetDeviceInfoRules,
    Take::Declared,
    ParamRefusal{tav::kResultRefused},
    PrecedenceRefusal{tav::kResultRefused},
    AuthRefusal{tav::kResultAuthFailed},
    tlv_credentials(TAVC_FIELD(SetDeviceInfo, user_name), TAVC_FIELD(SetDeviceInfo, password)),
    mark_unknown,
};

}  // namespace

TAV_HANDLER(tav_set_device_information) {
    SetDeviceInfo req{};
    if (Step s = tlv_request_prologue(kSetDeviceInfo, body, body_length, reply, &req);
        s.ended())
        return s.result();

    if (!req.unknown_tag) {
        if (req.type == kSetName) {
            _rgdb_set_("/sys/systemName", req.name);
            store_config_to_flash();
        } else if (req.type == kSetWebPort) {
            tav_rgdb_set_digit(req.web_port, "/sys/web/port");
            store_config_to_flash();
            submit_httpd();
        }
    }

    Reply r(reply);
    r.add(tav::kTagReplyStatus, uint8_t(req.unknown_tag ? 1 : 0));
    if (req.unknown_tag)  // without NUL in this op code (the tag table says so)
        r.add(tav::kTagFailureText.in<tav::kOpSetDeviceInfo>(), "Parameter is ERROR!");
    return r.finish(tav::kResultSuccess);
}
