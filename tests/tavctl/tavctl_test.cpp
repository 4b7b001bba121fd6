// The client library and the tavctl program against a stand-in device on
// loopback UDP: cipher binding, reply matching, kept messages, error texts,
// output forms and exit statuses. The raw path is driven by the lab suites.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <mutex>
#include <thread>

#include "tools/client/client.h"

namespace {

using namespace tav;
using namespace tav::client;
using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

Bytes seal(const Cipher &c, const Bytes &plain) {
    auto s = c.encode(plain).value();
    Bytes out{uint8_t(s.selector >> 8), uint8_t(s.selector)};
    out.insert(out.end(), s.ciphertext.begin(), s.ciphertext.end());
    return out;
}

// Plaintext of an IPv4-form reply to `req`.
Bytes reply(const Message &req, uint16_t result, const TlvList &tlvs, int sequence_delta = 0) {
    Bytes out = build_request(true, uint16_t(req.header->sequence + sequence_delta), req.header->op_code, kZeroMac,
                              req.src_ip, tlvs);
    put_be16(out.data(), kMsgIpv4Reply);
    put_be16(out.data() + 16, result);
    return out;
}

// Deciphers each request and answers the plaintexts `handler` returns.
class FakeDevice {
  public:
    explicit FakeDevice(std::function<std::vector<Bytes>(const Message &)> handler) : handler_(std::move(handler)) {}
    ~FakeDevice() { stop_ = true, thread_.join(); }
    uint16_t port() const { return in_->local_port(); }
    std::vector<Message> requests() { return std::lock_guard(mu_), seen_; }

  private:
    void run() {
        while (!stop_) {
            auto d = in_->receive(Clock::now() + 20ms);
            auto plain = d ? cipher_.decode(get_be16(d->payload.data()), std::span(d->payload).subspan(2)) : Bytes{};
            if (!plain || plain->empty()) continue;
            Message req = parse_message(*plain);
            req.src_ip = d->src_ip;
            {
                std::lock_guard g(mu_);
                seen_.push_back(req);
            }
            auto out = UdpTransport::open("127.0.0.1", d->src_port).value();
            for (const auto &r : req.header ? handler_(req) : std::vector<Bytes>{}) (void)out->send(seal(cipher_, r));
        }
    }
    std::function<std::vector<Bytes>(const Message &)> handler_;
    Cipher cipher_ = Cipher::load(TEST_CIPHER).value();
    std::unique_ptr<UdpTransport> in_ = UdpTransport::open("127.0.0.1").value();
    std::atomic<bool> stop_{false};
    std::mutex mu_;
    std::vector<Message> seen_;
    std::thread thread_{[this] { run(); }};
};

Options udp_options(uint16_t port) {
    Options o = Options::over_udp("127.0.0.1", "", TEST_CIPHER);
    o.port = port;
    o.sequence = 0x4242;
    return o;
}

TEST(Client, CipherAndPathErrorsNameTheCause) {
    auto missing = Cipher::load("/nonexistent/TAV_Auth.so");
    EXPECT_NE(missing.error().find("/nonexistent/TAV_Auth.so: cannot open shared object file: No such file"),
              std::string::npos) << missing.error();
    EXPECT_NE(Cipher::load("libm.so.6").error().find("TAV_encode"), std::string::npos);  // loads, but no cipher
    EXPECT_THROW(Client(Options::raw("lo", "", "/nonexistent.so")), ClientError);
    auto both = Options::raw("lo", "", TEST_CIPHER);
    both.udp = "127.0.0.1";
    EXPECT_FALSE(Client::open(both));
    const std::pair<Options, const char *> cases[] = {
        {Options::raw("tavnoif0", "", TEST_CIPHER), "no such network interface \"tavnoif0\""},
        {Options::over_udp("192.0.2", "", TEST_CIPHER), "not an IPv4 address"},
        {Options::over_udp("127.0.0.1", "tav-no-such-ns", TEST_CIPHER), "network namespace"},
    };
    for (const auto &[o, says] : cases) EXPECT_NE(Client::open(o).error().find(says), std::string::npos) << says;
}

TEST(Client, RequestCollectsMatchingRepliesKeepsTheRestAndStopsAtMax) {
    FakeDevice dev([](const Message &req) {
        if (req.op_code() == kOpUserVerification) return std::vector<Bytes>{reply(req, 64, {}), reply(req, 0, {})};
        return std::vector<Bytes>{reply(req, 0, {}, 1),  // other sequence
                           reply(req, 0, {tlv_text(kTagVendor, "Quelbo"), tlv_u16(kTagWebPort, 80)})};
    });
    Client c(udp_options(dev.port()));
    auto replies = c.request(kOpDiscovery, {}, 300ms).value();
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].header->sequence, 0x4242);
    EXPECT_EQ(replies[0].text(kTagVendor), "Quelbo");
    EXPECT_EQ(replies[0].u16(kTagWebPort), 80);
    EXPECT_FALSE(replies[0].u8(kTagWebPort));  // wrong size
    auto rest = c.receive_all(50ms);           // the stray reply was kept, not lost
    ASSERT_EQ(rest.size(), 1u);
    EXPECT_EQ(rest[0].header->sequence, 0x4243);

    auto start = Clock::now();
    auto r = c.request_one(kOpUserVerification, {tlv_u8(kTagServerPrecedence, 5), tlv_text(kTagUserName, "ad")}, 2s);
    EXPECT_LT(Clock::now() - start, 1500ms);  // did not wait out the window
    EXPECT_EQ(r.value().result(), 64);
    auto seen = dev.requests();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(std::tuple(seen[0].header->msg_type, seen[0].header->target_mac, seen[0].header->target_ip),
              std::tuple(kMsgIpv4Request, kZeroMac, std::array<uint8_t, 4>{}));
    EXPECT_EQ(seen[1].u8(kTagServerPrecedence), 5);
    EXPECT_EQ(seen[1].text(kTagUserName), "ad");
}

