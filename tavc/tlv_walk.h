// The request TLV walk, written once for every handler.
//
// A handler describes its request in a constant table of rules, one per tag:
// how many value bytes the walk takes for the tag and where the value goes
// (a field of the handler's own request struct, by offset and size). The
// walker applies the protocol's walk rule:
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
// once; the refusal code, like the authentication code, is part of the
// handler's description (TlvRequest) rather than code in each handler.
//
// Example (op 0x00A3):
//
//   struct Verify { char user_name[65]; char password[65]; };
//   constexpr TlvRule kVerifyRules[] = {
//       tlv_precedence(),                                       // 54: 1 byte
//       tlv_text(55, Take::Declared, 0, TAVC_FIELD(Verify, user_name)),
//       tlv_text(56, Take::Declared, 0, TAVC_FIELD(Verify, password)),
//   };
//   constexpr TlvRequest kVerify = {
//       kVerifyRules, std::size(kVerifyRules), Take::Declared,
//       /*param*/ 0xFFFD, /*precedence*/ 0xFFFF, /*auth*/ 0x40,
//       TAVC_FIELD(Verify, user_name), TAVC_FIELD(Verify, password)};
//
//   Verify req{};
//   if (int rc = tlv_request_prologue(kVerify, body, len, reply, &req); rc != kGoOn)
//       return rc;
#pragma once

#include <stddef.h>
#include <stdint.h>

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
};

// Result meaning "go on": handlers return their result codes (0..0xFFFF).
inline constexpr int kGoOn = -1;

// A callback for tags that act at once: gets the request struct, the tag and
// the taken value bytes; returns kGoOn, or a result code that ends the walk.
typedef int (*tlv_action)(void *req, uint16_t tag, const uint8_t *value, uint16_t taken);

struct TlvRule {
    uint16_t tag;
    Take take;
    uint16_t n;  // fixed size, or the cut of DeclaredMax
    Store store;
    uint16_t offset;  // field in the request struct
    uint16_t size;    // its size in bytes
    tlv_action action = nullptr;
};

struct TlvField {
    uint16_t offset;
    uint16_t size;
};
#define TAVC_FIELD(Type, member) \
    TlvField { uint16_t(offsetof(Type, member)), uint16_t(sizeof(Type::member)) }

constexpr TlvRule tlv_rule(uint16_t tag, Take take, uint16_t n, Store store, TlvField f = {0, 0}) {
    return TlvRule{tag, take, n, store, f.offset, f.size, nullptr};
}
constexpr TlvRule tlv_text(uint16_t tag, Take take, uint16_t n, TlvField f) {
    return tlv_rule(tag, take, n, Store::Text, f);
}
constexpr TlvRule tlv_u8(uint16_t tag, TlvField f) { return tlv_rule(tag, Take::Fixed, 1, Store::U8, f); }
constexpr TlvRule tlv_be16(uint16_t tag, TlvField f) {
    return tlv_rule(tag, Take::Fixed, 2, Store::Be16, f);
}
constexpr TlvRule tlv_be32(uint16_t tag, TlvField f) {
    return tlv_rule(tag, Take::Fixed, 4, Store::Be32, f);
}
constexpr TlvRule tlv_skip(uint16_t tag, Take take, uint16_t n = 0) {
    return tlv_rule(tag, take, n, Store::Skip);
}
constexpr TlvRule tlv_call(uint16_t tag, Take take, uint16_t n, tlv_action action) {
    return TlvRule{tag, take, n, Store::Call, 0, 0, action};
}
// Tag 54, SERVER_PRECEDENCE: one byte, checked the moment it is met.
constexpr TlvRule tlv_precedence() {
    return tlv_rule(tav::kTagServerPrecedence, Take::Fixed, 1, Store::Precedence);
}

inline constexpr uint32_t kNoCode = 0x10000;  // as a refusal code: no such check
inline constexpr TlvField kNoField{0xFFFF, 0};

// A handler's request: its rules and its refusal codes.
struct TlvRequest {
    const TlvRule *rules;
    size_t count;
    Take unknown;  // how unknown tags are stepped over (Declared or Stop)
    uint32_t param_refusal;       // tav_function_parameter_check fails; kNoCode = not run
    uint32_t precedence_refusal;  // check_server_precedence refuses
    uint32_t auth_refusal;        // tav_authentic refuses; kNoCode = no authentication
    TlvField user_name = kNoField;
    TlvField password = kNoField;
    tlv_action on_unknown = nullptr;  // told about unknown tags (its result is honoured)
};

// Walks `body` (body_length bytes) into the request struct `req`. Returns
// kGoOn when the walk ended by its rule, or the code that ended it (a
// precedence refusal or a callback's result).
int tlv_walk(const TlvRequest &d, const uint8_t *body, uint16_t body_length, void *req);

// tav_authentic on the request's user name and password fields: kGoOn, or the
// description's authentication code.
int tlv_authenticate(const TlvRequest &d, const void *req);

// The usual start of a set handler: parameter check, walk, authentication.
// Handlers with checks between walk and authentication call the parts.
int tlv_request_prologue(const TlvRequest &d, const uint8_t *body, uint16_t body_length,
                         const uint8_t *reply, void *req);
