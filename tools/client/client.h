// SPDX-License-Identifier: ISC
// Manager-side client of the TAV protocol: builds requests, enciphers them,
// sends them by raw Ethernet or UDP and collects the deciphered replies.
//
//   tav::client::Options o;
//   o.iface = "eth0";                     // or o.udp = "192.0.2.255"
//   o.netns = "tavlab-mgr";               // optional
//   tav::client::Client c(o);             // throws ClientError; or Client::open(o)
//   auto replies = c.request(tav::kOpDiscovery, {}, 2s).value();
//   auto hello = c.receive_all(1s);       // announcements (0x7FFF) and the rest
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "proto/tags.h"
#include "proto/wire.h"
#include "tools/client/capture.h"
#include "tools/client/cipher.h"
#include "tools/client/expected.h"
#include "tools/client/tlv_text.h"
#include "tools/client/transport.h"

namespace tav::client {

struct Options {
    std::string iface;                  // raw Ethernet on this interface, or
    std::string udp;                    // UDP to this IPv4 address (broadcast, 224.0.0.1 allowed)
    uint16_t port = kUdpPort;           // UDP destination port
    std::string bind;                   // UDP: local address to send from (optional)
    std::string netns;                  // open the socket inside /run/netns/NAME (optional)
    std::string cipher = kCipherPath;   // cipher library path
    std::optional<Mac> target_mac;      // default FF:FF:FF:FF:FF:FF raw, 00:00:00:00:00:00 UDP
    std::optional<std::array<uint8_t, 4>> target_ip;  // UDP only; default 0.0.0.0
    std::optional<uint16_t> sequence;   // first sequence number; random when absent
    std::optional<Mac> source_mac;      // raw only: act as a manager with this MAC
    // A request to one device goes to its MAC (raw) or its address (UDP),
    // so that the others need not decipher it; otherwise every request is
    // broadcast and the header alone names the device.
    bool unicast = false;

    // The two usual shapes, without spelling every field.
    static Options raw(std::string iface, std::string netns = {},
                       std::string cipher = std::string(kCipherPath));
    static Options over_udp(std::string addr, std::string netns = {},
                            std::string cipher = std::string(kCipherPath));
};

// One deciphered message: a reply, an announcement or anything else.
struct Message {
    std::vector<uint8_t> plaintext;
    std::optional<Header> header;  // empty when the plaintext holds no valid header
    std::vector<Record> tlvs;         // the body's records (ReplyReader rules)
    bool truncated = false;        // bytes after the last whole record
    Mac src_mac{};                 // raw path: frame source
    Mac dst_mac{};                 // raw path: frame destination
    Ipv4 src_ip{};                 // UDP path: datagram source
    uint16_t src_port = 0;

    uint16_t msg_type() const { return header ? header->msg_type : 0; }
    uint16_t op_code() const { return header ? header->op_code : 0; }
    uint16_t result() const { return header ? header->result : 0; }
    bool is_announcement() const { return msg_type() == kMsgAnnounce; }

    const Record *find(uint16_t tag) const;
    std::vector<const Record *> all(uint16_t tag) const;
    // Typed reads of the first record of `tag`; empty when absent or of
    // the wrong size.
    std::optional<std::string> text(uint16_t tag) const;
    std::optional<uint8_t> u8(uint16_t tag) const;
    std::optional<uint16_t> u16(uint16_t tag) const;
    std::optional<uint32_t> u32(uint16_t tag) const;  // big-endian
    std::optional<uint64_t> u64(uint16_t tag) const;
    std::optional<Mac> mac(uint16_t tag) const;
    std::optional<std::array<uint8_t, 4>> ipv4(uint16_t tag) const;
};

// Decodes a plaintext into a Message (no source filled in).
Message parse_message(std::span<const uint8_t> plaintext);

// Plaintext of a request: header of the transport's form, then the TLVs.
std::vector<uint8_t> build_request(bool ipv4, uint16_t sequence, uint16_t op_code,
                                   const Mac &target_mac, const std::array<uint8_t, 4> &target_ip,
                                   const TlvList &tlvs);

class Client {
  public:
    static Expected<Client> open(const Options &opts);
    explicit Client(const Options &opts);  // throws ClientError with the same text

