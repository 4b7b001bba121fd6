// SPDX-License-Identifier: ISC
// Wireless handlers on the in-process store and the recorder: the code tables, the keys each
// SSID form writes, lists that fill the reply area, and the commands set handlers start, in order.
#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "tavc/wireless/codes.h"
#include "tavc/wireless/wireless.h"
#include "tests/tavc/handler_fixture.h"

using namespace fixture;

namespace {

struct Wireless : Engine {
    void SetUp() override {
        Engine::SetUp();
        const std::string t = "/runtime/countrydomaintable:";
        put({{"/wlan/inf:1/ap_mode", "0"}, {"/wlan/inf:2/ap_mode", "0"}, {"/wlan/inf:1/multi/state", "1"},
             {"/wlan/inf:2/multi/state", "1"}, {t + "1/seq", "1"}, {t + "1/index", "82"}, {t + "1/code", "276"},
             {t + "2/seq", "2"}, {t + "2/index", "233"}, {t + "2/code", "826"}, {"/runtime/layout/countrycode", "276"}});
    }
};

// Written with each protocol code, read back, and the credential the reply carries for it.
TEST_F(Wireless, AuthenticationCodesAreABijectionWithTheirCredentials) {
    // Every row of the one table (its hand-checked rows: the proto tests).
    for (const tav::AuthCode &row : tav::kAuthCodes) {
        SCOPED_TRACE(row.name);
        lrgbin_store::clear();
        put({{"/wlan/inf:1/ap_mode", "0"}, {"/wlan/inf:2/ap_mode", "1"}});
        ASSERT_EQ(std::tuple(set_auth_type(1, 0, row.code), set_auth_type(1, 5, row.code)), std::tuple(0, 0));
        const std::string want = std::to_string(row.stored);
        EXPECT_EQ(std::tuple(stored("/wlan/inf:1/authentication"), stored("/wlan/inf:1/multi/index:5/auth")),
                  std::tuple(want, want));
        EXPECT_EQ(std::tuple(get_auth_type(1, 0), get_auth_type(1, 5)), std::tuple(row.code, row.code));
        ASSERT_EQ(call(tav_get_ssid_list, tav::kOpGetSsidList, {}), 0);
        std::vector<uint16_t> tags;  // of SSID 0: between 930 and 935
        bool in = false;
        for (const auto &[tag, v] : tlvs_of(reply_tlvs())) {
            if (tag == 935) break;
            if (in) tags.push_back(tag);
            if (tag == 930) in = true;
        }
        using Tags = std::vector<uint16_t>;
        EXPECT_EQ(tags, row.credential == tav::Credential::Psk      ? Tags{931}
                        : row.credential == tav::Credential::Radius ? Tags({932, 933, 934})
                                                                    : Tags{});
    }
    for (const char *stored : {"1", "8", "10", "11", "12", "18", "255", "", "x"}) {
        lrgbin_store::put("/wlan/inf:2/multi/index:7/auth", stored);
        EXPECT_EQ(get_auth_type(2, 7), 0) << stored;
    }
    lrgbin_store::put("/wlan/inf:2/authentication", "5");
    for (uint8_t code : {13, 14, 255}) {
        EXPECT_EQ(set_auth_type(2, 0, code), -1);
        EXPECT_EQ(stored("/wlan/inf:2/authentication"), "5");
    }
}

// Rows written out by hand from the protocol's mode table; any band but 1 reads as band 2.
TEST(WirelessModes, StoredPerBandAndReadBack) {
    for (auto [code, band1, band2] : {std::tuple{8, 3, 3}, {14, 1, 0}, {25, 0, 4}, {7, 0, 0}})
        EXPECT_EQ(std::tuple(wireless::stored_mode(1, code), wireless::stored_mode(2, code), wireless::stored_mode(7, code)),
                  std::tuple(band1, band2, band2)) << code;
    EXPECT_EQ(std::tuple(wireless::mode_code_of(1, 1), wireless::mode_code_of(2, 4), wireless::mode_code_of(1, 0),
                         wireless::mode_code_of(2, 6)), std::tuple(14, 25, 8, 8));
    EXPECT_EQ(std::tuple(wireless::supported_modes(1), wireless::supported_modes(2)), std::tuple(46, 57));
}

// Band status: only a band that is on and in AP mode (band 2 here is on, as a client).
TEST_F(Wireless, LockedCountriesReportTheirFixedIndexOthersAreLookedUpThroughSeq) {
    put({{"/sys/country_index", "77"}, {"/wlan/inf:1/enable", "1"}, {"/wlan/inf:2/enable", "1"}, {"/wlan/inf:2/ap_mode", "1"}});
    const std::pair<const char *, uint16_t> rows[] = {
        {"376", 106}, {"392", 110}, {"410", 205}, {"840", 234}, {"276", 77}, {"841", 77}, {"375", 77}, {"", 77}};
    for (auto [code, index] : rows) {
        lrgbin_store::put("/runtime/layout/countrycode", code);
        ASSERT_EQ(call(tav_get_wireless_information, tav::kOpGetWirelessInfo, {}), 0);
        const Tlvs t = tlvs_of(reply_tlvs());
        ASSERT_EQ(t.size(), 7u);
        EXPECT_EQ(std::pair(t[1].second, t[6]), std::pair(Bytes{1}, std::pair<uint16_t, Bytes>{59, {uint8_t(index >> 8), uint8_t(index)}}))
            << code;
    }
    // Entry n of the domain table names, by its seq, the entry that holds the index and the code.
    const std::string t = "/runtime/countrydomaintable:";
    put({{t + "1/seq", "2"}, {t + "2/seq", "0"}, {t + "2/index", "20"}, {t + "2/code", "250"}});
    EXPECT_EQ(call(tav_set_wireless_information, tav::kOpSetWirelessInfo, admin() + be16(59, 20)), 0);
    EXPECT_EQ(std::tuple(stored("/runtime/layout/countrycode"), stored("/sys/country_name")), std::tuple("250", "2"));
    EXPECT_EQ(commands(), (Strings{"submit COMMIT", "", "sleep 5; reboot"}));
    EXPECT_EQ(call(tav_set_wireless_information, tav::kOpSetWirelessInfo, admin() + be16(59, 82)), 218);
    EXPECT_EQ(out(), "set_country_code: Unknown country!\n");
}

// The same record applied to the primary SSID and to an additional one.
TEST_F(Wireless, SsidRecordWritesTheKeysOfItsForm) {
    ssid_info rec{.ssid_index = 0, .ssid_name = "Corp", .band = 2, .auth_type = 4, .passphrase = "",
                  .radius_address_type = 1, .radius_address = "198.51.100.7", .radius_secret = "s3cret",
                  .vlan_id = {0x10, 0x00} /* 4096 */, .ssid_status = 5, .has_vlan_id = true,
                  .has_passphrase = false, .has_radius_address = true};
    lrgbin_store::put("/wlan/inf:2/multi/state", "0");
    for (uint8_t index : {0, 3}) {
        rec.ssid_index = index;
        ASSERT_EQ(set_ssid_info(rec), 0);
    }
    const std::map<std::string, std::string> want{
        {"/wlan/inf:2/ssid", "Corp"}, {"/wlan/inf:2/vlan_id", "4096"}, {"/wlan/inf:2/authentication", "4"},
        {"/wlan/inf:2/wpa/wepmode", "4"}, {"/wlan/inf:2/wpa/radiusserver", "198.51.100.7"},
        {"/wlan/inf:2/wpa/radiussecret", "s3cret"}, {"/wlan/inf:2/multi/state", "1"},
        {"/wlan/inf:2/multi/index:3/state", "5"}, {"/wlan/inf:2/multi/index:3/ssid", "Corp"},
        {"/wlan/inf:2/multi/index:3/vlan_id", "4096"}, {"/wlan/inf:2/multi/index:3/auth", "4"},
        {"/wlan/inf:2/multi/index:3/cipher", "4"}, {"/wlan/inf:2/multi/index:3/radius_server", "198.51.100.7"},
        {"/wlan/inf:2/multi/index:3/radius_secret", "s3cret"},
    };
    std::map<std::string, std::string> got;
    for (const auto &[k, v] : lrgbin_store::contents())
        if (k.starts_with("/wlan/inf:2/") && k != "/wlan/inf:2/ap_mode") got[k] = v;
    EXPECT_EQ(got, want);
    EXPECT_EQ(stored("/wlan/inf:1/ssid"), "<unset>") << "band 1 is not in the mask";

    rec.vlan_id[1] = 0x01;  // 4097: refused after the name, before the code
    std::strcpy(rec.ssid_name, "Other");
    rec.auth_type = 0;
    EXPECT_EQ(set_ssid_info(rec), 65535);
    EXPECT_EQ(std::tuple(stored("/wlan/inf:2/multi/index:3/ssid"), stored("/wlan/inf:2/multi/index:3/auth")),
              std::tuple("Other", "4"));
    EXPECT_EQ(std::tuple(set_vlan_id(1, 1, 4096), set_vlan_id(1, 1, 4097)), std::tuple(0, -1));
}

// Of 202 groups (more than any accepted request holds) the last finds no record: refused
// before anything is written.
TEST_F(Wireless, SsidGroupsBeyondEveryAcceptedRequestAreRefused) {
    for (int groups : {201, 202}) {
        Bytes body = admin();
        for (int i = 1; i < groups; ++i) body = body + u8(926, 1);  // band mask 0: no writes
        body = body + u8(926, 1) + text(927, "Last") + u8(928, 1) + u8(935, 1);
        lrgbin_store::put("/wlan/inf:1/multi/index:1/ssid", "Before");
        EXPECT_EQ(call(tav_set_ssid_list, tav::kOpSetSsidList, body), groups == 201 ? 0 : 65533) << groups;
        EXPECT_EQ(stored("/wlan/inf:1/multi/index:1/ssid"), groups == 201 ? "Last" : "Before");
        EXPECT_EQ(commands().empty(), groups != 201);
        tavc_record::clear();
    }
}

// At most 255 stations per SSID; numbering stops at the first gap.
TEST_F(Wireless, ClientNumbersEndAt255OrAtAGap) {
    for (int n = 1; n <= 256; ++n)
        lrgbin_store::put("/runtime/stats/wlan/inf:1/client:" + std::to_string(n) + "/mac", "02:00:00:00:00:01");
    for (int n : {1, 2, 4})
        lrgbin_store::put("/runtime/stats/wlan/inf:1/mssid:1/client:" + std::to_string(n) + "/mac", "02:00:00:00:00:02");
    lrgbin_store::put("/wlan/inf:1/multi/index:1/state", "1");
    ASSERT_EQ(call(tav_get_client_list, tav::kOpGetClientList, {}), 0);
    std::map<uint8_t, int> per_ssid;  // by the MAC's last byte
    for (const auto &[tag, v] : tlvs_of(reply_tlvs()))
        if (tag == 14) ++per_ssid[v[5]];
    EXPECT_EQ(per_ssid, (std::map<uint8_t, int>{{1, 255}, {2, 2}}));
}

// Client and device lists stop before the group that would not fit and still end with
// their closing record.
TEST_F(Wireless, ListsFillTheReplyAreaAndStayClosed) {
    const std::string name62(62, 'n');
    for (int band = 1; band <= 2; ++band)
        for (int idx = 0; idx <= 7; ++idx) {
            const std::string b = "/wlan/inf:" + std::to_string(band), i = std::to_string(idx);
            lrgbin_store::put(idx ? b + "/multi/index:" + i + "/ssid" : b + "/ssid", name62);
            if (idx) lrgbin_store::put(b + "/multi/index:" + i + "/state", "1");
            const std::string c = "/runtime/stats/wlan/inf:" + std::to_string(band) + (idx ? "/mssid:" + i : "") + "/client:";
            for (int n = 1; n <= 255; ++n) lrgbin_store::put(c + std::to_string(n) + "/mac", "00:00:5e:00:53:01");
        }
    const std::string m = "/runtime/super_mesh/mesh_member_ap_list/index:";
    for (int i = 1; i <= 600; ++i)
        put({{m + std::to_string(i) + "/model", std::string(40, 'm')}, {m + std::to_string(i) + "/devname", std::string(70, 'd')}});
    const struct { Handler handler; uint16_t op, group_bytes, opening_tag, closing; Bytes body; } rows[] = {
        {tav_get_client_list, tav::kOpGetClientList, 38 + 62, 14, 0, {}},
        {tav_get_ap_array_device_list, tav::kOpGetApArrayDeviceList, 130, 502, 0xEEEE, u8(943, 3)},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.op);
        ASSERT_EQ(call(row.handler, row.op, row.body), 0);
        const Bytes body = reply_tlvs();
        const Tlvs t = tlvs_of(body);
        ASSERT_FALSE(t.empty());
        EXPECT_EQ(t.back(), (std::pair<uint16_t, Bytes>{501, {uint8_t(row.closing >> 8), uint8_t(row.closing)}}));
        const size_t groups = (body.size() - 6) / row.group_bytes;
        EXPECT_EQ(body.size(), groups * row.group_bytes + 6) << "whole groups only";
        EXPECT_GT(body.size() + row.group_bytes, tav::kReplyArea) << "no room was left unused";
        EXPECT_EQ(size_t(std::ranges::count(t, row.opening_tag, &std::pair<uint16_t, Bytes>::first)), groups);
    }
}

}  // namespace

