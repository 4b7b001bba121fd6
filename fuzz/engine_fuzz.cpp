// SPDX-License-Identifier: ISC
// The whole request path: one deciphered plaintext handed to process_message,
// as the main loop does after a receive, with the configuration store loaded
// from the lab's default profile and every launch and frame recorded. Each
// input starts from the same state (profile, empty manager registry), so a
// finding replays from its input alone.
//
// Beyond the sanitizers it checks what must hold for any input: at most one
// reply per request, a reply whose header and body length agree, and shell
// command lines where nothing from a request stands outside single quotes.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "fuzz/guard.h"
#include "sim/store/rgdb_store.h"
#include "proto/wire.h"
#include "sim/record/record.h"
#include "tavc/dispatch.h"
#include "tavc/identity.h"
#include "tavc/lifecycle.h"
#include "tavc/registry.h"
#include "tavc/time_zone.h"
#include "tavc/transport.h"

namespace {

// The lab cipher's contract with an identity transform: selector 0.
int enc_len(uint16_t n) { return n; }
int dec_len(const uint8_t *, uint16_t n) { return n; }
int encode(int, tav_buf *in, tav_buf *out, uint16_t *selector) {
    memcpy(out->data, in->data, in->length);
    out->length = in->length;
    *selector = 0;
    return 0;
}
int decode(uint16_t, tav_buf *in, tav_buf *out) {
    memcpy(out->data, in->data, in->length);
    out->length = in->length;
    return 0;
}

[[noreturn]] void fail(const char *what, const std::string &detail) {
    fprintf(stderr, "engine_fuzz: %s: %s\n", what, detail.c_str());
    abort();
}

// Outside single quotes a command line holds only the daemon's own text:
// printable ASCII without expansions ($, `) or line breaks.
void check_shell_line(const std::string &cmd) {
    bool quoted = false;
    for (size_t i = 0; i < cmd.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(cmd[i]);
        if (c == '\'') {
            quoted = !quoted;
            continue;
        }
        if (quoted) continue;
        if (c == '\\' && i + 1 < cmd.size() && cmd[i + 1] == '\'') {
            ++i;  // \' between quoted pieces
            continue;
        }
        if (c < 0x20 || c >= 0x7f || c == '$' || c == '`' || c == '\\')
            fail("request text reaches the shell unquoted", cmd);
    }
    if (quoted) fail("unbalanced quote in command line", cmd);
}

void check_reply(const uint8_t *plain, size_t size) {
    const auto &frames = tavc_record::frames();
    if (frames.size() > 1) fail("more than one reply to one request", std::to_string(frames.size()));
    if (frames.empty()) return;
    const auto &f = frames.front().bytes;
    // The raw path puts an Ethernet header before the selector.
    const bool ipv4 = frames.front().fd == tav_l3_fd;
    const size_t off = (ipv4 ? 0 : tav::kEthHeaderLen) + tav::kSelectorLen;
    if (f.size() < off) fail("reply frame shorter than its headers", std::to_string(f.size()));
    auto h = tav::decode_header(std::span<const uint8_t>(f.data() + off, f.size() - off), ipv4);
    if (!h) fail("reply without a valid header", std::to_string(f.size()));
    if (f.size() - off != h->size() + h->body_length)
        fail("reply body length disagrees with the frame", std::to_string(h->body_length));
    if (size < 4 || memcmp(f.data() + off + 2, plain + 2, 2) != 0)
        fail("reply does not echo the sequence", "");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // Handlers print notices; thousands of inputs a second would drown the log.
    if (!freopen("/dev/null", "w", stdout)) return 1;
    std::string err;
    if (!lrgbin_store::load_profile(TAVC_FUZZ_PROFILE, &err)) {
        fprintf(stderr, "engine_fuzz: profile %s: %s\n", TAVC_FUZZ_PROFILE, err.c_str());
        exit(1);
    }
    lrgbin_store::checkpoint();
    if (init_buff() != 0) exit(1);
    init_time_zone_table();
    tav_encode = encode;
    tav_decode = decode;
    tav_get_encrypted_msg_len = enc_len;
    tav_get_decrypted_msg_len = dec_len;
    // Descriptors that are not open: the recorder tells the paths apart by
    // number, and the interface look-up fails harmlessly.
    tav_l2_fd = 1000;
    tav_l3_fd = 1001;
    fuzz_guard_arm();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // The decipherer never hands over more than this.
    if (size > tav::kMaxPlainLen) return -1;
    // A sender on the lab segment, by either path.
    memset(tav_tmp_server, 0, sizeof *tav_tmp_server);
    const uint8_t mac[6] = {0x02, 0x7a, 0x76, 0x00, 0x00, 0xfe};
    memcpy(tav_tmp_server->mac, mac, 6);
    tav_tmp_server->addr.sin_family = AF_INET;
    tav_tmp_server->addr.sin_port = htons(40000);
    tav_tmp_server->addr.sin_addr.s_addr = htonl(0xC0000201);  // 192.0.2.1
    tav_tmp_server->addr_len = sizeof tav_tmp_server->addr;
    init_device_status();

    // An exact-size copy: reading past the plaintext is a finding.
    uint8_t *plain = static_cast<uint8_t *>(malloc(size ? size : 1));
    memcpy(plain, data, size);
    process_message(plain, uint16_t(size));
    check_reply(plain, size);
    free(plain);

    // TAVC_FUZZ_SHOW=1: what an input launched, for replaying a corpus by hand.
    static const bool show = getenv("TAVC_FUZZ_SHOW") != nullptr;
    if (show)
        for (const auto &l : tavc_record::launches()) fprintf(stderr, "launch %d: %s\n", int(l.kind), l.command.c_str());
    for (const auto &l : tavc_record::launches())
        if (l.kind == tavc_record::LaunchKind::System || l.kind == tavc_record::LaunchKind::Spawn ||
            l.kind == tavc_record::LaunchKind::Read)
            check_shell_line(l.command);

    // Back to the starting state here rather than before the next input, so
    // that what this one allocated is freed within it (libFuzzer checks for
    // leaks after any input that allocates more than it frees).
    lrgbin_store::rollback();
    tavc_record::clear();
    free_tav_server();
    return 0;
}
