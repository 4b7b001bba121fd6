// SPDX-License-Identifier: ISC
// Shell commands composed from a literal format and values. Request text can
// enter a command only as a %s argument, and every %s argument is quoted:
//
//   Command c("tftp -f %s -r %s", server, file_name);
//   c.system();     // or c.spawn(), c.read(out, n); c.text() for the line
//
// A value made only of characters that need no quoting (letters, digits and
// . _ - / : + @ = , %) stands as it is, so ordinary values give exactly the
// plain command text; any other value, and the empty one, is single-quoted
// (embedded quotes escaped), so it always stays one literal argument. %d and
// %u take integers, %02d and the like included; %% is a percent sign. The
// format is checked at compile time against the arguments: a %s with a
// number, a %d with text, or a wrong count does not compile. A command that
// does not fit its buffer is not run, since a cut line could mean something
// else.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <type_traits>

#include "platform/proc.h"

namespace command_detail {

enum class Kind : uint8_t { Text, Signed, Unsigned, Invalid };

template <class T>
constexpr Kind kind_of() {
    using U = std::remove_cvref_t<std::decay_t<T>>;
    if constexpr (std::is_same_v<U, const char *> || std::is_same_v<U, char *>)
        return Kind::Text;
    else if constexpr (std::is_integral_v<U> && std::is_signed_v<U>)
        return Kind::Signed;
    else if constexpr (std::is_integral_v<U> && std::is_unsigned_v<U> && !std::is_same_v<U, bool>)
        return Kind::Unsigned;
    else
        static_assert(sizeof(U) == 0, "a command argument is text or an integer");
}

void format_mismatch();  // never defined: reached only by a bad format

// One parsed conversion: %[0][width](s|d|u)
struct Conv {
    Kind kind;
    bool zero;
    uint8_t width;
};

// Parses the conversion at f[i] == '%'; returns the index after it.
constexpr size_t parse_conv(const char *f, size_t i, Conv &c, bool &percent) {
    ++i;
    percent = false;
    if (f[i] == '%') {
        percent = true;
        return i + 1;
    }
    c = Conv{Kind::Text, false, 0};
    if (f[i] == '0') {
        c.zero = true;
        ++i;
    }
    while (f[i] >= '0' && f[i] <= '9') c.width = uint8_t(c.width * 10 + (f[i++] - '0'));
    switch (f[i]) {
    case 's':
        c.kind = (c.zero || c.width) ? Kind::Invalid : Kind::Text;
        break;
    case 'd':
        c.kind = Kind::Signed;
        break;
    case 'u':
        c.kind = Kind::Unsigned;
        break;
    default:
        c.kind = Kind::Invalid;
        return f[i] ? i + 1 : i;
    }
    return i + 1;
}

template <class... A>
struct Format {
    const char *text;
    template <size_t N>
    consteval Format(const char (&f)[N]) : text(f) {
        constexpr Kind kinds[sizeof...(A) + 1] = {kind_of<A>()..., Kind::Text};
        size_t arg = 0;
        for (size_t i = 0; i < N - 1;) {
            if (f[i] != '%') {
                ++i;
                continue;
            }
            Conv c{};
            bool percent = false;
            i = parse_conv(f, i, c, percent);
            if (percent) continue;
            if (c.kind == Kind::Invalid || arg >= sizeof...(A)) format_mismatch();
            Kind k = kinds[arg++];
            // A signed or unsigned integer may go to %d or %u alike.
            if ((c.kind == Kind::Text) != (k == Kind::Text)) format_mismatch();
        }
        if (arg != sizeof...(A)) format_mismatch();
    }
};

struct Arg {
    Kind kind;
    const char *text;
    long long s;
    unsigned long long u;
};
template <class T>
Arg make_arg(const T &v) {
    constexpr Kind k = kind_of<T>();
    if constexpr (k == Kind::Text)
        return Arg{k, v, 0, 0};
    else if constexpr (k == Kind::Signed)
        return Arg{k, nullptr, (long long)v, 0};
    else
        return Arg{k, nullptr, 0, (unsigned long long)v};
}

}  // namespace command_detail

// Writes `value` single-quoted for the shell ('it'\''s'), NUL-terminated.
// Returns the quoted length, or -1 (and out = "") when it does not fit.
int shell_quote(char *out, size_t cap, const char *value);

// True when `value` may stand in a command unquoted (non-empty, and only
// letters, digits and . _ - / : + @ = , %).
bool shell_word_is_plain(const char *value);

class Command {
  public:
    static constexpr size_t kCapacity = 1024;

    template <class... A>
    explicit Command(command_detail::Format<std::type_identity_t<A>...> fmt, const A &...args)
        : Command(kCapacity, fmt, args...) {}

    // The same with a smaller limit on the command's length (bytes, NUL
    // included), where a device buffer is smaller than kCapacity.
    template <class... A>
    Command(size_t limit, command_detail::Format<std::type_identity_t<A>...> fmt,
            const A &...args) {
        const command_detail::Arg list[sizeof...(A) + 1] = {command_detail::make_arg(args)...,
                                                            command_detail::Arg{}};
        compose(limit, fmt.text, list, sizeof...(A));
    }

    bool ok() const { return ok_; }
    const char *text() const { return buf_; }  // "" when !ok()

    int system() const { return ok_ ? proc_system(line()) : -1; }      // waits
    pid_t spawn() const { return ok_ ? proc_spawn(line()) : -1; }      // does not wait
    int read(char *out, int size) const {                            // popen, first size-1 bytes
        if (!ok_) {
            if (out && size > 0) out[0] = '\0';
            return -1;
        }
        return proc_read(line(), out, size);
    }

  private:
    ShellLine line() const { return ShellLine(buf_, 0); }
    void compose(size_t limit, const char *fmt, const command_detail::Arg *args, size_t count);

    char buf_[kCapacity] = {};
    bool ok_ = false;
};
