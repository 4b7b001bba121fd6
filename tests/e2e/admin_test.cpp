// Device administration in the lab: what the set handlers leave in the
// database, commit and start through the stubs, and the refusals a received
// request can meet (with nothing written or started).
#include <fstream>
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
// An 80-byte user value whose bytes from 65 on are records of their own.
Bytes name80() { return Bytes(65, 0) + text(55, "admin") + u8(999, 0); }

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
        {0xA4, text(50, "QUJD") + text(51, "QUJDQUJ") + creds(), 1011},
        {0xAA, tlv(55, name80()) + text(56, "admin"), 0x40},  // the user name takes all 80 bytes
        {0xAB, wrong_creds(), 0x40},
        {0xD4, u8(39, 0) + text(40, "new") + u8(44, 1) + creds(), 0x40},
        {0xE1, u8(25, 1) + u8(12, 1) + creds(), 0x40},
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

E2E_SUITE(Reset, "rst", 1, "");

// Both resets answer at once, run "submit" after the delay in a child and
// bring the access point back (simulated reboot) with the kept keys.
TEST_F(Reset, ResetsRunAfterTheirDelayAndKeepWhatTheyShould) {
    const struct {
        uint16_t op;
        Bytes body;  // 0xAB: the delay's length says 2, four bytes count
        const char *command, *wan_mode_after;
    } cases[] = {
        {tav::kOpResetFactory, tlv(55, name80()) + text(56, "admin") + tlv(392, {0, 0, 0, 2, 0}, 2), "submit FRESET", "1"},
        {tav::kOpReset, creds() + be32(392, 2), "submit FRESET_EX_IP", "2"},
    };
    Client mgr = lab().raw();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.command);
        ASSERT_TRUE(lab().db_set(1, "/sys/systemName", "changed") && lab().db_set(1, "/wan/rg/inf:1/mode", "2"));
        const std::string boots = boot_count(lab());
        Events ev(lab(), 1);
        const auto sent = Clock::now();
        auto r = send_body(mgr, c.op, c.body);
        ASSERT_TRUE(r);
        EXPECT_EQ(std::tuple(r->result(), listing(r->tlvs)), std::tuple(0, std::string("393=00000002\n394=000493e0\n")));
        EXPECT_EQ(ev.wait(1), Lines{c.command});
        EXPECT_GE(Clock::now() - sent, 2s) << "the delay was not waited out";
        ASSERT_TRUE(rebooted(lab(), boots));
        EXPECT_EQ(values(lab(), {"/sys/systemName", "/wan/rg/inf:1/mode"}), std::string("AP-Lab-1 ") + c.wan_mode_after);
    }
}

E2E_SUITE(Snmp, "snmp", 1, "");

// Set applies what it can, prints each refusal, commits and restarts SNMP.
TEST_F(Snmp, SetAppliesWhatItCanAndPrintsEachRefusal) {
    const std::string c29(29, 'c');
    const struct {
        Bytes tlvs;
        uint16_t result;
        const char *mask_le, *printed;
        std::string keys;  // status, ro, rw
    } cases[] = {
        {u8(39, 1) + text(40, c29) + text(41, "rw-1"), 0, "00000000", "", "1 " + c29 + " rw-1"},
        {text(41, "rw-2"), 0, "00000000", "", "0 public rw-2"},
        {u8(39, 1) + text(40, c29 + "c") + text(41, "rw-3"), 2002, "02000000", "error:snmp_rocomm too long\n",
         "1 public rw-3"},
        {u8(39, 3) + text(40, "a") + text(41, "it's"), 2002, "06000000",
         "error:Can't delete read only community\nerror:value can't include #`'\\\"\n", "1 public private"},
    };
    Client mgr = lab().raw();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.keys);
        for (auto [k, v] : {std::pair{"status", "1"}, {"rocomm", "public"}, {"rwcomm", "private"}})
            lab().db_set(1, std::string("/sys/snmpd/") + k, v);
        Events ev(lab(), 1);
        auto out = output(lab(), 1);
        auto r = send_body(mgr, tav::kOpSetSnmp, c.tlvs + creds());
        ASSERT_TRUE(r);
        EXPECT_EQ(std::tuple(r->result(), listing(r->tlvs)),
                  std::tuple(c.result, std::string("393=00000000\n394=00000014\n395=") + c.mask_le + "\n"));
        EXPECT_EQ(ev.wait(2), (Lines{"submit COMMIT", "submit SNMP"}));
        EXPECT_TRUE(until([&] { return out() == c.printed; }, kLong)) << out();
        EXPECT_EQ(values(lab(), {"/sys/snmpd/status", "/sys/snmpd/rocomm", "/sys/snmpd/rwcomm"}), c.keys);
    }
    auto get = send_body(mgr, tav::kOpGetSnmp, {});
    ASSERT_TRUE(get);
    EXPECT_EQ(listing(get->tlvs), "39=c1\n44=01\n45=7075626c6963\n44=02\n45=70726976617465\n501=0000\n");
}

