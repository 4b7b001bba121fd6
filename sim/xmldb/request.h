// SPDX-License-Identifier: ISC
// One request of the database socket protocol: its framing (16-byte header in
// host order, then data_length payload bytes) and what the server does with
// it. Kept apart from the socket loop so that it can be driven on a buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "store.h"

namespace xmldb {

inline constexpr std::size_t kHeaderSize = 16;
inline constexpr std::size_t kMaxReply = 1u << 20;  // cap of an expanded ephp reply

enum Command : uint16_t {
    GET = 1, SET = 2, DEL = 3, RELOAD = 4, DUMP = 5,
    PATCH = 6, PATCH_BUFFER = 7, SET_NOTIFY = 8, EPHP = 10,
};

struct Request {
    uint16_t cmd;
    uint64_t flags;
    std::string_view arg;  // the payload up to its NUL, or all of it without one
    std::size_t size;      // bytes of header and payload taken from the buffer
};

// The request at the front of `data`, once its header and whole payload are
// there; nothing while they are not.
std::optional<Request> parse_request(std::string_view data);

// Runs `req` on `store` and puts the reply bytes in `out`, whose storage a
// caller keeps from one request to the next; false for an unknown command.
// Reload and dump fall back to `state` when their argument is empty. Reload,
// dump and patch read or write files named by the request.
bool run_command(Store &store, const std::string &state, const Request &req, std::string &out);

// Commands that name a file the server reads or writes.
constexpr bool touches_files(uint16_t cmd) { return cmd == RELOAD || cmd == DUMP || cmd == PATCH; }

}  // namespace xmldb
