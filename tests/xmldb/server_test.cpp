// The xmldb server binary and the rgdb tool, driven over their real socket.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <fstream>
#include <thread>
#include <vector>

#include "lrgbin/rgdb_getset.h"
#include "support.h"

using namespace dbtest;
using namespace std::literals;
using std::chrono::steady_clock;

namespace {

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Exit status of a shell command line.
int sh(const std::string &cmd) {
    int st = std::system(cmd.c_str());
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

class Server {
public:
    Server(const TempDir &dir, std::vector<std::string> args = {}) : sock_(dir.sock()) {
        args.insert(args.begin(), {XMLDB_BIN, "-s", sock_});
        std::vector<char *> argv;
        for (auto &a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        posix_spawn(&pid_, argv[0], nullptr, nullptr, argv.data(), environ);
        for (int i = 0, fd; i < 500 && (fd = unix_socket(sock_)) < 0; i++)
            std::this_thread::sleep_for(10ms);
    }
    ~Server() { stop(SIGTERM); }
    int stop(int sig) {
        int st = -1;
        if (pid_ > 0 && kill(pid_, sig) == 0)
            waitpid(pid_, &st, 0);
        pid_ = -1;
        return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    }
    std::string text(uint16_t cmd, const std::string &arg) const {
        int fd = unix_socket(sock_);
        send_all(fd, request(cmd, arg));
        std::string r = read_all(fd);
        close(fd);
        return r;
    }
    std::string get(const std::string &key) const {
        std::string r = text(1, key);
        EXPECT_EQ(r.find('\0'), r.size() - 1) << key;  // value, one NUL, nothing else
        return r.substr(0, r.find('\0'));
    }
    int status(uint16_t cmd, const std::string &arg) const {
        std::string r = text(cmd, arg);
        int32_t st = -99;
        if (r.size() == 16)
            std::memcpy(&st, r.data() + 12, 4);
        return st;
    }
    int set(const std::string &key, const std::string &value) const { return status(2, key + " " + value); }
    pid_t pid_ = -1;
    std::string sock_;
};

}  // namespace

TEST(Xmldb, GetSetDeleteAndStatusReplies) {
    TempDir dir;
    Server s(dir);
    EXPECT_EQ(s.text(1, "/missing"), "\0"s);
    EXPECT_EQ(s.set("/a/b:1/c", "two  words "), 0);
    EXPECT_EQ(s.text(1, "/a/b:1/c"), "two  words \0"s);
    EXPECT_EQ(s.status(8, "/n notified"), 0);
    EXPECT_EQ(s.get("/n"), "notified");
    EXPECT_EQ(s.set("/e", ""), 0);
    EXPECT_EQ(s.get("/e"), "");
    EXPECT_EQ(s.text(2, "/x 1"), header(2, 0, 0));  // command echoed, status 0
    for (const char *bad : {" v", "#k v", "/t\tab v"})
        EXPECT_EQ(s.status(2, bad), -1) << bad;
    EXPECT_EQ(s.status(3, ""), -1);
    // Delete takes the key and everything beneath it, nothing else.
    const std::pair<const char *, const char *> after[] = {
        {"/a", ""}, {"/a/b", ""}, {"/a/b/c:2/d", ""}, {"/ab", "1"}, {"/a!", "1"}, {"/a0", "1"}};
    for (auto [k, v] : after)
        ASSERT_EQ(s.set(k, "1"), 0);
    EXPECT_EQ(s.status(3, "/a"), 0);
    for (auto [k, v] : after)
        EXPECT_EQ(s.get(k), v) << k;
    EXPECT_EQ(s.status(3, "/sys/swcontroller"), 0);
}

TEST(Xmldb, DumpReloadRoundTripAndStateFile) {
    TempDir dir;
    std::ofstream(dir.file("profile")) << "# comment\n\n/p 1\r\n/q from profile\n";
    std::vector<std::string> args = {"-f", dir.file("profile"), "-p", dir.file("state")};
    {
        Server s(dir, args);
        EXPECT_EQ(s.get("/p"), "1");
        EXPECT_EQ(s.get("/q"), "from profile");
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
        EXPECT_EQ(s.get("/ok"), "");
        EXPECT_EQ(s.status(5, dir.file("no/such/dir")), -1);
        // An empty argument means the -p state file; it wins over the profile.
        s.set("/q", "committed");
        EXPECT_EQ(s.status(5, ""), 0);
        EXPECT_EQ(s.set("/q", "not committed"), 0);
        EXPECT_EQ(s.status(4, ""), 0);
        EXPECT_EQ(s.get("/q"), "committed");
    }
    EXPECT_EQ(Server(dir, args).get("/q"), "committed");
    EXPECT_EQ(Server(dir).status(5, ""), -1);  // no -p state file
}

TEST(Xmldb, PatchAndEphp) {
    TempDir dir;
    Server s(dir);
    EXPECT_EQ(s.text(7, "/p/1 one\n# c\n\n/p/2 two words\n"), "OK 2\0"s);
    EXPECT_EQ(s.get("/p/2"), "two words");
    EXPECT_EQ(s.text(7, "/p/3 x\n/p/4 bad\\q\n"), "ERROR line 2: bad escape in value\0"s);
    EXPECT_EQ(s.get("/p/3"), "");
    std::ofstream(dir.file("patch")) << "/p/1 uno\n";
    EXPECT_EQ(s.text(6, dir.file("patch")), "OK 1\0"s);
    EXPECT_EQ(s.get("/p/1"), "uno");
    EXPECT_EQ(s.text(6, dir.file("none")).rfind("ERROR ", 0), 0u);
    EXPECT_EQ(s.text(10, "<?rgdb /p/1?>|<? rgdb /p/1 ?>|<?rgdb  /missing ?>|<?rgdb /p/1"),
              "uno|<? rgdb /p/1 ?>||<?rgdb /p/1\0"s);
}

TEST(Xmldb, MalformedRequestsCloseOnlyTheirConnection) {
    TempDir dir;
    Server s(dir);
    ASSERT_EQ(s.set("/k", "v"), 0);
    // Sent bytes, and what arrives before the server closes (none: the client hangs up at once).
    const std::pair<std::string, std::optional<std::string>> cases[] = {
        {header(1, 3).substr(0, 7), {}},  {header(1, 100) + "abc", {}}, {std::string(40, '\xff'), {}},
        {request(1, "/k"), {}},           {request(9, "/k"), ""},       {request(65535, "/k"), ""},
        {header(1, 0), "\0"s},            {header(1, 2) + "/k", "v\0"s}, {header(1, 10), ""},  // stalls
    };
    for (auto &[bytes, reply] : cases) {
        int fd = unix_socket(s.sock_);
        send_all(fd, bytes);
        auto t0 = steady_clock::now();
        EXPECT_EQ(reply ? read_all(fd, 5000) : "", reply.value_or("")) << bytes.size() << " bytes";
        EXPECT_LT(steady_clock::now() - t0, 4s);
        close(fd);
        EXPECT_EQ(s.get("/k"), "v");
    }
}

TEST(Xmldb, ManyClientsHalfBroken) {
    TempDir dir;
    Server s(dir);
    ASSERT_EQ(s.set("/k", "v"), 0);
    constexpr int kClients = 500;
    const std::string broken[] = {"", header(1, 3).substr(0, 5), header(1, 200) + "abc", request(99, "/k")};
    std::vector<int> fds;
    for (int i = 0; i < kClients; i++)
        fds.push_back(unix_socket(s.sock_));
    auto t0 = steady_clock::now();
    for (int i = 0; i < kClients; i++)
        send_all(fds[i], i % 2 ? broken[(i / 2) % 4] : request(1, "/k"));
    // Healthy clients get their answer; broken ones are cut off at their deadline (all within 10 s).
    auto ms_left = [&] { return int(std::max<long>(0, (t0 + 10s - steady_clock::now()) / 1ms)); };
    int answered = 0, cut_off = 0;
    for (int i = 0; i < kClients; i++) {
        pollfd p{fds[i], POLLIN, 0};
        if (i % 2)
            cut_off += poll(&p, 1, ms_left()) == 1 && read_all(fds[i], 0).empty();
        else
            answered += read_all(fds[i], ms_left()) == "v\0"s;
        close(fds[i]);
    }
    EXPECT_EQ(answered + cut_off, kClients);
    EXPECT_EQ(s.get("/k"), "v");
    EXPECT_EQ(waitpid(s.pid_, nullptr, WNOHANG), 0);
}

TEST(Xmldb, SignalsStaleAndLiveSockets) {
    TempDir dir;
    close(unix_socket(dir.sock(), true));  // socket file of a server that died: replaced
    const std::string xmldb = XMLDB_BIN " -s "s + dir.sock();
    for (int sig : {SIGTERM, SIGINT}) {
        Server s(dir);
        EXPECT_EQ(sh(xmldb + " 2>/dev/null"), 1);  // a second server on a live socket
        EXPECT_EQ(s.set("/k", "v"), 0);
        EXPECT_EQ(s.stop(sig), 0);
        EXPECT_NE(access(dir.sock().c_str(), F_OK), 0);
    }
    std::ofstream(dir.file("bad")) << "/k \\x\n";
    EXPECT_EQ(sh(xmldb + " -f bad 2>/dev/null"), 1);
}

// -t: the statistics counters and load figures move every 3 s, only decimal
// counters grow, and nothing moves while the hold file exists.
TEST(Xmldb, SimulatedTrafficMovesUnlessHeld) {
    TempDir moving_dir, held_dir;
    std::ofstream(held_dir.file("hold"));
    Server moving(moving_dir, {"-t", moving_dir.file("hold")}), held(held_dir, {"-t", held_dir.file("hold")});
    const std::string tx = "/runtime/stats/ethernet/tx/bytes", rx = "/runtime/stats/wireless/inf:2/showrx/bytes",
                      cpu = "/runtime/cpu/status/alluser_utilize";
    for (Server *s : {&moving, &held})
        ASSERT_EQ(s->set(tx, "100") + s->set(rx, "1024 bytes") + s->set(cpu, "300"), 0);
    std::this_thread::sleep_for(3200ms);
    EXPECT_GT(std::stoull(moving.get(tx)), 100u);
    EXPECT_EQ(moving.get(rx), "1024 bytes");
    const int load = std::stoi(moving.get(cpu));
    EXPECT_TRUE(load >= 5 && load < 35) << load;
    EXPECT_EQ(held.get(tx) + "|" + held.get(rx) + "|" + held.get(cpu), "100|1024 bytes|300");
}

TEST(Xmldb, TypedAccessEndToEnd) {
    TempDir dir;  // the compiled-in relative socket path lands here
    Server s(dir);
    EXPECT_EQ(tav_rgdb_set_digit(5, "/wlan/inf:%d/wlmode", 1), 0);
    EXPECT_EQ(rgdb_get_digit("/wlan/inf:%d/wlmode", 1), 5);
    EXPECT_EQ(tav_rgdb_set_str("a b", "/sys/%s", "name"), 0);
    char buf[8] = "junk";
    EXPECT_EQ(_rgdb_get_(buf, sizeof(buf), "/sys/name"), 0);
    EXPECT_STREQ(buf, "a b");
}

TEST(Rgdb, Commands) {
    TempDir dir;
    Server s(dir);
    std::filesystem::create_directory("sub");
    const std::tuple<std::string, int, std::string, std::string> cases[] = {
        // arguments; exit status; start of the output; in the error output (none if empty)
        {"-s /a/b 'x y'", 0, "", ""},
        {"-g /a/b", 0, "x y\n", ""},
        {"-D out.txt", 0, "", ""},  // relative to rgdb's directory, sub/
        {"-d /a", 0, "", ""},
        {"-l out.txt", 0, "", ""},
        {"-g /a/b", 0, "x y\n", ""},
        {"-l nofile", 1, "", "reload from nofile failed"},
        {"-s '#bad' v", 1, "", "set of #bad failed"},
        {"-s /k " + std::string(1100, 'v'), 1, "", "longer than 1022"},
        {"-g", 1, "", "needs"},
        {"-x", 1, "", "unknown argument"},
        {"-g /a -d /b", 1, "", "one of"},
        {"", 1, "", "usage"},
    };
    for (auto &[args, rc, out, err_has] : cases) {
        EXPECT_EQ(sh("cd sub && " RGDB_BIN " -S " + s.sock_ + " " + args + " >../o 2>../e"), rc) << args;
        std::string err = slurp("e");
        EXPECT_EQ(slurp("o").substr(0, out.size()), out) << args;
        EXPECT_TRUE(err_has.empty() ? err.empty() : err.find(err_has) != std::string::npos) << args << ": " << err;
    }
    EXPECT_TRUE(std::filesystem::exists("sub/out.txt"));
    EXPECT_EQ(sh(RGDB_BIN " -S none -g /k 2>e"), 1);
    EXPECT_EQ(slurp("e"), "Cound not connect to unix socket: none.\n");
}
