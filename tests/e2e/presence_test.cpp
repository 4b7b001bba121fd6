// Discovery against the access point's database, and the supported-functions
// list.
#include <arpa/inet.h>

#include <map>
#include <sstream>

#include "tests/e2e/e2e.h"

namespace e2e {
namespace {

using tav::client::tlv_bytes;

class Presence : public LabSuite<Presence> {
  public:
    static constexpr const char *kCode = "pres";
    static constexpr int kAps = 1;
};

// The keys the identity record is built from.
const char *const kIdentityKeys[] = {"/sys/hostname",
                                     "/runtime/sys/info/firmwareversion",
                                     "/runtime/sys/info/hardwareversion",
                                     "/runtime/wan/inf:1/mac",
                                     "/sys/systemName",
                                     "/runtime/wan/inf:1/ip",
                                     "/runtime/wan/inf:1/netmask",
                                     "/runtime/wan/inf:1/gateway",
                                     "/runtime/wan/inf:1/primarydns",
                                     "/sys/web/port",
                                     "/wan/rg/inf:1/mode",
                                     "/runtime/wan/inf:1/tavmode",
                                     "/runtime/time/date",
                                     "/runtime/time/time",
                                     "/qm5_agent/running",
                                     "/qm5_agent/managed_status",
                                     "/qm5_agent/nms_server",
                                     "/qm5_agent/ag_uuid",
                                     "/runtime/qm5_agent/connection_status"};

Record text(uint16_t tag, std::string s, size_t capacity) {
    if (s.size() > capacity - 1) s.resize(capacity - 1);
    return tav::client::tlv_text(tag, s);
}

Record ipv4(uint16_t tag, const std::string &s) {
    uint8_t a[4] = {};
    if (s.empty() || inet_pton(AF_INET, s.c_str(), a) != 1) std::memset(a, 0, 4);
    return tlv_bytes(tag, a);
}

// Characters [from, from + n) of `field`, as far as it has them.
void place(std::string &out, size_t at, const std::string &field, size_t n) {
    for (size_t i = 0; i < n && i < field.size(); ++i) out[at + i] = field[i];
}

std::vector<std::string> split(const std::string &s, char sep) {
    std::vector<std::string> parts;
    std::istringstream in(s);
    for (std::string p; std::getline(in, p, sep);) parts.push_back(p);
    return parts;
}

// The discovery body the database calls for, computed independently of the
// daemon from the values read through the lab.
TlvList expected_discovery(std::map<std::string, std::string> db) {
    auto num = [&](const char *key) { return std::atoi(db[key].c_str()); };
    const std::string host = db["/sys/hostname"].substr(0, 31);
    const std::string hw = db["/runtime/sys/info/hardwareversion"].substr(0, 31);
    const int mode = std::atoi(db["/wan/rg/inf:1/mode"].substr(0, 1).c_str());
    const uint8_t wan_mode = uint8_t(mode - 1);
    const uint8_t tav_mode = num("/runtime/wan/inf:1/tavmode") != 0 ? 2 : wan_mode != 0 ? 1 : 0;
    const std::string port = db["/sys/web/port"].substr(0, 31);
    const uint16_t web_port = port.empty() ? 80 : uint16_t(std::atoi(port.c_str()));
    const bool running = num("/qm5_agent/running") != 0;
    const uint8_t managed = running ? uint8_t(num("/qm5_agent/managed_status")) : 0;
    const uint16_t connection =
        running ? uint16_t(num("/runtime/qm5_agent/connection_status") + 2) : 0;

    std::string stamp(14, '\0');
    const auto date = split(db["/runtime/time/date"].substr(0, 10), '/');
    const auto time = split(db["/runtime/time/time"].substr(0, 8), ':');
    if (date.size() > 0) place(stamp, 4, date[0], 2);
    if (date.size() > 1) place(stamp, 6, date[1], 2);
    if (date.size() > 2) place(stamp, 0, date[2], 4);
    for (size_t i = 0; i < 3 && i < time.size(); ++i) place(stamp, 8 + 2 * i, time[i], 2);
    stamp.resize(std::strlen(stamp.c_str()));

    const uint8_t zero4[4] = {};
    const Mac mac = tav::client::parse_mac(db["/runtime/wan/inf:1/mac"]).value_or(tav::kZeroMac);
    return {
        tav::client::tlv_text(tav::kTagVendor, "Quelbo"),
        text(tav::kTagModelName, host + " " + hw, 63),
        text(tav::kTagHostName, host, 32),
        text(tav::kTagFirmwareVersion, db["/runtime/sys/info/firmwareversion"], 32),
        tlv_bytes(tav::kTagReservedWord, zero4),
        tav::client::tlv_mac(tav::kTagMac, mac),
        tav::client::tlv_u8(tav::kTagTavMode, tav_mode),
        text(tav::kTagSystemName, db["/sys/systemName"], 64),
        ipv4(tav::kTagIpAddress, db["/runtime/wan/inf:1/ip"].substr(0, 31)),
        tav::client::tlv_u16(tav::kTagWebPort, web_port),
        ipv4(tav::kTagNetmask, db["/runtime/wan/inf:1/netmask"].substr(0, 31)),
        ipv4(tav::kTagGateway, db["/runtime/wan/inf:1/gateway"].substr(0, 31)),
        ipv4(tav::kTagPrimaryDns, db["/runtime/wan/inf:1/primarydns"].substr(0, 31)),
        tlv_bytes(tav::kTagSecondaryDns, zero4),
        tav::client::tlv_u8(tav::kTagWanMode, wan_mode),
        tav::client::tlv_text(tav::kTagDateTime, stamp),
        tav::client::tlv_text(tav::kTagProductType, "Access point"),
        text(tav::kTagHardwareVersion, hw, 32),
        tav::client::tlv_u8(tav::kTagManagedStatus, managed),
        text(tav::kTagNmsServer, db["/qm5_agent/nms_server"], 256),
        tav::client::tlv_u8(tav::kTagAddressMode, 0),
        text(tav::kTagAgUuid, db["/qm5_agent/ag_uuid"], 32),
        tav::client::tlv_u16(tav::kTagConnectionStatus, connection),
    };
}

std::string listing(const TlvList &tlvs) {
    std::string s;
    for (const auto &r : tlvs) s += std::to_string(r.tag) + "=" + hex(r.value) + "\n";
    return s;
}

TEST_F(Presence, DiscoveryMatchesTheDatabaseByteForByteOnBothPaths) {
    using Keys = std::vector<std::pair<std::string, std::string>>;
    struct Case {
        const char *what;
        Keys keys;
    } cases[] = {
        {"profile as it is", {}},
        {"managed, odd values",
         {{"/qm5_agent/running", "1"},
          {"/qm5_agent/managed_status", "5"},
          {"/runtime/qm5_agent/connection_status", "1"},
          {"/qm5_agent/nms_server", "nms.example.net:8443"},
          {"/qm5_agent/ag_uuid", "0123456789abcdef0123456789abcdef"},  // one past capacity
          {"/sys/web/port", "8080"},
          {"/wan/rg/inf:1/mode", "2"},
          {"/runtime/wan/inf:1/gateway", "not-an-address"},
          {"/runtime/wan/inf:1/primarydns", ""},
          {"/sys/systemName", "Lab AP 50% \"one\""},
          {"/runtime/sys/info/hardwareversion", "B2"}}},
        {"address set by a manager, no web port",
         {{"/runtime/wan/inf:1/tavmode", "1"},
          {"/wan/rg/inf:1/mode", "1"},
          {"/sys/web/port", ""},
          {"/runtime/time/date", "1/2/2027"},
          {"/runtime/time/time", "23:59:07"},
          {"/sys/hostname", "a-host-name-longer-than-its-31-characters"}}},
        {"agent stopped: its values do not count",
         {{"/qm5_agent/running", "0"},
          {"/qm5_agent/managed_status", "2"},
          {"/runtime/qm5_agent/connection_status", "1"}}},
    };
    Client raw = lab().raw();
    Client udp = lab().udp(1);
    std::map<std::string, std::string> original;
    for (const char *k : kIdentityKeys) original[k] = lab().db_get(1, k);
    Finally restore([&] {
        for (const auto &[k, v] : original) lab().db_set(1, k, v);
    });

    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        for (const auto &[k, v] : c.keys) ASSERT_TRUE(lab().db_set(1, k, v));
        std::map<std::string, std::string> db;
        for (const char *k : kIdentityKeys) db[k] = lab().db_get(1, k);
        const TlvList want = expected_discovery(db);

        for (Client *mgr : {&raw, &udp}) {
            SCOPED_TRACE(mgr->ipv4() ? "udp" : "raw");
            auto seq =
                send_to(*mgr, tav::kOpDiscovery, mgr->ipv4() ? tav::kZeroMac : ap_mac(1), kAnyIp);
            auto got = mgr->collect(seq, tav::kOpDiscovery, 3s, 1);
            ASSERT_EQ(got.size(), 1u);
            EXPECT_EQ(got.front().result(), 0);
            EXPECT_FALSE(got.front().truncated);
            EXPECT_EQ(listing(got.front().tlvs), listing(want));
        }
    }
}

TEST_F(Presence, SupportedFunctionsListEveryAdvertisedOpCodeInTableOrder) {
    Client mgr = lab().raw();
    auto reply = mgr.request_one(tav::kOpSupportedFunctions, {}, 3s);
    ASSERT_TRUE(reply) << reply.error();
    EXPECT_EQ(reply->result(), 0);
    EXPECT_EQ(reply->header->body_length, 168);

    std::vector<uint16_t> want;
    for (const auto &row : tav::kOpCodes)
        if (row.code != 0xA1 && row.code != 0xA3 && row.code != 0xA4 && row.code != 0xA5)
            want.push_back(row.code);
    ASSERT_EQ(want.size(), 27u);
    ASSERT_EQ(reply->tlvs.size(), 28u);
    std::vector<uint16_t> got;
    for (size_t i = 0; i < 27; ++i) {
        ASSERT_EQ(reply->tlvs[i].tag, tav::kTagSupportedFunction);
        ASSERT_EQ(reply->tlvs[i].value.size(), 2u);
        got.push_back(tav::get_be16(reply->tlvs[i].value.data()));
    }
    EXPECT_EQ(got, want);
    EXPECT_EQ((std::vector<uint16_t>{got[0], got[1], got[2], got[3], got[25], got[26]}),
              (std::vector<uint16_t>{0x00A0, 0x00AA, 0x00AB, 0x00DA, 0x200B, 0x200C}));
    EXPECT_EQ(reply->tlvs[27], tav::client::tlv_u16(tav::kTagEolOrCnt, 0));
}

}  // namespace
}  // namespace e2e
