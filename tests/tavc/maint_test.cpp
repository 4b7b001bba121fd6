// SPDX-License-Identifier: ISC
// Maintenance handlers as the recorder sees them: what the lab cannot show cheaply (walk sizes,
// odd progress values, commands too long to run, the full-length agent identity) and the
// composed commands. The lab suites follow the same handlers over the wire.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "tavc/maint/maint.h"
#include "tests/tavc/handler_fixture.h"

using namespace fixture;

namespace {

Bytes answer(uint8_t sub, uint8_t status) { return u8(0x0180, sub) + u8(0x0184, status); }
const Bytes kServer = tlv(0x0183, {192, 0, 2, 1});

// A configure request (subservice 1, TFTP server) for `file` under `file_tag`.
Bytes configure(uint16_t file_tag, const std::string &file, bool server_type = true) {
    Bytes b = admin() + u8(0x0180, 1) + kServer + tlv(file_tag, Bytes(file.begin(), file.end()));
    return server_type ? b + u8(0x0181, 1) : b;
}
const Bytes kQuery = admin() + u8(0x0180, 2);
Bytes profile(const std::string &uuid, const std::string &url, uint8_t interval = 9) {
    return text(47, uuid) + text(48, url) + u8(49, interval) + admin();
}

}  // namespace

using Maint = Engine;

