// Maintenance in the lab: the agent profile and the lock it sets, firmware
// upgrade, configuration backup and restore, and reboot, with the transfers
// simulated by the lab's tftp and the reboots by its supervisor.
#include <fstream>

#include "tests/e2e/e2e.h"

namespace e2e {
namespace {

const std::string kFwStatus = "/runtime/tavclient/function/fw_upgrade/status";
const std::string kBackupStatus = "/runtime/tavclient/function/tav_configuration_backup/status";
const std::string kRestoreStatus = "/runtime/tavclient/function/tav_configuration_restore/status";

Bytes admin() { return text(55, "admin") + text(56, "admin"); }
// A "Parameter configure" for `file` (under tag 0x185 or 0x186) on 192.0.2.1.
Bytes configure(uint16_t file_tag, const std::string &file, bool server_type = true) {
    Bytes b = admin() + u8(0x0180, 1) + tlv(0x0183, {192, 0, 2, 1}) + text(file_tag, file);
    return server_type ? b + u8(0x0181, 1) : b;
}
Bytes query() { return admin() + u8(0x0180, 2); }

// The reply body of a transfer, as hex: SUBSERVICE_TYPE, REPLY_STATUS and,
// for a failed upgrade, the failure text with its NUL.
std::string transfer_reply(uint8_t sub, uint8_t status, bool failure_text = false) {
    char b[32];
    snprintf(b, sizeof b, "01800001%02x01840001%02x", sub, status);
    std::string s = b;
    if (failure_text)
        s += "01870012" + hex(Bytes{'u', 'p', 'g', 'r', 'a', 'd', 'e', ' ', 'F', 'W', ' ', 'f', 'a',
                                    'i', 'l', 'e', 'd', 0});
    return s;
}

std::string body_hex(const Message &m) {
    return m.header ? hex(std::span(m.plaintext).subspan(m.header->size())) : "<no header>";
}

// A suite with one access point, its manager, and the access point's records.
template <class Self>
class MaintSuite : public LabSuite<Self> {
   protected:
    using LabSuite<Self>::lab;

