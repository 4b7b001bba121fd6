// SPDX-License-Identifier: ISC
// The request TLV walk, written once for every handler.
//
// A handler describes its request in a constant table of rules, one per tag:
// how many value bytes the walk takes for the tag and where the value goes
// (a member of the handler's own request struct). The walker applies the
// protocol's walk rule:
//
//   while at least 5 body bytes are left:
//     stop when the record's declared length + 4 exceeds what is left;
//     take = fixed N | declared length | declared length cut to N;
//     stop when a fixed-size value would run past the body;
//     act on the tag (store, precedence check, callback);
//     step over take + 4 bytes.
//
// Text values are copied up to their first NUL within the taken bytes and the
// field's size minus one, and always NUL-terminated; a later record of the
// same tag replaces an earlier one. Tag 54 checks the sender's precedence at
// once. The refusal codes, like the credentials, are part of the handler's
// description (TlvRequest) rather than code in each handler.
//
// Mistakes this header turns into compile errors:
//   - a store whose width differs from its member (tlv_be32 on a uint16_t);
//   - a store or a size that differs from the tag's kind in proto/tags.h
//     (tlv_u8 on a u16 tag, tlv_skip(u16 tag, Take::Fixed, 1));
//   - a rule whose member lies outside the request struct;
//   - refusal codes given in the wrong order or as bare numbers;
//   - authentication without credential members.
//
// Example (op 0x00A3):
//
//   struct Verify { char user_name[65]; char password[65]; };
//   constexpr TlvRule kVerifyRules[] = {
//       tlv_precedence(),                                       // 54: 1 byte
//       tlv_text(tav::kTagUserName, Take::Declared, 0, TAVC_FIELD(Verify, user_name)),
//       tlv_text(tav::kTagPassword, Take::Declared, 0, TAVC_FIELD(Verify, password)),
//   };
//   constexpr TlvRequest<Verify> kVerify{
//       kVerifyRules, Take::Declared, ParamRefusal{0xFFFD}, PrecedenceRefusal{0xFFFF},
//       AuthRefusal{0x40}, tlv_credentials(TAVC_FIELD(Verify, user_name),
//                                          TAVC_FIELD(Verify, password))};
//
//   Verify req{};
//   if (Step s = tlv_request_prologue(kVerify, body, len, reply, &req); s.ended())
//       return s.result();
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <span>

#include "proto/tags.h"

// How many value bytes the walk takes for a tag.
enum class Take : uint8_t {
    Fixed,        // exactly n bytes, whatever the length field says
    Declared,     // the length field
    DeclaredMax,  // the length field, but no more than n
    Stop,         // (for unknown tags) end the walk
};

// What the walk does with the value bytes.
enum class Store : uint8_t {
    Skip,        // nothing
    Text,        // NUL-terminated text field
    Bytes,       // raw bytes, at most the field's size; the rest stays zero
    U8,          // first byte
    Be16,        // first two bytes, big-endian, into a uint16_t
    Be32,        // first four bytes, big-endian, into a uint32_t
    Precedence,  // check_server_precedence with the first byte, at once
    Call,        // the rule's callback
    GroupStart,  // opens a new record of the request's group, then stores as Store::U8
};

// The outcome of a walk step, a callback or a prologue: go on, or end the
// handler with a result code. Not an int, so it cannot be mistaken for a
// handler's own return value.
class [[nodiscard]] Step {
  public:
    static constexpr Step go_on() { return Step(-1); }
    static constexpr Step end(uint16_t result) { return Step(result); }
    constexpr bool ended() const { return v_ >= 0; }
    constexpr int result() const { return v_; }  // meaningful when ended()
    constexpr bool operator==(const Step &) const = default;

  private:
    explicit constexpr Step(int v) : v_(v) {}
    int v_;
};

// A callback for tags that act at once: gets the request struct, the tag and
// the taken value bytes.
typedef Step (*tlv_action)(void *req, uint16_t tag, const uint8_t *value, uint16_t taken);

void tlv_description_error();  // never defined: reached only by an invalid description

namespace tlv_detail {
// Offsets and sizes are 16-bit in the rules: a larger one is a description
// error, not a silent wrap.
constexpr uint16_t u16(size_t v) {
    if (v > 0xFFFF) tlv_description_error();
    return uint16_t(v);
}
}  // namespace tlv_detail

