// The identity record, its conversions, and the start-up normalisations.
#include <cstring>
#include <string>

#include "engine_fixture.h"

TEST(MacString2Hex, ConvertsTheFirstTwoCharactersOfSixFields) {
    struct Case {
        const char *text;
        tav::Mac mac;
    } cases[] = {
        {"02:7a:76:00:00:01", {0x02, 0x7a, 0x76, 0x00, 0x00, 0x01}},
        {"0:1:2:a:B:f", {0x0, 0x1, 0x2, 0xa, 0xb, 0xf}},
        {"aabb:cc:dd:ee:ff:11:22", {0xaa, 0xcc, 0xdd, 0xee, 0xff, 0x11}},
        {"FF:FF:FF:FF:FF:FF", {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}},
        {"zz:1g:01:02:03:04", {0x00, 0x01, 0x01, 0x02, 0x03, 0x04}},
        {"12:34", {0x12, 0x34, 0xEE, 0xEE, 0xEE, 0xEE}},  // fewer fields: rest untouched
    };
    for (const auto &c : cases) {
        char text[64];
        std::strcpy(text, c.text);
        tav::Mac out;
        out.fill(0xEE);
        EXPECT_EQ(mac_string2hex(text, out.data()), 0);
        EXPECT_EQ(out, c.mac) << c.text;
    }
    uint8_t out[6];
    char text[] = "01:02:03:04:05:06";
    EXPECT_EQ(mac_string2hex(nullptr, out), 0);
    EXPECT_EQ(mac_string2hex(text, nullptr), 0);
}

TEST(DateTime, PositionalCopyOfDateAndTimePieces) {
    struct Case {
        const char *date, *time;
        const char *text;
    } cases[] = {
        {"11/16/2026", "12:34:56", "20261116123456"},
        {"01/02/1999", "", "19990102"},
        {"", "07:08:09", ""},  // the year is missing, so the text is empty
        {"1/5/2026", "12:34:56", "20261"},  // a one-digit month brings its NUL along
        {"11/16/2026/9", "1:2:3:4", "202611161"},
        {"111/222/33333", "444:555:666", "33331122445566"},
    };
    for (const auto &c : cases) {
        char dt[16] = {};
        convert_date_time(dt, c.date, c.time);
        EXPECT_STREQ(dt, c.text) << c.date << " " << c.time;
    }
    char dt[16] = "99999999999999";
    convert_date_time(dt, "", "");
    EXPECT_STREQ(dt, "99999999999999") << "missing pieces leave positions as they were";
}

class Identity : public Engine {};

TEST_F(Identity, FieldsFromTheDatabase) {
    struct Case {
        std::map<std::string, std::string> keys;
        uint16_t port;
        uint8_t wan_mode, tav_mode, managed;
        uint16_t connection;
    } cases[] = {
        {{}, 80, 255, 1, 0, 0},
        {{{"/sys/web/port", "8080"}, {"/wan/rg/inf:1/mode", "1"}}, 8080, 0, 0, 0, 0},
        {{{"/wan/rg/inf:1/mode", "2"}}, 80, 1, 1, 0, 0},
        {{{"/wan/rg/inf:1/mode", "1"}, {"/runtime/wan/inf:1/tavmode", "1"}}, 80, 0, 2, 0, 0},
        {{{"/wan/rg/inf:1/mode", "23"}}, 80, 1, 1, 0, 0},  // read one character wide
        {{{"/qm5_agent/managed_status", "4"}, {"/runtime/qm5_agent/connection_status", "1"}},
         80, 255, 1, 0, 0},
        {{{"/qm5_agent/running", "1"},
          {"/qm5_agent/managed_status", "4"},
          {"/runtime/qm5_agent/connection_status", "1"}},
         80, 255, 1, 4, 3},
    };
    for (const auto &c : cases) {
        for (const auto &[k, v] : c.keys) lrgbin_store::put(k, v);
        ASSERT_EQ(init_device_status(), 0);
        const device_status &d = *device_info;
        EXPECT_EQ(tav::get_be16(d.web_port), c.port);
        EXPECT_EQ(d.wan_mode, c.wan_mode);
        EXPECT_EQ(d.tav_mode, c.tav_mode);
        EXPECT_EQ(d.managed_status, c.managed);
        EXPECT_EQ(tav::get_be16(d.connection_status), c.connection);
        for (const auto &[k, v] : c.keys) lrgbin_store::put(k, "");
    }
}

