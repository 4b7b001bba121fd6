// SPDX-License-Identifier: ISC
// Ops 0x00AA and 0x00AB: reset and factory reset, after an optional delay, in
// a child process so that the reply goes out first.
#include "proto/tags.h"
#include "proto/wire.h"
#include "tavc/handlers.h"
#include "platform/proc.h"
#include "tavc/reply.h"
#include "tavc/tlv_walk.h"
#include "tavc/trace.h"

namespace {

struct ResetRequest {
    char user_name[65];
    char password[65];
    uint32_t delay_time;
};

// The two ops differ only in how much of a credential value they take.
constexpr TlvRule kResetRules[] = {
    tlv_precedence(),
    tlv_text(tav::kTagUserName, Take::Declared, 0, TAVC_FIELD(ResetRequest, user_name)),
    tlv_text(tav::kTagPassword, Take::Declared, 0, TAVC_FIELD(ResetRequest, password)),
    tlv_be32(tav::kTagDelayTime, TAVC_FIELD(ResetRequest, delay_time)),
};
constexpr TlvRule kFactoryResetRules[] = {
    tlv_precedence(),
    tlv_text(tav::kTagUserName, Take::DeclaredMax, 65, TAVC_FIELD(ResetRequest, user_name)),
    tlv_text(tav::kTagPassword, Take::DeclaredMax, 65, TAVC_FIELD(ResetRequest, password)),
    tlv_be32(tav::kTagDelayTime, TAVC_FIELD(ResetRequest, delay_time)),
};

constexpr auto kCredentials =
    tlv_credentials(TAVC_FIELD(ResetRequest, user_name), TAVC_FIELD(ResetRequest, password));

constexpr TlvRequest<ResetRequest> kReset{
    kResetRules,      Take::Declared, ParamRefusal{tav::kResultRefused},
    PrecedenceRefusal{tav::kResultRefused}, AuthRefusal{tav::kResultAuthFailed}, kCredentials};
constexpr TlvRequest<ResetRequest> kFactoryReset{
    kFactoryResetRules, Take::Declared, ParamRefusal{tav::kResultRefused},
    PrecedenceRefusal{tav::kResultRefused}, AuthRefusal{tav::kResultAuthFailed}, kCredentials};

int reset_with(const TlvRequest<ResetRequest> &d, const char *service, const uint8_t *body,
               uint16_t body_length, uint8_t *reply) {
    ResetRequest req{};
    if (Step s = tlv_param_check(d, body, reply); s.ended()) return s.result();
    if (Step s = tlv_walk(d, body, body_length, &req); s.ended()) return s.result();
    if (Step s = tlv_authenticate(d, &req); s.ended()) {
        if (&d == &kReset) TAV_DEBUG("INVALID_AUTH");
        return s.result();
    }
    const char *const argv[] = {"submit", service, nullptr};
    proc_exec(req.delay_time, "/usr/sbin/submit", argv, 6);
    Reply r(reply);
    r.add_set_status(2, 300000);
    return r.finish(tav::kResultSuccess);
}

}  // namespace

TAV_HANDLER(tav_reset) { return reset_with(kReset, "FRESET_EX_IP", body, body_length, reply); }

TAV_HANDLER(tav_reset_factory_settings) {
    return reset_with(kFactoryReset, "FRESET", body, body_length, reply);
}
