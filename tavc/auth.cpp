// SPDX-License-Identifier: ISC
// Op 0x00A3: verification of a manager's credentials.
#include "proto/tags.h"
#include "proto/wire.h"
#include "tavc/handlers.h"
#include "tavc/reply.h"
#include "tavc/tlv_walk.h"

namespace {

struct Verify {
    char user_name[65];
    char password[65];
};

constexpr TlvRule kVerifyRules[] = {
    tlv_precedence(),
    tlv_text(tav::kTagUserName, Take::Declared, 0, TAVC_FIELD(Verify, user_name)),
    tlv_text(tav::kTagPassword, Take::Declared, 0, TAVC_FIELD(Verify, password)),
};

constexpr TlvRequest<Verify> kVerify{
    kVerifyRules,
    Take::Declared,
    ParamRefusal{tav::kResultRefused},
    PrecedenceRefusal{tav::kResultRefusedHigh},
    AuthRefusal{tav::kResultAuthFailed},
    tlv_credentials(TAVC_FIELD(Verify, user_name), TAVC_FIELD(Verify, password)),
};

}  // namespace

TAV_HANDLER(tav_user_verification) {
    Verify req{};
    if (Step s = tlv_request_prologue(kVerify, body, body_length, reply, &req); s.ended())
        return s.result();
    Reply r(reply);
    r.add(tav::kTagVerification, uint32_t{1});  // little-endian
    return r.finish(tav::kResultSuccess);
}
