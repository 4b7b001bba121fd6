// SPDX-License-Identifier: ISC
// Ops 0x2006 and 0x2007: which radios are on, the wireless mode of each band
// and the regulatory country. A country change reboots the device.
#include <stdio.h>

#include "lrgbin/rgdb_getset.h"
#include "proto/tags.h"
#include "proto/wire.h"
#include "tavc/handlers.h"
#include "tavc/reply.h"
#include "tavc/identity.h"
#include "tavc/service.h"
#include "tavc/tlv_walk.h"
#include "tavc/trace.h"
#include "tavc/wireless/codes.h"
#include "tavc/wireless/wireless.h"

static bool band_on(int band) { return rgdb_get_digit("/wlan/inf:%d/enable", band) == 1; }

static uint16_t get_wireless_mode(int band) {
    return wireless::mode_code_of(band, rgdb_get_digit("/wlan/inf:%d/wlmode", band));
}

// Band 2's n-only modes can't keep the widest channel setting.
static int set_wireless_mode(int band, uint16_t code) {
    printf("%s,band=%d,mode=%d\n", "set_wireless_mode", band, code);
    const uint8_t stored = wireless::stored_mode(band, code);
    if (stored == 0) return -1;
    if (band != 1 && (stored == 1 || stored == 3) &&
        rgdb_get_digit("/wlan/inf:%d/cwmmode", band) == 2)
        tav_rgdb_set_digit(0, "/wlan/inf:%d/cwmmode", band);
    tav_rgdb_set_digit(stored, "/wlan/inf:%d/wlmode", band);
    return 0;
}

static uint16_t get_country_index() {
    if (const auto *locked = wireless::locked_country(rgdb_get_digit("/runtime/layout/countrycode")))
        return locked->index;
    return uint16_t(rgdb_get_digit("/sys/country_index"));
}

static int country_code_is_allowed_change(int current) {
    if (wireless::locked_country(current) == nullptr) return 1;
    printf("WARNING: country code is not allowed to change for current country!");
    fflush(stdout);  // no line end follows: let it be seen now
    return 0;
}

// Looks the index up in the country domain table; entry n's seq names the
// entry that holds its index and code.
static int set_country_code(uint16_t index, uint8_t *changed) {
    *changed = 0;
    int seq = 0;
    for (int n = 1;; ++n) {
        seq = rgdb_get_digit("/runtime/countrydomaintable:%d/seq", n);
        if (seq == 0) {
            printf("%s: Unknown country!\n", "set_country_code");
            return tav::kResultCountry;
        }
        if (rgdb_get_digit("/runtime/countrydomaintable:%d/index", seq) == index) break;
    }
    const int code = rgdb_get_digit("/runtime/countrydomaintable:%d/code", seq);
    const int current = rgdb_get_digit("/runtime/layout/countrycode");
    tav_rgdb_set_digit(index, "/sys/country_index");
    if (code == current) {
        tav_rgdb_set_digit(index, "/sys/country_index");
        TAV_DEBUG("NOTICE: country code is not changed\n");
        return 0;
    }
    if (country_code_is_allowed_change(current) == 0) {
        TAV_DEBUG("NOTICE: country code is not allowed changed\n");
        return tav::kResultCountry;
    }
    *changed = 1;
    tav_rgdb_set_digit(seq, "/sys/country_name");
    tav_rgdb_set_digit(index, "/sys/country_index");
    tav_rgdb_set_digit(code, "/sys/next_ccode");
    tav_rgdb_set_digit(code, "/runtime/layout/countrycode");
    TAV_DEBUG("NOTICE: country code is changed\n");
    tav_rgdb_set_digit(1, "/tavclient/country_changed");
    wizard_page_check();
    return 0;
}

