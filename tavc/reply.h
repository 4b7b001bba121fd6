// SPDX-License-Identifier: ISC
// A handler's reply body: the host-order 16-bit length, then the TLV area.
// TLVs are appended through proto's TlvWriter, which never writes past the
// 65490-byte area.
//
// add(tag, value) takes the wire form from the tag table (proto/tags.h): the
// kind, the byte order and, for text, whether the NUL goes along. A value of
// another kind or width does not compile (a u8 tag takes a uint8_t, a u16 tag
// a uint16_t, a MAC tag 6 bytes, a text tag text), nor does a tag whose form
// depends on the op code unless it is bound to one (tag.in<op>()). A list
// that ends with a closing record keeps room for it: after close_with(len)
// every add leaves len + 4 bytes free, and close(tag, value) then always fits.
#pragma once

#include <stdint.h>
#include <string.h>

#include <span>
#include <type_traits>

#include "proto/tags.h"
#include "proto/wire.h"

class Reply {
  public:
    explicit Reply(uint8_t *buf) : buf_(buf), w_(std::span<uint8_t>(buf + 2, tav::kReplyArea)) {}
    // A TLV area of its own, without the length field (the device's report).
    explicit Reply(std::span<uint8_t> area) : buf_(nullptr), w_(area) {}

    template <uint16_t N, uint16_t Op, class V>
    bool add(tav::Tag<N, Op> tag, const V &v) {
        return put(tag, v, reserve_);
    }

    // The three TLVs a successful set handler of op code `Op` ends with: 393
    // status, 394 the wait time in milliseconds announced to the manager, 395
    // the error mask (in the byte order the table gives it in that op code).
    template <uint16_t Op>
    bool add_set_reply(uint32_t status, uint32_t wait_ms, uint32_t mask) {
        return add_set_status(status, wait_ms) && add(tav::kTagErrorMask.in<Op>(), mask);
    }
    // 393 and 394 only (handlers that send no mask).
    bool add_set_status(uint32_t status, uint32_t wait_ms) {
        return add(tav::kTagSetStatus, status) && add(tav::kTagWaitTime, wait_ms);
    }

    // Keeps room for a closing record of `value_len` bytes from now on.
    void close_with(uint16_t value_len) { reserve_ = tav::kTlvHeadLen + size_t(value_len); }
    // Whether records of `bytes` in all (headers included) fit before the
    // closing record: a group of TLVs goes in whole or not at all.
    bool fits(size_t bytes) const { return w_.size() + bytes + reserve_ <= tav::kReplyArea; }
    static constexpr size_t tlv_size(size_t value_len) { return tav::kTlvHeadLen + value_len; }
    // The closing record, into the room kept for it.
    template <uint16_t N, uint16_t Op, class V>
    bool close(tav::Tag<N, Op> tag, const V &v) {
        reserve_ = 0;
        return put(tag, v, 0);
    }

    size_t size() const { return w_.size(); }

    // Stores the body length (host order) and hands the result code back.
    int finish(int result) {
        uint16_t n = uint16_t(w_.size());
        if (buf_ != nullptr) memcpy(buf_, &n, sizeof n);
        return result;
    }

  private:
    template <tav::TagKind K>
    struct Number;  // the value type of a number kind

    template <uint16_t N, uint16_t Op, class V>
    bool put(tav::Tag<N, Op>, const V &v, size_t reserve) {
        using tav::TagKind;
        constexpr tav::TagForm f = tav::tag_form(tav::Tag<N, Op>{});
        constexpr size_t size = tav::tag_kind_size(f.kind);
        if constexpr (f.kind == TagKind::kText) {
            static_assert(std::is_same_v<std::remove_cv_t<std::remove_extent_t<V>>, char> ||
                              std::is_same_v<V, const char *> || std::is_same_v<V, char *>,
                          "a text tag takes text");
            const char *s = v;
            if constexpr (f.nul) return w_.add_text(N, s, reserve);
            size_t n = strlen(s);
            return n <= 0xFFFF && w_.add(N, s, uint16_t(n), reserve);
        } else if constexpr (f.kind == TagKind::kMac || f.kind == TagKind::kIpv4) {
            static_assert(std::is_same_v<V, uint8_t[size]>, "an address tag takes its bytes");
            return w_.add(N, v, uint16_t(size), reserve);
        } else if constexpr (f.kind == TagKind::kBytes) {
            static_assert(sizeof(V) == 0, "no reply sends an opaque tag");
            return false;
        } else {
            static_assert(std::is_same_v<V, typename Number<f.kind>::type>,
                          "a number tag takes a value of its own width and sign");
            uint8_t b[8];
            uint64_t x = uint64_t(typename Number<f.kind>::unsigned_type(v));
            for (size_t i = 0; i < size; ++i) {
                const size_t shift = f.kind == TagKind::kU32Le ? i : size - 1 - i;
                b[i] = uint8_t(x >> (8 * shift));
            }
            return w_.add(N, b, uint16_t(size), reserve);
        }
    }

    uint8_t *buf_;
    tav::TlvWriter w_;
    size_t reserve_ = 0;
};

template <> struct Reply::Number<tav::TagKind::kU8> { using type = uint8_t; using unsigned_type = uint8_t; };
template <> struct Reply::Number<tav::TagKind::kU16> { using type = uint16_t; using unsigned_type = uint16_t; };
template <> struct Reply::Number<tav::TagKind::kU32> { using type = uint32_t; using unsigned_type = uint32_t; };
template <> struct Reply::Number<tav::TagKind::kU32Le> { using type = uint32_t; using unsigned_type = uint32_t; };
template <> struct Reply::Number<tav::TagKind::kI32> { using type = int32_t; using unsigned_type = uint32_t; };
template <> struct Reply::Number<tav::TagKind::kU64> { using type = uint64_t; using unsigned_type = uint64_t; };
