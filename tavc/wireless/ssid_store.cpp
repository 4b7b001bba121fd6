// SPDX-License-Identifier: ISC
// The SSID settings store: keys of the primary and the additional SSIDs,
// the authentication-code translation, the SSID TLV group of a reply and the
// application of one SSID record of a set request.
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "lrgbin/rgdb_getset.h"
#include "proto/tags.h"
#include "proto/wire.h"
#include "tavc/wireless/codes.h"
#include "tavc/wireless/wireless.h"

namespace {

// A setting's leaf under the primary SSID ("/wlan/inf:B/") and under an
// additional one ("/wlan/inf:B/multi/index:I/").
struct KeyForm {
    const char *primary;
    const char *additional;
};
constexpr KeyForm kName{"ssid", "ssid"};
constexpr KeyForm kVlan{"vlan_id", "vlan_id"};
constexpr KeyForm kAuth{"authentication", "auth"};
constexpr KeyForm kCipher{"wpa/wepmode", "cipher"};
constexpr KeyForm kPassFormat{"wpa/passphraseformat", "passphraseformat"};
constexpr KeyForm kPassphrase{"wpa/wpapsk", "passphrase"};
constexpr KeyForm kRadiusServer{"wpa/radiusserver", "radius_server"};
constexpr KeyForm kRadiusSecret{"wpa/radiussecret", "radius_secret"};

// The key of a setting for (band, index); both forms fit easily. An SSID
// list composes some hundred of them: bands and indexes of one digit, all
// the daemon asks for, are written directly, the rest go through the
// formatter.
struct Key {
    char text[64];
    Key(const KeyForm &f, int band, int index) {
        if (band < 0 || band > 9 || index < 0 || index > 9) {
            if (index == 0)
                rgdb_format_key(text, sizeof text, "/wlan/inf:%d/%s", band, f.primary);
            else
                rgdb_format_key(text, sizeof text, "/wlan/inf:%d/multi/index:%d/%s", band, index, f.additional);
            return;
        }
        char *o = put(text, "/wlan/inf:");
        *o++ = char('0' + band);
        *o++ = '/';
        if (index != 0) {
            o = put(o, "multi/index:");
            *o++ = char('0' + index);
            *o++ = '/';
        }
        const char *leaf = index == 0 ? f.primary : f.additional;
        while (*leaf && o < text + sizeof text - 1) *o++ = *leaf++;
        *o = '\0';
    }

  private:
    template <size_t N>
    static char *put(char *o, const char (&literal)[N]) {
        memcpy(o, literal, N - 1);
        return o + N - 1;
    }
};

int get_text(const KeyForm &f, char *buf, int size, int band, int index) {
    return rgdb_get_key(buf, size, Key(f, band, index).text);
}
int set_text(const KeyForm &f, const char *value, int band, int index) {
    return tav_rgdb_set_str(value, "%s", Key(f, band, index).text);
}
int set_number(const KeyForm &f, int value, int band, int index) {
    return tav_rgdb_set_digit(value, "%s", Key(f, band, index).text);
}

}  // namespace

int get_ssid_name(char *buf, int size, int band, int index) {
    return get_text(kName, buf, size, band, index);
}
void ssid_name_key(char out[64], int band, int index) { memcpy(out, Key(kName, band, index).text, 64); }
int set_ssid_name(int band, int index, const char *name) {
    return set_text(kName, name, band, index);
}

uint16_t get_vlan_id(int band, int index) {
    char text[8] = {};
    get_text(kVlan, text, 7, band, index);
    return uint16_t(atoi(text));
}
int set_vlan_id(int band, int index, uint16_t vlan_id) {
    if (vlan_id > 4096) return -1;
    set_number(kVlan, vlan_id, band, index);
    return 0;
}

uint8_t get_auth_type(int band, int index) {
    char text[33] = {};
    get_text(kAuth, text, 32, band, index);
    return wireless::auth_code_of(atoi(text));
}
int set_auth_type(int band, int index, uint8_t code) {
    const int stored = wireless::stored_auth(code);
    if (stored < 0) return -1;
    set_number(kAuth, stored, band, index);
    return 0;
}

int set_cipher_auto(int band, int index) { return set_number(kCipher, 4, band, index); }
int set_cipher_none(int band, int index) { return set_number(kCipher, 0, band, index); }

int get_passphrase(char *buf, int size, int band, int index) {
    return get_text(kPassphrase, buf, size, band, index);
}
int set_passphrase(int band, int index, const char *passphrase) {
    const size_t n = strlen(passphrase);
    if (n < 8 || n > 63) return -1;
    set_number(kPassFormat, 1, band, index);
    set_text(kPassphrase, passphrase, band, index);
    return 0;
}

