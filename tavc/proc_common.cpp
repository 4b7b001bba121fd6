#include "tavc/proc.h"

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
