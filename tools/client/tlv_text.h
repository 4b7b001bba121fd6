// SPDX-License-Identifier: ISC
// Text forms of protocol values: parsing what a person types (TAG=VALUE,
// MACs, IPv4 addresses, op codes) and printing what a device sent, typed by
// the tag's kind in the context of the op code.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "proto/tags.h"
#include "proto/wire.h"
#include "tools/client/expected.h"

namespace tav::client {

// One owned TLV record (tav::Tlv is a view into a buffer).
struct Record {
    uint16_t tag = 0;
    std::vector<uint8_t> value;
    bool operator==(const Record &) const = default;
};
using TlvList = std::vector<Record>;

// Builders for request TLVs. Text goes with its terminating NUL.
Record tlv_u8(uint16_t tag, uint8_t v);
Record tlv_u16(uint16_t tag, uint16_t v);
Record tlv_u32(uint16_t tag, uint32_t v);
Record tlv_text(uint16_t tag, std::string_view s);
Record tlv_bytes(uint16_t tag, std::span<const uint8_t> v);
Record tlv_mac(uint16_t tag, const Mac &m);
Record tlv_ipv4(uint16_t tag, const std::array<uint8_t, 4> &ip);

// Six zero-padded lower-case pairs: "02:7a:76:00:00:01".
std::string format_mac(const Mac &m);
std::string format_mac(std::span<const uint8_t> six);
// Accepts ':' or '-' separators and one- or two-digit pairs.
std::optional<Mac> parse_mac(std::string_view s);
std::string format_ipv4(std::span<const uint8_t> four);
std::optional<std::array<uint8_t, 4>> parse_ipv4(std::string_view s);
std::string to_hex(std::span<const uint8_t> v);
std::optional<std::vector<uint8_t>> parse_hex(std::string_view s);
// Decimal or 0x-prefixed hexadecimal, at most `max`.
std::optional<uint64_t> parse_uint(std::string_view s, uint64_t max);

// Op code from a number (0xA1, 161) or a handler name (tav_discovery,
// or without its tav_ prefix: discovery).
Expected<uint16_t> parse_op_code(std::string_view s);
// "0x00A1".
std::string format_op_code(uint16_t code);

// Value text typed by `kind`, or with an explicit prefix that overrides it:
// text: (with NUL), str: (without NUL), u8:, u16:, u32:, u32le:, i32:, u64:,
// mac:, ip:, x: (hex bytes).
Expected<std::vector<uint8_t>> parse_value(std::string_view text, TagKind kind);
// "TAG=VALUE" where TAG is a number or a tag name (in the op code's context).
Expected<Record> parse_tlv_arg(std::string_view arg, uint16_t op_code);

// Readable value: typed when the size fits the kind, hex otherwise.
std::string format_value(std::span<const uint8_t> v, TagKind kind);
// Text value: bytes up to the first NUL, non-printables escaped.
std::string format_text(std::span<const uint8_t> v);

}  // namespace tav::client
