// Shared pieces of the end-to-end suites: a lab instance per suite, shell
// access to its hosts, the daemon's output, managers built on the client
// library, a frame tap that also sees Ethernet destinations, and requests
// with hand-picked header fields.
#pragma once

#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "proto/tags.h"
#include "proto/wire.h"
#include "tools/client/client.h"

namespace e2e {

using namespace std::chrono_literals;
using tav::Mac;
using tav::client::Client;
using tav::client::Clock;
using tav::client::Ipv4;
using tav::client::Message;
using tav::client::Record;
using tav::client::TlvList;

// Runs its action when the scope ends, also after a failed assertion.
struct Finally {
    std::function<void()> action;
    ~Finally() { action(); }
};

struct Sh {
    int status = -1;
    std::string out;  // stdout and stderr
};
Sh sh(const std::string &cmd);
std::string quote(std::string_view s);
std::string slurp(const std::string &path);
std::string trimmed(std::string s);
// Polls `cond` every 20 ms until it holds or `limit` passed.
bool until(const std::function<bool()> &cond, std::chrono::milliseconds limit);

// Lab addresses (see lab/README.md).
Mac ap_mac(int n);
Ipv4 ap_ip(int n);
std::string ap_ip_text(int n);
inline constexpr Mac kMgrMac{0x02, 0x7a, 0x76, 0x00, 0x00, 0xfe};
inline constexpr Ipv4 kMgrIp{192, 0, 2, 1};
inline constexpr Ipv4 kAnyIp{0, 0, 0, 0};

// Cipher library of this build tree (sim/cipher/NAME).
std::string cipher_path(const std::string &name = "TAV_Auth.so");

// One lab instance of this build tree, named after the suite's code.
class Lab {
  public:
    Lab(const std::string &code, int aps, std::string up_args);
    bool up();
    void down();
    const std::string &up_output() const { return up_out_; }
    bool ok() const { return ok_; }
    int aps() const { return aps_; }

    std::string netns_mgr() const { return "tavlab-" + instance_ + "-mgr"; }
    std::string run_file(int ap, const std::string &name) const;
    // CMD through `sh -c` on host "mgr" or "apN" (apN: inside the access point).
    Sh exec(const std::string &host, const std::string &cmd) const;
    Sh on_ap(int ap, const std::string &cmd) const { return exec("ap" + std::to_string(ap), cmd); }
    std::string db_get(int ap, const std::string &key) const;
    bool db_set(int ap, const std::string &key, const std::string &value) const;
    // The daemon's pid inside the access point; 0 when none runs.
    int daemon_pid(int ap) const;
    bool daemon_alive(int ap) const;
    bool serving(int ap) const;

    Client raw(std::optional<Mac> source = {}) const;
    Client udp(int ap) const;  // unicast to the access point

  private:
    Sh tavlab(const std::string &args) const;
    std::string instance_;
    int aps_;
    std::string up_args_;
    std::string up_out_;
    bool ok_ = false;
};

// What the daemon of one access point writes to standard output from now on.
class Output {
  public:
    Output(const Lab &lab, int ap);
    std::string fresh() const;
    size_t count(std::string_view line) const;  // whole lines in fresh()

  private:
    std::string path_;
    size_t start_;
};

// Raw frames of the protocol's EtherType as they cross the manager's
// interface, with the Ethernet destination the client does not expose.
class FrameTap {
  public:
    FrameTap(const std::string &netns, const std::string &iface = "eth0");
    ~FrameTap();
    FrameTap(const FrameTap &) = delete;
    FrameTap &operator=(const FrameTap &) = delete;
    bool ok() const { return fd_ >= 0; }

    struct Frame {
        Mac dst{}, src{};
        std::optional<Message> msg;  // empty when it did not decipher
    };
    // The next frame that satisfies `pred` within `window`.
    std::optional<Frame> next(const std::function<bool(const Frame &)> &pred,
                              std::chrono::milliseconds window);
    // Every frame within `window`.
    std::vector<Frame> all(std::chrono::milliseconds window);

  private:
    std::optional<Frame> read(Clock::time_point deadline);
    int fd_ = -1;
    std::unique_ptr<tav::client::Cipher> cipher_;
};

bool is_announcement(const FrameTap::Frame &f, uint16_t op, const Mac &from);

// Request plaintexts with any header: `h.body_length` is set from `tlvs`
// unless `body_length` is given.
std::vector<uint8_t> plaintext(tav::Header h, const TlvList &tlvs,
                               std::optional<uint16_t> body_length = {});
tav::Header request_header(bool ipv4, uint16_t op_code, uint16_t sequence);
// Sends the header form of the client's path with the given target; returns
// the sequence used.
uint16_t send_to(Client &c, uint16_t op_code, const Mac &target, const Ipv4 &ip,
                 const TlvList &tlvs = {});
// Takes a fresh sequence number from the client.
uint16_t take_sequence(Client &c);

// The daemon serves one message at a time, in order: once it answered a
// discovery sent after a message, it has dealt with that message. Returns
// the replies (any target) to (sequence, op) seen until the discovery's
// `controls` replies came.
std::vector<Message> replies_before_control(Client &c, uint16_t sequence, uint16_t op_code,
                                            size_t controls = 1);
bool is_reply_to(const Message &m, uint16_t sequence, uint16_t op_code);

std::vector<uint8_t> body_of(const Message &m);
std::string hex(std::span<const uint8_t> v);

// A suite with one lab: up once before the first test, down after the last
// (also when tests failed). Self provides kCode, kAps and up_args().
template <class Self>
class LabSuite : public ::testing::Test {
  public:
    static void SetUpTestSuite() {
        if (geteuid() != 0) return;
        lab_ = std::make_unique<Lab>(Self::kCode, Self::kAps, Self::up_args());
        lab_->up();
    }
    static void TearDownTestSuite() {
        if (lab_) lab_->down();
        lab_.reset();
    }

  protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "the lab needs root";
        ASSERT_TRUE(lab_ && lab_->ok()) << (lab_ ? lab_->up_output() : "");
    }
    static Lab &lab() { return *lab_; }
    static std::string up_args() { return ""; }

  private:
    static inline std::unique_ptr<Lab> lab_;
};

}  // namespace e2e
