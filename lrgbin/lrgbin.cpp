// SPDX-License-Identifier: ISC
// Configuration database socket client, plus the small process and text
// helpers that ship in the same library. Device code: libc only. Programs
// start through the platform's launcher (platform/proc.h), so whoever links this
// library also links one: tavc_platform, or tavc_record in tests.
#include "lrgbin/lrgbin.h"
#include "platform/proc.h"

#include <errno.h>
#include <poll.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

static_assert(sizeof(xmldb_header) == 16, "xmldb_header must be 16 packed bytes");

// Receive buffer of redirect_output (not reentrant; the daemon has one thread).
static char buff[1024];

// The address of the compiled-in socket, made once: the daemon opens a
// connection for every key it reads.
static const struct sockaddr_un *default_address(void)
{
    static struct sockaddr_un addr;
    if (addr.sun_family != AF_UNIX) {
        strncpy(addr.sun_path, XMLDB_SOCK, sizeof(addr.sun_path) - 1);
        addr.sun_family = AF_UNIX;
    }
    return &addr;
}

int lrgdb_open(const char *path)
{
    struct sockaddr_un given;
    const struct sockaddr_un *addr = default_address();
    if (path) {
        memset(&given, 0, sizeof(given));
        given.sun_family = AF_UNIX;
        strncpy(given.sun_path, path, sizeof(given.sun_path) - 1);
        addr = &given;
    }

    // Shell commands started by handlers must not inherit the connection.
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        fprintf(stderr, "Cound not create unix domain socket: %s.\n", strerror(errno));
        return -1;
    }
    if (connect(fd, reinterpret_cast<const struct sockaddr *>(addr), sizeof(*addr)) < 0) {
        fprintf(stderr, "Cound not connect to unix socket: %s.\n", addr->sun_path);
        close(fd);
        return -1;
    }
    return fd;
}

int lrgdb_close(int fd)
{
    return close(fd);
}

// One write of header and payload together, so that the server finds the
// whole request in one read; a server that went away must not kill us with
// SIGPIPE.
static ssize_t put_bytes(int fd, const struct iovec *iov, int count)
{
    struct msghdr m;
    memset(&m, 0, sizeof(m));
    m.msg_iov = const_cast<struct iovec *>(iov);
    m.msg_iovlen = static_cast<size_t>(count);
    ssize_t n = sendmsg(fd, &m, MSG_NOSIGNAL);
    if (n < 0 && errno == ENOTSOCK)
        n = writev(fd, iov, count);
    return n;
}

int send_xmldb_cmd(int fd, uint16_t command, uint64_t flags, const void *data, uint16_t length)
{
    xmldb_header hdr = {command, length, flags, 0};
    unsigned char raw[sizeof(hdr)];
    memcpy(raw, &hdr, sizeof(raw));
    struct iovec iov[2] = {{raw, sizeof(raw)}, {const_cast<void *>(data), length}};
    // Without a payload only the header goes, and the command counts as failed.
    const bool payload = length > 0 && data;
    if (put_bytes(fd, iov, payload ? 2 : 1) < 1 || !payload)
        return -1;
    return 0;
}

static int send_text(int fd, uint16_t command, uint64_t flags, const char *text)
{
    if (!text)
        text = "";
    // The field is 16 bits wide: longer texts keep only the low bits.
    return send_xmldb_cmd(fd, command, flags, text, static_cast<uint16_t>(strlen(text) + 1));
}

// Status field of the reply header, or -1 when no whole header arrives.
static int read_status(int fd)
{
    unsigned char raw[sizeof(xmldb_header)];
    size_t got = 0;
    while (got < sizeof(raw)) {
        ssize_t n = read(fd, raw + got, sizeof(raw) - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return -1;
        got += static_cast<size_t>(n);
    }
    int32_t status;
    memcpy(&status, raw + 12, sizeof(status));
    return status;
}

void redirect_output(int fd, FILE *out)
{
    for (;;) {
        // poll instead of select: no FD_SETSIZE limit, and a bad descriptor
        // ends the copy instead of spinning.
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, -1) < 1 || p.revents == 0)
            continue;
        ssize_t n = read(fd, buff, sizeof(buff));
        if (n <= 0)
            return;
        if (buff[n - 1] == '\0') {
            if (out)
                fwrite(buff, 1, strlen(buff), out);
            return;
        }
        if (out)
            fwrite(buff, 1, static_cast<size_t>(n), out);
    }
}

