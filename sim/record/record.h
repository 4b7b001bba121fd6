// SPDX-License-Identifier: ISC
// Recorder for test and fuzz builds: link `tavc_record` instead of
// `tavc_platform` and the engine's launches and outgoing frames are kept here
// instead of reaching the machine.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sys/socket.h>

namespace tavc_record {

enum class LaunchKind { System, Spawn, Fork, Read, Sleep, Exec };

struct Launch {
    LaunchKind kind;
    std::string command;  // empty for Fork; the seconds for Sleep; for Exec the
                          // path, then the arguments, joined by spaces
    unsigned delay = 0;   // Exec: seconds the child sleeps first
    int fail_status = 0;  // Exec: the child's status when execve fails
};

struct Frame {
    int fd;
    std::vector<uint8_t> bytes;
    sockaddr_storage to;
    socklen_t to_len;
};

const std::vector<Launch> &launches();
const std::vector<Frame> &frames();
void clear();

// What proc_system returns (default 0) and what proc_read yields (default "").
void set_system_status(int status);
void set_read_output(const std::string &output);

}  // namespace tavc_record
