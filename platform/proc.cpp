// SPDX-License-Identifier: ISC
// The real launcher (library tavc_platform).
#include "platform/proc.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

extern char **environ;

int proc_system(ShellLine cmd) { return system(cmd.text()); }

pid_t proc_spawn(ShellLine line) {
    const char *cmd = line.text();
    pid_t pid = fork();
    if (pid == 0) {
        char sh[] = "sh", c[] = "-c";
        char *argv[] = {sh, c, const_cast<char *>(cmd), nullptr};
        execve("/bin/sh", argv, environ);
        _exit(127);
    }
    return pid;
}

pid_t proc_fork(void (*child)(void *arg), void *arg) {
    pid_t pid = fork();
    if (pid == 0) {
        // The child serves no requests: SIGTERM ends it, its own children
        // are its own business.
        signal(SIGTERM, SIG_DFL);
        signal(SIGCHLD, SIG_DFL);
        child(arg);
        _exit(0);
    }
    return pid;
}

pid_t proc_exec(unsigned delay, const char *path, const char *const argv[], int fail_status) {
    pid_t pid = fork();
    if (pid == 0) {
        signal(SIGTERM, SIG_DFL);
        signal(SIGCHLD, SIG_DFL);
        if (delay > 0) sleep(delay);
        char *const no_env[] = {nullptr};
        execve(path, const_cast<char *const *>(argv), no_env);
        _exit(fail_status);
    }
    return pid;
}

int proc_read(ShellLine cmd, char *out, int size) {
    if (out == nullptr || size < 1) return -1;
    out[0] = '\0';
    // pclose must find its own child: keep the SIGCHLD reaper out meanwhile.
    sigset_t block, old;
    sigemptyset(&block);
    sigaddset(&block, SIGCHLD);
    sigprocmask(SIG_BLOCK, &block, &old);
    int kept = -1;
    if (FILE *f = popen(cmd.text(), "r")) {
        kept = int(fread(out, 1, size_t(size - 1), f));
        out[kept] = '\0';
        pclose(f);
    }
    sigprocmask(SIG_SETMASK, &old, nullptr);
    return kept;
}

void proc_sleep(unsigned seconds) { sleep(seconds); }
