// Both request paths: which requests a device takes as its own, and how its
// reply is addressed on each path.
#include <algorithm>

#include "tests/e2e/e2e.h"

namespace e2e {
namespace {

constexpr Mac kStranger{0x02, 0x7a, 0x76, 0x00, 0x00, 0x33};

class ReplyPaths : public LabSuite<ReplyPaths> {
  public:
    static constexpr const char *kCode = "paths";
    static constexpr int kAps = 2;
};

TEST_F(ReplyPaths, RawReplyIsBroadcastFromDeviceMacNamingTheRequester) {
    const std::optional<Mac> sources[] = {std::nullopt, Mac{0x02, 0xe2, 0xe0, 0x00, 0x00, 0x01}};
    for (const auto &source : sources) {
        SCOPED_TRACE(source ? tav::client::format_mac(*source) : "interface MAC");
        Client mgr = lab().raw(source);
        FrameTap tap(lab().netns_mgr());
        ASSERT_TRUE(tap.ok());
        const uint16_t seq = send_to(mgr, tav::kOpDiscovery, ap_mac(1), kAnyIp);
        auto frame = tap.next(
            [&](const auto &f) { return f.msg && is_reply_to(*f.msg, seq, tav::kOpDiscovery); },
            3s);
        ASSERT_TRUE(frame) << "no reply";
        EXPECT_EQ(frame->dst, tav::kBroadcastMac);
        EXPECT_EQ(frame->src, ap_mac(1));
        EXPECT_EQ(frame->msg->msg_type(), tav::kMsgL2Reply);
        EXPECT_EQ(frame->msg->header->target_mac, source.value_or(kMgrMac));
    }
}

TEST_F(ReplyPaths, UdpReplyIsOneDatagramFromPort62976ToTheSender) {
    Client mgr = lab().udp(1);
    auto replies = mgr.request(tav::kOpDiscovery, {}, 1500ms);
    ASSERT_TRUE(replies);
    ASSERT_EQ(replies->size(), 1u);
    const Message &m = replies->front();
    EXPECT_EQ(m.msg_type(), tav::kMsgIpv4Reply);
    EXPECT_EQ(m.src_ip, ap_ip(1));
    EXPECT_EQ(m.src_port, tav::kUdpPort);
    EXPECT_EQ(m.header->target_ip, kMgrIp);
}

TEST_F(ReplyPaths, UdpBroadcastAndMulticastReachEveryDevice) {
    for (const char *to : {"192.0.2.255", "224.0.0.1"}) {
        SCOPED_TRACE(to);
        Client mgr(tav::client::Options::over_udp(to, lab().netns_mgr(), cipher_path()));
        auto replies = mgr.request(tav::kOpDiscovery, {}, 1500ms);
        ASSERT_TRUE(replies);
        std::vector<Ipv4> from;
        for (const auto &m : *replies) {
            from.push_back(m.src_ip);
            EXPECT_EQ(m.src_port, tav::kUdpPort);
            EXPECT_EQ(m.header->target_ip, kMgrIp);
        }
        std::sort(from.begin(), from.end());
        EXPECT_EQ(from, (std::vector<Ipv4>{ap_ip(1), ap_ip(2)}));
    }
}

// A UDP sender's MAC comes from the access point's ARP cache: zero without an
// entry, the manager's MAC with one.
TEST_F(ReplyPaths, UdpReplyTargetMacComesFromTheArpCache) {
    const std::string forget = "ip neigh del 192.0.2.1 dev br0 2>/dev/null; ip neigh flush dev br0";
    Finally restore([&] {
        lab().on_ap(1, forget);
        lab().exec("mgr", "ip neigh del 192.0.2.11 dev eth0");
    });
    // The manager never asks for the access point's address, so the access
    // point learns nothing from ARP by itself.
    const std::string pin =
        "ip neigh replace 192.0.2.11 lladdr 02:7a:76:00:00:01 dev eth0 nud permanent";
    ASSERT_EQ(lab().exec("mgr", pin).status, 0);
    struct Case {
        const char *what;
        std::string setup;
        Mac expected;
    } cases[] = {
        {"no entry", forget, tav::kZeroMac},
        {"manager's entry",
         forget + "; ip neigh replace 192.0.2.1 lladdr 02:7a:76:00:00:fe dev br0 nud permanent",
         kMgrMac},
        {"no entry again", forget, tav::kZeroMac},
    };
    Client mgr = lab().udp(1);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(lab().on_ap(1, c.setup).status, 0);
        auto reply = mgr.request_one(tav::kOpDiscovery, {}, 3s);
        ASSERT_TRUE(reply) << reply.error();
        EXPECT_EQ(reply->header->target_mac, c.expected);
        EXPECT_EQ(reply->header->target_ip, kMgrIp);
    }
}

TEST_F(ReplyPaths, RawRequestsAreTakenByTargetMac) {
    struct Case {
        const char *what;
        Mac target;
        bool ap1, ap2;
    } cases[] = {
        {"ap1", ap_mac(1), true, false},
        {"ap2", ap_mac(2), false, true},
        {"broadcast", tav::kBroadcastMac, true, true},
        {"other device", kStranger, false, false},
        {"zero", tav::kZeroMac, false, false},
    };
    Client mgr = lab().raw();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        const uint16_t seq = send_to(mgr, tav::kOpSupportedFunctions, c.target, kAnyIp);
        bool from1 = false, from2 = false;
        for (const auto &m : replies_before_control(mgr, seq, tav::kOpSupportedFunctions, 2)) {
            from1 |= m.src_mac == ap_mac(1);
            from2 |= m.src_mac == ap_mac(2);
        }
        EXPECT_EQ(from1, c.ap1);
        EXPECT_EQ(from2, c.ap2);
    }
}

