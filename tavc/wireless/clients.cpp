// SPDX-License-Identifier: ISC
// Op 0x2008: the stations associated with each SSID of the bands in
// access-point mode. Read-only; the request body is not looked at.
#include <limits.h>
#include <string.h>

#include "lrgbin/rgdb_getset.h"
#include "proto/tags.h"
#include "tavc/handlers.h"
#include "tavc/reply.h"
#include "tavc/wireless/codes.h"
#include "tavc/wireless/wireless.h"

namespace {

constexpr int kMaxClients = 255;

// A station's keys: its prefix is composed once and each leaf written after
// it (the SSID part is left out for the primary SSID).
struct StationKey {
    char text[96];
    size_t prefix;
    StationKey(int band, int index, int n) {
        if (index == 0)
            rgdb_format_key(text, sizeof text, "/runtime/stats/wlan/inf:%d/client:%d/", band, n);
        else
            rgdb_format_key(text, sizeof text, "/runtime/stats/wlan/inf:%d/mssid:%d/client:%d/", band, index, n);
        prefix = strlen(text);
    }
    const char *leaf(const char *name) {
        size_t i = prefix;
        while (*name && i < sizeof text - 1) text[i++] = *name++;
        text[i] = '\0';
        return text;
    }
};

int get_client_mac(uint8_t mac[6], StationKey &key) {
    char text[32] = {};
    rgdb_get_key(text, 31, key.leaf("mac"));
    if (text[0] == '\0') return -1;
    scan_mac(text, mac);
    return 0;
}

uint8_t get_client_auth(StationKey &key) {
    char text[32] = {};
    rgdb_get_key(text, 32, key.leaf("auth"));
    for (const auto &a : wireless::kStationAuth) {
        const bool match =
            a.whole ? strcmp(text, a.text) == 0 : strncmp(text, a.text, strlen(a.text)) == 0;
        if (match) return a.code;
    }
    return 0;
}

int get_client_rssi(StationKey &key) { return rgdb_get_digit_key(key.leaf("rssi")); }

// Appends the band's stations; false when the reply area is full (the list
// then stops there, before the group that does not fit).
bool get_client_list(int band, Reply &r) {
    // Keys that stay the same from station to station are composed once;
    // each station still reads them all, in the same order.
    char channel_key[64];
    rgdb_format_key(channel_key, sizeof channel_key, "/runtime/stats/wlan/inf:%d/channel", band);
    for (int index = 0; index <= 7; ++index) {
        if (index > 0) {
            if (multi_enabled(band) == 0) break;
            if (rgdb_get_digit("/wlan/inf:%d/multi/index:%d/state", band, index) == 0) continue;
        }
        char name_key[64];
        ssid_name_key(name_key, band, index);
        for (int n = 1; n <= kMaxClients; ++n) {
            StationKey key(band, index, n);
            uint8_t mac[6];
            if (get_client_mac(mac, key) != 0) break;
            char ssid[64] = {};
            rgdb_get_key(ssid, 63, name_key);
            const size_t group = Reply::tlv_size(6) + Reply::tlv_size(strlen(ssid) + 1) +
                                 3 * Reply::tlv_size(1) + Reply::tlv_size(4);
            if (!r.fits(group)) return false;
            r.add(tav::kTagMac, mac);
            r.add(tav::kTagClientSsid, ssid);
            r.add(tav::kTagTlvBand, uint8_t(band == 1 ? 0 : 1));
            r.add(tav::kTagChannel, uint8_t(rgdb_get_digit_key(channel_key)));
            r.add(tav::kTagClientAuth, get_client_auth(key));
            r.add(tav::kTagRssi, int32_t(get_client_rssi(key)));
        }
    }
    return true;
}

}  // namespace

// Each field as %hhx reads it: blanks skipped, a sign, a "0x" after a
// leading 0, hex digits into an unsigned long (all ones once it overflows),
// the low byte stored; a field without a digit ends the scan, as does a
// character other than ':' between fields.
void scan_mac(const char *text, uint8_t mac[6]) {
    memset(mac, 0, 6);
    const char *p = text;
    for (int i = 0; i < 6; ++i) {
        if (i > 0 && *p++ != ':') return;
        while (*p == ' ' || (*p >= '\t' && *p <= '\r')) ++p;
        const bool negative = *p == '-';
        if (*p == '-' || *p == '+') ++p;
        bool digits = false, overflow = false;
        if (*p == '0') {
            digits = true;
            if (*++p == 'x' || *p == 'X') ++p;
        }
        unsigned long v = 0;
        for (;; ++p) {
            unsigned d;
            if (*p >= '0' && *p <= '9') d = unsigned(*p - '0');
            else if (*p >= 'a' && *p <= 'f') d = unsigned(*p - 'a' + 10);
            else if (*p >= 'A' && *p <= 'F') d = unsigned(*p - 'A' + 10);
            else break;
            digits = true;
            if (v > (ULONG_MAX - d) / 16) overflow = true;
            else v = v * 16 + d;
        }
        if (!digits) return;
        mac[i] = uint8_t(overflow ? ULONG_MAX : negative ? 0UL - v : v);
    }
}

TAV_HANDLER(tav_get_client_list) {
    (void)body;
    (void)body_length;
    Reply r(reply);
    r.close_with(2);
    for (int band = 1; band <= 2; ++band)
        if (is_apmode(band) && !get_client_list(band, r)) break;
    r.close(tav::kTagEolOrCnt, uint16_t{0});
    return r.finish(tav::kResultSuccess);
}
