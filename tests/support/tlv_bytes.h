// SPDX-License-Identifier: ISC
// Request bodies byte by byte, for the unit and the lab tests alike: records
// whose declared length may differ from their value, so walk cases can bend
// the lengths. Plain bytes, no daemon headers.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace testbytes {

using Bytes = std::vector<uint8_t>;

inline Bytes operator+(Bytes a, const Bytes &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
// A record as given: declared length = value size unless set.
inline Bytes tlv(uint16_t tag, const Bytes &value, int declared = -1) {
    const size_t n = declared < 0 ? value.size() : size_t(declared);
    return Bytes{uint8_t(tag >> 8), uint8_t(tag), uint8_t(n >> 8), uint8_t(n)} + value;
}
inline Bytes str(std::string_view s) { return Bytes(s.begin(), s.end()); }  // no NUL
// Text with its NUL, as managers send it.
inline Bytes text(uint16_t tag, std::string_view s) { return tlv(tag, str(s) + Bytes{0}); }
inline Bytes u8(uint16_t tag, uint8_t v) { return tlv(tag, {v}); }
inline Bytes be16(uint16_t tag, uint16_t v) { return tlv(tag, {uint8_t(v >> 8), uint8_t(v)}); }
inline Bytes be32(uint16_t tag, uint32_t v) {
    return tlv(tag, {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)});
}

}  // namespace testbytes
