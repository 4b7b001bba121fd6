// The engine's building blocks: TLV bounds, the shared request walk, shell
// quoting, the manager registry and the credential check.
#include <cstring>
#include <iterator>

#include "engine_fixture.h"
#include "tavc/proc.h"
#include "tavc/reply.h"
#include "tavc/tlv_walk.h"

namespace {

// A TLV record as given (declared length = value size unless set).
Bytes tlv(uint16_t tag, Bytes value, int declared = -1) {
    Bytes b{uint8_t(tag >> 8), uint8_t(tag), 0, 0};
    tav::put_be16(b.data() + 2, uint16_t(declared < 0 ? value.size() : size_t(declared)));
    b.insert(b.end(), value.begin(), value.end());
    return b;
}
Bytes text(uint16_t tag, const char *s) {
    return tlv(tag, Bytes(s, s + strlen(s) + 1));
}
Bytes operator+(Bytes a, const Bytes &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

tav_server sender(uint16_t last) {
    tav_server s{};  // MAC 02:00:00:00:hi:lo
    s.mac[0] = 0x02, s.mac[4] = uint8_t(last >> 8), s.mac[5] = uint8_t(last);
    return s;
}

}  // namespace

TEST(TlvAdd, BoundedByTheReplyArea) {
    static uint8_t value[65490], area[tav::kReplyArea + 8];
    const std::pair<uint16_t, uint16_t> cases[] = {
        {0, 0}, {65486, 0}, {65487, 0xFFFF}, {65535, 0xFFFF}};
    for (auto [length, rc] : cases) {
        std::memset(area, 0xEE, sizeof area);
        uint8_t *pos = area, *end = area;
        EXPECT_EQ(tav::tlv_add(value, &pos, &end, 7, length), rc) << length;
        EXPECT_EQ(end, rc ? area : area + length + 4) << length;
        EXPECT_EQ(pos, end);
        EXPECT_EQ(tav::get_be16(area + 2), rc ? 0xEEEE : length) << "refused: nothing written";
    }
    uint8_t *pos = area, *end = area;
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
    EXPECT_FALSE(r.add_u8(1, 0));
    r.finish(0);
    uint16_t n;
    std::memcpy(&n, buf, 2);
    EXPECT_EQ(n, 65490);
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
constexpr TlvRequest kWalk = {kRules,  std::size(kRules), Take::Declared, kNoCode,      0x1234,
                              kNoCode, kNoField,          kNoField,       count_unknown};

}  // namespace

class Walk : public Engine {};

TEST_F(Walk, AppliesTheWalkRule) {
    const Bytes abc{'a', 'b', 'c'};
    const struct {
        const char *name;
        Bytes body;
        const char *text;
        uint8_t u8;
        uint16_t be16;
        const char *cut;
        int unknown_seen;
    } cases[] = {
        {"five bytes are walked", tlv(300, {7}) + tlv(0x77, {1}), "", 7, 0, "", 1},
        {"stops below five bytes", tlv(300, {7}) + tlv(0x77, {}), "", 7, 0, "", 0},
        {"stops when length runs past body", tlv(300, {7}) + tlv(55, abc, 10) + tlv(0x77, {1}), "",
         7, 0, "", 0},
        {"stops when length runs one byte past body", tlv(300, {7}) + tlv(55, abc, 4), "", 7, 0, "",
         0},
        {"length ending exactly at the body end", tlv(55, abc, 3), "abc", 0, 0, "", 0},
        {"stops when a fixed value runs past body", tlv(303, {0x12}), "", 0, 0, "", 0},
        {"fixed size whatever the length says", tlv(303, {0x12, 0x34}, 0) + tlv(0x77, {}), "", 0,
         0x1234, "", 0},
        {"tag 54 with length 2 moves by 5",
         Bytes{0x00, 0x36, 0x00, 0x02, 0x05, 0x01, 0x2C, 0x00, 0x01, 0x09}, "", 9, 0, "", 0},
        {"text cut to capacity minus one", text(55, "abcdefghij"), "abcdefg", 0, 0, "", 0},
        {"text ends at its first NUL", tlv(55, {'a', 'b', 0, 'c', 'd'}), "ab", 0, 0, "", 0},
        {"later record replaces earlier", text(55, "long1") + text(55, "x"), "x", 0, 0, "", 0},
        {"cut value: the rest is the next record",
         tlv(36, {'a', 'b', 'c', 0x01, 0x2C, 0x00, 0x01, 0x04}), "", 4, 0, "abc", 0},
        {"unknown tag skipped by its length", tlv(0x99, abc) + tlv(300, {6}), "", 6, 0, "", 1},
    };
    for (const auto &c : cases) {
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
    tav_server other = sender(9);
    check_server_precedence(0x00E1, 9, &other);
    const Bytes body = tlv(54, {3}) + tlv(300, {7});
    WalkReq req{};
    EXPECT_EQ(tlv_walk(kWalk, body.data(), uint16_t(body.size()), &req), 0x1234);
    EXPECT_EQ(req.u8, 0) << "nothing after the refusal is walked";
}

TEST(ShellQuote, QuotesAndRefusesWhatDoesNotFit) {
    char out[32];
    const std::pair<const char *, const char *> cases[] = {
        {"", "''"}, {"a b;c", "'a b;c'"}, {"it's", "'it'\\''s'"}, {"$(x)`y`", "'$(x)`y`'"}};
    for (auto [in, quoted] : cases) {
        EXPECT_EQ(shell_quote(out, sizeof out, in), int(strlen(quoted)));
        EXPECT_STREQ(out, quoted);
    }
    EXPECT_EQ(shell_quote(out, 4, "abc"), -1);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(shell_quote(out, 5, "abc"), -1);
    EXPECT_EQ(shell_quote(out, 6, "abc"), 5);
}

// Scenarios between managers through user verification are end-to-end
// tests; here the registry's own limits.
class Registry : public Engine {
   protected:
    static int size() {
        int n = 0;
        for (tav_server *s = tav_server_list; s; s = s->next) ++n;
        return n;
    }
};

TEST_F(Registry, PerOpCodeAndOneRecordPerSender) {
    tav_server a = sender(0xA), b = sender(0xB), zero{};
    EXPECT_EQ(check_server_precedence(0xE1, 9, &a), 0);
    EXPECT_EQ(check_server_precedence(0xE5, 1, &b), 0) << "another op code";
    EXPECT_EQ(check_server_precedence(0xE1, 8, &b), -1);
    EXPECT_EQ(check_server_precedence(0xE1, 9, &b), 0) << "equal is no refusal";
    EXPECT_EQ(size(), 2);
    free_tav_server();
    EXPECT_EQ(check_server_precedence(0xE1, 5, &zero), 0);
    EXPECT_EQ(check_server_precedence(0xE1, 3, &zero), -1);
    EXPECT_EQ(size(), 1) << "zero MACs share a record";
}

TEST_F(Registry, FullEntryTableStoresNothingNew) {
    tav_server a = sender(0xA), b = sender(0xB);
    for (uint16_t op = 1; op <= 31; ++op) ASSERT_EQ(check_server_precedence(op, 1, &a), 0);
    EXPECT_EQ(check_server_precedence(0xE1, 9, &a), 0);
    EXPECT_EQ(check_server_precedence(0xE1, 1, &b), 0) << "A's 9 must not have been stored";
    EXPECT_EQ(check_server_precedence(0xE1, 5, &b), 0);
    EXPECT_EQ(check_server_precedence(0xE1, 3, &a), -1) << "others still refuse A";
    EXPECT_EQ(check_server_precedence(31, 0, &b), -1) << "A's own entries still count";
}

TEST_F(Registry, AtMost1024Managers) {
    for (int i = 0; i < kTavServerMax; ++i) {
        tav_server s = sender(uint16_t(0x1000 + i));
        ASSERT_EQ(check_server_precedence(0x10, 1, &s), 0);
    }
    EXPECT_EQ(size(), kTavServerMax);
    tav_server x = sender(0xA), y = sender(0xB), known = *tav_server_list;
    EXPECT_EQ(check_server_precedence(0xE1, 200, &x), 0);
    EXPECT_EQ(size(), kTavServerMax);
    EXPECT_EQ(check_server_precedence(0xE1, 100, &y), 0) << "the 1025th was not remembered";
    EXPECT_EQ(check_server_precedence(0x10, 0, &known), -1) << "known managers still count";
    free_tav_server();
    EXPECT_EQ(check_server_precedence(0xE1, 1, &x), 0);
    EXPECT_EQ(size(), 1) << "released records are reused";
}

// Verification results on the wire are end-to-end tests; here the edges of
// the comparison: exact equality within the stored texts' capacities.
class Auth : public Engine {};

TEST_F(Auth, AuthenticMeansExactEquality) {
    const std::string n63(63, 'n'), p31(31, 'p');
    const struct {
        std::string stored_name, stored_pass, name, pass;
        int rc;
    } cases[] = {
        {"admin", "secret", "admin", "secret", 0},
        {"admin", "secret", "Admin", "secret", -1},
        {"admin", "secret", "admin", "secre", -1},
        {"admin", "secret", "admin", "secret!", -1},
        {"admin", "secret", "admi", "secret", -1},
        {"admin", "secret", "", "", -1},
        {"admin", "", "admin", "", 0},
        {"", "", "", "", 0},
        {"admin", "50%d%s%%", "admin", "50%d%s%%", 0},
        {"admin", "p\xe4ss", "admin", "p\xe4ss", 0},
        // The name is read with 64 bytes (63 characters), the password with 32.
        {n63 + "X", p31 + "Y", n63, p31, 0},
        {n63 + "X", p31 + "Y", n63 + "X", p31, -1},
        {n63 + "X", p31 + "Y", n63, p31 + "Y", -1},
    };
    for (const auto &c : cases) {
        lrgbin_store::put("/sys/user:1/name", c.stored_name);
        lrgbin_store::put("/sys/user:1/password", c.stored_pass);
        EXPECT_EQ(tav_authentic(c.name.c_str(), c.pass.c_str()), c.rc) << c.name << "/" << c.pass;
    }
    EXPECT_EQ(tav_authentic(nullptr, ""), -1);
    EXPECT_EQ(tav_authentic("", nullptr), -1);
}
