// SPDX-License-Identifier: ISC
// The two paths to a device: raw Ethernet frames of EtherType 0x2386 on one
// interface, and UDP datagrams to port 62976 (unicast, broadcast or the
// 224.0.0.1 group). A transport moves selector + ciphertext payloads; the
// frame layouts are its business, the cipher is not.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "proto/wire.h"
#include "tools/client/expected.h"

namespace tav::client {

using Clock = std::chrono::steady_clock;
using Ipv4 = std::array<uint8_t, 4>;

// One received payload and where it came from.
struct Datagram {
    std::vector<uint8_t> payload;  // selector (2 bytes) + ciphertext
    Mac src_mac{};                 // raw path: the frame's source
    Mac dst_mac{};                 // raw path: the frame's destination
    Ipv4 src_ip{};                 // UDP path: the datagram's source
    uint16_t src_port = 0;
};

class Transport {
  public:
    virtual ~Transport() = default;
    virtual Expected<void> send(std::span<const uint8_t> payload) { return send_to(payload, {}, {}); }
    // To one device: a frame to its MAC, a datagram to its address (either
    // may be absent: the transport's broadcast destination then).
    virtual Expected<void> send_to(std::span<const uint8_t> payload, const std::optional<Mac> &mac,
                                   const std::optional<std::array<uint8_t, 4>> &ip) = 0;
    // Next payload before `deadline`; empty when none came.
    virtual std::optional<Datagram> receive(Clock::time_point deadline) = 0;
    // True for the UDP path (requests and replies use the IPv4 header form).
    virtual bool ipv4() const = 0;
    // The interface MAC on the raw path; zero on the UDP path.
    virtual Mac local_mac() const = 0;
};

// Runs the constructor of a socket inside a network namespace by name
// (/run/netns/NAME), so tests and tools can reach lab hosts from outside.
// Empty name: the current namespace.
class NetnsScope {
  public:
    static Expected<std::unique_ptr<NetnsScope>> enter(const std::string &name);
    ~NetnsScope();
    NetnsScope(const NetnsScope &) = delete;
    NetnsScope &operator=(const NetnsScope &) = delete;

  private:
    NetnsScope() = default;
    int saved_fd_ = -1;
};

class RawTransport final : public Transport {
  public:
    static Expected<std::unique_ptr<RawTransport>> open(const std::string &iface,
                                                        const std::string &netns = {});
    ~RawTransport() override;
    Expected<void> send_to(std::span<const uint8_t> payload, const std::optional<Mac> &mac,
                           const std::optional<std::array<uint8_t, 4>> &ip) override;
    std::optional<Datagram> receive(Clock::time_point deadline) override;
    bool ipv4() const override { return false; }
    Mac local_mac() const override { return mac_; }
    // Frames go out with this source MAC instead of the interface's, so one
    // host can act as several managers (the device tells managers apart by
    // MAC). Replies addressed to it are ours.
    void set_source_mac(const Mac &m) { mac_ = m; }
    Mac interface_mac() const { return if_mac_; }

  private:
    RawTransport() = default;
    int fd_ = -1;
    int ifindex_ = 0;
    Mac mac_{};
    Mac if_mac_{};
};

class UdpTransport final : public Transport {
  public:
    // `addr`: the device, a broadcast address or "224.0.0.1". `bind_addr`
    // (optional) is the local address to send from; it also picks the
    // interface for multicast.
    static Expected<std::unique_ptr<UdpTransport>> open(const std::string &addr,
                                                        uint16_t port = kUdpPort,
                                                        const std::string &bind_addr = {},
                                                        const std::string &netns = {});
    ~UdpTransport() override;
    Expected<void> send_to(std::span<const uint8_t> payload, const std::optional<Mac> &mac,
                           const std::optional<std::array<uint8_t, 4>> &ip) override;
    std::optional<Datagram> receive(Clock::time_point deadline) override;
    bool ipv4() const override { return true; }
    Mac local_mac() const override { return {}; }
    // The local port replies come back to.
    uint16_t local_port() const { return local_port_; }
    // The local address datagrams leave from (0.0.0.0 when unknown).
    const Ipv4 &source_ip() const { return source_; }

  private:
    UdpTransport() = default;
    int fd_ = -1;
    Ipv4 dest_{};
    uint16_t port_ = kUdpPort;
    uint16_t local_port_ = 0;
    Ipv4 source_{};
};

}  // namespace tav::client
