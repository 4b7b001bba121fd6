// SPDX-License-Identifier: ISC
// Device administration in the lab: what only the lab shows of a set request
// (its services start after the reply, in a child that holds none of the
// daemon's sockets and is reaped; the change works at once and is kept).
#include "tests/e2e/e2e.h"

namespace e2e {
namespace {

using namespace tav::client;

E2E_SUITE(Account, "acct", 1, "");

TEST_F(Account, NewAccountWorksAtOnceAndServicesRestartAfterTheReply) {
    ASSERT_EQ(lab().on_ap(1, "echo 2 > /var/run/webs.delay").status, 0);
    Client mgr = lab().raw();
    Events ev(lab(), 1);
    // Blanks inside the base64 text and an unknown record are skipped.
    auto r = send_body(mgr, tav::kOpChangeIdPassword,
                       u8(54, 5) + text(50, "bmV3 LWFk\nbWlu") + text(999, "x") + text(51, "bjN3IHBhc3Ml") + creds());
    ASSERT_TRUE(r);
    EXPECT_EQ(std::tuple(r->result(), listing(r->tlvs)), std::tuple(0, std::string("393=00000002\n394=00004e20\n")));
    EXPECT_LT(ev.lines().size(), 3u) << "the reply waited for the console restart";
    // The service command holds none of the daemon's sockets, and its child is reaped.
    ASSERT_TRUE(until([&] { return lab().on_ap(1, "pgrep -f webs.sh").status == 0; }, kLong));
    Sh fds = lab().on_ap(1, "for p in $(pgrep -f webs.sh); do ls -l /proc/$p/fd; done");
    EXPECT_EQ(fds.out.find("socket:"), std::string::npos) << fds.out;
    EXPECT_EQ(ev.wait(3), (Lines{"submit COMMIT", "webs.sh password", "console.sh"}));
    EXPECT_TRUE(until([&] { return lab().on_ap(1, "grep -qs '^State:.*Z' /proc/[0-9]*/status").status != 0; }, kLong));
    for (auto [key, value] : {std::pair{"/sys/user:1/name", "new-admin"}, {"/sys/user:1/password", "n3w pass%"},
                              {"/tavclient/password_changed", "1"}})
        EXPECT_EQ(lab().db_get(1, key), value) << key;
    EXPECT_NE(slurp(lab().run_file(1, "xmldb.state")).find("/sys/user:1/name new-admin\n"), std::string::npos);
    EXPECT_EQ(send_body(mgr, tav::kOpUserVerification, creds("new-admin", "n3w pass%"))->result(), 0);
    EXPECT_EQ(send_body(mgr, tav::kOpUserVerification, creds())->result(), 0x40);
}

}  // namespace
}  // namespace e2e
