// SPDX-License-Identifier: ISC
// Op 0x00A4: replace the administrator account (name and password sent in
// base64).
#include <string.h>

#include "lrgbin/rgdb_getset.h"
#include "proto/tags.h"
#include "proto/wire.h"
#include "tavc/handlers.h"
#include "platform/proc.h"
#include "tavc/reply.h"
#include "tavc/identity.h"
#include "tavc/service.h"
#include "tavc/tlv_walk.h"
#include "util/base64.h"

// Decodes one base64 text into `out` (at least 70 bytes, zeroed): a text of
// at most 95 characters gives at most 69 bytes.
static int decode_one(const char *text, char *out) {
    uint8_t buf[72];
    size_t n = 0;
    if (tav_base64_decode(text, strlen(text), buf, sizeof buf, &n) != 0) return -1;
    memcpy(out, buf, n);
    return 0;
}

static int decode_name_and_password(const char *name64, const char *password64, char *name,
                             char *password) {
    if (decode_one(name64, name) != 0) return tav::kResultBadNewUserName;
    if (decode_one(password64, password) != 0) return tav::kResultBadNewPassword;
    return 0;
}

namespace {

struct Account {
    char user_name[65];
    char password[65];
    char new_user_name[96];
    char new_password[96];
};

// Every record, tag 54 included, is stepped over by its declared length.
constexpr TlvRule precedence_by_length() {
    TlvRule r = tlv_precedence();
    r.take = Take::Declared;
    return r;
}

constexpr TlvRule kAccountRules[] = {
    tlv_text(tav::kTagNewUserName, Take::Declared, 0, TAVC_FIELD(Account, new_user_name)),
    tlv_text(tav::kTagNewPassword, Take::Declared, 0, TAVC_FIELD(Account, new_password)),
    precedence_by_length(),
    tlv_text(tav::kTagUserName, Take::Declared, 0, TAVC_FIELD(Account, user_name)),
    tlv_text(tav::kTagPassword, Take::Declared, 0, TAVC_FIELD(Account, password)),
};

constexpr TlvRequest<Account> kAccount{
    kAccountRules,
    Take::Declared,
    ParamRefusal{tav::kResultRefused},
    PrecedenceRefusal{tav::kResultRefusedHigh},
    AuthRefusal{tav::kResultAuthFailed},
    tlv_credentials(TAVC_FIELD(Account, user_name), TAVC_FIELD(Account, password)),
};

// In the child: commit, then restart the web and console services in turn.
void commit_and_restart(void *) {
    store_config_to_flash();
    proc_system("sh /etc/templates/webs.sh password");
    proc_system("sh /etc/templates/console.sh");
}

}  // namespace

TAV_HANDLER(tav_change_ID_and_password) {
    Account req{};
    if (Step s = tlv_request_prologue(kAccount, body, body_length, reply, &req); s.ended())
        return s.result();

    char name[97] = {}, password[97] = {};
    if (int rc = decode_name_and_password(req.new_user_name, req.new_password, name, password))
        return rc;

    // A decoded value ends at its first NUL, if it holds one.
    _rgdb_set_("/sys/user:1/name", name);
    _rgdb_set_("/sys/user:1/password", password);
    tav_rgdb_set_digit(1, "/tavclient/password_changed");
    wizard_page_check();

    proc_fork(commit_and_restart, nullptr);

    Reply r(reply);
    r.add_set_status(2, 20000);
    return r.finish(tav::kResultSuccess);
}
