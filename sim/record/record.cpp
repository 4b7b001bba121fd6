// SPDX-License-Identifier: ISC
#include "sim/record/record.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "platform/netio.h"
#include "platform/proc.h"

namespace tavc_record {
namespace {
std::vector<Launch> g_launches;
std::vector<Frame> g_frames;
int g_status = 0;
std::string g_output;
pid_t g_next_pid = 10000;  // pids that no real process is asked about
}  // namespace

const std::vector<Launch> &launches() { return g_launches; }
const std::vector<Frame> &frames() { return g_frames; }
void clear() {
    g_launches.clear();
    g_frames.clear();
    g_status = 0;
    g_output.clear();
}
void set_system_status(int status) { g_status = status; }
void set_read_output(const std::string &output) { g_output = output; }

}  // namespace tavc_record

using namespace tavc_record;

int proc_system(ShellLine cmd) {
    g_launches.push_back({LaunchKind::System, cmd.text()});
    return g_status;
}

pid_t proc_spawn(ShellLine cmd) {
    g_launches.push_back({LaunchKind::Spawn, cmd.text()});
    return g_next_pid++;
}

// The child's work runs inline, so its own launches are recorded in order.
pid_t proc_fork(void (*child)(void *arg), void *arg) {
    g_launches.push_back({LaunchKind::Fork, ""});
    child(arg);
    return g_next_pid++;
}

// Never forks and never replaces the test runner: only what would run.
pid_t proc_exec(unsigned delay, const char *path, const char *const argv[], int fail_status) {
    Launch l{LaunchKind::Exec, path ? path : "", delay, fail_status};
    for (size_t i = 0; argv != nullptr && argv[i] != nullptr; ++i) l.command += std::string(" ") + argv[i];
    g_launches.push_back(std::move(l));
    return g_next_pid++;
}

int proc_read(ShellLine cmd, char *out, int size) {
    g_launches.push_back({LaunchKind::Read, cmd.text()});
    if (out == nullptr || size < 1) return -1;
    size_t n = std::min(g_output.size(), size_t(size - 1));
    std::memcpy(out, g_output.data(), n);
    out[n] = '\0';
    return int(n);
}

void proc_sleep(unsigned seconds) {
    g_launches.push_back({LaunchKind::Sleep, std::to_string(seconds)});
}

ssize_t tavc_sendto(int fd, const void *buf, size_t len, const struct sockaddr *to,
                    socklen_t to_len) {
    Frame f{fd, {}, {}, 0};
    const auto *p = static_cast<const uint8_t *>(buf);
    f.bytes.assign(p, p + len);
    if (to != nullptr && to_len <= sizeof f.to) {
        std::memcpy(&f.to, to, to_len);
        f.to_len = to_len;
    }
    g_frames.push_back(std::move(f));
    return ssize_t(len);
}
