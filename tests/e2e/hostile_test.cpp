// SPDX-License-Identifier: ISC
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
// fifth of the count, and so does an emulated one (a cross build's).
const int kFrames = kSanitized || emulated() ? 6000 : 30000;
constexpr long kMemorySlackKb = 64;

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
