// SPDX-License-Identifier: ISC
// Writes the fuzz targets' starting corpora and dictionaries into a directory:
// for the engine, a request of every op code in both forms, carrying the
// precedence, the lab administrator's credentials and every tag that the op
// code's requests take (from the tag table, so new tags and handlers are
// covered without touching this file), and the same without a body; for the
// database server, one request of every command and all of them in a row.
//
// Usage: make_seeds OUTDIR
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/requests.h"
#include "proto/tags.h"
#include "proto/wire.h"
#include "tools/client/client.h"

using namespace tav;
using namespace tav::client;
using namespace tav::requests;
using Bytes = std::vector<uint8_t>;

namespace {

std::string g_out;

void write(const std::string &dir, const std::string &name, const Bytes &b) {
    mkdir((g_out + "/" + dir).c_str(), 0755);
    std::ofstream f(g_out + "/" + dir + "/" + name, std::ios::binary);
    f.write(reinterpret_cast<const char *>(b.data()), std::streamsize(b.size()));
}

std::string hex4(uint16_t v) {
    char b[8];
    snprintf(b, sizeof b, "%04x", v);
    return b;
}

void engine_seeds() {
    const std::array<uint8_t, 4> any_ip{0, 0, 0, 0};
    for (const auto &row : kOpCodes) {
        TlvList tlvs = lead("admin", "admin");
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
        std::fputs("usage: make_seeds OUTDIR\nWrites the fuzz corpora (engine, xmldb) "
                   "and engine.dict into OUTDIR.\n",
                   argc == 2 ? stdout : stderr);
        return argc == 2 ? 0 : 2;
    }
    g_out = argv[1];
    mkdir(g_out.c_str(), 0755);
    engine_seeds();
    xmldb_seeds();
    engine_dict();
    return 0;
}
