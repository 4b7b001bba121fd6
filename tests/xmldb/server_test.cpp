// SPDX-License-Identifier: ISC
// The xmldb server binary and the rgdb tool, driven over their real socket.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <fstream>
#include <thread>

#include "lrgbin/rgdb_getset.h"
#include "support.h"

using namespace dbtest;
using namespace std::literals;

namespace {

int sh(const std::string &cmd) { return WEXITSTATUS(std::system(cmd.c_str())); }

class Server {
public:
    explicit Server(const TempDir &dir, std::vector<std::string> args = {}) : sock_(dir.sock()) {
        args.insert(args.begin(), {XMLDB_BIN, "-s", sock_});
        std::vector<char *> argv;
        for (auto &a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        posix_spawn(&pid_, argv[0], nullptr, nullptr, argv.data(), environ);
        for (int i = 0, fd; i < 500 && (fd = unix_socket(sock_)) < 0; i++) std::this_thread::sleep_for(10ms);
    }
    ~Server() { kill(pid_, SIGTERM), waitpid(pid_, nullptr, 0); }
    std::string text(uint16_t cmd, const std::string &arg) const {
        int fd = unix_socket(sock_);
        send_all(fd, request(cmd, arg));
        std::string r = read_all(fd);
        return close(fd), r;
    }
    std::string get(const std::string &key) const {
        std::string r = text(1, key);
        EXPECT_EQ(r.find('\0'), r.size() - 1) << key;  // value, one NUL, nothing else
        return r.substr(0, r.find('\0'));
    }
    int status(uint16_t cmd, const std::string &arg) const {
        std::string r = text(cmd, arg);
        int32_t st = -99;
        return r.size() == 16 ? (std::memcpy(&st, r.data() + 12, 4), st) : st;
    }
    int set(const std::string &key, const std::string &value) const { return status(2, key + " " + value); }
    pid_t pid_ = -1;
    std::string sock_;
};

}  // namespace

// Keys, values and subtrees; every value survives a dump and reload; a file
// that does not parse leaves the store alone; the -p state file outlives the
// server and beats the profile.
TEST(Xmldb, StoreDumpReloadAndStateFile) {
    TempDir dir;
    close(unix_socket(dir.sock(), true));  // socket file of a server that died: replaced
    std::ofstream(dir.file("profile")) << "# comment\n\n/p 1\r\n/q from profile\n";
    std::vector<std::string> args = {"-f", dir.file("profile"), "-p", dir.file("state")};
    {
        Server s(dir, args);
        EXPECT_EQ(sh(XMLDB_BIN " -s "s + dir.sock() + " 2>/dev/null"), 1);  // a second server on a live socket
        EXPECT_EQ(s.get("/p"), "1");
        for (const char *bad : {" v", "#k v", "/t\tab v"}) EXPECT_EQ(s.status(2, bad), -1) << bad;
        const std::pair<const char *, const char *> after_delete[] = {
            {"/a", ""}, {"/a/b", ""}, {"/a/b/c:2/d", ""}, {"/ab", "1"}, {"/a!", "1"}, {"/a0", "1"}};
        for (auto [k, v] : after_delete) ASSERT_EQ(s.set(k, "1"), 0);
        EXPECT_EQ(s.status(3, "/a"), 0);
        for (auto [k, v] : after_delete) EXPECT_EQ(s.get(k), v) << k;
        const std::vector<std::string> values = {"two  spaces ", "line1\nline2", "back\\slash\\n", "tab\tcr\r", "",
                                                 " lead", "#hash", "\xc3\xbc"};
        for (size_t i = 0; i < values.size(); i++) ASSERT_EQ(s.set("/v/" + std::to_string(i), values[i]), 0);
        ASSERT_EQ(s.status(5, dir.file("dump.txt")), 0);
        ASSERT_EQ(s.set("/v/0", "changed") + s.set("/extra", "x"), 0);
        ASSERT_EQ(s.status(4, dir.file("dump.txt")), 0);
        for (size_t i = 0; i < values.size(); i++) EXPECT_EQ(s.get("/v/" + std::to_string(i)), values[i]) << i;
        EXPECT_EQ(s.get("/extra"), "");  // the reload replaced the store
        std::ofstream(dir.file("bad.txt")) << "/ok 1\n/bad \\q\n";
        EXPECT_EQ(s.status(4, dir.file("bad.txt")), -1);
        EXPECT_EQ(s.get("/ok"), "");
        EXPECT_EQ(s.set("/q", "committed") + s.status(5, ""), 0);  // empty: the -p file
    }
    EXPECT_EQ(Server(dir, args).get("/q"), "committed");
}

// A bad or stalled request closes its own connection, in time.
TEST(Xmldb, BadRequestsCloseOnlyTheirConnection) {
    TempDir dir;
    Server s(dir);
    ASSERT_EQ(s.set("/k", "v"), 0);
    for (const std::string &bytes : {header(1, 100) + "abc", request(9, "/k"), header(1, 10)}) {
        int fd = unix_socket(s.sock_);
        send_all(fd, bytes);
        auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(read_all(fd, 5000), "") << bytes.size() << " bytes";
        EXPECT_LT(std::chrono::steady_clock::now() - t0, 4s);
        close(fd);
        EXPECT_EQ(s.get("/k"), "v");
    }
}

// The device's own database client, and the rgdb tool's exit statuses.
TEST(Xmldb, DeviceClientAndRgdbTool) {
    TempDir dir;  // the compiled-in relative socket path lands here
    Server s(dir);
    EXPECT_EQ(tav_rgdb_set_digit(5, "/wlan/inf:%d/wlmode", 1), 0);
    EXPECT_EQ(rgdb_get_digit("/wlan/inf:%d/wlmode", 1), 5);
    EXPECT_EQ(tav_rgdb_set_str("a b", "/sys/%s", "name"), 0);
    char buf[8] = "junk";
    EXPECT_EQ(_rgdb_get_(buf, sizeof(buf), "/sys/name"), 0);
    EXPECT_STREQ(buf, "a b");
    // Four commands so far; asking for the count is none.
    EXPECT_EQ(s.get("/runtime/xmldb/commands") + s.get("/runtime/xmldb/commands"), "44");

    std::filesystem::create_directory("sub");
    const std::pair<std::string, int> cases[] = {  // paths relative to rgdb's directory, sub/
        {"-s /a/b 'x y'", 0}, {"-D out.txt", 0}, {"-d /a", 0}, {"-l out.txt", 0}, {"-g /a/b | grep -qx 'x y'", 0},
        {"-l nofile", 1}, {"-s '#bad' v", 1}, {"-s /k " + std::string(1100, 'v'), 1}, {"-g", 1}, {"-x", 1},
        {"-g /a -d /b", 1}, {"", 1}};
    for (auto &[args, rc] : cases)
        EXPECT_EQ(sh("cd sub && " RGDB_BIN " -S " + s.sock_ + " " + args + " 2>/dev/null"), rc) << args;
    EXPECT_EQ(sh(RGDB_BIN " -S none -g /k 2>/dev/null"), 1);
    EXPECT_TRUE(std::filesystem::exists("sub/out.txt"));
}
