// SPDX-License-Identifier: ISC
// The database client and the typed access against a server that records
// the bytes it receives and answers with scripted chunks.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <bit>
#include <functional>
#include <thread>
#include <vector>

#include "lrgbin/lrgbin.h"
#include "lrgbin/rgdb_getset.h"
#include "support.h"

using namespace dbtest;
using namespace std::literals;

namespace {

const std::string kOk = header(2, 0, 0);

// Runs `call` against a server that takes one connection (if one comes within
// a second) and answers `reply` in pieces 30 ms apart; returns what it received.
std::string exchange(const std::function<void()> &call, const std::vector<std::string> &reply = {kOk}) {
    int lfd = unix_socket(kSockName, true);
    std::string req;
    std::thread srv([&] {
        pollfd p{lfd, POLLIN, 0};
        if (poll(&p, 1, 1000) != 1)
            return;
        int fd = accept(lfd, nullptr, nullptr);
        timeval tv{1, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
        req.resize(16 + 65535);
        ssize_t n = recv(fd, req.data(), 16, MSG_WAITALL);
        uint16_t len;
        std::memcpy(&len, req.data() + 2, 2);
        if (n == 16 && len)
            n += std::max<ssize_t>(0, recv(fd, req.data() + 16, len, MSG_WAITALL));
        req.resize(std::max<ssize_t>(n, 0));
        for (size_t i = 0; i < reply.size(); i++) {
            std::this_thread::sleep_for(i ? 30ms : 0ms);
            send_all(fd, reply[i]);
        }
        close(fd);
    });
    call();
    srv.join();
    close(lfd);
    unlink(kSockName);
    return req;
}

// Runs one client operation on a fresh connection of the compiled-in path.
std::function<void()> on_conn(std::function<void(int)> op) {
    return [op] {
        int fd = lrgdb_open(nullptr);
        op(fd);
        close(fd);
    };
}

}  // namespace

TEST(Client, ExampleExchangesByteForByte) {
    TempDir dir;
    const std::string zeros(12, '\0');
    // The header travels in host order: the documented bytes are a
    // little-endian device's; a big-endian one sends each field reversed.
    const bool le = std::endian::native == std::endian::little;
    const std::string get_head = le ? "\x01\x00\x0e\x00"s : "\x00\x01\x00\x0e"s;
    const std::string set_head = le ? "\x02\x00\x12\x00"s : "\x00\x02\x00\x12"s;
    char buf[16] = {};
    EXPECT_EQ(exchange([&] { EXPECT_EQ(_rgdb_get_(buf, sizeof(buf), "/sys/%s", "hostname"), 0); }, {"ap1\0"s}),
              get_head + zeros + "/sys/hostname\0"s);
    EXPECT_STREQ(buf, "ap1");
    EXPECT_EQ(exchange([] { EXPECT_EQ(_rgdb_set_("/sys/hostname", "ap1"), 0); }),
              set_head + zeros + "/sys/hostname ap1\0"s);
}

TEST(Client, PayloadsAndCutLimits) {
    TempDir dir;
    std::string longv(2000, 'v'), longk(1500, 'k');
    char buf[8];
    struct {
        std::function<void()> call;
        uint16_t cmd;  // 0: refused, nothing sent
        std::string payload;
    } cases[] = {
        {on_conn([](int fd) { lrgdb_get(fd, 0, "", nullptr); }), 1, ""},
        {on_conn([&](int fd) { lrgdb_set(fd, 0, "/k", longv.c_str()); }), 2, "/k " + longv.substr(0, 1019)},
        {on_conn([&](int fd) { lrgdb_set_notify(fd, 0, "/k", longv.c_str()); }), 8, "/k " + longv.substr(0, 251)},
        {on_conn([](int fd) { lrgdb_del(fd, 0, "/d"); }), 3, "/d"},
        {on_conn([](int fd) { lrgdb_reload(fd, 0, "/r"); }), 4, "/r"},
        {on_conn([](int fd) { lrgdb_dump(fd, 0, "/f"); }), 5, "/f"},
        {on_conn([](int fd) { lrgdb_patch(fd, 0, "/p", nullptr); }), 6, "/p"},
        {on_conn([](int fd) { lrgdb_patch_buffer(fd, 0, "/b", nullptr); }), 7, "/b"},
        {on_conn([](int fd) { lrgdb_ephp(fd, 0, "/e", nullptr); }), 10, "/e"},
        {[] { _rgdb_set_("/k", "a  b c "); }, 2, "/k a  b c "},
        {[&] { _rgdb_get_(buf, sizeof(buf), "%s", longk.c_str()); }, 1, longk.substr(0, 1023)},
        {[] { tav_rgdb_set_digit(5, "/wlan/inf:%d/wlmode", 1); }, 2, "/wlan/inf:1/wlmode 5"},
        {[] { tav_rgdb_set_str("x y", "/a:%d/b", 2); }, 2, "/a:2/b x y"},
        {[] { binary__rgdb_set_("/s", 4294967295ul); }, 2, "/s 4294967295"},
        {[] { binary__rgdb_set_(nullptr, 1); }, 0, ""},
    };
    for (size_t i = 0; i < std::size(cases); i++)
        EXPECT_EQ(exchange(cases[i].call), cases[i].cmd ? request(cases[i].cmd, cases[i].payload) : "") << i;
}

TEST(Client, StatusReplies) {
    TempDir dir;
    // reply; what the raw calls return; what the typed ones return
    for (auto [reply, raw, typed] :
         {std::tuple{kOk, 0, 0}, {header(2, 0, -1), -1, -1}, {header(2, 0, 7), 7, 0}, {"short", -1, -1}}) {
        exchange(on_conn([&](int fd) { EXPECT_EQ(lrgdb_set(fd, 0, "/k", "v"), raw); }), {reply});
        exchange(on_conn([&](int fd) { EXPECT_EQ(lrgdb_del(fd, 0, "/k"), raw); }), {reply});
        exchange([&] { EXPECT_EQ(_rgdb_set_("/k", "v"), typed); }, {reply});
        exchange([&] { EXPECT_EQ(tav_rgdb_set_digit(1, "/k"), typed); }, {reply});
    }
}

TEST(Client, TypedReads) {
    TempDir dir;
    // reply; buffer size; the whole buffer afterwards, prefilled with 'x' (no reply: still success)
    for (auto [reply, size, want] : {std::tuple{"12\0"s, 2, "1\0"s}, {"ab\0"s, 8, "ab\0xxxx\0"s}, {"", 4, "xxx\0"s}}) {
        std::string buf(size, 'x');
        exchange([&] { EXPECT_EQ(_rgdb_get_(buf.data(), size, "/k"), 0); }, {reply});
        EXPECT_EQ(buf, want);
    }
    for (auto [value, want] : {std::pair{" 42a", 42}, {"-7", -7}, {"abc", 0}, {"", 0}, {"2147483647", 2147483647}})
        exchange([&] { EXPECT_EQ(rgdb_get_digit("/x/%d", 1), want) << value; }, {value + "\0"s});
}

TEST(Client, DatabaseDown) {
    TempDir dir;
    char buf[8] = "keepme";
    testing::internal::CaptureStderr();
    EXPECT_EQ(_rgdb_get_(buf, sizeof(buf), "/k"), -1);
    EXPECT_EQ(rgdb_get_digit("/k"), 0);
    EXPECT_EQ(_rgdb_set_("/k", "v"), -1);
    EXPECT_EQ(tav_rgdb_set_str("v", "/k"), -1);
    EXPECT_EQ(binary__rgdb_set_("/k", 1), 0);
    EXPECT_EQ(lrgdb_open(nullptr), -1);
    std::string err = testing::internal::GetCapturedStderr(), line = "Cound not connect to unix socket: "s + kSockName + ".\n";
    EXPECT_STREQ(buf, "keepme");
    EXPECT_EQ(err, line + line + line + line + line + line);
}

TEST(Client, TextRepliesSplitReadsGetwbAndCloseOnExec) {
    TempDir dir;
    using Chunks = std::vector<std::string>;  // a NUL inside a chunk is copied; the last one ends the text
    for (auto [chunks, want] : {std::pair{Chunks{"xyz\0"s}, "xyz"s}, {{"abc", "def\0"s}, "abcdef"},
                                {{"ab\0c"s, "d\0"s}, "ab\0cd"s}, {{"no-nul"}, "no-nul"}}) {
        char *mem = nullptr;
        size_t len = 0;
        FILE *out = open_memstream(&mem, &len);
        exchange(on_conn([&](int fd) { EXPECT_EQ(lrgdb_get(fd, 0, "arg", out), 0); }), chunks);
        fclose(out);
        EXPECT_EQ(std::string(mem, len), want);
        free(mem);
    }
    char buf[4] = {'z', 'z', 'z', 'z'};
    exchange([&] {
        int fd = lrgdb_open(nullptr);
        EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
        EXPECT_EQ(lrgdb_getwb(fd, buf, 3, "/k/%d", 7), 3);
        EXPECT_EQ(lrgdb_close(fd), 0);
    }, {"value\0"s});
    EXPECT_EQ(std::string(buf, 4), "valz");
    EXPECT_EQ(send_xmldb_cmd(-1, 1, 0, "x", 2), -1);
}
