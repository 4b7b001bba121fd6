// TLV append bounds, the reply-area bound, the shared request walk, and the
// shell quoting that guards request values.
#include <cstring>
#include <iterator>

#include "engine_fixture.h"
#include "tavc/proc.h"
#include "tavc/reply.h"
#include "tavc/tlv_walk.h"

TEST(TlvAdd, LimitsAndNullPointers) {
    Bytes area(tav::kReplyArea + 8, 0xEE);
    static uint8_t value[65490];
    struct Case {
        uint16_t length;
        uint16_t rc;
    } cases[] = {{0, 0}, {65486, 0}, {65487, 0xFFFF}, {65535, 0xFFFF}};
    for (const Case &c : cases) {
        std::fill(area.begin(), area.end(), 0xEE);
        uint8_t *pos = area.data(), *end = area.data();
        EXPECT_EQ(tav::tlv_add(value, &pos, &end, 7, c.length), c.rc) << c.length;
        if (c.rc == 0) {
            EXPECT_EQ(end, area.data() + c.length + 4);
            EXPECT_EQ(pos, end);
            EXPECT_EQ(tav::get_be16(area.data() + 2), c.length);
        } else {
            EXPECT_EQ(end, area.data());
            EXPECT_EQ(area[0], 0xEE) << "refused record must write nothing";
        }
    }
    uint8_t *pos = area.data(), *end = area.data();
    EXPECT_EQ(tav::tlv_add(nullptr, &pos, &end, 1, 1), 0xFFFF);
    EXPECT_EQ(tav::tlv_add(value, nullptr, &end, 1, 1), 0xFFFF);
    EXPECT_EQ(tav::tlv_add(value, &pos, nullptr, 1, 1), 0xFFFF);
}

TEST(Reply, WholeAreaIsBoundedAndListsKeepRoomForTheirEnd) {
    static uint8_t buf[kReplyBodySize + 16];
    std::memset(buf, 0, sizeof buf);
    Reply r(buf);
    int added = 0;
    while (r.add_be16(500, 0x1234, 6)) ++added;
    EXPECT_TRUE(r.add_be16(501, 0)) << "closing record must still fit";
    EXPECT_EQ(added, (65490 - 6) / 6);
    EXPECT_EQ(r.finish(0), 0);
    uint16_t n;
    std::memcpy(&n, buf, 2);
    EXPECT_EQ(n, 65490);
    EXPECT_FALSE(r.add_u8(1, 0));
    for (size_t i = kReplyBodySize; i < sizeof buf; ++i) ASSERT_EQ(buf[i], 0) << i;
}

namespace {

struct WalkReq {
    char text[8];
    uint8_t u8;
    uint16_t be16;
    char cut[16];
    int unknown_seen;
};

int count_unknown(void *req, uint16_t, const uint8_t *, uint16_t) {
    static_cast<WalkReq *>(req)->unknown_seen++;
    return kGoOn;
}

constexpr TlvRule kRules[] = {
    tlv_precedence(),
    tlv_text(55, Take::Declared, 0, TAVC_FIELD(WalkReq, text)),
    tlv_u8(300, TAVC_FIELD(WalkReq, u8)),
    tlv_be16(303, TAVC_FIELD(WalkReq, be16)),
    tlv_text(36, Take::DeclaredMax, 3, TAVC_FIELD(WalkReq, cut)),
};
constexpr TlvRequest kWalk = {kRules, std::size(kRules), Take::Declared, kNoCode, 0x1234,
                              kNoCode, kNoField, kNoField, count_unknown};

struct WalkCase {
    const char *name;
    Bytes body;
    const char *text;
    uint8_t u8;
    uint16_t be16;
    const char *cut;
    int unknown_seen;
};

}  // namespace

class Walk : public Engine {};

