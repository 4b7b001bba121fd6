// SPDX-License-Identifier: ISC
// The client library and tavctl against a stand-in device on loopback UDP.
// The raw path is driven by the lab suites.
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
using namespace std::literals;
using Bytes = std::vector<uint8_t>;

// Plaintext of an IPv4-form reply to `req`.
Bytes reply(const Message &req, uint16_t result, const TlvList &tlvs, int seq_delta = 0) {
    Bytes out = build_request(true, req.header->sequence + seq_delta, req.op_code(), kZeroMac, req.src_ip, tlvs);
    put_be16(out.data(), kMsgIpv4Reply);
    put_be16(out.data() + 16, result);
    return out;
}

// Deciphers each request, keeps it and answers the plaintexts `handler` returns.
struct FakeDevice {
    explicit FakeDevice(std::function<std::vector<Bytes>(const Message &)> handler) : handler_(std::move(handler)) {}
    ~FakeDevice() { stop_ = true, thread_.join(); }
    uint16_t port() const { return in_->local_port(); }
    std::vector<Message> requests() { return std::lock_guard(mu_), seen_; }
    void run() {
        while (!stop_) {
            auto d = in_->receive(Clock::now() + 20ms);
            auto plain = d ? cipher_.decode(get_be16(d->payload.data()), std::span(d->payload).subspan(2)) : Bytes{};
            if (!plain || plain->empty()) continue;
            Message req = parse_message(*plain);
            req.src_ip = d->src_ip;
            (std::lock_guard(mu_), seen_.push_back(req));
            auto out = UdpTransport::open("127.0.0.1", d->src_port).value();
            for (const auto &r : req.header ? handler_(req) : std::vector<Bytes>{}) {
                auto s = cipher_.encode(r).value();
                s.ciphertext.insert(s.ciphertext.begin(), {uint8_t(s.selector >> 8), uint8_t(s.selector)});
                (void)out->send(s.ciphertext);
            }
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

// Only a reply of the request's sequence answers it, at once; strays,
// announcements and plaintexts without a header are kept for receive_all.
TEST(Client, ReplyMatchingKeepsTheRest) {
    FakeDevice dev([](const Message &req) -> std::vector<Bytes> {
        auto a = reply(req, 0, {});
        put_be16(a.data(), kMsgAnnounce);
        return {reply(req, 0, {}, 1), a, {1, 2, 3}, reply(req, 64, {tlv_u16(kTagWebPort, 80)})};
    });
    Options o = Options::over_udp("127.0.0.1", "", TEST_CIPHER);
    o.port = dev.port(), o.sequence = 0x4242;
    Client c(o);
    auto start = Clock::now();
    auto r = c.request_one(kOpHello, {}, 2s).value();
    EXPECT_LT(Clock::now() - start, 1500ms);
    EXPECT_EQ(std::tuple(r.header->sequence, r.result(), r.u16(kTagWebPort), r.u8(kTagWebPort).has_value()),
              std::tuple(0x4242, 64, 80, false));  // a value of the wrong size is no value
    auto rest = c.receive_all(100ms);
    ASSERT_EQ(rest.size(), 3u);
    EXPECT_EQ(std::tuple(rest[0].header->sequence, rest[1].is_announcement(), rest[2].plaintext, c.undecodable()),
              std::tuple(0x4243, true, Bytes{1, 2, 3}, 1u));
}

// One device for every case: verification wants "s3cr%t"; a maintenance job
// started from server 192.0.2.1 fails, from 192.0.2.2 never ends (and the
// device stays busy). Options, targets and output: the lab suites.
TEST(Tavctl, PasswordsConfigAndWaitOutcomes) {
    std::atomic<int> progress{0};
    FakeDevice dev([&](const Message &req) -> std::vector<Bytes> {
        if (req.op_code() == kOpUserVerification)
            return {reply(req, req.text(kTagPassword) == "s3cr%t" ? 0 : 64, {{kTagVerification, {1, 0, 0, 0}}})};
        const Record *sub = req.find(0x180), *server = req.find(0x183);
        uint8_t s = sub && sub->value.size() == 1 ? sub->value[0] : 0;
        if (s == 1) progress = server && server->value.size() == 4 && server->value[3] < 3 ? server->value[3] : 0;
        return {reply(req, 0, {tlv_u8(0x180, s), tlv_u8(0x184, uint8_t(progress))})};
    });
    // Runs tavctl with no terminal and only the settings given; checks its exit
    // status and the count of requests sent (-1: any); returns the last one.
    auto run = [&](const std::string &args, const std::string &env, int status, int sent) {
        const size_t before = dev.requests().size();
        FILE *p = popen(("env -u TAVCTL_PASSWORD -u TAVCTL_USER -u TAVCTL_UDP -u TAVCTL_IFACE "
                         "-u TAVCTL_PASSWORD_FILE TAVCTL_CONFIG=/dev/null " + env + " setsid -w " TAVCTL " " +
                         args + " </dev/null 2>&1").c_str(), "r");
        std::string out(1 << 16, '\0');
        out.resize(fread(out.data(), 1, out.size(), p));
        EXPECT_EQ(WEXITSTATUS(pclose(p)), status) << args << "\n" << out;
        auto seen = dev.requests();
        EXPECT_TRUE(sent < 0 || seen.size() - before == size_t(sent)) << args << ": sent " << seen.size() - before;
        return seen.size() > before ? seen.back() : Message{};
    };
    const std::string U = "--udp 127.0.0.1 --port " + std::to_string(dev.port()) + " --cipher " TEST_CIPHER
                          " --timeout 0.3 ", pw = "TAVCTL_PASSWORD=s3cr%t";
    const TlvList cred{tlv_text(55, "admin"), tlv_text(56, "s3cr%t")};

    // Passwords: from a file or the environment, never the command line.
    const std::string tmp = ::testing::TempDir() + "tavctl_" + std::to_string(getpid()), env = "TAVCTL_CONFIG=" + tmp;
    std::ofstream(tmp) << "s3cr%t\nsecond line ignored\n";
        // (Each read first asks the one access point its MAC: two requests.)
    EXPECT_EQ(run(U + "verify --user admin --precedence 7 --password-file " + tmp, "", 0, 2).u8(kTagServerPrecedence), 7);
    run(U + "verify --user admin", "TAVCTL_PASSWORD=wrong", 1, 2);
    run(U + "verify --user admin", "", 2, 0);
    run(U + "verify --user admin --password s3cr%t", "", 2, 0);
    EXPECT_EQ(run(U + "raw 0xA3 --tlv 55=admin --tlv 56=@password", pw, 0, 1).tlvs, cred);
    EXPECT_EQ(run(U + "raw 0xA3 --credentials", pw + " TAVCTL_USER=admin", 0, 1).tlvs, cred);

    // Settings from a config file; a password only in a private one.
    std::ofstream(tmp) << "# lab\nudp = 127.0.0.1\nport = " << dev.port()
                        << "\ncipher = " TEST_CIPHER "\ntimeout = 0.3\nuser = cfg-user\npassword = s3cr%t\n";
    ::chmod(tmp.c_str(), 0600);
    EXPECT_EQ(run("verify", env, 0, 2).text(kTagUserName), "cfg-user");
    run("verify", env + " TAVCTL_PASSWORD=other", 1, 2);
    ::chmod(tmp.c_str(), 0644);
    run("verify", env, 2, 0);
    std::remove(tmp.c_str());

    // --wait's outcomes.
    const std::string wait = U + "--yes --user admin config restore --file c --wait --server 192.0.2.";
    run(wait + "1", pw, 1, -1);
    run(wait + "2 --limit 1", pw, 3, -1);
    run(wait + "2", pw, 1, 2);  // busy: no start sent
}

// What a device should never get is refused before anything is sent, with
// exit status 2 and one line that says what is allowed.
TEST(Tavctl, RefusesBadValuesBeforeSending) {
    std::atomic<int> seen{0};
    FakeDevice dev([&](const Message &req) -> std::vector<Bytes> { ++seen; return {reply(req, 0, {})}; });
    const std::string U = "env -u TAVCTL_UDP -u TAVCTL_IFACE TAVCTL_CONFIG=/dev/null TAVCTL_PASSWORD=pw setsid -w " TAVCTL
                          " --udp 127.0.0.1 --port " + std::to_string(dev.port()) + " --cipher " TEST_CIPHER
                          " --timeout 0.3 --user admin ";
    const std::pair<const char *, const char *> kRows[] = {
        {"device set --web-port 0", "--web-port: \"0\" is not a number from 1 to 65535"},
        {"device set --name ''", "--name: must not be empty"},
        {"ipv4 set --static 192.0.2.11/24 --gateway 198.51.100.1 --dns 192.0.2.53", "is not another host of"},
        {"ipv4 set --static 192.0.2.11/255.0.255.0 --gateway 192.0.2.1 --dns 192.0.2.53", "not contiguous"},
        {"ssid set --index 1 --vlan 4096", "0 for untagged, or 1 to 4094"},
        {"ssid set --index 0 --state off", "the primary SSID (index 0) is always on"},
        {"ssid set --index 2 --state maybe", "is not on or off"},
        {"time set --date-time '2027-13-45 25:61:00'", "is not a date and time"},
        {"time set --date-time '2027-02-29 10:00:00'", "is not a date and time"},
        {"snmp set --ro-community ''", "must not be empty"},
        {"wireless set", "nothing to change"},
        {"agent set --uuid 123e4567-e89b-12d3-a456-4266141740001 --server x --interval 5", "keeps 32"},
        {"factory-reset", "confirm on a terminal, or give --yes"},
        {"--all reboot", "never goes to the whole fleet"},
        {"snmp gte", "did you mean \"snmp get\""},
        {"discvoer", "did you mean \"discover\""},
        {"tags 0x9999", "no op code"},
    };
    for (const auto &[args, message] : kRows) {
        FILE *p = popen((U + args + " </dev/null 2>&1").c_str(), "r");
        std::string out(4096, '\0');
        out.resize(fread(out.data(), 1, out.size(), p));
        EXPECT_EQ(WEXITSTATUS(pclose(p)), 2) << args << "\n" << out;
        EXPECT_NE(out.find(message), std::string::npos) << args << "\n" << out;
        EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << args << "\n" << out;
    }
    EXPECT_EQ(seen, 0);
}

}  // namespace
