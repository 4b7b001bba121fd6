// Op 0x2003: the device's load and traffic counters. Read-only; the request
// body is not looked at.
#include <stdlib.h>

#include "lrgbin/rgdb_getset.h"
#include "proto/tags.h"
#include "tavc/handlers.h"
#include "tavc/reply.h"

namespace {

struct Counter {
    uint16_t tag;
    const char *key;
};
constexpr Counter kCounters[] = {
    {tav::kTagWlan2gSend, "/runtime/stats/wireless/inf:1/showtx/bytes"},
    {tav::kTagWlan2gReceived, "/runtime/stats/wireless/inf:1/showrx/bytes"},
    {tav::kTagWlan5gSend, "/runtime/stats/wireless/inf:2/showtx/bytes"},
    {tav::kTagWlan5gReceived, "/runtime/stats/wireless/inf:2/showrx/bytes"},
    {tav::kTagLanSend, "/runtime/stats/ethernet/tx/bytes"},
    {tav::kTagLanReceived, "/runtime/stats/ethernet/rx/bytes"},
};

// At most 30 characters of the counter's text; anything unreadable is 0.
uint64_t counter(const char *key) {
    char text[32] = {};
    _rgdb_get_(text, 31, "%s", key);
    return uint64_t(atoll(text));
}

}  // namespace

TAV_HANDLER(tav_get_device_status) {
    (void)body;
    (void)body_length;
    Reply r(reply);
    r.add_u8(tav::kTagCpuUtilization, uint8_t(rgdb_get_digit("/runtime/cpu/status/alluser_utilize")));
    r.add_u8(tav::kTagMemoryUsage, uint8_t(rgdb_get_digit("/runtime/mem/status/alluser_utilize")));
    for (const Counter &c : kCounters) r.add_be64(c.tag, counter(c.key));
    return r.finish(tav::kResultSuccess);
}
