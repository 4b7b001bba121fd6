// SPDX-License-Identifier: ISC
#include "tools/client/capture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace tav::client {

namespace {

constexpr uint32_t kLinkUser0 = 147;
constexpr uint16_t kSecretTags[] = {56, 51, 931, 934, 40, 41, 45};

void be16(std::vector<uint8_t> &out, uint16_t v) {
    out.push_back(uint8_t(v >> 8));
    out.push_back(uint8_t(v));
}

}  // namespace

Expected<std::shared_ptr<CaptureWriter>> CaptureWriter::open(const std::string &path, bool keep_secrets) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return Error{"cannot write the capture \"" + path + "\": " + std::strerror(errno)};
    ::fchmod(fd, 0600);  // an existing file keeps its mode through O_CREAT
    std::shared_ptr<CaptureWriter> w(new CaptureWriter);
    w->f_ = ::fdopen(fd, "wb");
    w->keep_secrets_ = keep_secrets;
    // Classic pcap, host byte order, microseconds, version 2.4.
    const uint32_t head[] = {0xa1b2c3d4, 0x00040002, 0, 0, 262144, kLinkUser0};
    std::fwrite(head, sizeof head, 1, w->f_);
    std::fflush(w->f_);
    return w;
}

CaptureWriter::~CaptureWriter() {
    if (f_) std::fclose(f_);
}

bool CaptureWriter::mask_secrets(std::vector<uint8_t> &plain, bool udp) {
    bool masked = false;
    size_t at = udp ? kIpv4HeaderLen : kL2HeaderLen;
    while (at + kTlvHeadLen <= plain.size()) {
        const uint16_t tag = get_be16(&plain[at]), len = get_be16(&plain[at + 2]);
        const size_t end = std::min(plain.size(), at + kTlvHeadLen + len);
        if (std::find(std::begin(kSecretTags), std::end(kSecretTags), tag) != std::end(kSecretTags))
            for (size_t i = at + kTlvHeadLen; i < end && plain[i] != 0; ++i) plain[i] = '*', masked = true;
        at = end;
    }
    return masked;
}

void CaptureWriter::record(bool received, bool udp, std::span<const uint8_t> wire, std::span<const uint8_t> plain,
                           Endpoint src, Endpoint dst, const Cipher &cipher) {
    std::vector<uint8_t> text(plain.begin(), plain.end()), bytes(wire.begin(), wire.end());
    uint8_t flags = received ? 1 : 0;
    if (!keep_secrets_) {
        flags |= 2;
        if (!text.empty() && mask_secrets(text, udp)) {
            // The ciphertext would give the secret back to anyone with the library.
            const size_t head = udp ? 0 : kEthHeaderLen;
            bytes.resize(head);
            if (auto sealed = cipher.encode(text)) {
                be16(bytes, sealed->selector);
                bytes.insert(bytes.end(), sealed->ciphertext.begin(), sealed->ciphertext.end());
            }
        }
    }
    std::vector<uint8_t> rec = {'T', 'A', 'V', 'P', 1, flags, uint8_t(udp ? 2 : 1), 0};
    rec.insert(rec.end(), src.ip.begin(), src.ip.end());
    be16(rec, src.port);
    rec.insert(rec.end(), dst.ip.begin(), dst.ip.end());
    be16(rec, dst.port);
    be16(rec, uint16_t(bytes.size()));
    be16(rec, uint16_t(text.size()));
    rec.insert(rec.end(), bytes.begin(), bytes.end());
    rec.insert(rec.end(), text.begin(), text.end());
    timeval tv{};
    ::gettimeofday(&tv, nullptr);
    const uint32_t head[] = {uint32_t(tv.tv_sec), uint32_t(tv.tv_usec), uint32_t(rec.size()), uint32_t(rec.size())};
    std::lock_guard lock(mu_);
    std::fwrite(head, sizeof head, 1, f_);
    std::fwrite(rec.data(), rec.size(), 1, f_);
    std::fflush(f_);
}

}  // namespace tav::client
