// SPDX-License-Identifier: ISC
#include "store.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace xmldb {

bool valid_key(std::string_view key)
{
    if (key.empty() || key.front() == '#')
        return false;
    for (unsigned char c : key)
        if (c < 0x20 || c == 0x7f || c == ' ')
            return false;
    return true;
}

// Escapes are \\ \n \r \t; anything else after a backslash is malformed.
static bool valid_escapes(std::string_view in)
{
    for (std::size_t i = 0; i < in.size(); i++) {
        if (in[i] != '\\')
            continue;
        if (++i == in.size())
            return false;
        if (in[i] != '\\' && in[i] != 'n' && in[i] != 'r' && in[i] != 't')
            return false;
    }
    return true;
}

// `in` has passed valid_escapes().
static void unescape(std::string_view in, std::string &out)
{
    out.clear();
    out.reserve(in.size());
    for (std::size_t i = 0; i < in.size(); i++) {
        char c = in[i];
        if (c == '\\') {
            switch (in[++i]) {
            case 'n': c = '\n'; break;
            case 'r': c = '\r'; break;
            case 't': c = '\t'; break;
            default: c = '\\'; break;
            }
        }
        out += c;
    }
}

// Each entry line of profile text, split at its first space into the key
// and the value, still escaped; blank lines and comments skipped.
template <class Entry>
static void split_lines(std::string_view text, Entry &&entry)
{
    for (std::size_t lineno = 1; !text.empty(); lineno++) {
        std::size_t nl = text.find('\n');
        std::string_view line = text.substr(0, nl);
        text = nl == std::string_view::npos ? std::string_view() : text.substr(nl + 1);
        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        std::size_t first = line.find_first_not_of(" \t");
        if (first == std::string_view::npos || line[first] == '#')
            continue;
        std::size_t sp = line.find(' ');
        if (!entry(lineno, line, line.substr(0, sp),
                   sp == std::string_view::npos ? std::string_view() : line.substr(sp + 1)))
            return;
    }
}

// The entries of profile text, each checked before entry(key, value still
// escaped) sees it; at the first malformed line false and "line N: reason".
template <class Entry>
static bool walk_profile(std::string_view text, std::string &err, Entry &&entry)
{
    const char *why = nullptr;
    std::size_t at = 0;
    split_lines(text, [&](std::size_t lineno, std::string_view line, std::string_view key, std::string_view raw) {
        if (line.find('\0') != std::string_view::npos)
            why = "NUL byte";
        else if (!valid_key(key))
            why = "invalid key";
        else if (!valid_escapes(raw))
            why = "bad escape in value";
        else
            entry(key, raw);
        at = lineno;
        return why == nullptr;
    });
    if (why)
        err = "line " + std::to_string(at) + ": " + why;
    return why == nullptr;
}

std::string escape_value(std::string_view value)
{
    std::string out;
    out.reserve(value.size());
    for (char c : value) {
        switch (c) {
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default: out += c;
        }
    }
    return out;
}

std::string format_profile(const Map &map)
{
    std::string out;
    for (const auto &[key, value] : map) {
        out += key;
        if (!value.empty()) {
            out += ' ';
            out += escape_value(value);
        }
        out += '\n';
    }
    return out;
}

bool read_file(const std::string &path, std::string &out, std::string &err)
{
    // Bounded: a state file is small, and a wrong path must not eat memory.
    constexpr std::size_t max_size = 64u << 20;
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f) {
        err = path + ": " + std::strerror(errno);
        return false;
    }
    out.clear();
    char chunk[65536];
    std::size_t n;
    while ((n = std::fread(chunk, 1, sizeof(chunk), f)) > 0) {
        out.append(chunk, n);
        if (out.size() > max_size) {
            std::fclose(f);
            err = path + ": file too large";
            return false;
        }
    }
    bool bad = std::ferror(f);
    std::fclose(f);
    if (bad) {
        err = path + ": read error";
        return false;
    }
    return true;
}

bool load_file(const std::string &path, Map &out, std::string &err)
{
    std::string text;
    if (!read_file(path, text, err))
        return false;
    out.clear();
    std::string value;
    if (!walk_profile(text, err, [&](std::string_view key, std::string_view raw) {
            unescape(raw, value);
            out.insert_or_assign(std::string(key), value);
        })) {
        err = path + ": " + err;
        return false;
    }
    return true;
}

