// A handler's reply body: the host-order 16-bit length, then the TLV area.
// TLVs are appended through proto's TlvWriter, which never writes past the
// 65490-byte area.
//
// Integers are big-endian unless the method says otherwise (a few tags carry
// little-endian values). A list that ends with a closing record keeps room
// for it: after close_with(tag, len) every add leaves len + 4 bytes free, and
// close_be16 / close_text then always fit.
#pragma once

#include <stdint.h>
#include <string.h>

#include <span>

#include "proto/tags.h"
#include "proto/wire.h"

class Reply {
  public:
    explicit Reply(uint8_t *buf) : buf_(buf), w_(std::span<uint8_t>(buf + 2, tav::kReplyArea)) {}

    tav::TlvWriter &tlv() { return w_; }

    bool add(uint16_t tag, const void *v, uint16_t len) { return w_.add(tag, v, len, reserve_); }
    bool add_text(uint16_t tag, const char *s) { return w_.add_text(tag, s, reserve_); }
    bool add_u8(uint16_t tag, uint8_t v) { return w_.add_u8(tag, v, reserve_); }
    bool add_be16(uint16_t tag, uint16_t v) { return w_.add_be16(tag, v, reserve_); }
    bool add_be32(uint16_t tag, uint32_t v) { return w_.add_be32(tag, v, reserve_); }
    bool add_le32(uint16_t tag, uint32_t v) {
        uint8_t b[4] = {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)};
        return add(tag, b, 4);
    }
    bool add_be64(uint16_t tag, uint64_t v) {
        uint8_t b[8];
        for (int i = 7; i >= 0; --i, v >>= 8) b[i] = uint8_t(v);
        return add(tag, b, 8);
    }

    // The three TLVs a successful set handler ends with: 393 status, 394 the
    // wait time in milliseconds announced to the manager, 395 the error mask
    // (big-endian unless `mask_little_endian`).
    bool add_set_reply(uint32_t status, uint32_t wait_ms, uint32_t mask,
                       bool mask_little_endian = false) {
        return add_be32(tav::kTagSetStatus, status) && add_be32(tav::kTagWaitTime, wait_ms) &&
               (mask_little_endian ? add_le32(tav::kTagErrorMask, mask)
                                   : add_be32(tav::kTagErrorMask, mask));
    }
    // 393 and 394 only (handlers that send no mask).
    bool add_set_status(uint32_t status, uint32_t wait_ms) {
        return add_be32(tav::kTagSetStatus, status) && add_be32(tav::kTagWaitTime, wait_ms);
    }

    // Keeps room for a closing record of `value_len` bytes from now on.
    void close_with(uint16_t value_len) { reserve_ = tav::kTlvHeadLen + size_t(value_len); }
    // Whether records of `bytes` in all (headers included) fit before the
    // closing record: a group of TLVs goes in whole or not at all.
    bool fits(size_t bytes) const { return w_.size() + bytes + reserve_ <= tav::kReplyArea; }
    static constexpr size_t tlv_size(size_t value_len) { return tav::kTlvHeadLen + value_len; }
    // The closing record, into the room kept for it.
    bool close_be16(uint16_t tag, uint16_t v) {
        reserve_ = 0;
        return w_.add_be16(tag, v);
    }
    bool close_text(uint16_t tag, const char *s) {
        reserve_ = 0;
        return w_.add_text(tag, s);
    }

    size_t size() const { return w_.size(); }

    // Stores the body length (host order) and hands the result code back.
    int finish(int result) {
        uint16_t n = uint16_t(w_.size());
        memcpy(buf_, &n, sizeof n);
        return result;
    }

  private:
    uint8_t *buf_;
    tav::TlvWriter w_;
    size_t reserve_ = 0;
};
