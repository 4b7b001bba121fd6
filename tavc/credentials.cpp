// SPDX-License-Identifier: ISC
// The administrator's credentials, compared in constant time.
#include "tavc/credentials.h"

#include <stdint.h>
#include <string.h>

#include "lrgbin/rgdb_getset.h"

// Equal exactly when `given` equals the NUL-terminated text in `stored`
// (cap bytes). Every byte of `stored` is looked at whatever the input, so the
// time taken says nothing about where a guess first goes wrong.
static unsigned text_differs(const char *given, const char *stored, size_t cap) {
    size_t n = strnlen(given, cap);  // the caller's own text: its length is no secret
    unsigned diff = n >= cap ? 1u : 0u;
    unsigned live = 1;  // 1 until the stored text's NUL has gone by
    for (size_t i = 0; i < cap; ++i) {
        uint8_t s = uint8_t(stored[i]);
        s = uint8_t(s & (0u - live));  // bytes after the stored NUL count as NUL
        live &= unsigned(s != 0);
        uint8_t g = i < n ? uint8_t(given[i]) : 0;
        diff |= unsigned(g ^ s);
    }
    return diff;
}

int tav_authentic(const char *user_name, const char *password) {
    if (user_name == nullptr || password == nullptr) return -1;
    char name[64] = {};
    char pass[32] = {};
    _rgdb_get_(name, sizeof name, "/sys/user:1/name");
    _rgdb_get_(pass, sizeof pass, "/sys/user:1/password");
    unsigned diff = text_differs(user_name, name, sizeof name);
    diff |= text_differs(password, pass, sizeof pass);
    return diff == 0 ? 0 : -1;
}
