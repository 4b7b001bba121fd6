// SPDX-License-Identifier: ISC
// The fixed code tables of the wireless handlers, as plain constant data:
// station authentication texts, wireless mode codes per band, locked
// countries (the authentication codes come from proto/auth_codes.h).
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "proto/auth_codes.h"

namespace wireless {

// Authentication codes: the table is the protocol's (proto/auth_codes.h).
using tav::Credential;
using tav::auth_code_of;
using tav::credential_of;
using tav::stored_auth;

// Station authentication texts, tested in this order; `whole` texts must
// match exactly, the others only in their own length.
struct StationAuth {
    const char *text;
    bool whole;
    uint8_t code;
};
inline constexpr StationAuth kStationAuth[] = {
    {"OPEN", false, 0},      {"WPA-PSK", false, 1},  {"WPA2-PSK", false, 3},
    {"WPA3-PSK", false, 10}, {"WPA-EAP", false, 2},  {"WPA2-EAP", false, 4},
    {"WPA3-EAP", true, 12},  {"Enhanced Open", false, 5},
};

// Wireless mode code -> value stored per band (0: the band refuses it).
struct ModeRow {
    uint16_t code;
    uint8_t band1, band2;
};
inline constexpr ModeRow kModes[] = {
    {1, 0, 2}, {6, 2, 0}, {8, 3, 3}, {9, 0, 1}, {14, 1, 0}, {25, 0, 4}, {32, 4, 5},
};
// What a stored value that no code maps to reads as.
inline constexpr uint16_t kDefaultMode = 8;

// Any band other than 1 uses the second column.
constexpr uint8_t stored_mode(int band, uint16_t code) {
    for (const ModeRow &m : kModes)
        if (m.code == code) return band == 1 ? m.band1 : m.band2;
    return 0;
}
constexpr uint16_t mode_code_of(int band, int stored) {
    for (const ModeRow &m : kModes)
        if (stored != 0 && (band == 1 ? m.band1 : m.band2) == stored) return m.code;
    return kDefaultMode;
}
// The codes a band accepts, as one mask.
constexpr uint16_t supported_modes(int band) {
    uint16_t mask = 0;
    for (const ModeRow &m : kModes)
        if ((band == 1 ? m.band1 : m.band2) != 0) mask = uint16_t(mask | m.code);
    return mask;
}
static_assert(supported_modes(1) == 46 && supported_modes(2) == 57);

// Countries a device never leaves through the protocol, with the index it
// reports for them.
struct LockedCountry {
    int code;
    uint16_t index;
};
inline constexpr LockedCountry kLockedCountries[] = {
    {376, 106}, {392, 110}, {410, 205}, {840, 234}};

constexpr const LockedCountry *locked_country(int code) {
    for (const LockedCountry &l : kLockedCountries)
        if (l.code == code) return &l;
    return nullptr;
}

}  // namespace wireless
