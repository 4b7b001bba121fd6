// Device administration in the lab: the account, resets, SNMP, general
// information and IPv4, device information, date and time. Success paths
// byte for byte with the database and the commands the stubs recorded;
// every refusal the wire can reach (the parameter check cannot fail for a
// received request); the walk sizes that differ between handlers.
#include <fstream>
#include <map>

#include "tests/e2e/e2e.h"

namespace e2e {
namespace {

using namespace tav::client;

Bytes creds(const std::string &user = "admin", const std::string &pw = "admin") {
    return text(55, user) + text(56, pw);
}
// An 80-byte user value whose bytes from 65 on are records of their own.
Bytes name80() {
    Bytes b(65, 0);
    return b + text(55, "admin") + u8(999, 0);
}

// Manager A holds `op` with precedence 9 (its request fails authentication,
// so nothing else happens); a request of the lab's manager with precedence
// 3 is then refused. A says bye afterwards.
constexpr Mac kOtherManager{0x02, 0x7a, 0x76, 0x00, 0x00, 0xa1};
struct Holder {
    Client a;
    uint16_t op;
    Holder(const Lab &lab, uint16_t op_code) : a(lab.raw(kOtherManager)), op(op_code) {
        auto r = send_body(a, op, u8(54, 9) + creds("admin", "not-the-password"));
        EXPECT_TRUE(r && r->result() == 0x40) << "holder's claim";
    }
    ~Holder() { EXPECT_TRUE(send_body(a, tav::kOpBye, {})); }
};

// ---- refusals --------------------------------------------------------------------

E2E_SUITE(AdminRefusals, "refu", 1, "");

// Every refusal a received request can meet, per op: the reply carries the
// code and no records, and nothing is written or started.
TEST_F(AdminRefusals, AnswerWithTheirCodeAndChangeNothing) {
    const Bytes account = text(50, "bmV3LWFkbWlu") + text(51, "bjN3IHBhc3Ml");
    const Bytes wrong = creds("admin", "wrong");
    const struct {
        uint16_t op;
        const char *what;
        Bytes body;
        uint16_t result;
    } cases[] = {
        {0xA4, "wrong password", account + wrong, 0x40},
        {0xA4, "no new name", text(51, "QUJD") + creds(), 1001},
        {0xA4, "empty new name", text(50, "") + text(51, "QUJD") + creds(), 1001},
        {0xA4, "three pads", text(50, "Q===") + text(51, "QUJD") + creds(), 1001},
        {0xA4, "both bad: the name counts", text(50, "QQ") + text(51, "Q") + creds(), 1001},
        {0xA4, "no new password", text(50, "QUJD") + creds(), 1011},
        {0xA4, "seven characters", text(50, "QUJD") + text(51, "QUJDQUJ") + creds(), 1011},
        {0xAA, "wrong password", wrong + be32(392, 0), 0x40},
        {0xAA, "80-byte user name: takes all 80", tlv(55, name80()) + text(56, "admin"), 0x40},
        {0xAB, "wrong password", wrong, 0x40},
        {0xD4, "wrong password", u8(39, 0) + text(40, "new") + wrong, 0x40},
        {0xD4, "unsupported tag", u8(39, 0) + text(40, "new") + u8(44, 1) + creds(), 0x40},
        {0xD4, "unsupported tag first", tlv(1000, {}) + u8(39, 0) + creds(), 0x40},
        {0xE1, "wrong password", u8(25, 1) + wrong, 0x40},
        {0xE1, "address mode 1", u8(25, 1) + u8(12, 1) + creds(), 0x40},
        {0xE1, "address mode 1 then 0", u8(12, 1) + u8(12, 0) + u8(25, 1) + creds(), 0x40},
        {0xE1, "unknown tag 14", u8(25, 1) + tlv(14, {1, 2, 3, 4, 5, 6}) + creds(), 0x40},
        {0xE1, "unknown tag, wrong password", tlv(14, {}) + wrong, 0x40},
        {0xE3, "wrong password", u8(31, 0) + text(10, "x") + wrong, 0x40},
        {0xE5, "loopback server, wrong password", text(36, "127.0.0.1") + wrong, 105},
        {0xE5, "loopback in a daylight-saving request", u8(300, 1) + text(36, "127.0.0.1") + creds(), 105},
        {0xE5, "wrong password", text(36, "ntp.other") + wrong, 0x40},
    };
    // The keys the set handlers write, and what they hold now.
    const char *const keys[] = {"/sys/user:1/name", "/sys/user:1/password", "/tavclient/password_changed",
                                "/sys/snmpd/status", "/sys/snmpd/rocomm", "/wan/rg/inf:1/mode",
                                "/runtime/wan/inf:1/tavmode", "/sys/systemName", "/time/ntpserver/ip",
                                "/time/timezone", "/time/daylightSaving", "/tavclient/time_changed"};
    std::map<std::string, std::string> before;
    for (const char *k : keys) before[k] = lab().db_get(1, k);
    Client mgr = lab().raw();
    Events ev(lab(), 1);
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(tav::client::format_op_code(c.op)) + " " + c.what);
        auto r = send_body(mgr, c.op, c.body);
        ASSERT_TRUE(r);
        EXPECT_EQ(std::tuple(r->result(), r->tlvs.size()), std::tuple(c.result, size_t(0)));
    }
    // A manager of higher precedence holds the op: 0xFFFF for 0xA4 and
    // 0xFFFD for the others, even with valid credentials.
    const std::pair<uint16_t, uint16_t> held[] = {{0xA4, 0xFFFF}, {0xAA, 0xFFFD}, {0xAB, 0xFFFD}, {0xD4, 0xFFFD},
                                                   {0xE1, 0xFFFD}, {0xE3, 0xFFFD}, {0xE5, 0xFFFD}};
    for (const auto &[op, code] : held) {
        SCOPED_TRACE(tav::client::format_op_code(op));
        Holder a(lab(), op);
        auto r = send_body(mgr, op, u8(54, 3) + account + u8(31, 0) + text(10, "x") + text(36, "ntp.other") + creds());
        ASSERT_TRUE(r);
        EXPECT_EQ(std::tuple(r->result(), r->tlvs.size()), std::tuple(code, size_t(0)));
    }
    std::this_thread::sleep_for(300ms);  // a forked child would have logged by now
    EXPECT_EQ(ev.lines(), Lines{});
    for (const char *k : keys) EXPECT_EQ(lab().db_get(1, k), before[k]) << k;
}

