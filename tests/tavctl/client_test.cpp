// The client library against a stand-in device on loopback: cipher binding,
// request building, reply matching, kept messages, error texts.
#include <gtest/gtest.h>
#include <unistd.h>

#include "fake_device.h"
#include "tools/client/client.h"

namespace {

using namespace tav;
using namespace tav::client;
using namespace std::chrono_literals;
using test::FakeDevice;
using test::make_reply;

Options udp_options(uint16_t port) {
    Options o;
    o.udp = "127.0.0.1";
    o.port = port;
    o.cipher = TEST_CIPHER;
    o.sequence = 0x4242;
    return o;
}

TEST(Cipher, LoadErrorsNameTheCause) {
    auto missing = Cipher::load("/nonexistent/TAV_Auth.so");
    ASSERT_FALSE(missing);
    EXPECT_NE(missing.error().find("/nonexistent/TAV_Auth.so"), std::string::npos);
    EXPECT_NE(missing.error().find("No such file"), std::string::npos) << missing.error();

    auto no_symbols = Cipher::load("libm.so.6");  // loads, but is no cipher
    ASSERT_FALSE(no_symbols);
    EXPECT_NE(no_symbols.error().find("TAV_encode"), std::string::npos) << no_symbols.error();
    EXPECT_THROW(Client(Options::raw("lo", "", "/nonexistent.so")), ClientError);
}

TEST(Cipher, RoundTripAndTamper) {
    auto c = Cipher::load(TEST_CIPHER).value();
    const std::vector<uint8_t> plain{1, 2, 3, 4, 5};
    auto s = c.encode(plain).value();
    EXPECT_EQ(s.ciphertext.size(), plain.size() + 1);
    EXPECT_EQ(c.decode(s.selector, s.ciphertext).value(), plain);
    EXPECT_FALSE(c.decode(uint16_t(s.selector + 1), s.ciphertext));  // wrong selector
    auto cut = s.ciphertext;
    cut.pop_back();
    EXPECT_FALSE(c.decode(s.selector, cut));
}

TEST(BuildRequest, BothHeaderForms) {
    const Mac mac{2, 0x7a, 0x76, 0, 0, 1};
    auto raw = build_request(false, 7, kOpReboot, mac, {}, {tlv_u32(kTagDelayTime, 30)});
    ASSERT_EQ(raw.size(), 18u + 8u);
    auto h = decode_header(raw).value();
    EXPECT_EQ(h.msg_type, kMsgL2Request);
    EXPECT_EQ(h.sequence, 7);
    EXPECT_EQ(h.target_mac, mac);
    EXPECT_EQ(h.version, 5);
    EXPECT_EQ(h.body_length, 8);
    EXPECT_EQ(get_be16(raw.data() + 18), kTagDelayTime);

    auto v4 = build_request(true, 8, kOpDiscovery, kZeroMac, {192, 0, 2, 11}, {});
    ASSERT_EQ(v4.size(), 22u);
    auto h4 = decode_header(v4).value();
    EXPECT_EQ(h4.msg_type, kMsgIpv4Request);
    EXPECT_EQ(h4.target_ip, (std::array<uint8_t, 4>{192, 0, 2, 11}));
    EXPECT_EQ(h4.body_length, 0);
}

TEST(Client, RequestCollectsOnlyMatchingReplies) {
    FakeDevice dev(TEST_CIPHER, [](const Message &req) {
        return std::vector<std::vector<uint8_t>>{
            make_reply(req, 0, {}, 1),                          // other sequence
            make_reply(req, 0, {tlv_text(kTagVendor, "Quelbo"), tlv_u16(kTagWebPort, 80)}),
        };
    });
    Client c(udp_options(dev.port()));
    auto replies = c.request(kOpDiscovery, {}, 300ms).value();
    ASSERT_EQ(replies.size(), 1u);
    const Message &m = replies[0];
    EXPECT_EQ(m.msg_type(), kMsgIpv4Reply);
    EXPECT_EQ(m.header->sequence, 0x4242);
    EXPECT_EQ(m.text(kTagVendor), "Quelbo");
    EXPECT_EQ(m.u16(kTagWebPort), 80);
    EXPECT_FALSE(m.u8(kTagWebPort));  // wrong size
    EXPECT_EQ(m.src_port, dev.port());
    EXPECT_EQ(c.next_sequence(), 0x4243);

    // The device saw the IPv4 form with the default wildcard target.
    auto seen = dev.requests();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].header->msg_type, kMsgIpv4Request);
    EXPECT_EQ(seen[0].header->target_mac, kZeroMac);
    EXPECT_EQ(seen[0].header->target_ip, (std::array<uint8_t, 4>{}));

    // The stray reply was kept, not lost.
    auto rest = c.receive_all(50ms);
    ASSERT_EQ(rest.size(), 1u);
    EXPECT_EQ(rest[0].header->sequence, 0x4243);
}

