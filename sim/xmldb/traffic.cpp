// SPDX-License-Identifier: ISC
#include "traffic.h"

#include <unistd.h>

namespace xmldb {

namespace {

// The byte counters: each tick adds 0 to 1,999,999 to a decimal value of at
// most 18 digits (a missing or non-numeric value is left alone).
const char *const kCounters[] = {
    "/runtime/stats/wireless/inf:1/showtx/bytes", "/runtime/stats/wireless/inf:1/showrx/bytes",
    "/runtime/stats/wireless/inf:2/showtx/bytes", "/runtime/stats/wireless/inf:2/showrx/bytes",
    "/runtime/stats/ethernet/tx/bytes",           "/runtime/stats/ethernet/rx/bytes",
};
constexpr uint64_t kMaxGrowth = 2000000;

bool decimal(std::string_view v, uint64_t &out)
{
    if (v.empty() || v.size() > 18)
        return false;
    out = 0;
    for (char c : v) {
        if (c < '0' || c > '9')
            return false;
        out = out * 10 + static_cast<uint64_t>(c - '0');
    }
    return true;
}

}  // namespace

Traffic::Traffic(std::string hold, Clock::time_point start, uint64_t seed)
    : hold_(std::move(hold)), last_(start), rng_(seed | 1)
{
}

uint32_t Traffic::next()
{
    // xorshift64*: plenty for made-up traffic.
    rng_ ^= rng_ >> 12;
    rng_ ^= rng_ << 25;
    rng_ ^= rng_ >> 27;
    return static_cast<uint32_t>((rng_ * 2685821657736338717ull) >> 32);
}

void Traffic::tick(Store &store)
{
    for (const char *key : kCounters) {
        uint64_t v;
        if (decimal(store.get(key), v))
            store.set(key, std::to_string(v + next() % kMaxGrowth));
    }
    store.set("/runtime/cpu/status/alluser_utilize", std::to_string(5 + next() % 30));
    store.set("/runtime/mem/status/alluser_utilize", std::to_string(38 + next() % 8));
}

void Traffic::advance(Store &store, Clock::time_point now)
{
    if (now < last_ + kTick)
        return;
    auto ticks = (now - last_) / kTick;
    last_ += ticks * kTick;
    if (access(hold_.c_str(), F_OK) == 0)
        return;
    // A day's worth at most: a database left alone for weeks answers at once.
    if (ticks > 28800)
        ticks = 28800;
    while (ticks-- > 0)
        tick(store);
}

}  // namespace xmldb