// A new identity clears the registration unless the agent runs; sync versions count; the walk goes
// by sizes.
TEST_F(Maint, AgentProfile) {
    const std::string uuid32(32, 'u'), url256(256, 'n');
    const struct { const char *name, *running; std::string stored_uuid, stored_url, uuid, url; bool cleared; } cases[] = {
        {"running: never cleared", "1", "g1", "nms", "g2", "other", false},
        {"same values", "0", "g1", "nms", "g1", "nms", false},
        {"other server", "0", "g1", "nms", "g1", "nms2", true},
        {"other identifier", "0", "g1", "nms", "g2", "nms", true},
        {"stored is longer", "0", "g1x", "nms", "g1", "nms", true},
        {"full lengths equal themselves", "0", uuid32, url256, uuid32, url256, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        put({{"/qm5_agent/running", c.running}, {"/qm5_agent/record_unmanaged", "7"}, {"/qm5_agent/reg_pass", "7"},
             {"/qm5_agent/ag_uuid", c.stored_uuid}, {"/qm5_agent/nms_server", c.stored_url}});
        ASSERT_EQ(call(tav_set_ag_profile, 0xE6, profile(c.uuid, c.url)), 0);
        const char *reg = c.cleared ? "0" : "7";
        EXPECT_EQ(std::tuple(stored("/qm5_agent/record_unmanaged"), stored("/qm5_agent/reg_pass"),
                             stored("/qm5_agent/ag_uuid"), stored("/qm5_agent/nms_server")),
                  std::tuple(reg, reg, c.uuid, c.url));
        EXPECT_EQ(same_uuid_and_url(c.uuid.c_str(), c.url.c_str()), 1);
    }
    // Sync versions count 1..99.
    for (auto [before, after] : {std::pair{"5", "6"}, {"98", "99"}, {"99", "1"}, {"", "1"}}) {
        lrgbin_store::put("/runtime/qm5_agent/tav_sync_version", before);
        ASSERT_EQ(call(tav_set_ag_profile, 0xE6, profile("50%s%n", "nms", 200)), 0);
        EXPECT_EQ(reply_tlvs(), (Bytes{0x01, 0x84, 0x00, 0x01, 0x00}));
        EXPECT_EQ(stored("/runtime/qm5_agent/tav_sync_version"), after) << before;
    }
    EXPECT_EQ(std::tuple(stored("/qm5_agent/ag_uuid"), stored("/qm5_agent/keep_alive")), std::tuple("50%s%n", "200"));
    // Tag 49 moves the walk by 5 whatever its length says; tag 55 takes at most 65 value bytes.
    const Bytes odd49 = Bytes{0x00, 0x31, 0x00, 0x02, 0x21, 0x00, 0x30, 0x00, 0x02, 'n', 0};
    ASSERT_EQ(call(tav_set_ag_profile, 0xE6, text(47, "g") + odd49 + admin()), 0);
    EXPECT_EQ(std::tuple(stored("/qm5_agent/keep_alive"), stored("/qm5_agent/nms_server")), std::tuple("33", "n"));
    EXPECT_EQ(call(tav_set_ag_profile, 0xE6, tlv(55, str("admin") + Bytes(60, 0) + text(56, "secret"))), 0);
}

TEST(ProcFind, MatchesTheFirstArgumentExactly) {
    const std::string name = "maint-test-" + std::to_string(getpid());
    auto start = [](const std::string &argv0) {
        pid_t pid = fork();
        if (pid == 0) execl("/bin/sleep", argv0.c_str(), "30", (char *)nullptr), _exit(127);
        return pid;
    };
    pid_t exact = start(name), pathed = start("/opt/" + name + "x");
    ASSERT_TRUE(exact > 0 && pathed > 0);
    // exec has happened once /proc shows the new first argument.
    for (int i = 0; i < 200 && proc_find(name.c_str()) != exact; ++i) usleep(5000);
    // A path in front does not match, nor does a prefix.
    EXPECT_EQ(std::tuple(proc_find(name.c_str()), proc_find((name + "x").c_str()),
                         proc_find(name.substr(0, name.size() - 1).c_str())), std::tuple(exact, -1, -1));
    for (pid_t p : {exact, pathed}) kill(p, SIGKILL), waitpid(p, nullptr, 0);
    EXPECT_EQ(proc_find(name.c_str()), -1);
}

// Progress, verdict, and the one argument each request value becomes.
TEST_F(Maint, UpgradeProgressMachine) {
    const std::string n128(128, 'f');
    const Bytes failed_text = text(0x0187, "upgrade FW failed"), head = admin() + u8(0x0180, 1) + u8(0x0181, 1),
                f = text(0x0185, "f");
    const Strings no_address{"", "tftp -f '' -r f"};
    const Strings success{"", "tftp -f 192.0.2.1 -r fw.bin", "sleep 5; reboot"};  // "": the fork
    const Strings failure{"", "tftp -f 192.0.2.1 -r fw.bin"};
    const Bytes start = configure(0x0185, "fw.bin");
    const struct { const char *name, *progress, *verdict; Bytes body, reply; Strings commands; const char *after; } cases[] = {
        {"idle, success", "0", "FW_SUCCESS", start, answer(1, 0), success, "3"},
        {"verdict must match exactly", "0", "FW_SUCCESS ", start, answer(1, 0), failure, "1"},
        {"failed, again", "1", "FW_SUCCESS", start, answer(1, 0), success, "3"},
        {"running: nothing", "2", "", start, answer(1, 0), {}, "2"},
        {"done: nothing", "3", "", start, answer(1, 0), {}, "3"},
        {"unknown progress: nothing", "4", "", start, answer(1, 0), {}, "4"},
        {"no server type", "0", "", configure(0x0185, "fw.bin", false), answer(1, 0), {}, "0"},
        {"query failed", "1", "", kQuery, answer(2, 1) + failed_text, {}, "1"},
        {"query running", "2", "", kQuery, answer(2, 2), {}, "2"},
        {"query done", "3", "", kQuery, answer(2, 0), {}, "3"},
        {"query odd value", "9", "", kQuery, answer(2, 0), {}, "9"},
        {"other subservice", "1", "", admin() + u8(0x0180, 5), answer(5, 0), {}, "1"},
        {"no subservice", "1", "", admin(), answer(0, 0), {}, "1"},
        {"up to the first NUL", "0", "", configure(0x0185, std::string("fw.bin\0; reboot", 15)), answer(1, 0),
         failure, "1"},
        {"128 bytes kept whole", "0", "", configure(0x0185, n128), answer(1, 0), {"", "tftp -f 192.0.2.1 -r " + n128}, "1"},
        {"129 bytes ignored", "0", "", configure(0x0185, n128 + "g"), answer(1, 0), {"", "tftp -f 192.0.2.1 -r ''"}, "1"},
        {"address of 3 bytes ignored", "0", "", head + tlv(0x0183, {10, 0, 0}) + f, answer(1, 0), no_address, "1"},
        {"address of 5 bytes ignored", "0", "", head + tlv(0x0183, {10, 0, 0, 1, 0}) + f, answer(1, 0), no_address, "1"},
        {"one-byte tags move by 5", "0", "", admin() + Bytes{0x01, 0x80, 0, 2, 1, 0x01, 0x81, 0, 1, 1} + kServer +
         text(0x0185, "fw.bin"), answer(1, 0), failure, "1"},
        // A command too long for its buffer runs nothing, whatever verdict an earlier run left.
        {"unfit command", "0", "FW_SUCCESS", configure(0x0185, std::string(128, '\'')), answer(1, 0), {""}, "1"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        tavc_record::clear();
        put({{kFwUpgradeStatusKey, c.progress}, {kUpdateVerdictKey, c.verdict}});
        out();
        ASSERT_EQ(call(tav_firmware_upgrade, 0x100, c.body), 0);
        EXPECT_EQ(reply_tlvs(), c.reply);
        EXPECT_EQ(commands(), c.commands);
        EXPECT_EQ(stored(kFwUpgradeStatusKey), c.after);
        EXPECT_EQ(out(), c.commands.size() < 2 ? "" : "firmware upgrade:" + std::string(c.verdict) + "\n");  // tftp ran
    }
}

TEST_F(Maint, BackupSavesBeforeUploadingAndEndsAtZero) {
    // The child runs inline here, so a started backup has ended (0) when the
    // reply reads the key; the lab suites see the 2 in between.
    const Strings run{"/usr/sbin/sys -s configsave", "", "tftp -r cfg.bin -p 192.0.2.1 -l /var/config.bin"};
    const Bytes start = configure(0x0186, "cfg.bin");
    const struct { const char *name, *progress; Bytes body; Strings commands; Bytes reply; } cases[] = {
        {"server type defaults to tftp", "0", configure(0x0186, "cfg.bin", false), run, answer(1, 0)},
        {"server port changes nothing", "0", start + tlv(0x018C, {0, 69}), run, answer(1, 0)},
        {"after another value", "1", start, run, answer(1, 0)},
        {"running: nothing", "2", start, {}, answer(1, 2)},
        {"other server type", "0", configure(0x0186, "c", false) + u8(0x0181, 2), {}, answer(1, 0)},
        {"query answers the key", "5", kQuery, {}, answer(2, 5)},
        {"low 8 bits", "258", kQuery, {}, answer(2, 2)},
        {"file name quoted", "0", configure(0x0186, "a b;$(x)"),
         {"/usr/sbin/sys -s configsave", "", "tftp -r 'a b;$(x)' -p 192.0.2.1 -l /var/config.bin"}, answer(1, 0)},
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

TEST_F(Maint, RestoreRebootsOnlyAfterASuccessfulDownload) {
    const Bytes start = configure(0x0186, "cfg.bin");
    const Strings download{"", "tftp -d 192.0.2.1 -r cfg.bin"};
    const struct { const char *name, *progress; Bytes body; int tftp_status; Strings commands; const char *after; } cases[] = {
        {"success", "0", start, 0, {"", "tftp -d 192.0.2.1 -r cfg.bin", "", "sleep 5; reboot"}, "0"},
        {"failure", "1", start, 256, download, "1"},
        {"not started", "0", start, -1, download, "1"},
        {"running: nothing", "2", start, 0, {}, "2"},
        {"no server type: nothing", "1", configure(0x0186, "cfg.bin", false), 0, {}, "1"},
        {"query", "1", kQuery, 0, {}, "1"},
        {"file name quoted", "0", configure(0x0186, "it's"), 256, {"", "tftp -d 192.0.2.1 -r 'it'\\''s'"}, "1"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        tavc_record::clear();
        tavc_record::set_system_status(c.tftp_status);
        lrgbin_store::put(kRestoreStatusKey, c.progress);
        ASSERT_EQ(call(tav_configuration_restore, 0x102, c.body), 0);
        EXPECT_EQ(commands(), c.commands);
        EXPECT_EQ(stored(kRestoreStatusKey), c.after);
        // The reply carries the key as it is after the start.
        EXPECT_EQ(reply_tlvs(), answer(c.body == kQuery ? 2 : 1, uint8_t(std::stoi(c.after))));
    }
}

TEST_F(Maint, RebootAnswersAtOnceAndLeavesADelayedChild) {
    const Bytes reply{0x01, 0x89, 0, 4, 0, 0, 0, 2, 0x01, 0x8A, 0, 4, 0x00, 0x04, 0x93, 0xE0};
    const struct { const char *name; Bytes body; unsigned delay; } cases[] = {
        {"largest delay", admin() + be32(0x0188, 0xFFFFFFFF), 0xFFFFFFFF},
        {"length field 2 still takes 4 bytes", tlv(0x0188, {0, 0, 1, 2}, 2) + admin(), 0x0102},
        {"4 value bytes past the body: the walk ends", admin() + tlv(0x0188, {0, 9}), 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        tavc_record::clear();
        ASSERT_EQ(call(tav_reboot, 0x103, c.body), 0);
        EXPECT_EQ(reply_tlvs(), reply);
        ASSERT_EQ(tavc_record::launches().size(), 1u);
        const auto &l = tavc_record::launches()[0];
        EXPECT_EQ(std::tuple(l.kind, l.command, l.delay, l.fail_status),
                  std::tuple(tavc_record::LaunchKind::Exec, "/usr/sbin/submit submit REBOOT", c.delay, 6));
    }
}

// Refused requests get their code, no TLVs, and change and start nothing.
TEST_F(Maint, RefusalsChangeNothing) {
    const struct { Handler handler; uint16_t op; Bytes body; } handlers[] = {
        {tav_set_ag_profile, 0xE6, profile("x", "y")}, {tav_firmware_upgrade, 0x100, configure(0x0185, "f")},
        {tav_configuration_backup, 0x101, configure(0x0186, "f")},
        {tav_configuration_restore, 0x102, configure(0x0186, "f")}, {tav_reboot, 0x103, admin()},
    };
    for (const auto &h : handlers) {
        SCOPED_TRACE(h.op);
        check_server_precedence(h.op, 9, &(from_ = sender(7)));
        for (auto [body, result] : {std::pair{u8(54, 3) + h.body, 0xFFFD},
                                    {text(55, "admin") + text(56, "nope") + u8(0x0180, 1) + u8(0x0181, 1), 0x40}}) {
            tavc_record::clear();
            put({{"/qm5_agent/ag_uuid", "g"}, {kFwUpgradeStatusKey, "1"}, {kBackupStatusKey, "1"}, {kRestoreStatusKey, "1"}});
            EXPECT_EQ(call(h.handler, h.op, body, sender(1)), result);
            EXPECT_TRUE(reply_tlvs().empty() && tavc_record::launches().empty());
            EXPECT_EQ(std::tuple(stored("/qm5_agent/ag_uuid"), stored(kFwUpgradeStatusKey), stored(kBackupStatusKey),
                                 stored(kRestoreStatusKey)), std::tuple("g", "1", "1", "1"));
        }
    }
}
