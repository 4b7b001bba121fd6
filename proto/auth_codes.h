// SPDX-License-Identifier: ISC
// The authentication codes of the SSID messages (tag 930): the manager's name
// for each code, the credential an SSID of that code carries, and the number
// the device stores for it. The daemon, the manager tool and the tests all
// read this one table.
//
// Header-only, constexpr, no allocation.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tav {

// Which credential an SSID of an authentication code carries.
enum class Credential : uint8_t { None, Psk, Radius };

struct AuthCode {
    uint8_t code;           // on the wire
    std::string_view name;  // the manager tool's name
    Credential credential;
    uint8_t stored;  // the device's own number for it
};

// Indexed by code.
inline constexpr std::array<AuthCode, 13> kAuthCodes{{
    {0, "open", Credential::None, 0},
    {1, "wpa-psk", Credential::Psk, 3},
    {2, "wpa-eap", Credential::Radius, 2},
    {3, "wpa2-psk", Credential::Psk, 5},
    {4, "wpa2-eap", Credential::Radius, 4},
    {5, "enhanced-open", Credential::None, 15},
    {6, "owe-transition", Credential::None, 16},
    {7, "wpa2-wpa3-eap", Credential::Radius, 9},
    {8, "wpa-wpa2-psk", Credential::Psk, 7},
    {9, "wpa2-wpa3-psk", Credential::Psk, 14},
    {10, "wpa3-psk", Credential::Psk, 13},
    {11, "wpa-wpa2-eap", Credential::Radius, 6},
    {12, "wpa3-eap", Credential::Radius, 17},
}};

// Credential of a code; codes outside the table carry none.
constexpr Credential credential_of(unsigned code) {
    return code < kAuthCodes.size() ? kAuthCodes[code].credential : Credential::None;
}
// Stored number of a code, or -1 for a code that can't be written.
constexpr int stored_auth(int code) {
    return code >= 0 && size_t(code) < kAuthCodes.size() ? kAuthCodes[size_t(code)].stored : -1;
}
// Code of a stored number; numbers outside the table read as 0.
constexpr uint8_t auth_code_of(int stored) {
    for (const AuthCode &a : kAuthCodes)
        if (a.stored == stored) return a.code;
    return 0;
}

namespace detail {
// Rows in code order; names and stored numbers unique (the mapping is a
// bijection, so reading back a written code gives the code).
constexpr bool auth_codes_well_formed() {
    for (size_t i = 0; i < kAuthCodes.size(); ++i) {
        if (kAuthCodes[i].code != i || kAuthCodes[i].name.empty()) return false;
        for (size_t j = i + 1; j < kAuthCodes.size(); ++j)
            if (kAuthCodes[i].name == kAuthCodes[j].name ||
                kAuthCodes[i].stored == kAuthCodes[j].stored)
                return false;
    }
    return true;
}
static_assert(auth_codes_well_formed(), "authentication codes: order or uniqueness broken");
}  // namespace detail

}  // namespace tav
