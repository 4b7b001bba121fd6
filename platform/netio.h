// SPDX-License-Identifier: ISC
// The one place where frames leave the daemon, so that a test or fuzz build
// can link a recorder (tavc_record) instead of the sockets (tavc_platform).
#pragma once

#include <stddef.h>
#include <sys/socket.h>
#include <sys/types.h>

ssize_t tavc_sendto(int fd, const void *buf, size_t len, const struct sockaddr *to,
                    socklen_t to_len);
