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
    Entries entries;
    std::string err;
    if (!parse_profile(text, entries, err))
        return "ERROR " + err;
    store.apply(entries);
    return "OK " + std::to_string(entries.size());
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

std::string status_reply(uint16_t cmd, uint64_t flags, int32_t status)
{
    char raw[kHeaderSize] = {};
    std::memcpy(raw, &cmd, 2);
    std::memcpy(raw + 4, &flags, 8);
    std::memcpy(raw + 12, &status, 4);
    return std::string(raw, sizeof(raw));
}

std::optional<std::string> run_command(Store &store, const std::string &state, const Request &req)
{
    const uint16_t cmd = req.cmd;
    const uint64_t flags = req.flags;
    const std::string_view arg = req.arg;
    std::string err;
    auto file = [&] { return arg.empty() ? state : std::string(arg); };
    switch (cmd) {
    case GET: {
        std::string_view v = store.get(arg);
        std::string out;
        out.reserve(v.size() + 1);
        out.append(v);
        out += '\0';
        return out;
    }
    case SET:
    case SET_NOTIFY: {
        // Key up to the first space; the value is the rest, spaces and all.
        std::size_t sp = arg.find(' ');
        std::string_view key = arg.substr(0, sp);
        std::string_view value = sp == std::string_view::npos ? std::string_view() : arg.substr(sp + 1);
        return status_reply(cmd, flags, store.set(key, value) ? 0 : -1);
    }
    case DEL:
        store.erase_subtree(arg);
        return status_reply(cmd, flags, arg.empty() ? -1 : 0);
    case RELOAD: {
        const std::string path = file();
        Map map;
        if (path.empty() || !load_file(path, map, err)) {
            if (!err.empty())
                std::fprintf(stderr, "xmldb: reload: %s\n", err.c_str());
            return status_reply(cmd, flags, -1);
        }
        store.replace(std::move(map));
        return status_reply(cmd, flags, 0);
    }
    case DUMP: {
        const std::string path = file();
        if (path.empty() || !dump_file(path, store.map(), err)) {
            if (!err.empty())
                std::fprintf(stderr, "xmldb: dump: %s\n", err.c_str());
            return status_reply(cmd, flags, -1);
        }
        return status_reply(cmd, flags, 0);
    }
    case PATCH: {
        std::string text;
        std::string out = read_file(std::string(arg), text, err) ? patch(store, text) : "ERROR " + err;
        out += '\0';
        return out;
    }
    case PATCH_BUFFER: {
        std::string out = patch(store, arg);
        out += '\0';
        return out;
    }
    case EPHP: {
        std::string out = store.expand(arg, kMaxReply);
        out += '\0';
        return out;
    }
    default:
        return std::nullopt;
    }
}

}  // namespace xmldb
