// SPDX-License-Identifier: ISC
// Op 0x0103: reboot, at once or after the requested delay. The delay runs in
// a child, so the reply leaves before the device goes down.
#include "proto/tags.h"
#include "proto/wire.h"
#include "tavc/handlers.h"
#include "platform/proc.h"
#include "tavc/reply.h"
#include "tavc/tlv_walk.h"
#include "tavc/trace.h"

namespace {

struct Reboot {
    char user_name[65];
    char password[65];
    uint32_t delay_time;  // seconds
};

// DELAY_TIME takes 4 value bytes whatever its length field says; when those
// would run past the body, the walk ends there.
constexpr TlvRule kRebootRules[] = {
    tlv_precedence(),
    tlv_text(tav::kTagUserName, Take::DeclaredMax, 65, TAVC_FIELD(Reboot, user_name)),
    tlv_text(tav::kTagPassword, Take::DeclaredMax, 65, TAVC_FIELD(Reboot, password)),
    tlv_be32(tav::kTagDelayTime, TAVC_FIELD(Reboot, delay_time)),
};

constexpr TlvRequest<Reboot> kReboot{
    kRebootRules,
    Take::Declared,
    ParamRefusal{tav::kResultRefused},
    PrecedenceRefusal{tav::kResultRefused},
    AuthRefusal{tav::kResultAuthFailed},
    tlv_credentials(TAVC_FIELD(Reboot, user_name), TAVC_FIELD(Reboot, password))};

// Five minutes: how long the manager is told to wait for the device.
constexpr uint32_t kRebootWaitMs = 300000;

}  // namespace

TAV_HANDLER(tav_reboot) {
    Reboot req{};
    if (Step s = tlv_request_prologue(kReboot, body, body_length, reply, &req); s.ended())
        return s.result();
    static const char *const kArgs[] = {"submit", "REBOOT", nullptr};
    if (proc_exec(req.delay_time, "/usr/sbin/submit", kArgs, 6) < 0)
        TAV_DEBUG("Failed to create child process\n");
    Reply r(reply);
    r.add_set_status(2, kRebootWaitMs);
    return r.finish(tav::kResultSuccess);
}
