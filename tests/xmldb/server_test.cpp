// The xmldb server binary and the rgdb tool, driven over their real socket.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "lrgbin/lrgbin.h"
#include "lrgbin/rgdb_getset.h"
#include "support.h"

using namespace dbtest;
using std::chrono::steady_clock;

namespace {

pid_t spawn(const std::vector<std::string> &args, const char *out = nullptr, const char *err = nullptr,
            const char *cwd = nullptr)
{
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    if (out)
        posix_spawn_file_actions_addopen(&fa, 1, out, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (err)
        posix_spawn_file_actions_addopen(&fa, 2, err, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (cwd)
        posix_spawn_file_actions_addchdir_np(&fa, cwd);
    std::vector<char *> argv;
    for (auto &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    return pid;
}

std::string slurp(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

int wait_exit(pid_t pid)
{
    int st = 0;
    waitpid(pid, &st, 0);
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

class Server {
public:
    Server(const TempDir &dir, std::vector<std::string> extra = {}) : sock_(dir.sock())
    {
        extra.insert(extra.begin(), {XMLDB_BIN, "-s", sock_});
        pid_ = spawn(extra);
        for (int i = 0; i < 500 && !alive(); i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ~Server() { stop(SIGTERM); }
    int stop(int sig)
    {
        int rc = pid_ > 0 && kill(pid_, sig) == 0 ? wait_exit(pid_) : -1;
        pid_ = -1;
        return rc;
    }
    bool alive() const
    {
        int fd = connect_to(sock_);
        return fd >= 0 && close(fd) == 0;
    }
    std::string text(uint16_t cmd, std::string_view arg) const
    {
        int fd = connect_to(sock_);
        send_all(fd, request(cmd, arg));
        std::string r = read_all(fd);
        close(fd);
        return r;
    }
    std::string get(std::string_view key) const
    {
        std::string r = text(1, key);
        EXPECT_EQ(r.find('\0'), r.size() - 1) << key;  // value, one NUL, nothing else
        return r.substr(0, r.find('\0'));
    }
    int status(uint16_t cmd, std::string_view arg) const
    {
        std::string r = text(cmd, arg);
        int32_t st = -99;
        if (r.size() == 16)
            std::memcpy(&st, r.data() + 12, 4);
        return st;
    }
    int set(std::string_view key, std::string_view value) const { return status(2, std::string(key) + " " + std::string(value)); }
    pid_t pid() const { return pid_; }
    const std::string &sock() const { return sock_; }

private:
    std::string sock_;
    pid_t pid_;
};

}  // namespace

TEST(Xmldb, GetSetAndStatusReplies)
{
    TempDir dir;
    Server s(dir);
    EXPECT_EQ(s.text(1, "/missing"), std::string("\0", 1));
    EXPECT_EQ(s.set("/a/b:1/c", "two  words "), 0);
    EXPECT_EQ(s.text(1, "/a/b:1/c"), std::string("two  words \0", 12));
    EXPECT_EQ(s.status(8, "/n notified"), 0);
    EXPECT_EQ(s.get("/n"), "notified");
    EXPECT_EQ(s.set("/e", ""), 0);
    EXPECT_EQ(s.get("/e"), "");
    EXPECT_EQ(s.text(2, "/x 1"), header(2, 0, 0));  // command echoed, status 0
    for (const char *bad : {" v", "#k v", "/t\tab v"})
        EXPECT_EQ(s.status(2, bad), -1) << bad;
    EXPECT_EQ(s.status(3, ""), -1);
}

TEST(Xmldb, DeleteRemovesSubtreeOnly)
{
    TempDir dir;
    Server s(dir);
    for (const char *k : {"/a", "/a/b", "/a/b/c:2/d", "/ab", "/a!", "/a0", "/z"})
        ASSERT_EQ(s.set(k, "1"), 0);
    EXPECT_EQ(s.status(3, "/a"), 0);
    for (const char *k : {"/a", "/a/b", "/a/b/c:2/d"})
        EXPECT_EQ(s.get(k), "") << k;
    for (const char *k : {"/ab", "/a!", "/a0", "/z"})
        EXPECT_EQ(s.get(k), "1") << k;
    EXPECT_EQ(s.status(3, "/sys/swcontroller"), 0);
}

TEST(Xmldb, DumpReloadRoundTrip)
{
    TempDir dir;
    Server s(dir);
    const std::vector<std::string> values = {"plain", "two  spaces ", "line1\nline2", "back\\slash\\n",
                                             "tab\tcr\r", "", " lead", "#hash", "\xc3\xbc"};
    for (size_t i = 0; i < values.size(); i++)
        ASSERT_EQ(s.set("/v/" + std::to_string(i), values[i]), 0);
    std::string file = dir.file("dump.txt");
    ASSERT_EQ(s.status(5, file), 0);
    std::string text = slurp(file);
    EXPECT_NE(text.find("/v/3 back\\\\slash\\\\n\n"), std::string::npos);
    EXPECT_NE(text.find("\n/v/5\n"), std::string::npos);

    ASSERT_EQ(s.set("/v/0", "changed"), 0);
    ASSERT_EQ(s.set("/extra", "x"), 0);
    ASSERT_EQ(s.status(4, file), 0);
    for (size_t i = 0; i < values.size(); i++)
        EXPECT_EQ(s.get("/v/" + std::to_string(i)), values[i]) << i;
    EXPECT_EQ(s.get("/extra"), "");

    // A file that does not parse, or is missing, leaves the store alone.
    std::ofstream(dir.file("bad.txt")) << "/ok 1\n/bad \\q\n";
    EXPECT_EQ(s.status(4, dir.file("bad.txt")), -1);
    EXPECT_EQ(s.status(4, dir.file("none.txt")), -1);
    EXPECT_EQ(s.get("/v/0"), "plain");
    EXPECT_EQ(s.get("/ok"), "");
    EXPECT_EQ(s.status(5, ""), -1);  // no -p state file
    EXPECT_EQ(s.status(5, dir.file("no/such/dir")), -1);
}

TEST(Xmldb, StateFileWinsOverProfile)
{
    TempDir dir;
    std::ofstream(dir.file("profile")) << "# comment\n\n/p 1\r\n/q from profile\n";
    std::vector<std::string> args = {"-f", dir.file("profile"), "-p", dir.file("state")};
    {
        Server s(dir, args);
        EXPECT_EQ(s.get("/q"), "from profile");
        EXPECT_EQ(s.get("/p"), "1");
        s.set("/q", "committed");
        EXPECT_EQ(s.status(5, ""), 0);
        EXPECT_EQ(s.set("/q", "not committed"), 0);
        EXPECT_EQ(s.status(4, ""), 0);
        EXPECT_EQ(s.get("/q"), "committed");
    }
    Server s(dir, args);
    EXPECT_EQ(s.get("/q"), "committed");
}

TEST(Xmldb, PatchAndEphp)
{
    TempDir dir;
    Server s(dir);
    EXPECT_EQ(s.text(7, "/p/1 one\n# c\n\n/p/2 two words\n"), std::string("OK 2\0", 5));
    EXPECT_EQ(s.get("/p/2"), "two words");
    EXPECT_EQ(s.text(7, "/p/3 x\n/p/4 bad\\q\n"), std::string("ERROR line 2: bad escape in value\0", 34));
    EXPECT_EQ(s.get("/p/3"), "");
    std::ofstream(dir.file("patch")) << "/p/1 uno\n";
    EXPECT_EQ(s.text(6, dir.file("patch")), std::string("OK 1\0", 5));
    EXPECT_EQ(s.get("/p/1"), "uno");
    EXPECT_EQ(s.text(6, dir.file("none")).rfind("ERROR ", 0), 0u);
    EXPECT_EQ(s.text(10, "<?rgdb /p/1?>|<? rgdb /p/1 ?>|<?rgdb  /missing ?>|<?rgdb /p/1"),
              std::string("uno|<? rgdb /p/1 ?>||<?rgdb /p/1\0", 33));
}

TEST(Xmldb, MalformedRequestsCloseOnlyTheirConnection)
{
    TempDir dir;
    Server s(dir);
    ASSERT_EQ(s.set("/k", "v"), 0);
    struct {
        const char *name;
        std::string bytes;
        bool hang_up;       // client closes right after sending
        std::string reply;  // otherwise: what arrives before the server closes
    } cases[] = {
        {"short header", header(1, 3).substr(0, 7), true, ""},
        {"payload shorter than data_length", header(1, 100) + "abc", true, ""},
        {"unknown command 9", request(9, "/k"), false, ""},
        {"unknown command 65535", request(65535, "/k"), false, ""},
        {"garbage", std::string(40, '\xff'), true, ""},
        {"data_length 0", header(1, 0), false, std::string("\0", 1)},
        {"key without NUL", header(1, 2) + "/k", false, std::string("v\0", 2)},
        {"closes before reading the reply", request(1, "/k"), true, ""},
        {"stalls after the header", header(1, 10), false, ""},
    };
    for (auto &c : cases) {
        int fd = connect_to(s.sock());
        ASSERT_GE(fd, 0);
        send_all(fd, c.bytes);
        if (!c.hang_up) {
            auto t0 = steady_clock::now();
            EXPECT_EQ(read_all(fd, 5000), c.reply) << c.name;
            EXPECT_LT(steady_clock::now() - t0, std::chrono::seconds(4)) << c.name;
        }
        close(fd);
        EXPECT_EQ(s.get("/k"), "v") << c.name;
    }
}

TEST(Xmldb, ManyClientsHalfBroken)
{
    TempDir dir;
    Server s(dir);
    ASSERT_EQ(s.set("/k", "v"), 0);
    constexpr int kClients = 500;
    std::vector<int> fds;
    for (int i = 0; i < kClients; i++) {
        fds.push_back(connect_to(s.sock()));
        ASSERT_GE(fds.back(), 0) << i;
    }
    const std::string broken[] = {"", header(1, 3).substr(0, 5), header(1, 200) + "abc", request(99, "/k")};
    auto t0 = steady_clock::now();
    for (int i = 0; i < kClients; i++) {
        bool healthy = i % 2 == 0;
        send_all(fds[i], healthy ? request(1, "/k") : broken[(i / 2) % 4]);
    }
    int answered = 0;
    for (int i = 0; i < kClients; i += 2)
        answered += read_all(fds[i], 5000) == std::string("v\0", 2);
    EXPECT_EQ(answered, kClients / 2);
    EXPECT_LT(steady_clock::now() - t0, std::chrono::seconds(10));
    // Broken clients are cut off at their deadline, not left hanging.
    for (int i = 1; i < kClients; i += 2) {
        pollfd p{fds[i], POLLIN, 0};
        EXPECT_EQ(poll(&p, 1, 5000), 1) << i;
    }
    for (int fd : fds)
        close(fd);
    EXPECT_EQ(s.get("/k"), "v");
    EXPECT_EQ(waitpid(s.pid(), nullptr, WNOHANG), 0);
}

TEST(Xmldb, SignalsStaleAndLiveSockets)
{
    TempDir dir;
    close(listen_on(dir.sock()));  // socket file of a server that died: replaced
    for (int sig : {SIGTERM, SIGINT}) {
        Server s(dir);
        ASSERT_TRUE(s.alive());
        pid_t second = spawn({XMLDB_BIN, "-s", dir.sock()}, nullptr, "/dev/null");
        EXPECT_EQ(wait_exit(second), 1);
        EXPECT_TRUE(s.alive());
        EXPECT_EQ(s.stop(sig), 0);
        EXPECT_NE(access(dir.sock().c_str(), F_OK), 0);
    }
    std::ofstream(dir.file("bad")) << "/k \\x\n";
    pid_t bad = spawn({XMLDB_BIN, "-s", dir.sock(), "-f", dir.file("bad")}, nullptr, "/dev/null");
    EXPECT_EQ(wait_exit(bad), 1);
}

TEST(Xmldb, TypedAccessEndToEnd)
{
    TempDir dir;  // the compiled-in relative socket path lands here
    Server s(dir);
    EXPECT_EQ(tav_rgdb_set_digit(5, "/wlan/inf:%d/wlmode", 1), 0);
    EXPECT_EQ(s.get("/wlan/inf:1/wlmode"), "5");
    EXPECT_EQ(rgdb_get_digit("/wlan/inf:%d/wlmode", 1), 5);
    EXPECT_EQ(tav_rgdb_set_str("a b", "/sys/%s", "name"), 0);
    char buf[8] = "junk";
    EXPECT_EQ(_rgdb_get_(buf, sizeof(buf), "/sys/name"), 0);
    EXPECT_STREQ(buf, "a b");
    EXPECT_EQ(_rgdb_get_(buf, sizeof(buf), "/sys/none"), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(_rgdb_set_("", "x"), -1);
}

TEST(Rgdb, Commands)
{
    TempDir dir;
    Server s(dir);
    std::filesystem::create_directory(dir.file("sub"));
    struct {
        std::vector<std::string> args;
        int rc;
        std::string out;
        std::string err_has;
    } cases[] = {
        {{"-s", "/a/b", "x y"}, 0, "", ""},
        {{"-g", "/a/b"}, 0, "x y\n", ""},
        {{"-g", "/missing"}, 0, "\n", ""},
        {{"-d", "/sys/swcontroller"}, 0, "", ""},
        {{"-D", "out.txt"}, 0, "", ""},  // relative to rgdb's directory, sub/
        {{"-d", "/a"}, 0, "", ""},
        {{"-g", "/a/b"}, 0, "\n", ""},
        {{"-l", "out.txt"}, 0, "", ""},
        {{"-g", "/a/b"}, 0, "x y\n", ""},
        {{"-l", "nofile"}, 1, "", "reload from nofile failed"},
        {{"-s", "#bad", "v"}, 1, "", "set of #bad failed"},
        {{"-s", "/k", std::string(1100, 'v')}, 1, "", "longer than 1022"},
        {{"-g"}, 1, "", "needs"},
        {{"-x"}, 1, "", "unknown argument"},
        {{"-g", "/a", "-d", "/b"}, 1, "", "one of"},
        {{}, 1, "", "usage"},
        {{"--help"}, 0, "usage: rgdb", ""},
    };
    for (auto &c : cases) {
        std::vector<std::string> args = {RGDB_BIN, "-S", s.sock()};
        args.insert(args.end(), c.args.begin(), c.args.end());
        pid_t pid = spawn(args, dir.file("o").c_str(), dir.file("e").c_str(), dir.file("sub").c_str());
        std::string what = c.args.empty() ? "(none)" : c.args[0];
        EXPECT_EQ(wait_exit(pid), c.rc) << what;
        std::string out = slurp(dir.file("o")), err = slurp(dir.file("e"));
        EXPECT_EQ(out.substr(0, c.out.size()), c.out) << what;
        EXPECT_NE(err.find(c.err_has), std::string::npos) << what << ": " << err;
        if (c.err_has.empty()) {
            EXPECT_EQ(err, "") << what;
        }
    }
    EXPECT_TRUE(std::filesystem::exists(dir.file("sub/out.txt")));
    pid_t pid = spawn({RGDB_BIN, "-S", dir.file("none"), "-g", "/k"}, nullptr, dir.file("e").c_str());
    EXPECT_EQ(wait_exit(pid), 1);
    EXPECT_EQ(slurp(dir.file("e")), "Cound not connect to unix socket: " + dir.file("none") + ".\n");
}
