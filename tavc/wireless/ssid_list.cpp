// SPDX-License-Identifier: ISC
// Ops 0x2004 and 0x2005: the SSIDs of both bands, read and rewritten in one
// exchange through the SSID settings store.
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "proto/tags.h"
#include "proto/wire.h"
#include "tavc/handlers.h"
#include "tavc/reply.h"
#include "tavc/service.h"
#include "tavc/tlv_walk.h"
#include "tavc/wireless/wireless.h"

// Every authentication code 0 to 12 is served (the value goes out
// least significant byte first).
static constexpr uint32_t kSupportedAuth = 0x1FF;

static uint8_t ap_bands() { return uint8_t((is_apmode(1) ? 1 : 0) | (is_apmode(2) ? 2 : 0)); }

TAV_HANDLER(tav_get_ssid_list) {
    (void)body;
    (void)body_length;
    const uint8_t bands = ap_bands();
    Reply r(reply);
    r.close_with(2);
    r.add(tav::kTagSupportedBand, bands);
    r.add(tav::kTagSupportedAuth, kSupportedAuth);
    r.add(tav::kTagSupportedAddressFormat, uint8_t{1});
    if (bands & 1) get_ssid_info(1, r);
    if (bands & 2) get_ssid_info(2, r);
    r.close(tav::kTagEolOrCnt, uint16_t{0});
    return r.finish(tav::kResultSuccess);
}

namespace {

// A group opens with 926 and takes at least 5 bytes, so no body the daemon
// accepts holds more groups than this: every group of a request gets a record.
constexpr size_t kMaxSsidGroups = (tav::kMaxPlainLen - tav::kL2HeaderLen) / 5;

// Members are placed by 16-bit offsets: the records come last, as they take
// the struct past 64 KiB (the walk's description refuses to compile otherwise).
struct SetSsidList {
    char user_name[66];
    char password[66];
    uint16_t count;
    ssid_info records[kMaxSsidGroups];
};

#define SSID(member) TAVC_FIELD(ssid_info, member)
constexpr TlvRule kSetSsidListRules[] = {
    tlv_precedence(),
    tlv_text(tav::kTagUserName, Take::DeclaredMax, 65, TAVC_FIELD(SetSsidList, user_name)),
    tlv_text(tav::kTagPassword, Take::DeclaredMax, 65, TAVC_FIELD(SetSsidList, password)),
    tlv_group_start(tav::kTagSsidIndex, Take::Fixed, 1, SSID(ssid_index)),
    tlv_in_group(tlv_text(tav::kTagSsidName, Take::DeclaredMax, 64, SSID(ssid_name))),
    tlv_in_group(tlv_u8(tav::kTagBand, SSID(band), Take::DeclaredMax, 1)),
    tlv_in_group(tlv_seen(tlv_bytes(tav::kTagVlanId, Take::DeclaredMax, 2, SSID(vlan_id)),
                          SSID(has_vlan_id))),
    tlv_in_group(tlv_u8(tav::kTagAuthType, SSID(auth_type), Take::DeclaredMax, 1)),
    tlv_in_group(tlv_seen(tlv_text(tav::kTagPassphrase, Take::DeclaredMax, 128, SSID(passphrase)),
                          SSID(has_passphrase))),
    tlv_in_group(tlv_u8(tav::kTagRadiusAddressType, SSID(radius_address_type), Take::DeclaredMax, 1)),
    tlv_in_group(
        tlv_seen(tlv_text(tav::kTagRadiusAddress, Take::DeclaredMax, 64, SSID(radius_address)),
                 SSID(has_radius_address))),
    tlv_in_group(tlv_text(tav::kTagRadiusSecret, Take::DeclaredMax, 64, SSID(radius_secret))),
    tlv_in_group(tlv_u8(tav::kTagSsidStatus, SSID(ssid_status))),
    tlv_skip(tav::kTagEolOrCnt, Take::DeclaredMax, 2),
};
#undef SSID

constexpr TlvRequest<SetSsidList> kSetSsidList =
    TlvRequest<SetSsidList>{
        kSetSsidListRules,
        Take::Declared,
        ParamRefusal{tav::kResultRefusedHigh},
        PrecedenceRefusal{tav::kResultRefused},
        AuthRefusal{tav::kResultAuthFailed},
        tlv_credentials(TAVC_FIELD(SetSsidList, user_name), TAVC_FIELD(SetSsidList, password)),
    }
        .with_groups(TAVC_GROUPS(SetSsidList, records, count), GroupRefusal{tav::kResultRefused});

}  // namespace

// Nothing is applied during the walk, so a refusal at tag 54 anywhere in the
// request leaves the settings untouched. Records are applied newest first:
// of two groups for one SSID, the earlier one is applied last and stays.
TAV_HANDLER(tav_set_ssid_list) {
    static SetSsidList req;  // about 67 KB: kept off the stack
    memset(&req, 0, sizeof req);
    if (Step s = tlv_request_prologue(kSetSsidList, body, body_length, reply, &req); s.ended())
        return s.result();
    for (int i = int(req.count) - 1; i >= 0; --i) {
        const int result = set_ssid_info(req.records[i]);
        if (result != 0) {
            puts("set_ssid_info faild");
            return uint16_t(result);
        }
    }
    store_config_to_flash();
    submit_wlan();
    Reply r(reply);
    r.add_set_reply<tav::kOpSetSsidList>(2, 60000, 0);
    return r.finish(tav::kResultSuccess);
}