bool dump_file(const std::string &path, const Map &map, std::string &err)
{
    std::string text = format_profile(map);
    std::string tmp = path + ".XXXXXX";
    int fd = mkstemp(tmp.data());
    if (fd < 0) {
        err = tmp + ": " + std::strerror(errno);
        return false;
    }
    const char *p = text.data();
    std::size_t left = text.size();
    bool ok = true;
    while (left > 0) {
        ssize_t n = write(fd, p, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            ok = false;
            break;
        }
        p += n;
        left -= static_cast<std::size_t>(n);
    }
    ok = ok && fchmod(fd, 0644) == 0 && fsync(fd) == 0;
    ok = (close(fd) == 0) && ok;
    if (ok && rename(tmp.c_str(), path.c_str()) == 0)
        return true;
    err = path + ": " + std::strerror(errno);
    unlink(tmp.c_str());
    return false;
}

std::string_view Store::get(std::string_view key) const
{
    auto it = map_.find(key);
    return it == map_.end() ? std::string_view() : std::string_view(it->second);
}

bool Store::set(std::string_view key, std::string_view value)
{
    if (!valid_key(key))
        return false;
    put(key, value);
    return true;
}

void Store::put(std::string_view key, std::string_view value)
{
    // One descent: the place found serves the insert too.
    auto it = map_.lower_bound(key);
    if (it == map_.end() || std::string_view(it->first) != key) {
        if (journalling_)
            undo_.push_back({std::string(key), nullptr, {}, {}, false});
        map_.emplace_hint(it, std::string(key), std::string(value));
    } else {
        if (journalling_)
            undo_.push_back({std::move(it->second), &*it, {}, {}, false});
        it->second.assign(value);
    }
}

void Store::erase(Map::const_iterator it)
{
    if (journalling_)
        undo_.push_back({{}, nullptr, map_.extract(it), {}, false});
    else
        map_.erase(it);
}

void Store::mark()
{
    journalling_ = true;
    undo_.clear();
}

// Backwards, so that each change meets the state it was made in. Erased
// entries go back as the same nodes (an entry whose value changed before it
// was erased is found again), a run of them in one pass from the top down.
void Store::undo()
{
    auto hint = map_.end();
    for (auto it = undo_.rbegin(); it != undo_.rend(); ++it) {
        if (it->cleared) {
            map_ = std::move(it->all);
            hint = map_.end();
            continue;
        }
        if (!it->erased.empty()) {
            hint = map_.insert(hint, std::move(it->erased));
            continue;
        }
        hint = map_.end();
        if (it->entry)
            it->entry->second = std::move(it->text);
        else
            map_.erase(map_.find(it->text));  // added since the mark, so there
    }
    undo_.clear();
}

std::size_t Store::erase_subtree(std::string_view key)
{
    while (key.size() > 1 && key.back() == '/')
        key.remove_suffix(1);
    if (key.empty())
        return 0;
    std::size_t n = 0;
    auto first = map_.begin(), last = map_.end();
    if (key == "/" && journalling_) {
        n = map_.size();
        undo_.push_back({{}, nullptr, {}, std::move(map_), true});
        map_.clear();
        return n;
    }
    if (key != "/") {
        // The key, then those below "K/", which sort from "K/" up to, not
        // including, "K0" ('0' follows '/').
        if (auto it = map_.find(key); it != map_.end()) {
            erase(it);
            n++;
        }
        std::string lo(key), hi(key);
        lo += '/';
        hi += '0';
        first = map_.lower_bound(lo);
        last = map_.lower_bound(hi);
    }
    while (first != last) {
        erase(first++);
        n++;
    }
    return n;
}

bool Store::apply_text(std::string_view text, std::size_t &count, std::string &err)
{
    // Checked whole first: a malformed line leaves the store as it was.
    std::size_t n = 0;
    count = 0;
    if (!walk_profile(text, err, [&](std::string_view, std::string_view) { n++; }))
        return false;
    count = n;
    split_lines(text, [&](std::size_t, std::string_view, std::string_view key, std::string_view raw) {
        if (raw.find('\\') == std::string_view::npos) {
            put(key, raw);
        } else {
            unescape(raw, scratch_);
            put(key, scratch_);
        }
        return true;
    });
    return true;
}

std::string Store::expand(std::string_view text, std::size_t limit) const
{
    static constexpr std::string_view open = "<?rgdb";
    static constexpr std::string_view close = "?>";
    std::string out;
    while (!text.empty() && out.size() < limit) {
        std::size_t at = text.find(open);
        std::size_t end = at == std::string_view::npos ? at : text.find(close, at + open.size());
        if (end == std::string_view::npos) {
            out += text;
            break;
        }
        out += text.substr(0, at);
        std::string_view key = text.substr(at + open.size(), end - at - open.size());
        std::size_t b = key.find_first_not_of(" \t");
        std::size_t e = key.find_last_not_of(" \t");
        key = b == std::string_view::npos ? std::string_view() : key.substr(b, e - b + 1);
        out += get(key);
        text.remove_prefix(end + close.size());
    }
    if (out.size() > limit)
        out.resize(limit);
    return out;
}

}  // namespace xmldb
