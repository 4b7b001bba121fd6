// SPDX-License-Identifier: ISC
#include "tools/client/transport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tav::client {

namespace {

std::string errno_text() { return std::strerror(errno); }

// Waits until fd is readable or the deadline passes.
bool wait_readable(int fd, Clock::time_point deadline) {
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() < 0) return false;
        pollfd p{fd, POLLIN, 0};
        int rc = ::poll(&p, 1, int(std::min<long long>(left.count() + 1, 1 << 30)));
        if (rc > 0) return true;
        if (rc == 0) {
            if (Clock::now() >= deadline) return false;
            continue;
        }
        if (errno != EINTR) return false;
    }
}

}  // namespace

// ---- network namespace ----------------------------------------------------

Expected<std::unique_ptr<NetnsScope>> NetnsScope::enter(const std::string &name) {
    std::unique_ptr<NetnsScope> s(new NetnsScope);
    if (name.empty()) return s;
    int target = ::open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
    if (target < 0)
        return fail("no such network namespace \"" + name + "\": " + errno_text());
    s->saved_fd_ = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    if (s->saved_fd_ < 0) {
        std::string e = errno_text();
        ::close(target);
        return fail("cannot remember the current network namespace: " + e);
    }
    if (::setns(target, CLONE_NEWNET) != 0) {
        std::string e = errno_text();
        ::close(target);
        return fail("cannot enter network namespace \"" + name + "\": " + e);
    }
    ::close(target);
    return s;
}

NetnsScope::~NetnsScope() {
    if (saved_fd_ >= 0) {
        // Sockets made inside stay there; the thread goes back.
        (void)::setns(saved_fd_, CLONE_NEWNET);
        ::close(saved_fd_);
    }
}

// ---- raw Ethernet ---------------------------------------------------------

Expected<std::unique_ptr<RawTransport>> RawTransport::open(const std::string &iface,
                                                           const std::string &netns) {
    auto scope = NetnsScope::enter(netns);
    if (!scope) return fail(scope.error());
    if (iface.empty() || iface.size() >= IFNAMSIZ)
        return fail("no such network interface \"" + iface + "\"");
    unsigned idx = if_nametoindex(iface.c_str());
    if (idx == 0) return fail("no such network interface \"" + iface + "\"");

    std::unique_ptr<RawTransport> t(new RawTransport);
    t->ifindex_ = int(idx);
    t->fd_ = ::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(kEtherType));
    if (t->fd_ < 0)
        return fail("cannot open a raw Ethernet socket (root or CAP_NET_RAW needed): " +
                    errno_text());

    ifreq ifr{};
    std::memcpy(ifr.ifr_name, iface.c_str(), iface.size());
    if (::ioctl(t->fd_, SIOCGIFHWADDR, &ifr) != 0)
        return fail("cannot read the MAC address of \"" + iface + "\": " + errno_text());
    std::memcpy(t->if_mac_.data(), ifr.ifr_hwaddr.sa_data, 6);
    t->mac_ = t->if_mac_;

    // Our own frames are dropped in the kernel, and the queue is deep: on a
    // busy segment, a socket that queued what it sent would lose answers.
    sock_filter drop_outgoing[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, uint32_t(SKF_AD_OFF + SKF_AD_PKTTYPE)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_OUTGOING, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, 0),
        BPF_STMT(BPF_RET | BPF_K, 0xFFFF),
    };
    const sock_fprog prog{uint16_t(std::size(drop_outgoing)), drop_outgoing};
    if (::setsockopt(t->fd_, SOL_SOCKET, SO_ATTACH_FILTER, &prog, sizeof prog) != 0)
        return fail("cannot filter the raw Ethernet socket: " + errno_text());
    const int queue = 8 << 20;  // beyond the system's limit needs root; best effort
    if (::setsockopt(t->fd_, SOL_SOCKET, SO_RCVBUFFORCE, &queue, sizeof queue) != 0)
        (void)::setsockopt(t->fd_, SOL_SOCKET, SO_RCVBUF, &queue, sizeof queue);

    sockaddr_ll sll{};
    sll.sll_family = AF_PACKET;
    sll.sll_protocol = htons(kEtherType);
    sll.sll_ifindex = t->ifindex_;
    if (::bind(t->fd_, reinterpret_cast<sockaddr *>(&sll), sizeof sll) != 0)
        return fail("cannot bind to interface \"" + iface + "\": " + errno_text());
    return t;
}

RawTransport::~RawTransport() {
    if (fd_ >= 0) ::close(fd_);
}

Expected<void> RawTransport::send_to(std::span<const uint8_t> payload, const std::optional<Mac> &mac,
                                     const std::optional<std::array<uint8_t, 4>> &) {
    const Mac dst = mac.value_or(kBroadcastMac);
    std::vector<uint8_t> frame(kEthHeaderLen + payload.size());
    std::memcpy(frame.data(), dst.data(), 6);
    std::memcpy(frame.data() + 6, mac_.data(), 6);
    put_be16(frame.data() + 12, kEtherType);
    if (!payload.empty()) std::memcpy(frame.data() + kEthHeaderLen, payload.data(), payload.size());

    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(kEtherType);
    to.sll_ifindex = ifindex_;
    to.sll_halen = 6;
    std::memcpy(to.sll_addr, dst.data(), 6);
    ssize_t n = ::sendto(fd_, frame.data(), frame.size(), 0, reinterpret_cast<sockaddr *>(&to),
                         sizeof to);
    if (n < 0) return fail("cannot send the frame: " + errno_text());
    return {};
}

