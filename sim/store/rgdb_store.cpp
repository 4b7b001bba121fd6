// SPDX-License-Identifier: ISC
// The typed access's primitives over an in-process map, with the same limits
// and byte behaviour as the socket path: the "%s %s" set text cut to 1022
// characters and split at its first space, reads that deliver the value and
// its NUL cut to the caller's buffer.
#include "sim/store/rgdb_store.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "lrgbin/rgdb_backend.h"
#include "sim/xmldb/store.h"

namespace {

xmldb::Store &store()
{
    static xmldb::Store s;
    return s;
}
bool online = true;
unsigned long call_count = 0;

}  // namespace

namespace lrgbin_store {

void clear()
{
    store().replace({});
    call_count = 0;
}

void put(const std::string &key, const std::string &value)
{
    store().set(key, value);
}

std::optional<std::string> find(const std::string &key)
{
    auto it = store().map().find(key);
    if (it == store().map().end())
        return std::nullopt;
    return it->second;
}

const std::map<std::string, std::string, std::less<>> &contents()
{
    return store().map();
}

bool load_profile(const std::string &path, std::string *error)
{
    std::string text, err;
    xmldb::Entries entries;
    bool ok = xmldb::read_file(path, text, err) && xmldb::parse_profile(text, entries, err);
    if (ok)
        store().apply(entries);
    else if (error)
        *error = err;
    return ok;
}

void replace(const std::map<std::string, std::string, std::less<>> &contents)
{
    store().replace(contents);
}

void set_online(bool on)
{
    online = on;
}

unsigned long calls()
{
    return call_count;
}

}  // namespace lrgbin_store

extern "C" {

// As one read of the value and its NUL into `size` bytes would leave buf.
int rgdb_read_key(char *buf, int size, const char *key)
{
    call_count++;
    if (!online)
        return -1;
    std::string_view v = store().get(key);
    std::size_t n = std::min(v.size(), static_cast<std::size_t>(size));
    if (n > 0)
        std::memcpy(buf, v.data(), n);
    if (n < static_cast<std::size_t>(size))
        buf[n] = '\0';
    buf[size - 1] = '\0';
    return 0;
}

int _rgdb_set_(const char *key, const char *value)
{
    call_count++;
    if (!online)
        return -1;
    char text[1024];
    snprintf(text, 1023, "%s %s", key ? key : "", value ? value : "");
    std::string_view t(text);
    std::size_t sp = t.find(' ');
    std::string_view v = sp == std::string_view::npos ? std::string_view() : t.substr(sp + 1);
    return store().set(t.substr(0, sp), v) ? 0 : -1;
}

}  // extern "C"
