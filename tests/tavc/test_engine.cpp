// SPDX-License-Identifier: ISC
// Unit tests of the daemon's engine on the in-process store and the recorder: what only
// the engine can show. Discovery, dispatch, verification and start-up are e2e tests.
#include <set>

#include "platform/command.h"
#include "tavc/credentials.h"
#include "tavc/identity.h"
#include "tavc/reply.h"
#include "tavc/transport.h"
#include "tavc/tlv_walk.h"
#include "tests/tavc/handler_fixture.h"

using namespace fixture;

// Integer encodings reach the wire byte for byte in the lab suites (SSID list, counters, set
// replies); here the bounds of the reply area.
TEST(Reply, AreaIsBoundedAndListsKeepRoomForTheirClosingRecord) {
    static uint8_t buf[kReplyBodySize + 16];
    Reply whole(buf);
    int added = 0;
    while (whole.add(tav::kTagSupportedFunction, uint16_t{0x1234})) ++added;
    EXPECT_EQ(added, 65490 / 6);
    whole.finish(0);
    uint16_t n;
    std::memcpy(&n, buf, 2);
    EXPECT_EQ(n, 65490 / 6 * 6);
    for (size_t i = kReplyBodySize; i < sizeof buf; ++i) ASSERT_EQ(buf[i], 0) << i;
    Reply r(buf);
    r.close_with(2);
    size_t groups = 0;
    while (r.fits(2 * Reply::tlv_size(4))) {  // a group of two 4-byte records, whole or not at all
        ASSERT_TRUE(r.add(tav::kTagSetStatus, uint32_t{0}) && r.add(tav::kTagWaitTime, uint32_t{0}));
        ++groups;
    }
    EXPECT_EQ(groups, (tav::kReplyArea - 6) / 16) << "the list stops only when full";
    while (r.add(tav::kTagSupportedFunction, uint16_t{0})) {}
    EXPECT_EQ(r.size(), tav::kReplyArea - 6) << "every record leaves the closing record's room";
    EXPECT_TRUE(r.close(tav::kTagEolOrCnt, uint16_t{0xEEEE}));
    EXPECT_EQ(r.size(), tav::kReplyArea);
    EXPECT_FALSE(r.add(tav::kTagSupportedFunction, uint16_t{0}));
}

namespace {

template <class R, class D>
Step walk(const D &d, const Bytes &b, R *req) { return tlv_walk(d, b.data(), uint16_t(b.size()), req); }

struct WalkReq { char text[8]; uint8_t u8; uint16_t be16; char cut[16]; int unknown_seen; };

Step count_unknown(void *req, uint16_t, const uint8_t *, uint16_t) {
    static_cast<WalkReq *>(req)->unknown_seen++;
    return Step::go_on();
}

constexpr TlvRule kRules[] = {
    tlv_precedence(),
    tlv_text(tav::kTagUserName, Take::Declared, 0, TAVC_FIELD(WalkReq, text)),
    tlv_u8(tav::kTagTimeType, TAVC_FIELD(WalkReq, u8)),
    tlv_be16(tav::kTagTimeZoneId, TAVC_FIELD(WalkReq, be16)),
    tlv_text(tav::kTagNtpServer, Take::DeclaredMax, 3, TAVC_FIELD(WalkReq, cut)),
};
constexpr TlvRequest<WalkReq> kWalk{kRules, Take::Declared, NoParamCheck{}, PrecedenceRefusal{0x1234}, NoAuth{},
                                    count_unknown};

}  // namespace

