// SPDX-License-Identifier: ISC
// Bounds and layouts of the wire format: headers, TLV codec, op-code table,
// the wire forms that depend on the op code, authentication codes.
// (Tag look-ups by op code are exercised through tavctl's TAG=VALUE parsing.)
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "proto/auth_codes.h"
#include "proto/tags.h"
#include "proto/wire.h"

namespace {

using namespace tav;
using Bytes = std::vector<uint8_t>;

Header sample(bool ipv4, uint16_t body_length = 3) {
    Header h;
    h.ipv4 = ipv4;
    h.msg_type = ipv4 ? kMsgIpv4Request : kMsgL2Request;
    h.sequence = 0x1234;
    h.op_code = 0x00A1;
    h.target_mac = {0x02, 0x7a, 0x76, 0x00, 0x00, 0x01};
    h.target_ip = {192, 0, 2, 11};
    h.result = 0xFFFD;
    h.version = 5;
    h.body_length = body_length;
    return h;
}

Bytes encode(const Header &h) {
    Bytes b(h.size());
    encode_header(h, b.data());
    return b;
}

TEST(Header, LayoutsAndRoundTrip) {
    const Bytes raw{0x7D, 0xFD, 0x12, 0x34, 0x00, 0xA1, 0x02, 0x7a, 0x76,
                    0x00, 0x00, 0x01, 0xFF, 0xFD, 0x00, 0x05, 0x00, 0x03};
    Bytes v4(raw.begin(), raw.begin() + 12);
    v4[0] = 0xFD;
    v4.insert(v4.end(), {192, 0, 2, 11, 0xFF, 0xFD, 0x00, 0x05, 0x00, 0x03});
    for (bool ipv4 : {false, true}) {
        Header h = sample(ipv4);
        Bytes b = encode(h);
        EXPECT_EQ(b, ipv4 ? v4 : raw);
        b.resize(b.size() + h.body_length, 0xEE);
        auto d = decode_header(b);
        ASSERT_TRUE(d) << ipv4;
        EXPECT_EQ(std::tuple(d->ipv4, d->msg_type, d->sequence, d->op_code, d->target_mac, d->result,
                             d->version, d->body_length),
                  std::tuple(ipv4, h.msg_type, h.sequence, h.op_code, h.target_mac, h.result, 5, 3));
        EXPECT_EQ(d->target_ip, ipv4 ? h.target_ip : decltype(h.target_ip){});
    }
}

TEST(Header, LengthBoundsAndForm) {
    // IPv4 form?, bytes, body_length, accepted
    for (auto [ipv4, len, body, ok] : {std::tuple{false, 17u, 0, false},  // shorter than the raw header
                                       {false, 18u, 0, true}, {false, 18u, 1, false},  // body past the end
                                       {false, 20u, 2, true}, {false, 20u, 1, true},   // trailing bytes allowed
                                       {false, 20u, 3, false}, {true, 21u, 0, false},  // shorter than IPv4's
                                       {true, 22u, 0, true}, {true, 22u, 1, false}, {true, 30u, 8, true},
                                       {true, 30u, 9, false}}) {
        Bytes b = encode(sample(ipv4, uint16_t(body)));
        b.resize(len);
        EXPECT_EQ(decode_header(b).has_value(), ok) << "ipv4=" << ipv4 << " len=" << len << " body=" << body;
    }
    EXPECT_FALSE(decode_header(Bytes{0x7D}));
    // Read as the raw form these 22 bytes would claim a body of 0xFFFD bytes;
    // the message type picks the IPv4 form instead.
    Bytes b = encode(sample(true, 0));
    EXPECT_FALSE(decode_header(b, false));
    EXPECT_TRUE(decode_header(b)->ipv4);
    for (uint16_t t : {kMsgIpv4Reply, kMsgIpv4Request, kMsgL2Request, kMsgL2Reply, kMsgAnnounce, kMsgIpv6Request})
        EXPECT_EQ(is_ipv4_form(t), t == kMsgIpv4Reply || t == kMsgIpv4Request) << t;
}

TEST(TlvAdd, BoundsAndNullArguments) {
    Bytes value(65487, 0xAB), area(kReplyArea + 16, 0x11);
    uint8_t *pos = area.data(), *end = area.data(), *null = nullptr;
    EXPECT_EQ(tlv_add(value.data(), &pos, &end, 7, 65487), 0xFFFF);
    EXPECT_EQ(tlv_add(nullptr, &pos, &end, 1, 1), 0xFFFF);
    EXPECT_EQ(tlv_add(value.data(), nullptr, &end, 1, 1), 0xFFFF);
    EXPECT_EQ(tlv_add(value.data(), &pos, nullptr, 1, 1), 0xFFFF);
    EXPECT_EQ(tlv_add(value.data(), &null, &end, 1, 1), 0xFFFF);
    EXPECT_EQ(tlv_add(value.data(), &pos, &null, 1, 1), 0xFFFF);
    EXPECT_TRUE(pos == area.data() && end == area.data());
    EXPECT_TRUE(std::all_of(area.begin(), area.end(), [](uint8_t b) { return b == 0x11; }));

    EXPECT_EQ(tlv_add(value.data(), &pos, &end, 7, 65486), 0);
    EXPECT_TRUE(pos == end && end == area.data() + 65490);
    EXPECT_EQ(Bytes(area.begin(), area.begin() + 5), (Bytes{0, 7, 0xFF, 0xCE, 0xAB}));
    EXPECT_EQ(area[65489], 0xAB);
    EXPECT_EQ(area[65490], 0x11);
    // An empty value still writes its 4-byte head.
    pos = end = area.data();
    EXPECT_EQ(tlv_add(value.data(), &pos, &end, 501, 0), 0);
    EXPECT_EQ(end, area.data() + 4);
    EXPECT_EQ(Bytes(area.begin(), area.begin() + 5), (Bytes{0x01, 0xF5, 0, 0, 0xAB}));
}

TEST(TlvWriter, NeverPastItsAreaHonoursReserveTypedValues) {
    Bytes buf(32 + 8, 0x5A);  // 8 guard bytes after the area
    TlvWriter w(std::span<uint8_t>(buf).first(32));
    const uint8_t v[16] = {};
    EXPECT_TRUE(w.add(1, v, 10));  // 14
    EXPECT_TRUE(w.add(2, v, 10));  // 28
    EXPECT_FALSE(w.add(3, v, 1));  // 33 > 32
    EXPECT_FALSE(w.add(3, v, 0, 1));
    EXPECT_TRUE(w.add(3, v, 0));   // exactly 32
    EXPECT_FALSE(w.add(4, v, 0));
    EXPECT_EQ(w.size(), 32u);
    EXPECT_TRUE(std::all_of(buf.begin() + 32, buf.end(), [](uint8_t b) { return b == 0x5A; }));

    Bytes area(32);
    TlvWriter t(area);
    ASSERT_TRUE(t.add_u8(54, 5) && t.add_be16(32, 8080) && t.add_be32(394, 300000, 6));
    EXPECT_FALSE(t.add_text(6, "0.0", 6));  // 19 + 8 + 6 kept for a closing record > 32
    EXPECT_TRUE(t.add_text(6, "0.0"));
    EXPECT_TRUE(t.fits(1));
    EXPECT_FALSE(t.fits(2));
    const Bytes want{0,    54,   0, 1, 5,    0,    32,   0,    2,   0x1F, 0x90, 0x01, 0x8A, 0,
                     4,    0x00, 0x04, 0x93, 0xE0, 0, 6, 0, 4, '0', '.', '0', 0};
    EXPECT_EQ(Bytes(t.bytes().begin(), t.bytes().end()), want);
    uint8_t b8[8];
    put_be64(b8, 12345678901ull);
    EXPECT_EQ(Bytes(b8, b8 + 8), (Bytes{0, 0, 0, 2, 0xDF, 0xDC, 0x1C, 0x35}));
    EXPECT_EQ(std::tuple(get_be64(b8), get_be32(b8 + 4), get_be16(b8 + 4)),
              std::tuple(12345678901ull, 0xDFDC1C35u, uint16_t(0xDFDC)));
}

TEST(TlvReader, StopRules) {
    // body; records TlvReader reads; records ReplyReader reads; bytes left over after ReplyReader
    for (auto [body, n_tlv, n_reply, left_over] : {
             std::tuple{Bytes{0, 55, 0, 2, 'a', 0}, 1, 1, false},  // length + 4 == left: read
             {Bytes{0, 55, 0, 3, 'a', 0}, 0, 0, true},             // length + 4 > left: stop
             {Bytes{0, 55, 0, 1, 'a', 0, 56, 0}, 1, 1, true},      // 3 bytes left
             {Bytes{0, 55, 0, 1, 'a', 1, 0xF5, 0, 0}, 1, 2, false},  // 4 left: only a reply may end so
             {Bytes{0, 55, 0, 1, 'a', 0, 56, 0, 0, 9}, 2, 2, true}, {Bytes{}, 0, 0, false}}) {
        TlvReader r(body);
        ReplyReader rr(body);
        int n = 0, m = 0;
        while (r.next()) ++n;
        while (rr.next()) ++m;
        EXPECT_EQ(std::tuple(n, m, rr.truncated()), std::tuple(n_tlv, n_reply, left_over)) << body.size() << " bytes";
    }
    const Bytes body{0, 55, 0, 2, 'a', 0, 9};
    auto t = TlvReader(body).next().value();
    EXPECT_EQ(std::tuple(t.tag, t.length, t.value.data(), t.value.size()), std::tuple(55, 2, &body[4], 2u));
}

TEST(OpCodes, TableOrderManagedModeAndTheTwentySevenAdvertised) {
    const uint16_t order[31] = {0x00A0, 0x00A1, 0x00A3, 0x00A4, 0x00AA, 0x00AB, 0x00DA, 0x00D4,
                                0x00E0, 0x00E1, 0x00E3, 0x00E4, 0x00E5, 0x00E6, 0x0100, 0x0101,
                                0x0102, 0x0103, 0x0104, 0x0105, 0x00A5, 0x2003, 0x2004, 0x2005,
                                0x2006, 0x2007, 0x2008, 0x2009, 0x200A, 0x200B, 0x200C};
    const uint16_t managed[] = {0xE6, 0xA1, 0xE0, 0xA3, 0xDA, 0xA5, 0xE1, 0xAA, 0xAB, 0x103, 0x2003, 0x2004, 0x2006, 0x2008};
    const uint16_t silent[] = {0xA1, 0xA3, 0xA4, 0xA5};  // never advertised
    ASSERT_EQ(kOpCodes.size(), 31u);
    size_t advertised = 0;
    for (size_t i = 0; i < 31; ++i) {
        const uint16_t code = order[i];
        EXPECT_EQ(kOpCodes[i].code, code) << "row " << i;
        EXPECT_EQ(kOpCodes[i].allowed_when_managed, std::ranges::count(managed, code) == 1) << std::hex << code;
        EXPECT_EQ(is_advertised(code), std::ranges::count(silent, code) == 0) << std::hex << code;
        EXPECT_EQ(find_op_code(code), &kOpCodes[i]);
        advertised += is_advertised(code);
    }
    EXPECT_EQ(advertised, 27u);
    EXPECT_EQ(find_op_code(0x0999), nullptr);
    EXPECT_FALSE(is_advertised(0x0999));
    EXPECT_EQ(find_op_code(0x2005)->handler, "tav_set_ssid_list");
}

// Written out from the protocol's own tables: the mask's byte order in the
// SNMP set reply, the texts that go without NUL.
TEST(TagForms, ByOpCode) {
    const struct {
        uint16_t tag, op;
        TagKind kind;
        bool nul;
    } rows[] = {
        {0x018B, kOpSetSnmp, TagKind::kU32Le, true},     {0x018B, kOpSetSsidList, TagKind::kU32, true},
        {45, kOpGetSnmp, TagKind::kText, false},          {0x0187, kOpSetDeviceInfo, TagKind::kText, false},
        {0x0187, kOpFirmwareUpgrade, TagKind::kText, true}, {52, kOpUserVerification, TagKind::kU32Le, true},
    };
    for (const auto &r : rows)
        EXPECT_EQ(tag_form(r.tag, r.op), (TagForm{true, r.kind, r.nul})) << r.tag << " in " << r.op;
}

TEST(AuthCodes, ProtocolExamples) {
    const AuthCode rows[] = {
        {0, "open", Credential::None, 0},       {1, "wpa-psk", Credential::Psk, 3},
        {2, "wpa-eap", Credential::Radius, 2},  {5, "enhanced-open", Credential::None, 15},
        {10, "wpa3-psk", Credential::Psk, 13},  {12, "wpa3-eap", Credential::Radius, 17},
    };
    for (const AuthCode &r : rows) {
        EXPECT_EQ(kAuthCodes[r.code].name, r.name);
        EXPECT_EQ(credential_of(r.code), r.credential) << r.name;
        EXPECT_EQ(stored_auth(r.code), r.stored) << r.name;
        EXPECT_EQ(auth_code_of(r.stored), r.code) << r.name;
    }
    EXPECT_EQ(auth_code_of(1), 0);  // stored numbers outside the table read as open
    EXPECT_EQ(stored_auth(13), -1);
}

}  // namespace
