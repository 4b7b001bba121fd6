// SPDX-License-Identifier: ISC
// Key/value store of the substitute configuration database and its text
// file format (shared by xmldb and the in-process store of lrgbin_store).
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace xmldb {

using Map = std::map<std::string, std::string, std::less<>>;

// A key that can be stored and written back to a profile line: not empty,
// no control characters (spaces are impossible: a set splits at the first),
// and not starting with '#', which would read back as a comment.
bool valid_key(std::string_view key);

std::string escape_value(std::string_view value);
std::string format_profile(const Map &map);

bool read_file(const std::string &path, std::string &out, std::string &err);
// Profile text: one "KEY VALUE" per line, value escapes \\ \n \r \t, blank
// lines and '#' comments skipped. On the first malformed line: false, err
// "PATH: line N: reason", and out holds nothing useful.
bool load_file(const std::string &path, Map &out, std::string &err);
// Writes a temporary file beside the target, syncs it and renames it over.
bool dump_file(const std::string &path, const Map &map, std::string &err);

class Store {
public:
    // The empty text for a key that does not exist.
    std::string_view get(std::string_view key) const;
    bool set(std::string_view key, std::string_view value);
    // Removes the key and every key below it; returns how many went.
    std::size_t erase_subtree(std::string_view key);
    // Applies profile text (a patch buffer) with count = its entries, or
    // nothing at all and err = "line N: reason" when a line is malformed.
    bool apply_text(std::string_view text, std::size_t &count, std::string &err);
    // Replaces every <?rgdb KEY?> with the key's value.
    std::string expand(std::string_view text, std::size_t limit) const;

    const Map &map() const { return map_; }
    void replace(Map map) { map_ = std::move(map); undo_.clear(); }

    // From mark() on every change is journalled, and undo() takes the store
    // back to the state at the mark (and marks again; replace() marks too): a
    // fuzzer restores its profile per input without copying the whole map.
    void mark();
    void undo();

private:
    // One change since the mark: a key added (its name), a value changed
    // (the entry and its value before), an entry erased (kept whole) or
    // everything erased (the map as it was).
    struct Change {
        std::string text;
        Map::value_type *entry = nullptr;
        Map::node_type erased;
        Map all;
        bool cleared = false;
    };

    void erase(Map::const_iterator it);
    void put(std::string_view key, std::string_view value);  // a valid key

    Map map_;
    bool journalling_ = false;
    std::vector<Change> undo_;
    std::string scratch_;  // an unescaped value on its way in
};

}  // namespace xmldb