// ---- account ----------------------------------------------------------------------

E2E_SUITE(Account, "acct", 1, "");

TEST_F(Account, NewAccountWorksAtOnceAndServicesRestartAfterTheReply) {
    ASSERT_EQ(lab().on_ap(1, "echo 2 > /var/run/webs.delay").status, 0);
    Client mgr = lab().raw();
    Events ev(lab(), 1);
    // Blanks inside the base64 text and an unknown record are skipped.
    auto r = send_body(mgr, tav::kOpChangeIdPassword,
                 u8(54, 5) + text(50, "bmV3 LWFk\nbWlu") + text(999, "x") + text(51, "bjN3IHBhc3Ml") + creds());
    ASSERT_TRUE(r);
    EXPECT_EQ(r->result(), 0);
    EXPECT_EQ(listing(r->tlvs), "393=00000002\n394=00004e20\n");
    EXPECT_LT(ev.lines().size(), 3u) << "the reply waited for the console restart";
    // The service command holds none of the daemon's sockets.
    ASSERT_TRUE(until([&] { return lab().on_ap(1, "pgrep -f webs.sh").status == 0; }, 2s));
    Sh fds = lab().on_ap(1, "for p in $(pgrep -f webs.sh); do ls -l /proc/$p/fd; done");
    EXPECT_EQ(fds.out.find("socket:"), std::string::npos) << fds.out;
    EXPECT_EQ(ev.wait(3), (Lines{"submit COMMIT", "webs.sh password", "console.sh"}));
    // ...and the child that ran it was reaped.
    EXPECT_TRUE(until([&] { return lab().on_ap(1, "grep -qs '^State:.*Z' /proc/[0-9]*/status").status != 0; }, 2s));
    EXPECT_EQ(lab().db_get(1, "/sys/user:1/name") + "/" + lab().db_get(1, "/sys/user:1/password") + "/" +
                  lab().db_get(1, "/tavclient/password_changed"),
              "new-admin/n3w pass%/1");
    EXPECT_NE(slurp(lab().run_file(1, "xmldb.state")).find("/sys/user:1/name new-admin\n"), std::string::npos);

    auto now = send_body(mgr, tav::kOpUserVerification, creds("new-admin", "n3w pass%"));
    auto old = send_body(mgr, tav::kOpUserVerification, creds());
    ASSERT_TRUE(now && old);
    EXPECT_EQ(std::tuple(now->result(), listing(now->tlvs)), std::tuple(0, std::string("52=01000000\n")));
    EXPECT_EQ(old->result(), 0x40);

    // 32 characters are stored whole; verification reads back 31.
    const std::string p32(32, 'p');
    auto longer = send_body(mgr, tav::kOpChangeIdPassword,
                      text(50, "bmV3LWFkbWlu") + text(51, "cHBwcHBwcHBwcHBwcHBwcHBwcHBwcHBwcHBwcHBwcHA=") +
                          creds("new-admin", "n3w pass%"));
    ASSERT_TRUE(longer);
    EXPECT_EQ(longer->result(), 0);
    EXPECT_EQ(lab().db_get(1, "/sys/user:1/password"), p32);
    auto locked = send_body(mgr, tav::kOpUserVerification, creds("new-admin", p32));
    ASSERT_TRUE(locked);
    EXPECT_EQ(locked->result(), 0x40);
}

