// Faults around the daemon, in the lab: its configuration database absent,
// killed, stalled and restarted; SIGTERM in the middle of a flood; thousands
// of delayed children; the manager registry full, and a thousand managers at
// once. The daemon must never crash, keep the database client's promises
// (empty values, failed calls, no retry), and serve normally again once the
// database is back.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <map>

#include "tests/e2e/hostile_support.h"

namespace e2e {
namespace {

using tav::client::tlv_text;
using tav::client::tlv_u32;
using tav::client::tlv_u8;

// The database of access point 1, by pid inside the access point.
std::string xmldb_pid(const Lab &lab) {
    Sh r = lab.on_ap(1, "for d in /proc/[0-9]*; do [ \"$(cat $d/comm 2>/dev/null)\" = xmldb ] && "
                        "echo ${d#/proc/}; done; true");
    if (!r.out.empty() && r.out.back() == '\n') r.out.pop_back();
    return r.out;
}
bool signal_xmldb(const Lab &lab, const char *sig) {
    const std::string pid = xmldb_pid(lab);
    return !pid.empty() && pid.find('\n') == std::string::npos &&
           lab.on_ap(1, std::string("kill -") + sig + " " + pid).status == 0;
}
// A new database server from the committed state (or the profile), as the
// access point's start-up would run it; `identity` also sets the keys the
// lab's start-up sets.
bool start_xmldb(const Lab &lab, bool identity) {
    const std::string cmd =
        "setsid " + quote(daemon_build() + "/sim/xmldb/xmldb") +
        " -s /var/run/xmldb_sock -f " + quote(E2E_PROFILE) +
        " -p /var/run/xmldb.state </dev/null >>/var/run/xmldb.log 2>&1 & "
        "for i in $(seq 100); do rgdb -g /sys/hostname >/dev/null 2>&1 && break; sleep 0.05; done; " +
        (identity ? "rgdb -s /runtime/wan/inf:1/mac 02:7a:76:00:00:01 && "
                    "rgdb -s /runtime/wan/inf:1/ip 192.0.2.11 && "
                    "rgdb -s /runtime/wan/inf:1/netmask 255.255.255.0 && rgdb -s /sys/hostname ap1"
                  : "true");
    return lab.on_ap(1, cmd).status == 0 && !xmldb_pid(lab).empty();
}

// The host name a discovery answer carries, or nothing without an answer.
std::optional<std::string> discovered_name(Client &c, std::chrono::milliseconds window = 2s) {
    auto r = c.request(tav::kOpDiscovery, {}, window, 1);
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
        answered[phase] += bool(name);
        named[phase] += name == "ap1";
    }
    EXPECT_EQ(answered[0], 300);
    EXPECT_EQ(named[0], 300);
    EXPECT_EQ(answered[1], 300) << "the daemon must answer with whatever it has";
    EXPECT_EQ(answered[2], 300);
    EXPECT_EQ(named[2], 300) << "values again once the database is back";
    EXPECT_EQ(daemon_pid(lab()), pid);
    EXPECT_TRUE(lab().serving(1));
    std::printf("faults: database killed for 300 discoveries: %d answered (%d still named), "
                "restarted: %d of 300 named\n",
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
    // The client waits for the database without a time limit.
    EXPECT_TRUE(udp.collect(*seq, tav::kOpDiscovery, 3s).empty()) << "answered while the database stalled";
    ASSERT_TRUE(signal_xmldb(lab(), "CONT"));
    auto late = udp.collect(*seq, tav::kOpDiscovery, 5s, 1);
    ASSERT_EQ(late.size(), 1u) << "no answer once the database went on";
    EXPECT_EQ(late.front().text(tav::kTagHostName), "ap1");
    EXPECT_EQ(discovered_name(udp), "ap1");
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
    ASSERT_TRUE(until([&] { int p = daemon_pid(lab()); return p > 0 && p != old_pid && lab().serving(1); }, 30s))
        << slurp(lab().run_file(1, "supervisor.log"));
    ASSERT_TRUE(xmldb_pid(lab()).empty()) << "the database came up after all";
    const int pid = daemon_pid(lab());

    Client udp = lab().udp(), raw = lab().raw();
    auto r = udp.request_one(tav::kOpDiscovery, {}, 3s);
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

TEST_F(TermMidFlood, OneByeAndExitStatusOne) {
    const int pid = daemon_pid(lab());
    ASSERT_GT(pid, 0);
    FrameTap tap(lab().netns_mgr());
    std::atomic<bool> stop{false};
    std::atomic<long> sent{0};
    std::thread flood([&] {
        Client raw = lab().raw(), udp = lab().udp();
        HostileTraffic gen(7);
        while (!stop) {
            const bool via_udp = gen.coin();
            Client &c = via_udp ? udp : raw;
            if (gen.coin())
                (void)c.send_request(tav::kOpDiscovery, {});
            else
                (void)c.send_plaintext(gen.plaintext(HostileTraffic::Kind(gen.pick(0, HostileTraffic::kKinds - 1)),
                                                     gen.coin()));
            ++sent;
        }
    });
    Finally join([&] {
        stop = true;
        flood.join();
    });
    std::this_thread::sleep_for(1s);
    ASSERT_EQ(lab().on_ap(1, "kill -TERM " + std::to_string(pid)).status, 0);
    int byes = 0;
    const auto until_t = Clock::now() + 4s;
    auto is_bye = [](const FrameTap::Frame &f) {
        return f.src == ap_mac(1) && f.msg && f.msg->is_announcement() && f.msg->op_code() == tav::kOpBye;
    };
    while (tap.next(is_bye, std::chrono::duration_cast<std::chrono::milliseconds>(until_t - Clock::now())))
        ++byes;
    EXPECT_EQ(byes, 1);
    const std::string ended = "daemon (pid " + std::to_string(pid) + ") exited on its own with status ";
    std::string log;
    ASSERT_TRUE(until([&] { return (log = slurp(lab().run_file(1, "supervisor.log"))).find(ended) != std::string::npos; }, 10s))
        << log;
    EXPECT_NE(log.find(ended + "1\n"), std::string::npos) << log;
    std::printf("faults: SIGTERM after %ld flood messages: %d bye\n", sent.load(), byes);
}

E2E_SUITE(DelayedChildren, "kids", 1, "--build " + quote(daemon_build()));

// Accepted reboots and resets leave children that wait out their delay; the
// test ends them itself (the delay is far longer than the test) and the
// daemon must reap every one.
TEST_F(DelayedChildren, TwoThousandAreReapedOnceTheyEnd) {
    Client raw = lab().raw(), udp = lab().udp();
    TlvList tlvs = tav::requests::lead("admin", "admin");
    tlvs.push_back(tlv_u32(tav::kTagDelayTime, 3600));
    // Those of reboot, reset and factory reset that are served.
    std::vector<uint16_t> ops;
    int accepted = 0;
    for (uint16_t op : {tav::kOpReboot, tav::kOpReset, tav::kOpResetFactory})
        if (auto r = raw.request_one(op, tlvs, 2s)) ops.push_back(op), accepted += r->result() == 0;
    if (ops.empty()) GTEST_SKIP() << "neither reboot nor the resets are answered yet";
    for (int i = int(ops.size()); i < 2000; ++i) {
        auto r = (i % 2 ? udp : raw).request_one(ops[size_t(i) % ops.size()], tlvs, 3s);
        accepted += r && r->result() == 0;
    }
    EXPECT_EQ(accepted, 2000);
    EXPECT_EQ(daemon_children(lab()), 2000);
    // End them: each child of the daemon, by pid.
    Sh k = lab().on_ap(1, daemon_children_cmd() + " | xargs -r kill -KILL");
    ASSERT_EQ(k.status, 0) << k.out;
    EXPECT_TRUE(until([&] { return daemon_children(lab()) == 0; }, 10s))
        << daemon_children(lab()) << " children left; zombies: " << daemon_zombies(lab());
    EXPECT_EQ(daemon_zombies(lab()), "");
    EXPECT_TRUE(raw.request_one(tav::kOpDiscovery, {}, 1s));
    std::printf("faults: %d delayed reboots and resets accepted, all reaped\n", accepted);
}

E2E_SUITE(ManyManagers, "many", 1, "--build " + quote(daemon_build()));

Mac manager_mac(int i) { return {0x02, 0xe3, 0x00, uint8_t(i >> 8), uint8_t(i), 0x01}; }

// One raw client speaks for every manager, each with its own source MAC.
struct Managers {
    explicit Managers(const Lab &lab) : c(lab.raw()) {}
    tav::client::Expected<Message> verify(int who, int precedence, std::chrono::milliseconds window = 3s) {
        as(who);
        TlvList tlvs = tav::requests::lead("admin", "admin", uint8_t(precedence));
        return c.request_one(tav::kOpUserVerification, tlvs, window);
    }
    bool bye(int who) {
        as(who);
        return bool(c.request_one(tav::kOpBye, {}, 3s));
    }
    void as(int who) { static_cast<tav::client::RawTransport &>(c.transport()).set_source_mac(manager_mac(who)); }
    Client c;
};

TEST_F(ManyManagers, RegistryFullKeepsDeciding) {
    Managers m(lab());
    Finally leave([&] {
        for (int i = 0; i <= 1026; ++i) m.bye(i);
    });
    for (int i = 0; i < 1024; ++i) {
        auto r = m.verify(i, 1);
        ASSERT_TRUE(r && r->result() == 0) << "manager " << i;
    }
    const int x = 1024, y = 1025, first = 0;
    const struct {
        const char *what;
        int who, precedence;
        uint16_t result;
    } steps[] = {
        {"the 1025th is judged", x, 200, 0},
        {"but not remembered", y, 100, 0},
        {"known managers still count", first, 0, 0xFFFF},
        {"a known manager raises its own", first, 150, 0},
        {"an unknown one below it is refused", x, 149, 0xFFFF},
    };
    for (const auto &s : steps) {
        auto r = m.verify(s.who, s.precedence);
        ASSERT_TRUE(r) << s.what << ": " << r.error();
        EXPECT_EQ(r->result(), s.result) << s.what;
    }
    // A bye frees a record: the next newcomer is remembered again.
    ASSERT_TRUE(m.bye(first));
    EXPECT_EQ(m.verify(y, 100)->result(), 0);
    EXPECT_EQ(m.verify(x, 99)->result(), 0xFFFF) << "y's 100 was remembered";
}

TEST_F(ManyManagers, ThousandAtOnceWithPrecedenceTraffic) {
    Managers m(lab());
    constexpr int kManagers = 1000, kBatch = 50;
    Finally leave([&] {
        for (int i = 0; i < kManagers; ++i) m.bye(2000 + i);
    });
    std::mt19937 rng(42);
    std::map<int, int> held;  // manager → its precedence for the op code
    int checked = 0, refused = 0;
    for (int round = 0; round < 2; ++round) {
        for (int base = 0; base < kManagers; base += kBatch) {
            // A batch sent back to back; the daemon serves them in order.
            std::map<std::pair<Mac, uint16_t>, uint16_t> expect;
            for (int i = base; i < base + kBatch; ++i) {
                const int who = 2000 + i, p = int(rng() % 256);
                int top = p;
                for (auto [mgr, q] : held) top = std::max(top, q);
                held[who] = p;
                m.as(who);
                auto seq = m.c.send_request(tav::kOpUserVerification, tav::requests::lead("admin", "admin", uint8_t(p)));
                ASSERT_TRUE(seq);
                expect[{manager_mac(who), *seq}] = top > p ? 0xFFFF : 0;
            }
            std::map<std::pair<Mac, uint16_t>, uint16_t> got;
            const auto deadline = Clock::now() + 5s;
            while (got.size() < expect.size() && Clock::now() < deadline)
                for (auto &msg : m.c.receive_all(50ms))
                    if (msg.header && msg.op_code() == tav::kOpUserVerification &&
                        msg.msg_type() == tav::kMsgL2Reply)
                        got[{msg.header->target_mac, msg.header->sequence}] = msg.result();
            ASSERT_EQ(got.size(), expect.size()) << "answers missing in round " << round << " batch " << base;
            for (auto &[key, result] : expect) {
                EXPECT_EQ(got[key], result) << tav::client::format_mac(key.first);
                ++checked, refused += result != 0;
            }
        }
    }
    std::printf("faults: %d verifications from %d managers checked, %d refused by precedence\n", checked,
                kManagers, refused);
}

}  // namespace
}  // namespace e2e
