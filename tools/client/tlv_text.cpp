// SPDX-License-Identifier: ISC
#include "tools/client/tlv_text.h"

#include <cctype>
#include <cstdio>
#include <cstring>

namespace tav::client {

Record tlv_u8(uint16_t tag, uint8_t v) { return {tag, {v}}; }
Record tlv_u16(uint16_t tag, uint16_t v) {
    Record t{tag, std::vector<uint8_t>(2)};
    put_be16(t.value.data(), v);
    return t;
}
Record tlv_u32(uint16_t tag, uint32_t v) {
    Record t{tag, std::vector<uint8_t>(4)};
    put_be32(t.value.data(), v);
    return t;
}
Record tlv_text(uint16_t tag, std::string_view s) {
    Record t{tag, std::vector<uint8_t>(s.begin(), s.end())};
    t.value.push_back(0);
    return t;
}
Record tlv_bytes(uint16_t tag, std::span<const uint8_t> v) {
    return {tag, std::vector<uint8_t>(v.begin(), v.end())};
}
Record tlv_mac(uint16_t tag, const Mac &m) { return {tag, std::vector<uint8_t>(m.begin(), m.end())}; }
Record tlv_ipv4(uint16_t tag, const std::array<uint8_t, 4> &ip) {
    return {tag, std::vector<uint8_t>(ip.begin(), ip.end())};
}

std::string format_mac(std::span<const uint8_t> six) {
    char b[18] = {};
    if (six.size() < 6) return to_hex(six);
    std::snprintf(b, sizeof b, "%02x:%02x:%02x:%02x:%02x:%02x", six[0], six[1], six[2], six[3],
                  six[4], six[5]);
    return b;
}
std::string format_mac(const Mac &m) { return format_mac(std::span<const uint8_t>(m)); }

namespace {
int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
bool istarts(std::string_view s, std::string_view prefix) {
    if (s.size() < prefix.size()) return false;
    for (size_t i = 0; i < prefix.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(s[i])) != prefix[i]) return false;
    return true;
}
}  // namespace

std::optional<Mac> parse_mac(std::string_view s) {
    Mac m{};
    size_t i = 0;
    for (int k = 0; k < 6; ++k) {
        if (k > 0) {
            if (i >= s.size() || (s[i] != ':' && s[i] != '-')) return std::nullopt;
            ++i;
        }
        int digits = 0, v = 0;
        while (i < s.size() && digits < 2 && hex_digit(s[i]) >= 0) {
            v = v * 16 + hex_digit(s[i]);
            ++i;
            ++digits;
        }
        if (digits == 0) return std::nullopt;
        m[size_t(k)] = uint8_t(v);
    }
    if (i != s.size()) return std::nullopt;
    return m;
}

std::string format_ipv4(std::span<const uint8_t> four) {
    if (four.size() != 4) return to_hex(four);
    return std::to_string(four[0]) + "." + std::to_string(four[1]) + "." +
           std::to_string(four[2]) + "." + std::to_string(four[3]);
}

std::optional<std::array<uint8_t, 4>> parse_ipv4(std::string_view s) {
    std::array<uint8_t, 4> ip{};
    size_t i = 0;
    for (int k = 0; k < 4; ++k) {
        if (k > 0) {
            if (i >= s.size() || s[i] != '.') return std::nullopt;
            ++i;
        }
        int digits = 0, v = 0;
        while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i])) && digits < 3) {
            v = v * 10 + (s[i] - '0');
            ++i;
            ++digits;
        }
        if (digits == 0 || v > 255) return std::nullopt;
        ip[size_t(k)] = uint8_t(v);
    }
    if (i != s.size()) return std::nullopt;
    return ip;
}

std::string to_hex(std::span<const uint8_t> v) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    s.reserve(v.size() * 2);
    for (uint8_t b : v) {
        s.push_back(digits[b >> 4]);
        s.push_back(digits[b & 15]);
    }
    return s;
}

