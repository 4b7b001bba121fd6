// SPDX-License-Identifier: ISC
// Discovery as the database makes it, on both paths; every advertised
// function answered; and the precedence managers claim with tag 54.
#include "tests/e2e/e2e.h"

namespace e2e {
namespace {

using namespace tav::client;

E2E_SUITE(Presence, "pres", 1, "");

// Values written to the database reach the identity at once, the same on
// both paths; a stopped agent's values do not count.
TEST_F(Presence, DiscoveryFollowsTheDatabaseOnBothPaths) {
    const struct {
        std::vector<std::pair<std::string, std::string>> keys;
        const char *host, *system;
        uint16_t port;
        uint8_t managed;
        std::string ip;
    } cases[] = {
        {{}, "ap1", "AP-Lab-1", 80, 0, "192.0.2.11"},
        {{{"/qm5_agent/running", "1"}, {"/qm5_agent/managed_status", "5"}, {"/sys/web/port", "8080"},
          {"/sys/systemName", "Lab AP 50% \"one\""}, {"/runtime/wan/inf:1/ip", "not-an-address"}},
         "ap1", "Lab AP 50% \"one\"", 8080, 5, "0.0.0.0"},
        {{{"/qm5_agent/running", "0"}, {"/sys/hostname", std::string(40, 'h')}, {"/sys/web/port", ""}},
         "hhhhhhhhhhhhhhhhhhhhhhhhhhhhhhh", "Lab AP 50% \"one\"", 80, 0, "0.0.0.0"},
    };
    Client raw = lab().raw(), udp = lab().udp();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.host);
        for (const auto &[k, v] : c.keys) ASSERT_TRUE(lab().db_set(1, k, v));
        auto r = raw.request_one(tav::kOpDiscovery, {}, kLong), u = udp.request_one(tav::kOpDiscovery, {}, kLong);
        ASSERT_TRUE(r && u);
        EXPECT_EQ(listing(r->tlvs), listing(u->tlvs));
        EXPECT_EQ(std::tuple(r->result(), r->text(tav::kTagHostName), r->text(tav::kTagSystemName),
                             r->u16(tav::kTagWebPort), r->u8(tav::kTagManagedStatus)),
                  std::tuple(0, std::optional<std::string>(c.host), std::optional<std::string>(c.system),
                             std::optional<uint16_t>(c.port), std::optional<uint8_t>(c.managed)));
        EXPECT_EQ(format_ipv4(r->ipv4(tav::kTagIpAddress).value_or(Ipv4{9, 9, 9, 9})), c.ip);
    }
}

// Every op code the list advertises is answered (refused by its password
// where it would change something).
TEST_F(Presence, EveryAdvertisedFunctionIsAnswered) {
    Client udp = lab().udp();
    auto list = udp.request_one(tav::kOpSupportedFunctions, {}, kLong);
    ASSERT_TRUE(list) << list.error();
    int listed = 0;
    for (const auto &r : list->tlvs) {
        if (r.tag != tav::kTagSupportedFunction) continue;
        const uint16_t op = uint16_t(r.value.at(0) << 8 | r.value.at(1));
        ++listed;
        EXPECT_TRUE(udp.request_one(op, {tlv_text(55, "admin"), tlv_text(56, "wrong")}, kLong)) << op;
    }
    EXPECT_EQ(listed, 27);
}

E2E_SUITE(Managers, "mgrs", 1, "");

// Managers told apart by their MACs on the raw path.
TEST_F(Managers, HigherPrecedenceOfAnotherManagerRefuses) {
    const TlvList verified{tlv_bytes(tav::kTagVerification, std::vector<uint8_t>{1, 0, 0, 0})};
    constexpr int A = 0, B = 1, kBye = -1, kNone = -2;
    struct Step {
        int who, precedence;  // kBye: op 0x105; kNone: no tag 54
        bool right_password;
        uint16_t result;
    };
    const std::pair<const char *, std::vector<Step>> scenarios[] = {
        {"higher holder wins",
         {{A, 5, true, 0}, {B, 3, true, 0xFFFF}, {B, 5, true, 0}, {B, 6, true, 0}, {A, 5, true, 0xFFFF}}},
        {"own earlier entry counts once", {{A, 7, true, 0}, {A, 3, true, 0xFFFF}, {A, 3, true, 0}}},
        {"bye forgets the manager", {{A, 9, true, 0}, {B, 3, true, 0xFFFF}, {A, kBye, true, 0}, {B, 3, true, 0}}},
        {"refused before credentials are compared",
         {{A, 8, true, 0}, {B, 2, false, 0xFFFF}, {B, 8, false, 0x40}, {B, 8, true, 0}}},
        {"no tag, no comparison", {{A, 9, true, 0}, {B, kNone, true, 0}}},
        {"bye without an entry", {{B, kBye, true, 0}, {A, 1, true, 0}}},
    };
    for (size_t s = 0; s < std::size(scenarios); ++s) {
        SCOPED_TRACE(scenarios[s].first);
        Client mgrs[] = {lab().raw(Mac{0x02, 0xe2, 0xe0, uint8_t(s), 0, 0}),
                         lab().raw(Mac{0x02, 0xe2, 0xe0, uint8_t(s), 0, 1})};
        // The registry lives as long as the daemon: each scenario leaves by bye.
        Finally leave([&] {
            for (auto &m : mgrs) (void)m.request_one(tav::kOpBye, {}, kLong);
        });
        int n = 0;
        for (const Step &st : scenarios[s].second) {
            SCOPED_TRACE("step " + std::to_string(++n));
            TlvList tlvs = {tlv_text(55, "admin"), tlv_text(56, st.right_password ? "admin" : "wrong")};
            if (st.precedence >= 0) tlvs.insert(tlvs.begin(), tlv_u8(tav::kTagServerPrecedence, uint8_t(st.precedence)));
            const bool bye = st.precedence == kBye;
            auto reply = mgrs[st.who].request_one(bye ? tav::kOpBye : tav::kOpUserVerification, bye ? TlvList{} : tlvs,
                                                  kLong);
            ASSERT_TRUE(reply) << reply.error();
            EXPECT_EQ(reply->result(), st.result);
            EXPECT_EQ(reply->tlvs, st.result || bye ? TlvList{} : verified);
        }
    }
}

}  // namespace
}  // namespace e2e
