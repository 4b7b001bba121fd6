// SPDX-License-Identifier: ISC
#include "request.h"

#include <cstdio>
#include <cstring>

namespace xmldb {

namespace {

uint16_t get16(const char *p)
{
    uint16_t v;
    std::memcpy(&v, p, sizeof(v));
    return v;
}

std::string patch(Store &store, std::string_view text)
{
    std::size_t count = 0;
    std::string err;
    if (!store.apply_text(text, count, err))
        return "ERROR " + err;
    return "OK " + std::to_string(count);
}

}  // namespace

std::optional<Request> parse_request(std::string_view data)
{
    if (data.size() < kHeaderSize)
        return std::nullopt;
    std::size_t need = kHeaderSize + get16(data.data() + 2);
    if (data.size() < need)
        return std::nullopt;
    Request r;
    r.cmd = get16(data.data());
    std::memcpy(&r.flags, data.data() + 4, sizeof(r.flags));
    std::string_view payload = data.substr(kHeaderSize, need - kHeaderSize);
    r.arg = payload.substr(0, payload.find('\0'));
    r.size = need;
    return r;
}

namespace {

// Header-only reply: the request's command and flags echoed with `status`.
void status_reply(std::string &out, uint16_t cmd, uint64_t flags, int32_t status)
{
    char raw[kHeaderSize] = {};
    std::memcpy(raw, &cmd, 2);
    std::memcpy(raw + 4, &flags, 8);
    std::memcpy(raw + 12, &status, 4);
    out.assign(raw, sizeof(raw));
}

}  // namespace

bool run_command(Store &store, const std::string &state, const Request &req, std::string &out)
{
    const uint16_t cmd = req.cmd;
    const uint64_t flags = req.flags;
    const std::string_view arg = req.arg;
    std::string err;
    auto file = [&] { return arg.empty() ? state : std::string(arg); };
    out.clear();
    switch (cmd) {
    case GET:
        out.append(store.get(arg));
        out += '\0';
        return true;
    case SET:
    case SET_NOTIFY: {
        // Key up to the first space; the value is the rest, spaces and all.
        std::size_t sp = arg.find(' ');
        std::string_view key = arg.substr(0, sp);
        std::string_view value = sp == std::string_view::npos ? std::string_view() : arg.substr(sp + 1);
        status_reply(out, cmd, flags, store.set(key, value) ? 0 : -1);
        return true;
    }
    case DEL:
        store.erase_subtree(arg);
        status_reply(out, cmd, flags, arg.empty() ? -1 : 0);
        return true;
    case RELOAD: {
        const std::string path = file();
        Map map;
        if (path.empty() || !load_file(path, map, err)) {
            if (!err.empty())
                std::fprintf(stderr, "xmldb: reload: %s\n", err.c_str());
            status_reply(out, cmd, flags, -1);
            return true;
        }
        store.replace(std::move(map));
        status_reply(out, cmd, flags, 0);
        return true;
    }
    case DUMP: {
        const std::string path = file();
        const bool ok = !path.empty() && dump_file(path, store.map(), err);
        if (!ok && !err.empty())
            std::fprintf(stderr, "xmldb: dump: %s\n", err.c_str());
        status_reply(out, cmd, flags, ok ? 0 : -1);
        return true;
    }
    case PATCH: {
        std::string text;
        out = read_file(std::string(arg), text, err) ? patch(store, text) : "ERROR " + err;
        out += '\0';
        return true;
    }
    case PATCH_BUFFER:
        out = patch(store, arg);
        out += '\0';
        return true;
    case EPHP:
        out = store.expand(arg, kMaxReply);
        out += '\0';
        return true;
    default:
        return false;
    }
}

}  // namespace xmldb
