// Every program the daemon starts goes through this module, so that a test or
// fuzz build can link a recorder (tavc_record) in place of the real launcher
// (tavc_platform), and so that request values reach a shell only through
// shell_quote.
#pragma once

#include <stddef.h>
#include <sys/types.h>

// Runs `cmd` with the shell and waits for it; returns system()'s status.
int proc_system(const char *cmd);

// proc_system of a command composed printf-style in a 1024-byte buffer; a
// command that would not fit is not run (-1), since a cut command line could
// mean something else.
int proc_systemf(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// Starts `cmd` with the shell in a child process and returns at once: the
// child's pid, or -1. The SIGCHLD handler reaps it.
pid_t proc_spawn(const char *cmd);

// Runs child(arg) in a forked child process that then ends with _exit(0);
// the parent returns at once with the child's pid, or -1 when fork fails.
pid_t proc_fork(void (*child)(void *arg), void *arg);

// Starts a child that sleeps `delay` seconds (not at all for 0), then
// replaces itself with `path` and the NULL-terminated `argv`, with an empty
// environment; if that fails, the child ends with `fail_status`. The parent
// returns at once with the child's pid, or -1; the SIGCHLD handler reaps it.
pid_t proc_exec(unsigned delay, const char *path, const char *const argv[], int fail_status);

// Runs `cmd` with the shell (popen) and keeps the first size - 1 bytes of its
// output, NUL-terminated. Returns the number of bytes kept, or -1.
int proc_read(const char *cmd, char *out, int size);

// sleep() for the daemon's children (a recorder does not wait).
void proc_sleep(unsigned seconds);

// Writes `value` single-quoted for the shell ('it'\''s'), NUL-terminated.
// Returns the quoted length, or -1 (and out = "") when it does not fit.
int shell_quote(char *out, size_t cap, const char *value);
