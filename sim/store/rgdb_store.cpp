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
#include <functional>
#include <iterator>

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

// The daemon reads the same few dozen keys before every request: a read
// remembers where a key's entry is, in a slot chosen by the key's hash, and
// compares the text once instead of walking the tree. Entries stay where they
// are until a key is removed: a rollback forgets the keys added since the
// mark (all of them, past a few), anything else that removes keys forgets all.
const xmldb::Map::value_type *seen[512];
const xmldb::Map::value_type *added[32];
std::size_t added_count = 0;

const xmldb::Map::value_type *&slot_of(std::string_view key)
{
    return seen[std::hash<std::string_view>{}(key) % std::size(seen)];
}

void forget()
{
    std::memset(seen, 0, sizeof(seen));
    added_count = 0;
}

std::string_view lookup(const char *key)
{
    const std::string_view k(key);
    const xmldb::Map::value_type *&slot = slot_of(k);
    if (slot && slot->first == k)
        return slot->second;
    auto it = store().map().find(k);
    if (it == store().map().end())
        return {};
    slot = &*it;
    return it->second;
}

}  // namespace

namespace lrgbin_store {

void clear()
{
    forget();
    store().replace({});
    call_count = 0;
}

void put(const std::string &key, const std::string &value)
{
    forget();
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
    std::size_t count = 0;
    bool ok = xmldb::read_file(path, text, err);
    forget();
    ok = ok && store().apply_text(text, count, err);
    if (!ok && error)
        *error = err;
    return ok;
}

void replace(const std::map<std::string, std::string, std::less<>> &contents)
{
    forget();
    store().replace(contents);
}

void checkpoint()
{
    added_count = 0;
    store().mark();
}

void rollback()
{
    if (added_count > std::size(added)) {
        forget();
    } else {
        for (std::size_t i = 0; i < added_count; ++i)
            if (const xmldb::Map::value_type *&slot = slot_of(added[i]->first); slot == added[i])
                slot = nullptr;
        added_count = 0;
    }
    store().undo();
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
    std::string_view v = lookup(key);
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
    std::string_view k = t.substr(0, sp);
    const bool is_new = store().map().find(k) == store().map().end();
    if (!store().set(k, v))
        return -1;
    if (is_new && added_count++ < std::size(added))
        added[added_count - 1] = &*store().map().find(k);  // rollback() removes it
    return 0;
}

}  // extern "C"
