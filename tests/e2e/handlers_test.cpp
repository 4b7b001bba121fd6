// The handlers behind discovery, the supported-functions list and user
// verification, and the precedence managers claim with tag 54.
#include <map>

#include "tests/e2e/e2e.h"

namespace e2e {
namespace {

using namespace tav::client;

E2E_SUITE(Presence, "pres", 1, "");

// The keys the identity record is built from.
// clang-format off
const char *const kIdentityKeys[] = {
    "/sys/hostname", "/runtime/sys/info/firmwareversion", "/runtime/sys/info/hardwareversion",
    "/runtime/wan/inf:1/mac", "/sys/systemName", "/runtime/wan/inf:1/ip",
    "/runtime/wan/inf:1/netmask", "/runtime/wan/inf:1/gateway", "/runtime/wan/inf:1/primarydns",
    "/sys/web/port", "/wan/rg/inf:1/mode", "/runtime/wan/inf:1/tavmode", "/runtime/time/date",
    "/runtime/time/time", "/qm5_agent/running", "/qm5_agent/managed_status",
    "/qm5_agent/nms_server", "/qm5_agent/ag_uuid", "/runtime/qm5_agent/connection_status"};
// clang-format on

// The discovery body the database calls for, worked out independently of the
// daemon: texts within their capacities, addresses zero unless valid.
TlvList expected_discovery(std::map<std::string, std::string> db) {
    auto text = [&](uint16_t tag, std::string s, size_t cap) {
        return tlv_text(tag, s.substr(0, cap - 1));
    };
    auto num = [&](const char *key) { return std::atoi(db[key].c_str()); };
    auto addr = [&](uint16_t tag, const char *key) {
        return tlv_ipv4(tag, parse_ipv4(db[key].substr(0, 31)).value_or(Ipv4{}));
    };
    const std::string host = db["/sys/hostname"].substr(0, 31);
    const std::string hw = db["/runtime/sys/info/hardwareversion"].substr(0, 31);
    const uint8_t wan_mode = uint8_t(std::atoi(db["/wan/rg/inf:1/mode"].substr(0, 1).c_str()) - 1);
    const std::string port = db["/sys/web/port"].substr(0, 31);
    const uint8_t tav_mode = num("/runtime/wan/inf:1/tavmode") ? 2 : wan_mode ? 1 : 0;
    const bool running = num("/qm5_agent/running") != 0;

    // Dates read MM/DD/YYYY and times HH:MM:SS here; odd ones are unit tests.
    const std::string d = db["/runtime/time/date"], t = db["/runtime/time/time"];
    const std::string stamp = d.substr(6, 4) + d.substr(0, 2) + d.substr(3, 2) + t.substr(0, 2) +
                              t.substr(3, 2) + t.substr(6, 2);
    const uint8_t zero4[4] = {};
    return {
        tlv_text(tav::kTagVendor, "Quelbo"),
        text(tav::kTagModelName, host + " " + hw, 63),
        text(tav::kTagHostName, host, 32),
        text(tav::kTagFirmwareVersion, db["/runtime/sys/info/firmwareversion"], 32),
        tlv_bytes(tav::kTagReservedWord, zero4),
        tlv_mac(tav::kTagMac, parse_mac(db["/runtime/wan/inf:1/mac"]).value_or(tav::kZeroMac)),
        tlv_u8(tav::kTagTavMode, tav_mode),
        text(tav::kTagSystemName, db["/sys/systemName"], 64),
        addr(tav::kTagIpAddress, "/runtime/wan/inf:1/ip"),
        tlv_u16(tav::kTagWebPort, port.empty() ? 80 : uint16_t(std::atoi(port.c_str()))),
        addr(tav::kTagNetmask, "/runtime/wan/inf:1/netmask"),
        addr(tav::kTagGateway, "/runtime/wan/inf:1/gateway"),
        addr(tav::kTagPrimaryDns, "/runtime/wan/inf:1/primarydns"),
        tlv_bytes(tav::kTagSecondaryDns, zero4),
        tlv_u8(tav::kTagWanMode, wan_mode),
        tlv_text(tav::kTagDateTime, stamp),
        tlv_text(tav::kTagProductType, "Access point"),
        text(tav::kTagHardwareVersion, hw, 32),
        tlv_u8(tav::kTagManagedStatus, running ? uint8_t(num("/qm5_agent/managed_status")) : 0),
        text(tav::kTagNmsServer, db["/qm5_agent/nms_server"], 256),
        tlv_u8(tav::kTagAddressMode, 0),
        text(tav::kTagAgUuid, db["/qm5_agent/ag_uuid"], 32),
        tlv_u16(tav::kTagConnectionStatus,
                running ? uint16_t(num("/runtime/qm5_agent/connection_status") + 2) : 0),
    };
}

std::string listing(const TlvList &tlvs) {
    std::string s;
    for (const auto &r : tlvs) s += std::to_string(r.tag) + "=" + hex(r.value) + "\n";
    return s;
}

TEST_F(Presence, DiscoveryMatchesTheDatabaseByteForByteOnBothPaths) {
    const std::vector<std::pair<std::string, std::string>> cases[] = {
        {},  // the profile as it is
        {{"/qm5_agent/running", "1"},
         {"/qm5_agent/managed_status", "5"},
         {"/runtime/qm5_agent/connection_status", "1"},
         {"/qm5_agent/nms_server", "nms.example.net:8443"},
         {"/qm5_agent/ag_uuid", "0123456789abcdef0123456789abcdef"},  // one past capacity
         {"/sys/web/port", "8080"},
         {"/wan/rg/inf:1/mode", "23"},  // read one character wide
         {"/runtime/wan/inf:1/gateway", "not-an-address"},
         {"/runtime/wan/inf:1/primarydns", ""},
         {"/sys/systemName", "Lab AP 50% \"one\""}},
        // Address set by a manager, no web port, texts past their capacities.
        {{"/runtime/wan/inf:1/tavmode", "1"},
         {"/wan/rg/inf:1/mode", "1"},
         {"/sys/web/port", ""},
         {"/runtime/time/date", "01/02/2027"},
         {"/runtime/time/time", "23:59:07"},
         {"/sys/hostname", "a-host-name-longer-than-its-31-characters"},
         {"/runtime/sys/info/hardwareversion", std::string(40, 'v')}},
        // A stopped agent's values do not count.
        {{"/qm5_agent/running", "0"},
         {"/qm5_agent/managed_status", "2"},
         {"/runtime/qm5_agent/connection_status", "1"}},
    };
    Client raw = lab().raw(), udp = lab().udp();
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE("case " + std::to_string(i));
        for (const auto &[k, v] : cases[i]) ASSERT_TRUE(lab().db_set(1, k, v));
        std::map<std::string, std::string> db;
        for (const char *k : kIdentityKeys) db[k] = lab().db_get(1, k);
        for (Client *mgr : {&raw, &udp}) {
            SCOPED_TRACE(mgr->ipv4() ? "udp" : "raw");
            auto got = mgr->request_one(tav::kOpDiscovery, {}, 3s);
            ASSERT_TRUE(got) << got.error();
            EXPECT_EQ(got->result(), 0);
            EXPECT_FALSE(got->truncated);
            EXPECT_EQ(listing(got->tlvs), listing(expected_discovery(db)));
        }
    }
}

TEST_F(Presence, SupportedFunctionsListEveryAdvertisedOpCodeInTableOrder) {
    auto reply = lab().raw().request_one(tav::kOpSupportedFunctions, {}, 3s);
    ASSERT_TRUE(reply) << reply.error();
    EXPECT_EQ(reply->result(), 0);
    EXPECT_EQ(reply->header->body_length, 168);
    TlvList want;
    for (const auto &row : tav::kOpCodes)
        if (row.code != 0xA1 && row.code != 0xA3 && row.code != 0xA4 && row.code != 0xA5)
            want.push_back(tlv_u16(tav::kTagSupportedFunction, row.code));
    want.push_back(tlv_u16(tav::kTagEolOrCnt, 0));
    EXPECT_EQ(listing(reply->tlvs), listing(want));
    ASSERT_EQ(want.size(), 28u);
    EXPECT_EQ(hex(want[0].value) + hex(want[3].value) + hex(want[26].value), "00a000da200c");
}

E2E_SUITE(Managers, "mgrs", 1, "");

const TlvList kVerified{tlv_bytes(tav::kTagVerification, std::vector<uint8_t>{1, 0, 0, 0})};

TlvList credentials(const std::string &user, const std::string &password) {
    return {tlv_text(tav::kTagUserName, user), tlv_text(tav::kTagPassword, password)};
}

TEST_F(Managers, VerificationComparesNameAndPasswordExactly) {
    const struct {
        const char *what, *stored_password;
        TlvList tlvs;
        uint16_t result;
    } cases[] = {
        {"correct", "admin", credentials("admin", "admin"), 0},
        {"reverse order", "admin", {tlv_text(56, "admin"), tlv_text(55, "admin")}, 0},
        {"unknown tag skipped",
         "admin",
         {tlv_text(55, "admin"), tlv_text(999, ""), tlv_text(56, "admin")},
         0},
        {"user name case", "admin", credentials("Admin", "admin"), 0x40},
        {"password longer", "admin", credentials("admin", "admin1"), 0x40},
        {"no password tag", "admin", {tlv_text(55, "admin")}, 0x40},
        {"nothing", "admin", {}, 0x40},
        {"empty stored, no tag", "", {tlv_text(55, "admin")}, 0},
        {"empty stored, empty tag", "", credentials("admin", ""), 0},
        {"empty stored, given", "", credentials("admin", "admin"), 0x40},
        {"percent signs", "50%%off%s%n", credentials("admin", "50%%off%s%n"), 0},
        {"percent signs, printf-read", "50%%off%s%n", credentials("admin", "50%off%s%n"), 0x40},
    };
    Finally restore([&] { lab().db_set(1, "/sys/user:1/password", "admin"); });
    Client mgr = lab().raw();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(lab().db_set(1, "/sys/user:1/password", c.stored_password));
        auto reply = mgr.request_one(tav::kOpUserVerification, c.tlvs, 3s);
        ASSERT_TRUE(reply) << reply.error();
        EXPECT_EQ(reply->result(), c.result);
        EXPECT_EQ(reply->tlvs, c.result ? TlvList{} : kVerified);
    }
}