    // Sends and returns the reply's result code and body (hex); fails the
    // test when no reply comes.
    std::pair<int, std::string> ask(uint16_t op, const Bytes &body) {
        Client c = lab().udp();
        auto m = send_body(c, op, body);
        EXPECT_TRUE(m) << "no reply to op " << op;
        if (!m) return {-1, ""};
        return {m->result(), body_hex(*m)};
    }
    // The device commands recorded since clear_events().
    std::vector<std::string> events() { return ev_ ? ev_->lines() : Lines{}; }
    void clear_events() { ev_.emplace(lab(), 1); }
    void put_file(const std::string &name, const std::string &text) {
        std::ofstream(lab().run_file(1, name), std::ios::trunc) << text;
    }
    std::string db(const std::string &key) { return lab().db_get(1, key); }
    bool db_is(const std::string &key, const std::string &want, std::chrono::milliseconds limit) {
        return until([&] { return db(key) == want; }, limit);
    }
    int boots() { return std::atoi(slurp(lab().run_file(1, "boot_count")).c_str()); }
    static std::function<bool(const FrameTap::Frame &)> own(uint16_t op) {
        return [op](const FrameTap::Frame &f) {
            return f.src == ap_mac(1) && f.msg && f.msg->op_code() == op;
        };
    }
    // After a reboot began: the device's hello, and the daemon serving.
    void expect_hello(FrameTap &tap) {
        EXPECT_TRUE(tap.next(own(tav::kOpHello), 20s)) << "no hello";
        EXPECT_TRUE(until([&] { return lab().serving(1); }, 10s));
    }
    void expect_bye_then_hello(FrameTap &tap, std::chrono::milliseconds bye_within) {
        EXPECT_TRUE(tap.next(own(tav::kOpBye), bye_within)) << "no bye";
        expect_hello(tap);
    }
    std::optional<Events> ev_;
};

#define MAINT_SUITE(Name, code)                     \
    struct Name : MaintSuite<Name> {                \
        static constexpr const char *kCode = code;  \
        static constexpr int kAps = 1;              \
        static std::string kUpArgs() { return ""; } \
    }

MAINT_SUITE(Upgrade, "upg");

TEST_F(Upgrade, SuccessShowsRunningThenRebootsWithByeAndHello) {
    put_file("tftp.outcome", "slow\n");
    clear_events();
    const int boots_before = boots();
    const auto out = output(lab(), 1);
    FrameTap tap(lab().netns_mgr());

    EXPECT_EQ(ask(0x100, configure(0x185, "fw.bin")), std::pair(0, transfer_reply(1, 0)));
    EXPECT_EQ(ask(0x100, query()), std::pair(0, transfer_reply(2, 2)));
    // A second configure while the first runs starts nothing.
    EXPECT_EQ(ask(0x100, configure(0x185, "other.bin")), std::pair(0, transfer_reply(1, 0)));
    ASSERT_TRUE(db_is(kFwStatus, "3", 10s));
    // Done and about to reboot reads as 0.
    EXPECT_EQ(ask(0x100, query()), std::pair(0, transfer_reply(2, 0)));
    expect_bye_then_hello(tap, 10s);
    EXPECT_EQ(boots(), boots_before + 1);
    EXPECT_EQ(events(), (std::vector<std::string>{"tftp -f 192.0.2.1 -r fw.bin", "reboot"}));
    EXPECT_NE(out().find("firmware upgrade:FW_SUCCESS\n"), std::string::npos) << out();
    // The restarted daemon starts from idle.
    EXPECT_EQ(ask(0x100, query()), std::pair(0, transfer_reply(2, 0)));
}

TEST_F(Upgrade, FailureIsReportedWithItsTextAndMayBeRetried) {
    put_file("tftp.outcome", "fail\n");
    clear_events();
    const int boots_before = boots();
    EXPECT_EQ(ask(0x100, configure(0x185, "fw.bin")), std::pair(0, transfer_reply(1, 0)));
    ASSERT_TRUE(db_is(kFwStatus, "1", 10s));
    EXPECT_EQ(ask(0x100, query()), std::pair(0, transfer_reply(2, 1, true)));
    // Without a server type nothing starts; a failed upgrade may start again.
    EXPECT_EQ(ask(0x100, configure(0x185, "fw2.bin", false)), std::pair(0, transfer_reply(1, 0)));
    EXPECT_EQ(ask(0x100, configure(0x185, "fw3.bin")), std::pair(0, transfer_reply(1, 0)));
    ASSERT_TRUE(until([&] { return events().size() == 2; }, 5s));
    ASSERT_TRUE(db_is(kFwStatus, "1", 10s));
    EXPECT_EQ(events(), (std::vector<std::string>{"tftp -f 192.0.2.1 -r fw.bin",
                                                  "tftp -f 192.0.2.1 -r fw3.bin"}));
    EXPECT_EQ(boots(), boots_before);
}

TEST_F(Upgrade, FileNamesReachTftpAsOneLiteralArgument) {
    put_file("tftp.outcome", "fail\n");
    const std::string names[] = {
        "fw.bin; reboot",
        "$(touch /var/run/pwned)",
        "`touch /var/run/pwned`",
        "it's \"quoted\"",
        "two  spaces and\ta tab",
        "line1\nreboot",
        "a' ; touch /var/run/pwned ; '",
    };
    for (const std::string &name : names) {
        SCOPED_TRACE(name);
        clear_events();
        ASSERT_TRUE(lab().db_set(1, kFwStatus, "0"));
        ASSERT_EQ(ask(0x100, configure(0x185, name)), std::pair(0, transfer_reply(1, 0)));
        ASSERT_TRUE(db_is(kFwStatus, "1", 10s));
        const std::string args = slurp(lab().run_file(1, "tftp.args"));
        std::string want;
        for (const std::string &a :
             {std::string("-f"), std::string("192.0.2.1"), std::string("-r"), name})
            want += a + '\0';
        EXPECT_EQ(args, want);
        const auto ev = events();
        ASSERT_EQ(ev.size(), 1u) << "something else ran";
        EXPECT_EQ(ev[0].rfind("tftp -f 192.0.2.1 -r ", 0), 0u) << ev[0];
        EXPECT_NE(lab().on_ap(1, "test -e /var/run/pwned").status, 0);
    }
}

MAINT_SUITE(Transfers, "xfr");

TEST_F(Transfers, BackupThenRestoreRestartsWithTheSavedConfiguration) {
    put_file("tftp.outcome", "slow\n");
    ASSERT_EQ(lab().on_ap(1, "rgdb -s /sys/systemName Saved-Name && submit COMMIT").status, 0);
    ASSERT_TRUE(lab().db_set(1, kBackupStatus, "0"));
    ASSERT_TRUE(lab().db_set(1, kRestoreStatus, "0"));
    clear_events();

    // Backup: the server type may be left out; 2 while the upload runs, then 0.
    EXPECT_EQ(ask(0x101, configure(0x186, "ap1.cfg", false) + be16(0x18C, 69)),
              std::pair(0, transfer_reply(1, 2)));
    EXPECT_EQ(ask(0x101, configure(0x186, "again.cfg")), std::pair(0, transfer_reply(1, 2)));
    EXPECT_EQ(ask(0x101, query()), std::pair(0, transfer_reply(2, 2)));
    ASSERT_TRUE(db_is(kBackupStatus, "0", 10s));
    EXPECT_EQ(ask(0x101, query()), std::pair(0, transfer_reply(2, 0)));
    EXPECT_EQ(events(),
              (std::vector<std::string>{"sys -s configsave",
                                        "tftp -r ap1.cfg -p 192.0.2.1 -l /var/config.bin"}));
    const std::string saved = slurp(lab().run_file(1, "tftpboot/ap1.cfg"));
    EXPECT_NE(saved.find("\n/sys/systemName Saved-Name\n"), std::string::npos);
    EXPECT_EQ(saved.find("/runtime/"), std::string::npos);

    ASSERT_EQ(lab().on_ap(1, "rgdb -s /sys/systemName Changed && submit COMMIT").status, 0);
    clear_events();
    // Restore: the server type is required.
    EXPECT_EQ(ask(0x102, configure(0x186, "ap1.cfg", false)), std::pair(0, transfer_reply(1, 0)));
    const int boots_before = boots();
    FrameTap tap(lab().netns_mgr());
    EXPECT_EQ(ask(0x102, configure(0x186, "ap1.cfg")), std::pair(0, transfer_reply(1, 2)));
    EXPECT_EQ(ask(0x102, configure(0x186, "ap1.cfg")), std::pair(0, transfer_reply(1, 2)));
    EXPECT_EQ(ask(0x102, query()), std::pair(0, transfer_reply(2, 2)));
    // Success: 0, and a reboot 5 seconds later into the saved configuration.
    ASSERT_TRUE(db_is(kRestoreStatus, "0", 10s));
    expect_bye_then_hello(tap, 10s);
    EXPECT_EQ(boots(), boots_before + 1);
    EXPECT_EQ(db("/sys/systemName"), "Saved-Name");
    EXPECT_EQ(events(), (std::vector<std::string>{"tftp -d 192.0.2.1 -r ap1.cfg", "reboot"}));
}

TEST_F(Transfers, FailuresEndBackupAtZeroAndRestoreAtOneWithoutReboot) {
    put_file("tftp.outcome", "fail\n");
    ASSERT_TRUE(lab().db_set(1, kBackupStatus, "0"));
    ASSERT_TRUE(lab().db_set(1, kRestoreStatus, "0"));
    clear_events();
    const int boots_before = boots();
    ask(0x101, configure(0x186, "b.cfg"));
    ASSERT_TRUE(until([&] { return events().size() == 2; }, 5s));
    ASSERT_TRUE(db_is(kBackupStatus, "0", 5s));
    EXPECT_EQ(ask(0x101, query()), std::pair(0, transfer_reply(2, 0)));

    ask(0x102, configure(0x186, "b.cfg"));
    ASSERT_TRUE(db_is(kRestoreStatus, "1", 10s));
    EXPECT_EQ(ask(0x102, query()), std::pair(0, transfer_reply(2, 1)));
    // No delayed reboot waits behind a failed restore.
    EXPECT_NE(lab().on_ap(1, "pgrep -f 'sleep [5]; reboot'").status, 0);
    EXPECT_EQ(boots(), boots_before);
    EXPECT_EQ(events(), (std::vector<std::string>{
                            "sys -s configsave", "tftp -r b.cfg -p 192.0.2.1 -l /var/config.bin",
                            "tftp -d 192.0.2.1 -r b.cfg"}));
}

MAINT_SUITE(Agent, "agt");

Bytes profile(const std::string &uuid, const std::string &url, uint8_t interval) {
    return text(47, uuid) + text(48, url) + u8(49, interval) + admin();
}
const std::pair<int, std::string> kProfileAccepted{0, "0184000100"};

TEST_F(Agent, ProfileStoresKeysAndStartsTheAgentUnlessOneRuns) {
    Finally idle([&] {
        lab().on_ap(1, "pkill -f '^(/usr/sbin/)?qm5_agent '");
        lab().db_set(1, "/qm5_agent/running", "0");
    });
    ASSERT_EQ(lab()
                  .on_ap(1,
                         "rgdb -s /qm5_agent/running 0 && rgdb -s /qm5_agent/record_unmanaged 5"
                         " && rgdb -s /qm5_agent/reg_pass 5"
                         " && rgdb -s /runtime/qm5_agent/tav_sync_version 98")
                  .status,
              0);
    clear_events();
    EXPECT_EQ(ask(0xE6, profile("grp-1 50%s", "https://nms.example.net/x", 45)), kProfileAccepted);
    const std::pair<const char *, const char *> keys[] = {
        {"/qm5_agent/ag_uuid", "grp-1 50%s"},
        {"/qm5_agent/nms_server", "https://nms.example.net/x"},
        {"/qm5_agent/keep_alive", "45"},
        {"/qm5_agent/enable", "1"},
        {"/qm5_agent/running", "1"},
        {"/qm5_agent/record_unmanaged", "0"},
        {"/qm5_agent/reg_pass", "0"},
        {"/runtime/qm5_agent/tav_sync_version", "99"},
        {"/sys/swcontroller/enable", ""},
    };
    for (auto [k, v] : keys) EXPECT_EQ(db(k), v) << k;
    EXPECT_EQ(events(), (std::vector<std::string>{"rgdb -d /sys/swcontroller", "submit COMMIT",
                                                  "qm5_agent.sh"}));
    EXPECT_EQ(lab().on_ap(1, "pgrep -f '^qm5_agent '").status, 0);

    // The agent runs: nothing is started; running, the flags stay.
    ASSERT_TRUE(lab().db_set(1, "/qm5_agent/record_unmanaged", "5"));
    clear_events();
    EXPECT_EQ(ask(0xE6, profile("grp-2", "nms2", 1)), kProfileAccepted);
    EXPECT_EQ(events(), (std::vector<std::string>{"rgdb -d /sys/swcontroller", "submit COMMIT"}));
    EXPECT_EQ(db("/runtime/qm5_agent/tav_sync_version"), "1");
    EXPECT_EQ(db("/qm5_agent/record_unmanaged"), "5");
}

TEST_F(Agent, RunningAgentLocksTransfersButNotProfileOrReboot) {
    Finally idle([&] {
        lab().on_ap(1, "pkill -f '^qm5_agent '");
        lab().db_set(1, "/qm5_agent/running", "0");
    });
    ASSERT_TRUE(lab().db_set(1, "/qm5_agent/running", "1"));
    const auto out = output(lab(), 1);
    Client mgr = lab().udp();
    for (uint16_t op : {0x100, 0x101, 0x102}) {
        SCOPED_TRACE(op);
        EXPECT_FALSE(send_body(mgr, op, query(), 1s)) << "a locked op code was answered";
    }
    // Served: the profile, and reboot (refused here by its password).
    EXPECT_EQ(ask(0xE6, profile("g", "n", 3)), kProfileAccepted);
    EXPECT_EQ(ask(0x103, text(55, "admin") + text(56, "x")),
              std::pair(0x40, std::string()));
    const std::string notices = out();
    size_t count = 0;
    for (size_t at = 0; (at = notices.find("NOTICE:operation is not allowed in current mode\n",
                                           at)) != std::string::npos;
         ++at)
        ++count;
    EXPECT_EQ(count, 3u) << notices;
    // Unlocked again, the same query is served.
    ASSERT_TRUE(lab().db_set(1, "/qm5_agent/running", "0"));
    EXPECT_EQ(ask(0x100, query()).first, 0);
}

MAINT_SUITE(Reboot, "rbt");

TEST_F(Reboot, AnswersAtOnceAndRebootsAfterTheDelay) {
    const std::string answer = "0189000400000002018a0004000493e0";
    const struct {
        const char *name;
        Bytes tlvs;
        std::chrono::seconds delay;
    } cases[] = {
        {"no delay", admin(), 0s},
        {"delay 2", be32(0x188, 2) + admin(), 2s},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(until([&] { return lab().serving(1); }, 10s));
        clear_events();
        const int boots_before = boots();
        FrameTap tap(lab().netns_mgr());
        const auto sent = Clock::now();
        EXPECT_EQ(ask(0x103, c.tlvs), std::pair(0, answer));
        ASSERT_TRUE(tap.next(own(tav::kOpBye), c.delay + 10s)) << "no bye";
        EXPECT_GE(Clock::now() - sent, c.delay);
        expect_hello(tap);
        EXPECT_EQ(boots(), boots_before + 1);
        EXPECT_EQ(events(), std::vector<std::string>{"submit REBOOT"});
    }
}

MAINT_SUITE(ToolWait, "tool");

// tavctl on the manager's raw path to access point 1 waits for each transfer
// to end: its exit status and the lines it printed, in order.
TEST_F(ToolWait, FollowsTransfersToTheirOutcome) {
    const std::string fw = "firmware upgrade --server 192.0.2.1 --file fw.bin";
    const struct {
        const char *outcome;
        std::string args;
        int status;
        std::vector<std::string> printed;  // in this order
    } rows[] = {
        {"slow", fw, 0,
         {"firmware upgrade: running (status 2, ", "firmware upgrade: bye from 02:7a:76:00:00:01",
          "firmware upgrade: hello from 02:7a:76:00:00:01"}},
        {"fail", fw, 1, {"failed: upgrade FW failed"}},
        {"slow", "config backup --server 192.0.2.1 --file t.cfg", 0, {"configuration backup: ended after"}},
        {"slow", "config restore --server 192.0.2.1 --file t.cfg", 0, {"configuration restore: hello from"}},
        {"fail", "config restore --server 192.0.2.1 --file t.cfg", 1, {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.args + " " + row.outcome);
        put_file("tftp.outcome", std::string(row.outcome) + "\n");
        Sh r = sh("env TAVCTL_CONFIG=/dev/null TAVCTL_PASSWORD=admin " + std::string(E2E_BUILD_DIR) +
                  "/tools/tavctl/tavctl --netns " + lab().netns_mgr() + " --cipher " + quote(cipher_path()) +
                  " --iface eth0 --target 02:7a:76:00:00:01 --user admin " + row.args + " --wait --limit 60");
        EXPECT_EQ(r.status, row.status) << r.out;
        size_t at = 0;
        for (const auto &line : row.printed)
            EXPECT_NE(at = r.out.find(line, at), std::string::npos) << line << "\n" << r.out;
    }
}

}  // namespace
}  // namespace e2e
