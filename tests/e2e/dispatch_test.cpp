// What the dispatcher does with each message before a handler sees it: op
// codes locked while the management agent runs, messages it drops without a
// word, and input that is cut, overlong or altered.
#include "tests/e2e/e2e.h"

namespace e2e {
namespace {

constexpr const char *kRunning = "/qm5_agent/running";
constexpr const char *kNotice = "NOTICE:operation is not allowed in current mode";
constexpr uint16_t kUnknownOp = 0x0999;

class Dispatch : public LabSuite<Dispatch> {
  public:
    static constexpr const char *kCode = "disp";
    static constexpr int kAps = 1;
};

// Selector and ciphertext of a plaintext, as the transport carries them.
std::vector<uint8_t> seal(const Client &c, std::span<const uint8_t> plain) {
    auto s = c.cipher().encode(plain).value();
    std::vector<uint8_t> payload(tav::kSelectorLen);
    tav::put_be16(payload.data(), s.selector);
    payload.insert(payload.end(), s.ciphertext.begin(), s.ciphertext.end());
    return payload;
}

TEST_F(Dispatch, LockedOpCodesAreRefusedWithANoticeWhileTheAgentRuns) {
    Finally restore([&] { lab().db_set(1, kRunning, "0"); });
    ASSERT_TRUE(lab().db_set(1, kRunning, "1"));
    struct Case {
        uint16_t op;
        bool udp;
        std::optional<uint16_t> result;  // empty: refused
    } cases[] = {
        {tav::kOpDiscovery, false, 0},
        {tav::kOpSupportedFunctions, false, 0},
        {tav::kOpUserVerification, false, 0x40},
        {tav::kOpSupportedFunctions, true, 0},
        {tav::kOpReport, false, {}},
        {tav::kOpHello, false, {}},
        {tav::kOpBye, false, {}},
        {tav::kOpChangeIdPassword, false, {}},
        {tav::kOpGetDateTime, false, {}},
        {tav::kOpHello, true, {}},
    };
    Client raw = lab().raw();
    Client udp = lab().udp(1);
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.udp ? "udp " : "raw ") + tav::client::format_op_code(c.op));
        Client &mgr = c.udp ? udp : raw;
        Output out(lab(), 1);
        const uint16_t seq = send_to(mgr, c.op, c.udp ? tav::kZeroMac : ap_mac(1), kAnyIp);
        const auto replies = replies_before_control(mgr, seq, c.op);
        ASSERT_EQ(replies.size(), c.result ? 1u : 0u);
        if (c.result) {
            EXPECT_EQ(replies.front().result(), *c.result);
        }
        EXPECT_EQ(out.fresh(), c.result ? "" : std::string(kNotice) + "\n");
    }

    // Stopped agent: everything goes again.
    ASSERT_TRUE(lab().db_set(1, kRunning, "0"));
    Output out(lab(), 1);
    for (uint16_t op : {tav::kOpReport, tav::kOpHello, tav::kOpBye}) {
        auto reply = raw.request_one(op, {}, 3s);
        ASSERT_TRUE(reply) << reply.error();
        EXPECT_EQ(reply->result(), 0);
        EXPECT_EQ(reply->header->body_length, 0);
    }
    EXPECT_EQ(out.fresh(), "");
}

