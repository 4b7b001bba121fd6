// SPDX-License-Identifier: ISC
// Op 0x2003: the device's load and traffic counters. Read-only; the request
// body is not looked at.
#include <stdlib.h>

#include "lrgbin/rgdb_getset.h"
#include "proto/tags.h"
#include "tavc/handlers.h"
#include "tavc/reply.h"

namespace {

// At most 30 characters of the counter's text; anything unreadable is 0.
uint64_t counter(const char *key) {
    char text[32] = {};
    rgdb_get_key(text, 31, key);
    return uint64_t(atoll(text));
}

}  // namespace

TAV_HANDLER(tav_get_device_status) {
    (void)body;
    (void)body_length;
    Reply r(reply);
    r.add(tav::kTagCpuUtilization, uint8_t(rgdb_get_digit("/runtime/cpu/status/alluser_utilize")));
    r.add(tav::kTagMemoryUsage, uint8_t(rgdb_get_digit("/runtime/mem/status/alluser_utilize")));
    r.add(tav::kTagWlan2gSend, counter("/runtime/stats/wireless/inf:1/showtx/bytes"));
    r.add(tav::kTagWlan2gReceived, counter("/runtime/stats/wireless/inf:1/showrx/bytes"));
    r.add(tav::kTagWlan5gSend, counter("/runtime/stats/wireless/inf:2/showtx/bytes"));
    r.add(tav::kTagWlan5gReceived, counter("/runtime/stats/wireless/inf:2/showrx/bytes"));
    r.add(tav::kTagLanSend, counter("/runtime/stats/ethernet/tx/bytes"));
    r.add(tav::kTagLanReceived, counter("/runtime/stats/ethernet/rx/bytes"));
    return r.finish(tav::kResultSuccess);
}
