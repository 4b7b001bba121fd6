// SPDX-License-Identifier: ISC
// The store's journal: whatever changes follow a mark, undo() gives back the
// marked map exactly, and marks again (the fuzzers restore their profile so).
#include <gtest/gtest.h>

#include <functional>

#include "sim/xmldb/store.h"

TEST(XmldbStore, UndoGivesBackTheMarkedMap) {
    const xmldb::Map profile = {{"/a", "1"}, {"/a/b", "2"}, {"/a/b/c", ""}, {"/a0", "3"}, {"/z", "4"}};
    using Change = std::function<void(xmldb::Store &)>;
    const std::pair<const char *, Change> changes[] = {
        {"value changed", [](auto &s) { s.set("/a", "x"); }},
        {"key added above existing ones", [](auto &s) { s.set("/a/b/c/d", "n"), s.set("/q", ""); }},
        {"same key set twice", [](auto &s) { s.set("/z", "5"), s.set("/z", "6"), s.set("/new", "1"), s.set("/new", "2"); }},
        {"subtree", [](auto &s) { s.erase_subtree("/a/"); }},
        {"everything, then new keys", [](auto &s) { s.set("/a", "x"), s.erase_subtree("/"), s.set("/b", "1"); }},
        {"erased then set", [](auto &s) { s.erase_subtree("/a/b"), s.set("/a/b/c", "back"), s.set("/a/b", "again"); }},
        {"invalid key refused", [](auto &s) { s.set("#x", "1"), s.set("/a", "y"); }},
    };
    xmldb::Store s;
    s.replace(profile);
    s.mark();
    for (const auto &[what, change] : changes) {
        change(s);
        EXPECT_NE(s.map(), profile) << what;
        s.undo();
        EXPECT_EQ(s.map(), profile) << what;
    }
    s.replace({{"/only", "1"}});  // a replacement is the new mark
    s.set("/only", "2"), s.undo();
    EXPECT_EQ(s.map(), (xmldb::Map{{"/only", "1"}}));
}
