// The tavctl program against a stand-in device on loopback UDP: output
// forms, exit statuses, password sources.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "fake_device.h"

extern char **environ;

namespace {

using namespace tav;
using namespace tav::client;
using test::FakeDevice;
using test::make_reply;

struct Run {
    int status = -1;
    std::string out, err;
};

std::string slurp(const std::string &path) {
    std::ifstream f(path);
    return std::string(std::istreambuf_iterator<char>(f), {});
}

// Runs tavctl with `args`; `env` entries are added to the environment.
Run tavctl(const std::vector<std::string> &args, const std::vector<std::string> &env = {}) {
    static int n = 0;
    std::string base = ::testing::TempDir() + "tavctl_" + std::to_string(getpid()) + "_" +
                       std::to_string(n++);
    std::string out = base + ".out", err = base + ".err";
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&fa, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    std::vector<std::string> all{TAVCTL};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (auto &a : all) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> envs;
    for (char **e = environ; *e; ++e)
        if (std::string_view(*e).rfind("TAVCTL_PASSWORD=", 0) != 0) envs.push_back(*e);
    envs.insert(envs.end(), env.begin(), env.end());
    std::vector<char *> envp;
    for (auto &e : envs) envp.push_back(e.data());
    envp.push_back(nullptr);
    // setsid: no controlling terminal, so the password prompt cannot block.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSID);
    pid_t pid;
    Run r;
    if (posix_spawn(&pid, TAVCTL, &fa, &attr, argv.data(), envp.data()) == 0) {
        int st = 0;
        waitpid(pid, &st, 0);
        r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    }
    posix_spawn_file_actions_destroy(&fa);
    posix_spawnattr_destroy(&attr);
    r.out = slurp(out);
    r.err = slurp(err);
    std::remove(out.c_str());
    std::remove(err.c_str());
    return r;
}

std::vector<std::string> udp(const FakeDevice &d, std::vector<std::string> rest) {
    std::vector<std::string> a{"--udp", "127.0.0.1", "--port", std::to_string(d.port()),
                               "--cipher", TEST_CIPHER, "--timeout", "0.3"};
    a.insert(a.end(), rest.begin(), rest.end());
    return a;
}

std::vector<std::vector<uint8_t>> discovery_answer(const Message &req) {
    if (req.op_code() != kOpDiscovery) return {};
    return {make_reply(req, 0,
                       {tlv_text(kTagVendor, "Quelbo"), tlv_text(kTagModelName, "AP-9 A1"),
                        tlv_text(kTagHostName, "AP-9"), tlv_text(kTagFirmwareVersion, "1.0.2"),
                        tlv_mac(kTagMac, Mac{0x02, 0x7a, 0x76, 0x00, 0x00, 0x01}),
                        tlv_text(kTagSystemName, "lab ap"),
                        tlv_ipv4(kTagIpAddress, {192, 0, 2, 11}), tlv_u16(kTagWebPort, 8080)})};
}

TEST(Tavctl, DiscoverJsonIsAnArrayEvenOfOne) {
    FakeDevice dev(TEST_CIPHER, discovery_answer);
    auto r = tavctl(udp(dev, {"--json", "discover"}));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("[\n  {", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("\"mac\": \"02:7a:76:00:00:01\""), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"ip\": \"192.0.2.11\""), std::string::npos);
    EXPECT_NE(r.out.find("\"web_port\": 8080"), std::string::npos);
    EXPECT_NE(r.out.find("\"system_name\": \"lab ap\""), std::string::npos);
    EXPECT_EQ(r.out.substr(r.out.size() - 6), "  }\n]\n");
    EXPECT_EQ(r.out.find("\"mac\"", r.out.find("\"mac\"") + 1), std::string::npos);  // one object

    auto table = tavctl(udp(dev, {"discover"}));
    ASSERT_EQ(table.status, 0) << table.err;
    EXPECT_EQ(table.out.rfind("MAC", 0), 0u);
    EXPECT_NE(table.out.find("02:7a:76:00:00:01  192.0.2.11"), std::string::npos) << table.out;
    EXPECT_NE(table.out.find("AP-9 A1"), std::string::npos);
}

TEST(Tavctl, NoReplyExitStatus) {
    FakeDevice dev(TEST_CIPHER, [](const Message &) { return std::vector<std::vector<uint8_t>>{}; });
    auto r = tavctl(udp(dev, {"--json", "discover"}));
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.out, "[]\n");
    EXPECT_NE(r.err.find("no reply"), std::string::npos) << r.err;
    EXPECT_EQ(tavctl(udp(dev, {"hello"})).status, 3);
}