TEST_F(Engine, WalkAppliesItsRules) {
    const Bytes abc{'a', 'b', 'c'};
    const struct { const char *name; Bytes body; const char *text; uint8_t u8; uint16_t be16; const char *cut;
                   int unknown_seen; } cases[] = {
        {"five bytes are walked", tlv(300, {7}) + tlv(0x77, {1}), "", 7, 0, "", 1},
        {"stops below five bytes", tlv(300, {7}) + tlv(0x77, {}), "", 7, 0, "", 0},
        {"stops when length runs one byte past body", tlv(300, {7}) + tlv(55, abc, 4), "", 7, 0, "", 0},
        {"length ending exactly at the body end", tlv(55, abc, 3), "abc", 0, 0, "", 0},
        {"stops when a fixed value runs past body", tlv(303, {0x12}), "", 0, 0, "", 0},
        {"fixed size whatever the length says", tlv(303, {0x12, 0x34}, 0) + tlv(0x77, {}), "", 0, 0x1234, "", 0},
        {"tag 54 with length 2 moves by 5", Bytes{0, 0x36, 0, 2, 5, 0x01, 0x2C, 0, 1, 9}, "", 9, 0, "", 0},
        {"text cut to capacity minus one", text(55, "abcdefghij"), "abcdefg", 0, 0, "", 0},
        {"text ends at its first NUL", tlv(55, {'a', 'b', 0, 'c', 'd'}), "ab", 0, 0, "", 0},
        {"later record replaces earlier", text(55, "long1") + text(55, "x"), "x", 0, 0, "", 0},
        {"cut value: the rest is the next record", tlv(36, {'a', 'b', 'c', 0x01, 0x2C, 0, 1, 4}), "", 4, 0, "abc", 0},
        {"unknown tag skipped by its length", tlv(0x99, abc) + tlv(300, {6}), "", 6, 0, "", 1},
    };
    for (const auto &c : cases) {
        WalkReq req{};
        EXPECT_FALSE(walk(kWalk, c.body, &req).ended()) << c.name;
        EXPECT_EQ(std::tuple(std::string(req.text), req.u8, req.be16, std::string(req.cut), req.unknown_seen),
                  std::tuple(c.text, c.u8, c.be16, c.cut, c.unknown_seen)) << c.name;
    }
}

TEST(Command, RequestValuesStayOneLiteralArgumentNumbersAndLimits) {
    const std::pair<const char *, std::string> cases[] = {
        {"fw.bin", "fw.bin"}, {"a/b_c-1.2:3+4@5=6,7%8", "a/b_c-1.2:3+4@5=6,7%8"}, {"", "''"},
        {"fw.bin; reboot", "'fw.bin; reboot'"}, {"$(reboot)", "'$(reboot)'"}, {"`id`", "'`id`'"},
        {"it's", "'it'\\''s'"}, {"a\nb", "'a\nb'"}, {"-x y", "'-x y'"},
    };
    for (const auto &[value, quoted] : cases) {
        Command cmd("tftp -f %s -r %s", "192.0.2.1", value);
        EXPECT_EQ(std::tuple(cmd.ok(), std::string(cmd.text())), std::tuple(true, "tftp -f 192.0.2.1 -r " + quoted)) << value;
    }
    EXPECT_STREQ(Command("x %u%% %d", 7u, -3).text(), "x 7% -3");
    // 10 bytes with the NUL: fits a limit of 10, not of 9; an unfit command never runs.
    EXPECT_TRUE(Command(10, "echo %s", "abcd").ok());
    Command cut(9, "echo %s", "abcd");
    EXPECT_EQ(std::tuple(cut.ok(), std::string(cut.text()), cut.system()), std::tuple(false, "", -1));
    EXPECT_FALSE(Command("echo %s", std::string(2000, 'a').c_str()).ok());
    // "'abc'" and its NUL need 6 bytes; a refusal leaves an empty text.
    char out[8];
    EXPECT_EQ(shell_quote(out, 5, "abc"), -1);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(shell_quote(out, 6, "abc"), 5);
}

namespace {

struct GroupRec { uint8_t index; char name[8]; };
struct GroupReq { char user_name[65], password[65]; GroupRec recs[3]; uint16_t count; };
constexpr TlvRule kGroupRules[] = {
    tlv_text(tav::kTagUserName, Take::DeclaredMax, 65, TAVC_FIELD(GroupReq, user_name)),
    tlv_text(tav::kTagPassword, Take::DeclaredMax, 65, TAVC_FIELD(GroupReq, password)),
    tlv_group_start(tav::kTagSsidIndex, Take::Fixed, 1, TAVC_FIELD(GroupRec, index)),
    tlv_in_group(tlv_text(tav::kTagSsidName, Take::DeclaredMax, 4, TAVC_FIELD(GroupRec, name))),
};
constexpr auto kGroups =
    TlvRequest<GroupReq>{kGroupRules, Take::Declared, ParamRefusal{0xFFFF}, PrecedenceRefusal{0xFFFD}, AuthRefusal{64},
                         tlv_credentials(TAVC_FIELD(GroupReq, user_name), TAVC_FIELD(GroupReq, password))}
        .with_groups(TAVC_GROUPS(GroupReq, recs, count), GroupRefusal{0xFFFD});

}  // namespace