// A member of struct Owner with type T, by offset; made by TAVC_FIELD.
template <class Owner, class T>
struct Field {
    uint16_t offset;
    uint16_t size;
};
#define TAVC_FIELD(Type, member)                                             \
    (Field<Type, decltype(Type::member)>{tlv_detail::u16(offsetof(Type, member)), \
                                         tlv_detail::u16(sizeof(Type::member))})

struct TlvRule {
    uint16_t tag;
    Take take;
    uint16_t n;  // fixed size, or the cut of DeclaredMax
    Store store;
    uint16_t offset = 0;  // member in the request struct (or in a group record)
    uint16_t size = 0;    // its size in bytes
    tlv_action action = nullptr;
    bool in_group = false;  // the member belongs to the current group record
    uint16_t seen = 0;  // 1 + offset of a bool member set when the tag is met (0: none)
};

namespace tlv_detail {
constexpr TlvRule rule(uint16_t tag, Take take, uint16_t n, Store store, uint16_t offset = 0,
                       uint16_t size = 0) {
    return TlvRule{tag, take, n, store, offset, size, nullptr, false};
}
}  // namespace tlv_detail

// Every builder takes a typed tag (proto/tags.h) and checks it against the
// tag table: tlv_u8 only for a u8 tag, tlv_be16 for u16, tlv_be32 for u32,
// tlv_text for text; tlv_bytes for opaque values or the raw bytes of a
// fixed-size value. A fixed-size value is taken whole: `n` must be its size
// unless the take is the declared length.
namespace tlv_detail {
template <uint16_t N, uint16_t Op>
consteval tav::TagKind kind() {
    return tav::tag_form(tav::Tag<N, Op>{}).kind;
}
constexpr void check_size(tav::TagKind k, Take take, uint16_t n) {
    const size_t size = tav::tag_kind_size(k);
    if (size != 0 && take != Take::Declared && n != size) tlv_description_error();
}
}  // namespace tlv_detail

template <uint16_t T, uint16_t Op, class O, size_t N>
constexpr TlvRule tlv_text(tav::Tag<T, Op> tag, Take take, uint16_t n, Field<O, char[N]> f) {
    static_assert(tlv_detail::kind<T, Op>() == tav::TagKind::kText, "tlv_text: not a text tag");
    return tlv_detail::rule(tag, take, n, Store::Text, f.offset, f.size);
}
template <uint16_t T, uint16_t Op, class O, size_t N>
constexpr TlvRule tlv_bytes(tav::Tag<T, Op> tag, Take take, uint16_t n, Field<O, uint8_t[N]> f) {
    constexpr tav::TagKind k = tlv_detail::kind<T, Op>();
    static_assert(k == tav::TagKind::kBytes || tav::tag_kind_size(k) == N,
                  "tlv_bytes: the member is not the size of the tag's value");
    tlv_detail::check_size(k, take, n);
    return tlv_detail::rule(tag, take, n, Store::Bytes, f.offset, f.size);
}
template <uint16_t T, uint16_t Op, class O>
constexpr TlvRule tlv_u8(tav::Tag<T, Op> tag, Field<O, uint8_t> f, Take take = Take::Fixed,
                         uint16_t n = 1) {
    static_assert(tlv_detail::kind<T, Op>() == tav::TagKind::kU8, "tlv_u8: not a u8 tag");
    tlv_detail::check_size(tav::TagKind::kU8, take, n);
    return tlv_detail::rule(tag, take, n, Store::U8, f.offset, f.size);
}
template <uint16_t T, uint16_t Op, class O>
constexpr TlvRule tlv_be16(tav::Tag<T, Op> tag, Field<O, uint16_t> f, Take take = Take::Fixed,
                           uint16_t n = 2) {
    static_assert(tlv_detail::kind<T, Op>() == tav::TagKind::kU16, "tlv_be16: not a u16 tag");
    tlv_detail::check_size(tav::TagKind::kU16, take, n);
    return tlv_detail::rule(tag, take, n, Store::Be16, f.offset, f.size);
}
template <uint16_t T, uint16_t Op, class O>
constexpr TlvRule tlv_be32(tav::Tag<T, Op> tag, Field<O, uint32_t> f, Take take = Take::Fixed,
                           uint16_t n = 4) {
    static_assert(tlv_detail::kind<T, Op>() == tav::TagKind::kU32, "tlv_be32: not a u32 tag");
    tlv_detail::check_size(tav::TagKind::kU32, take, n);
    return tlv_detail::rule(tag, take, n, Store::Be32, f.offset, f.size);
}
template <uint16_t T, uint16_t Op>
constexpr TlvRule tlv_skip(tav::Tag<T, Op> tag, Take take, uint16_t n = 0) {
    tlv_detail::check_size(tlv_detail::kind<T, Op>(), take, n);
    return tlv_detail::rule(tag, take, n, Store::Skip);
}
template <uint16_t T, uint16_t Op>
constexpr TlvRule tlv_call(tav::Tag<T, Op> tag, Take take, uint16_t n, tlv_action action) {
    tlv_detail::check_size(tlv_detail::kind<T, Op>(), take, n);
    TlvRule r = tlv_detail::rule(tag, take, n, Store::Call);
    r.action = action;
    return r;
}
// Tag 54, SERVER_PRECEDENCE: one byte, checked the moment it is met.
constexpr TlvRule tlv_precedence() {
    return tlv_detail::rule(tav::kTagServerPrecedence, Take::Fixed, 1, Store::Precedence);
}

