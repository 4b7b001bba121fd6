// The wireless handlers in the lab: status counters, the SSID list, bands,
// modes and country, clients, and the AP array. Replies are compared byte for
// byte with what the database calls for, worked out here from the keys; the
// set requests are checked by the keys they leave and the commands they run.
#include <map>

#include "proto/auth_codes.h"
#include "tests/e2e/e2e.h"

namespace e2e {
namespace {

using namespace tav::client;

Bytes admin() { return text(55, "admin") + text(56, "admin"); }
Bytes wrong_password() { return text(55, "admin") + text(56, "nimda"); }

// One SSID group of a set request.
struct Group {
    Group(uint8_t index, uint8_t band, std::string name, uint8_t auth = 0, uint8_t status = 1)
        : index(index), band(band), auth(auth), status(status), name(std::move(name)) {}
    uint8_t index, band, auth, status;
    std::string name;
    std::optional<std::string> passphrase, radius_address, radius_secret;
    std::optional<uint8_t> radius_type;
    std::optional<uint16_t> vlan;
    Bytes bytes() const {
        Bytes b = u8(926, index) + text(927, name) + u8(928, band) + u8(930, auth) + u8(935, status);
        if (vlan) b = b + be16(929, *vlan);
        if (passphrase) b = b + text(931, *passphrase);
        if (radius_type) b = b + u8(932, *radius_type);
        if (radius_address) b = b + text(933, *radius_address);
        if (radius_secret) b = b + text(934, *radius_secret);
        return b;
    }
};

Record rec(uint16_t tag, Bytes v) { return Record{tag, std::move(v)}; }
const TlvList kSetReply{tlv_u32(393, 2), tlv_u32(394, 60000), tlv_u32(395, 0)};

// The access point's database as the tests see it, and the device commands
// it ran (the stub calls of events.log, without the tests' own rgdb calls).
class Ap {
  public:
    explicit Ap(const Lab &lab) : lab_(lab), ev_(lab, 1) {}
    std::string get(const std::string &key) const { return lab_.db_get(1, key); }
    int num(const std::string &key, size_t width = 30) const {
        return std::atoi(get(key).substr(0, width).c_str());
    }
    void set(const std::string &key, const std::string &value) const {
        ASSERT_TRUE(lab_.db_set(1, key, value));
    }
    void set(const std::vector<std::pair<std::string, std::string>> &kv) const {
        for (const auto &[k, v] : kv) set(k, v);
    }
    // Marks the event log: commands() lists what came after.
    void mark() { ev_.mark(); }
    std::vector<std::string> commands() const { return ev_.lines(); }
    std::vector<std::string> commands_when(size_t n) const { return ev_.wait(n); }

