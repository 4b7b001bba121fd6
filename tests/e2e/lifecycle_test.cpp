// What the daemon does when it starts, a minute later, and when it is told
// to stop.
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
    ASSERT_TRUE(tap.ok());
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
    const auto deadline = Clock::now() + 20s;
    while (hellos.size() < 6 && Clock::now() < deadline)
        if (auto f = tap.next(
                [](const auto &x) { return x.msg && x.msg->op_code() == tav::kOpHello; },
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now())))
            hellos.emplace(f->src[5], *f);
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
    ASSERT_TRUE(tap.ok());
    const int pid = lab().daemon_pid(1);
    ASSERT_GT(pid, 0);
    ASSERT_EQ(lab().on_ap(1, "kill -TERM " + std::to_string(pid)).status, 0);
    size_t frames = 0;
    for (const auto &f : tap.all(3s))
        if (f.src == ap_mac(1) && ++frames == 1) expect_own(f, tav::kOpBye, 1);
    EXPECT_EQ(frames, 1u) << "one bye and nothing else";

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
    EXPECT_EQ(left.out.find("tavc"), std::string::npos) << left.out;
    EXPECT_EQ(left.out.find(":F600 "), std::string::npos) << left.out;
    EXPECT_EQ(left.out.find(" 2386 "), std::string::npos) << left.out;
    EXPECT_FALSE(mgr.request_one(tav::kOpDiscovery, {}, 1s)) << "answered after exit";
}

E2E_SUITE(ReportTiming, "report", 1, "");

// Slow: waits for the report, a minute after start-up.
TEST_F(ReportTiming, FirstReportComesAMinuteAfterTheHelloWithTheIdentity) {
    FrameTap tap(lab().netns_mgr());
    ASSERT_TRUE(tap.ok());
    ASSERT_EQ(lab().on_ap(1, "reboot").status, 0);
    ASSERT_TRUE(
        tap.next([](const auto &f) { return is_announcement(f, tav::kOpHello, ap_mac(1)); }, 20s))
        << "no hello after the restart";
    const auto started = Clock::now();
    auto report =
        tap.next([](const auto &f) { return is_announcement(f, tav::kOpReport, ap_mac(1)); }, 80s);
    ASSERT_TRUE(report) << "no report within 80 s";
    const auto after =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started);
    EXPECT_GE(after, 55s);
    EXPECT_LE(after, 75s);

    // The identity's records as discovery shows them, and the interface.
    auto discovery = lab().raw().request_one(tav::kOpDiscovery, {}, 3s);
    ASSERT_TRUE(discovery) << discovery.error();
    TlvList want;
    for (uint16_t tag :
         {tav::kTagModelName, tav::kTagProductType, tav::kTagFirmwareVersion, tav::kTagMac,
          tav::kTagHardwareVersion, tav::kTagSystemName, tav::kTagIpAddress, tav::kTagNetmask})
        if (auto r = discovery->find(tag)) want.push_back(*r);
    want.push_back(tlv_text(tav::kTagInterfaceName, "br0"));
    expect_own(*report, tav::kOpReport, 1, want);
}

}  // namespace
}  // namespace e2e
