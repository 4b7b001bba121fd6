// Message types, target checks, op-code look-up and the reply header.
#include <cstring>

#include "engine_fixture.h"

namespace {
constexpr tav::Mac kOther{0x02, 0x7a, 0x76, 0, 0, 0x02};
constexpr std::array<uint8_t, 4> kIp{192, 0, 2, 11}, kAnyIp{}, kOtherIp{192, 0, 2, 12};
}  // namespace

class Dispatch : public Engine {};

TEST_F(Dispatch, RawRequestTargets) {
    struct Case {
        tav::Mac target;
        bool answered;
    } cases[] = {{kDeviceMac, true}, {tav::kBroadcastMac, true}, {tav::kZeroMac, false},
                 {kOther, false}};
    for (const auto &c : cases) {
        tavc_record::clear();
        deliver(request(false, 0xA0, {}, c.target));
        EXPECT_EQ(sent().size(), c.answered ? 1u : 0u);
    }
}

TEST_F(Dispatch, Ipv4RequestTargets) {
    struct Case {
        tav::Mac mac;
        std::array<uint8_t, 4> ip;
        bool answered;
    } cases[] = {
        {kDeviceMac, kIp, true},         {kDeviceMac, kAnyIp, true},
        {tav::kZeroMac, kIp, true},      {tav::kZeroMac, kAnyIp, true},
        {tav::kBroadcastMac, kAnyIp, false}, {kOther, kIp, false},
        {kDeviceMac, kOtherIp, false},
    };
    for (const auto &c : cases) {
        tavc_record::clear();
        deliver(request(true, 0xA0, {}, c.mac, c.ip));
        EXPECT_EQ(sent().size(), c.answered ? 1u : 0u);
    }
}

TEST_F(Dispatch, RawReplyHeader) {
    Bytes req = request(false, 0xA3, tlv_text(55, "nobody"), tav::kBroadcastMac, {}, 0xBEEF);
    deliver(req);
    auto msgs = sent();
    ASSERT_EQ(msgs.size(), 1u);
    const auto &m = msgs[0];
    EXPECT_TRUE(m.l2);
    EXPECT_EQ(m.header.msg_type, 0x7EEE);
    EXPECT_EQ(m.header.sequence, 0xBEEF);
    EXPECT_EQ(m.header.op_code, 0xA3);
    EXPECT_EQ(m.header.target_mac, kManagerMac);
    EXPECT_EQ(m.header.result, 0x40);
    EXPECT_EQ(m.header.version, 5) << "even though the request said 0";
    EXPECT_EQ(m.header.body_length, 0);
    EXPECT_EQ(Bytes(m.eth.begin() + 6, m.eth.begin() + 12),
              Bytes(kDeviceMac.begin(), kDeviceMac.end()));
}

TEST_F(Dispatch, Ipv4ReplyGoesBackToTheSender) {
    deliver(request(true, 0xA5, {}, tav::kZeroMac, kAnyIp, 0x0007));
    ASSERT_EQ(tavc_record::frames().size(), 1u);
    const auto &f = tavc_record::frames()[0];
    EXPECT_EQ(f.fd, tav_l3_fd);
    const auto *to = reinterpret_cast<const sockaddr_in *>(&f.to);
    EXPECT_EQ(f.to_len, sizeof(sockaddr_in));
    EXPECT_EQ(ntohs(to->sin_port), 40000);
    EXPECT_EQ(0, std::memcmp(&to->sin_addr, "\xc6\x33\x64\x05", 4));
    auto m = sent()[0];
    EXPECT_FALSE(m.l2);
    EXPECT_EQ(m.header.msg_type, 0xFEEE);
    EXPECT_EQ(m.header.sequence, 7);
    EXPECT_EQ(m.header.op_code, 0xA5);
    EXPECT_EQ(m.header.target_mac, kManagerMac);
    EXPECT_EQ(m.header.target_ip, (std::array<uint8_t, 4>{198, 51, 100, 5}));
    EXPECT_EQ(m.header.result, 0);
    EXPECT_EQ(m.header.body_length, 168);
}

TEST_F(Dispatch, LockedOpCodesWhileTheAgentRuns) {
    lrgbin_store::put("/qm5_agent/running", "1");
    struct Case {
        uint16_t op;
        bool answered;
    } cases[] = {{0xA1, true}, {0xA3, true}, {0xA5, true}, {0xA0, false},
                 {0x104, false}, {0x105, false}};
    for (const auto &c : cases) {
        tavc_record::clear();
        out();
        deliver(request(false, c.op, {}));
        EXPECT_EQ(sent().size(), c.answered ? 1u : 0u) << c.op;
        EXPECT_EQ(out(), c.answered ? "" : "NOTICE:operation is not allowed in current mode\n")
            << c.op;
    }
    lrgbin_store::put("/qm5_agent/running", "0");
    deliver(request(false, 0xA0, {}));
    EXPECT_EQ(sent().size(), 1u);
}

TEST_F(Dispatch, UnknownOpCodeIsDroppedSilently) {
    for (uint16_t op : {0x0999, 0x0000, 0xFFFF}) {
        deliver(request(false, op, {}));
        deliver(request(true, op, {}));
    }
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(out(), "");
    EXPECT_EQ(tav_func_find(0x200C), 30);
    EXPECT_EQ(tav_func_find(0x00A0), 0);
}

TEST_F(Dispatch, MessageTypes) {
    for (uint16_t type : {0x7EEE, 0xFEEE, 0x7FFF, 0x0EEE, 0x0FFF, 0xFFFF, 0x0DFD}) {
        Bytes p = request(false, 0xA0, {});
        tav::put_be16(p.data(), type);
        deliver(p);
        EXPECT_EQ(out(), "") << type;
    }
    EXPECT_TRUE(sent().empty());
    Bytes p = request(false, 0xA0, {});
    tav::put_be16(p.data(), 0x1234);
    deliver(p);
    EXPECT_EQ(out(), "Unknow message_type !\n");
    EXPECT_TRUE(sent().empty());
}

TEST_F(Dispatch, MalformedPlaintextIsDropped) {
    const Bytes body = tlv_text(55, "admin");
    Bytes raw = request(false, 0xA3, body), ip = request(true, 0xA3, body);
    Bytes cases[] = {
        Bytes(raw.begin(), raw.begin() + 17),       // shorter than the raw header
        Bytes(ip.begin(), ip.begin() + 21),         // shorter than the IPv4 header
        Bytes(raw.begin(), raw.end() - 1),          // body_length past the plaintext
        Bytes(ip.begin(), ip.end() - 1),
        Bytes{0x7D},                                // not even a message type
        {},
    };
    for (const Bytes &p : cases) deliver(p);
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(out(), "");
    // A body shorter than the plaintext holds is fine: the rest is ignored.
    raw.push_back(0xAA);
    deliver(raw);
    EXPECT_EQ(sent().size(), 1u);
}