TEST_F(Engine, GroupsRecordsOpenInOrderAndFillTheLatest) {
    GroupReq req{};
    EXPECT_FALSE(walk(kGroups, tlv(927, str("lost")) + u8(926, 5) + tlv(927, str("abcd")) + u8(926, 6) + text(927, "x"),
                      &req).ended());
    ASSERT_EQ(req.count, 2);
    EXPECT_EQ(std::tuple(req.recs[0].index, std::string(req.recs[0].name), req.recs[1].index, std::string(req.recs[1].name)),
              std::tuple(5, "abcd", 6, "x"));
    // A fourth record finds the pool full: the walk ends with the group refusal.
    const Bytes three = u8(926, 1) + u8(926, 2) + u8(926, 3);
    EXPECT_FALSE(walk(kGroups, three, &(req = GroupReq{})).ended());
    EXPECT_EQ(walk(kGroups, three + u8(926, 4), &(req = GroupReq{})), Step::end(0xFFFD));
    // Credentials through the description: right ones go on, wrong ones refuse.
    for (auto [body, step] : {std::pair{admin(), Step::go_on()}, {text(55, "admin") + text(56, "secreT"), Step::end(64)}})
        EXPECT_EQ(tlv_request_prologue(kGroups, body.data(), uint16_t(body.size()), reply_, &req), step);
}

// Scenarios between managers through user verification are end-to-end tests; here the
// registry's own limits.
using Registry = Engine;
static int size() {
    int n = 0;
    for (tav_server *s = tav_server_list; s; s = s->next) ++n;
    return n;
}
// Precedence requests in order: op code, precedence, sender, result.
static void expect_precedence(std::initializer_list<std::tuple<uint16_t, uint8_t, tav_server *, int>> steps) {
    for (auto [op, prec, s, rc] : steps) EXPECT_EQ(check_server_precedence(op, prec, s), rc) << op << " " << +prec;
}

TEST_F(Registry, PerOpCodeOneRecordPerSenderAndFullEntryTables) {
    tav_server a = sender(0xA), b = sender(0xB), zero{};
    expect_precedence({{0xE1, 9, &a, 0}, {0xE5, 1, &b, 0} /* another op code */, {0xE1, 8, &b, -1},
                       {0xE1, 9, &b, 0} /* equal is no refusal */});
    EXPECT_EQ(size(), 2);
    free_tav_server();
    expect_precedence({{0xE1, 5, &zero, 0}, {0xE1, 3, &zero, -1}});
    EXPECT_EQ(size(), 1) << "zero MACs share a record";
    free_tav_server();
    // A full entry table stores nothing new.
    for (uint16_t op = 1; op <= 31; ++op) ASSERT_EQ(check_server_precedence(op, 1, &a), 0);
    // A's 9 must not have been stored; others still refuse A; A's own entries still count.
    expect_precedence({{0xE1, 9, &a, 0}, {0xE1, 1, &b, 0}, {0xE1, 5, &b, 0}, {0xE1, 3, &a, -1}, {31, 0, &b, -1}});
}

TEST_F(Registry, AtMost1024Managers) {
    for (int i = 0; i < 1024; ++i) {
        tav_server s = sender(uint16_t(0x1000 + i));
        ASSERT_EQ(check_server_precedence(0x10, 1, &s), 0);
    }
    EXPECT_EQ(size(), 1024);
    tav_server x = sender(0xA), y = sender(0xB), known = *tav_server_list;
    // The 1025th is not remembered; known managers still count.
    expect_precedence({{0xE1, 200, &x, 0}, {0xE1, 100, &y, 0}, {0x10, 0, &known, -1}});
    EXPECT_EQ(size(), 1024);
    free_tav_server();
    expect_precedence({{0xE1, 1, &x, 0}});
    EXPECT_EQ(size(), 1) << "released records are reused";
    // Refilled from released records and the untouched rest: no record twice.
    for (int i = 0; i < 1100; ++i) {
        tav_server s = sender(uint16_t(0x3000 + i));
        check_server_precedence(0x10, 1, &s);
    }
    std::set<const tav_server *> records;
    for (tav_server *s = tav_server_list; s; s = s->next) records.insert(s);
    EXPECT_EQ(std::pair(size(), records.size()), std::pair(1024, size_t(1024)));
}

