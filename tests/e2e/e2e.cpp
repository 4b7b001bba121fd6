#include "tests/e2e/e2e.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

namespace e2e {

Sh sh(const std::string &cmd) {
    Sh r;
    FILE *p = popen((cmd + " 2>&1").c_str(), "r");
    if (p == nullptr) return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    const int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

std::string quote(std::string_view s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

std::string slurp(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

std::string trimmed(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
    return s;
}

bool until(const std::function<bool()> &cond, std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    for (;;) {
        if (cond()) return true;
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(20ms);
    }
}

Mac ap_mac(int n) {
    return {0x02, 0x7a, 0x76, 0x00, 0x00, uint8_t(n)};
}
Ipv4 ap_ip(int n) {
    return {192, 0, 2, uint8_t(10 + n)};
}
std::string ap_ip_text(int n) {
    return "192.0.2." + std::to_string(10 + n);
}

std::string cipher_path(const std::string &name) {
    return std::string(E2E_BUILD_DIR) + "/sim/cipher/" + name;
}

// ---- Lab ------------------------------------------------------------------

Lab::Lab(const std::string &code, int aps, std::string up_args)
    : instance_(std::string(E2E_LAB_TAG) + code), aps_(aps), up_args_(std::move(up_args)) {}

Sh Lab::tavlab(const std::string &args) const {
    return sh(std::string(E2E_TAVLAB) + " --instance " + instance_ + " " + args);
}

bool Lab::up() {
    tavlab("down");  // what a crashed earlier run may have left
    Sh r = tavlab("up -n " + std::to_string(aps_) + " --build " + quote(E2E_BUILD_DIR) + " " +
                  up_args_);
    up_out_ = r.out;
    ok_ = r.status == 0;
    for (int ap = 1; ok_ && ap <= aps_; ++ap)
        if (!until([&] { return serving(ap); }, 10s)) {
            ok_ = false;
            up_out_ += "\nno daemon on ap" + std::to_string(ap);
        }
    return ok_;
}

void Lab::down() {
    Sh r = tavlab("down");
    EXPECT_EQ(r.status, 0) << r.out;
    ok_ = false;
}

std::string Lab::run_file(int ap, const std::string &name) const {
    return "/run/tavlab-" + instance_ + "/ap" + std::to_string(ap) + "/" + name;
}

Sh Lab::exec(const std::string &host, const std::string &cmd) const {
    return tavlab("exec " + host + " sh -c " + quote(cmd));
}

std::string Lab::db_get(int ap, const std::string &key) const {
    Sh r = on_ap(ap, "rgdb -g " + quote(key));
    EXPECT_EQ(r.status, 0) << r.out;
    // rgdb ends the value with one newline.
    if (!r.out.empty() && r.out.back() == '\n') r.out.pop_back();
    return r.out;
}

bool Lab::db_set(int ap, const std::string &key, const std::string &value) const {
    Sh r = on_ap(ap, "rgdb -s " + quote(key) + " " + quote(value));
    EXPECT_EQ(r.status, 0) << r.out;
    return r.status == 0;
}

int Lab::daemon_pid(int ap) const {
    return std::atoi(slurp(run_file(ap, "tavc.pid")).c_str());
}

bool Lab::daemon_alive(int ap) const {
    const int pid = daemon_pid(ap);
    return pid > 0 && on_ap(ap, "kill -0 " + std::to_string(pid)).status == 0;
}

// Requests that arrive from now on are queued for the daemon: its UDP port
// (0xF600) is bound, which happens after the raw socket is open.
bool Lab::serving(int ap) const {
    return daemon_alive(ap) && on_ap(ap, "grep -q ':F600 ' /proc/net/udp").status == 0;
}

Client Lab::raw(std::optional<Mac> source) const {
    auto o = tav::client::Options::raw("eth0", netns_mgr(), cipher_path());
    o.source_mac = source;
    return Client(o);
}

Client Lab::udp(int ap) const {
    return Client(tav::client::Options::over_udp(ap_ip_text(ap), netns_mgr(), cipher_path()));
}

// ---- Output ---------------------------------------------------------------

Output::Output(const Lab &lab, int ap)
    : path_(lab.run_file(ap, "tavc.out")), start_(slurp(path_).size()) {}

std::string Output::fresh() const {
    std::string all = slurp(path_);
    return all.size() >= start_ ? all.substr(start_) : all;
}

size_t Output::count(std::string_view line) const {
    std::istringstream in(fresh());
    size_t n = 0;
    for (std::string l; std::getline(in, l);) n += l == line;
    return n;
}

// ---- FrameTap -------------------------------------------------------------

FrameTap::FrameTap(const std::string &netns, const std::string &iface) {
    auto c = tav::client::Cipher::load(cipher_path());
    if (!c) return;
    cipher_ = std::make_unique<tav::client::Cipher>(std::move(*c));
    auto scope = tav::client::NetnsScope::enter(netns);
    if (!scope) return;
    const unsigned idx = if_nametoindex(iface.c_str());
    fd_ = ::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(tav::kEtherType));
    if (fd_ < 0 || idx == 0) return;
    sockaddr_ll sll{};
    sll.sll_family = AF_PACKET;
    sll.sll_protocol = htons(tav::kEtherType);
    sll.sll_ifindex = int(idx);
    if (::bind(fd_, reinterpret_cast<sockaddr *>(&sll), sizeof sll) != 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

FrameTap::~FrameTap() {
    if (fd_ >= 0) ::close(fd_);
}

std::optional<FrameTap::Frame> FrameTap::read(Clock::time_point deadline) {
    std::vector<uint8_t> buf(tav::kEthHeaderLen + tav::kSelectorLen + tav::kMaxCipherLen);
    while (fd_ >= 0) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() < 0) return std::nullopt;
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, int(left.count()) + 1) <= 0) continue;
        sockaddr_ll from{};
        socklen_t fl = sizeof from;
        const ssize_t n = ::recvfrom(fd_, buf.data(), buf.size(), MSG_DONTWAIT,
                                     reinterpret_cast<sockaddr *>(&from), &fl);
        if (n < 0 || from.sll_pkttype == PACKET_OUTGOING) continue;
        if (size_t(n) < tav::kEthHeaderLen + tav::kSelectorLen) continue;
        Frame f;
        std::memcpy(f.dst.data(), buf.data(), 6);
        std::memcpy(f.src.data(), buf.data() + 6, 6);
        const uint8_t *payload = buf.data() + tav::kEthHeaderLen;
        auto plain = cipher_->decode(
            tav::get_be16(payload),
            std::span<const uint8_t>(payload + tav::kSelectorLen,
                                     size_t(n) - tav::kEthHeaderLen - tav::kSelectorLen));
        if (plain) {
            f.msg = tav::client::parse_message(*plain);
            f.msg->src_mac = f.src;
        }
        return f;
    }
    return std::nullopt;
}

std::optional<FrameTap::Frame> FrameTap::next(const std::function<bool(const Frame &)> &pred,
                                              std::chrono::milliseconds window) {
    const auto deadline = Clock::now() + window;
    while (auto f = read(deadline))
        if (pred(*f)) return f;
    return std::nullopt;
}

std::vector<FrameTap::Frame> FrameTap::all(std::chrono::milliseconds window) {
    std::vector<Frame> out;
    const auto deadline = Clock::now() + window;
    while (auto f = read(deadline)) out.push_back(std::move(*f));
    return out;
}

bool is_announcement(const FrameTap::Frame &f, uint16_t op, const Mac &from) {
    return f.src == from && f.msg && f.msg->is_announcement() && f.msg->op_code() == op;
}

// ---- requests -------------------------------------------------------------

std::vector<uint8_t> plaintext(tav::Header h, const TlvList &tlvs,
                               std::optional<uint16_t> body_length) {
    // The client lays out the TLVs; only the header is ours to choose.
    auto built = tav::client::build_request(h.ipv4, 0, 0, {}, {}, tlvs);
    std::vector<uint8_t> body(built.begin() + long(h.size()), built.end());
    h.body_length = body_length.value_or(uint16_t(body.size()));
    std::vector<uint8_t> out(h.size());
    tav::encode_header(h, out.data());
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

tav::Header request_header(bool ipv4, uint16_t op_code, uint16_t sequence) {
    tav::Header h;
    h.ipv4 = ipv4;
    h.msg_type = ipv4 ? tav::kMsgIpv4Request : tav::kMsgL2Request;
    h.sequence = sequence;
    h.op_code = op_code;
    h.target_mac = ipv4 ? tav::kZeroMac : tav::kBroadcastMac;
    h.version = tav::kVersion;
    return h;
}

uint16_t take_sequence(Client &c) {
    const uint16_t s = c.next_sequence();
    c.set_sequence(uint16_t(s + 1));
    return s;
}

uint16_t send_to(Client &c, uint16_t op_code, const Mac &target, const Ipv4 &ip,
                 const TlvList &tlvs) {
    tav::Header h = request_header(c.ipv4(), op_code, take_sequence(c));
    h.target_mac = target;
    h.target_ip = ip;
    auto sent = c.send_plaintext(plaintext(h, tlvs));
    EXPECT_TRUE(sent) << sent.error();
    return h.sequence;
}

bool is_reply_to(const Message &m, uint16_t sequence, uint16_t op_code) {
    return m.header && (m.msg_type() == tav::kMsgL2Reply || m.msg_type() == tav::kMsgIpv4Reply) &&
           m.header->sequence == sequence && m.op_code() == op_code;
}

std::vector<Message> replies_before_control(Client &c, uint16_t sequence, uint16_t op_code,
                                            size_t controls) {
    auto ctl = c.request(tav::kOpDiscovery, {}, 5s, controls);
    EXPECT_TRUE(ctl && ctl->size() == controls)
        << "the daemon did not answer a discovery after the message";
    std::vector<Message> out;
    while (auto m = c.wait_for([&](const Message &x) { return is_reply_to(x, sequence, op_code); },
                               50ms))
        out.push_back(std::move(*m));
    return out;
}

std::vector<uint8_t> body_of(const Message &m) {
    if (!m.header) return {};
    auto first = m.plaintext.begin() + long(m.header->size());
    return {first, first + m.header->body_length};
}

std::string hex(std::span<const uint8_t> v) {
    return tav::client::to_hex(v);
}

}  // namespace e2e