// Repeated record groups: a tag that opens a new record (its first byte goes
// into the record's member `f`), and tags whose values go into the record
// opened last. Values of group tags met before the first opening tag are
// dropped. Records live in the request struct (TAVC_GROUPS), never on the heap.
template <uint16_t T, uint16_t Op, class G>
constexpr TlvRule tlv_group_start(tav::Tag<T, Op> tag, Take take, uint16_t n, Field<G, uint8_t> f) {
    static_assert(tlv_detail::kind<T, Op>() == tav::TagKind::kU8, "tlv_group_start: not a u8 tag");
    tlv_detail::check_size(tav::TagKind::kU8, take, n);
    TlvRule r = tlv_detail::rule(tag, take, n, Store::GroupStart, f.offset, f.size);
    r.in_group = true;
    return r;
}
constexpr TlvRule tlv_in_group(TlvRule r) {
    r.in_group = true;
    return r;
}
// Also notes that the tag was met, in a bool member beside the value (in the
// group record for group rules), for requests where an absent tag differs
// from an empty or zero value.
template <class O>
constexpr TlvRule tlv_seen(TlvRule r, Field<O, bool> seen) {
    r.seen = uint16_t(seen.offset + 1);
    return r;
}

// Refusal codes, each of its own type so that a description names them.
struct ParamRefusal { uint16_t code; };       // tav_function_parameter_check fails
struct PrecedenceRefusal { uint16_t code; };  // check_server_precedence refuses
struct AuthRefusal { uint16_t code; };        // tav_authentic refuses
struct GroupRefusal { uint16_t code; };       // no room for another group record
struct NoParamCheck {};
struct NoAuth {};

template <class O>
struct Credentials {
    uint16_t user_offset, user_size, pass_offset, pass_size;
};
template <class O, size_t N, size_t M>
constexpr Credentials<O> tlv_credentials(Field<O, char[N]> user, Field<O, char[M]> pass) {
    return {user.offset, user.size, pass.offset, pass.size};
}

// Where a request struct keeps its group records: an array of records and
// the count of records opened.
struct GroupSpec {
    uint16_t offset = 0;    // the array
    uint16_t record = 0;    // sizeof one record
    uint16_t capacity = 0;  // 0: the request has no groups
    uint16_t count_offset = 0;  // a uint16_t count
};
#define TAVC_GROUPS(Type, array, count)                                                  \
    (tlv_group_spec<Type>(tlv_detail::u16(offsetof(Type, array)),                        \
                          tlv_detail::u16(sizeof(Type::array[0])),                             \
                          tlv_detail::u16(sizeof(Type::array) / sizeof(Type::array[0])),       \
                          tlv_detail::u16(offsetof(Type, count)),                              \
                          static_cast<decltype(Type::count) *>(nullptr)))
template <class O>
struct TlvGroups {
    GroupSpec spec;
};
// The count member must be a uint16_t: the last parameter checks it.
template <class O>
constexpr TlvGroups<O> tlv_group_spec(uint16_t offset, uint16_t record, uint16_t capacity,
                                   uint16_t count_offset, uint16_t *) {
    return {{offset, record, capacity, count_offset}};
}

// The untyped description the walker reads.
struct TlvRequestBase {
    std::span<const TlvRule> rules;
    Take unknown;               // how unknown tags are stepped over (Declared or Stop)
    int32_t param_refusal;      // -1: no parameter check
    uint16_t precedence_refusal;
    int32_t auth_refusal;       // -1: no authentication
    uint16_t user_offset = 0, user_size = 0, pass_offset = 0, pass_size = 0;
    tlv_action on_unknown = nullptr;  // told about unknown tags (its result is honoured)
    GroupSpec groups{};
    uint16_t group_refusal = 0;
};


