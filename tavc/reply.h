// A handler's reply body: the host-order 16-bit length, then the TLV area.
// TLVs are appended through proto's TlvWriter, which never writes past the
// 65490-byte area; `reserve` keeps room for a list's closing record.
#pragma once

#include <stdint.h>
#include <string.h>

#include <span>

#include "proto/wire.h"

class Reply {
  public:
    explicit Reply(uint8_t *buf) : buf_(buf), w_(std::span<uint8_t>(buf + 2, tav::kReplyArea)) {}

    tav::TlvWriter &tlv() { return w_; }
    bool add(uint16_t tag, const void *v, uint16_t len, size_t reserve = 0) {
        return w_.add(tag, v, len, reserve);
    }
    bool add_text(uint16_t tag, const char *s, size_t reserve = 0) {
        return w_.add_text(tag, s, reserve);
    }
    bool add_u8(uint16_t tag, uint8_t v, size_t reserve = 0) { return w_.add_u8(tag, v, reserve); }
    bool add_be16(uint16_t tag, uint16_t v, size_t reserve = 0) {
        return w_.add_be16(tag, v, reserve);
    }
    bool add_be32(uint16_t tag, uint32_t v, size_t reserve = 0) {
        return w_.add_be32(tag, v, reserve);
    }

    // Stores the body length (host order) and hands the result code back.
    int finish(int result) {
        uint16_t n = uint16_t(w_.size());
        memcpy(buf_, &n, sizeof n);
        return result;
    }

  private:
    uint8_t *buf_;
    tav::TlvWriter w_;
};
