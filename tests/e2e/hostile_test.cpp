// Hostile input against the daemon that ships (the release build when there
// is one): a flood of malformed frames and datagrams, bounded by its count,
// after which the daemon must still be the same process, without zombie
// children, without memory growth, and answer discoveries on both paths.
#include <cstdio>

#include "tests/e2e/hostile_support.h"

namespace e2e {
namespace {

E2E_SUITE(Hostile, "host", 1, "--build " + quote(daemon_build()));

// The daemon that ships takes the full flood; a sanitized one serves some
// five times slower, so it gets the same mix (every kind in every burst) at a
// fifth of the count.
constexpr int kFrames = kSanitized ? 6000 : 30000;
constexpr int kBurst = 100;  // then a discovery on each path paces the flood
constexpr long kMemorySlackKb = 64;

struct Counts {
    long raw = 0, udp = 0, enciphered = 0, foreign = 0, empty = 0, max_size = 0, unanswered = 0;
    long kinds[HostileTraffic::kKinds] = {};
    long total() const { return raw + udp; }
};

// Both discoveries answered. A raw frame that arrives with a datagram at the
// same wake-up is dropped (only the datagram is served): UDP first, and one
// lost all the same is asked again.
bool discovered(Client &raw, Client &udp, Counts &n) {
    bool ok = true;
    for (Client *c : {&udp, &raw}) {
        auto r = c->request(tav::kOpDiscovery, {}, 2s, 1);
        for (auto window : {10s, 20s, 60s}) {
            if (r && r->size() == 1) break;
            ++n.unanswered, r = c->request(tav::kOpDiscovery, {}, window, 1);
        }
        ok = ok && r && r->size() == 1;
        c->receive_all(0ms);  // replies to the flood itself: not kept
    }
    return ok;
}

// One burst: foreign bytes and malformed plaintexts over both paths, then a
// zero-length datagram and the largest datagram and frame.
void burst(HostileTraffic &gen, Client &raw, Client &udp, Counts &n) {
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
            n.enciphered += ok, n.kinds[kind] += ok;
        }
        (via_udp ? n.udp : n.raw) += ok;
    }
    if (udp.transport().send({})) ++n.udp, ++n.empty;
    if (udp.transport().send(gen.random_bytes(65507))) ++n.udp, ++n.max_size;
    if (raw.transport().send(gen.random_bytes(1500))) ++n.raw, ++n.max_size;
}

TEST_F(Hostile, FloodLeavesTheDaemonServingWithoutGrowthOrZombies) {
    std::printf("hostile: daemon from %s\n", daemon_build().c_str());
    Client raw = lab().raw(), udp = lab().udp();
    HostileTraffic gen(0x7a76);
    Counts warm, n;
    // Warm-up: every kind of message, so that buffers touched on first use
    // are in the baseline.
    for (int i = 0; i < 40; ++i) {
        burst(gen, raw, udp, warm);
        ASSERT_TRUE(discovered(raw, udp, warm)) << "not serving before the flood";
    }
    const int pid = daemon_pid(lab());
    const long before_kb = private_dirty_kb(lab());
    ASSERT_TRUE(pid > 0 && before_kb > 0);
    const auto start = Clock::now();
    int unserved = 0;
    while (n.total() < kFrames) {
        burst(gen, raw, udp, n);
        unserved += !discovered(raw, udp, n);
    }
    const double secs = std::chrono::duration<double>(Clock::now() - start).count();

    EXPECT_EQ(unserved, 0) << "bursts after which a path stayed silent";
    EXPECT_EQ(daemon_pid(lab()), pid) << "the daemon was restarted";
    EXPECT_TRUE(lab().serving(1)) << "the daemon is gone";
    EXPECT_EQ(daemon_zombies(lab()), "") << "zombie children";
    const long after_kb = private_dirty_kb(lab());
    EXPECT_LE(after_kb, before_kb + kMemorySlackKb) << "private dirty memory grew";
    EXPECT_TRUE(discovered(raw, udp, n)) << "no discovery answer after the flood";

    std::printf("hostile: %ld messages in %.1f s (raw %ld, udp %ld; foreign %ld, enciphered %ld, zero-length %ld, "
                "maximum-size %ld); discoveries asked again %ld; private dirty %ld kB before, %ld kB after\n",
                n.total(), secs, n.raw, n.udp, n.foreign, n.enciphered, n.empty, n.max_size, n.unanswered, before_kb, after_kb);
    for (int k = 0; k < HostileTraffic::kKinds; ++k) std::printf("hostile:   %-18s %ld\n", HostileTraffic::kNames[k], n.kinds[k]);
}

}  // namespace
}  // namespace e2e
