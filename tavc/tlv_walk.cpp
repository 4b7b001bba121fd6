#include "tavc/tlv_walk.h"

#include <string.h>

#include "proto/wire.h"
#include "tavc/tavc.h"

static const TlvRule *find_rule(const TlvRequest &d, uint16_t tag) {
    for (size_t i = 0; i < d.count; ++i)
        if (d.rules[i].tag == tag) return &d.rules[i];
    return nullptr;
}

static void store_text(char *dst, uint16_t size, const uint8_t *v, uint16_t taken) {
    if (size == 0) return;
    memset(dst, 0, size);
    size_t n = 0;
    while (n < taken && n + 1 < size && v[n] != 0) ++n;
    memcpy(dst, v, n);
}

// Stores the taken bytes of one value; numbers need all their bytes.
static void store_value(const TlvRule &r, uint8_t *req, const uint8_t *v, uint16_t taken) {
    uint8_t *dst = req + r.offset;
    switch (r.store) {
    case Store::Text:
        store_text(reinterpret_cast<char *>(dst), r.size, v, taken);
        break;
    case Store::Bytes:
        memset(dst, 0, r.size);
        memcpy(dst, v, taken < r.size ? taken : r.size);
        break;
    case Store::U8:
        if (taken >= 1) *dst = v[0];
        break;
    case Store::Be16:
        if (taken >= 2) {
            uint16_t x = tav::get_be16(v);
            memcpy(dst, &x, sizeof x);
        }
        break;
    case Store::Be32:
        if (taken >= 4) {
            uint32_t x = tav::get_be32(v);
            memcpy(dst, &x, sizeof x);
        }
        break;
    default:
        break;
    }
}

int tlv_walk(const TlvRequest &d, const uint8_t *body, uint16_t body_length, void *req) {
    const uint8_t *p = body;
    uint16_t left = body_length;
    uint8_t *fields = static_cast<uint8_t *>(req);
    while (left >= 5) {
        uint16_t tag = tav::get_be16(p);
        uint16_t length = tav::get_be16(p + 2);
        if (uint32_t(length) + 4 > left) break;
        const TlvRule *r = find_rule(d, tag);
        Take take = r ? r->take : d.unknown;
        uint16_t n = r ? r->n : 0;
        uint16_t taken;
        switch (take) {
        case Take::Fixed:
            taken = n;
            if (uint32_t(taken) + 4 > left) return kGoOn;  // value would run past the body
            break;
        case Take::DeclaredMax:
            taken = length < n ? length : n;
            break;
        case Take::Declared:
            taken = length;
            break;
        default:
            return kGoOn;
        }
        const uint8_t *v = p + 4;
        if (r == nullptr) {
            if (d.on_unknown) {
                int rc = d.on_unknown(req, tag, v, taken);
                if (rc != kGoOn) return rc;
            }
        } else if (r->store == Store::Precedence) {
            if (taken >= 1 &&
                check_server_precedence(tav_tmp_server->functions[0].op_code, v[0],
                                        tav_tmp_server) != 0)
                return int(d.precedence_refusal);
        } else if (r->store == Store::Call) {
            int rc = r->action(req, tag, v, taken);
            if (rc != kGoOn) return rc;
        } else {
            store_value(*r, fields, v, taken);
        }
        p += taken + 4;
        left = uint16_t(left - taken - 4);
    }
    return kGoOn;
}

int tlv_authenticate(const TlvRequest &d, const void *req) {
    if (d.auth_refusal == kNoCode) return kGoOn;
    const char *fields = static_cast<const char *>(req);
    if (tav_authentic(fields + d.user_name.offset, fields + d.password.offset) != 0)
        return int(d.auth_refusal);
    return kGoOn;
}

int tlv_request_prologue(const TlvRequest &d, const uint8_t *body, uint16_t body_length,
                         const uint8_t *reply, void *req) {
    if (d.param_refusal != kNoCode && tav_function_parameter_check(body, reply) != 0)
        return int(d.param_refusal);
    int rc = tlv_walk(d, body, body_length, req);
    if (rc != kGoOn) return rc;
    return tlv_authenticate(d, req);
}
