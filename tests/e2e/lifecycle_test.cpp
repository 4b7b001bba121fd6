// What the daemon does when it starts, a minute later, and when it is told
// to stop; and how it lives with a cipher library that oversteps its limits.
#include <map>

#include "tests/e2e/e2e.h"

namespace e2e {
namespace {

using tav::client::tlv_text;

// One of the device's own broadcasts: raw form, type 0x7FFF, sequence 0, no
// target, and exactly `tlvs` as its body.
void expect_own(const FrameTap::Frame &f, uint16_t op, int ap, const TlvList &tlvs = {}) {
    ASSERT_TRUE(f.msg && f.msg->header);
    const tav::Header &h = *f.msg->header;
    EXPECT_EQ(f.dst, tav::kBroadcastMac);
    EXPECT_EQ(f.src, ap_mac(ap));
    EXPECT_EQ(h.msg_type, tav::kMsgAnnounce);
    EXPECT_EQ(h.sequence, 0);
    EXPECT_EQ(h.op_code, op);
    EXPECT_EQ(h.target_mac, tav::kZeroMac);
    EXPECT_EQ(h.result, 0);
    EXPECT_EQ(h.version, tav::kVersion);
    EXPECT_EQ(f.msg->plaintext.size(), tav::kL2HeaderLen + h.body_length);
    EXPECT_FALSE(f.msg->truncated);
    EXPECT_EQ(f.msg->tlvs, tlvs);
}

E2E_SUITE(StartUp, "start", 6, "");

// Six access points, each restarted with its own stored managed status.
TEST_F(StartUp, NormalisesManagedStatusClearsFirmwareProgressAndSaysHello) {
    const char *const kManaged = "/qm5_agent/managed_status";
    const char *const kFwStatus = "/runtime/tavclient/function/fw_upgrade/status";
    const std::pair<const char *, const char *> cases[] = {{"3", "2"}, {"4", "2"}, {"2", "2"},
                                                           {"0", "0"}, {"1", "1"}, {"5", "5"}};
    FrameTap tap(lab().netns_mgr());
    // The values go into the committed state, which a (simulated) reboot
    // loads before the daemon starts.
    for (int ap = 1; ap <= 6; ++ap) {
        const Sh r =
            lab().on_ap(ap, std::string("rgdb -s ") + kManaged + " " + cases[ap - 1].first +
                                " && rgdb -s " + kFwStatus + " 3 && submit COMMIT && reboot");
        ASSERT_EQ(r.status, 0) << r.out;
    }
    // The access points restart side by side: their hellos come in any order.
    std::map<int, FrameTap::Frame> hellos;
    tap.next(
        [&](const FrameTap::Frame &f) {
            if (f.msg && f.msg->op_code() == tav::kOpHello) hellos.emplace(f.src[5], f);
            return hellos.size() == 6;
        },
        20s);
    for (int ap = 1; ap <= 6; ++ap) {
        SCOPED_TRACE("ap" + std::to_string(ap) + ", stored " + cases[ap - 1].first);
        ASSERT_TRUE(hellos.count(ap)) << "no hello after the restart";
        expect_own(hellos.at(ap), tav::kOpHello, ap);
        EXPECT_EQ(lab().db_get(ap, kManaged), cases[ap - 1].second);
        EXPECT_EQ(lab().db_get(ap, kFwStatus), "0");
    }
}

E2E_SUITE(Shutdown, "term", 1, "");

TEST_F(Shutdown, SigtermSendsOneByeAndExitsWithStatusOne) {
    Client mgr = lab().raw();
    ASSERT_TRUE(mgr.request_one(tav::kOpDiscovery, {}, 3s)) << "daemon not serving";
    FrameTap tap(lab().netns_mgr());
    const int pid = std::atoi(slurp(lab().run_file(1, "tavc.pid")).c_str());
    ASSERT_GT(pid, 0);
    ASSERT_EQ(lab().on_ap(1, "kill -TERM " + std::to_string(pid)).status, 0);
    auto from_ap = [](const FrameTap::Frame &f) { return f.src == ap_mac(1); };
    auto bye = tap.next(from_ap, 3s);
    ASSERT_TRUE(bye) << "no bye";
    expect_own(*bye, tav::kOpBye, 1);
    EXPECT_FALSE(tap.next(from_ap, 1s)) << "more than one bye";

    // The supervisor reaps the daemon and logs how it ended.
    const std::string ended =
        "daemon (pid " + std::to_string(pid) + ") exited on its own with status ";
    std::string log;
    ASSERT_TRUE(until(
        [&] {
            return (log = slurp(lab().run_file(1, "supervisor.log"))).find(ended) !=
                   std::string::npos;
        },
        10s))
        << log;
    EXPECT_NE(log.find(ended + "1\n"), std::string::npos) << log;
    // Nothing of the daemon is left: no process, no UDP port, no raw socket.
    const Sh left = lab().on_ap(1, "cat /proc/[0-9]*/comm /proc/net/udp /proc/net/packet");
    for (const char *mark : {"tavc", ":F600 ", " 2386 "})
        EXPECT_EQ(left.out.find(mark), std::string::npos) << mark << " in " << left.out;
    EXPECT_FALSE(mgr.request_one(tav::kOpDiscovery, {}, 1s)) << "answered after exit";
}

E2E_SUITE(ReportTiming, "report", 1, "");

// Slow: waits for the report, a minute after start-up.
TEST_F(ReportTiming, FirstReportComesAMinuteAfterTheHelloWithTheIdentity) {
    FrameTap tap(lab().netns_mgr());
    ASSERT_EQ(lab().on_ap(1, "reboot").status, 0);
    auto own = [](uint16_t op) {
        return [op](const FrameTap::Frame &f) {
            return f.src == ap_mac(1) && f.msg && f.msg->op_code() == op;
        };
    };
    ASSERT_TRUE(tap.next(own(tav::kOpHello), 20s)) << "no hello after the restart";
    const auto started = Clock::now();
    auto report = tap.next(own(tav::kOpReport), 80s);
    ASSERT_TRUE(report) << "no report within 80 s";
    const auto after =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started);
    EXPECT_GE(after, 55s);
    EXPECT_LE(after, 75s);

