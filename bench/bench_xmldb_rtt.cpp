// SPDX-License-Identifier: ISC
// Round-trip rate of xmldb against a minimal blocking echo server: both are
// driven through lrgbin exactly as a typed read does it (connect, get, one
// read, close), the same number of times, alternating in rounds.
#include <sched.h>
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

bool wait_for(const std::string &path)
{
    for (int i = 0; i < 500; i++) {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
        bool ok = connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) == 0;
        close(fd);
        if (ok)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
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
    std::fputs("usage: bench_xmldb_rtt [-n ROUND_TRIPS] [--pin same|split|none] [--json]\n"
               "Connect+get+close round-trip rate of xmldb and of a blocking echo server.\n"
               "  --pin same   client and servers on CPU 0 (default: steadiest figures)\n"
               "  --pin split  client on CPU 0, servers on CPU 1\n"
               "  --pin none   wherever the scheduler puts them (varies from run to run)\n",
               to);
}

void pin(int cpu)
{
    if (cpu < 0)
        return;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    if (sched_setaffinity(0, sizeof(set), &set) < 0)
        std::perror("bench_xmldb_rtt: sched_setaffinity");
}

}  // namespace

int main(int argc, char **argv)
{
    long n = 20000;
    bool json = false;
    std::string_view mode = "same";
    for (int i = 1; i < argc; i++) {
        std::string_view a = argv[i];
        if (a == "--serve-echo" && i + 1 < argc)
            echo_server(listen_on(argv[i + 1]));
        if (a == "--help") {
            usage(stdout);
            return 0;
        } else if (a == "--json") {
            json = true;
        } else if (a == "--pin" && i + 1 < argc) {
            mode = argv[++i];
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

    if (mode != "same" && mode != "split" && mode != "none") {
        usage(stderr);
        return 1;
    }
    // Cross-CPU wake-ups cost far more than the servers' own work on a VM,
    // and where the scheduler puts the processes changes from run to run.
    int server_cpu = mode == "none" ? -1 : mode == "split" ? 1 : 0;
    int client_cpu = mode == "none" ? -1 : 0;
    pin(server_cpu);  // inherited by both servers

    char tmpl[] = "/tmp/tavc-bench-XXXXXX";
    if (!mkdtemp(tmpl)) {
        std::perror("mkdtemp");
        return 1;
    }
    std::string dir = tmpl, xsock = dir + "/xmldb.sock", esock = dir + "/echo.sock";

    // Both servers start the same way (spawn + exec), so neither gets a
    // head start from where the scheduler first places it.
    const char *eargv[] = {"/proc/self/exe", "--serve-echo", esock.c_str(), nullptr};
    pid_t echo = -1;
    posix_spawn(&echo, "/proc/self/exe", nullptr, nullptr, const_cast<char **>(eargv), environ);

    const char *xargv[] = {XMLDB_BIN, "-s", xsock.c_str(), nullptr};
    pid_t xmldb = -1;
    posix_spawn(&xmldb, XMLDB_BIN, nullptr, nullptr, const_cast<char **>(xargv), environ);
    bool up = wait_for(xsock) && wait_for(esock);
    pin(client_cpu);
    int rc = 1;
    if (up) {
        int fd = lrgdb_open(xsock.c_str());
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
            std::printf("{\"pin\":\"%.*s\",\"round_trips_xmldb\":%ld,\"round_trips_echo\":%ld,\"xmldb_per_s\":%.0f,"
                        "\"echo_per_s\":%.0f,\"ratio\":%.3f}\n", int(mode.size()), mode.data(), nx, ne, rx, re, rx / re);
            rc = 0;
        } else {
            std::printf("pin:   %.*s\n", int(mode.size()), mode.data());
            std::printf("xmldb: %ld round trips in %.3f s = %.0f/s\n", nx, tx, rx);
            std::printf("echo:  %ld round trips in %.3f s = %.0f/s\n", ne, te, re);
            std::printf("ratio xmldb/echo: %.3f\n", rx / re);
            rc = 0;
        }
    } else {
        std::fprintf(stderr, "bench_xmldb_rtt: the servers did not start\n");
    }
    for (pid_t pid : {echo, xmldb}) {
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
    }
    std::filesystem::remove_all(dir);
    return rc;
}
