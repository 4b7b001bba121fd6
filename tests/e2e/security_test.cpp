// SPDX-License-Identifier: ISC
// Request texts holding shell and format characters, sent with the right
// credentials to every op code in every text tag it takes: none may run a
// command (the marker file stays absent) or upset the daemon. (Credentials
// compare by exact equality: the unit tests; file names: the upgrade suite.)
#include <cstdio>

#include "tests/e2e/hostile_support.h"

namespace e2e {
namespace {

using tav::client::tlv_text;

E2E_SUITE(Security, "sec", 1, "--build " + quote(daemon_build()));

const char *const kInjections[] = {
    "$(touch /var/run/pwned)", "`touch /var/run/pwned`", "x;touch /var/run/pwned;",
    "a' ; touch /var/run/pwned ; '", "%n%n%s%s%s%s%x%x", "x\ntouch /var/run/pwned",
};

TEST_F(Security, ShellAndFormatTextsInEveryTextTagRunNothing) {
    auto restore_account = [&] {
        lab().db_set(1, "/sys/user:1/name", "admin");
        lab().db_set(1, "/sys/user:1/password", "admin");
    };
    Finally restore(restore_account);
    // Ops that restart the access point on success are left to their suites.
    const uint16_t kRestarts[] = {tav::kOpReboot, tav::kOpReset, tav::kOpResetFactory, 0x0100, 0x0102};
    ASSERT_EQ(lab().on_ap(1, "echo fail >/var/run/tftp.outcome; rm -f /var/run/pwned").status, 0);
    Client udp = lab().udp();
    int sent = 0, answered = 0;
    // The agent's profile last: once the agent runs, most op codes are locked.
    std::vector<tav::OpCodeInfo> ops(tav::kOpCodes.begin(), tav::kOpCodes.end());
    std::stable_partition(ops.begin(), ops.end(), [](const auto &r) { return r.code != tav::kOpSetAgProfile; });
    for (const auto &row : ops) {
        if (std::find(std::begin(kRestarts), std::end(kRestarts), row.code) != std::end(kRestarts)) continue;
        for (const char *bad : kInjections) {
            TlvList tlvs = tav::requests::lead("admin", "admin");
            bool any = false;
            for (auto r : tav::requests::tags_of(row.code, "request")) {
                const tav::TagInfo *info = tav::find_tag(r.tag, row.code);
                if (info && info->kind == tav::TagKind::kText) r = tlv_text(r.tag, bad), any = true;
                tlvs.push_back(r);
            }
            if (!any) continue;
            ++sent;
            // Only the account change is waited for: its effect is undone next.
            answered += bool(udp.request_one(row.code, tlvs, row.code == tav::kOpChangeIdPassword ? kLong : 1s));
            if (row.code == tav::kOpChangeIdPassword) restore_account();  // texts that decode do change it
        }
    }
    // Children started by the handlers get their time to run.
    std::this_thread::sleep_for(3s);
    ASSERT_TRUE(until([&] { return lab().serving(1); }, kLong)) << "the daemon is gone";
    EXPECT_FALSE(lab().on_ap(1, "test -e /var/run/pwned").status == 0) << "a request text ran a command";
    EXPECT_TRUE(udp.request_one(tav::kOpDiscovery, {}, kLong));
    std::printf("security: %d requests with shell and format texts (%d answered), nothing ran\n", sent, answered);
}

}  // namespace
}  // namespace e2e
