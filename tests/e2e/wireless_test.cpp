// SPDX-License-Identifier: ISC
// The wireless handlers in the lab: status counters, the SSID list, bands,
// modes and country, and the AP array, checked by what the database holds,
// the keys the set requests leave and the commands they run. (Key forms of
// each SSID group and refused groups: the unit tests.)
#include "tests/e2e/e2e.h"

namespace e2e {
namespace {

using namespace tav::client;

// One SSID group of a set request.
Bytes group(uint8_t index, uint8_t band, const std::string &name, uint8_t auth = 0, uint8_t status = 1) {
    return u8(926, index) + text(927, name) + u8(928, band) + u8(930, auth) + u8(935, status);
}
const TlvList kSetReply{tlv_u32(393, 2), tlv_u32(394, 60000), tlv_u32(395, 0)};
const Lines kWlan{"submit COMMIT", "submit WAN", "submit WLAN"};

// Every test starts from the profile, with the counters held still.
template <class Self>
struct WirelessSuite : LabSuite<Self> {
    void SetUp() override {
        LabSuite<Self>::SetUp();
        if (!this->HasFatalFailure() && !this->IsSkipped()) reload();
    }
    // The profile again, the event log and the output marked.
    void reload() {
        Sh r = this->lab().on_ap(1, "touch /var/run/stats.hold && rm -f /var/run/mesh.peers && rgdb -l /usr/lib/tavlab/profile");
        ASSERT_EQ(r.status, 0) << r.out;
        ev.mark();
        out = output(this->lab(), 1);
    }
    void set(const Keys &kv) {
        for (const auto &[k, v] : kv) ASSERT_TRUE(this->lab().db_set(1, k, v));
    }
    void expect_keys(const Keys &keys) {
        for (const auto &[k, v] : keys) EXPECT_EQ(this->lab().db_get(1, k), v) << k;
    }
    Message ask(uint16_t op, const Bytes &body, std::optional<Mac> from = {}) {
        Client c = this->lab().raw(from);
        return ask_body(c, op, body);
    }
    // A set request's reply, the commands it ran and what it printed.
    void expect_set(const Message &m, uint16_t result, const std::string &printed) {
        EXPECT_EQ(std::tuple(m.result(), m.tlvs), std::tuple(result, result ? TlvList{} : kSetReply));
        EXPECT_EQ(ev.wait(result ? 0 : kWlan.size()), result ? Lines{} : kWlan);
        EXPECT_TRUE(until([&] { return out() == printed; }, kLong)) << out();
    }
    Events ev{LabSuite<Self>::lab(), 1};
    std::function<std::string()> out;
};
E2E_SUITE_OF(WirelessSuite, Radio, "wrd", 1, "");

TEST_F(Radio, StatusCountersAreReadFromTheDatabaseAndMoveWithTheStatisticsService) {
    set({{"/runtime/cpu/status/alluser_utilize", "300"}, {"/runtime/stats/wireless/inf:1/showtx/bytes", "12345678901"},
         {"/runtime/stats/wireless/inf:1/showrx/bytes", "1024 bytes"}});
    Message m = ask(tav::kOpGetDeviceStatus, creds() + u8(54, 9) + text(999, "x"));  // the body is not read
    EXPECT_EQ(std::tuple(m.result(), m.u8(517), m.u64(519), m.u64(520)), std::tuple(0, 44, 12345678901ull, 1024ull));
    EXPECT_EQ(ev.lines(), Lines{});
    ASSERT_EQ(lab().on_ap(1, "rm -f /var/run/stats.hold").status, 0);
    const auto first = ask(tav::kOpGetDeviceStatus, {}).u64(tav::kTagLanSend);
    ASSERT_TRUE(first);
    EXPECT_TRUE(until([&] { return ask(tav::kOpGetDeviceStatus, {}).u64(tav::kTagLanSend) > first; }, kLong));
}

E2E_SUITE_OF(WirelessSuite, Ssid, "wss", 1, "");

// Rename the primary SSID, WPA2-PSK with a new passphrase; an additional
// SSID of both bands switched on as WPA-PSK; committed and read back.
TEST_F(Ssid, SetAppliesEveryGroupThenCommitsAndRestartsTheWirelessService) {
    set({{"/wlan/inf:2/multi/state", "0"}, {"/wlan/inf:1/multi/index:7/state", "0"}});
    expect_set(ask(tav::kOpSetSsidList, u8(54, 3) + creds() + group(0, 1, "Lab-Renamed", 3, 0) +
                                            text(931, "a-new-passphrase") + group(7, 3, "Both-Bands", 1, 4) +
                                            text(931, "12345678") + be16(501, 0) + text(4242, "unknown")),
               0, "");
    expect_keys({{"/wlan/inf:1/ssid", "Lab-Renamed"}, {"/wlan/inf:1/authentication", "5"},
                 {"/wlan/inf:1/wpa/wpapsk", "a-new-passphrase"}, {"/wlan/inf:2/multi/state", "1"},
                 {"/wlan/inf:1/multi/index:7/state", "4"}, {"/wlan/inf:2/multi/index:7/ssid", "Both-Bands"},
                 {"/wlan/inf:1/multi/index:7/passphrase", "12345678"}, {"/wlan/inf:1/vlan_id", "1"}});
    EXPECT_NE(slurp(lab().run_file(1, "xmldb.state")).find("/wlan/inf:1/ssid Lab-Renamed"), std::string::npos);
    Message list = ask(tav::kOpGetSsidList, {});
    EXPECT_EQ(std::tuple(list.text(927), list.text(931)), std::tuple("Lab-Renamed", "a-new-passphrase"));
}

// Writes in request order, stopping at the first refusal (what was written
// stays, uncommitted, nothing starts, the reason is printed); a manager of
// higher precedence holds the op code.
TEST_F(Radio, SetWritesInOrderAndStopsAtTheFirstRefusal) {
    const Mac holder{0x02, 0xe2, 0xe0, 0x77, 0, 1};
    const Bytes same = creds() + be16(59, 82);  // the current country
    const struct {
        Bytes body;
        uint16_t result;
        Keys keys;
        std::string printed;
    } rows[] = {
        {same + u8(533, 0x03), 0, {{"/wlan/inf:1/enable", "1"}, {"/wlan/inf:2/enable", "0"}}, ""},
        {same + be16(534, 0x000D) + be16(535, 0x001D), 204, {{"/wlan/inf:1/wlmode", "2"}, {"/wlan/inf:2/wlmode", "4"}},
         "set_wireless_mode,band=1,mode=6\nset_wireless_mode,band=2,mode=14\n"},
        {creds() + u8(533, 0x01), 218, {{"/wlan/inf:1/enable", "0"}}, "set_country_code: Unknown country!\n"},
        {same + u8(533, 0x01) + u8(54, 2), 65533, {{"/wlan/inf:1/enable", "1"}}, ""},
    };
    ASSERT_EQ(ask(tav::kOpSetWirelessInfo, u8(54, 5) + same, holder).result(), 0);
    Finally leave([&] { ask(tav::kOpBye, {}, holder); });
    for (const auto &row : rows) {
        SCOPED_TRACE(row.result);
        reload();
        expect_set(ask(tav::kOpSetWirelessInfo, row.body), row.result, row.printed);
        expect_keys(row.keys);
    }
}

// The manager is told to wait 120 s; the access point reboots 5 s later and
// comes back with the new country.
TEST_F(Radio, ACountryChangeRebootsIntoTheNewCountry) {
    const std::string boots = boot_count(lab());
    Message m = ask(tav::kOpSetWirelessInfo, creds() + be16(59, 75));
    EXPECT_EQ(std::tuple(m.result(), m.tlvs), std::tuple(0, TlvList{tlv_u32(393, 2), tlv_u32(394, 120000), tlv_u32(395, 0)}));
    ASSERT_TRUE(rebooted(lab(), boots));
    EXPECT_EQ(ev.lines(), (Lines{"submit COMMIT", "reboot"}));
    expect_keys({{"/sys/next_ccode", "250"}, {"/tavclient/country_changed", "1"}, {"/runtime/layout/countrycode", "250"}});
    EXPECT_EQ(ask(tav::kOpGetWirelessInfo, {}).u16(59), 75);
}

E2E_SUITE_OF(WirelessSuite, ApArray, "wap", 1, "");

// The list is refreshed through the stubs first; members come before
// unmanaged access points; an approved one (the stub told) is a member from
// the next refresh.
TEST_F(ApArray, DeviceListRefreshesThenListsMembersBeforeUnmanagedAndApprovalsJoin) {
    auto listed = [&](const Bytes &body) {
        ev.mark();
        Message m = ask(tav::kOpGetApArrayDeviceList, body);
        EXPECT_EQ(ev.lines(), (Lines{"submit GET_PENDING_LIST", "submit GET_MEMBERAP_LIST"}));
        std::string s;
        for (size_t i = 0; i + 4 < m.tlvs.size(); ++i)
            if (m.tlvs[i].tag == 502) s += std::to_string(m.tlvs[i + 1].value[0]) + " " + format_mac(m.tlvs[i + 4].value) + ",";
        return s;
    };
    EXPECT_EQ(listed({}), "");
    EXPECT_EQ(listed(u8(943, 1)), "0 02:7a:76:00:00:02,0 02:7a:76:00:00:03,");
    EXPECT_EQ(listed(u8(943, 2)), "1 00:00:5e:00:53:a1,1 00:00:5e:00:53:a2,");
    ev.mark();
    ASSERT_EQ(ask(tav::kOpSetApArrayMemberList, creds() + tlv(14, {0, 0, 0x5e, 0, 0x53, 0xa2}) + u8(946, 1)).result(), 0);
    EXPECT_EQ(ev.wait(1), Lines{"nb_submit ADD_APPROVE_LIST 00:00:5e:00:53:a2"});
    EXPECT_EQ(listed(u8(943, 3)), "0 02:7a:76:00:00:02,0 02:7a:76:00:00:03,0 00:00:5e:00:53:a2,1 00:00:5e:00:53:a1,");
}

// The manager tool sends what it is told and the device's current values for
// the rest: a rename keeps a WPA-PSK SSID's passphrase, a mode change keeps
// the country.
TEST_F(ApArray, ManagerToolChangesOnlyWhatItIsTold) {
    const std::string legacy = "/wlan/inf:1/multi/index:2/", ap = "--target 02:7a:76:00:00:01 --user admin ";
    for (const char *args : {"ssid set --index 2 --band 1 --name Renamed-Legacy", "wireless set --mode2 ax --band1 off"}) {
        Sh r = tavctl(lab(), ap + args);
        EXPECT_EQ(r.status, 0) << r.out;
    }
    expect_keys({{legacy + "ssid", "Renamed-Legacy"}, {legacy + "auth", "3"}, {legacy + "passphrase", "legacy-passphrase"},
                 {legacy + "vlan_id", "20"}, {"/wlan/inf:2/wlmode", "5"}, {"/wlan/inf:1/enable", "0"},
                 {"/sys/country_index", "82"}});
}

}  // namespace
}  // namespace e2e