    // The identity's records as discovery shows them, and the interface.
    auto discovery = lab().raw().request_one(tav::kOpDiscovery, {}, 3s);
    ASSERT_TRUE(discovery) << discovery.error();
    TlvList want;
    for (uint16_t tag : std::initializer_list<uint16_t>
         {tav::kTagModelName, tav::kTagProductType, tav::kTagFirmwareVersion, tav::kTagMac,
          tav::kTagHardwareVersion, tav::kTagSystemName, tav::kTagIpAddress, tav::kTagNetmask})
        if (auto r = discovery->find(tag)) want.push_back(*r);
    want.push_back(tlv_text(tav::kTagInterfaceName, "br0"));
    expect_own(*report, tav::kOpReport, 1, want);
}

// The cipher binding's limits, with libraries that announce sizes beyond
// them: 65508 ciphertext bytes for every encoding, 1025 plaintext bytes for
// every decoding.
E2E_SUITE(CipherEncodeTooLong, "cenc", 1, "--cipher " + quote(cipher_path("TAV_Auth_enc65508.so")));

TEST_F(CipherEncodeTooLong, NoHelloNoByeNoReplyOnlyTheMessage) {
    const std::string line = "tav_encode_buf, message too long\n";
    // The hello at start-up already failed.
    ASSERT_TRUE(until([&] { return !slurp(lab().run_file(1, "tavc.out")).empty(); }, 5s));
    EXPECT_EQ(slurp(lab().run_file(1, "tavc.out")), line);

    FrameTap tap(lab().netns_mgr());
    Client raw = lab().raw(), udp = lab().udp();
    for (auto [mgr, op] : {std::pair{&raw, tav::kOpDiscovery},
                           {&udp, tav::kOpDiscovery},
                           {&raw, tav::kOpSupportedFunctions},
                           {&udp, tav::kOpUserVerification}}) {
        SCOPED_TRACE(std::string(mgr->ipv4() ? "udp " : "raw ") + tav::client::format_op_code(op));
        auto out = output(lab(), 1);
        auto replies = mgr->request(op, {}, 1s);
        ASSERT_TRUE(replies && replies->empty());
        // The UDP sender adds its own word.
        const std::string want = mgr->ipv4() ? line + "tav_encode_buf failed\n" : line;
        EXPECT_TRUE(until([&] { return out() == want; }, 5s)) << out();
    }
    // A restart: the old daemon's bye and the new one's hello fail alike.
    auto out = output(lab(), 1);
    ASSERT_EQ(lab().on_ap(1, "reboot").status, 0);
    EXPECT_TRUE(until([&] { return out() == line + line; }, 20s)) << out();
    EXPECT_TRUE(until([&] { return lab().serving(1); }, 10s));
    EXPECT_EQ(out(), line + line);
    EXPECT_FALSE(tap.next([](const auto &f) { return f.src == ap_mac(1); }, 300ms))
        << "a frame left the access point";
    EXPECT_TRUE(udp.receive_all(0ms).empty()) << "a datagram left the access point";
}

E2E_SUITE(CipherDecodeTooLong, "cdec", 1, "--cipher " + quote(cipher_path("TAV_Auth_dec1025.so")));

TEST_F(CipherDecodeTooLong, RequestsAreReadAndDroppedWithoutAWord) {
    Client raw = lab().raw(), udp = lab().udp();
    for (Client *mgr : {&raw, &udp}) {
        SCOPED_TRACE(mgr->ipv4() ? "udp" : "raw");
        auto out = output(lab(), 1);
        for (uint16_t op : {tav::kOpDiscovery, tav::kOpSupportedFunctions})
            ASSERT_TRUE(mgr->send_request(op, {}));
        EXPECT_TRUE(mgr->receive_all(1500ms).empty());
        // Nothing waits in the daemon's sockets (tx:rx queue of UDP port
        // 0xF600, memory of the 0x2386 packet socket): it read the requests.
        const Sh queued = lab().on_ap(1,
                                      "awk '$2 ~ /:F600$/ {print $5} $4 == 2386 {print $7}' "
                                      "/proc/net/udp /proc/net/packet");
        EXPECT_EQ(queued.out, "00000000:00000000\n0\n");
        EXPECT_EQ(out(), "");
        EXPECT_TRUE(lab().serving(1));
    }
}

}  // namespace
}  // namespace e2e
