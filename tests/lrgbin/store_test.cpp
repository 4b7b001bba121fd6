// SPDX-License-Identifier: ISC
// The in-process store gives the typed functions the socket path's results.
#include <gtest/gtest.h>

#include <fstream>

#include "lrgbin/lrgbin.h"
#include "lrgbin/rgdb_getset.h"
#include "sim/store/rgdb_store.h"
#include "support.h"

TEST(Store, TypedAccessMatchesTheSocketPath) {
    dbtest::TempDir dir;
    std::ofstream("p") << "# c\n/a one\\ttwo\n/b\n";
    lrgbin_store::clear();
    EXPECT_TRUE(lrgbin_store::load_profile("p"));
    EXPECT_EQ(lrgbin_store::find("/a"), "one\ttwo");
    EXPECT_EQ(lrgbin_store::find("/b"), "");
    EXPECT_FALSE(lrgbin_store::load_profile("nope"));
    EXPECT_EQ(tav_rgdb_set_digit(5, "/wlan/inf:%d/wlmode", 1), 0);
    EXPECT_EQ(lrgbin_store::find("/wlan/inf:1/wlmode"), "5");
    EXPECT_EQ(tav_rgdb_set_str("12", "/v"), 0);
    char two[2] = {'x', 'x'}, buf[8] = "xxxxxxx";
    EXPECT_EQ(_rgdb_get_(two, 2, "/v"), 0);
    EXPECT_STREQ(two, "1");
    EXPECT_EQ(_rgdb_get_(buf, 8, "/missing"), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(_rgdb_set_("/k a", "b c"), 0);  // split at the first space, like the server
    EXPECT_EQ(lrgbin_store::find("/k"), "a b c");
    EXPECT_EQ(_rgdb_set_("", "x"), -1);
    EXPECT_EQ(binary__rgdb_set_(nullptr, 1), -1);
    lrgbin_store::put("/d", " 42a");
    EXPECT_EQ(rgdb_get_digit("/d"), 42);

    lrgbin_store::set_online(false);
    char keep[4] = "abc";
    EXPECT_EQ(_rgdb_get_(keep, 4, "/v"), -1);
    EXPECT_STREQ(keep, "abc");
    EXPECT_EQ(_rgdb_set_("/v", "1"), -1);
    EXPECT_EQ(binary__rgdb_set_("/v", 1), 0);
    lrgbin_store::set_online(true);
    EXPECT_EQ(lrgbin_store::find("/v"), "12");
    EXPECT_EQ(lrgbin_store::calls(), 10u);  // the refused null key is not a call
}
