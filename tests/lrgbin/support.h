// SPDX-License-Identifier: ISC
// Helpers shared by the database test suites.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "lrgbin/lrgbin.h"

namespace dbtest {

constexpr const char *kSockName = "xmldb-test.sock";  // as compiled into lrgbin_testsock

// A fresh directory (under $TMPDIR, else /tmp) that is also the current one
// while it lives.
struct TempDir {
    std::string path = (getenv("TMPDIR") && *getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp") + std::string("/tavc-db-XXXXXX");
    std::filesystem::path old = std::filesystem::current_path();
    TempDir() { std::filesystem::current_path(mkdtemp(path.data())); }
    ~TempDir() { std::filesystem::current_path(old); std::filesystem::remove_all(path); }
    std::string file(const std::string &name) const { return path + ("/" + name); }
    std::string sock() const { return file(kSockName); }
};

// A connected socket, or (listening) a bound one; -1 on failure.
inline int unix_socket(const std::string &path, bool listening = false) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{AF_UNIX, {}};
    std::strncpy(a.sun_path, path.c_str(), sizeof(a.sun_path) - 1);
    auto *sa = reinterpret_cast<sockaddr *>(&a);
    if (listening ? bind(fd, sa, sizeof(a)) < 0 || listen(fd, 16) < 0 : connect(fd, sa, sizeof(a)) < 0)
        return close(fd), -1;
    return fd;
}

inline std::string header(uint16_t cmd, uint16_t len, int32_t status = 0) {
    const xmldb_header h{cmd, len, 0, status};
    return {reinterpret_cast<const char *>(&h), sizeof h};
}

inline std::string request(uint16_t cmd, const std::string &text) {
    return header(cmd, static_cast<uint16_t>(text.size() + 1)) + text + '\0';
}

inline void send_all(int fd, const std::string &bytes) { send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL); }

// Everything the peer sends until it closes, or until timeout_ms of silence.
inline std::string read_all(int fd, int timeout_ms = 3000) {
    std::string out;
    char buf[4096];
    pollfd p{fd, POLLIN, 0};
    for (ssize_t n; poll(&p, 1, timeout_ms) == 1 && (n = read(fd, buf, sizeof(buf))) > 0;)
        out.append(buf, static_cast<size_t>(n));
    return out;
}

}  // namespace dbtest
