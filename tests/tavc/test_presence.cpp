// Discovery, supported functions, and the device's own announcements.
#include <algorithm>
#include <cstring>

#include "engine_fixture.h"
#include "tavc/handlers.h"

namespace {
Bytes text(const char *s) { return Bytes(s, s + std::strlen(s) + 1); }
}  // namespace

class Presence : public Engine {};

TEST_F(Presence, DiscoveryBodyFollowsTheStore) {
    lrgbin_store::put("/sys/hostname", "AP-9");
    lrgbin_store::put("/runtime/sys/info/hardwareversion", "A1");
    lrgbin_store::put("/runtime/sys/info/firmwareversion", "1.2.3");
    lrgbin_store::put("/sys/systemName", "hall");
    lrgbin_store::put("/sys/web/port", "8080");
    lrgbin_store::put("/runtime/wan/inf:1/netmask", "255.255.255.0");
    lrgbin_store::put("/runtime/wan/inf:1/gateway", "192.0.2.1");
    lrgbin_store::put("/runtime/wan/inf:1/primarydns", "192.0.2.53");
    lrgbin_store::put("/wan/rg/inf:1/mode", "1");
    lrgbin_store::put("/runtime/time/date", "11/16/2026");
    lrgbin_store::put("/runtime/time/time", "12:34:56");
    lrgbin_store::put("/qm5_agent/nms_server", "nms.example");
    lrgbin_store::put("/qm5_agent/ag_uuid", "u-1");
    lrgbin_store::put("/qm5_agent/managed_status", "2");  // agent not running: reads 0

    auto [rc, body] = call(tav_discovery, {});
    ASSERT_EQ(rc, 0);
    const std::vector<std::pair<uint16_t, Bytes>> expected = {
        {7, text("Quelbo")},
        {1, text("AP-9 A1")},
        {8, text("AP-9")},
        {4, text("1.2.3")},
        {3, {0, 0, 0, 0}},
        {14, Bytes(kDeviceMac.begin(), kDeviceMac.end())},
        {46, {0}},
        {9, text("hall")},
        {15, {192, 0, 2, 11}},
        {32, {0x1F, 0x90}},
        {17, {255, 255, 255, 0}},
        {18, {192, 0, 2, 1}},
        {20, {192, 0, 2, 53}},
        {22, {0, 0, 0, 0}},
        {25, {0}},
        {301, text("20261116123456")},
        {2, text("Access point")},
        {5, text("A1")},
        {57, {0}},
        {48, text("nms.example")},
        {12, {0}},
        {47, text("u-1")},
        {58, {0, 0}},
    };
    auto got = records(body);
    ASSERT_EQ(got.size(), expected.size());
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].tag, expected[i].first) << i;
        EXPECT_EQ(got[i].value, expected[i].second) << "tag " << expected[i].first;
    }
    static uint8_t reply[kReplyBodySize];
    EXPECT_EQ(tav_discovery(nullptr, 0, reply), 0xFFFD);
}

TEST_F(Presence, SupportedFunctionsList) {
    auto [rc, body] = call(tav_query_supported_optional_functions, {});
    ASSERT_EQ(rc, 0);
    ASSERT_EQ(body.size(), 168u);
    auto got = records(body);
    ASSERT_EQ(got.size(), 28u);
    std::vector<uint16_t> ops;
    for (size_t i = 0; i + 1 < got.size(); ++i) {
        EXPECT_EQ(got[i].tag, 500);
        ASSERT_EQ(got[i].value.size(), 2u);
        ops.push_back(tav::get_be16(got[i].value.data()));
    }
    EXPECT_EQ((std::vector<uint16_t>(ops.begin(), ops.begin() + 4)),
              (std::vector<uint16_t>{0xA0, 0xAA, 0xAB, 0xDA}));
    EXPECT_EQ(ops[ops.size() - 2], 0x200B);
    EXPECT_EQ(ops.back(), 0x200C);
    for (uint16_t hidden : {0xA1, 0xA3, 0xA4, 0xA5})
        EXPECT_EQ(std::count(ops.begin(), ops.end(), hidden), 0) << hidden;
    EXPECT_EQ(got.back().tag, 501);
    EXPECT_EQ(got.back().value, (Bytes{0, 0}));
}

TEST_F(Presence, OwnAnnouncements) {
    lrgbin_store::put("/sys/hostname", "AP-9");
    lrgbin_store::put("/runtime/wan/inf:1/netmask", "255.255.255.0");
    ASSERT_EQ(tav_own_hello(), 0);
    ASSERT_EQ(report_device_info(), 0);
    ASSERT_EQ(tav_own_bye(), 0);
    auto msgs = sent();
    ASSERT_EQ(msgs.size(), 3u);
    const uint16_t ops[] = {0x104, 0xA0, 0x105};
    for (size_t i = 0; i < 3; ++i) {
        const auto &m = msgs[i];
        EXPECT_TRUE(m.l2);
        EXPECT_EQ(m.eth, (Bytes{0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x02, 0x7a, 0x76, 0, 0, 1,
                                0x23, 0x86}));
        EXPECT_EQ(m.header.msg_type, 0x7FFF);
        EXPECT_EQ(m.header.sequence, 0);
        EXPECT_EQ(m.header.op_code, ops[i]);
        EXPECT_EQ(m.header.target_mac, tav::kZeroMac);
        EXPECT_EQ(m.header.result, 0);
        EXPECT_EQ(m.header.version, 5);
    }
    EXPECT_TRUE(msgs[0].body.empty());
    EXPECT_TRUE(msgs[2].body.empty());
    std::vector<uint16_t> tags;
    for (const auto &r : records(msgs[1].body)) tags.push_back(r.tag);
    EXPECT_EQ(tags, (std::vector<uint16_t>{1, 2, 4, 14, 5, 9, 15, 17, 29}));
    EXPECT_EQ(records(msgs[1].body)[0].value, text("AP-9 "));
    EXPECT_EQ(records(msgs[1].body)[7].value, (Bytes{255, 255, 255, 0}));
    EXPECT_EQ(records(msgs[1].body)[8].value, text("br0"));
}
