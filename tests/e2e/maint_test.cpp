// SPDX-License-Identifier: ISC
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

// A "Parameter configure" for `file` (under tag 0x185 or 0x186) on 192.0.2.1.
Bytes configure(uint16_t file_tag, const std::string &file, bool server_type = true) {
    Bytes b = creds() + u8(0x0180, 1) + tlv(0x0183, {192, 0, 2, 1}) + text(file_tag, file);
    return server_type ? b + u8(0x0181, 1) : b;
}
Bytes query() { return creds() + u8(0x0180, 2); }

// The reply body of a transfer, as hex: SUBSERVICE_TYPE, REPLY_STATUS and,
// for a failed upgrade, the failure text with its NUL.
std::pair<int, std::string> transfer(uint8_t sub, uint8_t status, bool failure_text = false) {
    char b[32];
    snprintf(b, sizeof b, "01800001%02x01840001%02x", sub, status);
    return {0, b + (failure_text ? "01870012" + hex(str("upgrade FW failed")) + "00" : std::string())};
}

template <class Self>
class MaintSuite : public LabSuite<Self> {
  protected:
    using LabSuite<Self>::lab;
    // The reply's result code and body (hex); fails the test without a reply.
    std::pair<int, std::string> ask(uint16_t op, const Bytes &body) {
        Client c = lab().udp();
        auto m = send_body(c, op, body);
        EXPECT_TRUE(m) << "no reply to op " << op;
        if (!m) return {-1, ""};
        return {m->result(), hex(std::span(m->plaintext).subspan(m->header->size()))};
    }
    Lines events() { return ev_ ? ev_->lines() : Lines{}; }
    void clear_events() { ev_.emplace(lab(), 1); }
    void outcome(const std::string &text) { std::ofstream(lab().run_file(1, "tftp.outcome")) << text << "\n"; }
    std::string db(const std::string &key) { return lab().db_get(1, key); }
    bool db_is(const std::string &key, const std::string &want) {
        return until([&] { return db(key) == want; }, kLong);
    }
    // After a reboot began: bye, hello, the daemon serving.
    void expect_bye_then_hello(Client &tap) {
        EXPECT_TRUE(tap.wait_for(own(tav::kOpBye), kLong)) << "no bye";
        EXPECT_TRUE(tap.wait_for(own(tav::kOpHello), kLong)) << "no hello";
        EXPECT_TRUE(until([&] { return lab().serving(1); }, kLong));
    }
    std::optional<Events> ev_;
};

E2E_SUITE_OF(MaintSuite, Upgrade, "upg", 1, "");

TEST_F(Upgrade, SuccessShowsRunningThenRebootsWithByeAndHello) {
    outcome("slow");
    clear_events();
    const std::string boots = boot_count(lab());
    const auto out = output(lab(), 1);
    Client tap = lab().raw();
    EXPECT_EQ(ask(0x100, configure(0x185, "fw.bin")), transfer(1, 0));
    EXPECT_EQ(ask(0x100, query()), transfer(2, 2));
    ASSERT_TRUE(db_is(kFwStatus, "3"));
    EXPECT_EQ(ask(0x100, query()), transfer(2, 0)) << "done and about to reboot";
    expect_bye_then_hello(tap);
    EXPECT_NE(boot_count(lab()), boots);
    EXPECT_EQ(events(), (Lines{"tftp -f 192.0.2.1 -r fw.bin", "reboot"}));
    EXPECT_NE(out().find("firmware upgrade:FW_SUCCESS\n"), std::string::npos) << out();
    EXPECT_EQ(ask(0x100, query()), transfer(2, 0)) << "the restarted daemon starts from idle";
}

// A failure is reported with its text; without a server type nothing starts;
// a failed upgrade may start again. File names reach tftp as one literal argument.
TEST_F(Upgrade, FailureIsReportedAndRetriedWithLiteralFileNames) {
    outcome("fail");
    const std::string boots = boot_count(lab());
    clear_events();
    EXPECT_EQ(ask(0x100, configure(0x185, "fw.bin", false)), transfer(1, 0));
    for (const std::string name : {"fw.bin; reboot", "$(touch /var/run/pwned)", "a' ; touch /var/run/pwned ; '\n`x`"}) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(lab().db_set(1, kFwStatus, "0"));
        ASSERT_EQ(ask(0x100, configure(0x185, name)), transfer(1, 0));
        ASSERT_TRUE(db_is(kFwStatus, "1"));
        EXPECT_EQ(ask(0x100, query()), transfer(2, 1, true));
        const char z = '\0';
        EXPECT_EQ(slurp(lab().run_file(1, "tftp.args")), "-f" + (z + std::string("192.0.2.1")) + z + "-r" + z + name + z);
    }
    EXPECT_EQ(events().size(), 3u) << "something else ran";
    EXPECT_NE(lab().on_ap(1, "test -e /var/run/pwned").status, 0);
    EXPECT_EQ(boot_count(lab()), boots);
}

E2E_SUITE_OF(MaintSuite, Transfers, "xfr", 1, "");

