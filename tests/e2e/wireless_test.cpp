// The wireless handlers in the lab: status counters, the SSID list, bands,
// modes and country, and the AP array, checked by what the database
// holds, the keys the set requests leave and the commands they run.
#include <map>

#include "tests/e2e/e2e.h"

namespace e2e {
namespace {

using namespace tav::client;
using Keys = std::map<std::string, std::string>;

// One SSID group of a set request.
struct Group {
    Group(uint8_t index, uint8_t band, std::string name, uint8_t auth = 0, uint8_t status = 1)
        : index(index), band(band), auth(auth), status(status), name(std::move(name)) {}
    uint8_t index, band, auth, status;
    std::string name;
    std::optional<std::string> passphrase, radius_address;
    std::optional<uint8_t> radius_type;
    std::optional<uint16_t> vlan;
    Bytes bytes() const {
        Bytes b = u8(926, index) + text(927, name) + u8(928, band) + u8(930, auth) + u8(935, status);
        if (vlan) b = b + be16(929, *vlan);
        if (passphrase) b = b + text(931, *passphrase);
        if (radius_type) b = b + u8(932, *radius_type);
        if (radius_address) b = b + text(933, *radius_address);
        return b;
    }
};
const TlvList kSetReply{tlv_u32(393, 2), tlv_u32(394, 60000), tlv_u32(395, 0)};
const Lines kWlan{"submit COMMIT", "submit WAN", "submit WLAN"};

// Every test starts from the profile, with the counters held still.
template <class Self>
struct WirelessSuite : LabSuite<Self> {
    static constexpr int kAps = 1;
    static std::string kUpArgs() { return ""; }
    void SetUp() override {
        LabSuite<Self>::SetUp();
        if (this->HasFatalFailure() || this->IsSkipped()) return;
        reload();
        out = output(this->lab(), 1);
    }
    // The profile again, and the event log marked.
    void reload() {
        Sh r = this->lab().on_ap(1, "touch /var/run/stats.hold && rm -f /var/run/mesh.peers && rgdb -l /usr/lib/tavlab/profile");
        ASSERT_EQ(r.status, 0) << r.out;
        ev.mark();
    }
    std::string get(const std::string &key) { return this->lab().db_get(1, key); }
    void set(const std::vector<std::pair<std::string, std::string>> &kv) {
        for (const auto &[k, v] : kv) ASSERT_TRUE(this->lab().db_set(1, k, v));
    }
    void expect_keys(const Keys &keys) {
        for (const auto &[k, v] : keys) EXPECT_EQ(get(k), v) << k;
    }
    // A request body as it is, over raw Ethernet from `from` (a manager MAC).
    Message ask(uint16_t op, const Bytes &body, std::optional<Mac> from = {}) {
        Client c = this->lab().raw(from);
        auto got = send_body(c, op, body);
        if (!got) {
            ADD_FAILURE() << "no reply to op " << op;
            return Message{};
        }
        return *got;
    }
    // A set request's reply, the commands it ran and what it printed.
    void expect_set(const Message &m, uint16_t result, const std::string &printed, const Lines &ok_commands = kWlan) {
        EXPECT_EQ(m.result(), result);
        EXPECT_EQ(m.tlvs, result ? TlvList{} : kSetReply);
        EXPECT_EQ(ev.wait(result ? 0 : ok_commands.size()), result ? Lines{} : ok_commands);
        EXPECT_TRUE(until([&] { return out() == printed; }, kLong)) << out();
    }
    Events ev{LabSuite<Self>::lab(), 1};
    std::function<std::string()> out;
};
#define WIRELESS_SUITE(Name, code) \
    struct Name : WirelessSuite<Name> { static constexpr const char *kCode = code; }

WIRELESS_SUITE(Radio, "wrd");

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

WIRELESS_SUITE(Ssid, "wss");

// Rename the primary SSID, WPA2-PSK with a new passphrase; an additional
// SSID of both bands switched on as WPA-PSK; committed and read back.
TEST_F(Ssid, SetAppliesEveryGroupThenCommitsAndRestartsTheWirelessService) {
    set({{"/wlan/inf:2/multi/state", "0"}, {"/wlan/inf:1/multi/index:7/state", "0"}});
    Group primary{0, 1, "Lab-Renamed", 3, 0}, both{7, 3, "Both-Bands", 1, 4};
    primary.passphrase = "a-new-passphrase", both.passphrase = "12345678";
    expect_set(ask(tav::kOpSetSsidList, u8(54, 3) + creds() + primary.bytes() + both.bytes() + be16(501, 0) +
                                            text(4242, "unknown")),
               0, "");
    expect_keys({{"/wlan/inf:1/ssid", "Lab-Renamed"}, {"/wlan/inf:1/authentication", "5"},
                 {"/wlan/inf:1/wpa/wpapsk", "a-new-passphrase"}, {"/wlan/inf:2/multi/state", "1"},
                 {"/wlan/inf:1/multi/index:7/state", "4"}, {"/wlan/inf:2/multi/index:7/ssid", "Both-Bands"},
                 {"/wlan/inf:2/multi/index:7/auth", "3"}, {"/wlan/inf:1/multi/index:7/passphrase", "12345678"},
                 {"/wlan/inf:1/vlan_id", "1"}});  // no 929: unchanged
    EXPECT_NE(slurp(lab().run_file(1, "xmldb.state")).find("/wlan/inf:1/ssid Lab-Renamed"), std::string::npos);
    Message list = ask(tav::kOpGetSsidList, {});
    EXPECT_EQ(list.text(927), "Lab-Renamed");
    EXPECT_EQ(list.text(931), "a-new-passphrase");
}

// Set requests row by row, each from the profile. Refused rows keep the
// writes made before the failing step, uncommitted, start nothing and print
// why; a manager of higher precedence holds the op code.
TEST_F(Ssid, SetRowsWriteTheirKeysOrStopAtTheFirstFailure) {
    const Mac holder{0x02, 0xe2, 0xe0, 0x55, 0, 1};
    ASSERT_EQ(ask(tav::kOpSetSsidList, u8(54, 9) + creds(), holder).result(), 0);
    Finally leave([&] { ask(tav::kOpBye, {}, holder); });
    const std::string i1 = "/wlan/inf:1/multi/index:1/", m2 = "/wlan/inf:1/multi/index:2/",
                      b2i1 = "/wlan/inf:2/multi/index:1/";
    const Group good{2, 1, "Applied-First"};
    auto weak = [](auto change) {
        Group g{1, 1, "Weak", 1};
        change(g);
        return g.bytes();
    };
    const std::string faild = "set_ssid_info faild\n";
    const struct {
        const char *what;
        Bytes body;
        uint16_t result;
        Keys keys;
        std::string printed;
    } rows[] = {
        {"index above 7", creds() + Group{8, 1, "Eight"}.bytes() + good.bytes(), 65535,
         {{m2 + "ssid", "Applied-First"}, {"/wlan/inf:1/multi/index:8/ssid", ""}}, faild},
        {"RADIUS address not dotted IPv4",
         creds() + weak([](Group &g) { g.auth = 2, g.radius_type = 1, g.radius_address = "radius.example.net"; }), 2,
         {{i1 + "auth", "2"}, {i1 + "radius_server", ""}}, "radius ip type or address error!" + faild},
        {"precedence after the groups", creds() + good.bytes() + u8(54, 3), 65533, {{m2 + "ssid", "Quelbo-Legacy"}}, ""},
        {"mask 3 writes both bands, the earlier group stays",
         creds() + Group{1, 3, "Both"}.bytes() + Group{1, 1, "Later"}.bytes(), 0,
         {{i1 + "ssid", "Both"}, {b2i1 + "ssid", "Both"}}, ""},
        // 70 bytes of name: 64 kept, the last 6 are a VLAN record of their own.
        {"name cut at 64", creds() + u8(926, 3) + tlv(927, Bytes(64, 'N') + Bytes{0x03, 0xA1, 0, 2, 0, 0x2A}) + u8(928, 1),
         0, {{"/wlan/inf:1/multi/index:3/ssid", std::string(64, 'N')}, {"/wlan/inf:1/multi/index:3/vlan_id", "42"}}, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        reload();
        out = output(lab(), 1);
        expect_set(ask(tav::kOpSetSsidList, row.body), row.result, row.printed);
        expect_keys(row.keys);
    }
}

TEST_F(Radio, SetWritesInOrderAndStopsAtTheFirstRefusal) {
    const Mac holder{0x02, 0xe2, 0xe0, 0x77, 0, 1};
    const Bytes same = creds() + be16(59, 82);  // the current country
    const struct {
        const char *what;
        Bytes body;
        uint16_t result;
        Keys keys;
        std::string printed;
    } rows[] = {
        {"radio 0x03: band 1 on, band 2 off", same + u8(533, 0x03), 0,
         {{"/wlan/inf:1/enable", "1"}, {"/wlan/inf:2/enable", "0"}}, ""},
        {"5 GHz refused after band 1 changed", same + be16(534, 0x000D) + be16(535, 0x001D), 204,
         {{"/wlan/inf:1/wlmode", "2"}, {"/wlan/inf:2/wlmode", "4"}},
         "set_wireless_mode,band=1,mode=6\nset_wireless_mode,band=2,mode=14\n"},
        {"no country index", creds() + u8(533, 0x01), 218, {{"/wlan/inf:1/enable", "0"}},
         "set_country_code: Unknown country!\n"},
        {"higher precedence", same + u8(533, 0x01) + u8(54, 2), 65533, {{"/wlan/inf:1/enable", "1"}}, ""},
    };
    ASSERT_EQ(ask(tav::kOpSetWirelessInfo, u8(54, 5) + same, holder).result(), 0);
    Finally leave([&] { ask(tav::kOpBye, {}, holder); });
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        reload();
        out = output(lab(), 1);
        expect_set(ask(tav::kOpSetWirelessInfo, row.body), row.result, row.printed);
        expect_keys(row.keys);
    }
}

// The manager is told to wait 120 s; the access point reboots 5 s later and
// comes back with the new country.
TEST_F(Radio, ACountryChangeRebootsIntoTheNewCountry) {
    const std::string boots = boot_count(lab());
    Message m = ask(tav::kOpSetWirelessInfo, creds() + be16(59, 75));
    EXPECT_EQ(m.result(), 0);
    EXPECT_EQ(m.tlvs, (TlvList{tlv_u32(393, 2), tlv_u32(394, 120000), tlv_u32(395, 0)}));
    ASSERT_TRUE(rebooted(lab(), boots));
    EXPECT_EQ(ev.lines(), (Lines{"submit COMMIT", "reboot"}));
    expect_keys({{"/sys/next_ccode", "250"}, {"/sys/country_name", "8"}, {"/tavclient/country_changed", "1"},
                 {"/runtime/layout/countrycode", "250"}});
    EXPECT_EQ(ask(tav::kOpGetWirelessInfo, {}).u16(59), 75);
}

WIRELESS_SUITE(ApArray, "wap");

// The list is refreshed through the stubs first; members come before
// unmanaged access points; an approved one is a member from the next refresh.
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
    ASSERT_EQ(ask(tav::kOpSetApArrayMemberList, creds() + tlv(14, {0, 0, 0x5e, 0, 0x53, 0xa2}) + u8(946, 1)).result(), 0);
    EXPECT_EQ(listed(u8(943, 3)), "0 02:7a:76:00:00:02,0 02:7a:76:00:00:03,0 00:00:5e:00:53:a2,1 00:00:5e:00:53:a1,");
}

// Actions run only once the request is authenticated, in request order.
TEST_F(ApArray, MemberActionsWaitForAuthentication) {
    const Bytes a1 = tlv(14, {0, 0, 0x5e, 0, 0x53, 0xa1});
    const std::string approve = "nb_submit ADD_APPROVE_LIST 00:00:5e:00:53:a1";
    const struct {
        const char *what;
        Bytes body;
        uint16_t result;
        Lines commands;
    } rows[] = {
        {"held until 54", a1 + u8(946, 1) + u8(946, 3) + creds() + u8(54, 1), 0,
         {approve, "nb_submit REBOOT_AP 00:00:5e:00:53:a1"}},
        {"credentials only after 54", a1 + u8(946, 1) + u8(54, 1) + creds(), 64, {}},
        {"after a passed 54 actions run as met", creds() + u8(54, 1) + a1 + u8(946, 1) + wrong_creds() + u8(54, 1), 64,
         {approve}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        ev.mark();
        Message m = ask(tav::kOpSetApArrayMemberList, row.body);
        EXPECT_EQ(std::tuple(m.result(), m.tlvs), std::tuple(row.result, row.result ? TlvList{} : kSetReply));
        EXPECT_EQ(ev.wait(row.commands.size()), row.commands);
    }
}

// The manager tool sends what it is told and the device's current values for
// the rest: a rename keeps a WPA-PSK SSID's passphrase, a mode change keeps
// the country; a band that is no access point lists nothing to keep.
TEST_F(ApArray, ManagerToolChangesOnlyWhatItIsTold) {
    const std::string legacy = "/wlan/inf:1/multi/index:2/", ap = "--target 02:7a:76:00:00:01 --user admin ";
    Sh r = tavctl(lab(), ap + "ssid set --index 2 --band 1 --name Renamed-Legacy");
    EXPECT_EQ(r.status, 0) << r.out;
    expect_keys({{legacy + "ssid", "Renamed-Legacy"}, {legacy + "auth", "3"},
                 {legacy + "passphrase", "legacy-passphrase"}, {legacy + "vlan_id", "20"}});
    r = tavctl(lab(), ap + "wireless set --mode2 ax --band1 off");
    EXPECT_EQ(r.status, 0) << r.out;
    expect_keys({{"/wlan/inf:2/wlmode", "5"}, {"/wlan/inf:1/enable", "0"}, {"/sys/country_index", "82"}});
    EXPECT_EQ(ev.wait(6), (Lines{"submit COMMIT", "submit WAN", "submit WLAN", "submit COMMIT", "submit WAN", "submit WLAN"}));
    set({{"/wlan/inf:2/ap_mode", "1"}});
    r = tavctl(lab(), ap + "ssid set --index 3 --band 2 --vlan 5");
    EXPECT_EQ(r.status, 2) << r.out;
    EXPECT_EQ(get("/wlan/inf:2/multi/index:3/ssid"), "Quelbo-Radius");
}

}  // namespace
}  // namespace e2e
