// Writes the fuzz targets' starting corpora and dictionaries into a directory:
// for the engine, a request of every op code in both forms, carrying the
// precedence, the lab administrator's credentials and every tag that the op
// code's requests take (from the tag table, so new tags and handlers are
// covered without touching this file), and the same without a body; for the
// reply decoder, a reply of every op code with its reply tags; for the
// database server, one request of every command.
//
// Usage: make_seeds OUTDIR
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "proto/tags.h"
#include "proto/wire.h"
#include "tools/client/client.h"

using namespace tav;
using namespace tav::client;
using Bytes = std::vector<uint8_t>;

namespace {

std::string g_out;

void write(const std::string &dir, const std::string &name, const Bytes &b) {
    mkdir((g_out + "/" + dir).c_str(), 0755);
    std::ofstream f(g_out + "/" + dir + "/" + name, std::ios::binary);
    f.write(reinterpret_cast<const char *>(b.data()), std::streamsize(b.size()));
}

// The op codes a tag's `where` text names for `direction` ("request" or
// "repl"): hexadecimal codes collect until a direction word claims them.
std::set<uint16_t> codes_in(std::string_view where, std::string_view direction) {
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
Record value_for(uint16_t tag, TagKind kind) {
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
        case TagKind::kU64: return tlv_bytes(tag, Bytes{0, 0, 0, 0, 0, 0, 0, 1});
        case TagKind::kMac: return tlv_mac(tag, Mac{0x02, 0x7a, 0x76, 0x00, 0x00, 0x02});
        case TagKind::kIpv4: return tlv_ipv4(tag, {192, 0, 2, 50});
        case TagKind::kBytes: return tlv_bytes(tag, Bytes{1, 2, 3, 4});
    }
    return tlv_bytes(tag, {});
}

// Every tag of `op_code`'s requests or replies, overrides taking precedence.
TlvList tags_of(uint16_t op_code, std::string_view direction) {
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

std::string hex4(uint16_t v) {
    char b[8];
    snprintf(b, sizeof b, "%04x", v);
    return b;
}

void engine_seeds() {
    const std::array<uint8_t, 4> any_ip{0, 0, 0, 0};
    for (const auto &row : kOpCodes) {
        TlvList tlvs{tlv_u8(kTagServerPrecedence, 1), tlv_text(kTagUserName, "admin"),
                     tlv_text(kTagPassword, "admin")};
        for (auto &r : tags_of(row.code, "request")) tlvs.push_back(r);
        const std::string base = "op" + hex4(row.code);
        write("engine", base + "_raw", build_request(false, 1, row.code, kBroadcastMac, any_ip, tlvs));
        write("engine", base + "_udp", build_request(true, 2, row.code, kZeroMac, any_ip, tlvs));
        write("engine", base + "_empty", build_request(false, 3, row.code, kBroadcastMac, any_ip, {}));
    }
    // Messages that are not requests: announcement, IPv6 form, unknown type.
    for (uint16_t type : {uint16_t(kMsgAnnounce), uint16_t(kMsgIpv6Request), uint16_t(0x1234)}) {
        Bytes b = build_request(false, 4, kOpDiscovery, kBroadcastMac, any_ip, {});
        put_be16(b.data(), type);
        write("engine", "type" + hex4(type), b);
    }
}

void reply_seeds() {
    const std::array<uint8_t, 4> ip{192, 0, 2, 1};
    for (const auto &row : kOpCodes) {
        auto tlvs = tags_of(row.code, "repl");
        for (bool ipv4 : {false, true}) {
            Bytes b = build_request(ipv4, 5, row.code, Mac{0x02, 0x7a, 0x76, 0, 0, 0xfe}, ip, tlvs);
            put_be16(b.data(), ipv4 ? kMsgIpv4Reply : kMsgL2Reply);
            write("reply", "op" + hex4(row.code) + (ipv4 ? "_udp" : "_raw"), b);
        }
    }
}

// Header in the host's order (the socket never leaves the machine).
Bytes db_request(uint16_t cmd, std::string_view arg) {
    Bytes b(16, 0);
    const uint16_t len = uint16_t(arg.size() + 1);
    std::memcpy(b.data(), &cmd, 2);
    std::memcpy(b.data() + 2, &len, 2);
    b.insert(b.end(), arg.begin(), arg.end());
    b.push_back(0);
    return b;
}

void xmldb_seeds() {
    const std::pair<uint16_t, std::string_view> cmds[] = {
        {1, "/sys/hostname"},
        {2, "/sys/hostname ap9"},
        {3, "/wlan/inf:1"},
        {4, "state"},
        {5, "state"},
        {6, "patch.txt"},
        {7, "/sys/a 1\n/sys/b two words\\n\n# note\n"},
        {8, "/runtime/x 1"},
        {10, "host=<?rgdb /sys/hostname?> ip=<?rgdb /runtime/wan/inf:1/ip ?>"},
    };
    Bytes all;
    for (auto [cmd, arg] : cmds) {
        Bytes b = db_request(cmd, arg);
        write("xmldb", "cmd" + std::to_string(cmd), b);
        all.insert(all.end(), b.begin(), b.end());
    }
    write("xmldb", "sequence", all);
}

void base64_seeds() {
    for (std::string_view s : {"YWRtaW4=", "c2VjcmV0", "YQ==", "", "////", "not base64!"})
        write("base64", "s" + std::to_string(s.size()) + "_" + hex4(uint16_t(s.empty() ? 0 : s[0])),
              Bytes(s.begin(), s.end()));
}

// libFuzzer dictionary entries: the wire's numbers and the texts that would
// matter if they ever reached a shell or a format.
void engine_dict() {
    std::ofstream f(g_out + "/engine.dict");
    auto be = [&](uint16_t v) {
        char b[32];
        snprintf(b, sizeof b, "\"\\x%02x\\x%02x\"\n", v >> 8, v & 0xff);
        f << b;
    };
    for (const auto &t : kTags) be(t.tag);
    for (const auto &r : kOpCodes) be(r.code);
    for (uint16_t m : {kMsgL2Request, kMsgIpv4Request, kMsgIpv6Request}) be(m);
    f << "\"\\xff\\xff\\xff\\xff\\xff\\xff\"\n\"\\x02\\x7a\\x76\\x00\\x00\\x01\"\n"
      << "\"\\xc0\\x00\\x02\\x0b\"\n\"admin\\x00\"\n\"$(\"\n\"`\"\n\"%n\"\n\"'\"\n\";\"\n\"\\x0a\"\n";
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2 || std::strcmp(argv[1], "--help") == 0) {
        std::fputs("usage: make_seeds OUTDIR\nWrites the fuzz corpora (engine, reply, xmldb, base64) "
                   "and engine.dict into OUTDIR.\n",
                   argc == 2 ? stdout : stderr);
        return argc == 2 ? 0 : 2;
    }
    g_out = argv[1];
    mkdir(g_out.c_str(), 0755);
    engine_seeds();
    reply_seeds();
    xmldb_seeds();
    base64_seeds();
    engine_dict();
    return 0;
}