// ---- resets ---------------------------------------------------------------------

E2E_SUITE(Reset, "rst", 1, "");

// Both resets answer at once, run "submit" after the delay in a child and
// bring the access point back (simulated reboot) with the kept keys.
TEST_F(Reset, ResetsRunAfterTheirDelayAndKeepWhatTheyShould) {
    // 0xAB takes 65 bytes of the 80-byte name and reads the real one from
    // the rest; the delay's length field says 2, and four bytes count.
    const struct {
        uint16_t op;
        Bytes body;
        const char *command, *wan_mode_after;
    } cases[] = {
        {tav::kOpResetFactory, tlv(55, name80()) + text(56, "admin") + tlv(392, {0, 0, 0, 2, 0}, 2), "submit FRESET",
         "1"},
        {tav::kOpReset, creds() + be32(392, 2), "submit FRESET_EX_IP", "2"},
    };
    Client mgr = lab().raw();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.command);
        ASSERT_TRUE(lab().db_set(1, "/sys/systemName", "changed"));
        ASSERT_TRUE(lab().db_set(1, "/wan/rg/inf:1/mode", "2"));
        const std::string boots = lab().on_ap(1, "cat /var/run/boot_count").out;
        Events ev(lab(), 1);
        const auto sent = Clock::now();
        auto r = send_body(mgr, c.op, c.body);
        ASSERT_TRUE(r);
        EXPECT_LT(Clock::now() - sent, 1500ms) << "answered at once";
        EXPECT_EQ(r->result(), 0);
        EXPECT_EQ(listing(r->tlvs), "393=00000002\n394=000493e0\n");
        std::this_thread::sleep_for(1s);
        EXPECT_EQ(ev.lines(), Lines{}) << "still waiting out the delay";
        EXPECT_EQ(ev.wait(1), Lines{c.command});
        EXPECT_GE(Clock::now() - sent, 2s);
        ASSERT_TRUE(until([&] { return lab().on_ap(1, "cat /var/run/boot_count").out != boots && lab().serving(1); },
                          20s));
        EXPECT_EQ(lab().db_get(1, "/sys/systemName"), "AP-Lab-1");
        EXPECT_EQ(lab().db_get(1, "/wan/rg/inf:1/mode"), c.wan_mode_after);
    }
}

// ---- SNMP --------------------------------------------------------------------

E2E_SUITE(Snmp, "snmp", 1, "");

TEST_F(Snmp, GetReportsStateAndCommunities) {
    const struct {
        const char *status, *ro, *rw, *expect;
    } cases[] = {
        {"1", "public", "private", "39=c1\n44=01\n45=7075626c6963\n44=02\n45=70726976617465\n501=0000\n"},
        {"0", "", "rw", "39=c0\n44=01\n45=\n44=02\n45=7277\n501=0000\n"},
    };
    Client mgr = lab().udp();
    for (const auto &c : cases) {
        lab().db_set(1, "/sys/snmpd/status", c.status);
        lab().db_set(1, "/sys/snmpd/rocomm", c.ro);
        lab().db_set(1, "/sys/snmpd/rwcomm", c.rw);
        auto r = send_body(mgr, tav::kOpGetSnmp, u8(54, 1) + tlv(999, {}));  // the body is not read
        ASSERT_TRUE(r);
        EXPECT_EQ(std::tuple(r->result(), listing(r->tlvs)), std::tuple(0, std::string(c.expect)));
    }
}

