// SPDX-License-Identifier: ISC
// Typed access to configuration keys: formatted keys, numbers as decimal
// text, the buffer rules. The primitives underneath are in rgdb_socket.cpp
// (the device) or rgdb_store.cpp (in-process, for fuzzing and tests).
#include "lrgbin/rgdb_getset.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "lrgbin/rgdb_backend.h"

// Appends up to n bytes of `text` within the room left before `end`.
static char *append(char *o, char *end, const char *text, size_t n)
{
    if (n > static_cast<size_t>(end - o))
        n = static_cast<size_t>(end - o);
    memcpy(o, text, n);
    return o + n;
}

// What vsnprintf would write for a format of only %d, %u, %s and %%, without
// flags, width or length (every key format of the daemon); false, with
// nothing consumed from `ap`, for anything else. Once the room is full the
// rest of the format cannot change the text, so it is not read.
static bool format_plain(char *out, size_t cap, const char *fmt, va_list ap)
{
    if (cap == 0)
        return false;
    va_list a;
    va_copy(a, ap);
    char *o = out, *const end = out + cap - 1;
    bool ok = true;
    for (const char *p = fmt; ok && o < end;) {
        const char *pct = strchr(p, '%');
        const size_t run = pct ? static_cast<size_t>(pct - p) : strlen(p);
        o = append(o, end, p, run);
        if (!pct)
            break;
        p = pct + 2;
        if (pct[1] == '%') {
            o = append(o, end, "%", 1);
        } else if (pct[1] == 's') {
            const char *s = va_arg(a, const char *);
            ok = s != nullptr;  // "(null)" is vsnprintf's business
            if (ok)
                o = append(o, end, s, strlen(s));
        } else if (pct[1] == 'd' || pct[1] == 'u') {
            unsigned v;
            char digits[11];
            char *d = digits + sizeof(digits);
            bool negative = false;
            if (pct[1] == 'd') {
                int x = va_arg(a, int);
                negative = x < 0;
                v = negative ? 0u - static_cast<unsigned>(x) : static_cast<unsigned>(x);
            } else {
                v = va_arg(a, unsigned);
            }
            do
                *--d = static_cast<char>('0' + v % 10);
            while ((v /= 10) != 0);
            if (negative)
                *--d = '-';
            o = append(o, end, d, static_cast<size_t>(digits + sizeof(digits) - d));
        } else {
            ok = false;
        }
    }
    va_end(a);
    *o = '\0';
    return ok;
}

void rgdb_format_key(char *buf, int size, const char *fmt, ...)
{
    if (!buf || size < 1 || !fmt)
        return;
    va_list ap;
    va_start(ap, fmt);
    if (!format_plain(buf, static_cast<size_t>(size), fmt, ap))
        vsnprintf(buf, static_cast<size_t>(size), fmt, ap);
    va_end(ap);
}

// The key a format names, composed into `room` (1024 bytes) only when it
// has to be: most keys are literals or "%s" of one, and the daemon reads
// dozens of them for every request. Anything longer than the room goes as
// vsnprintf would cut it.
static const char *compose(char *room, const char *fmt, va_list ap)
{
    const size_t kRoom = 1024;
    const char *literal = nullptr;
    if (!strchr(fmt, '%')) {
        literal = fmt;
    } else if (strcmp(fmt, "%s") == 0) {
        va_list copy;
        va_copy(copy, ap);
        literal = va_arg(copy, const char *);
        va_end(copy);
    }
    if (literal && strnlen(literal, kRoom) < kRoom)
        return literal;
    if (!format_plain(room, kRoom, fmt, ap))
        vsnprintf(room, kRoom, fmt, ap);
    return room;
}

static int vget(char *buf, int size, const char *fmt, va_list ap)
{
    if (!buf || size < 1 || !fmt)
        return -1;
    char key[1024];
    return rgdb_read_key(buf, size, compose(key, fmt, ap));
}

int _rgdb_get_(char *buf, int size, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int r = vget(buf, size, fmt, ap);
    va_end(ap);
    return r;
}

// At most 30 characters of the value, read with the key composed once.
int rgdb_get_digit(const char *fmt, ...)
{
    char value[32];
    memset(value, 0, sizeof(value));
    va_list ap;
    va_start(ap, fmt);
    vget(value, 31, fmt, ap);
    va_end(ap);
    return atoi(value);
}

int rgdb_get_key(char *buf, int size, const char *key)
{
    if (!buf || size < 1)
        return -1;
    if (key && strnlen(key, 1024) < 1024)
        return rgdb_read_key(buf, size, key);
    return _rgdb_get_(buf, size, "%s", key);  // cut as the room cuts it
}

int rgdb_get_digit_key(const char *key)
{
    char value[32];
    memset(value, 0, sizeof(value));
    rgdb_get_key(value, 31, key);
    return atoi(value);
}

// Composes the key (1024-byte buffer) and writes the value under it.
static int vset(const char *value, const char *fmt, va_list ap)
{
    if (!fmt)
        return -1;
    char key[1024];
    return _rgdb_set_(compose(key, fmt, ap), value);
}

int tav_rgdb_set_digit(int value, const char *fmt, ...)
{
    char text[32];
    memset(text, 0, sizeof(text));
    snprintf(text, 31, "%d", value);
    va_list ap;
    va_start(ap, fmt);
    int r = vset(text, fmt, ap);
    va_end(ap);
    return r;
}

int tav_rgdb_set_str(const char *value, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int r = vset(value, fmt, ap);
    va_end(ap);
    return r;
}

int binary__rgdb_set_(const char *key, unsigned long value)
{
    if (!key)
        return -1;
    char text[16];
    memset(text, 0, sizeof(text));
    snprintf(text, sizeof(text), "%lu", value);
    _rgdb_set_(key, text);
    return 0;
}