// Verification results on the wire are end-to-end tests; here the edges of the comparison:
// prefixes, format characters and the stored capacities.
TEST_F(Engine, AuthMeansExactEquality) {
    const std::string n63(63, 'n'), p31(31, 'p');
    const struct { std::string stored_name, stored_pass, name, pass; int rc; } cases[] = {
        {"admin", "secret", "admin", "secret", 0}, {"admin", "secret", "admin", "secre", -1},
        {"admin", "secret", "admin", "secret!", -1}, {"", "", "", "", 0}, {"admin", "50%d%s%%", "admin", "50%d%s%%", 0},
        // The name is read with 64 bytes (63 characters), the password with 32.
        {n63 + "X", p31 + "Y", n63, p31, 0}, {n63 + "X", p31 + "Y", n63 + "X", p31, -1},
        {n63 + "X", p31 + "Y", n63, p31 + "Y", -1},
    };
    for (const auto &c : cases) {
        put({{"/sys/user:1/name", c.stored_name}, {"/sys/user:1/password", c.stored_pass}});
        EXPECT_EQ(tav_authentic(c.name.c_str(), c.pass.c_str()), c.rc) << c.name << "/" << c.pass;
    }
    EXPECT_EQ(std::tuple(tav_authentic(nullptr, ""), tav_authentic("", nullptr)), std::tuple(-1, -1));
}

TEST(Identity, MacTakesTwoCharactersOfSixFieldsDateAndTimeByPosition) {
    const std::pair<const char *, tav::Mac> cases[] = {
        {"02:7a:76:00:00:01", {0x02, 0x7a, 0x76, 0x00, 0x00, 0x01}}, {"0:1:2:a:B:f", {0x0, 0x1, 0x2, 0xa, 0xb, 0xf}},
        {"aabb:cc:dd:ee:ff:11:22", {0xaa, 0xcc, 0xdd, 0xee, 0xff, 0x11}},
        {"FF:FF:FF:FF:FF:FF", {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}},
        {"zz:1g:01:02:03:04", {0x00, 0x01, 0x01, 0x02, 0x03, 0x04}},
        {"12:34", {0x12, 0x34, 0xEE, 0xEE, 0xEE, 0xEE}},  // fewer fields: rest untouched
    };
    for (const auto &[text, mac] : cases) {
        char buf[64];
        std::strcpy(buf, text);
        tav::Mac out;
        out.fill(0xEE);
        EXPECT_EQ(mac_string2hex(buf, out.data()), 0);
        EXPECT_EQ(out, mac) << text;
    }
    uint8_t out[6];
    char text[] = "01:02:03:04:05:06";
    EXPECT_EQ(std::tuple(mac_string2hex(nullptr, out), mac_string2hex(text, nullptr)), std::tuple(0, 0));
    // Dates and times: a positional copy of their pieces.
    const struct { const char *date, *time, *text; } dates[] = {
        {"11/16/2026", "12:34:56", "20261116123456"}, {"01/02/1999", "", "19990102"},
        {"", "07:08:09", ""},               // the year is missing, so the text is empty
        {"1/5/2026", "12:34:56", "20261"},  // a one-digit month brings its NUL along
        {"11/16/2026/9", "1:2:3:4", "202611161"}, {"111/222/33333", "444:555:666", "33331122445566"},
    };
    for (const auto &c : dates) {
        char dt[16] = {};
        convert_date_time(dt, c.date, c.time);
        EXPECT_STREQ(dt, c.text) << c.date << " " << c.time;
    }
    char dt[16] = "99999999999999";
    convert_date_time(dt, "", "");
    EXPECT_STREQ(dt, "99999999999999") << "missing pieces leave positions as they were";
}

