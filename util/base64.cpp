// SPDX-License-Identifier: ISC
#include "util/base64.h"

static const char base64_table[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

static constexpr uint8_t kInvalid = 0x80;

// Alphabet characters map to their values, "=" to 0, the rest is invalid.
static void build_lookup(uint8_t *map) {
    for (int i = 0; i < 256; ++i) map[i] = kInvalid;
    for (uint8_t i = 0; i < 64; ++i) map[uint8_t(base64_table[i])] = i;
    map[uint8_t('=')] = 0;
}

size_t tav_base64_decoded_max(size_t len) { return len / 4 * 3; }

int tav_base64_decode(const char *text, size_t len, uint8_t *out, size_t cap, size_t *out_len) {
    if (text == nullptr || out_len == nullptr) return -1;
    uint8_t map[256];
    build_lookup(map);

    size_t count = 0;
    for (size_t i = 0; i < len; ++i)
        if (map[uint8_t(text[i])] != kInvalid) ++count;
    if (count == 0 || count % 4 != 0) return -1;
    if (count / 4 * 3 > cap || out == nullptr) return -1;

    uint8_t group[4];
    size_t in_group = 0, pads = 0, n = 0;
    for (size_t i = 0; i < len; ++i) {
        uint8_t c = uint8_t(text[i]);
        if (map[c] == kInvalid) continue;
        if (c == '=') ++pads;
        group[in_group++] = map[c];
        if (in_group < 4) continue;
        out[n++] = uint8_t(group[0] << 2 | group[1] >> 4);
        out[n++] = uint8_t(group[1] << 4 | group[2] >> 2);
        out[n++] = uint8_t(group[2] << 6 | group[3]);
        in_group = 0;
        if (pads == 0) continue;
        if (pads > 2) return -1;
        n -= pads;  // the pad group ends the text
        break;
    }
    *out_len = n;
    return 0;
}

int tav_base64_encode(const uint8_t *data, size_t len, char *out, size_t cap, size_t *out_len) {
    if ((data == nullptr && len != 0) || out == nullptr || out_len == nullptr) return -1;
    if (len >= (size_t(-1) - 4) / 4 * 3 / 2) return -1;  // the sizes below must not wrap
    size_t chars = (len + 2) / 3 * 4;
    size_t need = chars + chars / 72 + 2;  // newlines, the last one, the NUL
    if (need > cap) return -1;
    size_t n = 0, line = 0;
    auto put = [&](char c) {
        out[n++] = c;
        if (++line == 72) {
            out[n++] = '\n';
            line = 0;
        }
    };
    for (size_t i = 0; i < len; i += 3) {
        uint32_t v = uint32_t(data[i]) << 16;
        if (i + 1 < len) v |= uint32_t(data[i + 1]) << 8;
        if (i + 2 < len) v |= data[i + 2];
        put(base64_table[v >> 18 & 63]);
        put(base64_table[v >> 12 & 63]);
        put(i + 1 < len ? base64_table[v >> 6 & 63] : '=');
        put(i + 2 < len ? base64_table[v & 63] : '=');
    }
    if (line > 0) out[n++] = '\n';
    out[n] = '\0';
    *out_len = n;
    return 0;
}
