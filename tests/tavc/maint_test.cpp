// Maintenance handlers as the recorder sees them: the commands they compose
// (quoting included), the keys they write, the children they leave, and the
// request walk of each. The lab suites show the same over the wire.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "tavc/maint/maint.h"
#include "tests/tavc/handler_fixture.h"

using namespace fixture;
using tavc_record::LaunchKind;
using Strings = std::vector<std::string>;

namespace {

std::string key(const char *k) {
    return lrgbin_store::find(k).value_or("<unset>");
}

Bytes u8(uint16_t tag, uint8_t v, int declared = -1) {
    return tlv(tag, {v}, declared);
}
const Bytes kServer = tlv(0x0183, {192, 0, 2, 1});

// A configure request (subservice 1, TFTP server) for `file` under `file_tag`.
Bytes configure(uint16_t file_tag, const std::string &file, bool server_type = true) {
    Bytes b = admin() + u8(0x0180, 1) + kServer + tlv(file_tag, Bytes(file.begin(), file.end()));
    return server_type ? b + u8(0x0181, 1) : b;
}
Bytes status_query() {
    return admin() + u8(0x0180, 2);
}

}  // namespace

// Engine::call() points tav_tmp_server at the fixture's own sender record;
// the engine's record goes back before free_buff() releases it.
class MaintEngine : public Engine {
   protected:
    void SetUp() override {
        Engine::SetUp();
        own_sender_ = tav_tmp_server;
    }
    void TearDown() override {
        tav_tmp_server = own_sender_;
        Engine::TearDown();
    }

   private:
    tav_server *own_sender_ = nullptr;
};

class AgentProfile : public MaintEngine {
   protected:
    void SetUp() override {
        MaintEngine::SetUp();
        for (auto [k, v] : {std::pair{"/qm5_agent/record_unmanaged", "7"},
                            {"/qm5_agent/reg_pass", "7"},
                            {"/qm5_agent/ag_uuid", "g1"},
                            {"/qm5_agent/nms_server", "nms.example.net"}})
            lrgbin_store::put(k, v);
    }
    static Bytes profile(const std::string &uuid, const std::string &url, uint8_t interval = 9) {
        return text(47, uuid.c_str()) + text(48, url.c_str()) + u8(49, interval) + admin();
    }
};

