// SPDX-License-Identifier: ISC
// The base64 codec: any text decodes within the bound it announces (into an
// exact-size buffer, so writing past it is a finding) or is refused; what
// decodes re-encodes and decodes to the same bytes; any bytes encode and
// decode back.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "fuzz/guard.h"
#include "util/base64.h"

namespace {
[[noreturn]] void fail(const char *what) {
    fprintf(stderr, "base64_fuzz: %s\n", what);
    abort();
}

// Encodes `data` and decodes the text again: the bytes must come back.
void round_trip(const uint8_t *data, size_t size) {
    const size_t text_cap = (size + 2) / 3 * 4 + size / 54 + 3;  // groups, line ends, NUL
    std::vector<char> text(text_cap);
    size_t text_len = 0;
    if (tav_base64_encode(data, size, text.data(), text.size(), &text_len) != 0) fail("encode refused its room");
    if (text_len >= text.size() || text[text_len] != '\0') fail("encoded text not terminated");
    if (size == 0) return;
    std::vector<uint8_t> back(tav_base64_decoded_max(text_len));
    size_t back_len = 0;
    if (tav_base64_decode(text.data(), text_len, back.data(), back.size(), &back_len) != 0)
        fail("own encoding does not decode");
    if (back_len != size || memcmp(back.data(), data, size) != 0) fail("round trip changed the bytes");
}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_guard_arm();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const char *text = reinterpret_cast<const char *>(data);
    const size_t max = tav_base64_decoded_max(size);
    std::vector<uint8_t> out(max ? max : 1);
    size_t n = 0;
    if (tav_base64_decode(text, size, out.data(), max, &n) == 0) {
        if (n > max) fail("decoded more than the announced bound");
        round_trip(out.data(), n);
        // One byte less room than it needed must be refused, not overrun.
        if (n > 0) {
            std::vector<uint8_t> small(n - 1 ? n - 1 : 1);
            size_t m = 0;
            if (tav_base64_decode(text, size, small.data(), n - 1, &m) == 0 && m > n - 1) fail("wrote past its room");
        }
    }
    round_trip(data, size);
    return 0;
}
