// Process and text utilities, and cli_get_val.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>

#include "lrgbin/lrgbin.h"
#include "lrgbin/rgdb_getset.h"
#include "support.h"

TEST(PointerArray, GrowthCapacityAndDestroy)
{
    lrgbin_pa pa;
    lrgbin_pa_init(&pa, 0);
    EXPECT_EQ(pa.growby, 16u);
    int marker = 0;
    ASSERT_EQ(lrgbin_pa_set_nth(&pa, 40, &marker, 0), 0);
    EXPECT_EQ(pa.capacity, 48u);
    for (uint64_t i = 0; i < 48; i++)
        EXPECT_EQ(lrgbin_pa_get_nth(&pa, i), i == 40 ? &marker : nullptr) << i;
    EXPECT_EQ(lrgbin_pa_get_nth(&pa, 48), nullptr);
    ASSERT_EQ(lrgbin_pa_set_nth(&pa, 47, nullptr, 0), 0);
    EXPECT_EQ(pa.capacity, 48u);  // index below capacity: no growth
    lrgbin_pa_destroy(&pa, 0);

    // Owned items: replaced ones and the rest are released (ASan checks).
    lrgbin_pa_init(&pa, 5);
    lrgbin_pa_set_nth(&pa, 2, strdup("a"), 1);
    lrgbin_pa_set_nth(&pa, 2, strdup("b"), 1);
    lrgbin_pa_set_nth(&pa, 6, strdup("c"), 1);
    EXPECT_EQ(pa.capacity, 10u);
    EXPECT_STREQ(static_cast<char *>(lrgbin_pa_get_nth(&pa, 2)), "b");
    lrgbin_pa_destroy(&pa, 1);
    EXPECT_EQ(pa.growby, 16u);
    EXPECT_EQ(pa.capacity, 0u);
    EXPECT_EQ(pa.slots, nullptr);
    EXPECT_EQ(lrgbin_pa_grows(&pa, 0), 0);
}

TEST(Lines, CarriageReturnsAndStripFlag)
{
    for (int strip : {0, 1}) {
        FILE *in = fmemopen(const_cast<char *>("ab\r\ncd"), 6, "r");
        char *l1 = lrgbin_get_line_from_file(in, strip);
        char *l2 = lrgbin_get_line_from_file(in, strip);
        EXPECT_STREQ(l1, strip ? "ab" : "ab\n");
        EXPECT_STREQ(l2, "cd");
        EXPECT_EQ(lrgbin_get_line_from_file(in, strip), nullptr);
        free(l1);
        free(l2);
        fclose(in);
    }
    std::string longline(200, 'x');
    FILE *in = fmemopen(longline.data(), longline.size(), "r");
    char *l = lrgbin_get_line_from_file(in, 1);
    EXPECT_EQ(std::string(l), longline);
    free(l);
    fclose(in);
}

TEST(DayString, Ranges)
{
    struct {
        int first, last;
        const char *want;
    } cases[] = {
        {1, 3, "Mon,Tue,Wed"}, {5, 1, "Fri,Sat,Sun,Mon"}, {2, 2, "Tue"},
        {6, 5, "Sat,Sun,Mon,Tue,Wed,Thu,Fri"}, {8, 13, "Mon,Tue,Wed,Thu,Fri,Sat"},
        {0, 3, "Mon,Tue,Wed,Thu,Fri,Sat"}, {4, 7, "Mon,Tue,Wed,Thu,Fri,Sat"},  // unchanged
    };
    for (auto &c : cases)
        EXPECT_STREQ(lrgbin_getdaystring(c.first, c.last), c.want) << c.first << ".." << c.last;
}

TEST(Text, WhiteSpace)
{
    char s[] = " \t a b \t ";
    EXPECT_STREQ(lrgbin_eatwhite(s), "a b \t ");
    EXPECT_EQ(lrgbin_reatwhite(s), 'b');
    EXPECT_STREQ(s, " \t a b");
    char blank[] = " \t";
    EXPECT_EQ(lrgbin_reatwhite(blank), -1);
    EXPECT_EQ(blank[0], '\0');
    EXPECT_EQ(lrgbin_eatwhite(nullptr), nullptr);
    EXPECT_EQ(lrgbin_reatwhite(nullptr), 0);
}

TEST(Shell, RunShellAndSystem)
{
    struct {
        const char *cmd;
        int size;
        const char *want;
    } cases[] = {
        {"printf 'abc\\n'", 16, "abc"},
        {"printf 'two\\n\\n'", 16, "two\n"},
        {"printf abcdefgh", 5, "abcd"},
        {"printf 'abc\\n'", 4, "abc"},
        {"true", 8, ""},
    };
    for (auto &c : cases) {
        char buf[16];
        EXPECT_EQ(lrgbin_run_shell(buf, c.size, "%s", c.cmd), 0);
        EXPECT_STREQ(buf, c.want) << c.cmd;
    }
    int st = lrgbin_system("exit %d", 3);
    EXPECT_TRUE(WIFEXITED(st));
    EXPECT_EQ(WEXITSTATUS(st), 3);
}

TEST(CliGetVal, ReadsFileOnce)
{
    dbtest::TempDir dir;
    FILE *f = fopen("val", "w");
    fputs("123456", f);
    fclose(f);
    char buf[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(cli_get_val(buf, 4, "%s/%s", ".", "val"), 4);
    EXPECT_STREQ(buf, "123");
    EXPECT_EQ(cli_get_val(buf, 4, "missing"), -1);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(cli_get_val(nullptr, 4, "val"), -1);
}