TEST_F(ReplyPaths, Ipv4RequestsAreTakenByTargetMacAndAddress) {
    struct Case {
        Mac mac;
        Ipv4 ip;
        bool answered;
    } cases[] = {
        {ap_mac(1), ap_ip(1), true},           {ap_mac(1), kAnyIp, true},
        {tav::kZeroMac, ap_ip(1), true},       {tav::kZeroMac, kAnyIp, true},
        {tav::kBroadcastMac, ap_ip(1), false}, {tav::kBroadcastMac, kAnyIp, false},
        {ap_mac(2), ap_ip(1), false},          {ap_mac(1), ap_ip(2), false},
        {tav::kZeroMac, ap_ip(2), false},
    };
    Client mgr = lab().udp(1);
    for (const auto &c : cases) {
        SCOPED_TRACE(tav::client::format_mac(c.mac) + " " + tav::client::format_ipv4(c.ip));
        const uint16_t seq = send_to(mgr, tav::kOpSupportedFunctions, c.mac, c.ip);
        const auto replies = replies_before_control(mgr, seq, tav::kOpSupportedFunctions);
        EXPECT_EQ(replies.size(), c.answered ? 1u : 0u);
    }
}

TEST_F(ReplyPaths, ReplyEchoesSequenceAndOpCodeWithVersionFive) {
    struct Case {
        uint16_t sequence, op_code, result;
    } cases[] = {
        {0x0000, tav::kOpDiscovery, 0},
        {0xFFFF, tav::kOpSupportedFunctions, 0},
        {0x00FF, tav::kOpUserVerification, 0x40},
        {0xFF00, tav::kOpHello, 0},
        {0x8001, tav::kOpReport, 0},
    };
    Client raw = lab().raw();
    Client udp = lab().udp(1);
    for (Client *c : {&raw, &udp}) {
        for (const auto &k : cases) {
            SCOPED_TRACE(std::string(c->ipv4() ? "udp " : "raw ") +
                         tav::client::format_op_code(k.op_code) + " sequence " +
                         std::to_string(k.sequence));
            tav::Header h = request_header(c->ipv4(), k.op_code, k.sequence);
            h.version = 0;
            if (!c->ipv4()) h.target_mac = ap_mac(1);
            ASSERT_TRUE(c->send_plaintext(plaintext(h, {})));
            auto got = c->collect(k.sequence, k.op_code, 3s, 1);
            ASSERT_EQ(got.size(), 1u) << "no reply with the request's sequence and op code";
            const tav::Header &r = *got.front().header;
            EXPECT_EQ(r.version, tav::kVersion);
            EXPECT_EQ(r.result, k.result);
            EXPECT_EQ(r.msg_type, c->ipv4() ? tav::kMsgIpv4Reply : tav::kMsgL2Reply);
        }
    }
}

}  // namespace
}  // namespace e2e
