// SPDX-License-Identifier: ISC
// The floor of a request, measured by the least program that can: plain libc
// calls, none of the project's libraries. Runs inside a lab host (through
// tavlab exec) and takes one command a line on standard input, answering one
// line on standard output:
//
//   db N KEY          N database round trips (connect, get KEY, one read,
//                     close) back to back: nanoseconds for all of them
//   count             commands the database server has served so far
//   echo IF           from now on, echo UDP datagrams to port 62977 to their
//                     sender, and Ethernet frames of EtherType 0x88B5 on IF
//                     by broadcast (as the daemon's replies go)
//   ping udp IP       one datagram to IP:62977 and its echo: nanoseconds
//   ping raw IF MAC   one frame to MAC through IF and its echo: nanoseconds
//   send udp IP HEX   HEX (an enciphered request) to IP:62976 and the first
//                     datagram back from there: nanoseconds
//   send raw IF MAC HEX  HEX in a frame of EtherType 0x2386 to MAC through
//                     IF and the first such frame back from MAC: nanoseconds
//   arm IF            listen for frames of EtherType 0x2386 on IF
//   hello TIMEOUT_MS  the monotonic clock (ns) when the next such frame came;
//                     disarms
//   mem PID           private dirty memory of PID in kB
//   stop PID          SIGTERM to PID
//   quit
//
// Or, as `bench_floor exec FILE PROGRAM ARG...`: writes "PID NS" (its process
// id and the monotonic clock) to FILE, then becomes PROGRAM.
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#define ECHO_PORT 62977
#define ECHO_TYPE 0x88B5
#define TAV_TYPE 0x2386
#define TAV_PORT 62976
#define DB_SOCK "/var/run/xmldb_sock"

static int64_t now_ns(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (int64_t)t.tv_sec * 1000000000 + t.tv_nsec;
}

// One get as the device's database client does it, with one write.
static int db_get(const char *key, char *out, size_t cap) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un a = {.sun_family = AF_UNIX};
    strcpy(a.sun_path, DB_SOCK);
    if (fd < 0 || connect(fd, (struct sockaddr *)&a, sizeof a) < 0) {
        if (fd >= 0) close(fd);
        return -1;
    }
    unsigned char req[16 + 256] = {0};
    uint16_t cmd = 1, len = (uint16_t)(strlen(key) + 1);
    memcpy(req, &cmd, 2);
    memcpy(req + 2, &len, 2);
    memcpy(req + 16, key, len);
    ssize_t n = write(fd, req, 16u + len);
    n = n > 0 ? read(fd, out, cap - 1) : -1;
    close(fd);
    if (n < 0) return -1;
    out[n] = '\0';
    return 0;
}

static int udp_fd = -1, raw_echo_fd = -1, arm_fd = -1;

static int raw_socket(const char *ifname, uint16_t type) {
    int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(type));
    if (fd < 0 || ifname == NULL) return fd;
    struct sockaddr_ll a = {.sll_family = AF_PACKET, .sll_protocol = htons(type),
                            .sll_ifindex = (int)if_nametoindex(ifname)};
    if (bind(fd, (struct sockaddr *)&a, sizeof a) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

static int parse_mac(const char *s, unsigned char *m) {
    return sscanf(s, "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", &m[0], &m[1], &m[2], &m[3], &m[4], &m[5]) == 6 ? 0 : -1;
}

static int wait_readable(int fd, int ms) {
    struct pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, ms) == 1 ? 0 : -1;
}

static uint32_t ping_seq;

// The sender's sockets are kept from one request to the next, as a manager's
// tool keeps its own: closing a packet socket waits for an RCU grace period
// (tens of milliseconds here) and the kernel work it leaves behind would fall
// into the next measurement. Whatever came in meanwhile is dropped before
// each send.
struct kept {
    int fd;
    char ifname[IFNAMSIZ];
};
static struct kept udp_kept = {-1, ""}, echo_kept = {-1, ""}, tav_kept = {-1, ""};

static void drain(int fd) {
    unsigned char b[2048];
    while (recv(fd, b, sizeof b, MSG_DONTWAIT) >= 0) {
    }
}

static int kept_socket(struct kept *k, const char *ifname, uint16_t type) {
    if (k->fd >= 0 && strcmp(k->ifname, ifname ? ifname : "") != 0) close(k->fd), k->fd = -1;
    if (k->fd < 0) {
        k->fd = ifname ? raw_socket(ifname, type) : socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        snprintf(k->ifname, sizeof k->ifname, "%s", ifname ? ifname : "");
    }
    if (k->fd >= 0) drain(k->fd);
    return k->fd;
}

static int frame_header(int fd, const char *ifname, const char *mac, uint16_t type, unsigned char *f,
                        unsigned char *dst) {
    struct ifreq ifr = {0};
    if (fd < 0 || parse_mac(mac, dst) < 0) return -1;
    strncpy(ifr.ifr_name, ifname, IFNAMSIZ - 1);
    if (ioctl(fd, SIOCGIFHWADDR, &ifr) < 0) return -1;
    memcpy(f, dst, 6);
    memcpy(f + 6, ifr.ifr_hwaddr.sa_data, 6);
    f[12] = (unsigned char)(type >> 8), f[13] = type & 0xff;
    return 0;
}

