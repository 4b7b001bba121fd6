// SPDX-License-Identifier: ISC
// Linked as C (no libstdc++) with the device's flags: the protocol headers
// must work there, at compile time and at run time.
#include "proto/auth_codes.h"
#include "proto/tags.h"
#include "proto/wire.h"

static_assert(tav::find_op_code(0x200C)->handler == "tav_set_ap_array_member_list");

int main() {
    uint8_t area[64];
    tav::TlvWriter w(area);
    if (!w.add_be32(tav::kTagSetStatus, 2) || !w.add_text(tav::kTagInformation, "0.00.037")) return 1;
    tav::TlvReader r(w.bytes());
    int n = 0;
    while (r.next()) ++n;
    volatile uint16_t tag = 395;  // a run-time look-up in context
    volatile int stored = 17;
    return n == 2 && tav::find_tag(tag, tav::kOpSetSnmp)->kind == tav::TagKind::kU32Le &&
                   tav::auth_code_of(stored) == 12
               ? 0
               : 2;
}
