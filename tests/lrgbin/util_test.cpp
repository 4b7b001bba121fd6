// SPDX-License-Identifier: ISC
// Process and text utilities, and cli_get_val.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstring>
#include <fstream>
#include <string>

#include "lrgbin/lrgbin.h"
#include "lrgbin/rgdb_getset.h"
#include "support.h"
#include "sim/record/record.h"

TEST(PointerArray, GrowsByItsStepAndReleasesOwnedItems) {
    lrgbin_pa pa;
    int marker = 0;
    for (auto [growby, index, capacity] : {std::tuple{0u, 40u, 48u}, {5u, 6u, 10u}, {5u, 4u, 5u}}) {
        lrgbin_pa_init(&pa, growby);
        ASSERT_EQ(lrgbin_pa_set_nth(&pa, index, &marker, 0), 0);
        EXPECT_EQ(pa.capacity, capacity) << growby << " " << index;
        for (uint64_t i = 0; i <= capacity; i++)
            EXPECT_EQ(lrgbin_pa_get_nth(&pa, i), i == index ? &marker : nullptr) << i;
        lrgbin_pa_destroy(&pa, 0);
    }
    // Owned items: replaced ones and the rest are released (ASan checks).
    lrgbin_pa_init(&pa, 2);
    lrgbin_pa_set_nth(&pa, 1, strdup("a"), 1);
    lrgbin_pa_set_nth(&pa, 1, strdup("b"), 1);
    lrgbin_pa_set_nth(&pa, 3, strdup("c"), 1);
    EXPECT_STREQ(static_cast<char *>(lrgbin_pa_get_nth(&pa, 1)), "b");
    lrgbin_pa_destroy(&pa, 1);
    EXPECT_EQ(pa.growby + pa.capacity, 16u);
    EXPECT_EQ(pa.slots, nullptr);
}

TEST(Text, LinesDaysAndWhiteSpace) {
    std::string longline(200, 'x'), text = "ab\r\ncd\n" + longline;
    for (int strip : {0, 1}) {
        FILE *in = fmemopen(text.data(), text.size(), "r");
        for (std::string want : {strip ? "ab" : "ab\n", strip ? "cd" : "cd\n", longline.c_str()}) {
            char *l = lrgbin_get_line_from_file(in, strip);
            EXPECT_EQ(l ? l : "(null)", want);
            free(l);
        }
        EXPECT_EQ(lrgbin_get_line_from_file(in, strip), nullptr);
        fclose(in);
    }
    for (auto [first, last, want] : {std::tuple{1, 3, "Mon,Tue,Wed"}, {5, 1, "Fri,Sat,Sun,Mon"}, {2, 2, "Tue"},
                                     {6, 5, "Sat,Sun,Mon,Tue,Wed,Thu,Fri"}, {8, 13, "Mon,Tue,Wed,Thu,Fri,Sat"},
                                     {0, 3, "Mon,Tue,Wed,Thu,Fri,Sat"}, {4, 7, "Mon,Tue,Wed,Thu,Fri,Sat"}})  // unchanged
        EXPECT_STREQ(lrgbin_getdaystring(first, last), want) << first << ".." << last;
    char s[] = " \t a b \t ", blank[] = " \t";
    EXPECT_STREQ(lrgbin_eatwhite(s), "a b \t ");
    EXPECT_EQ(lrgbin_reatwhite(s), 'b');
    EXPECT_STREQ(s, " \t a b");
    EXPECT_EQ(lrgbin_reatwhite(blank), -1);
    EXPECT_EQ(blank[0], '\0');
}

// The shell helpers start nothing themselves: they compose the command and
// hand it to the launcher (the recorder here), which the daemon's build
// replaces with the real one.
TEST(Shell, RunShellAndSystemGoThroughTheLauncher) {
    using tavc_record::LaunchKind;
    for (auto [output, size, want] : {std::tuple{"abc\n", 16, "abc"}, {"two\n\n", 16, "two\n"}, {"abcdefgh", 5, "abcd"},
                                      {"abc\n", 4, "abc"}, {"", 8, ""}}) {
        tavc_record::clear();
        tavc_record::set_read_output(output);
        char buf[16];
        std::memset(buf, 'x', sizeof buf);
        EXPECT_EQ(lrgbin_run_shell(buf, size, "cat /var/run/%s.%d", "f", 7), 0);
        EXPECT_STREQ(buf, want) << output << " " << size;
        ASSERT_EQ(tavc_record::launches().size(), 1u);
        EXPECT_EQ(tavc_record::launches()[0].kind, LaunchKind::Read);
        EXPECT_EQ(tavc_record::launches()[0].command, "cat /var/run/f.7");
    }
    char none[1] = {'x'};
    EXPECT_EQ(lrgbin_run_shell(nullptr, 8, "true"), -1);
    EXPECT_EQ(lrgbin_run_shell(none, 0, "true"), -1);

    tavc_record::clear();
    tavc_record::set_system_status(3 << 8);
    EXPECT_EQ(lrgbin_system("exit %d", 3), 3 << 8);
    ASSERT_EQ(tavc_record::launches().size(), 1u);
    EXPECT_EQ(tavc_record::launches()[0].kind, LaunchKind::System);
    EXPECT_EQ(tavc_record::launches()[0].command, "exit 3");
    // Cut to the 1024-byte buffer, as composed.
    tavc_record::clear();
    lrgbin_system("%s", std::string(1100, 'y').c_str());
    EXPECT_EQ(tavc_record::launches().at(0).command, std::string(1023, 'y'));
    tavc_record::clear();
}

TEST(Text, CliGetValReadsASmallFileNamedPrintfStyle) {
    dbtest::TempDir dir;
    std::ofstream(dir.file("val")) << "123456";
    char buf[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(cli_get_val(buf, 4, "%s/%s", ".", "val"), 4);
    EXPECT_STREQ(buf, "123");
    EXPECT_EQ(cli_get_val(buf, 1, "val"), 1);  // one byte read, and cut for the NUL
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(cli_get_val(buf, 0, "val"), -1);
    EXPECT_EQ(cli_get_val(buf, 4, "missing"), -1);
    EXPECT_STREQ(buf, "");
}

// Keys are composed without vsnprintf where the format allows; the text must
// be vsnprintf's to the byte, cut included.
TEST(Text, KeysComposeAsSnprintfWould) {
    const char *null = nullptr;
    for (int size : {64, 12, 5, 1}) {
        char want[64], got[64];
        auto same = [&](const char *what, auto... args) {
            std::memset(got, 'x', sizeof got);
            snprintf(want, size_t(size), what, args...);
            rgdb_format_key(got, size, what, args...);
            EXPECT_STREQ(got, want) << what << " in " << size;
            EXPECT_TRUE(size == 64 || got[size] == 'x') << what << ": written past " << size;
        };
        same("/wlan/inf:%d/multi/index:%d/ssid", 2, 7);
        same("/a/%d/%u/%s/%%", -2147483647 - 1, 4294967295u, "leaf");
        same("%s:%d", "", 0);
        same("/x/%02d/%ld/%x", 3, 5L, 255);  // width, length, hex: vsnprintf itself
        same("/x/%s", null);
        same("trailing %");
    }
}