TEST(Client, RequestTlvsReachTheDeviceAndMaxRepliesStopsEarly) {
    FakeDevice dev(TEST_CIPHER, [](const Message &req) {
        return std::vector<std::vector<uint8_t>>{make_reply(req, 64, {}), make_reply(req, 0, {})};
    });
    Options o = udp_options(dev.port());
    o.target_ip = std::array<uint8_t, 4>{127, 0, 0, 1};
    Client c(o);
    auto start = Clock::now();
    auto r = c.request_one(kOpUserVerification,
                           {tlv_u8(kTagServerPrecedence, 5), tlv_text(kTagUserName, "admin")}, 2s)
                 .value();
    EXPECT_LT(Clock::now() - start, 1500ms);  // did not wait out the window
    EXPECT_EQ(r.result(), 64);
    auto seen = dev.requests();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].header->target_ip, (std::array<uint8_t, 4>{127, 0, 0, 1}));
    ASSERT_EQ(seen[0].tlvs.size(), 2u);
    EXPECT_EQ(seen[0].u8(kTagServerPrecedence), 5);
    EXPECT_EQ(seen[0].text(kTagUserName), "admin");
}

TEST(Client, SilenceAndAnnouncements) {
    FakeDevice dev(TEST_CIPHER, [](const Message &req) {
        if (req.op_code() != kOpHello) return std::vector<std::vector<uint8_t>>{};
        // An announcement instead of a reply.
        auto a = make_reply(req, 0, {});
        put_be16(a.data(), kMsgAnnounce);
        return std::vector<std::vector<uint8_t>>{a, {1, 2, 3}};  // and a short plaintext
    });
    Client c(udp_options(dev.port()));
    auto none = c.request_one(kOpDiscovery, {}, 100ms);
    ASSERT_FALSE(none);
    EXPECT_NE(none.error().find("no reply"), std::string::npos);

    ASSERT_TRUE(c.request(kOpHello, {}, 100ms).value().empty());
    auto all = c.receive_all(50ms);
    ASSERT_EQ(all.size(), 2u);
    EXPECT_TRUE(all[0].is_announcement());
    EXPECT_FALSE(all[1].header);  // raw plaintext still exposed
    EXPECT_EQ(all[1].plaintext, (std::vector<uint8_t>{1, 2, 3}));
    EXPECT_EQ(c.undecodable(), 1u);
}

TEST(Client, PathErrors) {
    auto both = [] {
        auto o = Options::raw("lo", "", TEST_CIPHER);
        o.udp = "127.0.0.1";
        return Client::open(o);
    }();
    EXPECT_FALSE(both);
    auto no_if = Client::open(Options::raw("tavnoif0", "", TEST_CIPHER));
    ASSERT_FALSE(no_if);
    EXPECT_NE(no_if.error().find("no such network interface \"tavnoif0\""), std::string::npos);
    auto bad_ip = Client::open(Options::over_udp("192.0.2", "", TEST_CIPHER));
    ASSERT_FALSE(bad_ip);
    EXPECT_NE(bad_ip.error().find("not an IPv4 address"), std::string::npos);
    auto no_ns = Client::open(Options::over_udp("127.0.0.1", "tav-no-such-ns", TEST_CIPHER));
    ASSERT_FALSE(no_ns);
    EXPECT_NE(no_ns.error().find("network namespace"), std::string::npos);
}

// Raw Ethernet needs CAP_NET_RAW; loopback keeps the frames on this host.
TEST(RawTransport, RequestAndReplyOverLoopback) {
    if (geteuid() != 0) GTEST_SKIP() << "raw sockets need root";
    auto dev = RawTransport::open("lo").value();
    Options o = Options::raw("lo", "", TEST_CIPHER);
    o.sequence = 0x0101;
    o.source_mac = Mac{0x02, 0x7a, 0x76, 0x00, 0x00, 0xaa};  // a second manager
    Client c(o);
    EXPECT_EQ(c.local_mac(), *o.source_mac);
    ASSERT_TRUE(c.send_request(kOpBye, {}));

    auto cipher = Cipher::load(TEST_CIPHER).value();
    auto deadline = Clock::now() + 1s;
    std::optional<Message> req;
    while (auto d = dev->receive(deadline)) {
        auto plain = cipher.decode(get_be16(d->payload.data()),
                                   std::span(d->payload).subspan(2));
        if (!plain) continue;
        auto m = parse_message(*plain);
        m.src_mac = d->src_mac;
        if (m.header && m.header->msg_type == kMsgL2Request && m.header->sequence == 0x0101) {
            req = m;
            break;
        }
    }
    ASSERT_TRUE(req);
    EXPECT_EQ(req->header->target_mac, kBroadcastMac);
    EXPECT_EQ(req->src_mac, *o.source_mac);
    // Answer as a device: broadcast, addressed to the requester's MAC.
    auto reply = build_request(false, 0x0101, kOpBye, c.local_mac(), {}, {});
    put_be16(reply.data(), kMsgL2Reply);
    auto sealed = cipher.encode(reply).value();
    std::vector<uint8_t> payload(2);
    put_be16(payload.data(), sealed.selector);
    payload.insert(payload.end(), sealed.ciphertext.begin(), sealed.ciphertext.end());
    ASSERT_TRUE(dev->send(payload));

    auto replies = c.collect(0x0101, kOpBye, 1s, 1);
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].msg_type(), kMsgL2Reply);
}

}  // namespace
