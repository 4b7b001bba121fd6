// The database client and the typed access against a server that records
// the bytes it receives and answers with scripted chunks.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "lrgbin/lrgbin.h"
#include "lrgbin/rgdb_getset.h"
#include "support.h"

using namespace dbtest;
using namespace std::literals;

namespace {

// Every connection gets `reply`, written in pieces 30 ms apart.
class FakeServer {
public:
    FakeServer(std::string path, std::vector<std::string> reply) : path_(std::move(path)), reply_(std::move(reply))
    {
        lfd_ = listen_on(path_);
        EXPECT_GE(lfd_, 0);
        thread_ = std::thread([this] { serve(); });
    }
    ~FakeServer()
    {
        stop_ = true;
        thread_.join();
        close(lfd_);
        unlink(path_.c_str());
    }
    // What arrived, after waiting up to a second for `want` requests.
    std::vector<std::string> requests(size_t want = 1)
    {
        for (int i = 0; i < 100 && count_ < want; i++)
            std::this_thread::sleep_for(10ms);
        std::lock_guard<std::mutex> lock(mu_);
        return requests_;
    }

private:
    void serve()
    {
        pollfd p{lfd_, POLLIN, 0};
        while (!stop_) {
            if (poll(&p, 1, 20) != 1)
                continue;
            int fd = accept(lfd_, nullptr, nullptr);
            std::string got;
            uint16_t len = 0;
            char buf[2048];
            pollfd c{fd, POLLIN, 0};
            while ((got.size() < 16 || got.size() < 16u + len) && poll(&c, 1, 1000) == 1) {
                ssize_t n = read(fd, buf, sizeof(buf));
                if (n <= 0)
                    break;
                got.append(buf, static_cast<size_t>(n));
                if (got.size() >= 16)
                    std::memcpy(&len, got.data() + 2, 2);
            }
            {
                std::lock_guard<std::mutex> lock(mu_);
                requests_.push_back(got);
                count_++;
            }
            for (size_t i = 0; i < reply_.size(); i++) {
                std::this_thread::sleep_for(i ? 30ms : 0ms);
                send_all(fd, reply_[i]);
            }
            close(fd);
        }
    }

    std::string path_;
    int lfd_;
    std::vector<std::string> reply_;
    std::atomic<bool> stop_{false};
    std::atomic<size_t> count_{0};
    std::mutex mu_;
    std::vector<std::string> requests_;
    std::thread thread_;
};

const std::string kOk = header(2, 0, 0);
const std::string kZeros(12, '\0');

// Runs one client operation on a fresh connection of the compiled-in path.
std::function<void()> on_conn(std::function<void(int)> op)
{
    return [op] {
        int fd = lrgdb_open(nullptr);
        op(fd);
        close(fd);
    };
}

}  // namespace

TEST(Client, ExampleExchangesByteForByte)
{
    TempDir dir;
    {
        FakeServer srv(dir.sock(), {std::string("ap1\0", 4)});
        char buf[16] = {};
        EXPECT_EQ(_rgdb_get_(buf, sizeof(buf), "/sys/%s", "hostname"), 0);
        EXPECT_STREQ(buf, "ap1");
        EXPECT_EQ(srv.requests().at(0), "\x01\x00\x0e\x00"s + kZeros + "/sys/hostname" + '\0');
    }
    FakeServer srv(dir.sock(), {kOk});
    EXPECT_EQ(_rgdb_set_("/sys/hostname", "ap1"), 0);
    EXPECT_EQ(srv.requests().at(0), "\x02\x00\x12\x00"s + kZeros + "/sys/hostname ap1" + '\0');
}

TEST(Client, PayloadsAndCutLimits)
{
    TempDir dir;
    FakeServer srv(dir.sock(), {kOk});
    std::string longv(2000, 'v'), longk(1500, 'k');
    char buf[8];
    struct {
        std::function<void()> call;
        uint16_t cmd;
        std::string payload;
    } cases[] = {
        {on_conn([](int fd) { lrgdb_get(fd, 0, "", nullptr); }), 1, ""},
        {on_conn([&](int fd) { lrgdb_set(fd, 0, "/k", longv.c_str()); }), 2, "/k " + longv.substr(0, 1019)},
        {on_conn([&](int fd) { lrgdb_set_notify(fd, 0, "/k", longv.c_str()); }), 8, "/k " + longv.substr(0, 251)},
        {on_conn([](int fd) { lrgdb_del(fd, 0, "/d"); }), 3, "/d"},
        {on_conn([](int fd) { lrgdb_reload(fd, 0, "/r"); }), 4, "/r"},
        {on_conn([](int fd) { lrgdb_dump(fd, 0, "/f"); }), 5, "/f"},
        {[] { _rgdb_set_("/k", "a  b c "); }, 2, "/k a  b c "},
        {[&] { _rgdb_get_(buf, sizeof(buf), "%s", longk.c_str()); }, 1, longk.substr(0, 1023)},
        {[] { tav_rgdb_set_digit(5, "/wlan/inf:%d/wlmode", 1); }, 2, "/wlan/inf:1/wlmode 5"},
        {[] { tav_rgdb_set_str("x y", "/a:%d/b", 2); }, 2, "/a:2/b x y"},
        {[] { binary__rgdb_set_("/s", 4294967295ul); }, 2, "/s 4294967295"},
        {[] { binary__rgdb_set_(nullptr, 1); }, 0, ""},  // refused: nothing sent
    };
    for (size_t i = 0; i < std::size(cases); i++) {
        cases[i].call();
        auto got = srv.requests(i + 1);
        if (cases[i].cmd == 0) {
            EXPECT_EQ(got.size(), i);
            continue;
        }
        ASSERT_EQ(got.size(), i + 1);
        EXPECT_EQ(got[i], request(cases[i].cmd, cases[i].payload)) << "case " << i;
    }
}

