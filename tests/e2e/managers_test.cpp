// User verification (op 0xA3) and the precedence managers claim with tag 54.
#include "tests/e2e/e2e.h"

namespace e2e {
namespace {

using tav::client::tlv_text;
using tav::client::tlv_u8;

constexpr const char *kUserKey = "/sys/user:1/name";
constexpr const char *kPasswordKey = "/sys/user:1/password";
const std::vector<uint8_t> kVerified{0x00, 0x34, 0x00, 0x04, 0x01, 0x00, 0x00, 0x00};

class Managers : public LabSuite<Managers> {
  public:
    static constexpr const char *kCode = "mgrs";
    static constexpr int kAps = 1;
};

// A manager of its own MAC on the raw path.
Mac manager_mac(int scenario, int who) {
    return {0x02, 0xe2, 0xe0, uint8_t(scenario), 0x00, uint8_t(who)};
}

TlvList credentials(const std::string &user, const std::string &password) {
    return {tlv_text(tav::kTagUserName, user), tlv_text(tav::kTagPassword, password)};
}

TEST_F(Managers, VerificationComparesNameAndPasswordExactly) {
    struct Case {
        const char *what, *stored_password;
        TlvList tlvs;
        uint16_t result;
    } cases[] = {
        {"correct", "admin", credentials("admin", "admin"), 0},
        {"reverse order", "admin", {tlv_text(56, "admin"), tlv_text(55, "admin")}, 0},
        {"unknown tag skipped",
         "admin",
         {tlv_text(55, "admin"), tlv_text(999, "x"), tlv_text(56, "admin")},
         0},
        {"user name case", "admin", credentials("Admin", "admin"), 0x40},
        {"password case", "admin", credentials("admin", "ADMIN"), 0x40},
        {"password prefix", "admin", credentials("admin", "admi"), 0x40},
        {"password longer", "admin", credentials("admin", "admin1"), 0x40},
        {"no password tag", "admin", {tlv_text(55, "admin")}, 0x40},
        {"nothing", "admin", {}, 0x40},
        {"empty stored, no tag", "", {tlv_text(55, "admin")}, 0},
        {"empty stored, empty tag", "", credentials("admin", ""), 0},
        {"empty stored, given", "", credentials("admin", "admin"), 0x40},
        {"percent signs", "50%%off%s%n", credentials("admin", "50%%off%s%n"), 0},
        {"percent signs, printf-read", "50%%off%s%n", credentials("admin", "50%off%s%n"), 0x40},
    };
    Finally restore([&] { lab().db_set(1, kPasswordKey, "admin"); });
    Client mgr = lab().raw();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(lab().db_set(1, kPasswordKey, c.stored_password));
        auto reply = mgr.request_one(tav::kOpUserVerification, c.tlvs, 3s);
        ASSERT_TRUE(reply) << reply.error();
        EXPECT_EQ(reply->result(), c.result);
        EXPECT_EQ(hex(body_of(*reply)), c.result == 0 ? hex(kVerified) : "");
    }
    EXPECT_EQ(lab().db_get(1, kUserKey), "admin");
}

// Tag 54 takes one value byte whatever its length field says: the next record
// starts right after that byte.
TEST_F(Managers, PrecedenceTagAlwaysTakesOneByte) {
    Client mgr = lab().raw(manager_mac(99, 1));
    Finally bye([&] { (void)mgr.request_one(tav::kOpBye, {}, 3s); });
    // Precedence 0 then a 0x00 byte that doubles as the high byte of tag 55.
    TlvList tlvs{tlv_u8(tav::kTagServerPrecedence, 0)};
    for (auto &r : credentials("admin", "admin")) tlvs.push_back(r);
    auto plain =
        plaintext(request_header(false, tav::kOpUserVerification, take_sequence(mgr)), tlvs);
    tav::put_be16(plain.data() + tav::kL2HeaderLen + 2, 2);
    ASSERT_TRUE(mgr.send_plaintext(plain));
    auto got = mgr.collect(tav::get_be16(plain.data() + 2), tav::kOpUserVerification, 3s, 1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got.front().result(), 0);
}

TEST_F(Managers, HigherPrecedenceOfAnotherManagerRefuses) {
    enum Who { A, B };
    constexpr int kBye = -1, kNone = -2;
    struct Step {
        Who who;
        int precedence;  // kBye: op 0x105; kNone: no tag 54
        bool right_password;
        uint16_t result;
    };
    struct Scenario {
        const char *what;
        std::vector<Step> steps;
    } scenarios[] = {
        {"higher holder wins",
         {{A, 5, true, 0},
          {B, 3, true, 0xFFFF},
          {B, 5, true, 0},
          {B, 6, true, 0},
          {A, 5, true, 0xFFFF}}},
        {"own earlier entry counts once", {{A, 7, true, 0}, {A, 3, true, 0xFFFF}, {A, 3, true, 0}}},
        {"bye forgets the manager",
         {{A, 9, true, 0}, {B, 3, true, 0xFFFF}, {A, kBye, true, 0}, {B, 3, true, 0}}},
        {"refused before credentials are compared",
         {{A, 8, true, 0}, {B, 2, false, 0xFFFF}, {B, 8, false, 0x40}, {B, 8, true, 0}}},
        {"no tag, no comparison", {{A, 9, true, 0}, {B, kNone, true, 0}}},
        {"bye without an entry", {{B, kBye, true, 0}, {A, 1, true, 0}}},
    };
    for (size_t s = 0; s < std::size(scenarios); ++s) {
        const Scenario &sc = scenarios[s];
        SCOPED_TRACE(sc.what);
        Client mgrs[] = {lab().raw(manager_mac(int(s), A)), lab().raw(manager_mac(int(s), B))};
        // The registry lives as long as the daemon: each scenario leaves
        // through its managers' byes.
        Finally leave([&] {
            for (auto &m : mgrs) (void)m.request_one(tav::kOpBye, {}, 3s);
        });
        for (size_t i = 0; i < sc.steps.size(); ++i) {
            const Step &st = sc.steps[i];
            SCOPED_TRACE("step " + std::to_string(i + 1));
            Client &mgr = mgrs[st.who];
            if (st.precedence == kBye) {
                auto reply = mgr.request_one(tav::kOpBye, {}, 3s);
                ASSERT_TRUE(reply) << reply.error();
                EXPECT_EQ(reply->result(), st.result);
                EXPECT_EQ(reply->header->body_length, 0);
                continue;
            }
            TlvList tlvs;
            if (st.precedence != kNone)
                tlvs.push_back(tlv_u8(tav::kTagServerPrecedence, uint8_t(st.precedence)));
            for (auto &r : credentials("admin", st.right_password ? "admin" : "wrong"))
                tlvs.push_back(r);
            auto reply = mgr.request_one(tav::kOpUserVerification, tlvs, 3s);
            ASSERT_TRUE(reply) << reply.error();
            EXPECT_EQ(reply->result(), st.result);
            EXPECT_EQ(hex(body_of(*reply)), st.result == 0 ? hex(kVerified) : "");
        }
    }
}

}  // namespace
}  // namespace e2e
