// Shared set-up for the engine tests: the in-process store preloaded with an
// access point's identity, an identity cipher, and the recorder for frames.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lrgbin/rgdb_store.h"
#include "proto/wire.h"
#include "tavc/record/record.h"
#include "tavc/tavc.h"

inline constexpr tav::Mac kDeviceMac{0x02, 0x7a, 0x76, 0x00, 0x00, 0x01};
inline constexpr tav::Mac kManagerMac{0x02, 0x7a, 0x76, 0x00, 0x00, 0xfe};
inline constexpr uint8_t kDeviceIp[4] = {192, 0, 2, 11};
inline constexpr uint16_t kSelector = 0x5a17;

using Bytes = std::vector<uint8_t>;

struct Record {
    uint16_t tag;
    Bytes value;
};

// A TLV record exactly as given (declared length = value size unless set).
Bytes tlv(uint16_t tag, const Bytes &value, std::optional<uint16_t> declared = {});
Bytes tlv_text(uint16_t tag, const std::string &text);  // with its NUL
Bytes cat(std::initializer_list<Bytes> parts);
std::vector<Record> records(std::span<const uint8_t> body);

// A sent frame, deciphered: header and body.
struct SentMessage {
    bool l2;
    tav::Header header;
    Bytes body;
    Bytes eth;  // the 14-byte Ethernet header (raw path)
};

class Engine : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Plaintext of a request in the raw (ipv4 = false) or IPv4 form.
    static Bytes request(bool ipv4, uint16_t op, const Bytes &body,
                         tav::Mac target = kDeviceMac, std::array<uint8_t, 4> ip = {},
                         uint16_t sequence = 0x0102);
    // Runs process_message as the receive loop would, from `sender`.
    void deliver(const Bytes &plain, tav::Mac sender = kManagerMac);
    std::vector<SentMessage> sent() const;

    // Calls a handler directly; returns its result and the reply body.
    static std::pair<int, Bytes> call(tav_handler h, const Bytes &body);

    static std::string out();  // standard output since SetUp or the last out()
};