// Managers told apart by their MACs on the raw path.
TEST_F(Managers, HigherPrecedenceOfAnotherManagerRefuses) {
    constexpr int A = 0, B = 1, kBye = -1, kNone = -2;
    struct Step {
        int who, precedence;  // kBye: op 0x105; kNone: no tag 54
        bool right_password;
        uint16_t result;
    };
    // clang-format off
    const std::pair<const char *, std::vector<Step>> scenarios[] = {
        {"higher holder wins",
         {{A, 5, true, 0}, {B, 3, true, 0xFFFF}, {B, 5, true, 0}, {B, 6, true, 0}, {A, 5, true, 0xFFFF}}},
        {"own earlier entry counts once", {{A, 7, true, 0}, {A, 3, true, 0xFFFF}, {A, 3, true, 0}}},
        {"bye forgets the manager",
         {{A, 9, true, 0}, {B, 3, true, 0xFFFF}, {A, kBye, true, 0}, {B, 3, true, 0}}},
        {"refused before credentials are compared",
         {{A, 8, true, 0}, {B, 2, false, 0xFFFF}, {B, 8, false, 0x40}, {B, 8, true, 0}}},
        {"no tag, no comparison", {{A, 9, true, 0}, {B, kNone, true, 0}}},
        {"bye without an entry", {{B, kBye, true, 0}, {A, 1, true, 0}}},
    };
    // clang-format on
    for (size_t s = 0; s < std::size(scenarios); ++s) {
        SCOPED_TRACE(scenarios[s].first);
        Client mgrs[] = {lab().raw(Mac{0x02, 0xe2, 0xe0, uint8_t(s), 0, 0}),
                         lab().raw(Mac{0x02, 0xe2, 0xe0, uint8_t(s), 0, 1})};
        // The registry lives as long as the daemon: each scenario leaves
        // through its managers' byes.
        Finally leave([&] {
            for (auto &m : mgrs) (void)m.request_one(tav::kOpBye, {}, 3s);
        });
        int n = 0;
        for (const Step &st : scenarios[s].second) {
            SCOPED_TRACE("step " + std::to_string(++n));
            TlvList tlvs = credentials("admin", st.right_password ? "admin" : "wrong");
            if (st.precedence >= 0)
                tlvs.insert(tlvs.begin(),
                            tav::client::tlv_u8(tav::kTagServerPrecedence, uint8_t(st.precedence)));
            const bool bye = st.precedence == kBye;
            auto reply = mgrs[st.who].request_one(bye ? tav::kOpBye : tav::kOpUserVerification,
                                                  bye ? TlvList{} : tlvs, 3s);
            ASSERT_TRUE(reply) << reply.error();
            EXPECT_EQ(reply->result(), st.result);
            EXPECT_EQ(reply->tlvs, st.result || bye ? TlvList{} : kVerified);
        }
    }
}

}  // namespace
}  // namespace e2e
