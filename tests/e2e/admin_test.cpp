// Device administration in the lab: what the set handlers leave in the
// database, commit and start through the stubs, and the refusals a received
// request can meet (with nothing written or started).
#include <map>

#include "tests/e2e/e2e.h"

namespace e2e {
namespace {

using namespace tav::client;

// The keys `keys` read on access point 1, joined by blanks.
std::string values(const Lab &lab, std::initializer_list<const char *> keys) {
    std::string s;
    for (const char *k : keys) s += (s.empty() ? "" : " ") + lab.db_get(1, k);
    return s;
}

E2E_SUITE(AdminRefusals, "refu", 1, "");

TEST_F(AdminRefusals, AnswerWithTheirCodeAndChangeNothing) {
    const Bytes account = text(50, "bmV3LWFkbWlu") + text(51, "bjN3IHBhc3Ml");
    const struct {
        uint16_t op;
        Bytes body;
        uint16_t result;
    } cases[] = {
        {0xA4, account + wrong_creds(), 0x40},
        {0xA4, text(50, "Q===") + text(51, "QUJD") + creds(), 1001},
        // An 80-byte user name whose bytes from 65 on would be records of their own.
        {0xAA, tlv(55, Bytes(65, 0) + text(55, "admin") + u8(999, 0)) + text(56, "admin"), 0x40},
        {0xD4, u8(39, 0) + text(40, "new") + u8(44, 1) + creds(), 0x40},
        {0xE3, u8(31, 0) + text(10, "x") + wrong_creds(), 0x40},
        {0xE5, u8(300, 1) + text(36, "127.0.0.1") + creds(), 105},
    };
    const char *const keys[] = {"/sys/user:1/name", "/sys/user:1/password", "/sys/snmpd/rocomm", "/wan/rg/inf:1/mode",
                                "/sys/systemName", "/time/ntpserver/ip", "/time/daylightSaving"};
    std::map<std::string, std::string> before;
    for (const char *k : keys) before[k] = lab().db_get(1, k);
    Client mgr = lab().raw(), holder = lab().raw(Mac{0x02, 0x7a, 0x76, 0x00, 0x00, 0xa1});
    Events ev(lab(), 1);
    for (const auto &c : cases) {
        SCOPED_TRACE(format_op_code(c.op) + " " + std::to_string(c.result));
        auto r = send_body(mgr, c.op, c.body);
        ASSERT_TRUE(r);
        EXPECT_EQ(std::tuple(r->result(), r->tlvs.size()), std::tuple(c.result, size_t(0)));
        // Another manager holds the op code with precedence 9 (its own request
        // fails authentication): 0xFFFF for 0xA4, else 0xFFFD, valid credentials or not.
        ASSERT_EQ(send_body(holder, c.op, u8(54, 9) + wrong_creds())->result(), 0x40);
        r = send_body(mgr, c.op, u8(54, 3) + account + u8(31, 0) + text(10, "x") + text(36, "ntp.other") + creds());
        ASSERT_TRUE(r);
        EXPECT_EQ(std::tuple(r->result(), r->tlvs.size()), std::tuple(c.op == 0xA4 ? 0xFFFF : 0xFFFD, size_t(0)));
        ASSERT_TRUE(send_body(holder, tav::kOpBye, {}));
    }
    std::this_thread::sleep_for(300ms);  // a forked child would have logged by now
    EXPECT_EQ(ev.lines(), Lines{});
    for (const char *k : keys) EXPECT_EQ(lab().db_get(1, k), before[k]) << k;
}

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
    EXPECT_EQ(values(lab(), {"/sys/user:1/name", "/sys/user:1/password", "/tavclient/password_changed"}),
              "new-admin n3w pass% 1");
    EXPECT_NE(slurp(lab().run_file(1, "xmldb.state")).find("/sys/user:1/name new-admin\n"), std::string::npos);
    EXPECT_EQ(send_body(mgr, tav::kOpUserVerification, creds("new-admin", "n3w pass%"))->result(), 0);
    EXPECT_EQ(send_body(mgr, tav::kOpUserVerification, creds())->result(), 0x40);
}

E2E_SUITE(Settings, "set", 1, "");

// SNMP and clock: each request leaves its keys, commits, runs its services
// (the clock through the `date` stub) and prints each refusal it met. (IPv4,
// the web port, values cut, looked up or composed: the unit tests.)
TEST_F(Settings, SetRequestsWriteCommitAndRunTheirServices) {
    const struct {
        uint16_t op;
        Bytes body;
        uint16_t result;
        std::string reply, printed;
        Lines commands;
        std::initializer_list<const char *> keys;
        std::string values;
    } cases[] = {
        {0xD4, u8(39, 3) + text(40, "a") + text(41, "b"), 2002, "393=00000000\n394=00000014\n395=06000000\n",
         "error:Can't delete read only community\nerror:Can't delete read-write community\n",
         {"submit COMMIT", "submit SNMP"}, {"/sys/snmpd/status", "/sys/snmpd/rocomm"}, "1 public"},
        {0xE5, u8(35, 0) + text(36, "pool.example.org") + u8(37, 0) + be16(303, 7) + text(301, "20270102030405") +
             u8(306, 1) + u8(307, 2) + be16(311, 2027),
         0, "393=00000000\n394=00004e20\n", "Sat Jan  2 03:04:05 UTC 2027\n",
         {"date -s '2027-01-02 03:04:05'", "submit COMMIT", "submit TIME", "submit CAPTIVAL_PORTAL"},
         {"/time/syncwith", "/time/ntpserver/ip", "/time/timezone", "/time/daylightSaving", "/tavclient/time_changed"},
         "0 pool.example.org 8 1 1"},
    };
    Client mgr = lab().raw();
    for (const auto &c : cases) {
        SCOPED_TRACE(format_op_code(c.op) + " " + c.values);
        Events ev(lab(), 1);
        auto out = output(lab(), 1);
        Message r = ask_body(mgr, c.op, u8(54, 2) + c.body + creds());
        EXPECT_EQ(std::tuple(r.result(), listing(r.tlvs)), std::tuple(c.result, c.reply));
        EXPECT_EQ(ev.wait(c.commands.size()), c.commands);
        EXPECT_TRUE(until([&] { return out() == c.printed; }, kLong)) << out();
        EXPECT_EQ(values(lab(), c.keys), c.values);
    }
    EXPECT_EQ(ask_body(mgr, tav::kOpGetDateTime, {}).text(tav::kTagDateTime), "20270102030405");
}

}  // namespace
}  // namespace e2e