TEST_F(Transfers, BackupThenRestoreRestartsWithTheSavedConfiguration) {
    outcome("slow");
    ASSERT_EQ(lab().on_ap(1, "rgdb -s /sys/systemName Saved-Name && submit COMMIT").status, 0);
    clear_events();
    // Backup: the server type may be left out; 2 while the upload runs, then 0.
    EXPECT_EQ(ask(0x101, configure(0x186, "ap1.cfg", false) + be16(0x18C, 69)), transfer(1, 2));
    EXPECT_EQ(ask(0x101, configure(0x186, "again.cfg")), transfer(1, 2));
    EXPECT_EQ(ask(0x101, query()), transfer(2, 2));
    ASSERT_TRUE(db_is(kBackupStatus, "0"));
    EXPECT_EQ(ask(0x101, query()), transfer(2, 0));
    EXPECT_EQ(events(), (Lines{"sys -s configsave", "tftp -r ap1.cfg -p 192.0.2.1 -l /var/config.bin"}));
    const std::string saved = slurp(lab().run_file(1, "tftpboot/ap1.cfg"));
    EXPECT_NE(saved.find("\n/sys/systemName Saved-Name\n"), std::string::npos);
    EXPECT_EQ(saved.find("/runtime/"), std::string::npos);

    ASSERT_EQ(lab().on_ap(1, "rgdb -s /sys/systemName Changed && submit COMMIT").status, 0);
    clear_events();
    EXPECT_EQ(ask(0x102, configure(0x186, "ap1.cfg", false)), transfer(1, 0)) << "restore needs the server type";
    const std::string boots = boot_count(lab());
    Client tap = lab().raw();
    EXPECT_EQ(ask(0x102, configure(0x186, "ap1.cfg")), transfer(1, 2));
    EXPECT_EQ(ask(0x102, configure(0x186, "ap1.cfg")), transfer(1, 2));
    EXPECT_EQ(ask(0x102, query()), transfer(2, 2));
    ASSERT_TRUE(db_is(kRestoreStatus, "0"));  // then a reboot 5 s later into the saved configuration
    expect_bye_then_hello(tap);
    EXPECT_NE(boot_count(lab()), boots);
    EXPECT_EQ(db("/sys/systemName"), "Saved-Name");
    EXPECT_EQ(events(), (Lines{"tftp -d 192.0.2.1 -r ap1.cfg", "reboot"}));
}

E2E_SUITE_OF(MaintSuite, Agent, "agt", 1, "");

Bytes profile(const std::string &uuid, const std::string &url, uint8_t interval) {
    return text(47, uuid) + text(48, url) + u8(49, interval) + creds();
}
const std::pair<int, std::string> kProfileAccepted{0, "0184000100"};

TEST_F(Agent, ProfileStartsTheAgentWhichLocksTransfersButNotProfileOrReboot) {
    Finally idle([&] {
        lab().on_ap(1, "pkill -f '^(/usr/sbin/)?qm5_agent '");
        lab().db_set(1, "/qm5_agent/running", "0");
    });
    ASSERT_EQ(lab().on_ap(1, "rgdb -s /qm5_agent/running 0 && rgdb -s /qm5_agent/reg_pass 5").status, 0);
    clear_events();
    EXPECT_EQ(ask(0xE6, profile("grp-1 50%s", "https://nms.example.net/x", 45)), kProfileAccepted);
    for (auto [k, v] : {std::pair{"/qm5_agent/ag_uuid", "grp-1 50%s"}, {"/qm5_agent/nms_server", "https://nms.example.net/x"},
                        {"/qm5_agent/keep_alive", "45"}, {"/qm5_agent/running", "1"}, {"/qm5_agent/reg_pass", "0"},
                        {"/sys/swcontroller/enable", ""}})
        EXPECT_EQ(db(k), v) << k;
    EXPECT_EQ(events(), (Lines{"rgdb -d /sys/swcontroller", "submit COMMIT", "qm5_agent.sh"}));
    EXPECT_TRUE(until([&] { return lab().on_ap(1, "pgrep -f '^qm5_agent '").status == 0; }, kLong));

    // The agent runs: a profile starts nothing; transfers are locked (their
    // notice: the dispatch suite).
    clear_events();
    EXPECT_EQ(ask(0xE6, profile("grp-2", "nms2", 1)), kProfileAccepted);
    EXPECT_EQ(events(), (Lines{"rgdb -d /sys/swcontroller", "submit COMMIT"}));
    Client mgr = lab().udp();
    for (uint16_t op : {0x100, 0x101, 0x102}) EXPECT_FALSE(send_body(mgr, op, query(), 1s)) << op;
    EXPECT_EQ(ask(0x103, text(55, "admin") + text(56, "x")), std::pair(0x40, std::string())) << "reboot is served";
    ASSERT_TRUE(lab().db_set(1, "/qm5_agent/running", "0"));
    EXPECT_EQ(ask(0x100, query()).first, 0) << "unlocked again";
}

E2E_SUITE_OF(MaintSuite, ToolWait, "tool", 1, "");

// tavctl follows an upgrade through the reboot to the hello, and a failed
// restore to its exit status.
TEST_F(ToolWait, FollowsTransfersToTheirOutcome) {
    outcome("slow");
    Sh r = tavctl(lab(), "--yes --target 02:7a:76:00:00:01 --user admin firmware upgrade --server 192.0.2.1 --file fw.bin --wait --limit 600");
    EXPECT_EQ(r.status, 0) << r.out;
    size_t at = 0;
    for (const char *line : {"firmware upgrade: 02:7a:76:00:00:01: running (status 2, ", "firmware upgrade: 02:7a:76:00:00:01: bye",
                             "firmware upgrade: 02:7a:76:00:00:01: hello"})
        EXPECT_NE(at = r.out.find(line, at), std::string::npos) << line << "\n" << r.out;
    outcome("fail");
    r = tavctl(lab(), "--yes --target ap1 --user admin config restore --server 192.0.2.1 --file t.cfg --wait --limit 600");
    EXPECT_EQ(r.status, 1) << r.out;
}

}  // namespace
}  // namespace e2e
