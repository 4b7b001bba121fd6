// SPDX-License-Identifier: ISC
// Faults around the daemon, in the lab: its configuration database absent,
// killed, stalled and restarted; SIGTERM in the middle of a flood; thousands
// of delayed children. The daemon must never
// crash, keep the database client's promises (empty values, failed calls, no
// retry), and serve normally again once the database is back.
#include <atomic>
#include <cstdio>

#include "tests/e2e/hostile_support.h"

namespace e2e {
namespace {

// The database of access point 1, by pid inside the access point.
std::string xmldb_pid(const Lab &lab) {
    Sh r = lab.on_ap(1, "for d in /proc/[0-9]*; do [ \"$(cat $d/comm 2>/dev/null)\" = xmldb ] && echo ${d#/proc/}; done; true");
    if (!r.out.empty() && r.out.back() == '\n') r.out.pop_back();
    return r.out;
}
bool signal_xmldb(const Lab &lab, const char *sig) {
    const std::string pid = xmldb_pid(lab);
    return !pid.empty() && pid.find('\n') == std::string::npos &&
           lab.on_ap(1, std::string("kill -") + sig + " " + pid).status == 0;
}
// A new database server from the committed state (or the profile), as the
// access point's start-up would run it (the lab's own program: under an
// emulator, its wrapper); `identity` also sets the keys the lab's start-up
// sets.
bool start_xmldb(const Lab &lab, bool identity) {
    const std::string cmd =
        ". /usr/lib/tavlab/lab.env && setsid \"$TAVLAB_XMLDB\" -s /var/run/xmldb_sock -f " + quote(E2E_PROFILE) +
        " -p /var/run/xmldb.state </dev/null >>/var/run/xmldb.log 2>&1 & "
        "for i in $(seq 1200); do rgdb -g /sys/hostname >/dev/null 2>&1 && break; sleep 0.05; done; " +
        (identity ? "rgdb -s /runtime/wan/inf:1/mac 02:7a:76:00:00:01 && rgdb -s /runtime/wan/inf:1/ip 192.0.2.11 && "
                    "rgdb -s /runtime/wan/inf:1/netmask 255.255.255.0 && rgdb -s /sys/hostname ap1"
                  : "true");
    return lab.on_ap(1, cmd).status == 0 && !xmldb_pid(lab).empty();
}
// The host name a discovery answer carries, or nothing without an answer.
std::optional<std::string> discovered_name(Client &c) {
    auto r = c.request(tav::kOpDiscovery, {}, kLong, 1);
    if (!r || r->size() != 1) return std::nullopt;
    return r->front().text(tav::kTagHostName).value_or("(none)");
}

E2E_SUITE(DatabaseFaults, "dbf", 1, "--build " + quote(daemon_build()));

TEST_F(DatabaseFaults, KilledDuringRequestsThenRestarted) {
    ASSERT_EQ(lab().on_ap(1, "submit COMMIT").status, 0);  // identity kept for the restart
    Client raw = lab().raw(), udp = lab().udp();
    const int pid = daemon_pid(lab());
    // Three phases of 300 discoveries: database up, killed, restarted. Paths
    // alternate, but not while the database is away: the empty identity gives
    // raw answers the all-zero source MAC, which the lab's bridge drops.
    int answered[3] = {}, named[3] = {};
    for (int i = 0; i < 900; ++i) {
        const int phase = i / 300;
        if (i == 300) {
            ASSERT_TRUE(signal_xmldb(lab(), "KILL"));
        }
        if (i == 600) {
            ASSERT_TRUE(start_xmldb(lab(), false));
        }
        auto name = discovered_name(i % 2 || phase == 1 ? udp : raw);
        answered[phase] += bool(name), named[phase] += name == "ap1";
    }
    EXPECT_EQ(std::tuple(answered[0], named[0], answered[1], answered[2], named[2]), std::tuple(300, 300, 300, 300, 300))
        << "answers with whatever it has while the database is away, values again once it is back";
    EXPECT_EQ(daemon_pid(lab()), pid);
    std::printf("faults: database killed for 300 discoveries: %d answered (%d still named), restarted: %d of 300 named\n",
                answered[1], named[1], named[2]);
}

TEST_F(DatabaseFaults, StalledReplyHoldsTheDaemonUntilItComes) {
    Client udp = lab().udp();
    const int pid = daemon_pid(lab());
    ASSERT_EQ(discovered_name(udp), "ap1");
    ASSERT_TRUE(signal_xmldb(lab(), "STOP"));
    Finally resume([&] { signal_xmldb(lab(), "CONT"); });
    auto seq = udp.send_request(tav::kOpDiscovery, {});
    ASSERT_TRUE(seq);
    EXPECT_TRUE(udp.collect(*seq, tav::kOpDiscovery, 3s).empty()) << "answered while the database stalled";
    ASSERT_TRUE(signal_xmldb(lab(), "CONT"));
    auto late = udp.collect(*seq, tav::kOpDiscovery, kLong, 1);
    ASSERT_EQ(late.size(), 1u) << "no answer once the database went on";
    EXPECT_EQ(late.front().text(tav::kTagHostName), "ap1");
    EXPECT_EQ(daemon_pid(lab()), pid);
}

TEST_F(DatabaseFaults, AbsentAtStartUpThenStarted) {
    // A state file the database refuses keeps it from starting at the next
    // boot; the daemon starts all the same.
    const int old_pid = daemon_pid(lab());
    if (!xmldb_pid(lab()).empty()) {
        ASSERT_TRUE(signal_xmldb(lab(), "KILL"));  // one started by hand
    }
    ASSERT_EQ(lab().on_ap(1, "printf '\\001bad value\\n' >/var/run/xmldb.state && reboot").status, 0);
    ASSERT_TRUE(until([&] { int p = daemon_pid(lab()); return p > 0 && p != old_pid && lab().serving(1); }, kLong))
        << slurp(lab().run_file(1, "supervisor.log"));
    ASSERT_TRUE(xmldb_pid(lab()).empty()) << "the database came up after all";
    const int pid = daemon_pid(lab());
    Client udp = lab().udp(), raw = lab().raw();
    auto r = udp.request_one(tav::kOpDiscovery, {}, kLong);
    ASSERT_TRUE(r) << "no answer without a database: " << r.error();
    EXPECT_EQ(r->text(tav::kTagHostName), "") << "empty values without a database";
    EXPECT_EQ(r->ipv4(tav::kTagIpAddress), (std::array<uint8_t, 4>{0, 0, 0, 0}));
    EXPECT_NE(slurp(lab().run_file(1, "tavc.err")).find("Cound not connect to unix socket: /var/run/xmldb_sock."),
              std::string::npos);
    ASSERT_EQ(lab().on_ap(1, "rm -f /var/run/xmldb.state").status, 0);
    ASSERT_TRUE(start_xmldb(lab(), true));
    EXPECT_EQ(discovered_name(udp), "ap1");
    EXPECT_EQ(discovered_name(raw), "ap1");
    EXPECT_EQ(daemon_pid(lab()), pid) << "the daemon ran through it all";
}

E2E_SUITE(TermMidFlood, "tflood", 1, "--build " + quote(daemon_build()));

// SIGTERM while a flood arrives: one bye, exit status 1, nothing left.
TEST_F(TermMidFlood, OneByeAndExitStatusOne) {
    const int pid = daemon_pid(lab());
    ASSERT_GT(pid, 0);
    Client tap = lab().raw();
    std::atomic<bool> stop{false};
    std::atomic<long> sent{0};
    std::thread flood([&] {  // until the test ends it, and never more than this many
        Client raw = lab().raw(), udp = lab().udp();
        HostileTraffic gen(7);
        // Discovery by UDP only: its answers by raw Ethernet go to every
        // station, and on a loaded machine they filled the tap's queue until
        // the bye was dropped from it.
        for (; !stop && sent < 200000; ++sent) {
            Client &c = gen.coin() ? udp : raw;
            if (gen.coin()) (void)udp.send_request(tav::kOpDiscovery, {});
            else (void)c.send_plaintext(gen.any_plaintext());
        }
    });
    Finally join([&] { stop = true, flood.join(); });
    while (sent < 2000) std::this_thread::sleep_for(10ms);
    std::thread term([&] { EXPECT_EQ(terminate_daemon(lab(), pid), 1); });
    int byes = 0;
    auto is_bye = [bye = own(tav::kOpBye)](const Message &m) { return m.is_announcement() && bye(m); };
    if (tap.wait_for(is_bye, kLong)) ++byes;
    term.join();
    while (tap.wait_for(is_bye, 2s)) ++byes;
    EXPECT_EQ(byes, 1);
    // Nothing of the daemon is left: no process, no UDP port, no raw socket.
    const Sh left = lab().on_ap(1, "cat /proc/[0-9]*/comm /proc/net/udp /proc/net/packet");
    for (const char *mark : {"tavc", ":F600 ", " 2386 "}) EXPECT_EQ(left.out.find(mark), std::string::npos) << mark;
    std::printf("faults: SIGTERM after %ld flood messages: %d bye\n", sent.load(), byes);
}

E2E_SUITE(DelayedChildren, "kids", 1, "--build " + quote(daemon_build()));

// Accepted reboots and resets leave children that wait out their delay; the
// test ends them itself (the delay is far longer than the test) and the
// daemon must reap every one.
TEST_F(DelayedChildren, TwoThousandAreReapedOnceTheyEnd) {
    if (emulated()) GTEST_SKIP() << "2,000 children of an emulated daemon are 2,000 emulators";
    Client raw = lab().raw(), udp = lab().udp();
    TlvList tlvs = tav::requests::lead("admin", "admin");
    tlvs.push_back(tav::client::tlv_u32(tav::kTagDelayTime, 3600));
    const uint16_t ops[] = {tav::kOpReboot, tav::kOpReset, tav::kOpResetFactory};
    int accepted = 0;
    for (int i = 0; i < 2000; ++i) {
        auto r = (i % 2 ? udp : raw).request_one(ops[i % 3], tlvs, kLong);
        accepted += r && r->result() == 0;
    }
    EXPECT_EQ(accepted, 2000);
    EXPECT_EQ(daemon_children(lab()), 2000);
    Sh k = lab().on_ap(1, daemon_children_cmd() + " | xargs -r kill -KILL");
    ASSERT_EQ(k.status, 0) << k.out;
    EXPECT_TRUE(until([&] { return daemon_children(lab()) == 0; }, kLong))
        << daemon_children(lab()) << " children left; zombies: " << daemon_zombies(lab());
    EXPECT_TRUE(raw.request_one(tav::kOpDiscovery, {}, kLong));
}

}  // namespace
}  // namespace e2e