TEST_F(Snmp, SetAppliesWhatItCanAndPrintsEachRefusal) {
    const std::string c29(29, 'c'), c30(30, 'c');
    const struct {
        const char *what;
        Bytes tlvs;
        uint16_t result;
        const char *mask_le, *printed, *status, *ro, *rw;
    } cases[] = {
        {"both accepted", u8(39, 1) + text(40, c29) + text(41, "rw-1"), 0, "00000000", "", "1", c29.c_str(), "rw-1"},
        {"no state switches off", text(41, "rw-2"), 0, "00000000", "", "0", "public", "rw-2"},
        {"too long", u8(39, 1) + text(40, c30) + text(41, "rw-3"), 2002, "02000000",
         "error:snmp_rocomm too long\n", "1", "public", "rw-3"},
        {"quote", u8(39, 1) + text(41, "it's"), 2002, "04000000", "error:value can't include #`'\\\"\n", "1",
         "public", "private"},
        {"delete", u8(39, 3) + text(40, "a") + text(41, "b"), 2002, "06000000",
         "error:Can't delete read only community\nerror:Can't delete read-write community\n", "1", "public",
         "private"},
        {"views", u8(39, 1) + text(42, "v") + text(43, "w") + text(40, "x`"), 2002, "1a000000",
         "error:value can't include #`'\\\"\nerror:Don't support roview\nerror:Don't support rwview\n", "1",
         "public", "private"},
    };
    Client mgr = lab().raw();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        lab().db_set(1, "/sys/snmpd/status", "1");
        lab().db_set(1, "/sys/snmpd/rocomm", "public");
        lab().db_set(1, "/sys/snmpd/rwcomm", "private");
        Events ev(lab(), 1);
        auto out = output(lab(), 1);
        auto r = send_body(mgr, tav::kOpSetSnmp, c.tlvs + creds());
        ASSERT_TRUE(r);
        EXPECT_EQ(r->result(), c.result);
        EXPECT_EQ(listing(r->tlvs), std::string("393=00000000\n394=00000014\n395=") + c.mask_le + "\n");
        EXPECT_EQ(ev.wait(2), (Lines{"submit COMMIT", "submit SNMP"}));
        until([&] { return out().size() >= strlen(c.printed); }, 1s);
        EXPECT_EQ(out(), c.printed);
        EXPECT_EQ(lab().db_get(1, "/sys/snmpd/status") + " " + lab().db_get(1, "/sys/snmpd/rocomm") + " " +
                      lab().db_get(1, "/sys/snmpd/rwcomm"),
                  std::string(c.status) + " " + c.ro + " " + c.rw);
    }
}

// ---- information, IPv4 and device information ----------------------------------------------

E2E_SUITE(Ipv4, "ipv4", 1, "");

TEST_F(Ipv4, InformationIsOneFixedText) {
    Client raw = lab().raw(), udp = lab().udp();
    for (Client *mgr : {&raw, &udp}) {
        auto r = send_body(*mgr, tav::kOpInformation, {});
        ASSERT_TRUE(r);
        EXPECT_EQ(std::tuple(r->result(), listing(r->tlvs)), std::tuple(0, std::string("6=302e30302e30333700\n")));
    }
}

