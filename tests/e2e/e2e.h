// SPDX-License-Identifier: ISC
// Shared pieces of the end-to-end suites: a lab instance per suite, shell
// access to its hosts, the daemon's output and stub events, managers on the
// client library, and requests with hand-picked header fields.
#pragma once

#include <arpa/inet.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "proto/tags.h"
#include "proto/wire.h"
#include "tests/support/tlv_bytes.h"
#include "tools/client/client.h"

namespace e2e {

using namespace std::chrono_literals;
using tav::Mac;
using tav::client::Client;
using tav::client::Clock;
using tav::client::Ipv4;
using tav::client::Message;
using tav::client::TlvList;
using namespace testbytes;
using Lines = std::vector<std::string>;
using Keys = std::vector<std::pair<std::string, std::string>>;

// Lab addresses (see lab/README.md).
inline constexpr Mac kMgrMac{0x02, 0x7a, 0x76, 0x00, 0x00, 0xfe};
inline constexpr Ipv4 kMgrIp{192, 0, 2, 1};
inline Mac ap_mac(int n) { return {0x02, 0x7a, 0x76, 0x00, 0x00, uint8_t(n)}; }
inline Ipv4 ap_ip(int n) { return {192, 0, 2, uint8_t(10 + n)}; }
// The build whose programs the access points run: this one, or the tree
// TAVC_E2E_TARGET names (a cross build: its daemon, database server, rgdb
// and cipher run under qemu; the manager's side stays this build's).
inline std::string lab_build() { const char *t = std::getenv("TAVC_E2E_TARGET"); return t && *t ? t : E2E_BUILD_DIR; }
// The cipher of the manager's side, and the one an access point loads.
inline std::string cipher_path(const std::string &name = "TAV_Auth.so") { return E2E_BUILD_DIR "/sim/cipher/" + name; }
inline std::string ap_cipher_path(const std::string &name) { return lab_build() + "/sim/cipher/" + name; }

// Runs its action when the scope ends, also after a failed assertion.
struct Finally {
    std::function<void()> action;
    ~Finally() { action(); }
};

struct Sh {
    int status = -1;
    std::string out;  // stdout and stderr
};
inline Sh sh(const std::string &cmd) {
    Sh r;
    FILE *p = popen((cmd + " 2>&1").c_str(), "r");
    char buf[4096];
    for (size_t n; p && (n = fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
    const int st = p ? pclose(p) : -1;
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}
inline std::string quote(std::string_view s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}
inline std::string slurp(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), {}};
}
// The access points' programs are for another CPU (ELF class, byte order
// and machine differ from this program's): they run under an emulator.
inline bool emulated() {
    auto id = [](const std::string &elf) {
        std::string h(20, 0);
        std::ifstream(elf, std::ios::binary).read(h.data(), 20);
        return h.substr(4, 2) + h.substr(18, 2);
    };
    return id(lab_build() + "/tavc/tavc") != id("/proc/self/exe");
}
// Upper bound of every wait for an event: generous, so that a loaded machine
// makes a test slower, never makes it fail.
inline constexpr auto kLong = 60s;
// Polls `cond` every 20 ms until it holds or `limit` passed.
inline bool until(const std::function<bool()> &cond, std::chrono::milliseconds limit) {
    for (const auto deadline = Clock::now() + limit; !cond(); std::this_thread::sleep_for(20ms))
        if (Clock::now() >= deadline) return false;
    return true;
}

// One lab instance of this build tree, named after the suite's code (so no
// two ctest entries share one): up for the object's life. E2E_UP_ARGS adds
// `tavlab up` arguments, in instances of their own ("...x").
inline std::string env_up_args() { return getenv("E2E_UP_ARGS") ? getenv("E2E_UP_ARGS") : ""; }
class Lab {
  public:
    Lab(const std::string &code, int aps, const std::string &up_args)
        : instance_(E2E_LAB_TAG + code + (env_up_args().empty() ? "" : "x")) {
        tavlab("down");  // what a crashed earlier run may have left
        Sh r = tavlab("up -n " + std::to_string(aps) + " --build " + quote(lab_build()) + " " + up_args + " " +
                      env_up_args());
        up_out = r.out;
        ok = r.status == 0;
        // No test may make anything run a device command on an access point
        // whose commands are not sure to meet the lab's stubs.
        for (int ap = 1; ok && ap <= aps; ++ap) {
            Sh p = tavlab("probe ap" + std::to_string(ap));
            if (p.status != 0) ok = false, up_out += "\n" + p.out;
        }
        for (int ap = 1; ok && ap <= aps; ++ap)
            if (!until([&] { return serving(ap); }, kLong)) ok = false, up_out += "\nno daemon on ap" + std::to_string(ap);
    }
    ~Lab() {
        Sh r = tavlab("down");
        EXPECT_EQ(r.status, 0) << r.out;
    }
    bool ok;
    std::string up_out;

