// Round-trip rate of xmldb against a minimal blocking echo server: both are
// driven through lrgbin exactly as a typed read does it (connect, get, one
// read, close), the same number of times, alternating in rounds.
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>

#include "lrgbin/lrgbin.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr const char *kKey = "/wlan/inf:1/multi/index:1/ssid";
constexpr std::string_view kValue = "tavlab-ssid-0001";

int listen_on(const std::string &path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) < 0 || listen(fd, 128) < 0) {
        std::perror("echo server");
        std::exit(1);
    }
    return fd;
}

// The baseline: accept, read the whole request, one write of a reply the
// size of the real one, close. Nothing else.
[[noreturn]] void echo_server(int lfd)
{
    std::string reply(kValue);
    reply += '\0';
    char buf[2048];
    for (;;) {
        int fd = accept(lfd, nullptr, nullptr);
        if (fd < 0)
            continue;
        size_t got = 0;
        uint16_t len = 0;
        while (got < 16u + len) {
            ssize_t n = read(fd, buf + got, sizeof(buf) - got);
            if (n <= 0)
                break;
            got += static_cast<size_t>(n);
            if (got >= 16)
                std::memcpy(&len, buf + 2, 2);
        }
        send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
        close(fd);
    }
}

bool round_trip(const char *path)
{
    int fd = lrgdb_open(path);
    if (fd < 0)
        return false;
    char buf[64] = {};
    bool ok = lrgdb_get(fd, 0, kKey, nullptr) == 0 && read(fd, buf, sizeof(buf)) > 0 && kValue == buf;
    lrgdb_close(fd);
    return ok;
}

// Runs n round trips unless the time budget runs out first.
long run(const char *path, long n, double &seconds, double budget)
{
    auto t0 = Clock::now();
    long done = 0;
    while (done < n) {
        if (!round_trip(path))
            break;
        if (++done % 256 == 0 && std::chrono::duration<double>(Clock::now() - t0).count() > budget)
            break;
    }
    seconds += std::chrono::duration<double>(Clock::now() - t0).count();
    return done;
}

void usage(FILE *to)
{
    std::fputs("usage: bench_xmldb_rtt [-n ROUND_TRIPS] [--json]\n"
               "Connect+get+close round-trip rate of xmldb and of a blocking echo server.\n",
               to);
}

}  // namespace

int main(int argc, char **argv)
{
    long n = 20000;
    bool json = false;
    for (int i = 1; i < argc; i++) {
        std::string_view a = argv[i];
        if (a == "--help") {
            usage(stdout);
            return 0;
        } else if (a == "--json") {
            json = true;
        } else if (a == "-n" && i + 1 < argc) {
            n = std::atol(argv[++i]);
        } else {
            usage(stderr);
            return 1;
        }
    }
    if (n < 100 || n > 10000000) {
        std::fprintf(stderr, "bench_xmldb_rtt: -n must be 100 to 10000000\n");
        return 1;
    }

    char tmpl[] = "/tmp/tavc-bench-XXXXXX";
    if (!mkdtemp(tmpl)) {
        std::perror("mkdtemp");
        return 1;
    }
    std::string dir = tmpl, xsock = dir + "/xmldb.sock", esock = dir + "/echo.sock";

    int lfd = listen_on(esock);
    pid_t echo = fork();
    if (echo == 0)
        echo_server(lfd);
    close(lfd);

    const char *xargv[] = {XMLDB_BIN, "-s", xsock.c_str(), nullptr};
    pid_t xmldb = -1;
    posix_spawn(&xmldb, XMLDB_BIN, nullptr, nullptr, const_cast<char **>(xargv), environ);
    int fd = -1;
    for (int i = 0; i < 500 && fd < 0; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, xsock.c_str(), sizeof(addr.sun_path) - 1);
        if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) < 0) {
            close(fd);
            fd = -1;
        }
    }
    int rc = 1;
    if (fd >= 0) {
        close(fd);
        fd = lrgdb_open(xsock.c_str());
        bool set = fd >= 0 && lrgdb_set(fd, 0, kKey, std::string(kValue).c_str()) == 0;
        lrgdb_close(fd);

        double tx = 0, te = 0;
        long nx = 0, ne = 0;
        run(xsock.c_str(), 1000, tx, 10);  // warm-up, not counted
        run(esock.c_str(), 1000, te, 10);
        tx = te = 0;
        constexpr int kRounds = 20;  // short alternating rounds: load drift hits both alike
        for (int r = 0; r < kRounds; r++) {
            nx += run(xsock.c_str(), n / kRounds, tx, 15.0 / kRounds);
            ne += run(esock.c_str(), n / kRounds, te, 15.0 / kRounds);
        }
        double rx = nx / tx, re = ne / te;
        if (!set || nx == 0 || ne == 0) {
            std::fprintf(stderr, "bench_xmldb_rtt: round trips failed\n");
        } else if (json) {
            std::printf("{\"round_trips_xmldb\":%ld,\"round_trips_echo\":%ld,\"xmldb_per_s\":%.0f,"
                        "\"echo_per_s\":%.0f,\"ratio\":%.3f}\n", nx, ne, rx, re, rx / re);
            rc = 0;
        } else {
            std::printf("xmldb: %ld round trips in %.3f s = %.0f/s\n", nx, tx, rx);
            std::printf("echo:  %ld round trips in %.3f s = %.0f/s\n", ne, te, re);
            std::printf("ratio xmldb/echo: %.3f\n", rx / re);
            rc = 0;
        }
    } else {
        std::fprintf(stderr, "bench_xmldb_rtt: xmldb did not start\n");
    }
    kill(echo, SIGTERM);
    waitpid(echo, nullptr, 0);
    if (xmldb > 0) {
        kill(xmldb, SIGTERM);
        waitpid(xmldb, nullptr, 0);
    }
    std::filesystem::remove_all(dir);
    return rc;
}
