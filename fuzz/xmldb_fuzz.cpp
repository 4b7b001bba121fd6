// SPDX-License-Identifier: ISC
// The substitute database server's handling of one connection's bytes: the
// framing and every command that stays in memory (get, set, delete, patch
// buffer, ephp) on a store loaded with the lab's default profile. Reload, dump
// and patch name files on the machine, so their requests are parsed but not
// run.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <string_view>

#include "fuzz/guard.h"
#include "sim/xmldb/request.h"
#include "sim/xmldb/store.h"

namespace {
xmldb::Store g_store;
std::string g_out;

[[noreturn]] void fail(const char *what) {
    fprintf(stderr, "xmldb_fuzz: %s\n", what);
    abort();
}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    std::string err;
    xmldb::Map profile;
    if (!xmldb::load_file(TAVC_FUZZ_PROFILE, profile, err)) {
        fprintf(stderr, "xmldb_fuzz: profile: %s\n", err.c_str());
        exit(1);
    }
    g_store.replace(std::move(profile));
    g_store.mark();
    fuzz_guard_arm();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // Several requests may follow one another in the buffer, as connections
    // follow one another (the server takes one request per connection). A
    // few are enough to reach what one request leaves for the next; more
    // would only make each input slower.
    constexpr int kMaxRequests = 16;
    std::string_view in(reinterpret_cast<const char *>(data), size);
    for (int taken = 0; taken < kMaxRequests; ++taken) {
        auto req = xmldb::parse_request(in);
        if (!req) break;
        if (req->size < xmldb::kHeaderSize || req->size > in.size()) fail("request size out of the buffer");
        if (req->arg.size() > req->size - xmldb::kHeaderSize) fail("argument beyond the payload");
        if (!xmldb::touches_files(req->cmd)) {
            static const std::string no_state;
            const bool known = xmldb::run_command(g_store, no_state, *req, g_out);
            if (known && g_out.empty()) fail("empty reply");
            if (known && req->cmd == xmldb::GET) {
                // A value and exactly one NUL, at its end.
                if (g_out.back() != '\0' || g_out.find('\0') != g_out.size() - 1) fail("get reply framing");
            }
            if (known && (req->cmd == xmldb::SET || req->cmd == xmldb::DEL) && g_out.size() != xmldb::kHeaderSize)
                fail("status reply size");
        }
        in.remove_prefix(req->size);
    }
    // Back to the profile within this input, which so frees what it took.
    g_store.undo();
    return 0;
}