TEST(Client, SilenceAnnouncementsAndUndecodable) {
    FakeDevice dev([](const Message &req) {
        if (req.op_code() != kOpHello) return std::vector<Bytes>{};
        auto a = reply(req, 0, {});
        put_be16(a.data(), kMsgAnnounce);
        return std::vector<Bytes>{a, {1, 2, 3}};  // an announcement and a short plaintext
    });
    Client c(udp_options(dev.port()));
    EXPECT_NE(c.request_one(kOpDiscovery, {}, 100ms).error().find("no reply"), std::string::npos);
    ASSERT_TRUE(c.request(kOpHello, {}, 100ms).value().empty());
    auto all = c.receive_all(50ms);
    ASSERT_EQ(all.size(), 2u);
    EXPECT_TRUE(all[0].is_announcement());
    EXPECT_FALSE(all[1].header);  // raw plaintext still exposed
    EXPECT_EQ(all[1].plaintext, (Bytes{1, 2, 3}));
    EXPECT_EQ(c.undecodable(), 1u);
}

struct Run {
    int status;
    std::string out, err;
};

// No terminal (setsid), no config file and no settings in the environment
// unless given.
Run tavctl(const std::string &args, const std::string &env = "") {
    const std::string err = ::testing::TempDir() + "tavctl_err_" + std::to_string(getpid());
    FILE *p = popen(("env -u TAVCTL_PASSWORD -u TAVCTL_USER -u TAVCTL_UDP -u TAVCTL_IFACE -u TAVCTL_PASSWORD_FILE TAVCTL_CONFIG=/dev/null " + env + " setsid -w " TAVCTL " " + args + " </dev/null 2>" + err).c_str(), "r");
    Run r{-1, {}, {}};
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
    int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    std::ifstream f(err);
    r.err.assign(std::istreambuf_iterator<char>(f), {});
    std::remove(err.c_str());
    return r;
}

std::string udp(const FakeDevice &d, const std::string &rest) {
    return "--udp 127.0.0.1 --port " + std::to_string(d.port()) + " --cipher " TEST_CIPHER " --timeout 0.3 " + rest;
}

TEST(Tavctl, DiscoverJsonIsAnArrayEvenOfOneAndNoReplyIsStatus3) {
    FakeDevice dev([](const Message &req) {
        return std::vector<Bytes>{reply(req, 0, {tlv_text(kTagModelName, "AP-9 A1"), tlv_mac(kTagMac, Mac{2, 0x7a, 0x76, 0, 0, 1}),
                                          tlv_ipv4(kTagIpAddress, {192, 0, 2, 11}), tlv_u16(kTagWebPort, 8080)})};
    });
    auto r = tavctl(udp(dev, "--json discover"));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("[\n  {", 0), 0u) << r.out;
    EXPECT_EQ(r.out.substr(r.out.size() - 6), "  }\n]\n");
    for (const char *field : {"\"mac\": \"02:7a:76:00:00:01\"", "\"ip\": \"192.0.2.11\"", "\"web_port\": 8080"})
        EXPECT_NE(r.out.find(field), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("{", 5), std::string::npos) << r.out;  // one object
    auto table = tavctl(udp(dev, "discover"));
    EXPECT_NE(table.out.find("02:7a:76:00:00:01  192.0.2.11"), std::string::npos) << table.out;

    FakeDevice mute([](const Message &) { return std::vector<Bytes>{}; });
    auto none = tavctl(udp(mute, "--json discover"));
    EXPECT_EQ(std::tuple(none.status, none.out), std::tuple(3, "[]\n"));
    EXPECT_NE(none.err.find("no reply"), std::string::npos) << none.err;
    EXPECT_EQ(tavctl(udp(mute, "hello")).status, 3);
}

