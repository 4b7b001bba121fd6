// SPDX-License-Identifier: ISC
// Start-up, the main loop and shutdown.
#pragma once

#include <stdint.h>

// Seconds and microseconds, both 64-bit whatever the host's timeval is.
struct tav_time {
    int64_t tv_sec;
    int64_t tv_usec;
};

void init_env();
int init_buff();
void free_buff();
void init_manage_status();
void init_node();
void init_sigaction();
void sigchld_handler(int sig);
int get_time(tav_time *t);
void init_report_timer();
[[noreturn]] void tavc_run();
[[noreturn]] void tavc_exit();
