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
#include <string_view>

namespace dbtest {

constexpr const char *kSockName = "xmldb-test.sock";  // as compiled into lrgbin_testsock

// A fresh directory that is also the current one while it lives.
class TempDir {
public:
    TempDir()
    {
        char tmpl[] = "/tmp/tavc-db-XXXXXX";
        path_ = mkdtemp(tmpl);
        old_ = std::filesystem::current_path();
        std::filesystem::current_path(path_);
    }
    ~TempDir()
    {
        std::filesystem::current_path(old_);
        std::filesystem::remove_all(path_);
    }
    std::string file(std::string_view name) const { return path_ + "/" + std::string(name); }
    std::string sock() const { return file(kSockName); }

private:
    std::string path_;
    std::filesystem::path old_;
};

inline sockaddr_un address(const std::string &path)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    return addr;
}

inline int connect_to(const std::string &path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = address(path);
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// A bound, listening socket (or a stale socket file, when closed at once).
inline int listen_on(const std::string &path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = address(path);
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) < 0 || listen(fd, 16) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

inline std::string header(uint16_t cmd, uint16_t len, int32_t status = 0)
{
    std::string h(16, '\0');
    std::memcpy(h.data(), &cmd, 2);
    std::memcpy(h.data() + 2, &len, 2);
    std::memcpy(h.data() + 12, &status, 4);
    return h;
}

inline std::string request(uint16_t cmd, std::string_view text)
{
    return header(cmd, static_cast<uint16_t>(text.size() + 1)) + std::string(text) + '\0';
}

inline bool send_all(int fd, std::string_view bytes)
{
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

// Everything the peer sends until it closes, or until timeout_ms of silence.
inline std::string read_all(int fd, int timeout_ms = 3000)
{
    std::string out;
    char buf[4096];
    pollfd p{fd, POLLIN, 0};
    while (poll(&p, 1, timeout_ms) == 1) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n <= 0)
            break;
        out.append(buf, static_cast<size_t>(n));
    }
    return out;
}

}  // namespace dbtest
