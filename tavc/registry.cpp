// SPDX-License-Identifier: ISC
// Managers known by precedence. Records come from a fixed pool (the registry
// never holds more than kTavServerMax), so serving a request never allocates.
#include <string.h>

#include "tavc/registry.h"
#include "tavc/trace.h"

tav_server *tav_server_list;

// Records are handed out in pool order as managers appear, so only the pages
// of records ever used are touched (a device usually knows one to three
// managers); released ones are taken again first.
static tav_server g_pool[kTavServerMax];
static int g_used;          // records of g_pool handed out at least once
static tav_server *g_free;  // released records, linked through next

tav_server *tav_server_alloc() {
    tav_server *s = g_free;
    if (s != nullptr)
        g_free = s->next;
    else if (g_used < kTavServerMax)
        s = &g_pool[g_used++];
    else
        return nullptr;
    memset(s, 0, sizeof *s);
    return s;
}

void tav_server_release(tav_server *s) {
    if (s == nullptr) return;
    s->next = g_free;
    g_free = s;
}

int check_server_precedence(uint16_t op_code, uint8_t precedence, const tav_server *sender) {
    uint8_t max = precedence;
    int count = 0;
    tav_server *own = nullptr;
    for (tav_server *s = tav_server_list; s != nullptr; s = s->next) {
        ++count;
        if (memcmp(s->mac, sender->mac, 6) == 0) own = s;
        for (const tav_function_entry &e : s->functions) {
            if (e.op_code == 0) break;
            if (e.op_code == op_code && e.precedence > max) max = e.precedence;
        }
    }
    if (own != nullptr) {
        for (tav_function_entry &e : own->functions) {
            if (e.op_code == 0 || e.op_code == op_code) {
                TAV_DEBUG("find match server, update it: op_code=%d, old precedence=%d, "
                          "new precedence=%d\n",
                          op_code, e.precedence, precedence);
                e.op_code = op_code;
                e.precedence = precedence;
                break;
            }
        }
    } else if (count < kTavServerMax) {
        TAV_DEBUG("not find match server, create a new server\n");
        if (tav_server *s = tav_server_alloc()) {
            memcpy(s->mac, sender->mac, 6);
            s->functions[0].op_code = op_code;
            s->functions[0].precedence = precedence;
            s->next = tav_server_list;
            tav_server_list = s;
        }
    }
    TAV_DEBUG("max_precedence=%d, current precedence=%d\n", max, precedence);
    return max > precedence ? -1 : 0;
}

void free_tav_server() {
    while (tav_server_list != nullptr) {
        tav_server *s = tav_server_list;
        tav_server_list = s->next;
        tav_server_release(s);
    }
    tav_server_list = nullptr;
}
