// The shipped daemon must run with libc alone: its dynamic section may name
// nothing but libc (and libdl where that is separate).
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

TEST(Binary, NeedsOnlyLibc) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "sanitizer runtimes are linked in this build";
#endif
    FILE *p = popen("readelf -d '" TAVC_BINARY "' 2>&1", "r");
    ASSERT_NE(p, nullptr);
    std::string all;
    int needed = 0;
    for (char line[512]; fgets(line, sizeof line, p);) {
        all += line;
        std::string l(line);
        if (l.find("(NEEDED)") == std::string::npos) continue;
        ++needed;
        EXPECT_TRUE(l.find("[libc.so.6]") != std::string::npos ||
                    l.find("[libdl.so.2]") != std::string::npos)
            << l;
    }
    EXPECT_EQ(pclose(p), 0) << all;
    EXPECT_GT(needed, 0) << all;
}