std::optional<std::vector<uint8_t>> parse_hex(std::string_view s) {
    std::vector<uint8_t> out;
    int hi = -1;
    for (char c : s) {
        if (c == ' ' || c == ':' || c == '-' || c == '_') {
            if (hi >= 0) return std::nullopt;  // separators only between whole bytes
            continue;
        }
        int d = hex_digit(c);
        if (d < 0) return std::nullopt;
        if (hi < 0) {
            hi = d;
        } else {
            out.push_back(uint8_t(hi << 4 | d));
            hi = -1;
        }
    }
    if (hi >= 0) return std::nullopt;
    return out;
}

std::optional<uint64_t> parse_uint(std::string_view s, uint64_t max) {
    int base = 10;
    if (istarts(s, "0x")) {
        base = 16;
        s.remove_prefix(2);
    }
    if (s.empty()) return std::nullopt;
    uint64_t v = 0;
    for (char c : s) {
        int d = hex_digit(c);
        if (d < 0 || d >= base) return std::nullopt;
        if (uint64_t(d) > max || v > (max - uint64_t(d)) / uint64_t(base)) return std::nullopt;
        v = v * uint64_t(base) + uint64_t(d);
    }
    return v;
}

Expected<uint16_t> parse_op_code(std::string_view s) {
    if (auto n = parse_uint(s, 0xFFFF)) return uint16_t(*n);
    for (const auto &row : kOpCodes) {
        std::string_view h = row.handler;
        if (detail::iequal(h, s)) return row.code;
        if (h.starts_with("tav_") && detail::iequal(h.substr(4), s)) return row.code;
    }
    return fail("unknown op code \"" + std::string(s) +
                "\" (use a number such as 0xA1 or a handler name such as tav_discovery)");
}

std::string format_op_code(uint16_t code) {
    char b[8];
    std::snprintf(b, sizeof b, "0x%04X", code);
    return b;
}

Expected<std::vector<uint8_t>> parse_value(std::string_view text, TagKind kind) {
    struct Prefix {
        std::string_view name;
        TagKind kind;
    };
    static constexpr Prefix prefixes[] = {
        {"text:", TagKind::kText}, {"u8:", TagKind::kU8},     {"u16:", TagKind::kU16},
        {"u32:", TagKind::kU32},   {"u32le:", TagKind::kU32Le}, {"i32:", TagKind::kI32},
        {"u64:", TagKind::kU64},   {"mac:", TagKind::kMac},   {"ip:", TagKind::kIpv4},
        {"x:", TagKind::kBytes},
    };
    bool with_nul = true;
    if (istarts(text, "str:")) {
        text.remove_prefix(4);
        kind = TagKind::kText;
        with_nul = false;
    } else {
        for (const auto &p : prefixes)
            if (istarts(text, p.name)) {
                text.remove_prefix(p.name.size());
                kind = p.kind;
                break;
            }
    }
    std::string quoted = "\"" + std::string(text) + "\"";
    std::vector<uint8_t> out;
    auto number = [&](uint64_t max, size_t bytes, bool little) -> Expected<std::vector<uint8_t>> {
        auto v = parse_uint(text, max);
        if (!v)
            return fail("value " + quoted + " is not a number from 0 to " + std::to_string(max));
        for (size_t i = 0; i < bytes; ++i) {
            size_t shift = little ? i * 8 : (bytes - 1 - i) * 8;
            out.push_back(uint8_t(*v >> shift));
        }
        return out;
    };
    switch (kind) {
        case TagKind::kText:
            out.assign(text.begin(), text.end());
            if (with_nul) out.push_back(0);
            return out;
        case TagKind::kU8: return number(0xFF, 1, false);
        case TagKind::kU16: return number(0xFFFF, 2, false);
        case TagKind::kU32: return number(0xFFFFFFFFu, 4, false);
        case TagKind::kU32Le: return number(0xFFFFFFFFu, 4, true);
        case TagKind::kU64: return number(~uint64_t(0), 8, false);
        case TagKind::kI32: {
            bool neg = !text.empty() && text[0] == '-';
            std::string_view digits = neg ? text.substr(1) : text;
            auto v = parse_uint(digits, neg ? 0x80000000u : 0x7FFFFFFFu);
            if (!v) return fail("value " + quoted + " is not a 32-bit signed number");
            uint32_t u = neg ? uint32_t(0u - uint32_t(*v)) : uint32_t(*v);
            out.resize(4);
            put_be32(out.data(), u);
            return out;
        }
        case TagKind::kMac: {
            auto m = parse_mac(text);
            if (!m) return fail("value " + quoted + " is not a MAC address");
            return std::vector<uint8_t>(m->begin(), m->end());
        }
        case TagKind::kIpv4: {
            auto ip = parse_ipv4(text);
            if (!ip) return fail("value " + quoted + " is not an IPv4 address");
            return std::vector<uint8_t>(ip->begin(), ip->end());
        }
        case TagKind::kBytes: {
            auto b = parse_hex(text);
            if (!b) return fail("value " + quoted + " is not hexadecimal bytes");
            return *b;
        }
    }
    return fail("unknown value kind");
}