int get_radius_address(char *buf, int size, int band, int index) {
    return get_text(kRadiusServer, buf, size, band, index);
}
int get_radius_secret(char *buf, int size, int band, int index) {
    return get_text(kRadiusSecret, buf, size, band, index);
}
int set_radius_address(int band, int index, const char *address) {
    return set_text(kRadiusServer, address, band, index);
}
int set_radius_secret(int band, int index, const char *secret) {
    return set_text(kRadiusSecret, secret, band, index);
}

uint8_t multi_enabled(int band) { return uint8_t(rgdb_get_digit("/wlan/inf:%d/multi/state", band)); }

static uint8_t ssid_state(int band, int index) {
    return uint8_t(rgdb_get_digit("/wlan/inf:%d/multi/index:%d/state", band, index));
}

// The primary SSID has no state: it is always on.
void set_ssid_status(int band, int index, uint8_t status) {
    if (index == 0) return;
    if (status != 0) tav_rgdb_set_digit(1, "/wlan/inf:%d/multi/state", band);
    tav_rgdb_set_digit(status, "/wlan/inf:%d/multi/index:%d/state", band, index);
}

bool is_apmode(int band) { return uint8_t(rgdb_get_digit("/wlan/inf:%d/ap_mode", band)) == 0; }

bool is_valid_ip_address(int family, const char *text) {
    uint8_t addr[16];
    return inet_pton(family, text, addr) == 1;
}

void get_ssid_info(int band, Reply &r) {
    for (int index = 0; index <= 7; ++index) {
        r.add(tav::kTagSsidIndex, uint8_t(index));
        char name[64] = {};
        get_ssid_name(name, 63, band, index);
        r.add(tav::kTagSsidName, name);
        r.add(tav::kTagBand, uint8_t(band));
        r.add(tav::kTagVlanId, get_vlan_id(band, index));
        const uint8_t code = get_auth_type(band, index);
        r.add(tav::kTagAuthType, code);
        switch (wireless::credential_of(code)) {
        case wireless::Credential::Psk: {
            char passphrase[128] = {};
            get_passphrase(passphrase, 127, band, index);
            r.add(tav::kTagPassphrase, passphrase);
            break;
        }
        case wireless::Credential::Radius: {
            r.add(tav::kTagRadiusAddressType, uint8_t{1});
            char address[64] = {}, secret[64] = {};
            get_radius_address(address, 63, band, index);
            r.add(tav::kTagRadiusAddress, address);
            get_radius_secret(secret, 63, band, index);
            r.add(tav::kTagRadiusSecret, secret);
            break;
        }
        case wireless::Credential::None:
            break;
        }
        const uint8_t status =
            index == 0 ? 1 : uint8_t(multi_enabled(band) & ssid_state(band, index));
        r.add(tav::kTagSsidStatus, status);
    }
}

// A RADIUS server is named by a dotted IPv4 address (type 1).
static int apply_radius(int band, const ssid_info &rec) {
    if (rec.radius_address_type != 1 || !is_valid_ip_address(AF_INET, rec.radius_address)) {
        printf("radius ip type or address error!");
        return tav::kResultRadiusAddress;
    }
    set_radius_address(band, rec.ssid_index, rec.radius_address);
    set_radius_secret(band, rec.ssid_index, rec.radius_secret);
    return 0;
}

// Steps in this order; what was written before a failing step stays.
// Codes 1 and 2 always take their credential; the other codes of a class
// take it when the group carried it (931, or 933 with its secret).
int set_ssid_info_with_band(int band, const ssid_info &rec) {
    const int index = rec.ssid_index;
    if (index > 7) return tav::kResultRefusedHigh;
    set_ssid_status(band, index, rec.ssid_status);
    set_ssid_name(band, index, rec.ssid_name);
    if (rec.has_vlan_id && set_vlan_id(band, index, tav::get_be16(rec.vlan_id)) != 0)
        return tav::kResultRefusedHigh;
    if (set_auth_type(band, index, rec.auth_type) != 0) {
        puts("set_auth_type failed!");
        return tav::kResultAuthCode;
    }
    if (rec.auth_type != 0)
        set_cipher_auto(band, index);
    else
        set_cipher_none(band, index);
    switch (wireless::credential_of(rec.auth_type)) {
    case wireless::Credential::Psk:
        if (rec.auth_type == 1 || rec.has_passphrase)
            return set_passphrase(band, index, rec.passphrase);
        return 0;
    case wireless::Credential::Radius:
        if (rec.auth_type == 2 || rec.has_radius_address) return apply_radius(band, rec);
        return 0;
    case wireless::Credential::None:
        break;
    }
    return 0;
}

int set_ssid_info(const ssid_info &rec) {
    int result = 0;
    if (rec.band & 1) {
        result = set_ssid_info_with_band(1, rec);
        if (result != 0) return result;
    }
    if (rec.band & 2) return set_ssid_info_with_band(2, rec);
    return result;
}
