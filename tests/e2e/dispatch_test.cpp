// SPDX-License-Identifier: ISC
// Which messages the daemon takes as requests for itself, and how it answers:
// the target rules of both paths, op codes locked while the management agent
// runs, messages dropped without a word, the reply header and its addressing,
// and input that is cut, overlong or altered.
#include "tests/e2e/e2e.h"

namespace e2e {
namespace {

E2E_SUITE(Dispatch, "disp", 2, "");

constexpr Mac kOwnMac{0x02, 0xe2, 0xe0, 0x00, 0x00, 0x01};  // a manager's MAC of its own
constexpr uint16_t kRaw = tav::kMsgL2Request, kIp4 = tav::kMsgIpv4Request;

// Every request reaches both access points (UDP ones as broadcasts). Requests
// say version 0: replies say 5 whatever the request said.
TEST_F(Dispatch, WhichMessagesAreAnsweredAndHow) {
    const Mac m1 = ap_mac(1), m2 = ap_mac(2), bc = tav::kBroadcastMac, zero = tav::kZeroMac;
    const Ipv4 ip1 = ap_ip(1), ip2 = ap_ip(2), any{};
    const char *const kNotice = "NOTICE:operation is not allowed in current mode\n";
    const struct {
        const char *what;
        uint16_t type, op;
        Mac mac;
        Ipv4 ip;
        bool managed;
        int answers;  // bit 0: ap1, bit 1: ap2
        uint16_t result = 0;
        const char *output = "";  // of ap1
    } cases[] = {
        {"raw to ap1", kRaw, 0xA5, m1, any, false, 1},
        {"raw to all", kRaw, 0xA5, bc, any, false, 3},
        {"raw to another", kRaw, 0xA5, {0x02, 0x7a, 0x76, 0, 0, 0x44}, any, false, 0},
        {"raw to zero", kRaw, 0xA5, zero, any, false, 0},
        {"ipv4 mac and ip", kIp4, 0xA5, m1, ip1, false, 1},
        {"ipv4 ip", kIp4, 0xA5, zero, ip1, false, 1},
        {"ipv4 anyone", kIp4, 0xA5, zero, any, false, 3},
        {"ipv4 broadcast mac", kIp4, 0xA5, bc, ip1, false, 0},
        {"ipv4 other mac", kIp4, 0xA5, m2, ip1, false, 0},
        {"ipv4 other ip", kIp4, 0xA5, m1, ip2, false, 0},
        {"raw verification", kRaw, 0xA3, m1, any, false, 1, 0x40},
        {"raw hello", kRaw, 0x104, m1, any, false, 1},
        {"ipv4 verification", kIp4, 0xA3, zero, any, false, 3, 0x40},
        // Discovery stays open too: every case ends with one.
        {"managed: functions", kRaw, 0xA5, m1, any, true, 1},
        {"managed: report", kRaw, 0xA0, m1, any, true, 0, 0, kNotice},
        {"managed: hello", kRaw, 0x104, m1, any, true, 0, 0, kNotice},
        {"managed: ipv4 hello", kIp4, 0x104, zero, any, true, 0, 0, kNotice},
        {"unknown op code", kRaw, 0x0999, m1, any, false, 0},
        {"ipv6 request", tav::kMsgIpv6Request, 0xA1, m1, any, false, 0},
        {"raw reply", tav::kMsgL2Reply, 0xA1, m1, any, false, 0},
        {"announcement", tav::kMsgAnnounce, 0x104, zero, any, false, 0},
        {"type 0x0EEE", 0x0EEE, 0xA1, m1, any, false, 0},
        {"unknown type", 0x1234, 0xA1, m1, any, false, 0, 0, "Unknow message_type !\n"},
    };
    Client raw = lab().raw(kOwnMac), udp = lab().udp("192.0.2.255");
    bool managed = false;
    auto manage = [&](bool on) {
        for (int ap : {1, 2}) lab().db_set(ap, "/qm5_agent/running", on ? "1" : "0");
        managed = on;
    };
    Finally restore([&] { manage(false); });
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto &c = cases[i];
        SCOPED_TRACE(c.what);
        if (c.managed != managed) manage(c.managed);
        // The header form picks the path; low and high sequence numbers,
        // never one of a control discovery.
        const bool ipv4 = tav::is_ipv4_form(c.type);
        Client &mgr = ipv4 ? udp : raw;
        const uint16_t seq = uint16_t(i % 2 ? 0xFFFF - 2 * i : 2 * i);
        tav::Header h = request_header(ipv4, c.op, seq);
        h.msg_type = c.type, h.target_mac = c.mac, h.target_ip = c.ip, h.version = 0;
        auto out = output(lab(), 1);
        ASSERT_TRUE(mgr.send_plaintext(plaintext(h)));
        mgr.set_sequence(uint16_t(seq + 1));
        int from = 0;
        for (const auto &m : replies_before_control(mgr, seq, c.op, 2)) {
            from |= ipv4 ? (m.src_ip == ip1) | (m.src_ip == ip2) << 1
                         : (m.src_mac == m1) | (m.src_mac == m2) << 1;
            EXPECT_EQ(m.msg_type(), ipv4 ? tav::kMsgIpv4Reply : tav::kMsgL2Reply);
            EXPECT_EQ(m.header->version, tav::kVersion);
            EXPECT_EQ(m.result(), c.result);
            // Named after the requester; datagrams from the protocol's port.
            if (ipv4) {
                EXPECT_EQ(m.header->target_ip, kMgrIp);
                EXPECT_EQ(m.src_port, tav::kUdpPort);
            } else {
                EXPECT_EQ(m.header->target_mac, kOwnMac);
            }
        }
        EXPECT_EQ(from, c.answers);
        EXPECT_EQ(out(), c.output);
    }
}

TEST_F(Dispatch, CutOverlongOrAlteredInputIsDroppedQuietly) {
    using Edit = void (*)(Bytes &);
    const Edit none = [](Bytes &) {};
    const struct {
        const char *what;
        Edit plain, sealed;  // applied to a discovery's plaintext, then to the payload
        bool answered = false;
    } cases[] = {
        {"header cut to 10 bytes", [](Bytes &p) { p.resize(10); }, none},
        {"body length past the end", [](Bytes &p) { p.back() = 1; }, none},
        {"bytes past the body are ignored", [](Bytes &p) { p.push_back(0xAA); }, none, true},
        {"ciphertext byte flipped", none, [](Bytes &s) { s[s.size() - 6] ^= 0x20; }},
        {"selector changed", none, [](Bytes &s) { s[1] ^= 1; }},
        {"empty payload", none, [](Bytes &s) { s.clear(); }},
        {"selector without ciphertext", none, [](Bytes &s) { s.resize(2); }},
    };
    Client raw = lab().raw(), udp = lab().udp();
    for (const auto &c : cases) {
        for (Client *mgr : {&raw, &udp}) {
            SCOPED_TRACE(std::string(mgr->ipv4() ? "udp " : "raw ") + c.what);
            auto out = output(lab(), 1);
            const uint16_t seq = mgr->next_sequence();
            mgr->set_sequence(uint16_t(seq + 1));
            tav::Header h = request_header(mgr->ipv4(), tav::kOpDiscovery, seq);
            if (!mgr->ipv4()) h.target_mac = ap_mac(1);  // ap2 stays out of it
            Bytes plain = plaintext(h);
            c.plain(plain);
            auto sealed = mgr->cipher().encode(plain).value();
            Bytes payload{uint8_t(sealed.selector >> 8), uint8_t(sealed.selector)};
            payload.insert(payload.end(), sealed.ciphertext.begin(), sealed.ciphertext.end());
            c.sealed(payload);
            ASSERT_TRUE(mgr->transport().send(payload));
            const size_t controls = mgr->ipv4() ? 1 : 2;
            EXPECT_EQ(replies_before_control(*mgr, seq, tav::kOpDiscovery, controls).size(),
                      c.answered ? 1u : 0u);
            EXPECT_EQ(out(), "");
        }
    }
    EXPECT_TRUE(lab().serving(1));
}

TEST_F(Dispatch, RawReplyIsBroadcastFromTheDeviceMac) {
    Client tap = lab().raw();
    const uint16_t seq = lab().raw(kOwnMac).send_request(tav::kOpDiscovery, {}).value();
    auto m = tap.wait_for([&](const Message &m) { return m.src_mac == ap_mac(1) && is_reply_to(m, seq, tav::kOpDiscovery); },
                          kLong);
    ASSERT_TRUE(m) << "no reply";
    EXPECT_EQ(m->dst_mac, tav::kBroadcastMac);
    EXPECT_EQ(m->header->target_mac, kOwnMac);
}

// A datagram names its sender by the MAC the access point's ARP cache holds
// for it: zero without an entry (the manager never asks for the access
// point's address, so the access point learns nothing from ARP by itself).
TEST_F(Dispatch, UdpReplyGoesBackToTheSenderNamedFromTheArpCache) {
    const std::string forget = "ip neigh del 192.0.2.1 dev br0 2>/dev/null; ip neigh flush dev br0";
    Finally restore([&] {
        lab().on_ap(1, forget);
        lab().exec("mgr", "ip neigh del 192.0.2.11 dev eth0");
    });
    const std::string pin = "ip neigh replace 192.0.2.11 lladdr 02:7a:76:00:00:01 dev eth0";
    ASSERT_EQ(lab().exec("mgr", pin + " nud permanent").status, 0);
    const std::pair<std::string, Mac> cases[] = {
        {forget, tav::kZeroMac},
        {forget + "; ip neigh replace 192.0.2.1 lladdr 02:7a:76:00:00:fe dev br0 nud permanent",
         kMgrMac},
        {forget, tav::kZeroMac},  // forgotten again: zero again
    };
    Client mgr = lab().udp();
    for (const auto &[setup, target_mac] : cases) {
        SCOPED_TRACE(setup);
        ASSERT_EQ(lab().on_ap(1, setup).status, 0);
        auto replies = mgr.request(tav::kOpDiscovery, {}, kLong, 1);
        ASSERT_TRUE(replies && replies->size() == 1) << "no reply";
        EXPECT_EQ(replies->front().src_ip, ap_ip(1));
        EXPECT_EQ(replies->front().header->target_mac, target_mac);
    }
}

}  // namespace
}  // namespace e2e
