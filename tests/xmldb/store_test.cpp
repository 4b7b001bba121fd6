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

// A patch buffer applies whole or not at all, and names its first bad line.
TEST(XmldbStore, PatchTextAppliesWholeOrNotAtAll) {
    struct Case {
        const char *text;
        bool ok;
        std::size_t count;
        const char *err;
        xmldb::Map after;
    };
    const xmldb::Map before = {{"/a", "1"}};
    const Case cases[] = {
        {"/a 2\n\n# note\n/b x\\ty\\\\z\r\n/c", true, 3, "", {{"/a", "2"}, {"/b", "x\ty\\z"}, {"/c", ""}}},
        {"/b 1\n  \n#x\n/c bad\\q", false, 0, "line 4: bad escape in value", before},
        {"/b 1\n#k 2\n x 3", false, 0, "line 3: invalid key", before},
        {"/b 1\n/c a\\", false, 0, "line 2: bad escape in value", before},
    };
    for (const auto &c : cases) {
        xmldb::Store s;
        s.replace(before);
        std::size_t count = 99;
        std::string err;
        EXPECT_EQ(s.apply_text(c.text, count, err), c.ok) << c.text;
        EXPECT_EQ(count, c.count) << c.text;
        EXPECT_EQ(err, c.err) << c.text;
        EXPECT_EQ(s.map(), c.after) << c.text;
    }
    xmldb::Store s;
    std::size_t count = 0;
    std::string err;
    EXPECT_FALSE(s.apply_text(std::string_view("/a 1\n/b \0", 9), count, err));
    EXPECT_EQ(err, "line 2: NUL byte");
}