TEST_F(Ipv4, StaticThenDynamicAddressing) {
    Client mgr = lab().raw();
    const Bytes stat = u8(25, 0) + tlv(15, {198, 51, 100, 7}) + tlv(17, {255, 255, 255, 128}) +
                       tlv(18, {198, 51, 100, 1}) + tlv(20, {203, 0, 113, 53}) + tlv(22, {9, 9, 9, 9}) + u8(13, 1) +
                       u8(30, 1) + u8(12, 0);
    const struct {
        Bytes body;
        const char *keys;  // mode, modebak, static ip, netmask, gateway, dns
        uint8_t wan_mode;
    } cases[] = {
        {u8(54, 2) + stat + creds(), "1 1 198.51.100.7 255.255.255.128 198.51.100.1 203.0.113.53", 0},
        {u8(25, 1) + tlv(15, {10, 0, 0, 1}) + creds(), "2 2 198.51.100.7 255.255.255.128 198.51.100.1 203.0.113.53",
         1},
    };
    for (const auto &c : cases) {
        Events ev(lab(), 1);
        auto r = send_body(mgr, tav::kOpSetIpv4, c.body);
        ASSERT_TRUE(r);
        EXPECT_EQ(std::tuple(r->result(), listing(r->tlvs)), std::tuple(0, std::string("388=00\n")));
        EXPECT_EQ(ev.wait(3), (Lines{"submit COMMIT", "submit WAN", "submit WLAN"}));
        std::string keys;
        for (const char *k : {"/wan/rg/inf:1/mode", "/wan/rg/inf:1/modebak", "/wan/rg/inf:1/static/ip",
                              "/wan/rg/inf:1/static/netmask", "/wan/rg/inf:1/static/gateway",
                              "/dnsrelay/server/primarydns"})
            keys += (keys.empty() ? "" : " ") + lab().db_get(1, k);
        EXPECT_EQ(keys, c.keys);
        auto disc = mgr.request_one(tav::kOpDiscovery, {}, 3s);
        ASSERT_TRUE(disc);
        EXPECT_EQ(std::tuple(disc->u8(tav::kTagTavMode), disc->u8(tav::kTagWanMode)), std::tuple(2, c.wan_mode));
    }
}

TEST_F(Ipv4, DeviceNameAndPortReachDiscovery) {
    Client mgr = lab().raw();
    const std::string error = "Parameter is ERROR!";  // without NUL
    const struct {
        const char *what;
        Bytes tlvs;
        std::string reply;
        Lines commands;
        const char *name;
        uint16_t port;
    } cases[] = {
        {"name", u8(31, 0) + text(10, "AP-Office"), "388=00\n", {"submit COMMIT"}, "AP-Office", 80},
        {"port", u8(31, 1) + be16(32, 8080), "388=00\n", {"submit COMMIT", "submit HTTPD"}, "AP-Office", 8080},
        {"unknown tag", u8(31, 0) + text(10, "valid") + u8(11, 1),
         "388=01\n391=" + hex(Bytes(error.begin(), error.end())) + "\n", {}, "AP-Office", 8080},
        {"no item: empty name", Bytes{}, "388=00\n", {"submit COMMIT"}, "", 8080},
        {"type 2 writes nothing", u8(31, 2) + text(10, "ignored") + be16(32, 81), "388=00\n", {}, "", 8080},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Events ev(lab(), 1);
        auto r = send_body(mgr, tav::kOpSetDeviceInfo, u8(54, 4) + c.tlvs + creds());
        ASSERT_TRUE(r);
        EXPECT_EQ(std::tuple(r->result(), listing(r->tlvs)), std::tuple(0, c.reply));
        EXPECT_EQ(ev.wait(c.commands.size()), c.commands);
        auto disc = mgr.request_one(tav::kOpDiscovery, {}, 3s);
        ASSERT_TRUE(disc);
        EXPECT_EQ(std::tuple(disc->text(tav::kTagSystemName), disc->u16(tav::kTagWebPort)),
                  std::tuple(std::optional<std::string>(c.name), std::optional<uint16_t>(c.port)));
    }
}

// ---- date and time ------------------------------------------------------------------

E2E_SUITE(DateTime, "time", 1, "");

TEST_F(DateTime, GetReportsNtpZoneAndClock) {
    const struct {
        std::map<std::string, std::string> db;
        const char *expect;
    } cases[] = {
        {{}, "35=01\n36=6e74702e6578616d706c652e6e657400\n37=00\n38=04\n303=001e\n301=323032363035313330383330303500\n"},
        {{{"/time/syncwith", "0"}, {"/time/ntpserver/ip", "10.0.0.1"}, {"/time/timezone", "45"},
          {"/runtime/time/date", "12/31/1999"}, {"/runtime/time/time", "23:59:58"}},
         "35=00\n36=31302e302e302e3100\n37=01\n38=04\n303=0033\n301=313939393132333132333539353800\n"},
    };
    Client mgr = lab().raw();
    for (const auto &c : cases) {
        for (const auto &[k, v] : c.db) lab().db_set(1, k, v);
        auto r = send_body(mgr, tav::kOpGetDateTime, {});
        ASSERT_TRUE(r);
        EXPECT_EQ(std::tuple(r->result(), listing(r->tlvs)), std::tuple(0, std::string(c.expect)));
    }
}

