// SPDX-License-Identifier: ISC
// Definitions that take precedence over the C library's (and the sanitizers'
// weak interceptors) in the fuzz executables.
#include "fuzz/guard.h"

#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

namespace {
bool g_armed = false;

[[noreturn]] void refuse(const char *what) {
    fprintf(stderr, "fuzz guard: %s called outside the recorder\n", what);
    abort();
}
}  // namespace

void fuzz_guard_arm() { g_armed = true; }

extern "C" {

int system(const char *) { refuse("system"); }
FILE *popen(const char *, const char *) { refuse("popen"); }
pid_t fork(void) { refuse("fork"); }
pid_t vfork(void) { refuse("vfork"); }
int execve(const char *, char *const[], char *const[]) { refuse("execve"); }
int execv(const char *, char *const[]) { refuse("execv"); }
int execvp(const char *, char *const[]) { refuse("execvp"); }
int posix_spawn(pid_t *, const char *, const posix_spawn_file_actions_t *,
                const posix_spawnattr_t *, char *const[], char *const[]) {
    refuse("posix_spawn");
}
int posix_spawnp(pid_t *, const char *, const posix_spawn_file_actions_t *,
                 const posix_spawnattr_t *, char *const[], char *const[]) {
    refuse("posix_spawnp");
}
int settimeofday(const struct timeval *, const struct timezone *) { refuse("settimeofday"); }
int clock_settime(clockid_t, const struct timespec *) { refuse("clock_settime"); }
int reboot(int) { refuse("reboot"); }
// Signals to this process itself stay possible (sanitizer reports use them).
int kill(pid_t pid, int sig) {
    if (g_armed && pid != getpid()) refuse("kill");
    return int(syscall(SYS_kill, pid, sig));
}

}  // extern "C"