static int text_command(int fd, uint16_t command, uint64_t flags, const char *arg, FILE *out)
{
    if (send_text(fd, command, flags, arg) < 0)
        return -1;
    if (out)
        redirect_output(fd, out);
    return 0;
}

static int status_command(int fd, uint16_t command, uint64_t flags, const char *arg)
{
    if (send_text(fd, command, flags, arg) < 0)
        return -1;
    return read_status(fd);
}

int lrgdb_get(int fd, uint64_t flags, const char *key, FILE *out)
{
    return text_command(fd, XMLDB_GET, flags, key, out);
}

static int set_command(int fd, uint16_t command, uint64_t flags, const char *key,
                       const char *value, char *buf, size_t limit)
{
    snprintf(buf, limit, "%s %s", key ? key : "", value ? value : "");
    return status_command(fd, command, flags, buf);
}

int lrgdb_set(int fd, uint64_t flags, const char *key, const char *value)
{
    char buf[1024];
    return set_command(fd, XMLDB_SET, flags, key, value, buf, 1023);
}

int lrgdb_set_notify(int fd, uint64_t flags, const char *key, const char *value)
{
    char buf[256];
    return set_command(fd, XMLDB_SET_NOTIFY, flags, key, value, buf, 255);
}

int lrgdb_del(int fd, uint64_t flags, const char *key)
{
    return status_command(fd, XMLDB_DEL, flags, key);
}

int lrgdb_reload(int fd, uint64_t flags, const char *arg)
{
    return status_command(fd, XMLDB_RELOAD, flags, arg);
}

int lrgdb_dump(int fd, uint64_t flags, const char *arg)
{
    return status_command(fd, XMLDB_DUMP, flags, arg);
}

int lrgdb_patch(int fd, uint64_t flags, const char *arg, FILE *out)
{
    return text_command(fd, XMLDB_PATCH, flags, arg, out);
}

int lrgdb_patch_buffer(int fd, uint64_t flags, const char *arg, FILE *out)
{
    return text_command(fd, XMLDB_PATCH_BUFFER, flags, arg, out);
}

int lrgdb_ephp(int fd, uint64_t flags, const char *arg, FILE *out)
{
    return text_command(fd, XMLDB_EPHP, flags, arg, out);
}