std::optional<Datagram> RawTransport::receive(Clock::time_point deadline) {
    std::vector<uint8_t> buf(kEthHeaderLen + kSelectorLen + kMaxCipherLen + 64);
    while (wait_readable(fd_, deadline)) {
        sockaddr_ll from{};
        socklen_t fl = sizeof from;
        ssize_t n = ::recvfrom(fd_, buf.data(), buf.size(), MSG_DONTWAIT,
                               reinterpret_cast<sockaddr *>(&from), &fl);
        if (n < 0) {
            if (errno == EAGAIN || errno == EINTR) continue;
            return std::nullopt;
        }
        if (size_t(n) < kEthHeaderLen + kSelectorLen) continue;
        if (get_be16(buf.data() + 12) != kEtherType) continue;
        Datagram d;
        std::memcpy(d.dst_mac.data(), buf.data(), 6);
        std::memcpy(d.src_mac.data(), buf.data() + 6, 6);
        d.payload.assign(buf.begin() + kEthHeaderLen, buf.begin() + n);
        return d;
    }
    return std::nullopt;
}

// ---- UDP ------------------------------------------------------------------

Expected<std::unique_ptr<UdpTransport>> UdpTransport::open(const std::string &addr,
                                                           uint16_t port,
                                                           const std::string &bind_addr,
                                                           const std::string &netns) {
    auto scope = NetnsScope::enter(netns);
    if (!scope) return fail(scope.error());
    std::unique_ptr<UdpTransport> t(new UdpTransport);
    in_addr dst{};
    if (inet_pton(AF_INET, addr.c_str(), &dst) != 1)
        return fail("not an IPv4 address: \"" + addr + "\"");
    std::memcpy(t->dest_.data(), &dst, 4);
    t->port_ = port;

    t->fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (t->fd_ < 0) return fail("cannot open a UDP socket: " + errno_text());
    int one = 1;
    if (::setsockopt(t->fd_, SOL_SOCKET, SO_BROADCAST, &one, sizeof one) != 0)
        return fail("cannot allow broadcast on the UDP socket: " + errno_text());

    sockaddr_in local{};
    local.sin_family = AF_INET;
    if (!bind_addr.empty() && inet_pton(AF_INET, bind_addr.c_str(), &local.sin_addr) != 1)
        return fail("not an IPv4 address: \"" + bind_addr + "\"");
    if (::bind(t->fd_, reinterpret_cast<sockaddr *>(&local), sizeof local) != 0)
        return fail("cannot bind the UDP socket: " + errno_text());
    socklen_t ll = sizeof local;
    if (::getsockname(t->fd_, reinterpret_cast<sockaddr *>(&local), &ll) == 0)
        t->local_port_ = ntohs(local.sin_port);

    // The address the datagrams leave from (for capture records): an
    // unbound socket has none until it sends, so ask a connected one.
    std::memcpy(t->source_.data(), &local.sin_addr, 4);
    if (bind_addr.empty()) {
        int probe = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        to.sin_addr = dst;
        sockaddr_in from{};
        socklen_t fl = sizeof from;
        if (probe >= 0 && ::setsockopt(probe, SOL_SOCKET, SO_BROADCAST, &one, sizeof one) == 0 &&
            ::connect(probe, reinterpret_cast<sockaddr *>(&to), sizeof to) == 0 &&
            ::getsockname(probe, reinterpret_cast<sockaddr *>(&from), &fl) == 0)
            std::memcpy(t->source_.data(), &from.sin_addr, 4);
        if (probe >= 0) ::close(probe);
    }

    if ((t->dest_[0] & 0xF0) == 0xE0) {
        // Group traffic leaves by the chosen local address (default route
        // otherwise) and loops back so a device on this host hears it too.
        if (!bind_addr.empty()) {
            in_addr ifa = local.sin_addr;
            (void)::setsockopt(t->fd_, IPPROTO_IP, IP_MULTICAST_IF, &ifa, sizeof ifa);
        }
        (void)::setsockopt(t->fd_, IPPROTO_IP, IP_MULTICAST_LOOP, &one, sizeof one);
    }
    return t;
}

UdpTransport::~UdpTransport() {
    if (fd_ >= 0) ::close(fd_);
}

Expected<void> UdpTransport::send_to(std::span<const uint8_t> payload, const std::optional<Mac> &,
                                     const std::optional<std::array<uint8_t, 4>> &ip) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port_);
    std::memcpy(&to.sin_addr, ip.value_or(dest_).data(), 4);
    ssize_t n = ::sendto(fd_, payload.data(), payload.size(), 0,
                         reinterpret_cast<sockaddr *>(&to), sizeof to);
    if (n < 0) return fail("cannot send the datagram: " + errno_text());
    return {};
}

std::optional<Datagram> UdpTransport::receive(Clock::time_point deadline) {
    std::vector<uint8_t> buf(65536);
    while (wait_readable(fd_, deadline)) {
        sockaddr_in from{};
        socklen_t fl = sizeof from;
        ssize_t n = ::recvfrom(fd_, buf.data(), buf.size(), MSG_DONTWAIT,
                               reinterpret_cast<sockaddr *>(&from), &fl);
        if (n < 0) {
            if (errno == EAGAIN || errno == EINTR) continue;
            // An ICMP error for an earlier datagram; keep listening.
            if (errno == ECONNREFUSED) continue;
            return std::nullopt;
        }
        if (size_t(n) < kSelectorLen) continue;
        Datagram d;
        std::memcpy(d.src_ip.data(), &from.sin_addr, 4);
        d.src_port = ntohs(from.sin_port);
        d.payload.assign(buf.begin(), buf.begin() + n);
        return d;
    }
    return std::nullopt;
}

}  // namespace tav::client
