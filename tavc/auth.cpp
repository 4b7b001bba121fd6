// Administrator credentials: the shared check and op 0x00A3.
#include <string.h>

#include <iterator>

#include "lrgbin/rgdb_getset.h"
#include "proto/tags.h"
#include "proto/wire.h"
#include "tavc/handlers.h"
#include "tavc/reply.h"
#include "tavc/tavc.h"
#include "tavc/tlv_walk.h"

// Equal exactly when `given` equals the NUL-terminated text in `stored`
// (cap bytes). Every byte of `stored` is looked at whatever the input, so the
// time taken says nothing about where a guess first goes wrong.
static unsigned text_differs(const char *given, const char *stored, size_t cap) {
    size_t n = strnlen(given, cap);  // the caller's own text: its length is no secret
    unsigned diff = n >= cap ? 1u : 0u;
    unsigned live = 1;  // 1 until the stored text's NUL has gone by
    for (size_t i = 0; i < cap; ++i) {
        uint8_t s = uint8_t(stored[i]);
        s = uint8_t(s & (0u - live));  // bytes after the stored NUL count as NUL
        live &= unsigned(s != 0);
        uint8_t g = i < n ? uint8_t(given[i]) : 0;
        diff |= unsigned(g ^ s);
    }
    return diff;
}

int tav_authentic(const char *user_name, const char *password) {
    if (user_name == nullptr || password == nullptr) return -1;
    char name[64] = {};
    char pass[32] = {};
    _rgdb_get_(name, sizeof name, "/sys/user:1/name");
    _rgdb_get_(pass, sizeof pass, "/sys/user:1/password");
    unsigned diff = text_differs(user_name, name, sizeof name);
    diff |= text_differs(password, pass, sizeof pass);
    return diff == 0 ? 0 : -1;
}

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