    std::string netns_mgr() const { return "tavlab-" + instance_ + "-mgr"; }
    std::string run_file(int ap, const std::string &name) const {
        return "/run/tavlab-" + instance_ + "/ap" + std::to_string(ap) + "/" + name;
    }
    // CMD through `sh -c` on host "mgr" or "apN" (apN: inside the access point).
    Sh exec(const std::string &host, const std::string &cmd) const { return tavlab("exec " + host + " sh -c " + quote(cmd)); }
    Sh on_ap(int ap, const std::string &cmd) const { return exec("ap" + std::to_string(ap), cmd); }
    std::string db_get(int ap, const std::string &key) const {
        Sh r = on_ap(ap, "rgdb -g " + quote(key));
        EXPECT_EQ(r.status, 0) << r.out;
        return r.out.ends_with('\n') ? r.out.substr(0, r.out.size() - 1) : r.out;  // rgdb adds one
    }
    bool db_set(int ap, const std::string &key, const std::string &value) const {
        Sh r = on_ap(ap, "rgdb -s " + quote(key) + " " + quote(value));
        EXPECT_EQ(r.status, 0) << r.out;
        return r.status == 0;
    }
    // The daemon runs and takes requests: its UDP port (0xF600) is bound,
    // which happens after the raw socket is open.
    bool serving(int ap) const {
        return on_ap(ap, "kill -0 $(cat /var/run/tavc.pid) && grep -q ':F600 ' /proc/net/udp").status == 0;
    }
    Client raw(std::optional<Mac> source = {}) const {
        auto o = tav::client::Options::raw("eth0", netns_mgr(), cipher_path());
        o.source_mac = source;
        return Client(o);
    }
    Client udp(const std::string &to = "192.0.2.11") const {
        return Client(tav::client::Options::over_udp(to, netns_mgr(), cipher_path()));
    }

  private:
    Sh tavlab(const std::string &args) const {
        return sh(std::string(E2E_TAVLAB) + " --instance " + instance_ + " " + args);
    }
    std::string instance_;
};

// What a file of an access point's run directory gained since mark() (all of
// it after a restart).
class Tail {
  public:
    Tail(const Lab &lab, int ap, const std::string &name) : path_(lab.run_file(ap, name)) { mark(); }
    void mark() { start_ = slurp(path_).size(); }
    std::string operator()() const {
        const std::string all = slurp(path_);
        return all.size() >= start_ ? all.substr(start_) : all;
    }

