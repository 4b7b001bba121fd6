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
    const struct {
        const char *arg;
        uint16_t op, tag;
        Bytes value;
    } cases[] = {
        {"54=u8:5", kOpUserVerification, 54, {5}},         {"SERVER_PRECEDENCE=0x07", kOpReboot, 54, {7}},
        {"server_precedence=7", kOpReboot, 54, {7}},       {"54=u16:256", kOpReboot, 54, {1, 0}},
        {"USER_NAME=a=b", kOpUserVerification, 55, {'a', '=', 'b', 0}},
        {"55=text:ad", kOpUserVerification, 55, {'a', 'd', 0}}, {"56=str:ab", kOpUserVerification, 56, {'a', 'b'}},
        {"56=", kOpUserVerification, 56, {0}},             {"0x0188=30", kOpReboot, 392, {0, 0, 0, 30}},
        {"52=1", kOpUserVerification, 52, {1, 0, 0, 0}},   {"925=-67", kOpGetClientList, 925, {0xFF, 0xFF, 0xFF, 0xBD}},
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
    const struct {
        const char *arg;
        uint16_t op;
        const char *says;
    } refused[] = {
        {"54", kOpReboot, "TAG=VALUE"},           {"=5", kOpReboot, "TAG=VALUE"},
        {"NO_SUCH=1", kOpReboot, "unknown tag"},  {"DEVCIE_IP_MASK=1.2.3.4", kOpDiscovery, "unknown tag"},
        {"54=256", kOpReboot, "0 to 255"},        {"54=-1", kOpReboot, "not a number"},
        {"54=0x", kOpReboot, "not a number"},     {"32=65536", kOpSetDeviceInfo, "0 to 65535"},
        {"925=2147483648", kOpGetClientList, "signed"}, {"14=02:7a:76:00:00", kOpSetApArrayMemberList, "MAC"},
        {"15=192.0.2.256", kOpSetIpv4, "IPv4"},   {"999=5", kOpReboot, "hexadecimal"},
        {"999=x:abc", kOpReboot, "hexadecimal"},
    };
    for (const auto &c : refused) {
        auto t = parse_tlv_arg(c.arg, c.op);
        ASSERT_FALSE(t) << c.arg;
        EXPECT_NE(t.error().find(c.says), std::string::npos) << c.arg << ": " << t.error();
    }
}

TEST(Text, MacsAddressesOpCodesAndValues) {
    EXPECT_EQ(format_mac(Mac{0x02, 0x7A, 0x76, 0x00, 0x00, 0x01}), "02:7a:76:00:00:01");
    EXPECT_EQ(format_mac(Mac{}), "00:00:00:00:00:00");
    EXPECT_EQ(*parse_mac("2:7A:76:0:0:FE"), (Mac{2, 0x7a, 0x76, 0, 0, 0xfe}));
    EXPECT_EQ(*parse_mac("02-7a-76-00-00-01"), (Mac{2, 0x7a, 0x76, 0, 0, 1}));
    for (const char *bad : {"", "02:7a:76:00:00", "02:7a:76:00:00:01:02", "02:7a:76:00:00:0g", "002:7a:76:00:00:01",
                            "02:7a:76:00:00:", "02::7a:76:00:00:01"})
        EXPECT_FALSE(parse_mac(bad)) << bad;
    EXPECT_EQ(format_ipv4(Bytes{192, 0, 2, 11}), "192.0.2.11");
    for (const char *bad : {"1.2.3", "1.2.3.4.5", "1.2.3.", "256.1.1.1", "1.2.3.4 "})
        EXPECT_FALSE(parse_ipv4(bad)) << bad;
    for (auto [text, code] : {std::pair{"0xA1", 0xA1}, {"161", 0xA1}, {"tav_discovery", 0xA1}, {"discovery", 0xA1},
                              {"GET_SSID_LIST", 0x2004}, {"0x0999", 0x0999}})
        EXPECT_TRUE(parse_op_code(text) && *parse_op_code(text) == code) << text;
    EXPECT_FALSE(parse_op_code("0x10000"));
    EXPECT_FALSE(parse_op_code("bogus"));
    for (auto [text, max, ok] : {std::tuple{"7", 7, true}, {"9", 7, false}, {"0xF", 15, true},
                                 {"0xF", 14, false}, {"256", 255, false}, {"255", 255, true}})
        EXPECT_EQ(parse_uint(text, uint64_t(max)).has_value(), ok) << text << " max " << max;
    EXPECT_EQ(format_value(Bytes{0xFF, 0xFF, 0xFF, 0xBD}, TagKind::kI32), "-67");
    EXPECT_EQ(format_value(Bytes{0, 0, 0, 2, 0xDF, 0xDC, 0x1C, 0x35}, TagKind::kU64), "12345678901");
    EXPECT_EQ(format_value(Bytes{'a', '\n', '\\', 0, 'x'}, TagKind::kText), "a\\x0a\\\\");
    EXPECT_EQ(format_value(Bytes{1, 2, 3}, TagKind::kU16), "x:010203");  // wrong size: hex
}

TEST(Json, ArraysOfOneAndEscapes) {
    JsonWriter j;
    j.begin_array().begin_object().key("mac").value("02:7a:76:00:00:01").key("port").value(80u);
    j.key("name").value("a\"b\\c\n\x01").key("none").null().end_object().end_array();
    EXPECT_EQ(j.str(), "[\n  {\n    \"mac\": \"02:7a:76:00:00:01\",\n    \"port\": 80,\n"
                       "    \"name\": \"a\\\"b\\\\c\\n\\u0001\",\n    \"none\": null\n  }\n]\n");
    EXPECT_EQ(JsonWriter().begin_array().end_array().str(), "[]\n");
}

}  // namespace