TEST_F(AgentProfile, ChangedIdentityClearsRegistrationOnlyWhileNotRunning) {
    const std::string uuid32(32, 'u'), url256(256, 'n');
    const struct {
        const char *name, *running;
        std::string stored_uuid, stored_url, uuid, url;
        bool cleared;
    } cases[] = {
        {"same values", "0", "g1", "nms.example.net", "g1", "nms.example.net", false},
        {"other server", "0", "g1", "nms.example.net", "g1", "nms2.example.net", true},
        {"other identifier", "0", "g1", "nms.example.net", "g2", "nms.example.net", true},
        {"stored is a longer prefix", "0", "g1x", "nms.example.net", "g1", "nms.example.net", true},
        {"full lengths equal themselves", "0", uuid32, url256, uuid32, url256, false},
        {"running: never cleared", "1", "g1", "nms.example.net", "g2", "other", false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        lrgbin_store::put("/qm5_agent/running", c.running);
        lrgbin_store::put("/qm5_agent/record_unmanaged", "7");
        lrgbin_store::put("/qm5_agent/reg_pass", "7");
        lrgbin_store::put("/qm5_agent/ag_uuid", c.stored_uuid);
        lrgbin_store::put("/qm5_agent/nms_server", c.stored_url);
        EXPECT_EQ(same_uuid_and_url(c.uuid.c_str(), c.url.c_str()),
                  c.stored_uuid == c.uuid && c.stored_url == c.url);
        ASSERT_EQ(call(tav_set_ag_profile, 0xE6, profile(c.uuid, c.url)), 0);
        EXPECT_EQ(key("/qm5_agent/record_unmanaged"), c.cleared ? "0" : "7");
        EXPECT_EQ(key("/qm5_agent/reg_pass"), c.cleared ? "0" : "7");
        EXPECT_EQ(key("/qm5_agent/ag_uuid"), c.uuid);
        EXPECT_EQ(key("/qm5_agent/nms_server"), c.url);
    }
}

TEST_F(AgentProfile, StoresProfileCommitsAndStartsTheAgent) {
    const std::pair<const char *, const char *> versions[] = {
        {"5", "6"}, {"98", "99"}, {"99", "1"}, {nullptr, "1"}};
    for (auto [before, after] : versions) {
        SCOPED_TRACE(before ? before : "missing");
        tavc_record::clear();
        if (before) {
            lrgbin_store::put("/runtime/qm5_agent/tav_sync_version", before);
        } else {
            lrgbin_store::clear();
            lrgbin_store::put("/sys/user:1/name", "admin");
            lrgbin_store::put("/sys/user:1/password", "secret");
        }
        ASSERT_EQ(call(tav_set_ag_profile, 0xE6, profile("50%s%n", "nms", 200)), 0);
        EXPECT_EQ(reply_tlvs(), (Bytes{0x01, 0x84, 0x00, 0x01, 0x00}));
        EXPECT_EQ(key("/runtime/qm5_agent/tav_sync_version"), after);
        EXPECT_EQ(key("/qm5_agent/ag_uuid"), "50%s%n");
        EXPECT_EQ(key("/qm5_agent/keep_alive"), "200");
        EXPECT_EQ(key("/qm5_agent/enable"), "1");
        EXPECT_EQ(key("/qm5_agent/running"), "1");
        // The agent's start depends on this machine's processes: the lab
        // suites cover it.
        Strings got = commands();
        ASSERT_GE(got.size(), 2u);
        EXPECT_EQ(Strings(got.begin(), got.begin() + 2),
                  (Strings{"rgdb -d /sys/swcontroller", "submit COMMIT"}));
        EXPECT_LE(got.size(), 3u);
    }
}

TEST_F(AgentProfile, WalkAndRefusals) {
    // Tag 49 moves the walk by 5 whatever its length says.
    ASSERT_EQ(
        call(tav_set_ag_profile, 0xE6,
             text(47, "g") + Bytes{0x00, 0x31, 0x00, 0x02, 0x21, 0x00, 0x30, 0x00, 0x02, 'n', 0} +
                 admin()),
        0);
    EXPECT_EQ(key("/qm5_agent/keep_alive"), "33");
    EXPECT_EQ(key("/qm5_agent/nms_server"), "n");
    // Tag 55 takes at most 65 value bytes: the rest is the next record.
    Bytes user(65, 0);
    std::memcpy(user.data(), "admin", 5);
    Bytes long_user = user + text(56, "secret");
    ASSERT_EQ(call(tav_set_ag_profile, 0xE6, tlv(55, long_user)), 0);

    struct {
        const char *name;
        Bytes body;
        int result;
    } refused[] = {
        {"wrong password", text(47, "x") + text(55, "admin") + text(56, "nope"), 0x40},
        {"precedence", u8(54, 1) + profile("x", "y"), 0xFFFD},
    };
    check_server_precedence(0xE6, 9, &(from_ = sender(7)));
    for (auto &c : refused) {
        SCOPED_TRACE(c.name);
        lrgbin_store::put("/qm5_agent/ag_uuid", "g");
        tavc_record::clear();
        EXPECT_EQ(call(tav_set_ag_profile, 0xE6, c.body, sender(1)), c.result);
        EXPECT_TRUE(reply_tlvs().empty());
        EXPECT_TRUE(commands().empty());
        EXPECT_EQ(key("/qm5_agent/ag_uuid"), "g");
    }
}

TEST(ProcFind, MatchesTheFirstArgumentExactly) {
    const std::string name = "maint-test-" + std::to_string(getpid());
    auto start = [](const std::string &argv0) {
        pid_t pid = fork();
        if (pid == 0) {
            execl("/bin/sleep", argv0.c_str(), "30", (char *)nullptr);
            _exit(127);
        }
        return pid;
    };
    pid_t exact = start(name), pathed = start("/opt/" + name + "x");
    ASSERT_GT(exact, 0);
    ASSERT_GT(pathed, 0);
    // exec has happened once /proc shows the new first argument.
    for (int i = 0; i < 200 && proc_find(name.c_str()) != exact; ++i) usleep(5000);
    EXPECT_EQ(proc_find(name.c_str()), exact);
    EXPECT_EQ(proc_find((name + "x").c_str()), -1) << "a path in front does not match";
    EXPECT_EQ(proc_find(name.substr(0, name.size() - 1).c_str()), -1) << "no prefix match";
    for (pid_t p : {exact, pathed}) kill(p, SIGKILL), waitpid(p, nullptr, 0);
    EXPECT_EQ(proc_find(name.c_str()), -1);
}

class Upgrade : public MaintEngine {};

TEST_F(Upgrade, ProgressMachine) {
    const Bytes failed_text = tlv(0x0187, Bytes{'u', 'p', 'g', 'r', 'a', 'd', 'e', ' ', 'F', 'W',
                                                ' ', 'f', 'a', 'i', 'l', 'e', 'd', 0});
    auto answer = [](uint8_t sub, uint8_t status) { return u8(0x0180, sub) + u8(0x0184, status); };
    const Strings success_run{"", "tftp -f 192.0.2.1 -r fw.bin", "sleep 5; reboot"};
    const Strings failed_run{"", "tftp -f 192.0.2.1 -r fw.bin"};
    const struct {
        const char *name, *progress, *verdict;
        Bytes body;
        Bytes reply;
        Strings commands;  // "" = the fork
        const char *after;
    } cases[] = {
        {"idle, success", "0", "FW_SUCCESS", configure(0x0185, "fw.bin"), answer(1, 0), success_run,
         "3"},
        {"idle, failure", "0", "FW_FAILED", configure(0x0185, "fw.bin"), answer(1, 0), failed_run,
         "1"},
        {"verdict must match exactly", "0", "FW_SUCCESS ", configure(0x0185, "fw.bin"),
         answer(1, 0), failed_run, "1"},
        {"failed, again", "1", "FW_SUCCESS", configure(0x0185, "fw.bin"), answer(1, 0), success_run,
         "3"},
        {"running: nothing", "2", "", configure(0x0185, "fw.bin"), answer(1, 0), {}, "2"},
        {"done: nothing", "3", "", configure(0x0185, "fw.bin"), answer(1, 0), {}, "3"},
        {"unknown progress: nothing", "4", "", configure(0x0185, "fw.bin"), answer(1, 0), {}, "4"},
        {"no server type: nothing",
         "0",
         "",
         configure(0x0185, "fw.bin", false),
         answer(1, 0),
         {},
         "0"},
        {"query idle", "0", "", status_query(), answer(2, 0), {}, "0"},
        {"query failed", "1", "", status_query(), answer(2, 1) + failed_text, {}, "1"},
        {"query running", "2", "", status_query(), answer(2, 2), {}, "2"},
        {"query done", "3", "", status_query(), answer(2, 0), {}, "3"},
        {"query odd value", "9", "", status_query(), answer(2, 0), {}, "9"},
        {"other subservice", "1", "", admin() + u8(0x0180, 5), answer(5, 0), {}, "1"},
        {"no subservice", "1", "", admin(), answer(0, 0), {}, "1"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        tavc_record::clear();
        lrgbin_store::put(kFwUpgradeStatusKey, c.progress);
        lrgbin_store::put(kUpdateVerdictKey, c.verdict);
        out();
        ASSERT_EQ(call(tav_firmware_upgrade, 0x100, c.body), 0);
        EXPECT_EQ(reply_tlvs(), c.reply);
        EXPECT_EQ(commands(), c.commands);
        EXPECT_EQ(key(kFwUpgradeStatusKey), c.after);
        EXPECT_EQ(out(),
                  c.commands.empty() ? "" : "firmware upgrade:" + std::string(c.verdict) + "\n");
    }
}

TEST_F(Upgrade, RefusalsLeaveProgressAlone) {
    check_server_precedence(0x100, 9, &(from_ = sender(7)));
    const std::pair<Bytes, int> cases[] = {
        {text(55, "admin") + text(56, "wrong") + u8(0x0180, 1) + u8(0x0181, 1), 0x40},
        {u8(54, 2) + configure(0x0185, "fw.bin"), 0xFFFD},
    };
    for (const auto &[body, result] : cases) {
        lrgbin_store::put(kFwUpgradeStatusKey, "1");
        EXPECT_EQ(call(tav_firmware_upgrade, 0x100, body, sender(1)), result);
        EXPECT_TRUE(reply_tlvs().empty());
        EXPECT_TRUE(commands().empty());
        EXPECT_EQ(key(kFwUpgradeStatusKey), "1");
    }
}

// Every transfer composes its file name (and server) as one argument.
TEST_F(Upgrade, FileNamesAndAddressesReachTftpAsOneArgument) {
    const std::string n128(128, 'f');
    const struct {
        const char *name;
        Bytes body;
        const char *command;
    } cases[] = {
        {"plain word", configure(0x0185, "fw-1.2_3+a@b=c,d%/x:y.bin"),
         "tftp -f 192.0.2.1 -r fw-1.2_3+a@b=c,d%/x:y.bin"},
        {"semicolon", configure(0x0185, "fw.bin; reboot"), "tftp -f 192.0.2.1 -r 'fw.bin; reboot'"},
        {"substitution", configure(0x0185, "$(reboot)"), "tftp -f 192.0.2.1 -r '$(reboot)'"},
        {"backquotes", configure(0x0185, "`reboot`"), "tftp -f 192.0.2.1 -r '`reboot`'"},
        {"quote", configure(0x0185, "it's"), "tftp -f 192.0.2.1 -r 'it'\\''s'"},
        {"newline", configure(0x0185, "a\nreboot"), "tftp -f 192.0.2.1 -r 'a\nreboot'"},
        {"up to the first NUL", configure(0x0185, std::string("fw.bin\0; reboot", 15)),
         "tftp -f 192.0.2.1 -r fw.bin"},
        {"128 bytes kept whole", configure(0x0185, n128), nullptr},
        {"129 bytes ignored", configure(0x0185, n128 + "g"), "tftp -f 192.0.2.1 -r ''"},
        {"address of 3 bytes ignored",
         admin() + u8(0x0180, 1) + u8(0x0181, 1) + tlv(0x0183, {10, 0, 0}) + text(0x0185, "f"),
         "tftp -f '' -r f"},
        {"address of 5 bytes ignored",
         admin() + u8(0x0180, 1) + u8(0x0181, 1) + tlv(0x0183, {10, 0, 0, 1, 0}) +
             text(0x0185, "f"),
         "tftp -f '' -r f"},
        {"one-byte tags move by 5",
         admin() + Bytes{0x01, 0x80, 0x00, 0x02, 0x01, 0x01, 0x81, 0x00, 0x01, 0x01} + kServer +
             text(0x0185, "f"),
         "tftp -f 192.0.2.1 -r f"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        tavc_record::clear();
        lrgbin_store::put(kFwUpgradeStatusKey, "0");
        ASSERT_EQ(call(tav_firmware_upgrade, 0x100, c.body), 0);
        Strings got = commands();
        ASSERT_GE(got.size(), 2u);
        EXPECT_EQ(got[1], c.command ? c.command : "tftp -f 192.0.2.1 -r " + n128);
    }
    // The same quoting in the backup and the restore.
    const struct {
        int (*handler)(const uint8_t *, uint16_t, uint8_t *);
        uint16_t op;
        const char *command;
    } others[] = {
        {tav_configuration_backup, 0x101, "tftp -r 'a b;$(x)' -p 192.0.2.1 -l /var/config.bin"},
        {tav_configuration_restore, 0x102, "tftp -d 192.0.2.1 -r 'a b;$(x)'"},
    };
    for (const auto &o : others) {
        tavc_record::clear();
        ASSERT_EQ(call(o.handler, o.op, configure(0x0186, "a b;$(x)")), 0);
        Strings got = commands();
        EXPECT_EQ(std::count(got.begin(), got.end(), std::string(o.command)), 1) << o.op;
    }
}

TEST_F(Upgrade, CommandTooLongForItsBufferRunsNothingAndFails) {
    lrgbin_store::put(kFwUpgradeStatusKey, "0");
    lrgbin_store::put(kUpdateVerdictKey, "FW_SUCCESS");  // stale, from an earlier run
    ASSERT_EQ(call(tav_firmware_upgrade, 0x100, configure(0x0185, std::string(128, '\''))), 0);
    EXPECT_EQ(commands(), Strings{""});
    EXPECT_EQ(key(kFwUpgradeStatusKey), "1");
}

class Transfers : public MaintEngine {};

TEST_F(Transfers, BackupUploadsAfterSavingAndEndsAtZero) {
    // The child runs inline here, so a started backup has ended (0) by the
    // time the reply reads the key; the lab suites see the 2 in between.
    const Strings run{"/usr/sbin/sys -s configsave", "",
                      "tftp -r cfg.bin -p 192.0.2.1 -l /var/config.bin"};
    const struct {
        const char *name, *progress;
        Bytes body;
        Strings commands;
        Bytes reply;
    } cases[] = {
        {"server type defaults to tftp", "0", configure(0x0186, "cfg.bin", false), run,
         u8(0x0180, 1) + u8(0x0184, 0)},
        {"server port changes nothing", "0", configure(0x0186, "cfg.bin") + tlv(0x018C, {0, 69}),
         run, u8(0x0180, 1) + u8(0x0184, 0)},
        {"after another value", "1", configure(0x0186, "cfg.bin"), run,
         u8(0x0180, 1) + u8(0x0184, 0)},
        {"running: nothing", "2", configure(0x0186, "cfg.bin"), {}, u8(0x0180, 1) + u8(0x0184, 2)},
        {"other server type",
         "0",
         configure(0x0186, "cfg.bin", false) + u8(0x0181, 2),
         {},
         u8(0x0180, 1) + u8(0x0184, 0)},
        {"query answers the key", "5", status_query(), {}, u8(0x0180, 2) + u8(0x0184, 5)},
        {"low 8 bits", "258", status_query(), {}, u8(0x0180, 2) + u8(0x0184, 2)},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        tavc_record::clear();
        lrgbin_store::put(kBackupStatusKey, c.progress);
        ASSERT_EQ(call(tav_configuration_backup, 0x101, c.body), 0);
        EXPECT_EQ(commands(), c.commands);
        EXPECT_EQ(reply_tlvs(), c.reply);
    }
}

TEST_F(Transfers, RestoreRebootsOnlyAfterASuccessfulDownload) {
    const struct {
        const char *name, *progress;
        Bytes body;
        int tftp_status;
        Strings commands;
        const char *after;
    } cases[] = {
        {"success",
         "0",
         configure(0x0186, "cfg.bin"),
         0,
         {"", "tftp -d 192.0.2.1 -r cfg.bin", "", "sleep 5; reboot"},
         "0"},
        {"failure",
         "1",
         configure(0x0186, "cfg.bin"),
         256,
         {"", "tftp -d 192.0.2.1 -r cfg.bin"},
         "1"},
        {"not started",
         "0",
         configure(0x0186, "cfg.bin"),
         -1,
         {"", "tftp -d 192.0.2.1 -r cfg.bin"},
         "1"},
        {"running: nothing", "2", configure(0x0186, "cfg.bin"), 0, {}, "2"},
        {"no server type: nothing", "1", configure(0x0186, "cfg.bin", false), 0, {}, "1"},
        {"query", "1", status_query(), 0, {}, "1"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        tavc_record::clear();
        tavc_record::set_system_status(c.tftp_status);
        lrgbin_store::put(kRestoreStatusKey, c.progress);
        ASSERT_EQ(call(tav_configuration_restore, 0x102, c.body), 0);
        EXPECT_EQ(commands(), c.commands);
        EXPECT_EQ(key(kRestoreStatusKey), c.after);
        // The reply carries the key as it is after the start.
        EXPECT_EQ(reply_tlvs(), u8(0x0180, c.body == status_query() ? 2 : 1) +
                                    u8(0x0184, uint8_t(std::stoi(c.after))));
    }
}

class Reboot : public MaintEngine {};

TEST_F(Reboot, AnswersAtOnceAndLeavesADelayedChild) {
    const Bytes answer{0x01, 0x89, 0x00, 0x04, 0,    0,    0,    2,
                       0x01, 0x8A, 0x00, 0x04, 0x00, 0x04, 0x93, 0xE0};
    const struct {
        const char *name;
        Bytes body;
        unsigned delay;
    } cases[] = {
        {"no delay", admin(), 0},
        {"delay 30", be32(0x0188, 30) + admin(), 30},
        {"delay 4294967295", admin() + be32(0x0188, 0xFFFFFFFF), 0xFFFFFFFF},
        {"length field 2 still takes 4 bytes", tlv(0x0188, {0, 0, 1, 2}, 2) + admin(), 0x0102},
        {"4 value bytes past the body: the walk ends", admin() + tlv(0x0188, {0, 9}), 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        tavc_record::clear();
        ASSERT_EQ(call(tav_reboot, 0x103, c.body), 0);
        EXPECT_EQ(reply_tlvs(), answer);
        ASSERT_EQ(tavc_record::launches().size(), 1u);
        const auto &l = tavc_record::launches()[0];
        EXPECT_EQ(l.kind, LaunchKind::Exec);
        EXPECT_EQ(l.command, "/usr/sbin/submit submit REBOOT");
        EXPECT_EQ(l.delay, c.delay);
        EXPECT_EQ(l.fail_status, 6);
    }
    // Refused requests leave no child.
    check_server_precedence(0x103, 9, &(from_ = sender(7)));
    tavc_record::clear();
    EXPECT_EQ(call(tav_reboot, 0x103, text(55, "admin") + text(56, "x"), sender(1)), 0x40);
    EXPECT_EQ(call(tav_reboot, 0x103, u8(54, 3) + admin(), sender(1)), 0xFFFD);
    EXPECT_TRUE(reply_tlvs().empty());
    EXPECT_TRUE(tavc_record::launches().empty());
}
