// Bounds and layouts of the wire format: headers, TLV codec, op-code table.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "proto/wire.h"

namespace {

using namespace tav;

std::vector<uint8_t> encode(const Header &h) {
    std::vector<uint8_t> b(h.size());
    encode_header(h, b.data());
    return b;
}

Header sample(bool ipv4) {
    Header h;
    h.ipv4 = ipv4;
    h.msg_type = ipv4 ? kMsgIpv4Request : kMsgL2Request;
    h.sequence = 0x1234;
    h.op_code = 0x00A1;
    h.target_mac = {0x02, 0x7a, 0x76, 0x00, 0x00, 0x01};
    h.target_ip = {192, 0, 2, 11};
    h.result = 0xFFFD;
    h.version = 5;
    h.body_length = 3;
    return h;
}

TEST(Header, RawFormLayout) {
    auto b = encode(sample(false));
    const std::vector<uint8_t> want{0x7D, 0xFD, 0x12, 0x34, 0x00, 0xA1, 0x02, 0x7a, 0x76,
                                    0x00, 0x00, 0x01, 0xFF, 0xFD, 0x00, 0x05, 0x00, 0x03};
    EXPECT_EQ(b, want);
}

TEST(Header, Ipv4FormLayout) {
    auto b = encode(sample(true));
    const std::vector<uint8_t> want{0xFD, 0xFD, 0x12, 0x34, 0x00, 0xA1, 0x02, 0x7a,
                                    0x76, 0x00, 0x00, 0x01, 192,  0,    2,    11,
                                    0xFF, 0xFD, 0x00, 0x05, 0x00, 0x03};
    EXPECT_EQ(b, want);
}

TEST(Header, RoundTripBothForms) {
    for (bool v4 : {false, true}) {
        Header h = sample(v4);
        auto b = encode(h);
        b.resize(b.size() + h.body_length, 0xEE);
        auto d = decode_header(b);
        ASSERT_TRUE(d) << v4;
        EXPECT_EQ(d->ipv4, v4);
        EXPECT_EQ(d->msg_type, h.msg_type);
        EXPECT_EQ(d->sequence, h.sequence);
        EXPECT_EQ(d->op_code, h.op_code);
        EXPECT_EQ(d->target_mac, h.target_mac);
        if (v4) {
            EXPECT_EQ(d->target_ip, h.target_ip);
        }
        EXPECT_EQ(d->result, h.result);
        EXPECT_EQ(d->version, 5);
        EXPECT_EQ(d->body_length, 3);
    }
}

TEST(Header, LengthBounds) {
    struct Case {
        bool ipv4;
        size_t plain_len;
        uint16_t body_length;
        bool ok;
    };
    const Case cases[] = {
        {false, 17, 0, false},  // shorter than the raw header
        {false, 18, 0, true},   // header only
        {false, 18, 1, false},  // body_length runs past the end
        {false, 20, 2, true},   // body exactly to the end
        {false, 20, 1, true},   // trailing bytes are allowed
        {false, 20, 3, false},
        {true, 21, 0, false},   // shorter than the IPv4 header
        {true, 22, 0, true},
        {true, 22, 1, false},
        {true, 30, 8, true},
        {true, 30, 9, false},
    };
    for (const auto &c : cases) {
        Header h = sample(c.ipv4);
        h.body_length = c.body_length;
        auto b = encode(h);
        b.resize(c.plain_len);
        EXPECT_EQ(decode_header(b).has_value(), c.ok)
            << "ipv4=" << c.ipv4 << " len=" << c.plain_len << " body=" << c.body_length;
    }
}

TEST(Header, FormFollowsMessageType) {
    EXPECT_FALSE(decode_header(std::vector<uint8_t>{0x7D}));
    Header h = sample(true);
    h.body_length = 0;
    auto b = encode(h);
    // Read as the raw form these 22 bytes would claim a body of 0xFFFD
    // bytes; the message type picks the IPv4 form instead.
    EXPECT_FALSE(decode_header(b, false));
    EXPECT_TRUE(decode_header(b)->ipv4);
    for (uint16_t t : {uint16_t(kMsgIpv4Reply), uint16_t(kMsgIpv4Request)})
        EXPECT_TRUE(is_ipv4_form(t));
    for (uint16_t t : {uint16_t(kMsgL2Request), uint16_t(kMsgL2Reply), uint16_t(kMsgAnnounce),
                       uint16_t(kMsgIpv6Request)})
        EXPECT_FALSE(is_ipv4_form(t));
}

TEST(ByteOrder, BigEndianRegardlessOfHost) {
    uint8_t b[8];
    put_be16(b, 0x0102);
    EXPECT_EQ(b[0], 1);
    EXPECT_EQ(b[1], 2);
    put_be32(b, 0x01020304);
    EXPECT_EQ(std::vector<uint8_t>(b, b + 4), (std::vector<uint8_t>{1, 2, 3, 4}));
    put_be64(b, 0x00000002DFDC1C35ull);  // 12345678901
    EXPECT_EQ(std::vector<uint8_t>(b, b + 8),
              (std::vector<uint8_t>{0, 0, 0, 2, 0xDF, 0xDC, 0x1C, 0x35}));
    EXPECT_EQ(get_be64(b), 12345678901ull);
    EXPECT_EQ(get_be32(b + 4), 0xDFDC1C35u);
    EXPECT_EQ(get_be16(b + 4), 0xDFDC);
}

// ---- tlv_add --------------------------------------------------------------

TEST(TlvAdd, LargestRecordFitsOneMoreIsRefused) {
    std::vector<uint8_t> value(65487, 0xAB);
    std::vector<uint8_t> area(kReplyArea + 16, 0x11);
    uint8_t *pos = area.data(), *end = area.data();

    EXPECT_EQ(tlv_add(value.data(), &pos, &end, 7, 65487), 0xFFFF);
    EXPECT_EQ(pos, area.data());
    EXPECT_EQ(end, area.data());
    EXPECT_TRUE(std::all_of(area.begin(), area.end(), [](uint8_t b) { return b == 0x11; }));

    EXPECT_EQ(tlv_add(value.data(), &pos, &end, 7, 65486), 0);
    EXPECT_EQ(end, area.data() + 65490);
    EXPECT_EQ(pos, end);
    EXPECT_EQ(get_be16(area.data()), 7);
    EXPECT_EQ(get_be16(area.data() + 2), 65486);
    EXPECT_EQ(area[4], 0xAB);
    EXPECT_EQ(area[65489], 0xAB);
    EXPECT_EQ(area[65490], 0x11);
}

TEST(TlvAdd, NullArgumentsRefused) {
    uint8_t buf[16] = {};
    uint8_t v = 1;
    uint8_t *pos = buf, *end = buf, *null = nullptr;
    EXPECT_EQ(tlv_add(nullptr, &pos, &end, 1, 1), 0xFFFF);
    EXPECT_EQ(tlv_add(&v, nullptr, &end, 1, 1), 0xFFFF);
    EXPECT_EQ(tlv_add(&v, &pos, nullptr, 1, 1), 0xFFFF);
    EXPECT_EQ(tlv_add(&v, &null, &end, 1, 1), 0xFFFF);
    EXPECT_EQ(tlv_add(&v, &pos, &null, 1, 1), 0xFFFF);
    EXPECT_EQ(end, buf);
    // An empty value still writes its 4-byte head.
    EXPECT_EQ(tlv_add(&v, &pos, &end, 501, 0), 0);
    EXPECT_EQ(end, buf + 4);
    EXPECT_EQ(get_be16(buf), 501);
    EXPECT_EQ(get_be16(buf + 2), 0);
}

// ---- TlvWriter --------------------------------------------------------------

TEST(TlvWriter, NeverWritesPastItsArea) {
    std::vector<uint8_t> buf(32 + 8, 0x5A);  // 8 guard bytes after the area
    TlvWriter w(std::span<uint8_t>(buf).first(32));
    const uint8_t v[16] = {};
    EXPECT_TRUE(w.add(1, v, 10));    // 14
    EXPECT_TRUE(w.add(2, v, 10));    // 28
    EXPECT_FALSE(w.add(3, v, 1));    // 33 > 32
    EXPECT_TRUE(w.add(3, v, 0));     // exactly 32
    EXPECT_FALSE(w.add(4, v, 0));
    EXPECT_EQ(w.size(), 32u);
    EXPECT_TRUE(std::all_of(buf.begin() + 32, buf.end(), [](uint8_t b) { return b == 0x5A; }));
}

TEST(TlvWriter, HonoursReserve) {
    std::vector<uint8_t> buf(20);
    TlvWriter w(buf);
    // 8 + reserve 6 (a closing 501 record) fits in 20 twice? 8+8+6 = 22: no.
    EXPECT_TRUE(w.add_be32(393, 2, 6));
    EXPECT_FALSE(w.add_be32(394, 60000, 6));
    EXPECT_TRUE(w.add_be16(501, 0));   // the reserved room is still there
    EXPECT_TRUE(w.fits(2));            // 14 + 6 = 20
    EXPECT_FALSE(w.fits(3));
    EXPECT_FALSE(w.fits(0, 7));
    EXPECT_EQ(w.size(), 14u);
}

TEST(TlvWriter, TypedValues) {
    std::vector<uint8_t> buf(64);
    TlvWriter w(buf);
    ASSERT_TRUE(w.add_u8(54, 5));
    ASSERT_TRUE(w.add_be16(32, 8080));
    ASSERT_TRUE(w.add_be32(394, 300000));
    ASSERT_TRUE(w.add_text(6, "0.00.037"));
    const std::vector<uint8_t> want{
        0, 54, 0, 1, 5,                                            //
        0, 32, 0, 2, 0x1F, 0x90,                                   //
        0x01, 0x8A, 0, 4, 0x00, 0x04, 0x93, 0xE0,                  //
        0, 6, 0, 9, '0', '.', '0', '0', '.', '0', '3', '7', 0};
    auto got = w.bytes();
    EXPECT_EQ(std::vector<uint8_t>(got.begin(), got.end()), want);
}

// ---- readers ---------------------------------------------------------------

TEST(TlvReader, StopRules) {
    // 54 = 5, then an empty record at the very end (4 bytes).
    const std::vector<uint8_t> body{0, 54, 0, 1, 5, 0x01, 0xF5, 0, 0};
    TlvReader r(body);
    auto a = r.next();
    ASSERT_TRUE(a);
    EXPECT_EQ(a->tag, 54);
    EXPECT_EQ(a->value.size(), 1u);
    EXPECT_EQ(a->value[0], 5);
    EXPECT_FALSE(r.next());  // 4 bytes left: below 5, the walk stops
    EXPECT_EQ(r.rest().size(), 4u);

    ReplyReader rr(body);
    ASSERT_TRUE(rr.next());
    auto b = rr.next();  // replies may end with an empty record
    ASSERT_TRUE(b);
    EXPECT_EQ(b->tag, 501);
    EXPECT_EQ(b->length, 0);
    EXPECT_FALSE(rr.next());
    EXPECT_FALSE(rr.truncated());
}

TEST(TlvReader, LengthPastBodyStops) {
    struct Case {
        std::vector<uint8_t> body;
        size_t records;
    };
    const Case cases[] = {
        {{0, 55, 0, 2, 'a', 0}, 1},           // length + 4 == left: read
        {{0, 55, 0, 3, 'a', 0}, 0},           // length + 4 > left: stop
        {{0, 55, 0, 1, 'a', 0, 56, 0}, 1},    // 4 bytes left after the first
        {{0, 55, 0, 1, 'a', 0, 56, 0, 1}, 1}, // 4 bytes left: stop
        {{0, 55, 0, 1, 'a', 0, 56, 0, 0, 9}, 2},
        {{}, 0},
    };
    for (const auto &c : cases) {
        TlvReader r(c.body);
        size_t n = 0;
        while (r.next()) ++n;
        EXPECT_EQ(n, c.records) << "body of " << c.body.size() << " bytes";
    }
    const std::vector<uint8_t> cut{0, 55, 0, 9, 'a'};
    ReplyReader rr(cut);
    EXPECT_FALSE(rr.next());
    EXPECT_TRUE(rr.truncated());
}

// ---- op codes ----------------------------------------------------------------

TEST(OpCodes, TableOrderAndManagedMode) {
    const uint16_t order[31] = {0x00A0, 0x00A1, 0x00A3, 0x00A4, 0x00AA, 0x00AB, 0x00DA, 0x00D4,
                                0x00E0, 0x00E1, 0x00E3, 0x00E4, 0x00E5, 0x00E6, 0x0100, 0x0101,
                                0x0102, 0x0103, 0x0104, 0x0105, 0x00A5, 0x2003, 0x2004, 0x2005,
                                0x2006, 0x2007, 0x2008, 0x2009, 0x200A, 0x200B, 0x200C};
    ASSERT_EQ(kOpCodes.size(), 31u);
    for (size_t i = 0; i < 31; ++i) EXPECT_EQ(kOpCodes[i].code, order[i]) << "row " << i;

    const uint16_t allowed[] = {0xE6, 0xA1, 0xE0, 0xA3, 0xDA, 0xA5, 0xE1,
                                0xAA, 0xAB, 0x103, 0x2003, 0x2004, 0x2006, 0x2008};
    size_t n_allowed = 0;
    for (const auto &row : kOpCodes) {
        bool want = std::find(std::begin(allowed), std::end(allowed), row.code) != std::end(allowed);
        EXPECT_EQ(row.allowed_when_managed, want) << std::hex << row.code;
        n_allowed += row.allowed_when_managed;
        EXPECT_TRUE(row.handler.starts_with("tav_"));
    }
    EXPECT_EQ(n_allowed, 14u);
    EXPECT_EQ(find_op_code(0x0999), nullptr);
    EXPECT_EQ(find_op_code(0x2005)->handler, "tav_set_ssid_list");
}

TEST(OpCodes, TwentySevenAdvertised) {
    std::vector<uint16_t> adv;
    for (const auto &row : kOpCodes)
        if (is_advertised(row.code)) adv.push_back(row.code);
    ASSERT_EQ(adv.size(), 27u);
    EXPECT_EQ(std::vector<uint16_t>(adv.begin(), adv.begin() + 4),
              (std::vector<uint16_t>{0x00A0, 0x00AA, 0x00AB, 0x00DA}));
    EXPECT_EQ(adv[25], 0x200B);
    EXPECT_EQ(adv[26], 0x200C);
    for (uint16_t c : {0xA1, 0xA3, 0xA4, 0xA5}) EXPECT_FALSE(is_advertised(uint16_t(c)));
    EXPECT_FALSE(is_advertised(0x0999));
    // The answer: 27 records of 6 bytes and the closing 501 of 6.
    EXPECT_EQ(adv.size() * 6 + 6, 168u);
}

}  // namespace
