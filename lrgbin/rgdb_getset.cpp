// Typed access to configuration keys: formatted keys, numbers as decimal
// text, the buffer rules. The primitives underneath are in rgdb_socket.cpp
// (the device) or rgdb_store.cpp (in-process, for fuzzing and tests).
#include "lrgbin/rgdb_getset.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "lrgbin/rgdb_backend.h"

static int vget(char *buf, int size, const char *fmt, va_list ap)
{
    if (!buf || size < 1 || !fmt)
        return -1;
    char key[1024];
    vsnprintf(key, sizeof(key), fmt, ap);
    return rgdb_read_key(buf, size, key);
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
