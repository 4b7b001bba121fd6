// SPDX-License-Identifier: ISC
// Manager capture records: what a client sends and receives, each message as
// on the wire with its plaintext beside it, in a pcap file of link type USER0
// (147) that the Wireshark dissector (tools/wireshark) reads with no cipher.
// Secrets (passwords, passphrases, RADIUS secrets, SNMP communities) are
// masked unless asked for, in the plaintext and in the wire bytes, which are
// then enciphered again from the masked plaintext; the file is private (0600).
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "proto/wire.h"
#include "tools/client/cipher.h"
#include "tools/client/expected.h"
#include "tools/client/transport.h"

namespace tav::client {

struct Endpoint {
    Ipv4 ip{};
    uint16_t port = 0;
};

class CaptureWriter {
  public:
    static Expected<std::shared_ptr<CaptureWriter>> open(const std::string &path, bool keep_secrets);
    ~CaptureWriter();
    // `wire`: the whole frame (raw path) or the datagram's payload (UDP);
    // `plain`: its plaintext, empty when it did not decipher.
    void record(bool received, bool udp, std::span<const uint8_t> wire, std::span<const uint8_t> plain,
                Endpoint src, Endpoint dst, const Cipher &cipher);
    // Bytes of a secret value replaced by '*' (the length kept, so the
    // records still walk). True when anything was masked.
    static bool mask_secrets(std::vector<uint8_t> &plain, bool udp);

  private:
    CaptureWriter() = default;
    std::FILE *f_ = nullptr;
    bool keep_secrets_ = false;
    std::mutex mu_;  // the fleet page records from several threads
};

}  // namespace tav::client
