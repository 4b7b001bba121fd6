// SPDX-License-Identifier: ISC
#include "platform/command.h"

#include <stdio.h>
#include <string.h>

bool shell_word_is_plain(const char *value) {
    if (value == nullptr || *value == '\0') return false;
    for (const char *p = value; *p; ++p) {
        char c = *p;
        bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                     strchr("._-/:+@=,%", c) != nullptr;
        if (!plain) return false;
    }
    return true;
}

void Command::compose(size_t limit, const char *fmt, const command_detail::Arg *args,
                      size_t count) {
    using command_detail::Kind;
    if (limit > kCapacity) limit = kCapacity;
    size_t n = 0, arg = 0;
    bool fits = true;
    auto put = [&](const char *s, size_t len) {
        if (!fits || n + len + 1 > limit) {
            fits = false;
            return;
        }
        memcpy(buf_ + n, s, len);
        n += len;
    };
    for (size_t i = 0; fmt[i] && fits;) {
        if (fmt[i] != '%') {
            put(fmt + i, 1);
            ++i;
            continue;
        }
        command_detail::Conv c{};
        bool percent = false;
        i = command_detail::parse_conv(fmt, i, c, percent);
        if (percent) {
            put("%", 1);
            continue;
        }
        if (c.kind == Kind::Invalid || arg >= count) {  // checked when compiled; stay safe anyway
            fits = false;
            break;
        }
        const command_detail::Arg &a = args[arg++];
        char tmp[kCapacity];
        if (a.kind == Kind::Text) {
            const char *v = a.text ? a.text : "";
            if (shell_word_is_plain(v)) {
                put(v, strlen(v));
            } else {
                int q = shell_quote(tmp, sizeof tmp, v);
                if (q < 0) fits = false;
                else put(tmp, size_t(q));
            }
        } else {
            // Integers are formatted by number, never by the argument's text.
            char spec[16];
            snprintf(spec, sizeof spec, c.zero ? "%%0%ull%c" : "%%%ull%c", unsigned(c.width),
                     a.kind == Kind::Signed ? 'd' : 'u');
            int len = a.kind == Kind::Signed ? snprintf(tmp, sizeof tmp, spec, a.s)
                                             : snprintf(tmp, sizeof tmp, spec, a.u);
            if (len < 0) fits = false;
            else put(tmp, size_t(len));
        }
    }
    ok_ = fits;
    buf_[ok_ ? n : 0] = '\0';
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
