// What a person types and what the tools print: TAG=VALUE, MACs, op codes,
// typed values, JSON.
#include <gtest/gtest.h>

#include "tools/client/json.h"
#include "tools/client/tlv_text.h"

namespace {

using namespace tav;
using namespace tav::client;
using Bytes = std::vector<uint8_t>;

TEST(TlvArg, ParsesByKindNameAndPrefix) {
    const struct { const char *arg; uint16_t op, tag; Bytes value; } cases[] = {
        {"54=u8:5", kOpUserVerification, 54, {5}},         {"server_precedence=0x07", kOpReboot, 54, {7}},
        {"54=u16:256", kOpReboot, 54, {1, 0}},             {"USER_NAME=a=b", kOpUserVerification, 55, {'a', '=', 'b', 0}},
        {"56=str:ab", kOpUserVerification, 56, {'a', 'b'}}, {"56=", kOpUserVerification, 56, {0}},
        {"0x0188=30", kOpReboot, 392, {0, 0, 0, 30}},      {"925=-67", kOpGetClientList, 925, {0xFF, 0xFF, 0xFF, 0xBD}},
        {"14=02:7a:76:0:0:1", kOpSetApArrayMemberList, 14, {2, 0x7a, 0x76, 0, 0, 1}},
        {"DEVCIE_IP_MASK=255.255.255.0", kOpSetIpv4, 17, {255, 255, 255, 0}},
        {"32=8080", kOpSetDeviceInfo, 32, {0x1F, 0x90}},   {"999=x:0a0B", kOpReboot, 999, {0x0a, 0x0b}},
        {"519=12345678901", kOpGetDeviceStatus, 519, {0, 0, 0, 2, 0xDF, 0xDC, 0x1C, 0x35}},
        {"999=x:", kOpReboot, 999, {}},                    {"395=u32le:6", kOpSetSnmp, 395, {6, 0, 0, 0}},
    };
    for (const auto &c : cases) {
        auto t = parse_tlv_arg(c.arg, c.op);
        ASSERT_TRUE(t) << c.arg << ": " << t.error();
        EXPECT_EQ(std::pair(t->tag, t->value), std::pair(c.tag, c.value)) << c.arg;
    }
    const std::pair<const char *, uint16_t> refused[] = {
        {"54", kOpReboot}, {"=5", kOpReboot}, {"NO_SUCH=1", kOpReboot}, {"DEVCIE_IP_MASK=1.2.3.4", kOpDiscovery},
        {"54=256", kOpReboot}, {"54=-1", kOpReboot}, {"54=0x", kOpReboot}, {"32=65536", kOpSetDeviceInfo},
        {"925=2147483648", kOpGetClientList}, {"14=02:7a:76:00:00", kOpSetApArrayMemberList},
        {"15=192.0.2.256", kOpSetIpv4}, {"999=5", kOpReboot}, {"999=x:abc", kOpReboot}};
    for (auto [arg, op] : refused) EXPECT_FALSE(parse_tlv_arg(arg, op)) << arg;
}

TEST(Text, MacsAddressesOpCodesAndValues) {
    EXPECT_EQ(format_mac(Mac{0x02, 0x7A, 0x76, 0x00, 0x00, 0x01}), "02:7a:76:00:00:01");
    EXPECT_EQ(*parse_mac("2:7A:76:0:0:FE"), (Mac{2, 0x7a, 0x76, 0, 0, 0xfe}));
    EXPECT_EQ(*parse_mac("02-7a-76-00-00-01"), (Mac{2, 0x7a, 0x76, 0, 0, 1}));
    for (const char *bad : {"", "02:7a:76:00:00", "02:7a:76:00:00:01:02", "02:7a:76:00:00:0g", "002:7a:76:00:00:01",
                            "02:7a:76:00:00:", "02::7a:76:00:00:01", "1.2.3", "1.2.3.4.5", "256.1.1.1", "1.2.3.4 "})
        EXPECT_FALSE(parse_mac(bad) || parse_ipv4(bad)) << bad;
    for (auto [text, code] : {std::pair{"0xA1", 0xA1}, {"161", 0xA1}, {"tav_discovery", 0xA1}, {"discovery", 0xA1},
                              {"GET_SSID_LIST", 0x2004}, {"0x0999", 0x0999}, {"0x10000", -1}, {"bogus", -1}})
        EXPECT_EQ(parse_op_code(text) ? int(*parse_op_code(text)) : -1, code) << text;
    EXPECT_EQ(format_value(Bytes{0xFF, 0xFF, 0xFF, 0xBD}, TagKind::kI32), "-67");
    EXPECT_EQ(format_value(Bytes{0, 0, 0, 2, 0xDF, 0xDC, 0x1C, 0x35}, TagKind::kU64), "12345678901");
    EXPECT_EQ(format_value(Bytes{'a', '\n', '\\', 0, 'x'}, TagKind::kText), "a\\x0a\\\\");
    EXPECT_EQ(format_value(Bytes{1, 2, 3}, TagKind::kU16), "x:010203");  // wrong size: hex
}

TEST(Json, Escapes) {
    JsonWriter j;
    j.begin_array().begin_object().key("port").value(80u).key("name").value("a\"b\\c\n\x01").key("none").null();
    EXPECT_EQ(j.end_object().end_array().str(),
              "[\n  {\n    \"port\": 80,\n    \"name\": \"a\\\"b\\\\c\\n\\u0001\",\n    \"none\": null\n  }\n]\n");
}

}  // namespace