TEST(Tavctl, RawPrintsTypedTlvsAndResultStatus) {
    FakeDevice dev([](const Message &req) {
        if (req.op_code() == kOpSetSnmp)
            return std::vector<Bytes>{reply(req, 2002, {tlv_u32(394, 20), {395, {2, 0, 0, 0}}})};
        return std::vector<Bytes>{reply(req, 0, req.tlvs)};  // echo
    });
    auto r = tavctl(udp(dev, "raw tav_set_snmp_configuration --tlv SNMP_ROCOMM=x"));
    EXPECT_EQ(r.status, 1) << r.err;
    for (const char *line : {"result 2002 some SNMP items refused", "SNMP_ERROR_MASK            2",
                             "WAIT_TIME                  20"})
        EXPECT_NE(r.out.find(line), std::string::npos) << r.out;
    EXPECT_EQ(dev.requests().at(0).text(kTagSnmpRocomm), "x");
    auto echo = tavctl(udp(dev, "--json raw 0x103 --tlv 54=u8:5 --tlv DELAY_TIME=30 --tlv 999=x:0a0b"));
    ASSERT_EQ(echo.status, 0) << echo.err;
    for (const char *field : {"\"name\": \"SERVER_PRECEDENCE\"", "\"value\": 30", "\"name\": null", "\"hex\": \"0a0b\""})
        EXPECT_NE(echo.out.find(field), std::string::npos) << echo.out;
    auto bad = tavctl(udp(dev, "raw 0xA1 --tlv 54=300"));
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.err.find("0 to 255"), std::string::npos);
}

TEST(Tavctl, VerifyPasswordSourcesAndSetupErrors) {
    FakeDevice dev([](const Message &req) {
        bool ok = req.text(kTagUserName) == "admin" && req.text(kTagPassword) == "s3cr%t";
        return std::vector<Bytes>{ok ? reply(req, 0, {{kTagVerification, {1, 0, 0, 0}}}) : reply(req, 64, {})};
    });
    const std::string pw = ::testing::TempDir() + "tavctl_pw_" + std::to_string(getpid());
    std::ofstream(pw) << "s3cr%t\nsecond line ignored\n";
    auto ok = tavctl(udp(dev, "verify --user admin --precedence 7 --password-file " + pw));
    EXPECT_EQ(ok.status, 0) << ok.err;
    EXPECT_NE(ok.out.find("credentials accepted"), std::string::npos) << ok.out;
    EXPECT_EQ(dev.requests().back().u8(kTagServerPrecedence), 7);
    auto env = tavctl(udp(dev, "verify --user admin"), "TAVCTL_PASSWORD=wrong");
    EXPECT_EQ(env.status, 1);
    EXPECT_NE(env.out.find("64 authentication failed"), std::string::npos) << env.out;
    EXPECT_NE(tavctl(udp(dev, "verify --user admin")).err.find("no password"), std::string::npos);
    EXPECT_EQ(tavctl(udp(dev, "verify --user admin --password x")).status, 2);  // never on the command line
    EXPECT_EQ(tavctl(udp(dev, "raw 0xA3 --tlv 55=admin --tlv 56=@password"), "TAVCTL_PASSWORD=s3cr%t").status, 0);
    EXPECT_EQ(tavctl(udp(dev, "raw 0xA3 --credentials"), "TAVCTL_PASSWORD=s3cr%t TAVCTL_USER=admin").status, 0);
    std::remove(pw.c_str());

    auto cipher = tavctl("--udp 127.0.0.1 --cipher /nonexistent/c.so discover");
    EXPECT_EQ(cipher.status, 4);
    EXPECT_NE(cipher.err.find("cannot load cipher library"), std::string::npos);
    auto iface = tavctl("--iface tavnoif0 --cipher " TEST_CIPHER " discover");
    EXPECT_EQ(iface.status, 5);
    EXPECT_NE(iface.err.find("no such network interface"), std::string::npos) << iface.err;
    EXPECT_EQ(tavctl("discover").status, 2);  // no path
    EXPECT_EQ(tavctl("frobnicate --udp 127.0.0.1").status, 2);
}

