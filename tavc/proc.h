// Every program the daemon starts goes through this module, so that a test or
// fuzz build can link a recorder (tavc_record) in place of the real launcher
// (tavc_platform), and so that request values reach a shell only through
// shell_quote.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <type_traits>

// Runs `cmd` with the shell and waits for it; returns system()'s status.
int proc_system(const char *cmd);

// proc_system of a command composed printf-style in a 1024-byte buffer; a
// command that would not fit is not run (-1), since a cut command line could
// mean something else. The format is a literal checked while compiling: it
// may hold numbers only (%d, %u, %x, ... with their exact argument types).
// Text from a request must be quoted by the command composer (tavc/command.h),
// so %s does not compile, nor does any other conversion or a miscount.
//   proc_systemf("iwpriv ath%d maxsta %u", index, limit);

// Reached only by a format that proc_systemf refuses: being neither defined
// nor constexpr, they turn the check into a compile error that names why.
void proc_systemf_text_must_go_through_the_command_composer();
void proc_systemf_format_and_arguments_differ();

template <class... A>
struct ProcSystemFormat {
    const char *text;
    consteval ProcSystemFormat(const char *fmt) : text(fmt) {
        constexpr bool integral[] = {std::is_integral_v<A>..., false};
        constexpr size_t size[] = {sizeof(A)..., 0};
        size_t used = 0;
        for (const char *p = fmt; *p; ++p) {
            if (*p != '%') continue;
            if (*++p == '%') continue;
            while (*p == '-' || *p == '+' || *p == ' ' || *p == '#' || *p == '0') ++p;
            while (*p >= '0' && *p <= '9') ++p;
            if (*p == '.')
                for (++p; *p >= '0' && *p <= '9';) ++p;
            size_t want = sizeof(int);  // char and short arrive promoted to int
            bool promoted = true;
            if (*p == 'h') {
                p += p[1] == 'h' ? 2 : 1;
            } else if (*p == 'l') {
                want = p[1] == 'l' ? sizeof(long long) : sizeof(long), promoted = false;
                p += p[1] == 'l' ? 2 : 1;
            } else if (*p == 'z' || *p == 'j' || *p == 't') {
                want = *p == 'z' ? sizeof(size_t) : *p == 'j' ? sizeof(intmax_t) : sizeof(ptrdiff_t);
                promoted = false;
                ++p;
            }
            if (*p == 's') proc_systemf_text_must_go_through_the_command_composer();
            const bool number = *p == 'd' || *p == 'i' || *p == 'u' || *p == 'x' || *p == 'X' ||
                                *p == 'o' || *p == 'c';
            if (!number || used >= sizeof...(A) || !integral[used] ||
                (promoted ? size[used] > want : size[used] != want))
                proc_systemf_format_and_arguments_differ();
            ++used;
        }
        if (used != sizeof...(A)) proc_systemf_format_and_arguments_differ();
    }
};

// The composing half of proc_systemf, after the check (not for direct use).
int proc_systemf_checked(const char *fmt, ...);

template <class... A>
int proc_systemf(std::type_identity_t<ProcSystemFormat<A...>> fmt, A... args) {
    return proc_systemf_checked(fmt.text, args...);
}

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