  private:
    const Lab &lab_;
    Events ev_;
};

// Every test starts from the profile, with the counters held still.
template <class Self>
struct WirelessSuite : LabSuite<Self> {
    static constexpr int kAps = 1;
    static std::string kUpArgs() { return ""; }
    void SetUp() override {
        LabSuite<Self>::SetUp();
        if (this->HasFatalFailure() || this->IsSkipped()) return;
        Sh r = this->lab().on_ap(1, "touch /var/run/stats.hold && rm -f /var/run/mesh.peers && rgdb -l /usr/lib/tavlab/profile");
        ASSERT_EQ(r.status, 0) << r.out;
        ap.mark();
        out = output(this->lab(), 1);
    }
    // A request body as it is, over raw Ethernet from `from` (a manager MAC).
    Message ask(uint16_t op, const Bytes &body, std::optional<Mac> from = {}) {
        Client c = this->lab().raw(from);
        auto got = send_body(c, op, body);
        if (!got) {
            ADD_FAILURE() << "no reply to op " << op;
            return Message{};
        }
        size_t n = 0;
        for (const auto &r : got->tlvs) n += 4 + r.value.size();
        EXPECT_EQ(got->header->body_length, n);
        return *got;
    }
    Ap ap{LabSuite<Self>::lab()};
    std::function<std::string()> out;
};
#define WIRELESS_SUITE(Name, code)                                      \
    struct Name : WirelessSuite<Name> {                                 \
        static constexpr const char *kCode = code;                      \
    }

// ---- status counters ------------------------------------------------------

WIRELESS_SUITE(Status, "wst");

TEST_F(Status, CountersAreReportedByteForByteWhateverTheRequest) {
    ap.set({{"/runtime/cpu/status/alluser_utilize", "300"},
            {"/runtime/mem/status/alluser_utilize", "41"},
            {"/runtime/stats/wireless/inf:1/showtx/bytes", "12345678901"},
            {"/runtime/stats/wireless/inf:1/showrx/bytes", "1024 bytes"},
            {"/runtime/stats/wireless/inf:2/showtx/bytes", "bytes"},
            {"/runtime/stats/wireless/inf:2/showrx/bytes", ""},
            {"/runtime/stats/ethernet/tx/bytes", "18446744073"},
            {"/runtime/stats/ethernet/rx/bytes", " 7"}});
    const TlvList want{
        rec(517, {44}),
        rec(518, {41}),
        rec(519, {0, 0, 0, 2, 0xDF, 0xDC, 0x1C, 0x35}),
        rec(520, {0, 0, 0, 0, 0, 0, 4, 0}),
        rec(521, {0, 0, 0, 0, 0, 0, 0, 0}),
        rec(522, {0, 0, 0, 0, 0, 0, 0, 0}),
        rec(523, {0, 0, 0, 4, 0x4B, 0x82, 0xFA, 0x09}),
        rec(524, {0, 0, 0, 0, 0, 0, 0, 7}),
    };
    for (const Bytes &body : {Bytes{}, admin() + u8(54, 9) + text(999, "x")}) {
        Message m = ask(tav::kOpGetDeviceStatus, body);
        EXPECT_EQ(m.result(), 0);
        EXPECT_EQ(m.header->body_length, 82);
        EXPECT_EQ(listing(m.tlvs), listing(want));
    }
    EXPECT_EQ(ap.commands(), std::vector<std::string>{});
}

TEST_F(Status, CountersMoveWhileTheStatisticsServiceRuns) {
    ASSERT_EQ(lab().on_ap(1, "rm -f /var/run/stats.hold").status, 0);
    Finally hold([&] { lab().on_ap(1, "touch /var/run/stats.hold"); });
    const auto first = ask(tav::kOpGetDeviceStatus, {}).u64(tav::kTagLanSend);
    ASSERT_TRUE(first);
    EXPECT_TRUE(until([&] { return ask(tav::kOpGetDeviceStatus, {}).u64(tav::kTagLanSend) > first; },
                      10s));
}

// ---- SSID list ------------------------------------------------------------

WIRELESS_SUITE(Ssid, "wss");


std::string ssid_key(int band, int index, const std::string &primary, const std::string &more) {
    const std::string b = "/wlan/inf:" + std::to_string(band) + "/";
    return index == 0 ? b + primary : b + "multi/index:" + std::to_string(index) + "/" + more;
}

TlvList expected_ssid_groups(const Ap &ap, int band) {
    TlvList t;
    auto key = [&](int i, const char *p, const char *m) { return ssid_key(band, i, p, m); };
    for (int i = 0; i <= 7; ++i) {
        t.push_back(tlv_u8(926, uint8_t(i)));
        t.push_back(tlv_text(927, ap.get(key(i, "ssid", "ssid")).substr(0, 62)));
        t.push_back(tlv_u8(928, uint8_t(band)));
        t.push_back(tlv_u16(929, uint16_t(ap.num(key(i, "vlan_id", "vlan_id"), 6))));
        const uint8_t code = tav::auth_code_of(ap.num(key(i, "authentication", "auth"), 31));
        t.push_back(tlv_u8(930, code));
        if (tav::credential_of(code) == tav::Credential::Psk)
            t.push_back(tlv_text(931, ap.get(key(i, "wpa/wpapsk", "passphrase")).substr(0, 126)));
        if (tav::credential_of(code) == tav::Credential::Radius) {
            t.push_back(tlv_u8(932, 1));
            t.push_back(tlv_text(933, ap.get(key(i, "wpa/radiusserver", "radius_server")).substr(0, 62)));
            t.push_back(tlv_text(934, ap.get(key(i, "wpa/radiussecret", "radius_secret")).substr(0, 62)));
        }
        const std::string b = "/wlan/inf:" + std::to_string(band);
        t.push_back(tlv_u8(935, i == 0 ? 1
                                      : uint8_t(ap.num(b + "/multi/state") &
                                                ap.num(key(i, "", "state")))));
    }
    return t;
}

TlvList expected_ssid_list(const Ap &ap) {
    const uint8_t mask = uint8_t((uint8_t(ap.num("/wlan/inf:1/ap_mode")) == 0 ? 1 : 0) |
                                 (uint8_t(ap.num("/wlan/inf:2/ap_mode")) == 0 ? 2 : 0));
    TlvList t{tlv_u8(525, mask), rec(526, {0xFF, 0x01, 0, 0}), tlv_u8(527, 1)};
    for (int band = 1; band <= 2; ++band)
        if (mask & band) {
            TlvList g = expected_ssid_groups(ap, band);
            t.insert(t.end(), g.begin(), g.end());
        }
    t.push_back(tlv_u16(501, 0));
    return t;
}

TEST_F(Ssid, ListMatchesTheDatabaseByteForByte) {
    const std::vector<std::pair<std::string, std::string>> cases[] = {
        {},  // the profile: every authentication class
        {{"/wlan/inf:2/ap_mode", "1"},  // band 2 not an access point: band mask 1
         {"/wlan/inf:1/multi/index:2/auth", "8"},  // outside the table: code 0, no credential
         {"/wlan/inf:1/ssid", std::string(70, 's')},
         {"/wlan/inf:1/multi/index:4/passphrase", std::string(130, 'p')},
         {"/wlan/inf:1/vlan_id", "4094x"},
         {"/wlan/inf:1/multi/state", "0"}},
        {{"/wlan/inf:1/ap_mode", "256"},  // low 8 bits 0: still an access point
         {"/wlan/inf:2/ap_mode", "0"},
         {"/wlan/inf:1/multi/index:3/auth", "9"},
         {"/wlan/inf:1/multi/index:3/radius_server", std::string(66, 'r')},
         {"/wlan/inf:1/multi/state", "3"},
         {"/wlan/inf:1/multi/index:1/state", "6"}},  // 3 & 6 = 2
        {{"/wlan/inf:1/ap_mode", "1"}, {"/wlan/inf:2/ap_mode", "2"}},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE("case " + std::to_string(i));
        ap.set(cases[i]);
        Message m = ask(tav::kOpGetSsidList, text(999, "ignored"));
        EXPECT_EQ(m.result(), 0);
        EXPECT_EQ(listing(m.tlvs), listing(expected_ssid_list(ap)));
    }
}

// Rename the primary SSID, WPA2-PSK with a new passphrase; an additional
// SSID of both bands switched on as WPA-PSK; read back through the list.
TEST_F(Ssid, SetAppliesEveryGroupThenCommitsAndRestartsTheWirelessService) {
    ap.set({{"/wlan/inf:2/multi/state", "0"}, {"/wlan/inf:1/multi/index:7/state", "0"}});
    Group primary(0, 1, "Lab-Renamed", 3, 0);
    primary.passphrase = "a-new-passphrase";
    Group both(7, 3, "Both-Bands", 1, 4);
    both.passphrase = "12345678";
    Message m = ask(tav::kOpSetSsidList, u8(54, 3) + admin() + primary.bytes() + both.bytes() +
                                             be16(501, 0) + text(4242, "unknown"));
    EXPECT_EQ(m.result(), 0);
    EXPECT_EQ(m.tlvs, kSetReply);
    EXPECT_EQ(ap.commands_when(3),
              (std::vector<std::string>{"submit COMMIT", "submit WAN", "submit WLAN"}));
    const std::map<std::string, std::string> want{
        {"/wlan/inf:1/ssid", "Lab-Renamed"},
        {"/wlan/inf:1/authentication", "5"},
        {"/wlan/inf:1/wpa/wepmode", "4"},
        {"/wlan/inf:1/wpa/passphraseformat", "1"},
        {"/wlan/inf:1/wpa/wpapsk", "a-new-passphrase"},
        {"/wlan/inf:2/multi/state", "1"},
        {"/wlan/inf:1/multi/index:7/state", "4"},
        {"/wlan/inf:2/multi/index:7/state", "4"},
        {"/wlan/inf:2/multi/index:7/ssid", "Both-Bands"},
        {"/wlan/inf:2/multi/index:7/auth", "3"},
        {"/wlan/inf:2/multi/index:7/cipher", "4"},
        {"/wlan/inf:2/multi/index:7/passphrase", "12345678"},
        {"/wlan/inf:1/multi/index:7/passphrase", "12345678"},
        {"/wlan/inf:1/vlan_id", "1"},  // no 929: unchanged
    };
    for (const auto &[k, v] : want) EXPECT_EQ(ap.get(k), v) << k;
    // Committed: the state file holds the new values.
    EXPECT_NE(slurp(lab().run_file(1, "xmldb.state")).find("/wlan/inf:1/ssid Lab-Renamed"),
              std::string::npos);
    Message list = ask(tav::kOpGetSsidList, {});
    EXPECT_EQ(listing(list.tlvs), listing(expected_ssid_list(ap)));
}

// Set requests row by row, each from the profile. Accepted rows commit and
// restart the wireless service; refused rows keep the writes made before the
// failing step, uncommitted, start nothing and print why. Walk rows bend the
// record lengths; order rows show which group wins and which bands a mask
// writes.
TEST_F(Ssid, SetRowsWriteTheirKeysOrStopAtTheFirstFailure) {
    const Mac holder{0x02, 0xe2, 0xe0, 0x55, 0, 1};
    ASSERT_EQ(ask(tav::kOpSetSsidList, u8(54, 9) + admin(), holder).result(), 0);
    Finally leave([&] { ask(tav::kOpBye, {}, holder); });
    const std::string i1 = "/wlan/inf:1/multi/index:1/", m2 = "/wlan/inf:1/multi/index:2/";
    const std::string b2i1 = "/wlan/inf:2/multi/index:1/", b2i3 = "/wlan/inf:2/multi/index:3/";
    const Group good(2, 1, "Applied-First", 0, 1);
    const Group weak(1, 1, "Weak", 1, 1);
    auto with = [](Group g, auto change) {
        change(g);
        return g.bytes();
    };
    const std::string faild = "set_ssid_info faild\n";
    const std::string radius = "radius ip type or address error!set_ssid_info faild\n";
    // 70 bytes of name: 64 kept, the last 6 are a VLAN record of their own.
    const Bytes name70 = Bytes(64, 'N') + Bytes{0x03, 0xA1, 0x00, 0x02, 0x00, 0x2A};
    const struct {
        const char *what;
        Bytes body;
        uint16_t result;
        std::map<std::string, std::string> keys;
        const char *printed = nullptr;  // checked when set
    } rows[] = {
        // refusals
        // a group that is otherwise valid, so nothing but its index refuses it
        {"index above 7", admin() + Group(8, 1, "Eight").bytes() + good.bytes(), 65535,
         {{m2 + "ssid", "Applied-First"}, {m2 + "state", "1"}, {"/wlan/inf:1/multi/index:8/ssid", ""}},
         faild.c_str()},
        {"code above 12", admin() + with(weak, [](Group &g) { g.auth = 13; }), 206,
         {{i1 + "ssid", "Weak"}, {i1 + "auth", "0"}}, "set_auth_type failed!\nset_ssid_info faild\n"},
        {"RADIUS address type", admin() + with(weak, [](Group &g) {
             g.auth = 2, g.radius_type = 2, g.radius_address = "198.51.100.9";
         }),
         2, {{i1 + "auth", "2"}, {i1 + "cipher", "4"}, {i1 + "radius_server", ""}}, radius.c_str()},
        {"RADIUS address not dotted IPv4", admin() + with(weak, [](Group &g) {
             g.auth = 2, g.radius_type = 1, g.radius_address = "radius.example.net";
         }),
         2, {{i1 + "radius_server", ""}}, radius.c_str()},
        {"WPA2-EAP address type checked too", admin() + with(Group(3, 2, "Radius", 4, 1), [](Group &g) {
             g.radius_address = "198.51.100.77";  // no 932: type 0
         }),
         2, {{b2i3 + "radius_server", "203.0.113.5"}, {b2i3 + "auth", "4"}}, radius.c_str()},
        {"passphrase of 7", admin() + with(weak, [](Group &g) { g.passphrase = "1234567"; }), 65535,
         {{i1 + "auth", "3"}, {i1 + "passphrase", ""}}, faild.c_str()},
        {"passphrase of 64", admin() + with(weak, [](Group &g) { g.passphrase = std::string(64, 'p'); }),
         65535, {{i1 + "passphrase", ""}}, faild.c_str()},
        {"no passphrase for code 1", admin() + weak.bytes(), 65535, {{i1 + "passphrase", ""}}, faild.c_str()},
        {"WPA2-PSK passphrase too short",
         admin() + with(Group(1, 2, "Psk", 3, 1), [](Group &g) { g.passphrase = "short"; }), 65535,
         {{b2i1 + "passphrase", ""}, {b2i1 + "auth", "5"}}, faild.c_str()},
        {"VLAN above 4096", admin() + with(weak, [](Group &g) { g.vlan = 4097, g.auth = 0; }), 65535,
         {{i1 + "ssid", "Weak"}, {i1 + "vlan_id", "10"}, {i1 + "auth", "0"}, {i1 + "cipher", "0"}},
         faild.c_str()},
        {"wrong password", wrong_password() + good.bytes(), 64, {{m2 + "ssid", "Quelbo-Legacy"}}, ""},
        {"precedence after the groups", admin() + good.bytes() + u8(54, 3), 65533,
         {{m2 + "ssid", "Quelbo-Legacy"}, {m2 + "state", "0"}}, ""},
        // optional settings: written when given, kept otherwise
        {"nothing optional", admin() + Group(1, 2, "Psk", 3, 1).bytes() + Group(3, 2, "Radius", 4, 1).bytes(), 0,
         {{b2i1 + "vlan_id", "10"}, {b2i1 + "passphrase", ""}, {b2i1 + "auth", "5"},
          {b2i3 + "radius_server", "203.0.113.5"}, {b2i3 + "radius_secret", "radius-secret-lab"}}},
        {"all given",
         admin() + with(Group(1, 2, "Psk", 3, 1), [](Group &g) { g.vlan = 4096, g.passphrase = "wpa2-passphrase"; }) +
             with(Group(3, 2, "Radius", 4, 1), [](Group &g) {
                 g.vlan = 0, g.radius_type = 1, g.radius_address = "198.51.100.77", g.radius_secret = "new";
             }),
         0,
         {{b2i1 + "vlan_id", "4096"}, {b2i1 + "passphrase", "wpa2-passphrase"}, {b2i1 + "passphraseformat", "1"},
          {b2i3 + "vlan_id", "0"}, {b2i3 + "radius_server", "198.51.100.77"}, {b2i3 + "radius_secret", "new"}}},
        // walk: cut values, excess read as the next record
        {"name cut at 64", admin() + u8(926, 3) + tlv(927, name70) + u8(928, 1), 0,
         {{"/wlan/inf:1/multi/index:3/ssid", std::string(64, 'N')}, {"/wlan/inf:1/multi/index:3/vlan_id", "42"}}},
        // 54 declared 2 long still moves 5 bytes: its second byte starts 926
        {"precedence moves five bytes",
         admin() + tlv(54, {0xFF}, 2) + Bytes{0x03, 0x9E, 0x00, 0x01, 0x04} + u8(928, 1) + text(927, "P"), 0,
         {{"/wlan/inf:1/multi/index:4/ssid", "P"}}},
        {"group values before any 926 are dropped",
         admin() + text(927, "Orphan") + u8(928, 1) + u8(926, 5) + u8(928, 1), 0,
         {{"/wlan/inf:1/multi/index:5/ssid", ""}}},
        {"band byte cut to 1, index fixed 1", admin() + tlv(926, {6}, 2) + tlv(928, Bytes{1} + text(927, "Six")), 0,
         {{"/wlan/inf:1/multi/index:6/ssid", "Six"}, {"/wlan/inf:2/multi/index:6/ssid", "Quelbo-Open-5G"}}},
        // order and band choice
        {"earlier group of the same SSID stays",
         admin() + Group(1, 1, "Earlier").bytes() + Group(1, 1, "Later").bytes(), 0, {{i1 + "ssid", "Earlier"}}},
        {"mask 3 writes both bands", admin() + Group(1, 3, "Both").bytes(), 0,
         {{i1 + "ssid", "Both"}, {b2i1 + "ssid", "Both"}}},
        {"mask 0 changes nothing", admin() + Group(1, 0, "None").bytes(), 0,
         {{i1 + "ssid", "Quelbo-Guest"}, {b2i1 + "ssid", "Quelbo-Guest-5G"}}},
        {"primary stays on at status 0", admin() + Group(0, 2, "Primary", 0, 0).bytes(), 0,
         {{"/wlan/inf:2/ssid", "Primary"}, {"/wlan/inf:2/state", ""}}},
        {"disabling leaves the band's state", admin() + Group(1, 1, "Lab", 0, 0).bytes(), 0,
         {{i1 + "state", "0"}, {"/wlan/inf:1/multi/state", "1"}}},
        {"no group at all", admin(), 0, {{i1 + "ssid", "Quelbo-Guest"}}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        ASSERT_EQ(lab().on_ap(1, "rgdb -l /usr/lib/tavlab/profile").status, 0);
        ap.set(m2 + "state", "0");
        ap.mark();
        auto printed = output(lab(), 1);
        Message m = ask(tav::kOpSetSsidList, row.body);
        EXPECT_EQ(m.result(), row.result);
        EXPECT_EQ(m.tlvs, row.result ? TlvList{} : kSetReply);
        for (const auto &[k, v] : row.keys) EXPECT_EQ(ap.get(k), v) << k;
        const Lines wlan{"submit COMMIT", "submit WAN", "submit WLAN"};
        EXPECT_EQ(ap.commands_when(row.result ? 0 : 3), row.result ? Lines{} : wlan);
        if (row.printed) {
            EXPECT_EQ(printed(), row.printed);
        }
    }
}

// ---- bands, modes and country ------------------------------------------------

WIRELESS_SUITE(Radio, "wrd");

TEST_F(Radio, InformationMatchesTheDatabase) {
    const struct {
        std::vector<std::pair<std::string, std::string>> keys;
        uint8_t status;
        uint16_t mode1, mode2, country;
    } rows[] = {
        {{}, 3, 14, 25, 82},
        {{{"/wlan/inf:2/enable", "0"}, {"/wlan/inf:1/wlmode", "4"}, {"/wlan/inf:2/wlmode", "5"}},
         1, 32, 32, 82},
        {{{"/wlan/inf:1/enable", "2"}, {"/wlan/inf:1/wlmode", "2"}, {"/wlan/inf:2/wlmode", "2"},
          {"/runtime/layout/countrycode", "840"}},
         2, 6, 1, 234},
        {{{"/wlan/inf:2/ap_mode", "1"}, {"/wlan/inf:1/wlmode", "9"}, {"/wlan/inf:2/wlmode", "1"},
          {"/runtime/layout/countrycode", "392"}},
         1, 8, 9, 110},  // band 2 no access point: its status bit clear
    };
    for (const auto &row : rows) {
        ASSERT_EQ(lab().on_ap(1, "rgdb -l /usr/lib/tavlab/profile").status, 0);
        ap.set(row.keys);
        Message m = ask(tav::kOpGetWirelessInfo, {});
        EXPECT_EQ(m.result(), 0);
        EXPECT_EQ(listing(m.tlvs),
                  listing({tlv_u8(525, 3), tlv_u8(528, row.status), tlv_u16(529, 46),
                           tlv_u16(530, row.mode1), tlv_u16(531, 57), tlv_u16(532, row.mode2),
                           tlv_u16(59, row.country)}));
    }
}

TEST_F(Radio, SetWritesInOrderAndStopsAtTheFirstRefusal) {
    const Mac holder{0x02, 0xe2, 0xe0, 0x77, 0, 1};
    const Bytes same = admin() + be16(59, 82);  // the current country
    const std::vector<std::string> wlan{"submit COMMIT", "submit WAN", "submit WLAN"};
    const struct {
        const char *what;
        std::vector<std::pair<std::string, std::string>> before;
        Bytes body;
        uint16_t result;
        std::map<std::string, std::string> keys;
        std::string printed;
    } rows[] = {
        {"radio 0x03: band 1 on, band 2 off", {{"/wlan/inf:1/enable", "0"}}, same + u8(533, 0x03), 0,
         {{"/wlan/inf:1/enable", "1"}, {"/wlan/inf:2/enable", "0"}}, ""},
        {"radio 0x06: apply bit clear", {}, same + u8(533, 0x06), 0,
         {{"/wlan/inf:1/enable", "1"}, {"/wlan/inf:2/enable", "1"}}, ""},
        {"5 GHz code 25", {}, same + be16(535, 0x0033), 0, {{"/wlan/inf:2/wlmode", "4"}},
         "set_wireless_mode,band=2,mode=25\n"},
        {"5 GHz change bit clear", {}, same + be16(535, 0x0032), 0, {{"/wlan/inf:2/wlmode", "4"}}, ""},
        {"5 GHz code 8 narrows the channel", {}, same + be16(535, 0x0011), 0,
         {{"/wlan/inf:2/wlmode", "3"}, {"/wlan/inf:2/cwmmode", "0"}},
         "set_wireless_mode,band=2,mode=8\n"},
        {"2.4 GHz code 32, 5 GHz code 9", {{"/wlan/inf:2/cwmmode", "1"}},
         same + be16(534, 0x0041) + be16(535, 0x0013), 0,
         {{"/wlan/inf:1/wlmode", "4"}, {"/wlan/inf:2/wlmode", "1"}, {"/wlan/inf:2/cwmmode", "1"}},
         "set_wireless_mode,band=1,mode=32\nset_wireless_mode,band=2,mode=9\n"},
        {"one byte of mode: the high byte", {}, same + tlv(534, {0x00}) + tlv(535, {0x01}), 0,
         {{"/wlan/inf:2/wlmode", "4"}}, ""},
        {"2.4 GHz code 9 refused", {}, same + u8(533, 0x05) + be16(534, 0x0013), 204,
         {{"/wlan/inf:1/enable", "0"}, {"/wlan/inf:1/wlmode", "1"}},
         "set_wireless_mode,band=1,mode=9\n"},
        {"5 GHz refused after band 1 changed", {}, same + be16(534, 0x000D) + be16(535, 0x001D), 204,
         {{"/wlan/inf:1/wlmode", "2"}, {"/wlan/inf:2/wlmode", "4"}},
         "set_wireless_mode,band=1,mode=6\nset_wireless_mode,band=2,mode=14\n"},
        {"no country index", {}, admin() + u8(533, 0x01), 218,
         {{"/wlan/inf:1/enable", "0"}, {"/sys/country_index", "82"}},
         "set_country_code: Unknown country!\n"},
        {"locked country", {{"/runtime/layout/countrycode", "840"}}, admin() + be16(59, 233), 218,
         {{"/sys/country_index", "233"}, {"/runtime/layout/countrycode", "840"}},
         "WARNING: country code is not allowed to change for current country!"},
        {"wrong password", {}, wrong_password() + be16(59, 82) + u8(533, 0x01), 64,
         {{"/wlan/inf:1/enable", "1"}}, ""},
        {"higher precedence", {}, same + u8(533, 0x01) + u8(54, 2), 65533, {{"/wlan/inf:1/enable", "1"}},
         ""},
    };
    ASSERT_EQ(ask(tav::kOpSetWirelessInfo, u8(54, 5) + same, holder).result(), 0);
    Finally leave([&] { ask(tav::kOpBye, {}, holder); });
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        ASSERT_EQ(lab().on_ap(1, "rgdb -l /usr/lib/tavlab/profile").status, 0);
        ap.set(row.before);
        ap.mark();
        auto printed = output(lab(), 1);
        Message m = ask(tav::kOpSetWirelessInfo, row.body);
        EXPECT_EQ(m.result(), row.result);
        EXPECT_EQ(m.tlvs, row.result ? TlvList{} : kSetReply);
        for (const auto &[k, v] : row.keys) EXPECT_EQ(ap.get(k), v) << k;
        EXPECT_EQ(ap.commands_when(row.result ? 0 : 3),
                  row.result ? std::vector<std::string>{} : wlan);
        EXPECT_TRUE(until([&] { return printed() == row.printed; }, 1s)) << printed();
    }
}

// The manager is told to wait 120 s; the access point reboots 5 s later and
// comes back with the new country.
TEST_F(Radio, ACountryChangeRebootsIntoTheNewCountry) {
    const std::string boots = slurp(lab().run_file(1, "boot_count"));
    Message m = ask(tav::kOpSetWirelessInfo, admin() + be16(59, 75));
    EXPECT_EQ(m.result(), 0);
    EXPECT_EQ(m.tlvs, (TlvList{tlv_u32(393, 2), tlv_u32(394, 120000), tlv_u32(395, 0)}));
    // Read at once: the reboot is only 5 s away, and a slow machine's reads
    // of the keys below could outlast it.
    const auto first = ap.commands_when(1);
    ASSERT_FALSE(first.empty());
    EXPECT_EQ(first.front(), "submit COMMIT");
    EXPECT_EQ(ap.get("/sys/next_ccode"), "250");
    EXPECT_EQ(ap.get("/sys/country_name"), "8");
    EXPECT_EQ(ap.get("/tavclient/country_changed"), "1");
    ASSERT_TRUE(until([&] { return slurp(lab().run_file(1, "boot_count")) != boots; }, 15s));
    EXPECT_EQ(ap.commands(), (std::vector<std::string>{"submit COMMIT", "reboot"}));
    ASSERT_TRUE(until([&] { return lab().serving(1); }, 10s));
    Message after = ask(tav::kOpGetWirelessInfo, {});
    EXPECT_EQ(after.u16(59), 75);
    EXPECT_EQ(ap.get("/runtime/layout/countrycode"), "250");
}

// ---- clients ----------------------------------------------------------------

WIRELESS_SUITE(Clients, "wcl");

TEST_F(Clients, ListFollowsBandsSsidsAndClientNumbers) {
    const std::string c1 = "/runtime/stats/wlan/inf:1/", c2 = "/runtime/stats/wlan/inf:2/";
    ap.set({
        {"/wlan/inf:2/ap_mode", "1"},                  // band 2 lists nothing
        {"/wlan/inf:1/multi/index:2/state", "0"},      // SSID 2 skipped, 3 still scanned
        {c1 + "client:2/auth", "WPA2-PSK-SAE"},        // 8 characters match: 3
        {c1 + "client:3/mac", ""},                     // numbering stops here
        {c1 + "client:4/mac", "00:00:5e:00:53:44"},
        {c1 + "client:1/auth", "WPA3-EAP"},            // exact: 12
        {c1 + "mssid:3/client:1/auth", "WPA3-EAPX"},   // not exact: 0
        {c1 + "mssid:3/client:2/mac", "00:00:5E:00:53:3A"},
        {c1 + "mssid:3/client:2/auth", "Enhanced Open"},
        {c1 + "mssid:3/client:2/rssi", "-67"},
        {c1 + "channel", "262"},                       // low 8 bits: 6
        {"/wlan/inf:1/multi/index:3/ssid", std::string(66, 'c')},
    });
    auto group = [](Mac mac, const std::string &ssid, uint8_t auth, int32_t rssi) {
        return TlvList{tlv_mac(14, mac), tlv_text(922, ssid), tlv_u8(512, 0), tlv_u8(923, 6),
                       tlv_u8(924, auth), tlv_u32(925, uint32_t(rssi))};
    };
    TlvList want;
    for (const TlvList &g : {group({0, 0, 0x5e, 0, 0x53, 1}, "Quelbo-Lab", 12, -48),
                             group({0, 0, 0x5e, 0, 0x53, 2}, "Quelbo-Lab", 3, -67),
                             group({0, 0, 0x5e, 0, 0x53, 3}, "Quelbo-Guest", 0, -71),
                             group({0, 0, 0x5e, 0, 0x53, 5}, std::string(62, 'c'), 0, -55),
                             group({0, 0, 0x5e, 0, 0x53, 0x3a}, std::string(62, 'c'), 5, -67)})
        want.insert(want.end(), g.begin(), g.end());
    want.push_back(tlv_u16(501, 0));
    Message m = ask(tav::kOpGetClientList, {});
    EXPECT_EQ(m.result(), 0);
    EXPECT_EQ(listing(m.tlvs), listing(want));
    EXPECT_EQ(hex(m.tlvs[5].value) + hex(m.tlvs[11].value), "ffffffd0ffffffbd");

    // Band 1 without additional SSIDs in use: only its primary SSID; band 2
    // listed after band 1, with band 1 (TLV 512) and its own channel.
    ap.set({{"/wlan/inf:1/multi/state", "0"}, {"/wlan/inf:2/ap_mode", "0"},
            {"/wlan/inf:2/multi/state", "0"}, {c2 + "client:2/mac", ""}});
    m = ask(tav::kOpGetClientList, {});
    std::string seen;
    for (const auto &r : m.tlvs)
        if (r.tag == 14 || r.tag == 512 || r.tag == 923) seen += hex(r.value) + " ";
    EXPECT_EQ(seen, "00005e005301 00 06 00005e005302 00 06 00005e005311 01 24 ");
    ap.set({{"/wlan/inf:1/ap_mode", "1"}, {"/wlan/inf:2/ap_mode", "1"}});
    EXPECT_EQ(ask(tav::kOpGetClientList, {}).tlvs, TlvList{tlv_u16(501, 0)});
}

// ---- AP array ----------------------------------------------------------------

WIRELESS_SUITE(ApArray, "wap");

TEST_F(ApArray, SettingsReadAndReplacedWhole) {
    auto info = [&](uint8_t role, const std::string &name, uint8_t filter, uint8_t master,
                    uint8_t add, uint8_t enable) {
        return listing({tlv_u8(936, enable), tlv_u8(937, role), tlv_text(938, name),
                        tlv_u8(939, filter), tlv_u8(940, master), tlv_u8(941, add), tlv_u8(942, 16)});
    };
    EXPECT_EQ(listing(ask(tav::kOpGetApArrayInfo, {}).tlvs), info(1, "QuelboLab", 1, 1, 0, 1));
    const struct {
        const char *role;
        uint8_t code;
    } roles[] = {{"", 0}, {"1", 1}, {"0", 2}, {"2", 2}, {"01", 1}};
    for (const auto &r : roles) {
        ap.set("/runtime/super_mesh/apsond_ap_mode", r.role);
        EXPECT_EQ(ask(tav::kOpGetApArrayInfo, {}).u8(937), r.code) << r.role;
    }
    const struct {
        const char *what;
        Bytes body;
        uint16_t result;
        std::string role_key, after, domain;
    } rows[] = {
        {"everything", admin() + u8(936, 1) + u8(937, 2) + tlv(938, str("ArrayName16chars")) +
                           u8(939, 1) + u8(940, 1) + u8(941, 1),
         0, "0", info(2, "ArrayName16cha", 1, 1, 1, 1), "ArrayName16chars"},
        {"only enable: the rest cleared", admin() + u8(936, 1), 0, "",
         info(0, "", 0, 0, 0, 1), ""},
        {"role 1, name cut to 16", admin() + u8(937, 1) + text(938, "a-name-longer-than-16"), 0, "1",
         info(1, "a-name-longer-", 0, 0, 0, 0), "a-name-longer-th"},
        {"wrong password", wrong_password() + u8(936, 0), 64, "1", info(1, "QuelboLab", 1, 1, 0, 1), "QuelboLab"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        ASSERT_EQ(lab().on_ap(1, "rgdb -l /usr/lib/tavlab/profile").status, 0);
        ap.mark();
        Message m = ask(tav::kOpSetApArrayInfo, row.body);
        EXPECT_EQ(m.result(), row.result);
        EXPECT_EQ(m.tlvs, row.result ? TlvList{} : kSetReply);
        EXPECT_EQ(ap.get("/runtime/super_mesh/apsond_ap_mode"), row.role_key);
        EXPECT_EQ(ap.get("/sys/super_mesh/domain"), row.domain);
        EXPECT_EQ(listing(ask(tav::kOpGetApArrayInfo, {}).tlvs), row.after);
        const std::vector<std::string> want =
            row.result ? std::vector<std::string>{} : std::vector<std::string>{"submit COMMIT", "submit SMESH"};
        EXPECT_EQ(ap.commands_when(want.size()), want);
    }
}

TEST_F(ApArray, DeviceListRefreshesThenListsMembersBeforeUnmanagedAndApprovalsJoin) {
    auto member = [](const char *name, uint8_t last, uint8_t status) {
        return TlvList{tlv_u16(502, 0xFFFF), tlv_u8(944, 0), tlv_text(8, "QAP-2230"),
                       tlv_text(9, name), tlv_mac(14, {2, 0x7a, 0x76, 0, 0, last}),
                       tlv_u8(945, status)};
    };
    auto unmanaged = [](const char *model, uint8_t last) {
        return TlvList{tlv_u16(502, 0xFFFF), tlv_u8(944, 1), tlv_text(8, model), tlv_text(9, model),
                       tlv_mac(14, {0, 0, 0x5e, 0, 0x53, last})};
    };
    auto cat = [](std::initializer_list<TlvList> parts) {
        TlvList t;
        for (const auto &p : parts) t.insert(t.end(), p.begin(), p.end());
        t.push_back(tlv_u16(501, 0xEEEE));
        return t;
    };
    const TlvList members = cat({member("AP-Lab-2", 2, 1), member("AP-Lab-3", 3, 0)});
    const struct {
        Bytes body;
        TlvList want;
    } rows[] = {
        {{}, cat({})},
        {u8(943, 1), members},
        {u8(943, 2), cat({unmanaged("QAP-1210", 0xa1), unmanaged("QAP-3350", 0xa2)})},
        {tlv(943, {3, 0}) + u8(54, 1),
         cat({member("AP-Lab-2", 2, 1), member("AP-Lab-3", 3, 0), unmanaged("QAP-1210", 0xa1),
              unmanaged("QAP-3350", 0xa2)})},
    };
    for (const auto &row : rows) {
        ap.mark();
        Message m = ask(tav::kOpGetApArrayDeviceList, row.body);
        EXPECT_EQ(m.result(), 0);
        EXPECT_EQ(listing(m.tlvs), listing(row.want));
        EXPECT_EQ(ap.commands(),
                  (std::vector<std::string>{"submit GET_PENDING_LIST", "submit GET_MEMBERAP_LIST"}));
    }
    // An unmanaged access point approved into the array is a member from the
    // next refresh on.
    ASSERT_EQ(ask(tav::kOpSetApArrayMemberList, admin() + tlv(14, {0, 0, 0x5e, 0, 0x53, 0xa2}) + u8(946, 1))
                  .result(),
              0);
    Message m = ask(tav::kOpGetApArrayDeviceList, u8(943, 3));
    std::vector<std::string> listed;
    for (size_t i = 0; i + 4 < m.tlvs.size(); ++i)
        if (m.tlvs[i].tag == 502)
            listed.push_back(std::to_string(m.tlvs[i + 1].value[0]) + " " + format_mac(m.tlvs[i + 4].value));
    EXPECT_EQ(listed, (std::vector<std::string>{"0 02:7a:76:00:00:02", "0 02:7a:76:00:00:03",
                                                "0 00:00:5e:00:53:a2", "1 00:00:5e:00:53:a1"}));
}

// Actions run only once the request is authenticated, in request order.
TEST_F(ApArray, MemberActionsWaitForAuthentication) {
    const Bytes a1 = tlv(14, {0, 0, 0x5e, 0, 0x53, 0xa1}), m3 = tlv(14, {2, 0x7a, 0x76, 0, 0, 3});
    const std::string approve = "nb_submit ADD_APPROVE_LIST 00:00:5e:00:53:a1";
    const struct {
        const char *what;
        Bytes body;
        uint16_t result;
        std::vector<std::string> commands;
    } rows[] = {
        {"approve", admin() + u8(54, 1) + be16(502, 0xFFFF) + a1 + u8(946, 1), 0, {approve}},
        {"held until 54", a1 + u8(946, 1) + u8(946, 3) + admin() + u8(54, 1), 0,
         {approve, "nb_submit REBOOT_AP 00:00:5e:00:53:a1"}},
        {"action before the MAC", be16(502, 0xFFFF) + u8(946, 2) + m3 + admin(), 0,
         {"nb_submit DEL_APPROVE_LIST 02:7a:76:00:00:03"}},
        {"group forgets", u8(946, 2) + be16(502, 0xFFFF) + m3 + u8(946, 4) + admin(), 0, {}},
        {"wrong password at 54", a1 + u8(946, 1) + wrong_password() + u8(54, 1), 64, {}},
        {"no 54, wrong password", a1 + u8(946, 3) + wrong_password(), 64, {}},
        {"credentials only after 54", a1 + u8(946, 1) + u8(54, 1) + admin(), 64, {}},
        {"after a passed 54 actions run as met",
         admin() + u8(54, 1) + a1 + u8(946, 1) + wrong_password() + u8(54, 1), 64, {approve}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        ap.mark();
        Message m = ask(tav::kOpSetApArrayMemberList, row.body);
        EXPECT_EQ(m.result(), row.result);
        EXPECT_EQ(m.tlvs, row.result ? TlvList{} : kSetReply);
        EXPECT_EQ(ap.commands(), row.commands);
    }
}

// The manager tool sends what it is told and the device's current values for
// the rest: a rename keeps a WPA-PSK SSID's passphrase, a change to both bands
// keeps each band's own settings, a mode change keeps the country, an approval
// carries its precedence after the credentials.
TEST_F(ApArray, ManagerToolChangesOnlyWhatItIsTold) {
    auto tavctl = [&](const std::string &args) {
        return sh("TAVCTL_CONFIG=/dev/null TAVCTL_PASSWORD=admin " E2E_BUILD_DIR
                  "/tools/tavctl/tavctl --iface eth0 --netns " + lab().netns_mgr() +
                  " --cipher " + cipher_path() + " --target 02:7a:76:00:00:01 --user admin " + args);
    };
    const std::string legacy = "/wlan/inf:1/multi/index:2/";
    Sh r = tavctl("ssid set --index 2 --band 1 --name Renamed-Legacy");
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(ap.get(legacy + "ssid"), "Renamed-Legacy");
    EXPECT_EQ(ap.get(legacy + "auth"), "3");
    EXPECT_EQ(ap.get(legacy + "passphrase"), "legacy-passphrase");
    EXPECT_EQ(ap.get(legacy + "vlan_id"), "20");
    r = tavctl("ssid set --index 1 --band both --vlan 11");  // each band keeps its own name
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(ap.get("/wlan/inf:1/multi/index:1/ssid") + ap.get("/wlan/inf:2/multi/index:1/ssid"),
              "Quelbo-GuestQuelbo-Guest-5G");
    EXPECT_EQ(ap.get("/wlan/inf:2/multi/index:1/auth") + ap.get("/wlan/inf:2/multi/index:1/vlan_id"), "1511");
    r = tavctl("wireless set --mode2 ax --band1 off");
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(ap.get("/wlan/inf:2/wlmode"), "5");
    EXPECT_EQ(ap.get("/wlan/inf:1/enable"), "0");
    EXPECT_EQ(ap.get("/wlan/inf:2/enable"), "1");
    EXPECT_EQ(ap.get("/sys/country_index"), "82");
    r = tavctl("array approve 00:00:5E:00:53:A2 --precedence 4");
    EXPECT_EQ(r.status, 0) << r.out;
    r = tavctl("--json clients");
    EXPECT_NE(r.out.find("\"rssi\": -48"), std::string::npos) << r.out;
    const std::vector<std::string> wlan{"submit COMMIT", "submit WAN", "submit WLAN"};
    std::vector<std::string> want = wlan;
    for (int i = 0; i < 2; ++i) want.insert(want.end(), wlan.begin(), wlan.end());
    want.push_back("nb_submit ADD_APPROVE_LIST 00:00:5e:00:53:a2");
    EXPECT_EQ(ap.commands_when(want.size()), want);
    // A band that is no access point lists nothing to keep: not sent.
    ap.set("/wlan/inf:2/ap_mode", "1");
    r = tavctl("ssid set --index 3 --band 2 --vlan 5");
    EXPECT_EQ(r.status, 2) << r.out;
    EXPECT_EQ(ap.get("/wlan/inf:2/multi/index:3/ssid"), "Quelbo-Radius");
}

}  // namespace
}  // namespace e2e
