// Launch helpers shared by every launcher (real or recorded).
#include "tavc/proc.h"

#include <stdarg.h>
#include <stdio.h>

int proc_systemf_checked(const char *fmt, ...) {
    char cmd[1024];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(cmd, sizeof cmd, fmt, ap);
    va_end(ap);
    if (n < 0 || size_t(n) >= sizeof cmd) return -1;
    return proc_system(cmd);
}


int shell_quote(char *out, size_t cap, const char *value) {
    if (out == nullptr || cap == 0) return -1;
    size_t n = 0;
    auto put = [&](char c) {
        if (n + 1 >= cap) return false;
        out[n++] = c;
        return true;
    };
    bool ok = put('\'');
    for (const char *p = value ? value : ""; ok && *p; ++p) {
        if (*p == '\'')  // close, escaped quote, reopen
            ok = put('\'') && put('\\') && put('\'') && put('\'');
        else
            ok = put(*p);
    }
    ok = ok && put('\'');
    if (!ok) {
        out[0] = '\0';
        return -1;
    }
    out[n] = '\0';
    return int(n);
}
