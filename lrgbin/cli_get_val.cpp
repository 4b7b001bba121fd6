// SPDX-License-Identifier: ISC
// cli_get_val: read a small file named printf-style. Shared by the socket
// and the in-process builds of the typed access.
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "lrgbin/rgdb_getset.h"

int cli_get_val(char *buf, int size, const char *fmt, ...)
{
    if (!buf || size < 1 || !fmt)
        return -1;
    char path[256];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(path, sizeof(path), fmt, ap);
    va_end(ap);

    memset(buf, 0, static_cast<size_t>(size));
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    int n = -1;
    if (fd > 0) {
        n = static_cast<int>(read(fd, buf, static_cast<size_t>(size)));
        close(fd);
    } else if (fd == 0) {
        close(fd);
    }
    buf[size - 1] = '\0';
    return n;
}
