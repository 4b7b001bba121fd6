// SPDX-License-Identifier: ISC
// The simulated statistics service of a lab access point, kept by the
// database itself: the traffic counters grow and the load figures move every
// few seconds. Nothing runs between requests: before each request the ticks
// that have passed since the last one are applied, so a reader sees what a
// service ticking on its own would have left, and an idle database costs
// nothing.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "store.h"

namespace xmldb {

class Traffic {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr auto kTick = std::chrono::seconds(3);

    // Ticks pass unapplied while the file `hold` exists (tests that compare
    // exact values create it).
    Traffic(std::string hold, Clock::time_point start, uint64_t seed);
    // Applies the ticks due by `now`.
    void advance(Store &store, Clock::time_point now);

private:
    uint32_t next();
    void tick(Store &store);

    std::string hold_;
    Clock::time_point last_;  // time of the last tick, applied or not
    uint64_t rng_;
};

}  // namespace xmldb