TEST_F(Identity, TextsAndAddresses) {
    lrgbin_store::put("/sys/hostname", "AP-9");
    lrgbin_store::put("/runtime/sys/info/hardwareversion", "A1");
    lrgbin_store::put("/runtime/wan/inf:1/netmask", "255.255.255.0");
    lrgbin_store::put("/runtime/wan/inf:1/gateway", "not an address");
    lrgbin_store::put("/runtime/time/date", "11/16/2026");
    lrgbin_store::put("/runtime/time/time", "12:34:56");
    init_device_status();
    const device_status &d = *device_info;
    EXPECT_STREQ(d.model_name, "AP-9 A1");
    EXPECT_STREQ(d.vendor, "Quelbo");
    EXPECT_STREQ(d.product_type, "Access point");
    EXPECT_STREQ(d.interface_name, "br0");
    EXPECT_STREQ(d.date_time, "20261116123456");
    EXPECT_EQ(0, std::memcmp(d.mac, kDeviceMac.data(), 6));
    EXPECT_EQ(0, std::memcmp(d.ip_address, kDeviceIp, 4));
    EXPECT_EQ(0, std::memcmp(d.netmask, "\xff\xff\xff\x00", 4));
    EXPECT_EQ(0, std::memcmp(d.gateway, "\0\0\0\0", 4));

    // The model name never passes 62 characters, whatever the parts hold.
    lrgbin_store::put("/sys/hostname", std::string(40, 'h'));
    lrgbin_store::put("/runtime/sys/info/hardwareversion", std::string(40, 'v'));
    init_device_status();
    EXPECT_EQ(std::string(d.model_name), std::string(31, 'h') + " " + std::string(30, 'v'));
}

TEST_F(Identity, ManageStatusNormalisedAtStartUp) {
    for (auto [before, after] : std::vector<std::pair<const char *, const char *>>{
             {"0", "0"}, {"1", "1"}, {"2", "2"}, {"3", "2"}, {"4", "2"}, {"5", "5"}}) {
        lrgbin_store::put("/qm5_agent/managed_status", before);
        init_manage_status();
        EXPECT_EQ(lrgbin_store::find("/qm5_agent/managed_status"), after) << before;
    }
    init_node();
    EXPECT_EQ(lrgbin_store::find("/runtime/tavclient/function/fw_upgrade/status"), "0");
}

TEST_F(Identity, WizardPageRetiredOnceCredentialsTimeAndCountryAreSet) {
    struct Case {
        const char *first_init, *password, *time, *country_code, *country_changed;
        const char *after;
    } cases[] = {
        {"1", "1", "1", "840", "0", "0"}, {"1", "1", "1", "376", "0", "0"},
        {"1", "1", "1", "276", "0", "1"}, {"1", "1", "1", "276", "1", "0"},
        {"1", "0", "1", "840", "1", "1"}, {"1", "1", "0", "840", "1", "1"},
        {"1", "256", "1", "840", "1", "1"},  // only the low byte counts
        {"0", "1", "1", "840", "1", "0"},
    };
    for (const auto &c : cases) {
        lrgbin_store::put("/sys/first_init", c.first_init);
        lrgbin_store::put("/tavclient/password_changed", c.password);
        lrgbin_store::put("/tavclient/time_changed", c.time);
        lrgbin_store::put("/runtime/layout/countrycode", c.country_code);
        lrgbin_store::put("/tavclient/country_changed", c.country_changed);
        wizard_page_check();
        EXPECT_EQ(lrgbin_store::find("/sys/first_init"), c.after)
            << c.password << c.time << " " << c.country_code << " " << c.country_changed;
    }
}

TEST_F(Identity, TimeZoneTable) {
    struct Case {
        int id;
        uint8_t code;
    } cases[] = {{0, 0}, {1, 1}, {6, 0}, {7, 8}, {13, 10}, {32, 32}, {47, 45},
                 {51, 45}, {55, 47}, {56, 47}, {61, 0}, {75, 71}, {84, 78}};
    for (const auto &c : cases) EXPECT_EQ(time_table[c.id], c.code) << c.id;
    int unused = 0;
    for (int id = 1; id <= 84; ++id) unused += time_table[id] == 0;
    EXPECT_EQ(unused, 10);
}
