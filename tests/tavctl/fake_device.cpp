#include "fake_device.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace tav::test {

std::vector<uint8_t> make_reply(const Message &req, uint16_t result, const TlvList &tlvs,
                                int sequence_delta) {
    std::vector<uint8_t> out = client::build_request(
        true, uint16_t(req.header->sequence + sequence_delta), req.header->op_code, kZeroMac,
        req.src_ip, tlvs);
    put_be16(out.data(), kMsgIpv4Reply);
    put_be16(out.data() + 16, result);
    return out;
}

FakeDevice::FakeDevice(const std::string &cipher_path, Handler handler)
    : cipher_(client::Cipher::load(cipher_path).value()), handler_(std::move(handler)) {
    fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0)
        throw std::runtime_error("fake device: cannot bind to loopback");
    socklen_t l = sizeof a;
    ::getsockname(fd_, reinterpret_cast<sockaddr *>(&a), &l);
    port_ = ntohs(a.sin_port);
    thread_ = std::thread([this] { run(); });
}

FakeDevice::~FakeDevice() {
    stop_ = true;
    thread_.join();
    ::close(fd_);
}

std::vector<Message> FakeDevice::requests() {
    std::lock_guard<std::mutex> g(mu_);
    return seen_;
}

void FakeDevice::run() {
    std::vector<uint8_t> buf(65536);
    while (!stop_) {
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, 20) <= 0) continue;
        sockaddr_in from{};
        socklen_t fl = sizeof from;
        ssize_t n = ::recvfrom(fd_, buf.data(), buf.size(), 0, reinterpret_cast<sockaddr *>(&from), &fl);
        if (n < 2) continue;
        auto plain = cipher_.decode(get_be16(buf.data()),
                                    std::span<const uint8_t>(buf.data() + 2, size_t(n) - 2));
        if (!plain) continue;
        Message req = client::parse_message(*plain);
        std::memcpy(req.src_ip.data(), &from.sin_addr, 4);
        req.src_port = ntohs(from.sin_port);
        {
            std::lock_guard<std::mutex> g(mu_);
            seen_.push_back(req);
        }
        if (!req.header) continue;
        for (const auto &reply : handler_(req)) {
            auto sealed = cipher_.encode(reply);
            if (!sealed) continue;
            std::vector<uint8_t> out(2 + sealed->ciphertext.size());
            put_be16(out.data(), sealed->selector);
            std::copy(sealed->ciphertext.begin(), sealed->ciphertext.end(), out.begin() + 2);
            ::sendto(fd_, out.data(), out.size(), 0, reinterpret_cast<sockaddr *>(&from), fl);
        }
    }
}

}  // namespace tav::test