// Clock and daylight-saving requests run their commands to completion
// before they answer.
TEST_F(DateTime, ClockAndDaylightSavingRequests) {
    const std::string done = "393=00000000\n394=00004e20\n";
    const Lines services = {"submit COMMIT", "submit TIME", "submit CAPTIVAL_PORTAL"};
    const struct {
        const char *what;
        Bytes body;
        const char *date_command;
        const char *keys;  // syncwith, ntp server, timezone, daylightSaving, offset, time_changed
        const char *clock;
    } cases[] = {
        {"clock", u8(300, 0) + u8(35, 0) + text(36, "pool.example.org") + u8(37, 0) + be16(303, 7) +
                      text(301, "20270102030405") + u8(306, 1) + u8(307, 2) + be16(311, 2027) + u8(54, 6),
         "date -s '2027-01-02 03:04:05'", "0 pool.example.org 8 1 60 1", "20270102030405"},
        {"no date, zone 85", u8(35, 1) + text(36, "127.0.0.10") + be16(303, 85), "date -s '0-00-00 00:00:00'",
         "2 127.0.0.10 1 1 60 1", "20270102030405"},
        {"daylight saving only", u8(300, 1) + u8(310, 0) + u8(35, 0) + text(36, "other") + be16(303, 7) +
                                     text(301, "20300101000000"),
         nullptr, "2 127.0.0.10 1 0 0 1", "20270102030405"},
    };
    lab().db_set(1, "/time/DaylightSaving/offset", "60");
    Client mgr = lab().raw();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Events ev(lab(), 1);
        auto r = send_body(mgr, tav::kOpSetDateTime, c.body + creds(), 10s);
        ASSERT_TRUE(r);
        EXPECT_EQ(std::tuple(r->result(), listing(r->tlvs)), std::tuple(0, done));
        Lines want = services;
        if (c.date_command) want.insert(want.begin(), c.date_command);
        EXPECT_EQ(ev.lines(), want);
        std::string keys;
        for (const char *k : {"/time/syncwith", "/time/ntpserver/ip", "/time/timezone", "/time/daylightSaving",
                              "/time/DaylightSaving/offset", "/tavclient/time_changed"})
            keys += (keys.empty() ? "" : " ") + lab().db_get(1, k);
        EXPECT_EQ(keys, c.keys);
        auto now = send_body(mgr, tav::kOpGetDateTime, {});
        ASSERT_TRUE(now);
        EXPECT_EQ(now->text(tav::kTagDateTime), c.clock);
    }
}

// ---- the manager's tool -----------------------------------------------------------

E2E_SUITE(AdminSession, "ctl", 1, "");

// tavctl with a config file for this lab; the current password from the
// environment, new ones from files.
class Tavctl {
  public:
    explicit Tavctl(const Lab &lab) : dir_(::testing::TempDir() + "tavctl_admin_" + std::to_string(getpid())) {
        sh("mkdir -p " + quote(dir_));
        std::ofstream(dir_ + "/tavctl.conf") << "netns = " << lab.netns_mgr() << "\niface = eth0\ncipher = "
                                             << cipher_path() << "\ntimeout = 3\n";
    }
    ~Tavctl() { sh("rm -rf " + quote(dir_)); }
    std::string file(const std::string &name, const std::string &content) const {
        std::ofstream(dir_ + "/" + name) << content << "\n";
        return dir_ + "/" + name;
    }
    Sh operator()(const std::string &args, const std::string &password) const {
        return sh("env -u TAVCTL_USER -u TAVCTL_PASSWORD_FILE TAVCTL_CONFIG=" + quote(dir_ + "/tavctl.conf") +
                  " TAVCTL_PASSWORD=" + quote(password) + " setsid -w " + std::string(E2E_BUILD_DIR) +
                  "/tools/tavctl/tavctl " + args + " </dev/null");
    }

  private:
    std::string dir_;
};