TEST_F(Walk, AppliesTheWalkRule) {
    const WalkCase cases[] = {
        {"five bytes are walked", cat({tlv(300, {7}), tlv(0x77, {1})}), "", 7, 0, "", 1},
        {"stops below five bytes", cat({tlv(300, {7}), tlv(0x77, {})}), "", 7, 0, "", 0},
        {"stops when length runs past body",
         cat({tlv(300, {7}), tlv(55, {'a', 'b', 'c'}, 10), tlv(0x77, {1})}), "", 7, 0, "", 0},
        {"stops when length runs one byte past body", cat({tlv(300, {7}), tlv(55, {'a', 'b', 'c'}, 4)}),
         "", 7, 0, "", 0},
        {"length ending exactly at the body end", tlv(55, {'a', 'b', 'c'}, 3), "abc", 0, 0, "", 0},
        {"stops when a fixed value runs past body", tlv(303, {0x12}), "", 0, 0, "", 0},
        {"fixed size whatever the length says", cat({tlv(303, {0x12, 0x34}, 0), tlv(0x77, {})}),
         "", 0, 0x1234, "", 0},
        {"tag 54 with length 2 moves by 5",
         Bytes{0x00, 0x36, 0x00, 0x02, 0x05, 0x01, 0x2C, 0x00, 0x01, 0x09}, "", 9, 0, "", 0},
        {"text cut to capacity minus one", tlv_text(55, "abcdefghij"), "abcdefg", 0, 0, "", 0},
        {"text ends at its first NUL", tlv(55, {'a', 'b', 0, 'c', 'd'}), "ab", 0, 0, "", 0},
        {"later record replaces earlier", cat({tlv_text(55, "long1"), tlv_text(55, "x")}), "x",
         0, 0, "", 0},
        {"cut value: the rest is the next record",
         tlv(36, {'a', 'b', 'c', 0x01, 0x2C, 0x00, 0x01, 0x04}), "", 4, 0, "abc", 0},
        {"unknown tag skipped by its length",
         cat({tlv(0x99, {1, 2, 3}), tlv(300, {6})}), "", 6, 0, "", 1},
    };
    for (const WalkCase &c : cases) {
        WalkReq req{};
        EXPECT_EQ(tlv_walk(kWalk, c.body.data(), uint16_t(c.body.size()), &req), kGoOn) << c.name;
        EXPECT_STREQ(req.text, c.text) << c.name;
        EXPECT_EQ(req.u8, c.u8) << c.name;
        EXPECT_EQ(req.be16, c.be16) << c.name;
        EXPECT_STREQ(req.cut, c.cut) << c.name;
        EXPECT_EQ(req.unknown_seen, c.unknown_seen) << c.name;
    }
}

TEST_F(Walk, PrecedenceRefusalEndsTheWalkWithTheDescribedCode) {
    tav_tmp_server->functions[0].op_code = 0x00E1;
    tav_server other{};
    std::memcpy(other.mac, kDeviceMac.data(), 6);
    check_server_precedence(0x00E1, 9, &other);
    Bytes body = cat({tlv(54, {3}), tlv(300, {7})});
    WalkReq req{};
    EXPECT_EQ(tlv_walk(kWalk, body.data(), uint16_t(body.size()), &req), 0x1234);
    EXPECT_EQ(req.u8, 0) << "nothing after the refusal is walked";
}

TEST(ShellQuote, QuotesAndRefusesWhatDoesNotFit) {
    char out[32];
    struct Case {
        const char *in;
        const char *quoted;
    } cases[] = {{"", "''"}, {"a b;c", "'a b;c'"}, {"it's", "'it'\\''s'"}, {"$(x)`y`", "'$(x)`y`'"}};
    for (const Case &c : cases) {
        EXPECT_EQ(shell_quote(out, sizeof out, c.in), int(strlen(c.quoted)));
        EXPECT_STREQ(out, c.quoted);
    }
    EXPECT_EQ(shell_quote(out, 4, "abc"), -1);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(shell_quote(out, 5, "abc"), -1);
    EXPECT_EQ(shell_quote(out, 6, "abc"), 5);
}