TEST(Client, StatusReplies)
{
    TempDir dir;
    struct {
        std::string reply;
        int raw, typed;
    } cases[] = {{kOk, 0, 0}, {header(2, 0, -1), -1, -1}, {header(2, 0, 7), 7, 0}, {"short", -1, -1}};
    for (auto &c : cases) {
        FakeServer srv(dir.sock(), {c.reply});
        on_conn([&](int fd) { EXPECT_EQ(lrgdb_set(fd, 0, "/k", "v"), c.raw); })();
        on_conn([&](int fd) { EXPECT_EQ(lrgdb_del(fd, 0, "/k"), c.raw); })();
        EXPECT_EQ(_rgdb_set_("/k", "v"), c.typed);
        EXPECT_EQ(tav_rgdb_set_digit(1, "/k"), c.typed);
        EXPECT_EQ(binary__rgdb_set_("/k", 1), 0);
    }
}

TEST(Client, TypedReads)
{
    TempDir dir;
    std::string forty(40, 'q');
    struct {
        std::string reply;
        int size;
        std::string want;  // the whole buffer afterwards, prefilled with 'x'
    } cases[] = {
        {"12\0"s, 2, "1\0"s},
        {forty + '\0', 32, forty.substr(0, 31) + '\0'},
        {"ab\0"s, 8, "ab\0xxxx\0"s},
        {"", 4, "xxx\0"s},  // server hung up: still success
    };
    for (auto &c : cases) {
        FakeServer srv(dir.sock(), {c.reply});
        std::string buf(c.size, 'x');
        EXPECT_EQ(_rgdb_get_(buf.data(), c.size, "/k"), 0);
        EXPECT_EQ(buf, c.want);
    }
    for (auto [value, want] : {std::pair{" 42a", 42}, {"-7", -7}, {"abc", 0}, {"", 0}, {"2147483647", 2147483647}}) {
        FakeServer srv(dir.sock(), {value + "\0"s});
        EXPECT_EQ(rgdb_get_digit("/x/%d", 1), want) << value;
    }
}

TEST(Client, DatabaseDown)
{
    TempDir dir;
    char buf[8] = "keepme";
    testing::internal::CaptureStderr();
    EXPECT_EQ(_rgdb_get_(buf, sizeof(buf), "/k"), -1);
    EXPECT_EQ(rgdb_get_digit("/k"), 0);
    EXPECT_EQ(_rgdb_set_("/k", "v"), -1);
    EXPECT_EQ(tav_rgdb_set_str("v", "/k"), -1);
    EXPECT_EQ(binary__rgdb_set_("/k", 1), 0);
    EXPECT_EQ(lrgdb_open(nullptr), -1);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_STREQ(buf, "keepme");
    std::string line = "Cound not connect to unix socket: "s + kSockName + ".\n";
    EXPECT_EQ(err, line + line + line + line + line + line);
}

TEST(Client, TextRepliesAndSplitReads)
{
    TempDir dir;
    struct {
        std::vector<std::string> chunks;
        std::string want;
    } cases[] = {
        {{"xyz\0"s}, "xyz"},
        {{"abc", "def\0"s}, "abcdef"},
        {{"ab\0c"s, "d\0"s}, "ab\0cd"s},  // a NUL inside a chunk is copied
        {{"no-nul"}, "no-nul"},
    };
    int (*const ops[])(int, uint64_t, const char *, FILE *) = {lrgdb_get, lrgdb_patch, lrgdb_patch_buffer, lrgdb_ephp};
    const uint16_t codes[] = {1, 6, 7, 10};
    for (auto &c : cases) {
        for (size_t op = 0; op < 4; op++) {
            FakeServer srv(dir.sock(), c.chunks);
            char *mem = nullptr;
            size_t len = 0;
            FILE *out = open_memstream(&mem, &len);
            on_conn([&](int fd) { EXPECT_EQ(ops[op](fd, 0, "arg", out), 0); })();
            fclose(out);
            EXPECT_EQ(std::string(mem, len), c.want);
            free(mem);
            EXPECT_EQ(srv.requests().at(0), request(codes[op], "arg"));
        }
    }
}

TEST(Client, GetwbAndCloseOnExec)
{
    TempDir dir;
    FakeServer srv(dir.sock(), {"value\0"s});
    int fd = lrgdb_open(nullptr);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    char buf[4] = {'z', 'z', 'z', 'z'};
    EXPECT_EQ(lrgdb_getwb(fd, buf, 3, "/k/%d", 7), 3);
    EXPECT_EQ(std::string(buf, 4), "valz");
    EXPECT_EQ(lrgdb_close(fd), 0);
    EXPECT_EQ(srv.requests().at(0), request(1, "/k/7"));
    EXPECT_EQ(send_xmldb_cmd(-1, 1, 0, "x", 2), -1);
}