// The MAC scanner stores what sscanf's "%hhx:" fields store over zeroes, wherever sscanf
// would stop: blanks, signs, "0x", overflow, short and odd texts, and random
// texts over the characters that matter.
TEST(ScanMac, StoresWhatSscanfStores) {
    std::vector<std::string> texts = {"02:7a:76:00:00:01", "2:7A:76:0:0:1", " 0x1f:+ff:-1:0X:0x:g",
                                      "fffffffffffffffff1:ffffffffffffffff:100", "-ffffffffffffffffff:1",
                                      "\t\n\v\f\r a:b", "1:2:3", "", ":", "1::2", "- 1", "0xx", "1;2", "+0x-1"};
    uint32_t seed = 12345;
    const std::string alphabet = " \t-+0x19afAFg:";
    for (int n = 0; n < 3000; ++n) {
        std::string t;
        seed = seed * 1103515245u + 12345u;
        for (int len = int(seed >> 27); len > 0; --len) {
            seed = seed * 1103515245u + 12345u;
            t += alphabet[(seed >> 16) % alphabet.size()];
        }
        texts.push_back(t);
    }
    for (const std::string &t : texts) {
        uint8_t want[6] = {}, got[6] = {9, 9, 9, 9, 9, 9};  // zeroed by the scanner
        sscanf(t.c_str(), "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", &want[0], &want[1], &want[2], &want[3], &want[4],
               &want[5]);
        scan_mac(t.c_str(), got);
        EXPECT_EQ(std::vector<uint8_t>(got, got + 6), std::vector<uint8_t>(want, want + 6)) << '"' << t << '"';
    }
}
