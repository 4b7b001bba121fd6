// SPDX-License-Identifier: ISC
// rgdb: read and change keys of the configuration database from the shell.
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "lrgbin/lrgbin.h"

namespace {

void usage(FILE *to)
{
    std::fputs(
        "usage: rgdb [-S SOCKET] -g KEY | -s KEY VALUE | -d KEY | -D FILE | -l FILE\n"
        "  -g KEY        print the value of KEY (empty when it does not exist)\n"
        "  -s KEY VALUE  set KEY to VALUE\n"
        "  -d KEY        delete KEY and every key below it (a missing key is fine)\n"
        "  -D FILE       dump the database to FILE (\"\" = the server's state file)\n"
        "  -l FILE       reload the database from FILE (\"\" = the server's state file)\n"
        "  -S SOCKET     database socket for this call (default " XMLDB_SOCK ")\n"
        "  --help        show this help\n",
        to);
}

// The server resolves file names in its own directory: send absolute ones.
std::string absolute(const char *path)
{
    if (!*path || *path == '/')
        return path;
    char cwd[PATH_MAX];
    if (!getcwd(cwd, sizeof(cwd)))
        return path;
    return std::string(cwd) + "/" + path;
}

int fail(const char *what, const char *arg)
{
    std::fprintf(stderr, "rgdb: %s %s failed\n", what, arg);
    return 1;
}

// The get reply is the value and one NUL; the NUL tells a complete answer
// from a server that hung up.
int do_get(int fd, const char *key)
{
    if (lrgdb_get(fd, 0, key, nullptr) < 0)
        return fail("get of", key);
    std::string value;
    char chunk[4096];
    for (;;) {
        ssize_t n = read(fd, chunk, sizeof(chunk));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return fail("get of", key);
        value.append(chunk, static_cast<size_t>(n));
        std::size_t nul = value.find('\0');
        if (nul != std::string::npos) {
            value.resize(nul);
            break;
        }
    }
    std::fwrite(value.data(), 1, value.size(), stdout);
    std::fputc('\n', stdout);
    return std::fflush(stdout) == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv)
{
    const char *sock = nullptr;
    char action = 0;
    const char *arg = nullptr;
    const char *value = nullptr;
    for (int i = 1; i < argc; i++) {
        std::string_view a = argv[i];
        if (a == "--help" || a == "-h") {
            usage(stdout);
            return 0;
        }
        bool known = a == "-S" || a == "-g" || a == "-s" || a == "-d" || a == "-D" || a == "-l";
        if (!known) {
            std::fprintf(stderr, "rgdb: unknown argument %s\n", argv[i]);
            usage(stderr);
            return 1;
        }
        int need = a == "-s" ? 2 : 1;
        if (i + need >= argc) {
            std::fprintf(stderr, "rgdb: %s needs %s\n", argv[i], need == 2 ? "KEY VALUE" : "an argument");
            return 1;
        }
        if (a == "-S") {
            sock = argv[++i];
            continue;
        }
        if (action) {
            std::fprintf(stderr, "rgdb: give one of -g, -s, -d, -D, -l\n");
            return 1;
        }
        action = a[1];
        arg = argv[++i];
        if (need == 2)
            value = argv[++i];
    }
    if (!action) {
        usage(stderr);
        return 1;
    }
    if (sock && std::strlen(sock) > 107) {
        std::fprintf(stderr, "rgdb: socket path longer than 107 characters\n");
        return 1;
    }
    // The set text travels as "KEY VALUE" of at most 1022 characters; refuse
    // rather than store a cut value.
    if (action == 's' && std::strlen(arg) + 1 + std::strlen(value) > 1022) {
        std::fprintf(stderr, "rgdb: key and value longer than 1022 characters\n");
        return 1;
    }

    int fd = lrgdb_open(sock);
    if (fd < 0)
        return 1;
    int rc = 0;
    std::string path;
    switch (action) {
    case 'g':
        rc = do_get(fd, arg);
        break;
    case 's':
        rc = lrgdb_set(fd, 0, arg, value) == -1 ? fail("set of", arg) : 0;
        break;
    case 'd':
        rc = lrgdb_del(fd, 0, arg) == -1 ? fail("delete of", arg) : 0;
        break;
    case 'D':
        path = absolute(arg);
        rc = lrgdb_dump(fd, 0, path.c_str()) == -1 ? fail("dump to", arg) : 0;
        break;
    case 'l':
        path = absolute(arg);
        rc = lrgdb_reload(fd, 0, path.c_str()) == -1 ? fail("reload from", arg) : 0;
        break;
    }
    lrgdb_close(fd);
    return rc;
}
