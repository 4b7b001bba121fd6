// SPDX-License-Identifier: ISC
#include "tavc/tlv_walk.h"

#include <string.h>

#include "proto/wire.h"
#include "tavc/credentials.h"
#include "tavc/dispatch.h"
#include "tavc/registry.h"

static const TlvRule *find_rule(const TlvRequestBase &d, uint16_t tag) {
    for (const TlvRule &r : d.rules)
        if (r.tag == tag) return &r;
    return nullptr;
}

static void store_text(char *dst, uint16_t size, const uint8_t *v, uint16_t taken) {
    if (size == 0) return;
    memset(dst, 0, size);
    size_t n = 0;
    while (n < taken && n + 1 < size && v[n] != 0) ++n;
    memcpy(dst, v, n);
}

// Stores the taken bytes of one value into `base` (the request struct or the
// current group record); numbers need all their bytes.
static void store_value(const TlvRule &r, uint8_t *base, const uint8_t *v, uint16_t taken) {
    uint8_t *dst = base + r.offset;
    switch (r.store) {
    case Store::Text:
        store_text(reinterpret_cast<char *>(dst), r.size, v, taken);
        break;
    case Store::Bytes:
        memset(dst, 0, r.size);
        memcpy(dst, v, taken < r.size ? taken : r.size);
        break;
    case Store::U8:
    case Store::GroupStart:
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

// The record that group values go to: the one opened last, or none yet.
static uint8_t *current_group(const GroupSpec &g, uint8_t *req) {
    uint16_t count;
    memcpy(&count, req + g.count_offset, sizeof count);
    if (count == 0 || count > g.capacity) return nullptr;
    return req + g.offset + size_t(count - 1) * g.record;
}

// Opens a new zero-filled record; false when the pool is full.
static bool open_group(const GroupSpec &g, uint8_t *req) {
    uint16_t count;
    memcpy(&count, req + g.count_offset, sizeof count);
    if (count >= g.capacity) return false;
    memset(req + g.offset + size_t(count) * g.record, 0, g.record);
    ++count;
    memcpy(req + g.count_offset, &count, sizeof count);
    return true;
}

Step tlv_walk_any(const TlvRequestBase &d, const uint8_t *body, uint16_t body_length, void *req) {
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
            if (uint32_t(taken) + 4 > left) return Step::go_on();  // value would run past the body
            break;
        case Take::DeclaredMax:
            taken = length < n ? length : n;
            break;
        case Take::Declared:
            taken = length;
            break;
        default:
            return Step::go_on();
        }
        const uint8_t *v = p + 4;
        if (r == nullptr) {
            if (d.on_unknown) {
                if (Step s = d.on_unknown(req, tag, v, taken); s.ended()) return s;
            }
        } else if (r->store == Store::Precedence) {
            if (taken >= 1 &&
                check_server_precedence(tav_tmp_server->functions[0].op_code, v[0],
                                        tav_tmp_server) != 0)
                return Step::end(d.precedence_refusal);
        } else if (r->store == Store::Call) {
            if (r->action == nullptr) {
                // nothing to call: the value is stepped over
            } else if (Step s = r->action(req, tag, v, taken); s.ended()) {
                return s;
            }
        } else if (r->in_group) {
            if (d.groups.capacity != 0) {
                if (r->store == Store::GroupStart && !open_group(d.groups, fields))
                    return Step::end(d.group_refusal);
                if (uint8_t *rec = current_group(d.groups, fields)) {
                    store_value(*r, rec, v, taken);
                    if (r->seen) rec[r->seen - 1] = 1;
                }
            }
        } else {
            store_value(*r, fields, v, taken);
            if (r->seen) fields[r->seen - 1] = 1;
        }
        p += taken + 4;
        left = uint16_t(left - taken - 4);
    }
    return Step::go_on();
}

Step tlv_authenticate_any(const TlvRequestBase &d, const void *req) {
    if (d.auth_refusal < 0) return Step::go_on();
    const char *fields = static_cast<const char *>(req);
    // The description keeps both members inside the struct; copying them
    // bounded by their sizes keeps the comparison inside them too, whatever
    // they hold.
    char user[66] = {}, pass[66] = {};
    auto copy = [](char *dst, const char *src, uint16_t size) {
        size_t n = strnlen(src, size < 65 ? size : 65);
        memcpy(dst, src, n);
    };
    copy(user, fields + d.user_offset, d.user_size);
    copy(pass, fields + d.pass_offset, d.pass_size);
    if (d.user_size == 0 || d.pass_size == 0 || tav_authentic(user, pass) != 0)
        return Step::end(uint16_t(d.auth_refusal));
    return Step::go_on();
}

Step tlv_param_check(const TlvRequestBase &d, const uint8_t *body, const uint8_t *reply) {
    if (d.param_refusal >= 0 && tav_function_parameter_check(body, reply) != 0)
        return Step::end(uint16_t(d.param_refusal));
    return Step::go_on();
}

Step tlv_request_prologue_any(const TlvRequestBase &d, const uint8_t *body,
                              uint16_t body_length, const uint8_t *reply, void *req) {
    if (Step s = tlv_param_check(d, body, reply); s.ended()) return s;
    if (Step s = tlv_walk_any(d, body, body_length, req); s.ended()) return s;
    return tlv_authenticate_any(d, req);
}
