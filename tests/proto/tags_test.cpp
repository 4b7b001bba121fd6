// Tag and result tables: contextual look-ups and the kinds the engine and
// the tools rely on.
#include <gtest/gtest.h>

#include "proto/tags.h"

namespace {

using namespace tav;

TEST(Tags, KindsOfKeyTags) {
    struct Case {
        uint16_t tag;
        std::string_view name;
        TagKind kind;
    };
    const Case cases[] = {
        {1, "MODEL_NAME", TagKind::kText},          {3, "RESERVED_WORD", TagKind::kU32},
        {14, "MAC", TagKind::kMac},                 {15, "IP_ADDRESS", TagKind::kIpv4},
        {32, "WEB_PORT", TagKind::kU16},            {52, "VERIFICATION", TagKind::kU32Le},
        {54, "SERVER_PRECEDENCE", TagKind::kU8},    {55, "USER_NAME", TagKind::kText},
        {56, "PASSWORD", TagKind::kText},           {58, "CONNECTION_STATUS", TagKind::kU16},
        {301, "DATE_TIME", TagKind::kText},         {0x0180, "SUBSERVICE_TYPE", TagKind::kU8},
        {0x0184, "REPLY_STATUS", TagKind::kU8},     {0x0188, "DELAY_TIME", TagKind::kU32},
        {393, "SET_STATUS", TagKind::kU32},         {394, "WAIT_TIME", TagKind::kU32},
        {395, "ERROR_MASK", TagKind::kU32},         {0x018C, "SERVER_PORT", TagKind::kU16},
        {500, "SUPPORTED_FUNCTION", TagKind::kU16}, {501, "TAG_TAV_EOL_OR_CNT", TagKind::kU16},
        {502, "GROUP_TAG", TagKind::kU16},          {519, "WLAN_2G_SEND", TagKind::kU64},
        {526, "SUPPORTED_AUTH", TagKind::kU32Le},   {925, "RSSI", TagKind::kI32},
        {935, "TAG_SSID_STATUS", TagKind::kU8},     {946, "ACTION", TagKind::kU8},
    };
    for (const auto &c : cases) {
        const TagInfo *t = find_tag(c.tag);
        ASSERT_NE(t, nullptr) << c.tag;
        EXPECT_EQ(t->name, c.name) << c.tag;
        EXPECT_EQ(t->kind, c.kind) << c.tag;
        EXPECT_EQ(find_tag(c.name), t) << c.name;
    }
    for (uint16_t unknown : {0, 11, 53, 302, 397, 999, 0xFFFF}) EXPECT_EQ(find_tag(unknown), nullptr);
}

TEST(Tags, ContextualMeanings) {
    struct Case {
        uint16_t tag;
        uint16_t op;
        std::string_view name;
        TagKind kind;
    };
    const Case cases[] = {
        {8, kOpDiscovery, "HOST_NAME", TagKind::kText},
        {8, kOpGetApArrayDeviceList, "MODEL_NAME", TagKind::kText},
        {395, kOpSetSsidList, "ERROR_MASK", TagKind::kU32},
        {395, kOpSetSnmp, "SNMP_ERROR_MASK", TagKind::kU32Le},
        {17, kOpDiscovery, "NETMASK", TagKind::kIpv4},
        {17, kOpSetIpv4, "DEVCIE_IP_MASK", TagKind::kIpv4},
        {32, kOpSetDeviceInfo, "WEB_PORT_NUM", TagKind::kU16},
        {47, kOpSetAgProfile, "AGENT_GROUP_UUID", TagKind::kText},
        {525, kOpSetWirelessInfo, "SUPPORT_BAND", TagKind::kU8},
        {525, kOpGetSsidList, "SUPPORTED_BAND", TagKind::kU8},
    };
    for (const auto &c : cases) {
        const TagInfo *t = find_tag(c.tag, c.op);
        ASSERT_NE(t, nullptr);
        EXPECT_EQ(t->name, c.name) << c.tag << " in op " << c.op;
        EXPECT_EQ(t->kind, c.kind) << c.tag << " in op " << c.op;
    }
    // Names: an op code's own names only in its context; common ones anywhere.
    EXPECT_EQ(find_tag("devcie_ip_mask", kOpSetIpv4)->tag, 17);
    EXPECT_EQ(find_tag("DEVCIE_IP_MASK", kOpDiscovery), nullptr);
    EXPECT_EQ(find_tag("netmask", kOpSetIpv4)->tag, 17);
    EXPECT_EQ(find_tag("snmp_error_mask", kOpSetSnmp)->kind, TagKind::kU32Le);
    EXPECT_EQ(find_tag("Server_Precedence", kOpReboot)->tag, 54);
    EXPECT_EQ(find_tag("NO_SUCH_TAG"), nullptr);
}

TEST(Tags, KindSizes) {
    EXPECT_EQ(tag_kind_size(TagKind::kU8), 1u);
    EXPECT_EQ(tag_kind_size(TagKind::kU16), 2u);
    EXPECT_EQ(tag_kind_size(TagKind::kU32Le), 4u);
    EXPECT_EQ(tag_kind_size(TagKind::kMac), 6u);
    EXPECT_EQ(tag_kind_size(TagKind::kU64), 8u);
    EXPECT_EQ(tag_kind_size(TagKind::kText), 0u);
    EXPECT_EQ(tag_kind_name(TagKind::kU32Le), "u32le");
}

TEST(Results, MeaningsByOpCode) {
    EXPECT_EQ(result_meaning(0), "success");
    EXPECT_EQ(result_meaning(64), "authentication failed");
    EXPECT_EQ(result_meaning(64, kOpUserVerification), "authentication failed");
    EXPECT_NE(result_meaning(64, kOpSetSnmp).find("unsupported tag"), std::string_view::npos);
    EXPECT_NE(result_meaning(1001, kOpChangeIdPassword).find("user name"), std::string_view::npos);
    EXPECT_NE(result_meaning(1011, kOpChangeIdPassword).find("password"), std::string_view::npos);
    EXPECT_NE(result_meaning(105, kOpSetDateTime).find("127.0.0.1"), std::string_view::npos);
    EXPECT_NE(result_meaning(2002, kOpSetSnmp).find("SNMP"), std::string_view::npos);
    EXPECT_NE(result_meaning(0xFFFF, kOpSetSnmp).find("parameter check"), std::string_view::npos);
    EXPECT_NE(result_meaning(0xFFFF, kOpUserVerification).find("precedence"),
              std::string_view::npos);
    // Handler-specific codes keep a meaning without context.
    EXPECT_FALSE(result_meaning(218).empty());
    EXPECT_FALSE(result_meaning(206, kOpReboot).empty());
    EXPECT_TRUE(result_meaning(12345).empty());
    EXPECT_TRUE(result_meaning(1).empty());
}

}  // namespace
