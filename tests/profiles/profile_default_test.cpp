// SPDX-License-Identifier: ISC
// The shipped default profile is something the daemon can live on:
// well-formed lines, lab-safe addresses, well-formed MACs.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <string>

TEST(DefaultProfile, WellFormedAndLabSafe) {
    std::ifstream in(TAVC_DEFAULT_PROFILE);
    ASSERT_TRUE(in) << TAVC_DEFAULT_PROFILE;
    std::map<std::string, std::string> values;
    std::string line;
    for (int n = 1; std::getline(in, line); ++n) {
        auto first = line.find_first_not_of(" \t");
        if (first == std::string::npos || line[first] == '#') continue;
        auto sp = line.find(' ');
        std::string key = line.substr(0, sp), value = sp == std::string::npos ? "" : line.substr(sp + 1);
        EXPECT_TRUE(std::regex_match(key, std::regex("(/[^/\\s]+)+"))) << "line " << n << ": key " << key;
        EXPECT_TRUE(std::regex_match(value, std::regex(R"(([^\\\r]|\\[\\nrt])*)"))) << "line " << n << ": bad escape";
        EXPECT_TRUE(value.empty() || value.back() != ' ') << "line " << n << ": trailing blank";
        EXPECT_TRUE(values.emplace(key, value).second) << "line " << n << ": duplicate key " << key;
    }
    EXPECT_GT(values.size(), 100u);

    static const std::regex quad(R"((\d+)\.(\d+)\.(\d+)\.(\d+))"), mac("([0-9a-f]{2}:){5}[0-9a-f]{2}");
    int macs = 0;
    for (const auto &[k, v] : values) {
        for (std::sregex_iterator it(v.begin(), v.end(), quad), end; it != end; ++it) {
            unsigned a = 0;
            for (int i = 1; i <= 4; ++i) a = a << 8 | std::stoul((*it)[i]);
            const unsigned net = a & 0xFFFFFF00u;  // documentation nets, masks, 0 and 224.0.0.1 only
            const bool doc = net == 0xC0000200u || net == 0xC6336400u || net == 0xCB007100u;
            const bool mask = a != 0 && ((~a + 1) & ~a) == 0;
            EXPECT_TRUE(doc || mask || a == 0 || a == 0xE0000001u) << k << " " << v;
        }
        if (k.ends_with("/mac")) {
            ++macs;
            EXPECT_TRUE(std::regex_match(v, mac)) << k << " " << v;
        }
    }
    EXPECT_GE(macs, 10);
    EXPECT_EQ(values["/runtime/wan/inf:1/mac"], "02:7a:76:00:00:01");
}