static int64_t ping_udp(const char *ip) {
    int fd = kept_socket(&udp_kept, NULL, 0);
    struct sockaddr_in to = {.sin_family = AF_INET, .sin_port = htons(ECHO_PORT)};
    inet_pton(AF_INET, ip, &to.sin_addr);
    char b[64] = {0}, in[64];
    uint32_t seq = ++ping_seq;
    memcpy(b, &seq, 4);
    int64_t t0 = now_ns(), r = -1;
    if (fd >= 0 && sendto(fd, b, sizeof b, 0, (struct sockaddr *)&to, sizeof to) == sizeof b)
        while (wait_readable(fd, 1000) == 0)
            if (recv(fd, in, sizeof in, 0) >= 4 && memcmp(in, &seq, 4) == 0) {
                r = now_ns() - t0;
                break;
            }
    return r;
}

static int64_t ping_raw(const char *ifname, const char *mac) {
    int fd = kept_socket(&echo_kept, ifname, ECHO_TYPE);
    unsigned char f[64] = {0}, dst[6];
    if (frame_header(fd, ifname, mac, ECHO_TYPE, f, dst) < 0) return -1;
    uint32_t seq = ++ping_seq;
    memcpy(f + 14, &seq, 4);
    int64_t t0 = now_ns(), r = -1;
    if (send(fd, f, sizeof f, 0) == sizeof f) {
        unsigned char in[128];
        while (wait_readable(fd, 1000) == 0) {
            ssize_t n = recv(fd, in, sizeof in, 0);
            if (n >= 18 && memcmp(in + 6, dst, 6) == 0 && memcmp(in + 14, &seq, 4) == 0) {
                r = now_ns() - t0;
                break;
            }
        }
    }
    return r;
}

static size_t unhex(const char *hex, unsigned char *out, size_t cap) {
    size_t n = 0;
    while (hex[0] && hex[1] && n < cap && sscanf(hex, "%2hhx", &out[n]) == 1) hex += 2, n++;
    return hex[0] ? 0 : n;
}

// A request sent as the manager's tool would send it, timed like a ping: the
// same sockets, no library, nothing deciphered.
static int64_t send_udp(const char *ip, const char *hex) {
    unsigned char b[1500], in[2048];
    size_t len = unhex(hex, b, sizeof b);
    int fd = kept_socket(&udp_kept, NULL, 0);
    struct sockaddr_in to = {.sin_family = AF_INET, .sin_port = htons(TAV_PORT)}, from;
    inet_pton(AF_INET, ip, &to.sin_addr);
    int64_t t0 = now_ns(), r = -1;
    if (fd >= 0 && len > 0 && sendto(fd, b, len, 0, (struct sockaddr *)&to, sizeof to) == (ssize_t)len)
        while (wait_readable(fd, 2000) == 0) {
            socklen_t fl = sizeof from;
            if (recvfrom(fd, in, sizeof in, 0, (struct sockaddr *)&from, &fl) > 0 &&
                from.sin_addr.s_addr == to.sin_addr.s_addr && from.sin_port == to.sin_port) {
                r = now_ns() - t0;
                break;
            }
        }
    return r;
}

static int64_t send_raw(const char *ifname, const char *mac, const char *hex) {
    int fd = kept_socket(&tav_kept, ifname, TAV_TYPE);
    unsigned char f[1514], dst[6], in[2048];
    size_t len = unhex(hex, f + 14, sizeof f - 14);
    if (len == 0 || frame_header(fd, ifname, mac, TAV_TYPE, f, dst) < 0) return -1;
    int64_t t0 = now_ns(), r = -1;
    if (send(fd, f, 14 + len, 0) == (ssize_t)(14 + len))
        while (wait_readable(fd, 2000) == 0)
            if (recv(fd, in, sizeof in, 0) >= 14 && memcmp(in + 6, dst, 6) == 0) {
                r = now_ns() - t0;
                break;
            }
    return r;
}

static void echo_one(void) {
    unsigned char b[2048];
    struct sockaddr_storage from;
    socklen_t fl = sizeof from;
    ssize_t n = recvfrom(udp_fd, b, sizeof b, MSG_DONTWAIT, (struct sockaddr *)&from, &fl);
    if (n > 0) sendto(udp_fd, b, (size_t)n, 0, (struct sockaddr *)&from, fl);
}

static void echo_frame(void) {
    unsigned char b[2048], t[6];
    struct sockaddr_ll from;
    socklen_t fl = sizeof from;
    ssize_t n = recvfrom(raw_echo_fd, b, sizeof b, MSG_DONTWAIT, (struct sockaddr *)&from, &fl);
    if (n < 14 || from.sll_pkttype == PACKET_OUTGOING) return;
    // Answered as the daemon answers on this path: to every station.
    memcpy(t, b, 6);
    memset(b, 0xff, 6);
    memcpy(b + 6, t, 6);
    from.sll_pkttype = 0;
    memset(from.sll_addr, 0xff, 6);
    (void)sendto(raw_echo_fd, b, (size_t)n, 0, (struct sockaddr *)&from, fl);
}