// Settings come from the config file, the environment over it and the
// command line over both; a password only from a private file.
TEST(Tavctl, ConfigFileEnvironmentAndCommandLineLayers) {
    FakeDevice dev([](const Message &req) {
        bool ok = req.text(kTagPassword) == "pw-from-file";
        return std::vector<Bytes>{reply(req, ok ? 0 : 64, {{kTagVerification, {1, 0, 0, 0}}})};
    });
    const std::string conf = ::testing::TempDir() + "tavctl_conf_" + std::to_string(getpid());
    std::ofstream(conf) << "# lab\nudp = 127.0.0.1\nport = " << dev.port()
                        << "\ncipher = " TEST_CIPHER "\ntimeout = 0.3\nuser = cfg-user\npassword = pw-from-file\n";
    ::chmod(conf.c_str(), 0600);
    const std::string env = "TAVCTL_CONFIG=" + conf;
    EXPECT_EQ(tavctl("verify", env).status, 0);
    EXPECT_EQ(dev.requests().back().text(kTagUserName), "cfg-user");
    EXPECT_EQ(tavctl("verify", env + " TAVCTL_USER=env-user").status, 0);
    EXPECT_EQ(dev.requests().back().text(kTagUserName), "env-user");
    EXPECT_EQ(tavctl("verify --user cli-user", env + " TAVCTL_USER=env-user").status, 0);
    EXPECT_EQ(dev.requests().back().text(kTagUserName), "cli-user");
    EXPECT_EQ(tavctl("verify", env + " TAVCTL_PASSWORD=other").status, 1);  // environment wins
    EXPECT_EQ(tavctl("--iface tavnoif0 verify", env).status, 5);             // the path as a whole
    EXPECT_EQ(tavctl("--iface lo --udp 127.0.0.1 verify", env).status, 2);

    ::chmod(conf.c_str(), 0644);
    auto open = tavctl("verify", env);
    EXPECT_EQ(open.status, 2);
    EXPECT_NE(open.err.find(conf + ":7: a password may only stand in a file no one else can read"),
              std::string::npos) << open.err;
    std::ofstream(conf) << "udp 127.0.0.1\n";
    EXPECT_NE(tavctl("hello", env).err.find(":1: expected \"key = value\""), std::string::npos);
    std::remove(conf.c_str());
    EXPECT_EQ(tavctl("--version").out.rfind("tavctl ", 0), 0u);
}

// --target by host name asks discovery and addresses the device's MAC and
// address; an unknown name is no reply (3) and nothing else is sent.
TEST(Tavctl, TargetByHostNameResolvesThroughDiscovery) {
    const Mac mac{2, 0x7a, 0x76, 0, 0, 9};
    FakeDevice dev([&](const Message &req) {
        if (req.op_code() != kOpDiscovery) return std::vector<Bytes>{reply(req, 0, {})};
        return std::vector<Bytes>{reply(req, 0, {tlv_text(kTagHostName, "other"), tlv_mac(kTagMac, {2, 0, 0, 0, 0, 1})}),
                                  reply(req, 0, {tlv_text(kTagHostName, "ap-lobby"), tlv_mac(kTagMac, mac),
                                                 tlv_ipv4(kTagIpAddress, {192, 0, 2, 31})})};
    });
    auto r = tavctl(udp(dev, "hello --target ap-lobby"));
    ASSERT_EQ(r.status, 0) << r.err;
    auto seen = dev.requests();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(std::tuple(seen[1].op_code(), seen[1].header->target_mac, seen[1].header->target_ip),
              std::tuple(uint16_t(kOpHello), mac, std::array<uint8_t, 4>{192, 0, 2, 31}));
    auto none = tavctl(udp(dev, "--target ap-attic hello"));
    EXPECT_EQ(none.status, 3);
    EXPECT_NE(none.err.find("no device named \"ap-attic\""), std::string::npos) << none.err;
    EXPECT_EQ(dev.requests().size(), 3u);
    EXPECT_EQ(tavctl(udp(dev, "--target 192.0.2.31 hello")).status, 0);  // UDP: the address goes in the header
    EXPECT_EQ(dev.requests().back().header->target_ip, (std::array<uint8_t, 4>{192, 0, 2, 31}));
}

