// SPDX-License-Identifier: ISC
// The device identity record, rebuilt from the configuration database.
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "lrgbin/rgdb_getset.h"
#include "proto/wire.h"
#include "tavc/identity.h"
#include "tavc/trace.h"

device_status *device_info;

int mac_string2hex(char *text, uint8_t *out) {
    if (text == nullptr || out == nullptr) return 0;
    char *save = nullptr;
    char *field = strtok_r(text, ":", &save);
    for (int i = 0; i < 6 && field != nullptr; ++i) {
        // The field's first two characters as hexadecimal, up to the first
        // that is not a digit (rebuilt for every request, so not formatted).
        unsigned v = 0;
        for (int k = 0; k < 2; ++k) {
            const char c = field[k];
            const int d = c >= '0' && c <= '9' ? c - '0'
                          : c >= 'a' && c <= 'f' ? c - 'a' + 10
                          : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
            if (d < 0) break;
            v = v * 16 + unsigned(d);
        }
        out[i] = uint8_t(v);
        field = strtok_r(nullptr, ":", &save);
    }
    return 0;
}

// Copies at most `width` characters of a piece; a shorter piece brings its
// NUL along, so the text ends there.
static void put_piece(char *dst, const char *piece, int width) {
    for (int i = 0; i < width; ++i) {
        dst[i] = piece[i];
        if (piece[i] == '\0') break;
    }
}

void convert_date_time(char *date_time, const char *date, const char *time) {
    // Writable copies, cut apart in place; the year (4 wide) may be read up
    // to its NUL only, so short inputs are never read past.
    char d[64] = {}, t[64] = {};
    if (date) strncpy(d, date, sizeof d - 1);
    if (time) strncpy(t, time, sizeof t - 1);

    static const struct {
        int pos, width;
    } kDate[3] = {{4, 2}, {6, 2}, {0, 4}},  // month, day, year
        kTime[3] = {{8, 2}, {10, 2}, {12, 2}};  // hour, minute, second
    char *save = nullptr;
    char *piece = strtok_r(d, "/", &save);
    for (int i = 0; i < 3 && piece; ++i, piece = strtok_r(nullptr, "/", &save))
        put_piece(date_time + kDate[i].pos, piece, kDate[i].width);
    piece = strtok_r(t, ":", &save);
    for (int i = 0; i < 3 && piece; ++i, piece = strtok_r(nullptr, ":", &save))
        put_piece(date_time + kTime[i].pos, piece, kTime[i].width);
}

// An IPv4 text key into 4 network-order bytes; zero when empty or no address.
static void read_address(uint8_t *out, const char *key) {
    char text[32] = {};
    rgdb_get_key(text, sizeof text, key);
    if (text[0] != '\0') {
        in_addr a;
        if (inet_pton(AF_INET, text, &a) == 1) memcpy(out, &a, 4);
    }
}

int init_device_status() {
    device_status *d = device_info;
    if (d == nullptr) return -1;
    memset(d, 0, sizeof *d);

    char mac[32] = {};
    _rgdb_get_(mac, sizeof mac, "/runtime/wan/inf:1/mac");
    mac_string2hex(mac, d->mac);

    static const char kVendor[] = "Quelbo", kProductType[] = "Access point";
    static_assert(sizeof kVendor <= sizeof d->vendor && sizeof kProductType <= sizeof d->product_type);
    memcpy(d->vendor, kVendor, sizeof kVendor);
    memcpy(d->product_type, kProductType, sizeof kProductType);

    _rgdb_get_(d->host_name, 32, "/sys/hostname");
    _rgdb_get_(d->firmware_version, 32, "/runtime/sys/info/firmwareversion");
    _rgdb_get_(d->hardware_version, 32, "/runtime/sys/info/hardwareversion");
    // Capacity 63: at most 62 characters of "host hardware".
    size_t hn = strnlen(d->host_name, 62);
    memcpy(d->model_name, d->host_name, hn);
    if (hn < 62) {
        d->model_name[hn] = ' ';
        size_t hw = strnlen(d->hardware_version, 61 - hn);
        memcpy(d->model_name + hn + 1, d->hardware_version, hw);
    }

    strncpy(d->interface_name, tav::kInterface, sizeof d->interface_name - 1);
    _rgdb_get_(d->system_name, 64, "/sys/systemName");

    read_address(d->ip_address, "/runtime/wan/inf:1/ip");

    char port[32] = {};
    _rgdb_get_(port, sizeof port, "/sys/web/port");
    tav::put_be16(d->web_port, port[0] != '\0' ? uint16_t(atoi(port)) : uint16_t(80));

    read_address(d->netmask, "/runtime/wan/inf:1/netmask");
    read_address(d->gateway, "/runtime/wan/inf:1/gateway");
    read_address(d->primary_dns, "/runtime/wan/inf:1/primarydns");

    char mode[2] = {};
    _rgdb_get_(mode, sizeof mode, "/wan/rg/inf:1/mode");
    d->wan_mode = uint8_t(atoi(mode) - 1);

    if (rgdb_get_digit("/runtime/wan/inf:1/tavmode") != 0)
        d->tav_mode = 2;
    else
        d->tav_mode = d->wan_mode != 0 ? 1 : 0;

    char date[11] = {}, time[9] = {};
    _rgdb_get_(date, sizeof date, "/runtime/time/date");
    _rgdb_get_(time, sizeof time, "/runtime/time/time");
    convert_date_time(d->date_time, date, time);

    if (rgdb_get_digit("/qm5_agent/running") != 0)
        d->managed_status = uint8_t(rgdb_get_digit("/qm5_agent/managed_status"));

    _rgdb_get_(d->nms_server, 256, "/qm5_agent/nms_server");
    _rgdb_get_(d->ag_uuid, 32, "/qm5_agent/ag_uuid");

    if (rgdb_get_digit("/qm5_agent/running") != 0)
        tav::put_be16(d->connection_status,
                      uint16_t(rgdb_get_digit("/runtime/qm5_agent/connection_status") + 2));

    d->address_mode = 0;
    return 0;
}

void wizard_page_check() {
    if (rgdb_get_digit("/sys/first_init") == 0) return;
    if (uint8_t(rgdb_get_digit("/tavclient/password_changed")) == 0 ||
        uint8_t(rgdb_get_digit("/tavclient/time_changed")) == 0)
        return;
    int country = rgdb_get_digit("/runtime/layout/countrycode");
    if (country == 840 || country == 376 || country == 392 || country == 410) {
        tav_rgdb_set_digit(0, "/sys/first_init");
        TAV_DEBUG("remove wizard page 2");
        return;
    }
    if (uint8_t(rgdb_get_digit("/tavclient/country_changed")) == 0) return;
    tav_rgdb_set_digit(0, "/sys/first_init");
    TAV_DEBUG("remove wizard page 1");
}
