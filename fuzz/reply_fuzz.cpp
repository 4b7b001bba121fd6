// The manager side's decoding of whatever a device (or anyone) sends back: a
// deciphered plaintext parsed into a message, every record read with the
// typed accessors and printed as the tools print it (readable and JSON).
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <span>
#include <string>

#include "fuzz/guard.h"
#include "proto/tags.h"
#include "tools/client/client.h"
#include "tools/client/json.h"
#include "tools/client/tlv_text.h"

using namespace tav::client;

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_guard_arm();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Message m = parse_message(std::span<const uint8_t>(data, size));
    size_t bytes = 0;
    JsonWriter j;
    j.begin_object().key("op_code").value(format_op_code(m.op_code())).key("tlvs").begin_array();
    for (const auto &r : m.tlvs) {
        bytes += 4 + r.value.size();
        const tav::TagInfo *info = tav::find_tag(r.tag, m.op_code());
        const tav::TagKind kind = info ? info->kind : tav::TagKind::kBytes;
        j.begin_object().key("tag").value(unsigned(r.tag));
        j.key("value").value(format_value(r.value, kind));
        j.key("text").value(format_text(r.value));
        j.end_object();
        (void)m.text(r.tag), (void)m.u8(r.tag), (void)m.u16(r.tag), (void)m.u32(r.tag);
        (void)m.u64(r.tag), (void)m.mac(r.tag), (void)m.ipv4(r.tag), (void)m.all(r.tag);
    }
    j.end_array().end_object();
    if (m.header && bytes > m.header->body_length) {
        fprintf(stderr, "reply_fuzz: records hold %zu bytes of a %u-byte body\n", bytes,
                unsigned(m.header->body_length));
        abort();
    }
    if (!m.header && !m.tlvs.empty()) abort();
    return 0;
}