// A manager sets account, SNMP communities, name, web port, time zone and
// IPv4 with tavctl, reads them back, and they survive a reboot after the
// commits.
TEST_F(AdminSession, SettingsMadeWithTavctlReadBackAndSurviveAReboot) {
    Tavctl ctl(lab());
    const std::string ap = " --target ap1 --user ops ";
    const std::string pw = ctl.file("new", "0ps-secret");

    auto refused = ctl("--target ap1 account set --user admin --new-user ops --new-password-file " + pw, "wrong");
    EXPECT_EQ(refused.status, 1) << refused.out;
    EXPECT_NE(refused.out.find("tavctl: account set: refused: authentication failed (64)"), std::string::npos)
        << refused.out;
    auto too_long = ctl("--target ap1 account set --user admin --new-user ops --new-password-file " +
                            ctl.file("long", std::string(32, 'p')),
                        "admin");
    EXPECT_EQ(too_long.status, 2);
    EXPECT_NE(too_long.out.find("compares only 31"), std::string::npos) << too_long.out;
    // Values the device would cut, reading their rest as records, are not sent.
    for (const std::string &cut : {"device set --name " + std::string(64, 'n'),
                                   "time set --zone 7 --ntp-server " + std::string(255, 's')})
        EXPECT_EQ(ctl("--target ap1 --user admin " + cut, "admin").status, 2) << cut;
    // A zone without a protocol id is not silently replaced by id 1's.
    ASSERT_TRUE(lab().db_set(1, "/time/timezone", "15"));
    auto no_zone = ctl("--target ap1 --user admin time set --ntp on", "admin");
    EXPECT_EQ(no_zone.status, 2);
    EXPECT_NE(no_zone.out.find("give --zone ID"), std::string::npos) << no_zone.out;
    EXPECT_EQ(lab().db_get(1, "/time/timezone"), "15");

    const std::pair<std::string, std::string> steps[] = {
        {"--target ap1 account set --user admin --new-user ops --new-password-file " + pw, "admin"},
        {ap + "snmp set --ro-community lab-ro --rw-community lab-rw", "0ps-secret"},
        {ap + "device set --name Lobby-AP", "0ps-secret"},
        {ap + "device set --web-port 8443", "0ps-secret"},
        {ap + "time set --zone 7 --ntp on --ntp-server pool.example.org", "0ps-secret"},
        {ap + "ipv4 set --static 192.0.2.11/24 --gateway 192.0.2.1 --dns 203.0.113.53", "0ps-secret"},
    };
    for (const auto &[args, password] : steps) {
        auto r = ctl(args, password);
        EXPECT_EQ(r.status, 0) << args << "\n" << r.out;
    }

    auto read_back = [&] {
        auto disc = ctl("--json discover", "");
        EXPECT_NE(disc.out.find("\"system_name\": \"Lobby-AP\""), std::string::npos) << disc.out;
        EXPECT_NE(disc.out.find("\"web_port\": 8443"), std::string::npos) << disc.out;
        EXPECT_NE(disc.out.find("\"tav_mode\": 2"), std::string::npos) << disc.out;
        auto snmp = ctl("--target 192.0.2.11 snmp get", "");
        EXPECT_NE(snmp.out.find("read-only community:  lab-ro\nread-write community: lab-rw"), std::string::npos)
            << snmp.out;
        auto time = ctl("--target 02:7a:76:00:00:01 time get", "");
        EXPECT_NE(time.out.find("ntp:           on\nntp server:    pool.example.org\ntime zone id:  7\n"),
                  std::string::npos)
            << time.out;
        EXPECT_EQ(ctl(ap + "verify", "0ps-secret").status, 0);
        EXPECT_EQ(ctl("--target ap1 --user admin verify", "admin").status, 1);
        EXPECT_EQ(lab().db_get(1, "/dnsrelay/server/primarydns"), "203.0.113.53");
    };
    read_back();

    const std::string boots = lab().on_ap(1, "cat /var/run/boot_count").out;
    ASSERT_EQ(lab().on_ap(1, "reboot").status, 0);
    ASSERT_TRUE(until([&] { return lab().on_ap(1, "cat /var/run/boot_count").out != boots && lab().serving(1); },
                      20s));
    read_back();
}

}  // namespace
}  // namespace e2e