E2E_SUITE(Ipv4, "ipv4", 1, "");

TEST_F(Ipv4, StaticThenDynamicAddressingAndDeviceInformationReachDiscovery) {
    Client mgr = lab().raw();
    const Bytes stat = u8(25, 0) + tlv(15, {198, 51, 100, 7}) + tlv(17, {255, 255, 255, 128}) +
                       tlv(18, {198, 51, 100, 1}) + tlv(20, {203, 0, 113, 53}) + u8(13, 1) + u8(12, 0);
    const std::string kept = " 198.51.100.7 255.255.255.128 198.51.100.1 203.0.113.53";
    const struct {
        uint16_t op;
        Bytes body;
        std::string reply;
        Lines commands;
        std::string keys;  // wan mode, modebak, static ip, netmask, gateway, dns
        uint8_t tav_mode, wan_mode;
        const char *name;
        uint16_t port;
    } cases[] = {
        {0xE1, stat, "388=00\n", {"submit COMMIT", "submit WAN", "submit WLAN"}, "1 1" + kept, 2, 0, "AP-Lab-1", 80},
        {0xE1, u8(25, 1) + tlv(15, {10, 0, 0, 1}), "388=00\n", {"submit COMMIT", "submit WAN", "submit WLAN"},
         "2 2" + kept, 2, 1, "AP-Lab-1", 80},
        {0xE3, u8(31, 0) + text(10, "AP-Office"), "388=00\n", {"submit COMMIT"}, "2 2" + kept, 2, 1, "AP-Office", 80},
        {0xE3, u8(31, 1) + be16(32, 8080), "388=00\n", {"submit COMMIT", "submit HTTPD"}, "2 2" + kept, 2, 1,
         "AP-Office", 8080},
        {0xE3, u8(31, 0) + text(10, "valid") + u8(11, 1), "388=01\n391=" + hex(str("Parameter is ERROR!")) + "\n", {},
         "2 2" + kept, 2, 1, "AP-Office", 8080},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.keys + " " + c.name);
        Events ev(lab(), 1);
        auto r = send_body(mgr, c.op, u8(54, 2) + c.body + creds());
        ASSERT_TRUE(r);
        EXPECT_EQ(std::tuple(r->result(), listing(r->tlvs)), std::tuple(0, c.reply));
        EXPECT_EQ(ev.wait(c.commands.size()), c.commands);
        EXPECT_EQ(values(lab(), {"/wan/rg/inf:1/mode", "/wan/rg/inf:1/modebak", "/wan/rg/inf:1/static/ip",
                                 "/wan/rg/inf:1/static/netmask", "/wan/rg/inf:1/static/gateway",
                                 "/dnsrelay/server/primarydns"}),
                  c.keys);
        auto d = mgr.request_one(tav::kOpDiscovery, {}, kLong);
        ASSERT_TRUE(d);
        EXPECT_EQ(std::tuple(d->u8(tav::kTagTavMode), d->u8(tav::kTagWanMode), d->text(tav::kTagSystemName),
                             d->u16(tav::kTagWebPort)),
                  std::tuple(std::optional<uint8_t>(c.tav_mode), std::optional<uint8_t>(c.wan_mode),
                             std::optional<std::string>(c.name), std::optional<uint16_t>(c.port)));
    }
}

E2E_SUITE(DateTime, "time", 1, "");