Expected<Record> parse_tlv_arg(std::string_view arg, uint16_t op_code) {
    size_t eq = arg.find('=');
    if (eq == std::string_view::npos || eq == 0)
        return fail("TLV \"" + std::string(arg) + "\" is not TAG=VALUE");
    std::string_view tag_text = arg.substr(0, eq), value_text = arg.substr(eq + 1);
    Record t;
    TagKind kind = TagKind::kBytes;
    if (auto n = parse_uint(tag_text, 0xFFFF)) {
        t.tag = uint16_t(*n);
        if (const TagInfo *info = find_tag(t.tag, op_code)) kind = info->kind;
    } else if (const TagInfo *info = find_tag(tag_text, op_code)) {
        t.tag = info->tag;
        kind = info->kind;
    } else {
        return fail("unknown tag \"" + std::string(tag_text) + "\"");
    }
    auto v = parse_value(value_text, kind);
    if (!v) return fail("tag " + std::string(tag_text) + ": " + v.error());
    if (v->size() > 0xFFFF) return fail("tag " + std::string(tag_text) + ": value too long");
    t.value = std::move(*v);
    return t;
}

std::string format_text(std::span<const uint8_t> v) {
    std::string s;
    for (uint8_t b : v) {
        if (b == 0) break;
        if (b == '\\') {
            s += "\\\\";
        } else if (b >= 0x20 && b < 0x7F) {
            s.push_back(char(b));
        } else if (b >= 0x80) {
            s.push_back(char(b));  // UTF-8 passes through
        } else {
            char e[5];
            std::snprintf(e, sizeof e, "\\x%02x", b);
            s += e;
        }
    }
    return s;
}

std::string format_value(std::span<const uint8_t> v, TagKind kind) {
    size_t want = tag_kind_size(kind);
    if (want != 0 && v.size() != want) return "x:" + to_hex(v);
    switch (kind) {
        case TagKind::kText: return format_text(v);
        case TagKind::kU8: return std::to_string(v[0]);
        case TagKind::kU16: return std::to_string(get_be16(v.data()));
        case TagKind::kU32: return std::to_string(get_be32(v.data()));
        case TagKind::kU32Le:
            return std::to_string(uint32_t(v[0]) | uint32_t(v[1]) << 8 | uint32_t(v[2]) << 16 |
                                  uint32_t(v[3]) << 24);
        case TagKind::kI32: return std::to_string(int32_t(get_be32(v.data())));
        case TagKind::kU64: return std::to_string(get_be64(v.data()));
        case TagKind::kMac: return format_mac(v);
        case TagKind::kIpv4: return format_ipv4(v);
        case TagKind::kBytes: return to_hex(v);
    }
    return to_hex(v);
}

}  // namespace tav::client