TEST_F(Dispatch, MessagesThatAreNoRequestsForUsAreDroppedQuietly) {
    const Mac stranger{0x02, 0x7a, 0x76, 0x00, 0x00, 0x44};
    struct Case {
        const char *what;
        bool udp;
        uint16_t msg_type, op;
        Mac target;
        const char *output;
    } cases[] = {
        {"unknown op code", false, tav::kMsgL2Request, kUnknownOp, ap_mac(1), ""},
        {"unknown op code", true, tav::kMsgIpv4Request, kUnknownOp, tav::kZeroMac, ""},
        {"IPv6 request", false, tav::kMsgIpv6Request, tav::kOpDiscovery, ap_mac(1), ""},
        {"IPv6 request", true, tav::kMsgIpv6Request, tav::kOpDiscovery, ap_mac(1), ""},
        {"raw reply", false, tav::kMsgL2Reply, tav::kOpDiscovery, ap_mac(1), ""},
        {"IPv4 reply", true, tav::kMsgIpv4Reply, tav::kOpDiscovery, tav::kZeroMac, ""},
        {"announcement", false, tav::kMsgAnnounce, tav::kOpHello, tav::kZeroMac, ""},
        {"type 0x0EEE", false, 0x0EEE, tav::kOpDiscovery, ap_mac(1), ""},
        {"type 0x0FFF", false, 0x0FFF, tav::kOpDiscovery, ap_mac(1), ""},
        {"type 0xFFFF", true, 0xFFFF, tav::kOpDiscovery, ap_mac(1), ""},
        {"wrong target", false, tav::kMsgL2Request, tav::kOpDiscovery, stranger, ""},
        {"wrong target", true, tav::kMsgIpv4Request, tav::kOpDiscovery, stranger, ""},
        {"unknown type", false, 0x1234, tav::kOpDiscovery, ap_mac(1), "Unknow message_type !\n"},
        {"unknown type", true, 0x1234, tav::kOpDiscovery, ap_mac(1), "Unknow message_type !\n"},
    };
    Client raw = lab().raw();
    Client udp = lab().udp(1);
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.udp ? "udp " : "raw ") + c.what);
        Client &mgr = c.udp ? udp : raw;
        Output out(lab(), 1);
        tav::Header h = request_header(tav::is_ipv4_form(c.msg_type), c.op, take_sequence(mgr));
        h.msg_type = c.msg_type;
        h.target_mac = c.target;
        ASSERT_TRUE(mgr.send_plaintext(plaintext(h, {})));
        EXPECT_TRUE(replies_before_control(mgr, h.sequence, c.op).empty());
        EXPECT_EQ(out.fresh(), c.output);
    }
}

