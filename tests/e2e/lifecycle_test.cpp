// What the daemon does when it starts and when it is told to stop.
#include <map>

#include "tests/e2e/e2e.h"

namespace e2e {
namespace {

constexpr const char *kManagedStatus = "/qm5_agent/managed_status";
constexpr const char *kFwStatus = "/runtime/tavclient/function/fw_upgrade/status";

void expect_own_message(const FrameTap::Frame &f, uint16_t op, int ap) {
    ASSERT_TRUE(f.msg && f.msg->header);
    const tav::Header &h = *f.msg->header;
    EXPECT_EQ(f.dst, tav::kBroadcastMac);
    EXPECT_EQ(f.src, ap_mac(ap));
    EXPECT_EQ(f.msg->plaintext.size(), tav::kL2HeaderLen) << hex(f.msg->plaintext);
    EXPECT_EQ(h.msg_type, tav::kMsgAnnounce);
    EXPECT_EQ(h.sequence, 0);
    EXPECT_EQ(h.op_code, op);
    EXPECT_EQ(h.target_mac, tav::kZeroMac);
    EXPECT_EQ(h.result, 0);
    EXPECT_EQ(h.version, tav::kVersion);
    EXPECT_EQ(h.body_length, 0);
}

// Six access points, each restarted with its own stored managed status.
class StartUp : public LabSuite<StartUp> {
  public:
    static constexpr const char *kCode = "start";
    static constexpr int kAps = 6;
};

TEST_F(StartUp, NormalisesManagedStatusClearsFirmwareProgressAndSaysHello) {
    struct Case {
        const char *stored, *after;
    };
    const Case cases[kAps] = {{"3", "2"}, {"4", "2"}, {"2", "2"},
                              {"0", "0"}, {"1", "1"}, {"5", "5"}};

    FrameTap tap(lab().netns_mgr());
    ASSERT_TRUE(tap.ok());
    // The values go into the committed state, which a (simulated) reboot
    // loads before the daemon starts.
    for (int ap = 1; ap <= kAps; ++ap) {
        const Sh r =
            lab().on_ap(ap, std::string("rgdb -s ") + kManagedStatus + " " + cases[ap - 1].stored +
                                " && rgdb -s " + kFwStatus + " 3 && submit COMMIT && reboot");
        ASSERT_EQ(r.status, 0) << r.out;
    }
    // The access points restart side by side: their hellos come in any order.
    std::map<int, FrameTap::Frame> hellos;
    const auto deadline = Clock::now() + 20s;
    while (hellos.size() < size_t(kAps) && Clock::now() < deadline) {
        auto f = tap.next(
            [](const auto &x) { return x.msg && x.msg->op_code() == tav::kOpHello; },
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()));
        if (f) hellos.emplace(f->src[5], *f);
    }
    for (int ap = 1; ap <= kAps; ++ap) {
        SCOPED_TRACE("ap" + std::to_string(ap));
        ASSERT_TRUE(hellos.count(ap)) << "no hello after the restart";
        expect_own_message(hellos.at(ap), tav::kOpHello, ap);
    }
    for (int ap = 1; ap <= kAps; ++ap) {
        SCOPED_TRACE("ap" + std::to_string(ap) + ", stored " + cases[ap - 1].stored);
        EXPECT_EQ(lab().db_get(ap, kManagedStatus), cases[ap - 1].after);
        EXPECT_EQ(lab().db_get(ap, kFwStatus), "0");
    }
}

class Shutdown : public LabSuite<Shutdown> {
  public:
    static constexpr const char *kCode = "term";
    static constexpr int kAps = 1;
};

TEST_F(Shutdown, SigtermSendsOneByeAndExitsWithStatusOne) {
    Client mgr = lab().raw();
    ASSERT_TRUE(mgr.request_one(tav::kOpDiscovery, {}, 3s)) << "daemon not serving";
    FrameTap tap(lab().netns_mgr());
    ASSERT_TRUE(tap.ok());
    const int pid = lab().daemon_pid(1);
    ASSERT_GT(pid, 0);

    ASSERT_EQ(lab().on_ap(1, "kill -TERM " + std::to_string(pid)).status, 0);
    const auto frames = tap.all(3s);
    size_t byes = 0, others = 0;
    for (const auto &f : frames) {
        if (is_announcement(f, tav::kOpBye, ap_mac(1))) {
            ++byes;
            expect_own_message(f, tav::kOpBye, 1);
        } else if (f.src == ap_mac(1)) {
            ++others;
        }
    }
    EXPECT_EQ(byes, 1u);
    EXPECT_EQ(others, 0u);

    // The supervisor reaps the daemon and logs how it ended.
    const std::string ended =
        "daemon (pid " + std::to_string(pid) + ") exited on its own with status ";
    std::string log;
    ASSERT_TRUE(until(
        [&] {
            log = slurp(lab().run_file(1, "supervisor.log"));
            return log.find(ended) != std::string::npos;
        },
        10s))
        << log;
    EXPECT_NE(log.find(ended + "1\n"), std::string::npos) << log;

    const Sh procs = lab().on_ap(1, "cat /proc/[0-9]*/comm");
    EXPECT_EQ(procs.out.find("tavc"), std::string::npos) << procs.out;
    // No socket of the daemon is left open in the access point.
    const Sh udp = lab().on_ap(1, "cat /proc/net/udp");
    EXPECT_EQ(udp.out.find(":F600 "), std::string::npos) << udp.out;
    const Sh packet = lab().on_ap(1, "cat /proc/net/packet");
    EXPECT_EQ(packet.out.find(" 2386 "), std::string::npos) << packet.out;
    EXPECT_FALSE(mgr.request_one(tav::kOpDiscovery, {}, 1s)) << "answered after exit";
}

}  // namespace
}  // namespace e2e
