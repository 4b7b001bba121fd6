// SPDX-License-Identifier: ISC
// Administration handlers through the recorder and the in-process store: base64, the time-zone
// table, composed commands, launch order, walk sizes and the exact reply bytes (refusals: e2e).
#include "tests/tavc/handler_fixture.h"
#include "util/base64.h"

namespace {

using namespace fixture;

TEST(Base64, DecodeSkipsForeignBytesAndStopsAtThePadGroup) {
    const struct { const char *in, *out; } cases[] = {  // out nullptr: fails
        {"QUJD", "ABC"},        {"QU JD", "ABC"},     {"Q\nU\tJ\rD!", "ABC"},
        {"QQ==", "A"},          {"QUI=", "AB"},       {"QQ==QUJD", "A"},
        {"Q=Q=", "@"},          {"QUJDQUJD", "ABCABC"}, {"Q===", nullptr},
        {"====", nullptr},      {"QUJ", nullptr},     {"QUJDQUJ", nullptr},
        {"", nullptr},          {" \n ", nullptr},    {"QUJDQQ==QUJD=", nullptr},  // 13 counted
        {"/+/+", "\xff\xef\xfe"},
    };
    for (const auto &c : cases) {
        uint8_t out[16];
        size_t n = 99;
        int rc = tav_base64_decode(c.in, strlen(c.in), out, sizeof out, &n);
        EXPECT_EQ(rc, c.out ? 0 : -1) << c.in;
        if (c.out && rc == 0) { EXPECT_EQ(std::string(reinterpret_cast<char *>(out), n), c.out) << c.in; }
    }
    uint8_t six[6];
    size_t n = 0;  // "QUJDQUJD" needs 6
    EXPECT_EQ(std::tuple(tav_base64_decode("QUJDQUJD", 8, six, 5, &n), tav_base64_decode("QUJDQUJD", 8, six, 6, &n)),
              std::tuple(-1, 0));
}

// Round trips are base64_fuzz's.
TEST(Base64, EncodeBreaksLinesAt72) {
    auto encode = [](const std::string &s) {
        char out[512];
        size_t n = 0;
        EXPECT_EQ(tav_base64_encode(reinterpret_cast<const uint8_t *>(s.data()), s.size(), out, sizeof out, &n), 0);
        EXPECT_EQ(strlen(out), n);
        return std::string(out, n);
    };
    std::string xs;  // "xxx" is "eHh4"; 54 bytes make one full line of 72
    for (int i = 0; i < 18; ++i) xs += "eHh4";
    for (auto [in, want] : {std::pair<std::string, std::string>{"", ""}, {"A", "QQ==\n"}, {"AB", "QUI=\n"},
                            {"ABC", "QUJD\n"}, {std::string(54, 'x'), xs + "\n"}, {std::string(55, 'x'), xs + "\neA==\n"}})
        EXPECT_EQ(encode(in), want);
    char tiny[5];  // "QUJD\n" and its NUL need 6
    size_t n = 0;
    EXPECT_EQ(tav_base64_encode(reinterpret_cast<const uint8_t *>("ABC"), 3, tiny, sizeof tiny, &n), -1);
}

using Admin = Engine;

TEST_F(Admin, TimeZoneTableAndItsLookUpsBothWays) {
    // Rows written out by hand from the protocol's zone table, both ways.
    const std::pair<const char *, const char *> reads[] = {
        {"8", "7"}, {"45", "51"}, {"47", "56"}, {"", "61"}, {"0", "61"}, {"15", "0"}, {"26", "30"},
        {"78", "84"}, {"1", "1"}, {"7x", "8"}, {"123", "12"},  // read 2 characters wide
    };
    for (const auto &[code, id] : reads) {
        lrgbin_store::put("/time/timezone", code);
        ASSERT_EQ(call(tav_get_device_date_time, tav::kOpGetDateTime, {}), 0);
        std::string got = "none";
        for (const auto &[tag, v] : tlvs_of(reply_tlvs())) got = tag == 303 ? std::to_string(tav::get_be16(v.data())) : got;
        EXPECT_EQ(got, id) << "code " << code;
    }

    const std::pair<uint16_t, const char *> writes[] = {{7, "8"}, {32, "32"}, {84, "78"}, {6, "1"},
                                                        {0, "1"}, {85, "1"},  {61, "1"}, {0xFFFF, "1"}};
    for (const auto &[id, code] : writes) {
        EXPECT_EQ(call(tav_set_device_date_time, tav::kOpSetDateTime, admin() + be16(303, id)), 0);
        EXPECT_EQ(stored("/time/timezone"), code) << "id " << id;
    }
}

TEST_F(Admin, ClockRequestComposesDateAndRunsTheServicesInOrder) {
    const std::pair<const char *, std::string> cases[] = {  // stamp, the date set
        {"20240513083005", "2024-05-13 08:30:05"}, {"2024051308300599", "2024-05-13 08:30:05"},
        {"202405", "2024-05-00 00:00:00"}, {"", "0-00-00 00:00:00"}, {"2024'; reboot", "2024-00-00 00:00:00"},
        {"  1-1-2 3 4 5 6", "1-01-02 03:04:05"},  // each piece read alone, as atoi does
    };
    for (const auto &[stamp, date] : cases) {
        tavc_record::clear();
        ASSERT_EQ(call(tav_set_device_date_time, tav::kOpSetDateTime, admin() + tlv(35, {1}) + text(301, stamp)), 0);
        EXPECT_EQ(commands(), (Strings{"date -s '" + date + "'", "submit COMMIT", "submit TIME;submit CAPTIVAL_PORTAL"}))
            << stamp;
    }
    EXPECT_EQ(std::tuple(stored("/time/syncwith"), stored("/tavclient/time_changed")), std::tuple("2", "1"));
    EXPECT_EQ(reply_tlvs(), be32(393, 0) + be32(394, 20000));
    // NTP server: 255 bytes taken, the rest of the value read as records.
    const Bytes long_server = Bytes(255, 'n') + tlv(300, {0}) + be16(303, 32) + Bytes(34, 'n');
    EXPECT_EQ(call(tav_set_device_date_time, tav::kOpSetDateTime, admin() + tlv(36, long_server)), 0);
    EXPECT_EQ(stored("/time/ntpserver/ip"), std::string(254, 'n'));
    EXPECT_EQ(stored("/time/timezone"), "32");
    // Any other time type sets only daylight saving, and runs the same services.
    tavc_record::clear();
    ASSERT_EQ(call(tav_set_device_date_time, tav::kOpSetDateTime, admin() + u8(300, 2) + u8(310, 1) + be16(303, 7)), 0);
    EXPECT_EQ(std::tuple(stored("/time/daylightSaving"), stored("/time/DaylightSaving/offset"), stored("/time/timezone")),
              std::tuple("1", "0", "32"));
    EXPECT_EQ(commands(), (Strings{"submit COMMIT", "submit TIME;submit CAPTIVAL_PORTAL"}));
}

TEST_F(Admin, AccountChangeStoresDecodedValuesAndRestartsInAChild) {
    put({{"/sys/first_init", "1"}, {"/tavclient/time_changed", "1"}, {"/runtime/layout/countrycode", "840"}});
    Bytes body = text(50, "bmV3LWFk bWlu") + tlv(999, {1, 2, 3}) + text(51, "cGFzcwBoaWRkZW4=") + admin();
    ASSERT_EQ(call(tav_change_ID_and_password, tav::kOpChangeIdPassword, body), 0);
    EXPECT_EQ(reply_tlvs(), be32(393, 2) + be32(394, 20000));
    // The password ends at the decoded NUL; the wizard went.
    EXPECT_EQ(std::tuple(stored("/sys/user:1/name"), stored("/sys/user:1/password"),
                         stored("/tavclient/password_changed"), stored("/sys/first_init")),
              std::tuple("new-admin", "pass", "1", "0"));
    ASSERT_EQ(commands(), (Strings{"", "submit COMMIT", "sh /etc/templates/webs.sh password", "sh /etc/templates/console.sh"}));
    EXPECT_EQ(tavc_record::launches()[0].kind, tavc_record::LaunchKind::Fork);

    // Tag 54 is stepped over by its declared length here: a 2-byte value does not shift the next record.
    tavc_record::clear();
    Bytes body54 = tlv(54, {5, 0}) + text(50, "QUJD") + text(51, "QUJD") + text(55, "new-admin") + text(56, "pass");
    EXPECT_EQ(call(tav_change_ID_and_password, tav::kOpChangeIdPassword, body54), 0);
    EXPECT_EQ(stored("/sys/user:1/name"), "ABC");
}

// Each refusal answers with its code and writes or starts nothing; a manager
// holding the op code at a higher precedence refuses before the credentials
// are read (0xFFFF for the account change, 0xFFFD for the rest).
TEST_F(Admin, RefusalsAnswerWithTheirCodeAndChangeNothing) {
    const Bytes wrong = text(55, "admin") + text(56, "wrong"), account = text(50, "bmV3LWFkbWlu") + text(51, "bjN3");
    const struct { Handler handler; uint16_t op; Bytes body; int result; } cases[] = {
        {tav_change_ID_and_password, 0xA4, account + wrong, 0x40},
        {tav_change_ID_and_password, 0xA4, text(50, "Q===") + text(51, "QUJD") + admin(), 1001},
        // An 80-byte user name, all of it taken: its bytes from 65 on are no records here.
        {tav_reset, 0xAA, tlv(55, Bytes(65, 0) + text(55, "admin") + u8(999, 0)) + text(56, "secret"), 0x40},
        {tav_set_snmp_configuration, 0xD4, u8(39, 0) + text(40, "new") + wrong, 0x40},
        {tav_set_device_information, 0xE3, u8(31, 0) + text(10, "x") + wrong, 0x40},
        {tav_set_device_date_time, 0xE5, u8(300, 1) + text(36, "127.0.0.1") + admin(), tav::kResultNtpLoopback},
    };
    const auto before = lrgbin_store::contents();
    tav_server holder = sender(0xA1);
    for (const auto &c : cases) {
        EXPECT_EQ(call(c.handler, c.op, c.body), c.result) << c.op;
        ASSERT_EQ(check_server_precedence(c.op, 9, &holder), 0);
        EXPECT_EQ(call(c.handler, c.op, u8(54, 3) + c.body, sender(0xB)), c.op == 0xA4 ? 0xFFFF : 0xFFFD) << c.op;
        free_tav_server();
    }
    EXPECT_EQ(lrgbin_store::contents(), before);
    EXPECT_EQ(commands(), Strings{});
}

// Only the reset keeping the address traces a refused login.
TEST_F(Admin, ResetsExecSubmitAfterTheDelayWithStatus6OnFailure) {
    const Bytes delay = tlv(392, {0, 0, 0, 10, 0xEE}, 2);  // declared 2, four bytes taken
    lrgbin_store::put("/runtime/tav_debug_enable", "1");
    for (auto [handler, op, service, traced] :
         {std::tuple(&tav_reset, tav::kOpReset, " submit FRESET_EX_IP", true),
          std::tuple(&tav_reset_factory_settings, tav::kOpResetFactory, " submit FRESET", false)}) {
        tavc_record::clear();
        testing::internal::CaptureStderr();
        EXPECT_EQ(call(handler, op, text(55, "admin") + text(56, "wrong")), tav::kResultAuthFailed);
        EXPECT_EQ(testing::internal::GetCapturedStderr().find("INVALID_AUTH") != std::string::npos, traced);
        EXPECT_TRUE(tavc_record::launches().empty());
        // The byte after the four delay bytes is too short for a record.
        ASSERT_EQ(call(handler, op, admin() + delay), 0);
        EXPECT_EQ(reply_tlvs(), be32(393, 2) + be32(394, 300000));
        ASSERT_EQ(tavc_record::launches().size(), 1u);
        const auto &l = tavc_record::launches()[0];
        EXPECT_EQ(std::tuple(l.kind, l.command, l.delay, l.fail_status),
                  std::tuple(tavc_record::LaunchKind::Exec, "/usr/sbin/submit" + std::string(service), 10u, 6));
    }
}


// SNMP communities: 29 characters are written, 30 refused with their mask bit
// (little-endian in this reply) and message; so is deleting either.
TEST_F(Admin, SnmpCommunitiesOfThirtyCharactersAreRefused) {
    const std::string ok(29, 'r'), too_long(30, 'w');
    EXPECT_EQ(call(tav_set_snmp_configuration, tav::kOpSetSnmp,
                   u8(39, 1) + text(40, ok.c_str()) + text(41, too_long.c_str()) + admin()),
              tav::kResultSnmpPartial);
    EXPECT_EQ(std::tuple(stored("/sys/snmpd/rocomm"), stored("/sys/snmpd/rwcomm")), std::tuple(ok, std::string("<unset>")));
    EXPECT_EQ(reply_tlvs(), be32(393, 0) + be32(394, 20) + tlv(395, {4, 0, 0, 0}));
    EXPECT_NE(out().find("error:snmp_rwcomm too long"), std::string::npos);
    tavc_record::clear();
    EXPECT_EQ(call(tav_set_snmp_configuration, tav::kOpSetSnmp, u8(39, 3) + text(40, "a") + text(41, "b") + admin()),
              tav::kResultSnmpPartial);
    EXPECT_EQ(reply_tlvs(), be32(393, 0) + be32(394, 20) + tlv(395, {6, 0, 0, 0}));
    EXPECT_EQ(std::tuple(stored("/sys/snmpd/status"), stored("/sys/snmpd/rocomm")), std::tuple("1", ok));
    EXPECT_EQ(commands(), (Strings{"submit COMMIT", "/usr/sbin/submit submit SNMP"}));
    EXPECT_EQ(out(), "error:Can't delete read only community\nerror:Can't delete read-write community\n");
}

TEST_F(Admin, Ipv4AddressesTakeFourBytesWhateverTheirLengthSays) {
    // The last four bytes of the address record are a record head (tag 17, netmask) for the bytes after.
    const Bytes ip = tlv(15, {192, 168, 0, 50, 0, 17, 0, 4}, 8) + Bytes{255, 255, 255, 0};
    ASSERT_EQ(call(tav_set_ipv4_address, tav::kOpSetIpv4, admin() + ip), 0);
    EXPECT_EQ(std::tuple(stored("/wan/rg/inf:1/static/ip"), stored("/wan/rg/inf:1/static/netmask"),
                         stored("/wan/rg/inf:1/static/gateway"), stored("/dnsrelay/server/primarydns")),
              std::tuple("192.168.0.50", "255.255.255.0", "", ""));
    EXPECT_EQ(reply_tlvs(), tlv(388, {0}));
    EXPECT_EQ(commands(), (Strings{"submit COMMIT", "", "submit WAN; submit WLAN"}));

    lrgbin_store::put("/wan/rg/inf:1/static/ip", "192.0.2.11");
    ASSERT_EQ(call(tav_set_ipv4_address, tav::kOpSetIpv4, admin() + tlv(25, {5}) + be32(15, 0x0A000001)), 0);
    EXPECT_EQ(std::tuple(stored("/wan/rg/inf:1/mode"), stored("/wan/rg/inf:1/modebak"),
                         stored("/wan/rg/inf:1/static/ip"), stored("/runtime/wan/inf:1/tavmode")),
              std::tuple("6", "6", "192.0.2.11", "1"));
}

TEST_F(Admin, DeviceInformationCutsTheNameAndRestartsTheWebServerOnlyForThePort) {
    const Bytes name = Bytes(64, 'N') + tlv(31, {0}) + Bytes{'N'};  // bytes 64.. read as the next record
    ASSERT_EQ(call(tav_set_device_information, tav::kOpSetDeviceInfo, admin() + tlv(31, {1}) + tlv(10, name)), 0);
    EXPECT_EQ(stored("/sys/systemName"), std::string(63, 'N'));
    EXPECT_EQ(commands(), (Strings{"submit COMMIT"}));

    tavc_record::clear();
    ASSERT_EQ(call(tav_set_device_information, tav::kOpSetDeviceInfo, admin() + tlv(31, {1}) + be16(32, 8080)), 0);
    EXPECT_EQ(stored("/sys/web/port"), "8080");
    EXPECT_EQ(commands(), (Strings{"submit COMMIT", "", "submit HTTPD"}));
    EXPECT_EQ(reply_tlvs(), tlv(388, {0}));
}

}  // namespace