TEST_F(Dispatch, MalformedInputIsDroppedOrAnsweredAndTheDaemonGoesOn) {
    using Make = std::function<std::vector<uint8_t>(const Client &, uint16_t seq)>;
    auto sealed = [](std::function<std::vector<uint8_t>(bool ipv4, uint16_t seq)> plain) -> Make {
        return [plain](const Client &c, uint16_t seq) { return seal(c, plain(c.ipv4(), seq)); };
    };
    // A request for `op` with its header cut or its body length overstated.
    auto cut = [](uint16_t op, size_t keep) {
        return [op, keep](bool ipv4, uint16_t seq) {
            auto p = plaintext(request_header(ipv4, op, seq), {});
            p.resize(keep);
            return p;
        };
    };
    auto overstated = [](uint16_t op, uint16_t extra, TlvList tlvs) {
        return [=](bool ipv4, uint16_t seq) {
            auto p = plaintext(request_header(ipv4, op, seq), tlvs);
            const size_t body = p.size() - request_header(ipv4, op, seq).size();
            return plaintext(request_header(ipv4, op, seq), tlvs, uint16_t(body + extra));
        };
    };
    // Verification whose password record claims more bytes than the body holds.
    auto long_password = [](bool ipv4, uint16_t seq) {
        TlvList tlvs{tav::client::tlv_text(55, "admin"), tav::client::tlv_text(56, "admin")};
        auto p = plaintext(request_header(ipv4, tav::kOpUserVerification, seq), tlvs);
        tav::put_be16(p.data() + p.size() - 8, 7);
        return p;
    };
    auto stub_body = [](bool ipv4, uint16_t seq) {
        auto h = request_header(ipv4, tav::kOpUserVerification, seq);
        auto p = plaintext(h, {}, 4);
        p.insert(p.end(), {0x00, 0x37, 0x00, 0x06});
        return p;
    };
    // A discovery padded by an ignored record to `total` plaintext bytes.
    auto padded = [](size_t total) {
        return [total](bool ipv4, uint16_t seq) {
            auto h = request_header(ipv4, tav::kOpDiscovery, seq);
            const size_t fill = total - h.size() - tav::kTlvHeadLen;
            return plaintext(h, {tav::client::tlv_bytes(999, std::vector<uint8_t>(fill, 0x5a))});
        };
    };
    auto altered = [](size_t at_from_end, bool selector) -> Make {
        return [=](const Client &c, uint16_t seq) {
            auto p = seal(c, plaintext(request_header(c.ipv4(), tav::kOpDiscovery, seq), {}));
            if (selector)
                tav::put_be16(p.data(), uint16_t(tav::get_be16(p.data()) + 1));
            else
                p[p.size() - 1 - at_from_end] ^= 0x20;
            return p;
        };
    };
    auto bytes = [](std::vector<uint8_t> b) -> Make {
        return [b](const Client &, uint16_t) { return b; };
    };

    struct Case {
        const char *what;
        uint16_t op;
        Make make;
        std::optional<uint16_t> result;  // empty: no reply
    } cases[] = {
        {"header cut to 10 bytes", tav::kOpDiscovery, sealed(cut(tav::kOpDiscovery, 10)), {}},
        {"header one byte short",
         tav::kOpDiscovery,
         sealed([&](bool ipv4, uint16_t seq) {
             return cut(tav::kOpDiscovery, request_header(ipv4, 0, 0).size() - 1)(ipv4, seq);
         }),
         {}},
        {"body length past the end",
         tav::kOpDiscovery,
         sealed(overstated(tav::kOpDiscovery, 1, {})),
         {}},
        {"body length past the end of a body",
         tav::kOpUserVerification,
         sealed(overstated(tav::kOpUserVerification, 2, {tav::client::tlv_text(55, "admin")})),
         {}},
        {"record past the body", tav::kOpUserVerification, sealed(long_password), 0x40},
        {"body below one record", tav::kOpUserVerification, sealed(stub_body), 0x40},
        {"body that discovery ignores", tav::kOpDiscovery, sealed(padded(300)), 0},
        {"largest plaintext", tav::kOpDiscovery, sealed(padded(tav::kMaxPlainLen)), 0},
        {"plaintext one byte too long",
         tav::kOpDiscovery,
         sealed(padded(tav::kMaxPlainLen + 1)),
         {}},
        {"ciphertext byte flipped", tav::kOpDiscovery, altered(5, false), {}},
        {"check byte flipped", tav::kOpDiscovery, altered(0, false), {}},
        {"selector changed", tav::kOpDiscovery, altered(0, true), {}},
        {"empty payload", tav::kOpDiscovery, bytes({}), {}},
        {"selector only, cut", tav::kOpDiscovery, bytes({0x12}), {}},
        {"selector without ciphertext", tav::kOpDiscovery, bytes({0x12, 0x34}), {}},
    };
    Client raw = lab().raw();
    Client udp = lab().udp(1);
    for (const auto &c : cases) {
        for (Client *mgr : {&raw, &udp}) {
            SCOPED_TRACE(std::string(mgr->ipv4() ? "udp " : "raw ") + c.what);
            Output out(lab(), 1);
            const uint16_t seq = take_sequence(*mgr);
            ASSERT_TRUE(mgr->transport().send(c.make(*mgr, seq)));
            const auto replies = replies_before_control(*mgr, seq, c.op);
            ASSERT_EQ(replies.size(), c.result ? 1u : 0u);
            if (c.result) {
                EXPECT_EQ(replies.front().result(), *c.result);
            }
            EXPECT_EQ(out.fresh(), "");
        }
    }
    EXPECT_TRUE(lab().daemon_alive(1));
}

}  // namespace
}  // namespace e2e
