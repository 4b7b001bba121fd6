// SPDX-License-Identifier: ISC
// Ops 0x2009 to 0x200C: the AP array (a group of access points run together
// by the mesh service): its settings, its members and the unmanaged access
// points seen around, and actions on single access points by MAC.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "lrgbin/rgdb_getset.h"
#include "proto/tags.h"
#include "proto/wire.h"
#include "platform/command.h"
#include "tavc/handlers.h"
#include "platform/proc.h"
#include "tavc/reply.h"
#include "tavc/credentials.h"
#include "tavc/registry.h"
#include "tavc/service.h"
#include "tavc/tlv_walk.h"
#include "tavc/wireless/wireless.h"

// ---- settings (0x2009, 0x200A) ------------------------------------------

// Role on the wire: 0 none (empty key), 1 master ("1"), 2 anything else.
static uint8_t role_code() {
    char text[8] = {};
    _rgdb_get_(text, 8, "/runtime/super_mesh/apsond_ap_mode");
    if (text[0] == '\0') return 0;
    return atoi(text) == 1 ? 1 : 2;
}

TAV_HANDLER(tav_get_ap_array_information) {
    (void)body;
    (void)body_length;
    char domain[16] = {};
    Reply r(reply);
    r.add(tav::kTagApArrayEnable, uint8_t(rgdb_get_digit("/sys/super_mesh/smeshstatus")));
    r.add(tav::kTagApArrayRole, role_code());
    _rgdb_get_(domain, 15, "/sys/super_mesh/domain");
    r.add(tav::kTagApArrayName, domain);
    r.add(tav::kTagApArrayNameFilter, uint8_t(rgdb_get_digit("/sys/super_mesh/domain_filt_en")));
    r.add(tav::kTagApArrayPreferredMaster,
             uint8_t(rgdb_get_digit("/sys/super_mesh/prefer_master_en")));
    r.add(tav::kTagApArrayAddApAuto, uint8_t(rgdb_get_digit("/sys/super_mesh/add_ap_auto_en")));
    r.add(tav::kTagApArrayReserved, uint8_t{16});
    return r.finish(tav::kResultSuccess);
}

namespace {

// Absent settings stay 0 (the name empty): every setting is written.
struct SetApArray {
    char user_name[66];
    char password[66];
    uint8_t enable, role, name_filter, preferred_master, add_ap_auto;
    char name[17];
};

constexpr TlvRule kSetApArrayRules[] = {
    tlv_precedence(),
    tlv_text(tav::kTagUserName, Take::DeclaredMax, 65, TAVC_FIELD(SetApArray, user_name)),
    tlv_text(tav::kTagPassword, Take::DeclaredMax, 65, TAVC_FIELD(SetApArray, password)),
    tlv_u8(tav::kTagApArrayEnable, TAVC_FIELD(SetApArray, enable), Take::DeclaredMax, 1),
    tlv_u8(tav::kTagApArrayRole, TAVC_FIELD(SetApArray, role), Take::DeclaredMax, 1),
    tlv_text(tav::kTagApArrayName, Take::DeclaredMax, 16, TAVC_FIELD(SetApArray, name)),
    tlv_u8(tav::kTagApArrayNameFilter, TAVC_FIELD(SetApArray, name_filter), Take::DeclaredMax, 1),
    tlv_u8(tav::kTagApArrayPreferredMaster, TAVC_FIELD(SetApArray, preferred_master),
           Take::DeclaredMax, 1),
    tlv_u8(tav::kTagApArrayAddApAuto, TAVC_FIELD(SetApArray, add_ap_auto), Take::DeclaredMax, 1),
};

constexpr TlvRequest<SetApArray> kSetApArray{
    kSetApArrayRules,
    Take::Declared,
    NoParamCheck{},
    PrecedenceRefusal{tav::kResultRefused},
    AuthRefusal{tav::kResultAuthFailed},
    tlv_credentials(TAVC_FIELD(SetApArray, user_name), TAVC_FIELD(SetApArray, password)),
};

}  // namespace

