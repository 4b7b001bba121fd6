// The fixed code tables of the wireless handlers, as plain constant data:
// authentication codes and the values the device stores for them, station
// authentication texts, wireless mode codes per band, locked countries.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace wireless {

// Which credential an SSID of an authentication code carries.
enum class Credential : uint8_t { None, Psk, Radius };

// Protocol authentication code (the row) -> stored value and credential.
struct AuthRow {
    uint8_t stored;
    Credential credential;
};
inline constexpr AuthRow kAuthCodes[] = {
    {0, Credential::None},     // 0 OPEN
    {3, Credential::Psk},      // 1 WPA-PSK
    {2, Credential::Radius},   // 2 WPA-EAP
    {5, Credential::Psk},      // 3 WPA2-PSK
    {4, Credential::Radius},   // 4 WPA2-EAP
    {15, Credential::None},    // 5 Enhanced Open
    {16, Credential::None},    // 6 Enhanced Open transition
    {9, Credential::Radius},   // 7 WPA2/WPA3-EAP
    {7, Credential::Psk},      // 8 WPA/WPA2-PSK
    {14, Credential::Psk},     // 9 WPA2/WPA3-PSK
    {13, Credential::Psk},     // 10 WPA3-PSK
    {6, Credential::Radius},   // 11 WPA/WPA2-EAP
    {17, Credential::Radius},  // 12 WPA3-EAP
};
inline constexpr int kAuthCodeCount = int(sizeof kAuthCodes / sizeof kAuthCodes[0]);

// Stored value for a protocol code, or -1 for a code that can't be written.
constexpr int stored_auth(int code) {
    return code >= 0 && code < kAuthCodeCount ? kAuthCodes[code].stored : -1;
}
// Protocol code of a stored value; values outside the table read as 0.
constexpr uint8_t auth_code_of(int stored) {
    for (int c = 0; c < kAuthCodeCount; ++c)
        if (kAuthCodes[c].stored == stored) return uint8_t(c);
    return 0;
}
constexpr Credential credential_of(uint8_t code) {
    return code < kAuthCodeCount ? kAuthCodes[code].credential : Credential::None;
}

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
