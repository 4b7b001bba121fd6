// Credentials: the shared comparison and op 0x00A3.
#include <string>

#include "engine_fixture.h"
#include "tavc/handlers.h"

class Auth : public Engine {};

TEST_F(Auth, AuthenticMeansExactEquality) {
    struct Case {
        const char *stored_name, *stored_pass, *name, *pass;
        int rc;
    } cases[] = {
        {"admin", "secret", "admin", "secret", 0},
        {"admin", "secret", "Admin", "secret", -1},
        {"admin", "secret", "admin", "secre", -1},
        {"admin", "secret", "admin", "secret!", -1},
        {"admin", "secret", "admi", "secret", -1},
        {"admin", "secret", "", "", -1},
        {"admin", "", "admin", "", 0},
        {"", "", "", "", 0},
        {"admin", "50%d%s%%", "admin", "50%d%s%%", 0},
        {"admin", "p\xe4ss", "admin", "p\xe4ss", 0},
    };
    for (const auto &c : cases) {
        lrgbin_store::put("/sys/user:1/name", c.stored_name);
        lrgbin_store::put("/sys/user:1/password", c.stored_pass);
        EXPECT_EQ(tav_authentic(c.name, c.pass), c.rc) << c.name << "/" << c.pass;
    }
    EXPECT_EQ(tav_authentic(nullptr, ""), -1);
    EXPECT_EQ(tav_authentic("", nullptr), -1);
}

TEST_F(Auth, StoredTextsAreReadWithTheirCapacities) {
    // Name read with 64 bytes (63 characters), password with 32 (31).
    std::string name63(63, 'n'), pass31(31, 'p');
    lrgbin_store::put("/sys/user:1/name", name63 + "X");
    lrgbin_store::put("/sys/user:1/password", pass31 + "Y");
    EXPECT_EQ(tav_authentic(name63.c_str(), pass31.c_str()), 0);
    EXPECT_EQ(tav_authentic((name63 + "X").c_str(), pass31.c_str()), -1);
    EXPECT_EQ(tav_authentic(name63.c_str(), (pass31 + "Y").c_str()), -1);
}

TEST_F(Auth, UserVerificationResults) {
    const Bytes ok = cat({tlv_text(55, "admin"), tlv_text(56, "secret")});
    const Bytes success{0x00, 0x34, 0x00, 0x04, 0x01, 0x00, 0x00, 0x00};
    struct Case {
        const char *name;
        Bytes body;
        int rc;
        Bytes reply;
    } cases[] = {
        {"correct", ok, 0, success},
        {"tags in any order, others skipped",
         cat({tlv(0x99, {1, 2}), tlv_text(56, "secret"), tlv_text(55, "admin")}), 0, success},
        {"wrong name", cat({tlv_text(55, "Admin"), tlv_text(56, "secret")}), 0x40, {}},
        {"no tags", {}, 0x40, {}},
        {"very long values are cut, not overrun",
         cat({tlv_text(55, std::string(300, 'a')), tlv_text(56, std::string(300, 's'))}), 0x40,
         {}},
    };
    for (const auto &c : cases) {
        auto [rc, reply] = call(tav_user_verification, c.body);
        EXPECT_EQ(rc, c.rc) << c.name;
        EXPECT_EQ(reply, c.reply) << c.name;
    }

    lrgbin_store::put("/sys/user:1/password", "");
    EXPECT_EQ(call(tav_user_verification, tlv_text(55, "admin")).first, 0)
        << "empty stored password, no tag 56";
}

TEST_F(Auth, UserVerificationRefusals) {
    static uint8_t reply[kReplyBodySize];
    const uint8_t body[1] = {0};
    EXPECT_EQ(tav_user_verification(nullptr, 0, reply), 0xFFFD);
    EXPECT_EQ(tav_user_verification(body, 0, nullptr), 0xFFFD);

    tav_server other{};
    other.mac[0] = 0x02;
    check_server_precedence(0x00A3, 5, &other);
    tav_tmp_server->functions[0].op_code = 0x00A3;
    auto [rc, out] = call(tav_user_verification,
                          cat({tlv(54, {3}), tlv_text(55, "admin"), tlv_text(56, "secret")}));
    EXPECT_EQ(rc, 0xFFFF) << "higher precedence wins even with correct credentials";
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(call(tav_user_verification, cat({tlv(54, {5}), tlv_text(55, "admin"),
                                                tlv_text(56, "secret")}))
                  .first,
              0);
}