// Clock and daylight-saving requests run their commands (the clock through
// the `date` stub) to completion before they answer.
TEST_F(DateTime, ClockAndDaylightSavingRequests) {
    const struct {
        Bytes body;
        const char *date_command;
        const char *keys;  // syncwith, ntp server, timezone, daylightSaving, offset, time_changed
    } cases[] = {
        {u8(300, 0) + u8(35, 0) + text(36, "pool.example.org") + u8(37, 0) + be16(303, 7) +
             text(301, "20270102030405") + u8(306, 1) + u8(307, 2) + be16(311, 2027) + u8(54, 6),
         "date -s '2027-01-02 03:04:05'", "0 pool.example.org 8 1 60 1"},
        {u8(300, 1) + u8(310, 0) + u8(35, 0) + text(36, "other") + be16(303, 7) + text(301, "20300101000000"), nullptr,
         "0 pool.example.org 8 0 0 1"},
    };
    lab().db_set(1, "/time/DaylightSaving/offset", "60");
    Client mgr = lab().raw();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.keys);
        Events ev(lab(), 1);
        auto r = send_body(mgr, tav::kOpSetDateTime, c.body + creds());
        ASSERT_TRUE(r);
        EXPECT_EQ(std::tuple(r->result(), listing(r->tlvs)), std::tuple(0, std::string("393=00000000\n394=00004e20\n")));
        Lines want = {"submit COMMIT", "submit TIME", "submit CAPTIVAL_PORTAL"};
        if (c.date_command) want.insert(want.begin(), c.date_command);
        EXPECT_EQ(ev.lines(), want);
        EXPECT_EQ(values(lab(), {"/time/syncwith", "/time/ntpserver/ip", "/time/timezone", "/time/daylightSaving",
                                 "/time/DaylightSaving/offset", "/tavclient/time_changed"}),
                  c.keys);
        EXPECT_EQ(send_body(mgr, tav::kOpGetDateTime, {})->text(tav::kTagDateTime), "20270102030405");
    }
}

E2E_SUITE(AdminSession, "ctl", 1, "");

// A manager sets account, SNMP communities, name, web port, time zone and
// IPv4 with tavctl; they read back, also after a reboot.
TEST_F(AdminSession, SettingsMadeWithTavctlReadBackAndSurviveAReboot) {
    const std::string pw = ::testing::TempDir() + "tavctl_admin_" + std::to_string(getpid());
    std::ofstream(pw) << "0ps-secret\n";
    Finally rm([&] { unlink(pw.c_str()); });
    auto refused = tavctl(lab(), "--target ap1 --user admin account set --new-user ops --new-password-file " + pw, "x");
    EXPECT_EQ(refused.status, 1) << refused.out;
    EXPECT_NE(refused.out.find("refused: authentication failed (64)"), std::string::npos) << refused.out;
    // Values the device would cut, reading their rest as records, are not sent.
    EXPECT_EQ(tavctl(lab(), "--target ap1 --user admin device set --name " + std::string(64, 'n')).status, 2);
    auto account = tavctl(lab(), "--target ap1 --user admin account set --new-user ops --new-password-file " + pw);
    EXPECT_EQ(account.status, 0) << account.out;
    const std::string ap = "--target ap1 --user ops ";
    for (const char *args : {"snmp set --ro-community lab-ro --rw-community lab-rw", "device set --name Lobby-AP",
                                    "device set --web-port 8443", "time set --zone 7 --ntp on --ntp-server pool.example.org",
                                    "ipv4 set --static 192.0.2.11/24 --gateway 192.0.2.1 --dns 203.0.113.53"}) {
        auto r = tavctl(lab(), ap + args, "0ps-secret");
        EXPECT_EQ(r.status, 0) << args << "\n" << r.out;
    }
    auto read_back = [&] {
        auto disc = tavctl(lab(), "--json discover");
        for (const char *want : {"\"system_name\": \"Lobby-AP\"", "\"web_port\": 8443", "\"tav_mode\": 2"})
            EXPECT_NE(disc.out.find(want), std::string::npos) << want << "\n" << disc.out;
        auto snmp = tavctl(lab(), "--target 192.0.2.11 snmp get");
        EXPECT_NE(snmp.out.find("read-only community:  lab-ro\nread-write community: lab-rw"), std::string::npos)
            << snmp.out;
        auto time = tavctl(lab(), "--target 02:7a:76:00:00:01 time get");
        EXPECT_NE(time.out.find("ntp:           on\nntp server:    pool.example.org\ntime zone id:  7\n"),
                  std::string::npos) << time.out;
        EXPECT_EQ(tavctl(lab(), ap + "verify", "0ps-secret").status, 0);
        EXPECT_EQ(tavctl(lab(), "--target ap1 --user admin verify").status, 1);
    };
    read_back();
    const std::string boots = boot_count(lab());
    ASSERT_EQ(lab().on_ap(1, "reboot").status, 0);
    ASSERT_TRUE(rebooted(lab(), boots));
    read_back();
}

}  // namespace
}  // namespace e2e