  private:
    std::string path_;
    size_t start_ = 0;
};
// What the daemon of one access point writes to standard output from now on.
inline std::function<std::string()> output(const Lab &lab, int ap) { return Tail(lab, ap, "tavc.out"); }

// The stub commands an access point ran since mark(), without their times
// and without the tests' own database reads, writes and loads.
struct Events : Tail {
    Events(const Lab &lab, int ap) : Tail(lab, ap, "events.log") {}
    Lines lines() const {
        Lines out;
        const std::string s = (*this)();
        for (size_t at = 0, nl; (nl = s.find('\n', at)) != std::string::npos; at = nl + 1) {
            const std::string line = s.substr(at, nl - at);
            if (!line.starts_with("rgdb -g ") && !line.starts_with("rgdb -s ") && !line.starts_with("rgdb -l "))
                out.push_back(line.substr(0, line.rfind('\t')));
        }
        return out;
    }
    // Once `n` commands were recorded (children run after the reply).
    Lines wait(size_t n) const {
        until([&] { return lines().size() >= n; }, kLong);
        return lines();
    }
};

// Frames the access point sent of its own with op code `op` (a raw client
// sees every frame of the protocol on the manager's segment).
inline auto own(uint16_t op, int ap = 1) {
    return [op, ap](const Message &m) { return m.src_mac == ap_mac(ap) && m.header && m.op_code() == op; };
}

// A request header of the raw (ipv4 = false) or IPv4 form, to any target.
inline tav::Header request_header(bool ipv4, uint16_t op_code, uint16_t sequence) {
    tav::Header h;
    h.ipv4 = ipv4;
    h.msg_type = ipv4 ? tav::kMsgIpv4Request : tav::kMsgL2Request;
    h.sequence = sequence;
    h.op_code = op_code;
    h.target_mac = ipv4 ? tav::kZeroMac : tav::kBroadcastMac;
    h.version = tav::kVersion;
    return h;
}
// Plaintext of any header followed by `body`.
inline Bytes plaintext(tav::Header h, const Bytes &body = {}) {
    h.body_length = uint16_t(body.size());
    Bytes out(h.size());
    tav::encode_header(h, out.data());
    return out + body;
}
inline bool is_reply_to(const Message &m, uint16_t sequence, uint16_t op_code) {
    return m.header && (m.msg_type() == tav::kMsgL2Reply || m.msg_type() == tav::kMsgIpv4Reply) &&
           m.header->sequence == sequence && m.op_code() == op_code;
}
// The daemon serves one message at a time, in order: once it answered a
// discovery sent after a message, it has dealt with that message. Returns
// the replies (any target) to (sequence, op) seen until the discovery's
// `controls` replies came.
inline std::vector<Message> replies_before_control(Client &c, uint16_t sequence, uint16_t op_code, size_t controls = 1) {
    auto ctl = c.request(tav::kOpDiscovery, {}, kLong, controls);
    EXPECT_TRUE(ctl && ctl->size() == controls) << "no discovery answered after the message";
    std::vector<Message> out;
    while (auto m = c.wait_for([&](const Message &x) { return is_reply_to(x, sequence, op_code); }, 50ms))
        out.push_back(std::move(*m));
    return out;
}
inline std::string hex(std::span<const uint8_t> v) { return tav::client::to_hex(v); }
// Records of a reply as "tag=hex" lines.
inline std::string listing(const TlvList &tlvs) {
    std::string s;
    for (const auto &r : tlvs) s += std::to_string(r.tag) + "=" + hex(r.value) + "\n";
    return s;
}
// Sends `body` as it is under a request header of the client's form; the
// reply, if one came within `wait`.
inline std::optional<Message> send_body(Client &c, uint16_t op, const Bytes &body, std::chrono::milliseconds wait = kLong) {
    const tav::Header h = request_header(c.ipv4(), op, c.next_sequence());
    c.set_sequence(uint16_t(h.sequence + 1));
    auto got = c.send_plaintext(plaintext(h, body)) ? c.collect(h.sequence, op, wait, 1) : std::vector<Message>{};
    return got.empty() ? std::nullopt : std::optional(got[0]);
}
// The same, where a reply must come: an empty message (and a failure) without one.
inline Message ask_body(Client &c, uint16_t op, const Bytes &body) {
    auto m = send_body(c, op, body);
    if (!m) ADD_FAILURE() << "no reply to op " << op;
    return m ? *m : Message{};
}
inline Bytes creds(const std::string &user = "admin", const std::string &pw = "admin") { return text(55, user) + text(56, pw); }

// The daemon's pid inside its access point, or 0.
inline int daemon_pid(const Lab &lab, int ap = 1) { return std::atoi(slurp(lab.run_file(ap, "tavc.pid")).c_str()); }
inline std::string boot_count(const Lab &lab, int ap = 1) { return slurp(lab.run_file(ap, "boot_count")); }
// After a (simulated) reboot began: the access point restarted and serves.
inline bool rebooted(const Lab &lab, const std::string &boots_before, int ap = 1) {
    return until([&] { return boot_count(lab, ap) != boots_before && lab.serving(ap); }, kLong);
}
// SIGTERM to the daemon; the exit status its supervisor logged, or -1.
inline int terminate_daemon(const Lab &lab, int pid, int ap = 1) {
    if (lab.on_ap(ap, "kill -TERM " + std::to_string(pid)).status != 0) return -1;
    const std::string ended = "daemon (pid " + std::to_string(pid) + ") exited on its own with status ";
    std::string log;
    if (!until([&] { return (log = slurp(lab.run_file(ap, "supervisor.log"))).find(ended) != std::string::npos; }, kLong))
        return -1;
    return std::atoi(log.c_str() + log.find(ended) + ended.size());
}
// tavctl on the manager host; the current password from the environment.
inline Sh tavctl(const Lab &lab, const std::string &args, const std::string &password = "admin") {
    return sh("env -u TAVCTL_USER -u TAVCTL_PASSWORD_FILE TAVCTL_CONFIG=/dev/null TAVCTL_PASSWORD=" + quote(password) +
              " setsid -w " E2E_BUILD_DIR "/tools/tavctl/tavctl --iface eth0 --netns " + lab.netns_mgr() +
              " --cipher " + quote(cipher_path()) + " --timeout 5 " + args + " </dev/null");
}

// A suite with one lab: up before the first test, down after the last (also
// when tests failed). Every test ASSERTs that the lab came up with each
// access point's safety probe passed.
template <class Self>
class LabSuite : public ::testing::Test {
  public:
    static void SetUpTestSuite() {
        if (geteuid() == 0) lab_ = std::make_unique<Lab>(Self::kCode, Self::kAps, Self::kUpArgs());
    }
    static void TearDownTestSuite() { lab_.reset(); }

  protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "the lab needs root";
        ASSERT_TRUE(lab_ && lab_->ok) << (lab_ ? lab_->up_out : "");
    }
    static Lab &lab() { return *lab_; }

  private:
    static inline std::unique_ptr<Lab> lab_;
};

// Suite NAME with a lab instance CODE of APS access points and extra
// `tavlab up` arguments; E2E_SUITE_OF derives it from a LabSuite of its own.
#define E2E_SUITE_OF(Base, Name, code, aps, up_args)     \
    struct Name : Base<Name> {                           \
        static constexpr const char *kCode = code;       \
        static constexpr int kAps = aps;                 \
        static std::string kUpArgs() { return up_args; } \
    }
#define E2E_SUITE(Name, code, aps, up_args) E2E_SUITE_OF(LabSuite, Name, code, aps, up_args)

}  // namespace e2e