TAV_HANDLER(tav_set_ap_array_information) {
    SetApArray req{};
    if (Step s = tlv_request_prologue(kSetApArray, body, body_length, reply, &req); s.ended())
        return s.result();
    tav_rgdb_set_digit(req.enable, "/sys/super_mesh/smeshstatus");
    tav_rgdb_set_str(req.role == 0 ? "" : req.role == 1 ? "1" : "0",
                     "/runtime/super_mesh/apsond_ap_mode");
    tav_rgdb_set_str(req.name, "/sys/super_mesh/domain");
    tav_rgdb_set_digit(req.name_filter, "/sys/super_mesh/domain_filt_en");
    tav_rgdb_set_digit(req.preferred_master, "/sys/super_mesh/prefer_master_en");
    tav_rgdb_set_digit(req.add_ap_auto, "/sys/super_mesh/add_ap_auto_en");
    store_config_to_flash();
    submit_mesh();
    Reply r(reply);
    r.add_set_reply<tav::kOpSetApArrayInfo>(2, 60000, 0);
    return r.finish(tav::kResultSuccess);
}

// ---- device and member lists (0x200B, 0x200C) ----------------------------

namespace {

struct DeviceListReq {
    uint8_t req_type;
};
constexpr TlvRule kDeviceListRules[] = {
    tlv_u8(tav::kTagReqType, TAVC_FIELD(DeviceListReq, req_type), Take::DeclaredMax, 1),
};
constexpr TlvRequest<DeviceListReq> kDeviceList{
    kDeviceListRules, Take::Declared, NoParamCheck{}, PrecedenceRefusal{tav::kResultRefused},
    NoAuth{}};

// One list of the mesh service; `member` lists carry a system name and a
// status. False when the reply area is full: the list stops before the group
// that does not fit.
bool list_devices(Reply &r, bool member) {
    const char *list = member ? "mesh_member_ap_list" : "mesh_unmanaged_ap_list";
    for (int index = 1;; ++index) {
        char model[32] = {};
        _rgdb_get_(model, 32, "/runtime/super_mesh/%s/index:%d/model", list, index);
        if (model[0] == '\0') return true;
        char name[64] = {};
        if (member)
            _rgdb_get_(name, 64, "/runtime/super_mesh/%s/index:%d/devname", list, index);
        else
            memcpy(name, model, sizeof model);
        char mac_text[32] = {};
        uint8_t mac[6];
        _rgdb_get_(mac_text, 32, "/runtime/super_mesh/%s/index:%d/mac", list, index);
        scan_mac(mac_text, mac);
        const size_t group = Reply::tlv_size(2) + Reply::tlv_size(1) +
                             Reply::tlv_size(strlen(model) + 1) +
                             Reply::tlv_size(strlen(name) + 1) + Reply::tlv_size(6) +
                             (member ? Reply::tlv_size(1) : 0);
        if (!r.fits(group)) return false;
        r.add(tav::kTagGroup, uint16_t{0xFFFF});
        r.add(tav::kTagListType, uint8_t(member ? 0 : 1));
        r.add(tav::kTagHostName, model);
        r.add(tav::kTagSystemName, name);
        r.add(tav::kTagMac, mac);
        if (member)
            r.add(tav::kTagDeviceStatus,
                     uint8_t(rgdb_get_digit("/runtime/super_mesh/%s/index:%d/status", list, index)));
    }
}

}  // namespace

TAV_HANDLER(tav_get_ap_array_device_list) {
    DeviceListReq req{};
    (void)tlv_walk(kDeviceList, body, body_length, &req);  // ends only by the walk rule
    proc_system("submit GET_PENDING_LIST");
    proc_system("submit GET_MEMBERAP_LIST");
    Reply r(reply);
    r.close_with(2);
    const bool room = !(req.req_type & 1) || list_devices(r, true);
    if (room && (req.req_type & 2)) list_devices(r, false);
    r.close(tav::kTagEolOrCnt, uint16_t{0xEEEE});
    return r.finish(tav::kResultSuccess);
}

int apply_action(const char *mac_text, uint8_t action) {
    switch (action) {
    case 1:
        return Command(128, "nb_submit ADD_APPROVE_LIST %s", mac_text).system();
    case 2:
        return Command(128, "nb_submit DEL_APPROVE_LIST %s", mac_text).system();
    case 3:
        return Command(128, "nb_submit REBOOT_AP %s", mac_text).system();
    default:
        return 0;  // an empty command line: nothing to run
    }
}

