// SPDX-License-Identifier: ISC
// Every program the daemon starts goes through this module, so that a test or
// fuzz build can link a recorder (sim/record) in place of the real launcher
// (tavc_platform), and so that request values reach a shell only through the
// command composer (platform/command.h).
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

// A command line for the shell. It is either a string literal written in the
// code, or the text of a Command (whose values are always quoted). There is no
// way to make one from composed text: a handler that formats its own line
// does not compile.
class ShellLine {
  public:
    template <size_t N>
    consteval ShellLine(const char (&literal)[N]) : text_(literal) {
        // Reading the array here also refuses a mutable buffer: only a
        // constant can be read while compiling.
        if (literal[N - 1] != '\0') not_a_literal();
    }
    const char *text() const { return text_; }

  private:
    static void not_a_literal();  // never defined: reached only by a non-literal
    constexpr ShellLine(const char *text, int) : text_(text) {}
    const char *text_;

    friend class Command;
    // The database library's own printf-style helpers (lrgbin_system,
    // lrgbin_run_shell), which no daemon code calls (a build check sees to it).
    friend struct LibraryShellLine;
};

// Runs `cmd` with the shell and waits for it; returns system()'s status.
int proc_system(ShellLine cmd);

// Starts `cmd` with the shell in a child process and returns at once: the
// child's pid, or -1. The SIGCHLD handler reaps it.
pid_t proc_spawn(ShellLine cmd);

// Runs `cmd` with the shell (popen) and keeps the first size - 1 bytes of its
// output, NUL-terminated. Returns the number of bytes kept, or -1.
int proc_read(ShellLine cmd, char *out, int size);

// Runs child(arg) in a forked child process that then ends with _exit(0);
// the parent returns at once with the child's pid, or -1 when fork fails.
pid_t proc_fork(void (*child)(void *arg), void *arg);

// Starts a child that sleeps `delay` seconds (not at all for 0), then
// replaces itself with `path` and the NULL-terminated `argv`, with an empty
// environment; if that fails, the child ends with `fail_status`. The parent
// returns at once with the child's pid, or -1; the SIGCHLD handler reaps it.
// No shell is involved, so arguments need no quoting.
pid_t proc_exec(unsigned delay, const char *path, const char *const argv[], int fail_status);

// sleep() for the daemon's children (a recorder does not wait).
void proc_sleep(unsigned seconds);
