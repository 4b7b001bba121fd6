// Hostile input against the daemon that ships (the release build when there
// is one): a bounded flood of malformed frames and datagrams, after which the
// daemon must still be the same process, without zombie children, without
// memory growth, and answer a discovery at once.
#include <cstdio>

#include "tests/e2e/hostile_support.h"

namespace e2e {
namespace {

E2E_SUITE(Hostile, "host", 1, "--build " + quote(daemon_build()));

// At least this many hostile messages. The daemon that ships takes the full
// flood; a sanitized one serves some five times slower, so it gets the same
// mix (every kind in every burst) at a fifth of the count, within the limit.
constexpr int kFrames = kSanitized ? 20000 : 100000;
constexpr auto kTimeLimit = 240s;     // and never longer than this
constexpr int kBurst = 100;           // then both paths are checked with a discovery
constexpr long kMemorySlackKb = 64;

struct Counts {
    long raw = 0, udp = 0, enciphered = 0, foreign = 0, empty = 0, max_size = 0;
    long kinds[HostileTraffic::kKinds] = {};
    long total() const { return raw + udp; }
};

// One burst: foreign bytes and malformed plaintexts over both paths, then a
// zero-length datagram and the largest datagram and frame. Returns the
// discoveries that went unanswered afterwards (0 or more).
int burst(HostileTraffic &gen, Client &raw, Client &udp, Counts &n) {
    for (int i = 0; i < kBurst; ++i) {
        const bool via_udp = gen.coin();
        Client &c = via_udp ? udp : raw;
        bool ok;
        if (gen.pick(0, 9) < 5) {
            ok = bool(c.transport().send(gen.foreign(via_udp ? 1472 : 1500)));
            n.foreign += ok;
        } else {
            const auto kind = HostileTraffic::Kind(gen.pick(0, HostileTraffic::kKinds - 1));
            ok = bool(c.send_plaintext(gen.plaintext(kind, gen.coin())));
            n.enciphered += ok;
            n.kinds[kind] += ok;
        }
        (via_udp ? n.udp : n.raw) += ok;
    }
    if (udp.transport().send({})) ++n.udp, ++n.empty;
    if (udp.transport().send(gen.random_bytes(65507))) ++n.udp, ++n.max_size;
    if (raw.transport().send(gen.random_bytes(1500))) ++n.raw, ++n.max_size;
    int lost = 0;
    // A raw frame that arrives with a datagram at the same wake-up is dropped
    // (only the datagram is served): UDP first, so its queue is empty when
    // the raw discovery comes; one lost all the same is asked again.
    for (Client *c : {&udp, &raw}) {
        auto r = c->request(tav::kOpDiscovery, {}, 1s, 1);
        for (int again = 0; again < 2 && !(r && r->size() == 1); ++again)
            r = c->request(tav::kOpDiscovery, {}, 1s, 1);
        if (!(r && r->size() == 1)) {
            ++lost;
            std::printf("hostile: no discovery answer over %s: %s\n", c == &raw ? "raw" : "udp",
                        r ? "no reply" : r.error().c_str());
        }
        c->receive_all(0ms);  // replies to the flood itself: not kept
    }
    return lost;
}

TEST_F(Hostile, FloodLeavesTheDaemonServingWithoutGrowthOrZombies) {
    const std::string build = daemon_build();
    std::printf("hostile: daemon from %s%s\n", build.c_str(),
                build == E2E_RELEASE_DIR ? " (release)" : kSanitized ? " (this build, sanitized)" : " (this build: no release build found)");
    Client raw = lab().raw(), udp = lab().udp();
    HostileTraffic gen(0x7a76);
    Counts warm;
    // Warm-up: every kind of message once, so that buffers touched on first
    // use are in the baseline.
    for (int i = 0; i < 40; ++i) ASSERT_EQ(burst(gen, raw, udp, warm), 0) << "not serving before the flood";
    const int pid = daemon_pid(lab());
    const long before_kb = private_dirty_kb(lab());
    ASSERT_GT(pid, 0);
    ASSERT_GT(before_kb, 0);

    Counts n;
    int lost = 0;
    const auto start = Clock::now();
    while (n.total() < kFrames && Clock::now() - start < kTimeLimit) lost += burst(gen, raw, udp, n);
    const double secs = std::chrono::duration<double>(Clock::now() - start).count();

    EXPECT_GE(n.total(), kFrames) << "the time limit cut the flood short";
    EXPECT_EQ(lost, 0) << "discoveries unanswered during the flood";
    EXPECT_EQ(daemon_pid(lab()), pid) << "the daemon was restarted";
    EXPECT_TRUE(lab().serving(1)) << "the daemon is gone";
    EXPECT_EQ(daemon_zombies(lab()), "") << "zombie children";
    const long after_kb = private_dirty_kb(lab());
    EXPECT_LE(after_kb, before_kb + kMemorySlackKb) << "private dirty memory grew";
    const auto t0 = Clock::now();
    auto r = raw.request(tav::kOpDiscovery, {}, 1s, 1), u = udp.request(tav::kOpDiscovery, {}, 1s, 1);
    const double answer_ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
    EXPECT_TRUE(r && r->size() == 1 && u && u->size() == 1) << "no discovery answer after the flood";

    std::printf("hostile: %ld messages in %.1f s (raw %ld, udp %ld; foreign %ld, enciphered %ld, "
                "zero-length %ld, maximum-size %ld)\n",
                n.total(), secs, n.raw, n.udp, n.foreign, n.enciphered, n.empty, n.max_size);
    for (int k = 0; k < HostileTraffic::kKinds; ++k) std::printf("hostile:   %-18s %ld\n", HostileTraffic::name(k), n.kinds[k]);
    std::printf("hostile: private dirty %ld kB before, %ld kB after; discoveries lost %d; "
                "both discoveries answered in %.1f ms\n",
                before_kb, after_kb, lost, answer_ms);
    RecordProperty("messages", std::to_string(n.total()));
    RecordProperty("private_dirty_kb_before", std::to_string(before_kb));
    RecordProperty("private_dirty_kb_after", std::to_string(after_kb));
}

}  // namespace
}  // namespace e2e
