// Typed access over an in-process map, with the same limits and byte
// behaviour as the socket path: 1023-character keys, the "%s %s" set text
// cut to 1022 characters and split at its first space, reads that deliver
// the value and its NUL cut to the caller's buffer.
#include "lrgbin/rgdb_store.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "lrgbin/rgdb_getset.h"
#include "sim/xmldb/store.h"

namespace {

xmldb::Store &store()
{
    static xmldb::Store s;
    return s;
}
bool online = true;
unsigned long call_count = 0;

void compose(char (&key)[1024], const char *fmt, va_list ap)
{
    vsnprintf(key, sizeof(key), fmt, ap);
}

int vget(char *buf, int size, const char *fmt, va_list ap)
{
    if (!buf || size < 1 || !fmt)
        return -1;
    char key[1024];
    compose(key, fmt, ap);
    call_count++;
    if (!online)
        return -1;
    std::string_view v = store().get(key);
    // As one read of the value and its NUL into size bytes would leave it.
    std::size_t n = std::min(v.size(), static_cast<std::size_t>(size));
    if (n > 0)
        std::memcpy(buf, v.data(), n);
    if (n < static_cast<std::size_t>(size))
        buf[n] = '\0';
    buf[size - 1] = '\0';
    return 0;
}

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

int _rgdb_get_(char *buf, int size, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int r = vget(buf, size, fmt, ap);
    va_end(ap);
    return r;
}

int rgdb_get_digit(const char *fmt, ...)
{
    if (!fmt)
        return 0;
    char key[1024];
    va_list ap;
    va_start(ap, fmt);
    compose(key, fmt, ap);
    va_end(ap);
    char value[32] = {};
    _rgdb_get_(value, 31, "%s", key);
    return atoi(value);
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

int tav_rgdb_set_digit(int value, const char *fmt, ...)
{
    if (!fmt)
        return -1;
    char key[1024];
    va_list ap;
    va_start(ap, fmt);
    compose(key, fmt, ap);
    va_end(ap);
    char text[32] = {};
    snprintf(text, 31, "%d", value);
    return _rgdb_set_(key, text);
}

int tav_rgdb_set_str(const char *value, const char *fmt, ...)
{
    if (!fmt)
        return -1;
    char key[1024];
    va_list ap;
    va_start(ap, fmt);
    compose(key, fmt, ap);
    va_end(ap);
    return _rgdb_set_(key, value);
}

int binary__rgdb_set_(const char *key, unsigned long value)
{
    if (!key)
        return -1;
    char text[16] = {};
    snprintf(text, sizeof(text), "%lu", value);
    _rgdb_set_(key, text);
    return 0;
}

}  // extern "C"