int lrgdb_getwb(int fd, char *buf, int size, const char *fmt, ...)
{
    if (!buf || size < 0 || !fmt)
        return -1;
    char key[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(key, sizeof(key), fmt, ap);
    va_end(ap);
    if (lrgdb_get(fd, 0, key, nullptr) < 0)
        return -1;
    return static_cast<int>(read(fd, buf, static_cast<size_t>(size)));
}

// ---- process and text utilities ----

// These two put composed, unquoted text on a shell line: the library offers
// them for its own callers, never for request text (the daemon's code may
// not call them; the build checks it).
struct LibraryShellLine {
    static ShellLine of(const char *text) { return ShellLine(text, 0); }
};

int lrgbin_system(const char *fmt, ...)
{
    char cmd[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(cmd, sizeof(cmd), fmt, ap);
    va_end(ap);
    return proc_system(LibraryShellLine::of(cmd));
}

int lrgbin_run_shell(char *buf, int size, const char *fmt, ...)
{
    if (!buf || size < 1)
        return -1;
    char cmd[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(cmd, sizeof(cmd), fmt, ap);
    va_end(ap);

    // The launcher keeps what fits and terminates it ("" when it cannot start).
    int len = proc_read(LibraryShellLine::of(cmd), buf, size);
    if (len < 0)
        return -1;
    if (len > 0 && buf[len - 1] == '\n')
        buf[len - 1] = '\0';
    return 0;
}

char *lrgbin_eatwhite(char *s)
{
    if (!s)
        return nullptr;
    while (*s == ' ' || *s == '\t')
        s++;
    return s;
}

int lrgbin_reatwhite(char *s)
{
    if (!s)
        return 0;
    size_t len = strlen(s);
    while (len > 0 && (s[len - 1] == ' ' || s[len - 1] == '\t'))
        s[--len] = '\0';
    return len > 0 ? static_cast<unsigned char>(s[len - 1]) : -1;
}

void lrgbin_pa_init(struct lrgbin_pa *pa, uint64_t growby)
{
    pa->growby = growby ? growby : 16;
    pa->capacity = 0;
    pa->slots = nullptr;
}

int lrgbin_pa_grows(struct lrgbin_pa *pa, uint64_t capacity)
{
    if (pa->capacity >= capacity)
        return 0;
    if (capacity > SIZE_MAX / sizeof(void *))
        return -1;
    void **slots = static_cast<void **>(calloc(static_cast<size_t>(capacity), sizeof(void *)));
    if (!slots)
        return -1;
    if (pa->slots) {
        memcpy(slots, pa->slots, static_cast<size_t>(pa->capacity) * sizeof(void *));
        free(pa->slots);
    }
    pa->slots = slots;
    pa->capacity = capacity;
    return 0;
}

void *lrgbin_pa_get_nth(struct lrgbin_pa *pa, uint64_t index)
{
    return index < pa->capacity ? pa->slots[index] : nullptr;
}

int lrgbin_pa_set_nth(struct lrgbin_pa *pa, uint64_t index, void *ptr, int release_old)
{
    // A zero-filled record that never went through init still grows.
    uint64_t step = pa->growby ? pa->growby : 16;
    while (index >= pa->capacity) {
        if (pa->capacity > UINT64_MAX - step)
            return -1;
        int r = lrgbin_pa_grows(pa, pa->capacity + step);
        if (r < 0)
            return r;
    }
    if (release_old && pa->slots[index])
        free(pa->slots[index]);
    pa->slots[index] = ptr;
    return 0;
}

void lrgbin_pa_destroy(struct lrgbin_pa *pa, int release_items)
{
    if (pa->slots) {
        if (release_items)
            for (uint64_t i = 0; i < pa->capacity; i++)
                free(pa->slots[i]);
        free(pa->slots);
    }
    lrgbin_pa_init(pa, 16);
}

char *lrgbin_getdaystring(int first, int last)
{
    static const char week[] = "Sun,Mon,Tue,Wed,Thu,Fri,Sat,Sun,Mon,Tue,Wed,Thu,Fri,Sat,";
    static char result[32];
    int f = first % 7;
    int t = last % 7;
    if (f < 1 || t < 1)
        return result;
    int len;
    if (f == t)
        len = 3;
    else if (f > t)
        len = (t + 7 - f) * 4 + 3;
    else
        len = (t - f) * 4 + 3;
    memcpy(result, week + f * 4, static_cast<size_t>(len));
    result[len] = '\0';
    return result;
}

char *lrgbin_get_line_from_file(FILE *in, int strip_lf)
{
    char *line = nullptr;
    size_t cap = 0;
    size_t len = 0;
    int c;
    while ((c = fgetc(in)) != EOF) {
        if (c == '\r')
            continue;
        if (cap - len < 2) {
            char *grown = static_cast<char *>(realloc(line, cap + 80));
            if (!grown) {
                free(line);
                return nullptr;
            }
            line = grown;
            cap += 80;
        }
        line[len++] = (strip_lf && c == '\n') ? '\0' : static_cast<char>(c);
        if (c == '\n' || c == '\0')
            break;
    }
    if (len == 0)
        return nullptr;
    line[len] = '\0';
    return line;
}
