// The unsolicited report, a minute after start-up (slow: waits for it).
#include "tests/e2e/e2e.h"

namespace e2e {
namespace {

using tav::client::tlv_text;

class ReportTiming : public LabSuite<ReportTiming> {
  public:
    static constexpr const char *kCode = "report";
    static constexpr int kAps = 1;
};

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

    const tav::Header &h = *report->msg->header;
    EXPECT_EQ(report->dst, tav::kBroadcastMac);
    EXPECT_EQ(h.sequence, 0);
    EXPECT_EQ(h.target_mac, tav::kZeroMac);
    EXPECT_EQ(h.result, 0);
    EXPECT_EQ(h.version, tav::kVersion);
    EXPECT_FALSE(report->msg->truncated);

    auto db = [&](const char *key) { return lab().db_get(1, key); };
    auto address = [&](const char *key) {
        return tav::client::tlv_ipv4(0, tav::client::parse_ipv4(db(key)).value()).value;
    };
    const std::string hw = db("/runtime/sys/info/hardwareversion");
    const TlvList want{
        tlv_text(tav::kTagModelName, db("/sys/hostname") + " " + hw),
        tlv_text(tav::kTagProductType, "Access point"),
        tlv_text(tav::kTagFirmwareVersion, db("/runtime/sys/info/firmwareversion")),
        tav::client::tlv_mac(tav::kTagMac, ap_mac(1)),
        tlv_text(tav::kTagHardwareVersion, hw),
        tlv_text(tav::kTagSystemName, db("/sys/systemName")),
        Record{tav::kTagIpAddress, address("/runtime/wan/inf:1/ip")},
        Record{tav::kTagNetmask, address("/runtime/wan/inf:1/netmask")},
        tlv_text(tav::kTagInterfaceName, "br0"),
    };
    EXPECT_EQ(report->msg->tlvs, want);
}

}  // namespace
}  // namespace e2e