    Client(Client &&) noexcept;
    Client &operator=(Client &&) noexcept;
    ~Client();

    // Sends one request and collects the matching replies (same sequence and
    // op code, reply type of the path, and on the raw path addressed to our
    // MAC) until `window` has passed or `max_replies` (0: no limit) came.
    // Other messages seen meanwhile are kept for receive_all().
    Expected<std::vector<Message>> request(uint16_t op_code, const TlvList &tlvs,
                                           std::chrono::milliseconds window,
                                           size_t max_replies = 0);
    // The first matching reply, or an error naming the silence.
    Expected<Message> request_one(uint16_t op_code, const TlvList &tlvs,
                                  std::chrono::milliseconds window);

    // Sends the request and returns the sequence it used.
    Expected<uint16_t> send_request(uint16_t op_code, const TlvList &tlvs);
    // The same to one device, whatever the options name.
    Expected<uint16_t> send_request_to(uint16_t op_code, const TlvList &tlvs, std::optional<Mac> target_mac,
                                       std::optional<std::array<uint8_t, 4>> target_ip);
    // Whether `m` is the reply to the request of `sequence` and `op_code`.
    bool is_reply(const Message &m, uint16_t sequence, uint16_t op_code) const { return matches(m, sequence, op_code); }
    // Enciphers and sends any plaintext as it is (malformed ones too).
    Expected<void> send_plaintext(std::span<const uint8_t> plaintext);
    Expected<void> send_plaintext_to(std::span<const uint8_t> plaintext, const std::optional<Mac> &mac,
                                     const std::optional<std::array<uint8_t, 4>> &ip);
    // Replies to an earlier send_request().
    std::vector<Message> collect(uint16_t sequence, uint16_t op_code,
                                 std::chrono::milliseconds window, size_t max_replies = 0);

    // Every message that deciphers: first those kept back by request(), then
    // what arrives within `window`.
    std::vector<Message> receive_all(std::chrono::milliseconds window);
    // The next message before the deadline (kept ones first).
    std::optional<Message> receive(Clock::time_point deadline);
    // Waits for the first message satisfying `pred` (kept ones first; the
    // others are kept).
    template <class Pred>
    std::optional<Message> wait_for(Pred pred, std::chrono::milliseconds window);

    uint16_t next_sequence() const { return sequence_; }
    void set_sequence(uint16_t s) { sequence_ = s; }
    bool ipv4() const;
    Mac local_mac() const;
    const Options &options() const { return opts_; }
    // Payloads that did not decipher or held no header (for tests).
    size_t undecodable() const { return undecodable_; }
    Transport &transport() { return *transport_; }
    // Records every message sent and received from now on.
    void set_capture(std::shared_ptr<CaptureWriter> w) { capture_ = std::move(w); }
    const Cipher &cipher() const { return *cipher_; }

  private:
    Client() = default;
    std::optional<Message> receive_new(Clock::time_point deadline);
    void capture(bool received, std::span<const uint8_t> payload, std::span<const uint8_t> plain, const Datagram *d,
                 const std::optional<Mac> &to_mac = {}, const std::optional<Ipv4> &to_ip = {});
    bool matches(const Message &m, uint16_t sequence, uint16_t op_code) const;
    void keep(Message m);

    Options opts_;
    std::unique_ptr<Cipher> cipher_;
    std::unique_ptr<Transport> transport_;
    uint16_t sequence_ = 0;
    std::deque<Message> kept_;
    size_t undecodable_ = 0;
    std::shared_ptr<CaptureWriter> capture_;
};

template <class Pred>
std::optional<Message> Client::wait_for(Pred pred, std::chrono::milliseconds window) {
    for (auto it = kept_.begin(); it != kept_.end(); ++it)
        if (pred(*it)) {
            Message m = std::move(*it);
            kept_.erase(it);
            return m;
        }
    auto deadline = Clock::now() + window;
    while (auto m = receive_new(deadline)) {
        if (pred(*m)) return m;
        keep(std::move(*m));
    }
    return std::nullopt;
}

}  // namespace tav::client
