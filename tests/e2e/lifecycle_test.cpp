// SPDX-License-Identifier: ISC
// What the daemon does when it starts and a minute later (how it stops:
// faults_test.cpp), and how it lives with a cipher library that oversteps
// its limits.
#include <map>

#include "tests/e2e/e2e.h"

namespace e2e {
namespace {

// One of the device's own broadcasts: raw form, type 0x7FFF, sequence 0, no
// target, and exactly `tlvs` as its body.
void expect_own(const Message &m, uint16_t op, int ap, const TlvList &tlvs = {}) {
    ASSERT_TRUE(m.header);
    const tav::Header &h = *m.header;
    EXPECT_EQ(std::tuple(m.dst_mac, m.src_mac, h.msg_type, h.sequence, h.op_code, h.target_mac, h.result, h.version),
              std::tuple(tav::kBroadcastMac, ap_mac(ap), tav::kMsgAnnounce, 0, op, tav::kZeroMac, 0, tav::kVersion));
    EXPECT_EQ(m.plaintext.size(), tav::kL2HeaderLen + h.body_length);
    EXPECT_EQ(m.tlvs, tlvs);
}

E2E_SUITE(StartUp, "start", 3, "");

// Each access point restarted with its own stored managed status: 3 and 4
// read back as 2, others stay; the firmware progress is cleared.
TEST_F(StartUp, NormalisesManagedStatusClearsFirmwareProgressAndSaysHello) {
    const char *const kManaged = "/qm5_agent/managed_status";
    const char *const kFwStatus = "/runtime/tavclient/function/fw_upgrade/status";
    const std::pair<const char *, const char *> cases[] = {{"3", "2"}, {"4", "2"}, {"5", "5"}};
    Client tap = lab().raw();
    for (int ap = 1; ap <= 3; ++ap)  // committed, so the (simulated) reboot loads them
        ASSERT_EQ(lab().on_ap(ap, std::string("rgdb -s ") + kManaged + " " + cases[ap - 1].first + " && rgdb -s " +
                                      kFwStatus + " 3 && submit COMMIT && reboot").status, 0);
    std::map<int, Message> hellos;  // in any order
    tap.wait_for([&](const Message &m) {
        if (m.op_code() == tav::kOpHello) hellos.emplace(m.src_mac[5], m);
        return hellos.size() == 3;
    }, kLong);
    for (int ap = 1; ap <= 3; ++ap) {
        SCOPED_TRACE("ap" + std::to_string(ap));
        ASSERT_TRUE(hellos.count(ap)) << "no hello after the restart";
        expect_own(hellos.at(ap), tav::kOpHello, ap);
        EXPECT_EQ(lab().db_get(ap, kManaged), cases[ap - 1].second);
        EXPECT_EQ(lab().db_get(ap, kFwStatus), "0");
        EXPECT_EQ(slurp(lab().run_file(ap, "tavc.err")), "") << "complaints on standard error";
    }
}

E2E_SUITE(ReportTiming, "report", 1, "");

// Slow: the report comes a minute after the hello (never early), with the
// identity's records as discovery shows them, and the interface.
TEST_F(ReportTiming, FirstReportComesAMinuteAfterTheHelloWithTheIdentity) {
    Client tap = lab().raw();
    ASSERT_EQ(lab().on_ap(1, "reboot").status, 0);
    ASSERT_TRUE(tap.wait_for(own(tav::kOpHello), kLong)) << "no hello after the restart";
    const auto started = Clock::now();
    auto report = tap.wait_for(own(tav::kOpReport), 120s);
    ASSERT_TRUE(report) << "no report";
    EXPECT_GE(Clock::now() - started, 55s);
    auto discovery = lab().raw().request_one(tav::kOpDiscovery, {}, kLong);
    ASSERT_TRUE(discovery) << discovery.error();
    TlvList want;
    for (uint16_t tag : std::initializer_list<uint16_t>
         {tav::kTagModelName, tav::kTagProductType, tav::kTagFirmwareVersion, tav::kTagMac,
          tav::kTagHardwareVersion, tav::kTagSystemName, tav::kTagIpAddress, tav::kTagNetmask})
        if (auto r = discovery->find(tag)) want.push_back(*r);
    want.push_back(tav::client::tlv_text(tav::kTagInterfaceName, "br0"));
    expect_own(*report, tav::kOpReport, 1, want);
}

// Cipher libraries that announce sizes beyond the binding's limits (65508
// ciphertext bytes for every encoding, 1025 plaintext bytes for every
// decoding): the daemon sends nothing, says why once per message, serves on.
E2E_SUITE(CipherEncodeTooLong, "cenc", 1, "--cipher " + quote(ap_cipher_path("TAV_Auth_enc65508.so")));

TEST_F(CipherEncodeTooLong, NoHelloNoByeNoReplyOnlyTheMessage) {
    const std::string line = "tav_encode_buf, message too long\n";
    ASSERT_TRUE(until([&] { return !slurp(lab().run_file(1, "tavc.out")).empty(); }, kLong));
    EXPECT_EQ(slurp(lab().run_file(1, "tavc.out")), line) << "the hello at start-up";
    Client tap = lab().raw();
    Client raw = lab().raw(), udp = lab().udp();
    for (Client *mgr : {&raw, &udp}) {
        auto out = output(lab(), 1);
        ASSERT_TRUE(mgr->send_request(tav::kOpDiscovery, {}));
        const std::string want = mgr->ipv4() ? line + "tav_encode_buf failed\n" : line;  // UDP adds its word
        EXPECT_TRUE(until([&] { return out() == want; }, kLong)) << out();
    }
    auto out = output(lab(), 1);  // a restart: the bye and the hello fail alike
    ASSERT_EQ(lab().on_ap(1, "reboot").status, 0);
    EXPECT_TRUE(until([&] { return out() == line + line && lab().serving(1); }, kLong)) << out();
    EXPECT_FALSE(tap.wait_for([](const Message &m) { return m.src_mac == ap_mac(1); }, 300ms)) << "a frame left";
    EXPECT_EQ(tap.undecodable(), 0u) << "a frame left";
    EXPECT_TRUE(udp.receive_all(0ms).empty()) << "a datagram left the access point";
}

E2E_SUITE(CipherDecodeTooLong, "cdec", 1, "--cipher " + quote(ap_cipher_path("TAV_Auth_dec1025.so")));

TEST_F(CipherDecodeTooLong, RequestsAreReadAndDroppedWithoutAWord) {
    Client raw = lab().raw(), udp = lab().udp();
    auto out = output(lab(), 1);
    for (Client *mgr : {&raw, &udp})
        for (uint16_t op : {tav::kOpDiscovery, tav::kOpSupportedFunctions}) ASSERT_TRUE(mgr->send_request(op, {}));
    EXPECT_TRUE(raw.receive_all(1500ms).empty() && udp.receive_all(0ms).empty());
    // Read all the same: nothing stays in the daemon's sockets (tx:rx queue of
    // UDP port 0xF600, memory of the 0x2386 packet socket).
    const char *queues = "awk '$2 ~ /:F600$/ {print $5} $4 == 2386 {print $7}' /proc/net/udp /proc/net/packet";
    EXPECT_TRUE(until([&] { return lab().on_ap(1, queues).out == "00000000:00000000\n0\n"; }, kLong));
    EXPECT_EQ(out(), "");
    EXPECT_TRUE(lab().serving(1));
}

}  // namespace
}  // namespace e2e
