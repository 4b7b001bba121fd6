// SPDX-License-Identifier: ISC
// Ops 0x00DA and 0x00D4: read and change the SNMP agent's state and
// communities.
#include <stdio.h>
#include <string.h>

#include "lrgbin/rgdb_getset.h"
#include "proto/tags.h"
#include "proto/wire.h"
#include "tavc/handlers.h"
#include "platform/proc.h"
#include "tavc/reply.h"
#include "tavc/service.h"
#include "tavc/tlv_walk.h"

static int invalid_snmp_str(const char *text) {
    return text != nullptr && strpbrk(text, "#`'\"\\") != nullptr ? 1 : 0;
}

namespace {

constexpr uint8_t kSnmpOn = 0x01, kSnmpDelete = 0x02;
constexpr uint32_t kBadRocomm = 2, kBadRwcomm = 4, kBadRoview = 8, kBadRwview = 16;

struct GetSnmp {};
constexpr TlvRequest<GetSnmp> kGetSnmp{{}, Take::Declared, ParamRefusal{tav::kResultRefused},
                                       PrecedenceRefusal{tav::kResultRefused}, NoAuth{}};

struct SetSnmp {
    char user_name[65];
    char password[65];
    char rocomm[64], rwcomm[64], roview[64], rwview[64];
    uint8_t state;
    bool unsupported;
};

Step mark_unsupported(void *req, uint16_t, const uint8_t *, uint16_t) {
    static_cast<SetSnmp *>(req)->unsupported = true;
    return Step::go_on();
}

constexpr TlvRule kSetSnmpRules[] = {
    tlv_u8(tav::kTagSnmpGlobalState, TAVC_FIELD(SetSnmp, state)),
    tlv_text(tav::kTagSnmpRocomm, Take::Declared, 0, TAVC_FIELD(SetSnmp, rocomm)),
    tlv_text(tav::kTagSnmpRwcomm, Take::Declared, 0, TAVC_FIELD(SetSnmp, rwcomm)),
    tlv_text(tav::kTagSnmpRoview, Take::Declared, 0, TAVC_FIELD(SetSnmp, roview)),
    tlv_text(tav::kTagSnmpRwview, Take::Declared, 0, TAVC_FIELD(SetSnmp, rwview)),
    tlv_precedence(),
    tlv_text(tav::kTagUserName, Take::DeclaredMax, 65, TAVC_FIELD(SetSnmp, user_name)),
    tlv_text(tav::kTagPassword, Take::DeclaredMax, 65, TAVC_FIELD(SetSnmp, password)),
};

constexpr TlvRequest<SetSnmp> kSetSnmp{
    kSetSnmpRules,
    Take::Declared,
    ParamRefusal{tav::kResultRefusedHigh},
    PrecedenceRefusal{tav::kResultRefused},
    AuthRefusal{tav::kResultAuthFailed},
    tlv_credentials(TAVC_FIELD(SetSnmp, user_name), TAVC_FIELD(SetSnmp, password)),
    mark_unsupported,
};

// One community of a set request: refused (message, mask bit) or written.
uint32_t apply_community(const char *value, const char *too_long, const char *key, uint32_t bit) {
    if (value[0] == '\0') return 0;
    if (strlen(value) >= 30) {
        puts(too_long);
        return bit;
    }
    if (invalid_snmp_str(value)) {
        puts("error:value can't include #`'\\\"");
        return bit;
    }
    _rgdb_set_(key, value);
    return 0;
}

}  // namespace

TAV_HANDLER(tav_get_snmp_configuration) {
    (void)body_length;
    if (Step s = tlv_param_check(kGetSnmp, body, reply); s.ended()) return s.result();
    uint8_t state = uint8_t(rgdb_get_digit("/sys/snmpd/status")) | 0xC0;
    char ro[64] = {}, rw[64] = {};
    _rgdb_get_(ro, sizeof ro, "/sys/snmpd/rocomm");
    _rgdb_get_(rw, sizeof rw, "/sys/snmpd/rwcomm");

    Reply r(reply);
    r.add(tav::kTagSnmpGlobalState, state);
    r.add(tav::kTagSnmpCommunityType, uint8_t{1});
    r.add(tav::kTagSnmpCommunity, ro);  // without NUL (the tag table says so)
    r.add(tav::kTagSnmpCommunityType, uint8_t{2});
    r.add(tav::kTagSnmpCommunity, rw);
    r.add(tav::kTagEolOrCnt, uint16_t{0});
    return r.finish(tav::kResultSuccess);
}

TAV_HANDLER(tav_set_snmp_configuration) {
    SetSnmp req{};
    if (Step s = tlv_request_prologue(kSetSnmp, body, body_length, reply, &req); s.ended())
        return s.result();
    if (req.unsupported) return tav::kResultAuthFailed;

    binary__rgdb_set_("/sys/snmpd/status", req.state & kSnmpOn);

    uint32_t mask = 0;
    if (req.state & kSnmpDelete) {
        if (req.rocomm[0] != '\0') {
            puts("error:Can't delete read only community");
            mask |= kBadRocomm;
        }
        if (req.rwcomm[0] != '\0') {
            puts("error:Can't delete read-write community");
            mask |= kBadRwcomm;
        }
    } else {
        mask |= apply_community(req.rocomm, "error:snmp_rocomm too long", "/sys/snmpd/rocomm",
                                kBadRocomm);
        mask |= apply_community(req.rwcomm, "error:snmp_rwcomm too long", "/sys/snmpd/rwcomm",
                                kBadRwcomm);
    }
    if (req.roview[0] != '\0') {
        puts("error:Don't support roview");
        mask |= kBadRoview;
    }
    if (req.rwview[0] != '\0') {
        puts("error:Don't support rwview");
        mask |= kBadRwview;
    }

    store_config_to_flash();
    const char *const argv[] = {"submit", "SNMP", nullptr};
    proc_exec(0, "/usr/sbin/submit", argv, 6);

    Reply r(reply);
    r.add_set_reply<tav::kOpSetSnmp>(0, 20, mask);
    return r.finish(mask == 0 ? tav::kResultSuccess : tav::kResultSnmpPartial);
}
