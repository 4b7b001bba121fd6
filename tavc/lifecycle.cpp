// SPDX-License-Identifier: ISC
// Start-up, the main loop and shutdown (tavc_run), and the exit on SIGTERM.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "lrgbin/rgdb_getset.h"
#include "proto/wire.h"
#include "tavc/announce.h"
#include "tavc/dispatch.h"
#include "tavc/identity.h"
#include "tavc/lifecycle.h"
#include "tavc/registry.h"
#include "tavc/time_zone.h"
#include "tavc/transport.h"
#include "tavc/trace.h"

tav_server *tav_tmp_server;
tav_time report_time;
uint8_t *time_table;

// SIGTERM only raises this flag and wakes select through the pipe; the loop
// then runs tavc_exit between two messages, never inside a send or a
// database call.
static volatile sig_atomic_t g_terminate;
static int g_wake[2] = {-1, -1};

// Releases the three records init_buff allocates (any of them may be null).
static void release_records() {
    free(tav_tmp_server);
    free(device_info);
    free(time_table);
    tav_tmp_server = nullptr;
    device_info = nullptr;
    time_table = nullptr;
}

int init_buff() {
    tav_tmp_server = static_cast<tav_server *>(calloc(1, sizeof(tav_server)));
    device_info = static_cast<device_status *>(calloc(1, sizeof(device_status)));
    time_table = static_cast<uint8_t *>(calloc(1, kTimeTableSize));
    if (tav_tmp_server && device_info && time_table) return 0;
    release_records();
    printf("%s, calloc failed\n", "init_buff");
    return -1;
}

void free_buff() {
    free_tav_server();
    release_records();
}

void init_manage_status() {
    int status = rgdb_get_digit("/qm5_agent/managed_status");
    if (status == 2 || status == 3 || status == 4)
        tav_rgdb_set_digit(2, "/qm5_agent/managed_status");
}

void init_node() { binary__rgdb_set_("/runtime/tavclient/function/fw_upgrade/status", 0); }

int get_time(tav_time *t) {
    timeval tv;
    int rc = gettimeofday(&tv, nullptr);
    t->tv_sec = tv.tv_sec;
    t->tv_usec = tv.tv_usec;
    return rc;
}

void init_report_timer() {
    tav_time now;
    get_time(&now);
    report_time.tv_sec = now.tv_sec + 60;
    report_time.tv_usec = now.tv_usec;
}

void sigchld_handler(int) {
    int saved = errno;
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    errno = saved;
}

static void sigterm_handler(int) {
    int saved = errno;
    g_terminate = 1;
    if (g_wake[1] >= 0) {
        char c = 0;
        (void)!write(g_wake[1], &c, 1);
    }
    errno = saved;
}

void init_sigaction() {
    if (pipe2(g_wake, O_CLOEXEC | O_NONBLOCK) != 0) g_wake[0] = g_wake[1] = -1;

    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sigemptyset(&sa.sa_mask);
    sa.sa_handler = sigterm_handler;
    sigaction(SIGTERM, &sa, nullptr);

    memset(&sa, 0, sizeof sa);
    sigemptyset(&sa.sa_mask);
    sa.sa_handler = sigchld_handler;
    sa.sa_flags = SA_RESTART;
    sigaction(SIGCHLD, &sa, nullptr);
}

void init_env() {
    if (init_buff() != 0) exit(1);
    init_tav_lib();
    init_manage_status();
    init_device_status();
    init_socket();
    init_report_timer();
    init_node();
    init_time_zone_table();
    init_sigaction();
}

[[noreturn]] void tavc_exit() {
    tav_own_bye();
    free_buff();
    close_socket();
    close_tav_lib();
    exit(1);
}

static bool earlier(const tav_time &a, const tav_time &b) {
    return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_usec < b.tv_usec);
}

// Loop storage for the whole process: nothing is allocated per message.
static uint8_t g_recv[tav::kRecvBufLen];
static uint8_t g_plain[tav::kMaxPlainLen];

[[noreturn]] void tavc_run() {
    int nfds = (tav_l2_fd > tav_l3_fd ? tav_l2_fd : tav_l3_fd);
    if (g_wake[0] > nfds) nfds = g_wake[0];
    nfds += 1;
    int marker = 2;
    for (;;) {
        if (g_terminate) tavc_exit();
        tav_time now;
        get_time(&now);
        timeval timeout{0, 0};
        if (earlier(now, report_time)) {
            int64_t sec = report_time.tv_sec - now.tv_sec;
            int64_t usec = report_time.tv_usec - now.tv_usec;
            if (usec < 0) {
                sec -= 1;
                usec += 1000000;
            }
            timeout.tv_sec = time_t(sec);
            timeout.tv_usec = suseconds_t(usec);
        }

        ssize_t received = 0;
        fd_set rset;
        FD_ZERO(&rset);
        FD_SET(tav_l2_fd, &rset);
        FD_SET(tav_l3_fd, &rset);
        if (g_wake[0] >= 0) FD_SET(g_wake[0], &rset);
        int n = select(nfds, &rset, nullptr, nullptr, &timeout);
        if (g_terminate) tavc_exit();
        if (n < 0) {
            if (errno != EINTR) perror("select failed");
            continue;
        }

        if (FD_ISSET(tav_l2_fd, &rset)) {
            // Only the sender's address is read before the length is checked;
            // clearing the whole 64 KiB would cost a page walk per message.
            memset(g_recv, 0, tav::kEthHeaderLen);
            received = recv(tav_l2_fd, g_recv, sizeof g_recv, MSG_DONTWAIT);
            marker = 2;
            memset(tav_tmp_server, 0, sizeof *tav_tmp_server);
            memcpy(tav_tmp_server->mac, g_recv + 6, 6);
        }
        if (FD_ISSET(tav_l3_fd, &rset)) {
            // The datagram wins when both are readable: it overwrites the frame.
            marker = 4;
            memset(tav_tmp_server, 0, sizeof *tav_tmp_server);
            tav_tmp_server->addr_len = sizeof(sockaddr_in);
            socklen_t addr_len = tav_tmp_server->addr_len;
            received = recvfrom(tav_l3_fd, g_recv, sizeof g_recv, 0,
                                reinterpret_cast<sockaddr *>(&tav_tmp_server->addr), &addr_len);
            tav_tmp_server->addr_len = addr_len;
            get_mac_from_arp_cache();
        }

        get_time(&now);
        if (!earlier(now, report_time)) {
            report_device_info();
            init_report_timer();
        }

        if (received == 0) continue;
        size_t offset = marker == 2 ? tav::kEthHeaderLen : 0;
        if (received < 0 || size_t(received) < offset + tav::kSelectorLen) continue;

        uint16_t selector = tav::get_be16(g_recv + offset);
        const uint8_t *cipher = g_recv + offset + tav::kSelectorLen;
        uint16_t cipher_len = uint16_t(size_t(received) - offset - tav::kSelectorLen);
        uint16_t plain_len = 0;
        if (tav_decode_buf(selector, cipher, cipher_len, g_plain, &plain_len) == 0) {
            init_device_status();
            process_message(g_plain, plain_len);
        }
        if (tav_debug_enabled()) fputc('\n', stderr);
    }
}
