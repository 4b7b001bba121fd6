// SPDX-License-Identifier: ISC
// The typed access's primitives over the database socket: every call opens
// its own connection, issues one command and closes it again.
#include <string.h>
#include <unistd.h>

#include "lrgbin/lrgbin.h"
#include "lrgbin/rgdb_backend.h"
#include "lrgbin/rgdb_getset.h"

int rgdb_read_key(char *buf, int size, const char *key)
{
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

int _rgdb_set_(const char *key, const char *value)
{
    int fd = lrgdb_open(nullptr);
    if (fd < 0)
        return -1;
    int r = lrgdb_set(fd, 0, key, value);
    lrgdb_close(fd);
    return r == -1 ? -1 : 0;
}
