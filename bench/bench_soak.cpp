// SPDX-License-Identifier: ISC
// Soak: the daemon in a lab of its own under mixed traffic for a set time
// (discoveries and verifications from many managers over both paths, every op
// code, malformed messages), printing at intervals what it served, what went
// unanswered, and its memory, descriptors and children. Needs root; the lab
// instance (default "soak") is taken down at the end.
//
//   bench_soak [--seconds N] [--interval S] [--build DIR] [--instance NAME]
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "bench/shell.h"
#include "fuzz/requests.h"
#include "tools/client/client.h"

namespace {

using namespace std::chrono_literals;
using tav::client::Client;
using Clock = std::chrono::steady_clock;

std::string g_build = BENCH_BUILD_DIR;
std::string g_instance = "soak";
std::string kLab;

using bench::sh;
// A number read inside the access point.
long on_ap(const std::string &cmd) {
    return std::atol(sh(kLab + "exec ap1 sh -c '" + cmd + "'").c_str());
}

struct Figures {
    long private_dirty_kb, rss_kb, fds, children;
};
Figures figures() {
    const std::string pid = "$(cat /var/run/tavc.pid)";
    return {on_ap("awk \"/^Private_Dirty:/ {print \\$2}\" /proc/" + pid + "/smaps_rollup"),
            on_ap("awk \"/^VmRSS:/ {print \\$2}\" /proc/" + pid + "/status"),
            on_ap("ls /proc/" + pid + "/fd | wc -l"),
            on_ap("p=" + pid + "; n=0; for f in /proc/[0-9]*/stat; do set -- $(sed \"s/^.*) //\" $f 2>/dev/null); "
                  "[ \"$2\" = \"$p\" ] && n=$((n+1)); done; echo $n")};
}

}  // namespace

int main(int argc, char **argv) {
    long seconds = 600, interval = 60;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            std::puts("usage: bench_soak [--seconds N (600)] [--interval S (60)] [--build DIR] [--instance NAME (soak)]\n"
                      "Mixed traffic against the daemon in a lab instance of its own (needs root); prints\n"
                      "requests, replies, unanswered requests, memory, descriptors and children.");
            return 0;
        }
        if (i + 1 >= argc) return std::fprintf(stderr, "bench_soak: %s needs a value\n", argv[i]), 2;
        if (a == "--seconds") seconds = std::atol(argv[++i]);
        else if (a == "--interval") interval = std::atol(argv[++i]);
        else if (a == "--build") g_build = argv[++i];
        else if (a == "--instance") g_instance = argv[++i];
        else return std::fprintf(stderr, "bench_soak: unknown option %s\n", argv[i]), 2;
    }
    kLab = std::string(BENCH_TAVLAB) + " --instance " + g_instance + " ";
    if (geteuid() != 0) return std::fprintf(stderr, "bench_soak: the lab needs root\n"), 1;
    sh(kLab + "down");
    std::printf("bench_soak: lab up with the daemon of %s\n", g_build.c_str());
    const std::string up = sh(kLab + "up -n 1 --build '" + g_build + "'");
    sleep(2);
    const std::string cipher = g_build + "/sim/cipher/TAV_Auth.so";
    int rc = 0;
    try {
        Client raw(tav::client::Options::raw("eth0", "tavlab-" + g_instance + "-mgr", cipher));
        Client udp(tav::client::Options::over_udp("192.0.2.11", "tavlab-" + g_instance + "-mgr", cipher));
        auto &raw_t = static_cast<tav::client::RawTransport &>(raw.transport());
        std::mt19937 rng(1);
        long requests = 0, replies = 0, unanswered = 0, malformed = 0;
        // A datagram whose reply is not awaited (malformed, or an op code past
        // its short wait) can still be unread when the next request arrives as
        // a raw frame; the daemon serves only the datagram of such a wake-up,
        // so that raw request goes unanswered. Counted apart.
        long unanswered_after_other = 0;
        int unawaited_path = -1;  // 0 raw, 1 UDP, -1 none
        const Figures start = figures();
        std::printf("%8s %10s %10s %10s %10s %9s %12s %8s %5s %8s\n", "time_s", "requests", "replies",
                    "unanswered", "malformed", "req/s", "priv_dirty_kB", "rss_kB", "fds", "children");
        auto row = [&](double t, double rate) {
            const Figures f = figures();
            std::printf("%8.0f %10ld %10ld %10ld %10ld %9.0f %12ld %8ld %5ld %8ld\n", t, requests, replies,
                        unanswered, malformed, rate, f.private_dirty_kb, f.rss_kb, f.fds, f.children);
            std::fflush(stdout);
        };
        row(0, 0);
        const auto t0 = Clock::now();
        auto next = t0 + std::chrono::seconds(interval);
        long at_last = 0;
        while (Clock::now() - t0 < std::chrono::seconds(seconds)) {
            const int kind = int(rng() % 10);
            const bool via_udp = rng() % 2;
            Client &c = via_udp ? udp : raw;
            const int prev_unawaited = unawaited_path;
            unawaited_path = -1;
            auto answered = [&](bool ok, int path) {
                if (ok) return void(++replies);
                ++unanswered;
                if (prev_unawaited == 1 && path == 0) ++unanswered_after_other;
            };
            if (kind < 4) {  // discovery: must be answered
                ++requests;
                auto r = c.request(tav::kOpDiscovery, {}, 2s, 1);
                answered(r && r->size() == 1, via_udp);
            } else if (kind < 6) {  // verification with precedence from one of 64 managers
                raw_t.set_source_mac({0x02, 0xe5, 0, 0, 0, uint8_t(rng() % 64)});
                ++requests;
                auto r = raw.request(tav::kOpUserVerification,
                                     tav::requests::lead("admin", rng() % 4 ? "admin" : "wrong", uint8_t(rng() % 8)), 2s, 1);
                answered(r && r->size() == 1, 0);
            } else if (kind < 8) {  // any op code, refused where it would change something
                const auto &op = tav::kOpCodes[rng() % tav::kOpCodes.size()];
                auto tlvs = tav::requests::lead("admin", "soak-wrong-password");
                for (auto &r : tav::requests::tags_of(op.code, "request")) tlvs.push_back(r);
                ++requests;
                auto r = c.request(op.code, tlvs, 50ms, 1);
                if (r && !r->empty()) ++replies;
                else unawaited_path = via_udp;
            } else {  // malformed: a request cut short, or bytes that do not decipher
                std::vector<uint8_t> b(1 + rng() % 200);
                for (auto &x : b) x = uint8_t(rng());
                if (kind == 8) (void)c.send_plaintext(b); else (void)c.transport().send(b);
                ++malformed;
                unawaited_path = via_udp;
            }
            c.receive_all(0ms);
            if (Clock::now() >= next) {
                const double t = std::chrono::duration<double>(Clock::now() - t0).count();
                row(t, double(requests - at_last) / double(interval));
                at_last = requests;
                next += std::chrono::seconds(interval);
            }
        }
        const Figures end = figures();
        std::printf("bench_soak: %ld requests, %ld replies, %ld unanswered (%ld of them right after an "
                    "unawaited datagram), %ld malformed in %ld s; "
                    "private dirty %ld -> %ld kB, descriptors %ld -> %ld\n",
                    requests, replies, unanswered, unanswered_after_other, malformed, seconds, start.private_dirty_kb,
                    end.private_dirty_kb, start.fds, end.fds);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "bench_soak: %s\n%s\n", e.what(), up.c_str());
        rc = 1;
    }
    sh(kLab + "down");
    return rc;
}