TEST(Tavctl, RawPrintsTypedTlvsAndResultStatus) {
    FakeDevice dev(TEST_CIPHER, [](const Message &req) {
        if (req.op_code() == kOpSetSnmp)
            return std::vector<std::vector<uint8_t>>{make_reply(
                req, 2002, {tlv_u32(393, 0), tlv_u32(394, 20), {395, {2, 0, 0, 0}}})};
        return std::vector<std::vector<uint8_t>>{make_reply(req, 0, req.tlvs)};  // echo
    });
    auto r = tavctl(udp(dev, {"raw", "tav_set_snmp_configuration", "--tlv", "SNMP_ROCOMM=x"}));
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.out.find("result 2002 some SNMP items refused"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("SNMP_ERROR_MASK            2"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("WAIT_TIME                  20"), std::string::npos) << r.out;
    ASSERT_EQ(dev.requests().size(), 1u);
    EXPECT_EQ(dev.requests()[0].text(kTagSnmpRocomm), "x");

    auto echo = tavctl(udp(dev, {"--json", "raw", "0x103", "--tlv", "54=u8:5", "--tlv",
                                 "DELAY_TIME=30", "--tlv", "999=x:0a0b"}));
    ASSERT_EQ(echo.status, 0) << echo.err;
    EXPECT_NE(echo.out.find("\"name\": \"SERVER_PRECEDENCE\""), std::string::npos) << echo.out;
    EXPECT_NE(echo.out.find("\"value\": 30"), std::string::npos);
    EXPECT_NE(echo.out.find("\"name\": null"), std::string::npos);
    EXPECT_NE(echo.out.find("\"hex\": \"0a0b\""), std::string::npos);

    auto bad = tavctl(udp(dev, {"raw", "0xA1", "--tlv", "54=300"}));
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.err.find("0 to 255"), std::string::npos);
}

TEST(Tavctl, VerifyPasswordSources) {
    FakeDevice dev(TEST_CIPHER, [](const Message &req) {
        bool ok = req.text(kTagUserName) == "admin" && req.text(kTagPassword) == "s3cr%t";
        return std::vector<std::vector<uint8_t>>{
            ok ? make_reply(req, 0, {{kTagVerification, {1, 0, 0, 0}}}) : make_reply(req, 64, {})};
    });
    std::string pwfile = ::testing::TempDir() + "tavctl_pw_" + std::to_string(getpid());
    std::ofstream(pwfile) << "s3cr%t\nsecond line ignored\n";

    auto ok = tavctl(udp(dev, {"verify", "--user", "admin", "--password-file", pwfile,
                               "--precedence", "7"}));
    EXPECT_EQ(ok.status, 0) << ok.err;
    EXPECT_NE(ok.out.find("credentials accepted"), std::string::npos) << ok.out;
    EXPECT_EQ(dev.requests().back().u8(kTagServerPrecedence), 7);

    auto env = tavctl(udp(dev, {"verify", "--user", "admin"}), {"TAVCTL_PASSWORD=wrong"});
    EXPECT_EQ(env.status, 1);
    EXPECT_NE(env.out.find("64 authentication failed"), std::string::npos) << env.out;
    EXPECT_FALSE(dev.requests().back().find(kTagServerPrecedence));

    auto none = tavctl(udp(dev, {"verify", "--user", "admin"}));  // no tty, no file, no env
    EXPECT_EQ(none.status, 2);
    EXPECT_NE(none.err.find("no password"), std::string::npos) << none.err;
    EXPECT_EQ(tavctl(udp(dev, {"verify", "--user", "admin", "--password", "x"})).status, 2);
    std::remove(pwfile.c_str());
}

TEST(Tavctl, FunctionsListsNamesAndSetupErrorsHaveTheirStatus) {
    FakeDevice dev(TEST_CIPHER, [](const Message &req) {
        return std::vector<std::vector<uint8_t>>{
            make_reply(req, 0, {tlv_u16(500, 0x00A0), tlv_u16(500, 0x200C), tlv_u16(501, 0)})};
    });
    auto r = tavctl(udp(dev, {"functions"}));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "0x00A0  tav_report\n0x200C  tav_set_ap_array_member_list\n");

    auto cipher = tavctl({"--udp", "127.0.0.1", "--cipher", "/nonexistent/c.so", "discover"});
    EXPECT_EQ(cipher.status, 4);
    EXPECT_NE(cipher.err.find("cannot load cipher library"), std::string::npos);
    auto iface = tavctl({"--iface", "tavnoif0", "--cipher", TEST_CIPHER, "discover"});
    EXPECT_EQ(iface.status, 5);
    EXPECT_NE(iface.err.find("no such network interface"), std::string::npos) << iface.err;
    EXPECT_EQ(tavctl({"discover"}).status, 2);  // no path
    EXPECT_EQ(tavctl({"--help"}).status, 0);
    EXPECT_EQ(tavctl({"frobnicate", "--udp", "127.0.0.1"}).status, 2);
}

}  // namespace
