// The database client and the typed access against a server that records
// the bytes it receives and answers with scripted chunks.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "lrgbin/lrgbin.h"
#include "lrgbin/rgdb_getset.h"
#include "support.h"

using namespace dbtest;

namespace {

class FakeServer {
public:
    // Every connection gets `reply`, written in pieces with pauses between.
    FakeServer(const std::string &path, std::vector<std::string> reply)
        : path_(path), reply_(std::move(reply))
    {
        lfd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
        EXPECT_EQ(bind(lfd_, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0);
        listen(lfd_, 16);
        thread_ = std::thread([this] { serve(); });
    }
    ~FakeServer()
    {
        stop_ = true;
        thread_.join();
        close(lfd_);
        unlink(path_.c_str());
    }
    // What arrived so far, after waiting up to a second for `want` requests.
    std::vector<std::string> requests(size_t want = 1)
    {
        for (int i = 0; i < 100; i++) {
            {
                std::lock_guard<std::mutex> lock(mu_);
                if (requests_.size() >= want)
                    break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
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
            char buf[2048];
            pollfd c{fd, POLLIN, 0};
            auto whole = [&] {
                uint16_t len = 0;
                if (got.size() >= 16)
                    std::memcpy(&len, got.data() + 2, 2);
                return got.size() >= 16 && got.size() >= 16u + len;
            };
            while (!whole() && poll(&c, 1, 1000) == 1) {
                ssize_t n = read(fd, buf, sizeof(buf));
                if (n <= 0)
                    break;
                got.append(buf, static_cast<size_t>(n));
            }
            {
                std::lock_guard<std::mutex> lock(mu_);
                requests_.push_back(got);
            }
            for (size_t i = 0; i < reply_.size(); i++) {
                if (i)
                    std::this_thread::sleep_for(std::chrono::milliseconds(30));
                send_all(fd, reply_[i]);
            }
            close(fd);
        }
    }

    std::string path_;
    int lfd_;
    std::vector<std::string> reply_;
    std::atomic<bool> stop_{false};
    std::mutex mu_;
    std::vector<std::string> requests_;
    std::thread thread_;
};

std::string hex(std::string_view s)
{
    std::string out;
    char b[4];
    for (unsigned char c : s) {
        snprintf(b, sizeof(b), "%02x ", c);
        out += b;
    }
    return out;
}

const std::string kOk = header(2, 0, 0);
const std::string kFail = header(2, 0, -1);

}  // namespace

TEST(Client, ExampleExchangesByteForByte)
{
    TempDir dir;
    {
        FakeServer srv(dir.sock(), {std::string("ap1\0", 4)});
        char buf[16] = {};
        EXPECT_EQ(_rgdb_get_(buf, sizeof(buf), "/sys/%s", "hostname"), 0);
        EXPECT_STREQ(buf, "ap1");
        ASSERT_EQ(srv.requests().size(), 1u);
        EXPECT_EQ(hex(srv.requests()[0]),
                  "01 00 0e 00 00 00 00 00 00 00 00 00 00 00 00 00 " + hex(std::string("/sys/hostname\0", 14)));
    }
    FakeServer srv(dir.sock(), {kOk});
    EXPECT_EQ(_rgdb_set_("/sys/hostname", "ap1"), 0);
    EXPECT_EQ(hex(srv.requests().at(0)),
              "02 00 12 00 00 00 00 00 00 00 00 00 00 00 00 00 " + hex(std::string("/sys/hostname ap1\0", 18)));
}

TEST(Client, PayloadsAndCutLimits)
{
    TempDir dir;
    FakeServer srv(dir.sock(), {kOk});
    std::string longv(2000, 'v');
    std::string longk(1500, 'k');
    char buf[8];
    struct Case {
        std::function<void()> call;
        uint16_t cmd;
        std::string payload;
    } cases[] = {
        {[] { int fd = lrgdb_open(nullptr); lrgdb_get(fd, 0, "", nullptr); close(fd); }, 1, ""},
        {[&] { int fd = lrgdb_open(nullptr); lrgdb_set(fd, 0, "/k", longv.c_str()); close(fd); }, 2, "/k " + longv.substr(0, 1019)},
        {[&] { int fd = lrgdb_open(nullptr); lrgdb_set_notify(fd, 0, "/k", longv.c_str()); close(fd); }, 8, "/k " + longv.substr(0, 251)},
        {[] { _rgdb_set_("/k", "a  b c "); }, 2, "/k a  b c "},
        {[&] { _rgdb_get_(buf, sizeof(buf), "%s", longk.c_str()); }, 1, longk.substr(0, 1023)},
        {[] { tav_rgdb_set_digit(5, "/wlan/inf:%d/wlmode", 1); }, 2, "/wlan/inf:1/wlmode 5"},
        {[] { tav_rgdb_set_str("x y", "/a:%d/b", 2); }, 2, "/a:2/b x y"},
        {[] { binary__rgdb_set_("/s", 4294967295ul); }, 2, "/s 4294967295"},
        {[] { int fd = lrgdb_open(nullptr); lrgdb_del(fd, 0, "/d"); close(fd); }, 3, "/d"},
        {[] { int fd = lrgdb_open(nullptr); lrgdb_reload(fd, 0, "/r"); close(fd); }, 4, "/r"},
        {[] { int fd = lrgdb_open(nullptr); lrgdb_dump(fd, 0, "/f"); close(fd); }, 5, "/f"},
    };
    for (size_t i = 0; i < std::size(cases); i++) {
        cases[i].call();
        auto got = srv.requests(i + 1);
        ASSERT_EQ(got.size(), i + 1);
        std::string want = header(cases[i].cmd, uint16_t(cases[i].payload.size() + 1)) + cases[i].payload + '\0';
        EXPECT_EQ(got[i], want) << "case " << i;
    }
}

TEST(Client, StatusReplies)
{
    TempDir dir;
    struct {
        std::string reply;
        int set, del, typed;
    } cases[] = {{kOk, 0, 0, 0}, {kFail, -1, -1, -1}, {header(2, 0, 7), 7, 7, 0}, {"short", -1, -1, -1}};
    for (auto &c : cases) {
        FakeServer srv(dir.sock(), {c.reply});
        int fd = lrgdb_open(nullptr);
        EXPECT_EQ(lrgdb_set(fd, 0, "/k", "v"), c.set);
        close(fd);
        fd = lrgdb_open(nullptr);
        EXPECT_EQ(lrgdb_del(fd, 0, "/k"), c.del);
        close(fd);
        EXPECT_EQ(_rgdb_set_("/k", "v"), c.typed);
        EXPECT_EQ(tav_rgdb_set_digit(1, "/k"), c.typed);
        EXPECT_EQ(binary__rgdb_set_("/k", 1), 0);
    }
}

TEST(Client, TypedReadBufferRules)
{
    TempDir dir;
    std::string forty(40, 'q');
    struct {
        std::string reply;
        int size;
        std::string want;  // whole buffer afterwards, prefilled with 'x'
    } cases[] = {
        {std::string("12\0", 3), 2, std::string("1\0", 2)},
        {forty + '\0', 32, forty.substr(0, 31) + '\0'},
        {std::string("ab\0", 3), 8, std::string("ab\0xxxx\0", 8)},
        {"", 4, std::string("xxx\0", 4)},  // server hung up: still success
    };
    for (auto &c : cases) {
        FakeServer srv(dir.sock(), {c.reply});
        std::string buf(c.size, 'x');
        EXPECT_EQ(_rgdb_get_(buf.data(), c.size, "/k"), 0);
        EXPECT_EQ(buf, c.want);
    }
}

TEST(Client, DigitConversion)
{
    TempDir dir;
    struct {
        std::string value;
        int want;
    } cases[] = {{" 42a", 42}, {"-7", -7}, {"abc", 0}, {"", 0}, {"2147483647", 2147483647}};
    for (auto &c : cases) {
        FakeServer srv(dir.sock(), {c.value + '\0'});
        EXPECT_EQ(rgdb_get_digit("/x/%d", 1), c.want) << c.value;
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
    std::string line = "Cound not connect to unix socket: " + std::string(kSockName) + ".\n";
    EXPECT_EQ(err, line + line + line + line + line + line);
}

TEST(Client, NullKeyIsRefusedWithoutConnecting)
{
    TempDir dir;
    FakeServer srv(dir.sock(), {kOk});
    EXPECT_EQ(binary__rgdb_set_(nullptr, 1), -1);
    EXPECT_TRUE(srv.requests(1).empty());
}

TEST(Client, TextRepliesAndSplitReads)
{
    TempDir dir;
    struct {
        std::vector<std::string> chunks;
        std::string want;
    } cases[] = {
        {{std::string("xyz\0", 4)}, "xyz"},
        {{"abc", std::string("def\0", 4)}, "abcdef"},
        {{std::string("ab\0c", 4), std::string("d\0", 2)}, std::string("ab\0cd", 5)},
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
            int fd = lrgdb_open(nullptr);
            EXPECT_EQ(ops[op](fd, 0, "arg", out), 0);
            close(fd);
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
    FakeServer srv(dir.sock(), {std::string("value\0", 6)});
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
