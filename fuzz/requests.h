// SPDX-License-Identifier: ISC
// Requests of every op code built from the tag table: which tags an op code's
// requests (or replies) take, each with a plausible value. Shared by the fuzz
// seed generator and the hostile-input suite, so both cover new handlers as
// soon as their tags are in the table.
#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "proto/tags.h"
#include "proto/wire.h"
#include "tools/client/tlv_text.h"

namespace tav::requests {

using client::Record;
using client::TlvList;

// The op codes a tag's `where` text names for `direction` ("request" or
// "repl"): hexadecimal codes collect until a direction word claims them.
inline std::set<uint16_t> codes_in(std::string_view where, std::string_view direction) {
    std::set<uint16_t> found, pending;
    size_t i = 0;
    while (i < where.size()) {
        size_t j = where.find_first_of(" ,/;()", i);
        if (j == std::string_view::npos) j = where.size();
        std::string_view tok = where.substr(i, j - i);
        if (tok.starts_with("0x")) {
            pending.insert(uint16_t(std::stoul(std::string(tok), nullptr, 16)));
        } else if (tok.starts_with("request") || tok.starts_with("repl")) {
            if (tok.starts_with(direction)) found.insert(pending.begin(), pending.end());
            pending.clear();
        }
        i = j + 1;
    }
    return found;
}

// A plausible value of the tag's kind (a few tags want a particular form).
inline Record value_for(uint16_t tag, TagKind kind) {
    using namespace client;
    switch (tag) {
        case kTagNewUserName: return tlv_text(tag, "YWRtaW4=");  // base64 texts
        case kTagNewPassword: return tlv_text(tag, "c2VjcmV0");
        case 301: return tlv_text(tag, "20261123201500");
        case 36: return tlv_text(tag, "192.0.2.1");
        case 0x0185: return tlv_text(tag, "fw.bin");
        case 0x0186: return tlv_text(tag, "config.bin");
        case 0x0188: return tlv_u32(tag, 1);
        default: break;
    }
    switch (kind) {
        case TagKind::kText: return tlv_text(tag, "ap-x");
        case TagKind::kU8: return tlv_u8(tag, 1);
        case TagKind::kU16: return tlv_u16(tag, 1);
        case TagKind::kU32:
        case TagKind::kU32Le:
        case TagKind::kI32: return tlv_u32(tag, 1);
        case TagKind::kU64: return tlv_bytes(tag, std::vector<uint8_t>{0, 0, 0, 0, 0, 0, 0, 1});
        case TagKind::kMac: return tlv_mac(tag, Mac{0x02, 0x7a, 0x76, 0x00, 0x00, 0x02});
        case TagKind::kIpv4: return tlv_ipv4(tag, {192, 0, 2, 50});
        case TagKind::kBytes: return tlv_bytes(tag, std::vector<uint8_t>{1, 2, 3, 4});
    }
    return tlv_bytes(tag, {});
}

// Every tag of `op_code`'s requests or replies, overrides taking precedence.
inline TlvList tags_of(uint16_t op_code, std::string_view direction) {
    TlvList out;
    std::set<uint16_t> seen;
    for (const auto &o : kTagOverrides)
        if (o.op_code == op_code && codes_in(o.info.where, direction).count(op_code) &&
            seen.insert(o.info.tag).second)
            out.push_back(value_for(o.info.tag, o.info.kind));
    for (const auto &t : kTags)
        if (codes_in(t.where, direction).count(op_code) && seen.insert(t.tag).second)
            out.push_back(value_for(t.tag, find_tag(t.tag, op_code)->kind));
    return out;
}

// A set request's usual lead: precedence, then the credentials given.
inline TlvList lead(std::string_view user, std::string_view password, uint8_t precedence = 1) {
    return {client::tlv_u8(kTagServerPrecedence, precedence), client::tlv_text(kTagUserName, user),
            client::tlv_text(kTagPassword, password)};
}

}  // namespace tav::requests
