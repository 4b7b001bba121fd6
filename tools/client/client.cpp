// SPDX-License-Identifier: ISC
#include "tools/client/client.h"

#include <random>
#include <utility>

namespace tav::client {

// Enough to hold every announcement of a lab for a long test without
// growing without bound if nobody reads them.
constexpr size_t kMaxKept = 4096;

// ---- Message --------------------------------------------------------------

const Record *Message::find(uint16_t tag) const {
    for (const auto &t : tlvs)
        if (t.tag == tag) return &t;
    return nullptr;
}

std::vector<const Record *> Message::all(uint16_t tag) const {
    std::vector<const Record *> out;
    for (const auto &t : tlvs)
        if (t.tag == tag) out.push_back(&t);
    return out;
}

std::optional<std::string> Message::text(uint16_t tag) const {
    const Record *t = find(tag);
    if (!t) return std::nullopt;
    std::string s(t->value.begin(), t->value.end());
    if (auto nul = s.find('\0'); nul != std::string::npos) s.resize(nul);
    return s;
}

std::optional<uint8_t> Message::u8(uint16_t tag) const {
    const Record *t = find(tag);
    if (!t || t->value.size() != 1) return std::nullopt;
    return t->value[0];
}
std::optional<uint16_t> Message::u16(uint16_t tag) const {
    const Record *t = find(tag);
    if (!t || t->value.size() != 2) return std::nullopt;
    return get_be16(t->value.data());
}
std::optional<uint32_t> Message::u32(uint16_t tag) const {
    const Record *t = find(tag);
    if (!t || t->value.size() != 4) return std::nullopt;
    return get_be32(t->value.data());
}
std::optional<uint64_t> Message::u64(uint16_t tag) const {
    const Record *t = find(tag);
    if (!t || t->value.size() != 8) return std::nullopt;
    return get_be64(t->value.data());
}
std::optional<Mac> Message::mac(uint16_t tag) const {
    const Record *t = find(tag);
    if (!t || t->value.size() != 6) return std::nullopt;
    Mac m;
    std::copy(t->value.begin(), t->value.end(), m.begin());
    return m;
}
std::optional<std::array<uint8_t, 4>> Message::ipv4(uint16_t tag) const {
    const Record *t = find(tag);
    if (!t || t->value.size() != 4) return std::nullopt;
    std::array<uint8_t, 4> a;
    std::copy(t->value.begin(), t->value.end(), a.begin());
    return a;
}

Message parse_message(std::span<const uint8_t> plaintext) {
    Message m;
    m.plaintext.assign(plaintext.begin(), plaintext.end());
    m.header = decode_header(plaintext);
    if (!m.header) return m;
    auto body = plaintext.subspan(m.header->size(), m.header->body_length);
    ReplyReader r(body);
    while (auto t = r.next()) m.tlvs.push_back(Record{t->tag, {t->value.begin(), t->value.end()}});
    m.truncated = r.truncated();
    return m;
}

std::vector<uint8_t> build_request(bool ipv4, uint16_t sequence, uint16_t op_code,
                                   const Mac &target_mac, const std::array<uint8_t, 4> &target_ip,
                                   const TlvList &tlvs) {
    Header h;
    h.ipv4 = ipv4;
    h.msg_type = ipv4 ? kMsgIpv4Request : kMsgL2Request;
    h.sequence = sequence;
    h.op_code = op_code;
    h.target_mac = target_mac;
    h.target_ip = target_ip;
    h.version = kVersion;
    size_t body = 0;
    for (const auto &t : tlvs) body += kTlvHeadLen + t.value.size();
    h.body_length = uint16_t(body);
    std::vector<uint8_t> out(h.size() + body);
    encode_header(h, out.data());
    uint8_t *p = out.data() + h.size();
    for (const auto &t : tlvs) {
        put_be16(p, t.tag);
        put_be16(p + 2, uint16_t(t.value.size()));
        std::copy(t.value.begin(), t.value.end(), p + kTlvHeadLen);
        p += kTlvHeadLen + t.value.size();
    }
    return out;
}

// ---- Client ---------------------------------------------------------------

Options Options::raw(std::string iface, std::string netns, std::string cipher) {
    Options o;
    o.iface = std::move(iface);
    o.netns = std::move(netns);
    o.cipher = std::move(cipher);
    return o;
}

Options Options::over_udp(std::string addr, std::string netns, std::string cipher) {
    Options o;
    o.udp = std::move(addr);
    o.netns = std::move(netns);
    o.cipher = std::move(cipher);
    return o;
}

Expected<Client> Client::open(const Options &opts) {
    if (opts.iface.empty() == opts.udp.empty())
        return fail("choose exactly one path: an interface (raw Ethernet) or a UDP address");
    if (opts.source_mac && opts.iface.empty())
        return fail("a source MAC can be chosen on the raw Ethernet path only");
    Client c;
    c.opts_ = opts;
    auto cipher = Cipher::load(opts.cipher);
    if (!cipher) return fail(cipher.error());
    c.cipher_ = std::make_unique<Cipher>(std::move(*cipher));
    if (!opts.iface.empty()) {
        auto t = RawTransport::open(opts.iface, opts.netns);
        if (!t) return fail(t.error());
        if (opts.source_mac) (*t)->set_source_mac(*opts.source_mac);
        c.transport_ = std::move(*t);
    } else {
        auto t = UdpTransport::open(opts.udp, opts.port, opts.bind, opts.netns);
        if (!t) return fail(t.error());
        c.transport_ = std::move(*t);
    }
    if (opts.sequence) {
        c.sequence_ = *opts.sequence;
    } else {
        std::random_device rd;
        c.sequence_ = uint16_t(rd());
    }
    return c;
}

Client::Client(const Options &opts) : Client(open(opts).value()) {}
Client::Client(Client &&) noexcept = default;
Client &Client::operator=(Client &&) noexcept = default;
Client::~Client() = default;

bool Client::ipv4() const { return transport_->ipv4(); }
Mac Client::local_mac() const { return transport_->local_mac(); }

Expected<void> Client::send_plaintext(std::span<const uint8_t> plaintext) {
    return send_plaintext_to(plaintext, {}, {});
}

Expected<void> Client::send_plaintext_to(std::span<const uint8_t> plaintext, const std::optional<Mac> &mac,
                                         const std::optional<std::array<uint8_t, 4>> &ip) {
    auto sealed = cipher_->encode(plaintext);
    if (!sealed) return fail(sealed.error());
    std::vector<uint8_t> payload(kSelectorLen + sealed->ciphertext.size());
    put_be16(payload.data(), sealed->selector);
    std::copy(sealed->ciphertext.begin(), sealed->ciphertext.end(), payload.begin() + kSelectorLen);
    if (capture_) capture(false, payload, plaintext, nullptr, mac, ip);
    return transport_->send_to(payload, mac, ip);
}

void Client::capture(bool received, std::span<const uint8_t> payload, std::span<const uint8_t> plain,
                     const Datagram *d, const std::optional<Mac> &to_mac, const std::optional<Ipv4> &to_ip) {
    const bool udp = ipv4();
    std::vector<uint8_t> wire;
    Endpoint local, remote;
    if (udp) {
        wire.assign(payload.begin(), payload.end());
        if (auto *t = dynamic_cast<UdpTransport *>(transport_.get())) local = {t->source_ip(), t->local_port()};
        if (d) remote = {d->src_ip, d->src_port};
        else if (to_ip) remote = {*to_ip, opts_.port};
        else if (auto ip = parse_ipv4(opts_.udp)) remote = {*ip, opts_.port};
    } else {
        const Mac dst = d ? d->dst_mac : to_mac.value_or(kBroadcastMac), src = d ? d->src_mac : local_mac();
        wire.insert(wire.end(), dst.begin(), dst.end());
        wire.insert(wire.end(), src.begin(), src.end());
        wire.push_back(uint8_t(kEtherType >> 8));
        wire.push_back(uint8_t(kEtherType));
        wire.insert(wire.end(), payload.begin(), payload.end());
    }
    capture_->record(received, udp, wire, plain, received ? remote : local, received ? local : remote, *cipher_);
}

Expected<uint16_t> Client::send_request(uint16_t op_code, const TlvList &tlvs) {
    return send_request_to(op_code, tlvs, opts_.target_mac, opts_.target_ip);
}

Expected<uint16_t> Client::send_request_to(uint16_t op_code, const TlvList &tlvs, std::optional<Mac> target_mac,
                                           std::optional<std::array<uint8_t, 4>> target_ip) {
    size_t body = 0;
    for (const auto &t : tlvs) {
        if (t.value.size() > 0xFFFF) return fail("a TLV value exceeds 65535 bytes");
        body += kTlvHeadLen + t.value.size();
    }
    if (body > 0xFFFF) return fail("the request body exceeds 65535 bytes");
    bool v4 = ipv4();
    Mac target = target_mac.value_or(v4 ? kZeroMac : kBroadcastMac);
    std::array<uint8_t, 4> ip = target_ip.value_or(std::array<uint8_t, 4>{});
    uint16_t seq = sequence_++;
    auto plain = build_request(v4, seq, op_code, target, ip, tlvs);
    // Only a real device's address: the all-zero and broadcast ones name every device.
    const bool one = opts_.unicast && ((v4 && target_ip && *target_ip != std::array<uint8_t, 4>{} &&
                                        (*target_ip)[3] != 255) ||
                                       (!v4 && target_mac && *target_mac != kBroadcastMac && *target_mac != kZeroMac));
    auto sent = send_plaintext_to(plain, one && !v4 ? target_mac : std::nullopt, one && v4 ? target_ip : std::nullopt);
    if (!sent) return fail(sent.error());
    return seq;
}

bool Client::matches(const Message &m, uint16_t sequence, uint16_t op_code) const {
    if (!m.header) return false;
    const Header &h = *m.header;
    if (h.msg_type != (ipv4() ? kMsgIpv4Reply : kMsgL2Reply)) return false;
    if (h.sequence != sequence || h.op_code != op_code) return false;
    // On a shared segment every reply is broadcast: keep only ours.
    if (!ipv4() && h.target_mac != local_mac()) return false;
    return true;
}

void Client::keep(Message m) {
    if (kept_.size() >= kMaxKept) kept_.pop_front();
    kept_.push_back(std::move(m));
}

std::optional<Message> Client::receive_new(Clock::time_point deadline) {
    while (auto d = transport_->receive(deadline)) {
        if (d->payload.size() < kSelectorLen) {
            ++undecodable_;
            continue;
        }
        uint16_t selector = get_be16(d->payload.data());
        auto plain = cipher_->decode(selector, std::span(d->payload).subspan(kSelectorLen));
        if (!plain) {
            if (capture_) capture(true, d->payload, {}, &*d);
            ++undecodable_;
            continue;
        }
        Message m = parse_message(*plain);
        if (!m.header) ++undecodable_;
        if (capture_) capture(true, d->payload, *plain, &*d);
        m.src_mac = d->src_mac;
        m.dst_mac = d->dst_mac;
        m.src_ip = d->src_ip;
        m.src_port = d->src_port;
        return m;
    }
    return std::nullopt;
}

std::vector<Message> Client::collect(uint16_t sequence, uint16_t op_code,
                                     std::chrono::milliseconds window, size_t max_replies) {
    std::vector<Message> out;
    auto deadline = Clock::now() + window;
    while (max_replies == 0 || out.size() < max_replies) {
        auto m = receive_new(deadline);
        if (!m) break;
        if (matches(*m, sequence, op_code))
            out.push_back(std::move(*m));
        else
            keep(std::move(*m));
    }
    return out;
}

Expected<std::vector<Message>> Client::request(uint16_t op_code, const TlvList &tlvs,
                                               std::chrono::milliseconds window,
                                               size_t max_replies) {
    auto seq = send_request(op_code, tlvs);
    if (!seq) return fail(seq.error());
    return collect(*seq, op_code, window, max_replies);
}

Expected<Message> Client::request_one(uint16_t op_code, const TlvList &tlvs,
                                      std::chrono::milliseconds window) {
    auto r = request(op_code, tlvs, window, 1);
    if (!r) return fail(r.error());
    if (r->empty())
        return fail("no reply to op code " + format_op_code(op_code) + " within " +
                    std::to_string(window.count()) + " ms");
    return std::move(r->front());
}

std::vector<Message> Client::receive_all(std::chrono::milliseconds window) {
    std::vector<Message> out(std::make_move_iterator(kept_.begin()),
                             std::make_move_iterator(kept_.end()));
    kept_.clear();
    auto deadline = Clock::now() + window;
    while (auto m = receive_new(deadline)) out.push_back(std::move(*m));
    return out;
}

std::optional<Message> Client::receive(Clock::time_point deadline) {
    if (!kept_.empty()) {
        Message m = std::move(kept_.front());
        kept_.pop_front();
        return m;
    }
    return receive_new(deadline);
}

}  // namespace tav::client