// A handler's request over struct O: rules, refusal codes, credentials. Built
// in constant evaluation, where the checks below reject a bad description.
template <class O>
struct TlvRequest : TlvRequestBase {
    constexpr TlvRequest(std::span<const TlvRule> r, Take unknown, ParamRefusal p,
                         PrecedenceRefusal pr, AuthRefusal a, Credentials<O> c,
                         tlv_action on_unknown = nullptr)
        : TlvRequestBase{r, unknown, p.code, pr.code, a.code, c.user_offset, c.user_size,
                         c.pass_offset, c.pass_size, on_unknown} {
        check();
    }
    constexpr TlvRequest(std::span<const TlvRule> r, Take unknown, NoParamCheck,
                         PrecedenceRefusal pr, AuthRefusal a, Credentials<O> c,
                         tlv_action on_unknown = nullptr)
        : TlvRequestBase{r, unknown, -1, pr.code, a.code, c.user_offset, c.user_size,
                         c.pass_offset, c.pass_size, on_unknown} {
        check();
    }
    constexpr TlvRequest(std::span<const TlvRule> r, Take unknown, ParamRefusal p,
                         PrecedenceRefusal pr, NoAuth, tlv_action on_unknown = nullptr)
        : TlvRequestBase{r, unknown, p.code, pr.code, -1, 0, 0, 0, 0, on_unknown} {
        check();
    }
    constexpr TlvRequest(std::span<const TlvRule> r, Take unknown, NoParamCheck,
                         PrecedenceRefusal pr, NoAuth, tlv_action on_unknown = nullptr)
        : TlvRequestBase{r, unknown, -1, pr.code, -1, 0, 0, 0, 0, on_unknown} {
        check();
    }
    // The same with repeated record groups.
    constexpr TlvRequest with_groups(TlvGroups<O> g, GroupRefusal refusal) const {
        TlvRequest t = *this;
        t.groups = g.spec;
        t.group_refusal = refusal.code;
        t.check();
        return t;
    }

  private:
    constexpr void check() const {
        if (unknown != Take::Declared && unknown != Take::Stop) tlv_description_error();
        for (const TlvRule &r : rules) {
            if (r.in_group) {
                if (groups.capacity != 0 && r.offset + r.size > groups.record)
                    tlv_description_error();
                if (groups.capacity != 0 && r.seen > groups.record) tlv_description_error();
            } else if (r.offset + r.size > sizeof(O) || r.seen > sizeof(O)) {
                tlv_description_error();
            }
            if (r.seen != 0 && (r.store == Store::Call || r.store == Store::Precedence))
                tlv_description_error();
            if (r.take == Take::Stop) tlv_description_error();
        }
        if (user_offset + user_size > sizeof(O) || pass_offset + pass_size > sizeof(O))
            tlv_description_error();
        if (groups.capacity != 0 &&
            (groups.offset + size_t(groups.record) * groups.capacity > sizeof(O) ||
             groups.count_offset + sizeof(uint16_t) > sizeof(O)))
            tlv_description_error();
    }
};

// Walks `body` (body_length bytes) into the request struct. Ends by the walk
// rule (go on), or with the code of a precedence refusal, a full group pool
// or a callback.
Step tlv_walk_any(const TlvRequestBase &d, const uint8_t *body, uint16_t body_length, void *req);

// tav_authentic on the request's credential members: go on, or the
// description's authentication code. Go on when the request has no
// authentication.
Step tlv_authenticate_any(const TlvRequestBase &d, const void *req);

// The usual start of a set handler: parameter check, walk, authentication.
Step tlv_request_prologue_any(const TlvRequestBase &d, const uint8_t *body,
                              uint16_t body_length, const uint8_t *reply, void *req);

template <class O>
Step tlv_walk(const TlvRequest<O> &d, const uint8_t *body, uint16_t body_length, O *req) {
    return tlv_walk_any(d, body, body_length, req);
}
template <class O>
Step tlv_authenticate(const TlvRequest<O> &d, const O *req) {
    return tlv_authenticate_any(d, req);
}
template <class O>
Step tlv_request_prologue(const TlvRequest<O> &d, const uint8_t *body, uint16_t body_length,
                          const uint8_t *reply, O *req) {
    return tlv_request_prologue_any(d, body, body_length, reply, req);
}
// The parameter check alone (for handlers with checks between the steps).
Step tlv_param_check(const TlvRequestBase &d, const uint8_t *body, const uint8_t *reply);
