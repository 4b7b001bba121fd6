// SPDX-License-Identifier: ISC
#include "platform/netio.h"

ssize_t tavc_sendto(int fd, const void *buf, size_t len, const struct sockaddr *to,
                    socklen_t to_len) {
    return sendto(fd, buf, len, 0, to, to_len);
}