TAV_HANDLER(tav_get_wireless_information) {
    (void)body;
    (void)body_length;
    uint8_t status = 0;
    for (int band = 1; band <= 2; ++band)
        if (is_apmode(band) && band_on(band)) status = uint8_t(status | (1 << (band - 1)));
    Reply r(reply);
    r.add(tav::kTagSupportedBand, uint8_t{3});
    r.add(tav::kTagBandStatus, status);
    r.add(tav::kTagSupportedWirelessMode2g, wireless::supported_modes(1));
    r.add(tav::kTagWirelessModeStatus2g, get_wireless_mode(1));
    r.add(tav::kTagSupportedWirelessMode5g, wireless::supported_modes(2));
    r.add(tav::kTagWirelessModeStatus5g, get_wireless_mode(2));
    r.add(tav::kTagCountryIndex, get_country_index());
    return r.finish(tav::kResultSuccess);
}

namespace {

// Two-byte values are kept as received: one byte given is the high byte.
struct SetWireless {
    char user_name[66];
    char password[66];
    uint8_t country_index[2];
    uint8_t radio_band;
    uint8_t mode_2g[2];
    uint8_t mode_5g[2];
};

constexpr TlvRule kSetWirelessRules[] = {
    tlv_precedence(),
    tlv_text(tav::kTagUserName, Take::DeclaredMax, 65, TAVC_FIELD(SetWireless, user_name)),
    tlv_text(tav::kTagPassword, Take::DeclaredMax, 65, TAVC_FIELD(SetWireless, password)),
    tlv_bytes(tav::kTagCountryIndex, Take::DeclaredMax, 2, TAVC_FIELD(SetWireless, country_index)),
    tlv_skip(tav::kTagEolOrCnt, Take::DeclaredMax, 2),
    tlv_skip(tav::kTagGroup, Take::DeclaredMax, 2),
    tlv_skip(tav::kTagSupportedBand, Take::DeclaredMax, 1),
    tlv_u8(tav::kTagRadioBand, TAVC_FIELD(SetWireless, radio_band), Take::DeclaredMax, 1),
    tlv_bytes(tav::kTagWirelessMode2g, Take::DeclaredMax, 2, TAVC_FIELD(SetWireless, mode_2g)),
    tlv_bytes(tav::kTagWirelessMode5g, Take::DeclaredMax, 2, TAVC_FIELD(SetWireless, mode_5g)),
    tlv_skip(tav::kTagWirelessMode5g2, Take::DeclaredMax, 2),
};

constexpr TlvRequest<SetWireless> kSetWireless{
    kSetWirelessRules,
    Take::Declared,
    NoParamCheck{},
    PrecedenceRefusal{tav::kResultRefused},
    AuthRefusal{tav::kResultAuthFailed},
    tlv_credentials(TAVC_FIELD(SetWireless, user_name), TAVC_FIELD(SetWireless, password)),
};

}  // namespace

TAV_HANDLER(tav_set_wireless_information) {
    SetWireless req{};
    if (Step s = tlv_request_prologue(kSetWireless, body, body_length, reply, &req); s.ended())
        return s.result();
    if (req.radio_band & 1) {
        tav_rgdb_set_digit((req.radio_band & 2) ? 1 : 0, "/wlan/inf:%d/enable", 1);
        tav_rgdb_set_digit((req.radio_band & 4) ? 1 : 0, "/wlan/inf:%d/enable", 2);
    }
    const uint16_t modes[2] = {tav::get_be16(req.mode_2g), tav::get_be16(req.mode_5g)};
    for (int band = 1; band <= 2; ++band) {
        const uint16_t m = modes[band - 1];
        if ((m & 1) && set_wireless_mode(band, uint16_t(m >> 1)) != 0)
            return tav::kResultWirelessMode;
    }
    uint8_t changed = 0;
    if (int result = set_country_code(tav::get_be16(req.country_index), &changed); result != 0)
        return result;
    store_config_to_flash();
    uint32_t wait_ms = 60000;
    if (changed) {
        TAV_DEBUG("country code is changed, device will reboot after 5s\n");
        wait_ms = 120000;
        reboot_after_5s();
    } else {
        submit_wlan();
    }
    Reply r(reply);
    r.add_set_reply<tav::kOpSetWirelessInfo>(2, wait_ms, 0);
    return r.finish(tav::kResultSuccess);
}
