// Conversions behind the identity record, the wizard-page rule and the
// time-zone table. The record itself is compared with the database end to end.
#include <cstring>
#include <string>

#include "engine_fixture.h"

TEST(MacString2Hex, ConvertsTheFirstTwoCharactersOfSixFields) {
    const std::pair<const char *, tav::Mac> cases[] = {
        {"02:7a:76:00:00:01", {0x02, 0x7a, 0x76, 0x00, 0x00, 0x01}},
        {"0:1:2:a:B:f", {0x0, 0x1, 0x2, 0xa, 0xb, 0xf}},
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
    EXPECT_EQ(mac_string2hex(nullptr, out), 0);
    EXPECT_EQ(mac_string2hex(text, nullptr), 0);
}

TEST(DateTime, PositionalCopyOfDateAndTimePieces) {
    const struct {
        const char *date, *time, *text;
    } cases[] = {
        {"11/16/2026", "12:34:56", "20261116123456"},
        {"01/02/1999", "", "19990102"},
        {"", "07:08:09", ""},               // the year is missing, so the text is empty
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

TEST_F(Identity, WizardPageRetiredOnceCredentialsTimeAndCountryAreSet) {
    const struct {
        const char *first_init, *password, *time, *country_code, *country_changed, *after;
    } cases[] = {
        {"1", "1", "1", "840", "0", "0"},   {"1", "1", "1", "376", "0", "0"},
        {"1", "1", "1", "276", "0", "1"},   {"1", "1", "1", "276", "1", "0"},
        {"1", "0", "1", "840", "1", "1"},   {"1", "1", "0", "840", "1", "1"},
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
    const std::pair<int, uint8_t> cases[] = {{0, 0},   {1, 1},   {6, 0},   {7, 8},   {13, 10},
                                             {32, 32}, {47, 45}, {51, 45}, {55, 47}, {56, 47},
                                             {61, 0},  {75, 71}, {84, 78}};
    for (auto [id, code] : cases) EXPECT_EQ(time_table[id], code) << id;
    int unused = 0;
    for (int id = 1; id <= 84; ++id) unused += time_table[id] == 0;
    EXPECT_EQ(unused, 10);
}