static long private_dirty(const char *pid) {
    char path[64], line[256];
    snprintf(path, sizeof path, "/proc/%s/smaps_rollup", pid);
    FILE *f = fopen(path, "r");
    long kb = -1;
    while (f && fgets(line, sizeof line, f))
        if (sscanf(line, "Private_Dirty: %ld kB", &kb) == 1) break;
    if (f) fclose(f);
    return kb;
}

static void command(char *line) {
    char *save = NULL, *w = strtok_r(line, " \n", &save);
    char *a = strtok_r(NULL, " \n", &save), *b = strtok_r(NULL, " \n", &save), *c = strtok_r(NULL, " \n", &save);
    char *d = strtok_r(NULL, " \n", &save);
    if (w == NULL) return;
    if (strcmp(w, "quit") == 0) exit(0);
    if (strcmp(w, "db") == 0 && a && b) {
        long n = atol(a);
        char v[1024];
        int64_t t0 = now_ns();
        for (long i = 0; i < n; ++i)
            if (db_get(b, v, sizeof v) < 0) {
                printf("-1\n");
                return;
            }
        printf("%lld\n", (long long)(now_ns() - t0));
    } else if (strcmp(w, "count") == 0) {
        char v[64];
        printf("%s\n", db_get("/runtime/xmldb/commands", v, sizeof v) == 0 ? v : "-1");
    } else if (strcmp(w, "echo") == 0 && a) {
        udp_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        struct sockaddr_in me = {.sin_family = AF_INET, .sin_port = htons(ECHO_PORT)};
        raw_echo_fd = raw_socket(a, ECHO_TYPE);
        int ok = bind(udp_fd, (struct sockaddr *)&me, sizeof me) == 0 && raw_echo_fd >= 0;
        printf("%s\n", ok ? "ok" : "failed");
    } else if (strcmp(w, "ping") == 0 && a && b) {
        printf("%lld\n", (long long)(strcmp(a, "udp") == 0 ? ping_udp(b) : c ? ping_raw(b, c) : -1));
    } else if (strcmp(w, "send") == 0 && a && b && c) {
        printf("%lld\n", (long long)(strcmp(a, "udp") == 0 ? send_udp(b, c) : d ? send_raw(b, c, d) : -1));
    } else if (strcmp(w, "arm") == 0 && a) {
        if (arm_fd >= 0) close(arm_fd);
        arm_fd = raw_socket(a, TAV_TYPE);
        printf("%s\n", arm_fd >= 0 ? "ok" : "failed");
    } else if (strcmp(w, "hello") == 0 && a) {
        unsigned char f[2048];
        int got = arm_fd >= 0 && wait_readable(arm_fd, atoi(a)) == 0 && recv(arm_fd, f, sizeof f, 0) > 0;
        int64_t t = now_ns();
        // Disarmed: left open, it would take a copy of every later reply.
        if (arm_fd >= 0) close(arm_fd), arm_fd = -1;
        printf("%lld\n", got ? (long long)t : -1LL);
    } else if (strcmp(w, "mem") == 0 && a) {
        printf("%ld\n", private_dirty(a));
    } else if (strcmp(w, "stop") == 0 && a) {
        printf("%d\n", kill((pid_t)atol(a), SIGTERM));
    } else {
        printf("unknown\n");
    }
}

int main(int argc, char **argv) {
    if (argc >= 4 && strcmp(argv[1], "exec") == 0) {
        char tmp[512];
        snprintf(tmp, sizeof tmp, "%s.tmp", argv[2]);
        FILE *f = fopen(tmp, "w");
        if (!f) return 1;
        fprintf(f, "%ld %lld\n", (long)getpid(), (long long)now_ns());
        if (fclose(f) != 0 || rename(tmp, argv[2]) != 0) return 1;
        execv(argv[3], argv + 3);
        perror("bench_floor exec");
        return 127;
    }
    if (argc != 1) {
        fputs("usage: bench_floor (commands on standard input) | bench_floor exec FILE PROGRAM [ARG...]\n", stderr);
        return 2;
    }
    setvbuf(stdout, NULL, _IOLBF, 0);
    char line[4096];
    for (;;) {
        struct pollfd p[3] = {{0, POLLIN, 0}, {udp_fd, POLLIN, 0}, {raw_echo_fd, POLLIN, 0}};
        if (poll(p, 3, -1) < 0 && errno != EINTR) return 1;
        if (p[1].revents & POLLIN) echo_one();
        if (p[2].revents & POLLIN) echo_frame();
        if (p[0].revents & (POLLIN | POLLHUP)) {
            if (!fgets(line, sizeof line, stdin)) return 0;
            command(line);
        }
    }
}
