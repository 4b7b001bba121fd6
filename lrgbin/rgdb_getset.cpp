// Typed access to configuration keys over the database socket: every call
// opens its own connection, issues one command and closes it again.
#include "lrgbin/rgdb_getset.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "lrgbin/lrgbin.h"

static int vget(char *buf, int size, const char *fmt, va_list ap)
{
    if (!buf || size < 1 || !fmt)
        return -1;
    char key[1024];
    vsnprintf(key, sizeof(key), fmt, ap);

    int fd = lrgdb_open(nullptr);
    if (fd < 0)
        return -1;
    if (lrgdb_get(fd, 0, key, nullptr) < 0) {
        lrgdb_close(fd);
        return -1;
    }
    // One read only: the server writes the whole value in one piece.
    if (read(fd, buf, static_cast<size_t>(size)) < 0) {
        memset(buf, 0, static_cast<size_t>(size));
        lrgdb_close(fd);
        return -1;
    }
    lrgdb_close(fd);
    buf[size - 1] = '\0';
    return 0;
}

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
    vsnprintf(key, sizeof(key), fmt, ap);
    va_end(ap);

    char value[32];
    memset(value, 0, sizeof(value));
    _rgdb_get_(value, 31, "%s", key);
    return atoi(value);
}

int _rgdb_set_(const char *key, const char *value)
{
    int fd = lrgdb_open(nullptr);
    if (fd < 0)
        return -1;
    int r = lrgdb_set(fd, 0, key, value);
    lrgdb_close(fd);
    return r == -1 ? -1 : 0;
}

int tav_rgdb_set_digit(int value, const char *fmt, ...)
{
    if (!fmt)
        return -1;
    char key[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(key, sizeof(key), fmt, ap);
    va_end(ap);

    char text[32];
    memset(text, 0, sizeof(text));
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
    vsnprintf(key, sizeof(key), fmt, ap);
    va_end(ap);
    return _rgdb_set_(key, value);
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