TEST_F(Engine, IdentityWizardPageRetiredOnceCredentialsTimeAndCountryAreSet) {
    const struct { const char *first_init, *password, *time, *country_code, *country_changed, *after; } cases[] = {
        {"1", "1", "1", "840", "0", "0"}, {"1", "1", "1", "376", "0", "0"}, {"1", "1", "1", "276", "0", "1"},
        {"1", "1", "1", "276", "1", "0"}, {"1", "0", "1", "840", "1", "1"}, {"1", "1", "0", "840", "1", "1"},
        {"0", "1", "1", "840", "1", "0"}, {"1", "256", "1", "840", "1", "1"},  // only the low byte counts
    };
    for (const auto &c : cases) {
        put({{"/sys/first_init", c.first_init}, {"/tavclient/password_changed", c.password},
             {"/tavclient/time_changed", c.time}, {"/runtime/layout/countrycode", c.country_code},
             {"/tavclient/country_changed", c.country_changed}});
        wizard_page_check();
        EXPECT_EQ(stored("/sys/first_init"), c.after) << c.password << c.time << " " << c.country_code << c.country_changed;
    }
}

// Cipher binding; what then leaves the device is an e2e test.
namespace {
int g_size;
int sized(uint16_t) { return g_size; }
int sized_dec(const uint8_t *, uint16_t) { return g_size; }
int failing_enc(int, tav_buf *, tav_buf *, uint16_t *) { return 7; }
int failing_dec(uint16_t, tav_buf *, tav_buf *) { return 9; }
int overlong_enc(int, tav_buf *, tav_buf *out, uint16_t *) { out->length = uint16_t(out->length + 1); return 0; }
int fill_enc(int, tav_buf *, tav_buf *out, uint16_t *sel) { std::memset(out->data, 0xAB, out->length); *sel = 1; return 0; }
int fill_dec(uint16_t, tav_buf *, tav_buf *out) { std::memset(out->data, 0xCD, out->length); return 0; }
}  // namespace

TEST_F(Engine, TransportEncodeAndDecodeLimitsAndFailures) {
    uint8_t buf[kTavEncodedMax];
    uint16_t n = 0;
    const uint8_t plain[4] = {1, 2, 3, 4};
    tav_get_encrypted_msg_len = sized;
    tav_encode = fill_enc;
    for (auto [size, message] : {std::pair<int, const char *>{65507, ""}, {65508, "tav_encode_buf, message too long\n"},
                                 {-1, "tav_encode_buf, calloc failed\n"}}) {
        g_size = size;
        EXPECT_EQ(tav_encode_buf(plain, 4, buf, &n), *message ? -1 : 0) << size;
        EXPECT_EQ(out(), message);
    }
    EXPECT_EQ(n, 2 + 65507);
    EXPECT_EQ(tav::get_be16(buf), 1) << "the selector leads";
    EXPECT_EQ(std::tuple(tav_encode_buf(nullptr, 4, buf, &n), tav_encode_buf(plain, 4, nullptr, &n)),
              std::tuple(-1, -1));
    g_size = 4;
    tav_encode = failing_enc;
    EXPECT_EQ(tav_encode_buf(plain, 4, buf, &n), -1);
    EXPECT_EQ(out(), "tav_encode_buf, tav_encode failed:7\n");
    tav_encode = overlong_enc;
    EXPECT_EQ(tav_encode_buf(plain, 4, buf, &n), -1) << "more than the room it was given";
    EXPECT_EQ(out(), "tav_encode_buf, message too long\n");

    tav_get_decrypted_msg_len = sized_dec;
    tav_decode = fill_dec;
    static uint8_t plain_out[tav::kMaxPlainLen + 64];
    const uint8_t cipher[8] = {};
    for (auto [size, rc] : {std::pair{1024, 0}, {1025, -1}, {-1, -1}, {0, 0}}) {
        std::memset(plain_out, 0x11, sizeof plain_out);
        g_size = size;
        EXPECT_EQ(tav_decode_buf(1, cipher, sizeof cipher, plain_out, &n), rc) << size;
        if (rc == 0) { EXPECT_EQ(n, size); }
        EXPECT_EQ(plain_out[tav::kMaxPlainLen], 0x11) << "never written past 1024 bytes";
    }
    tav_decode = failing_dec;
    g_size = 10;
    EXPECT_EQ(std::tuple(tav_decode_buf(1, cipher, sizeof cipher, plain_out, &n), tav_decode_buf(1, nullptr, 0, plain_out, &n),
                         tav_decode_buf(1, cipher, 0, nullptr, &n)),
              std::tuple(-1, -1, -1));
    EXPECT_EQ(out(), "") << "dropped without a message";
}