// Maintenance commands: the requests they compose, --wait's failure, time
// limit and busy texts; what commands refuse before sending anything.
TEST(Tavctl, MaintenanceRequestsWaitAndRefusals) {
    std::atomic<int> progress{0}, after_start{0};  // what status queries answer
    FakeDevice dev([&](const Message &req) {
        if (req.op_code() == kOpReboot)
            return std::vector<Bytes>{reply(req, 0, {tlv_u32(0x189, 2), tlv_u32(0x18A, 300000)})};
        const Record *sub = req.find(0x180);
        uint8_t s = sub && sub->value.size() == 1 ? sub->value[0] : 0;
        if (s == 1) progress = after_start.load();
        return std::vector<Bytes>{reply(req, 0, {tlv_u8(0x180, s), tlv_u8(0x184, uint8_t(progress))})};
    });
    auto cat = [](TlvList a, const TlvList &b) {
        a.insert(a.end(), b.begin(), b.end());
        return a;
    };
    const std::string pw = "TAVCTL_PASSWORD=pw";
    auto r = tavctl(udp(dev, "--user admin firmware upgrade --server 192.0.2.7 --file 'a b;c'"), pw);
    ASSERT_EQ(r.status, 0) << r.err;
    auto seen = dev.requests();
    ASSERT_EQ(seen.size(), 2u);  // the status first, then the start
    const TlvList cred{tlv_text(55, "admin"), tlv_text(56, "pw")};
    EXPECT_EQ(seen[0].tlvs, cat(cred, {tlv_u8(0x180, 2)}));
    EXPECT_EQ(seen[1].tlvs, cat(cred, {tlv_u8(0x180, 1), tlv_u8(0x181, 1), tlv_u8(0x182, 1),
                                       tlv_ipv4(0x183, {192, 0, 2, 7}), tlv_text(0x185, "a b;c")}));

    EXPECT_EQ(tavctl(udp(dev, "--user admin reboot --delay 30"), pw).status, 0);
    EXPECT_EQ(dev.requests().back().tlvs, cat(cred, {tlv_u32(0x188, 30)}));
    EXPECT_EQ(tavctl(udp(dev, "--user admin agent set --uuid g --server n --interval 200"), pw).status, 0);
    EXPECT_EQ(dev.requests().back().tlvs, cat(cred, {tlv_text(47, "g"), tlv_text(48, "n"), tlv_u8(49, 200)}));

    const std::string wait = "--user admin config restore --server 192.0.2.7 --file c --wait";
    after_start = 1;
    auto failed = tavctl(udp(dev, wait), pw);
    EXPECT_EQ(failed.status, 1);
    EXPECT_NE(failed.err.find("failed: the device reports a failure"), std::string::npos) << failed.err;
    after_start = 2;
    auto late = tavctl(udp(dev, wait + " --limit 1"), pw);
    EXPECT_EQ(late.status, 3);
    EXPECT_NE(late.err.find("no outcome within"), std::string::npos) << late.err;
    auto busy = tavctl(udp(dev, wait), pw);
    EXPECT_EQ(busy.status, 1);
    EXPECT_NE(busy.err.find("already runs"), std::string::npos) << busy.err;

    const size_t before = dev.requests().size();
    for (const char *bad : {"firmware upgrade --file f", "firmware upgrade --server 192.0.2 --file f",
                            "config backup --server 192.0.2.7 --file f --limit 5",
                            "agent set --uuid 0123456789abcdef0123456789abcdefX --server s --interval 1",
                            "agent set --uuid u --server s --interval 256", "reboot --delay 4294967296"}) {
        SCOPED_TRACE(bad);
        EXPECT_EQ(tavctl(udp(dev, std::string("--user admin ") + bad), pw).status, 2);
    }
    const std::string n128(128, 'f');  // 129 bytes with its NUL: the device would ignore it
    EXPECT_EQ(tavctl(udp(dev, "--user admin config backup --server 192.0.2.7 --file " + n128), pw).status, 2);
    // Texts the device would not report back whole (or would misread).
    EXPECT_EQ(tavctl(udp(dev, "--user admin ssid set --index 1 --name " + std::string(63, 'n')), pw).status, 2);
    EXPECT_EQ(tavctl(udp(dev, "--user admin array set --name " + std::string(15, 'n')), pw).status, 2);
    EXPECT_EQ(tavctl("--udp 127.255.255.255 --cipher " TEST_CIPHER " --user admin reboot", pw).status, 2);
    EXPECT_EQ(dev.requests().size(), before) << "nothing is sent for bad input";
}

}  // namespace
