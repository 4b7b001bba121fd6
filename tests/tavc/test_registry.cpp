// Manager registry: precedence per op code and per manager, bye, limits.
#include <cstring>

#include "engine_fixture.h"
#include "tavc/handlers.h"

namespace {

constexpr tav::Mac kA{0x02, 0, 0, 0, 0, 0xA}, kB{0x02, 0, 0, 0, 0, 0xB}, kZero{};

tav_server sender(const tav::Mac &mac) {
    tav_server s{};
    std::memcpy(s.mac, mac.data(), 6);
    return s;
}

int list_size() {
    int n = 0;
    for (tav_server *s = tav_server_list; s; s = s->next) ++n;
    return n;
}

struct Step {
    tav::Mac who;
    uint16_t op;
    uint8_t precedence;
    int rc;  // expected; 99 = send a bye from `who` instead
};
constexpr int kBye = 99;

}  // namespace

class Registry : public Engine {
  protected:
    void run(const char *name, std::initializer_list<Step> steps) {
        free_tav_server();
        int i = 0;
        for (const Step &s : steps) {
            tav_server who = sender(s.who);
            if (s.rc == kBye) {
                std::memcpy(tav_tmp_server->mac, s.who.data(), 6);
                EXPECT_EQ(call(tav_bye, {}).first, 0);
            } else {
                EXPECT_EQ(check_server_precedence(s.op, s.precedence, &who), s.rc)
                    << name << " step " << i;
            }
            ++i;
        }
    }
};

TEST_F(Registry, PrecedenceScenarios) {
    run("A then B", {{kA, 0xE1, 5, 0}, {kB, 0xE1, 3, -1}, {kB, 0xE1, 5, 0}, {kB, 0xE1, 6, 0},
                     {kA, 0xE1, 5, -1}});
    EXPECT_EQ(list_size(), 2);
    EXPECT_EQ(tav_server_list->mac[5], 0xB) << "new records go to the head";

    run("own earlier entry counts once", {{kA, 0xE1, 7, 0}, {kA, 0xE1, 3, -1}, {kA, 0xE1, 3, 0}});
    EXPECT_EQ(list_size(), 1);

    run("per op code", {{kA, 0xE1, 9, 0}, {kB, 0xE5, 1, 0}, {kB, 0xE1, 8, -1}});

    run("bye removes the manager",
        {{kA, 0xE1, 9, 0}, {kB, 0xE1, 3, -1}, {kA, 0, 0, kBye}, {kB, 0xE1, 3, 0}});
    EXPECT_EQ(list_size(), 1);

    run("bye of an unknown manager changes nothing", {{kA, 0xE1, 9, 0}, {kB, 0, 0, kBye}});
    EXPECT_EQ(list_size(), 1);

    run("bye of the second record unlinks it",
        {{kA, 0xE1, 1, 0}, {kB, 0xE1, 1, 0}, {kA, 0, 0, kBye}, {kB, 0xE1, 0, -1}});
    EXPECT_EQ(list_size(), 1);

    run("zero MAC senders share one record", {{kZero, 0xE1, 5, 0}, {kZero, 0xE1, 3, -1}});
    EXPECT_EQ(list_size(), 1);
}

TEST_F(Registry, FullEntryTableStoresNothingNew) {
    tav_server a = sender(kA), b = sender(kB);
    for (uint16_t op = 1; op <= 31; ++op) ASSERT_EQ(check_server_precedence(op, 1, &a), 0);
    EXPECT_EQ(check_server_precedence(0xE1, 9, &a), 0);
    EXPECT_EQ(check_server_precedence(0xE1, 1, &b), 0) << "A's 9 must not have been stored";
    EXPECT_EQ(check_server_precedence(0xE1, 5, &b), 0);
    EXPECT_EQ(check_server_precedence(0xE1, 3, &a), -1) << "others still refuse A";
    EXPECT_EQ(check_server_precedence(31, 0, &b), -1) << "A's own entries still count";
}

TEST_F(Registry, AtMost1024Managers) {
    for (int i = 0; i < kTavServerMax; ++i) {
        tav::Mac m{0x02, 0x10, 0, 0, uint8_t(i >> 8), uint8_t(i)};
        tav_server s = sender(m);
        ASSERT_EQ(check_server_precedence(0x10, 1, &s), 0);
    }
    EXPECT_EQ(list_size(), kTavServerMax);
    tav_server x = sender(kA), y = sender(kB);
    EXPECT_EQ(check_server_precedence(0xE1, 200, &x), 0);
    EXPECT_EQ(list_size(), kTavServerMax);
    EXPECT_EQ(check_server_precedence(0xE1, 100, &y), 0) << "the 1025th was not remembered";
    tav_server known{};
    std::memcpy(known.mac, tav_server_list->mac, 6);
    EXPECT_EQ(check_server_precedence(0x10, 0, &known), -1) << "known managers still count";
    free_tav_server();
    EXPECT_EQ(tav_server_list, nullptr);
    EXPECT_EQ(check_server_precedence(0xE1, 1, &x), 0);
    EXPECT_EQ(list_size(), 1) << "released records are reused";
}