namespace {

// The walk acts on each target as soon as its MAC and action are both known,
// but an action only runs once the request is authenticated: actions wait in
// request order until tag 54 passes (or, without tag 54, until the walk ends
// and the credentials pass), and a refusal drops those waiting. Once a tag 54
// has passed, later actions run as they are met, so a refusal at a later 54
// stops the walk there without undoing or dropping what came before it.
struct PendingAction {
    char mac_text[18];
    uint8_t action;
};
// A record takes at least 4 bytes: no accepted body holds more actions.
constexpr size_t kMaxActions = tav::kMaxPlainLen / 4;

struct SetMembers {
    char user_name[66];
    char password[66];
    char mac_text[18];  // "" until a MAC is given
    uint8_t action;     // 255: none yet
    bool authenticated;
    uint16_t queued;
    PendingAction actions[kMaxActions];
};

SetMembers &members(void *req) { return *static_cast<SetMembers *>(req); }

Step queue_action(SetMembers &m) {
    if (m.action < 1 || m.action > 3) return Step::go_on();  // nothing would run
    if (m.authenticated) {
        apply_action(m.mac_text, m.action);
        return Step::go_on();
    }
    if (m.queued >= kMaxActions) return Step::end(tav::kResultRefused);
    PendingAction &a = m.actions[m.queued++];
    memcpy(a.mac_text, m.mac_text, sizeof a.mac_text);
    a.action = m.action;
    return Step::go_on();
}

void run_actions(SetMembers &m) {
    for (uint16_t i = 0; i < m.queued; ++i) apply_action(m.actions[i].mac_text, m.actions[i].action);
    m.queued = 0;
}

Step on_mac(void *req, uint16_t, const uint8_t *v, uint16_t taken) {
    SetMembers &m = members(req);
    uint8_t mac[6] = {};
    memcpy(mac, v, taken < 6 ? taken : 6);
    snprintf(m.mac_text, sizeof m.mac_text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1],
             mac[2], mac[3], mac[4], mac[5]);
    return queue_action(m);
}

Step on_action(void *req, uint16_t, const uint8_t *v, uint16_t taken) {
    SetMembers &m = members(req);
    if (taken >= 1) m.action = v[0];
    if (m.mac_text[0] == '\0') return Step::go_on();
    return queue_action(m);
}

Step on_group(void *req, uint16_t, const uint8_t *, uint16_t) {
    SetMembers &m = members(req);
    m.mac_text[0] = '\0';
    m.action = 255;
    return Step::go_on();
}

// Credentials given so far, then precedence; the waiting actions run when
// both pass.
Step on_precedence(void *req, uint16_t, const uint8_t *v, uint16_t) {
    SetMembers &m = members(req);
    if (tav_authentic(m.user_name, m.password) != 0) return Step::end(tav::kResultAuthFailed);
    if (check_server_precedence(tav_tmp_server->functions[0].op_code, v[0], tav_tmp_server) != 0)
        return Step::end(tav::kResultRefused);
    m.authenticated = true;
    run_actions(m);
    return Step::go_on();
}

constexpr TlvRule kSetMembersRules[] = {
    tlv_call(tav::kTagMac, Take::DeclaredMax, 6, on_mac),
    tlv_call(tav::kTagServerPrecedence, Take::Fixed, 1, on_precedence),
    tlv_text(tav::kTagUserName, Take::DeclaredMax, 65, TAVC_FIELD(SetMembers, user_name)),
    tlv_text(tav::kTagPassword, Take::DeclaredMax, 65, TAVC_FIELD(SetMembers, password)),
    tlv_call(tav::kTagGroup, Take::Declared, 0, on_group),
    tlv_call(tav::kTagAction, Take::DeclaredMax, 1, on_action),
};

constexpr TlvRequest<SetMembers> kSetMembers{
    kSetMembersRules, Take::Declared, NoParamCheck{}, PrecedenceRefusal{tav::kResultRefused},
    NoAuth{}};

}  // namespace

TAV_HANDLER(tav_set_ap_array_member_list) {
    SetMembers req{};
    req.action = 255;
    if (Step s = tlv_walk(kSetMembers, body, body_length, &req); s.ended()) return s.result();
    // Without tag 54 the request is authenticated here, after the walk.
    if (!req.authenticated && tav_authentic(req.user_name, req.password) != 0)
        return tav::kResultAuthFailed;
    run_actions(req);
    Reply r(reply);
    r.add_set_reply<tav::kOpSetApArrayMemberList>(2, 60000, 0);
    return r.finish(tav::kResultSuccess);
}
