// The cipher binding's size limits, failures and messages (the limits over
// the wire are end-to-end tests with the variant libraries).
#include <cstring>

#include "engine_fixture.h"

namespace {
int g_size;
int sized(uint16_t) {
    return g_size;
}
int sized_dec(const uint8_t *, uint16_t) {
    return g_size;
}
int failing_enc(int, tav_buf *, tav_buf *, uint16_t *) {
    return 7;
}
int failing_dec(uint16_t, tav_buf *, tav_buf *) {
    return 9;
}
int overlong_enc(int, tav_buf *, tav_buf *out, uint16_t *) {
    out->length = uint16_t(out->length + 1);
    return 0;
}
int fill_enc(int, tav_buf *, tav_buf *out, uint16_t *sel) {
    std::memset(out->data, 0xAB, out->length);
    *sel = 1;
    return 0;
}
int fill_dec(uint16_t, tav_buf *, tav_buf *out) {
    std::memset(out->data, 0xCD, out->length);
    return 0;
}
}  // namespace

class Transport : public Engine {};

TEST_F(Transport, EncodeSizeLimit) {
    tav_get_encrypted_msg_len = sized;
    tav_encode = fill_enc;
    const uint8_t plain[18] = {};
    const struct {
        int size;
        const char *message;  // the datagram path adds "tav_encode_buf failed"
    } cases[] = {{65507, ""},
                 {65508, "tav_encode_buf, message too long\n"},
                 {-1, "tav_encode_buf, calloc failed\n"}};
    for (const auto &c : cases) {
        g_size = c.size;
        const bool sent = !*c.message;
        tavc_record::clear();
        out();
        EXPECT_EQ(send_msg_L2(plain, sizeof plain), sent ? 0 : -1);
        EXPECT_EQ(out(), c.message);
        EXPECT_EQ(send_msg_L4(plain, sizeof plain), sent ? 0 : -1);
        EXPECT_EQ(out(), sent ? "" : c.message + std::string("tav_encode_buf failed\n"));
        ASSERT_EQ(tavc_record::frames().size(), sent ? 2u : 0u);
        if (sent) {
            EXPECT_EQ(tavc_record::frames()[0].bytes.size(), 14u + 2 + 65507);
            EXPECT_EQ(tavc_record::frames()[1].bytes.size(), 2u + 65507);
        }
    }
}

TEST_F(Transport, EncodeFailures) {
    uint8_t buf[kTavEncodedMax];
    uint16_t n = 0;
    const uint8_t plain[4] = {1, 2, 3, 4};
    tav_get_encrypted_msg_len = [](uint16_t len) { return int(len); };
    EXPECT_EQ(tav_encode_buf(nullptr, 4, buf, &n), -1);
    EXPECT_EQ(tav_encode_buf(plain, 4, nullptr, &n), -1);
    tav_encode = failing_enc;
    EXPECT_EQ(tav_encode_buf(plain, 4, buf, &n), -1);
    EXPECT_EQ(out(), "tav_encode_buf, tav_encode failed:7\n");
    tav_encode = overlong_enc;
    EXPECT_EQ(tav_encode_buf(plain, 4, buf, &n), -1) << "more than the room it was given";
}

TEST_F(Transport, DecodeSizeLimit) {
    tav_get_decrypted_msg_len = sized_dec;
    tav_decode = fill_dec;
    static uint8_t plain[tav::kMaxPlainLen + 64];
    const uint8_t cipher[8] = {};
    uint16_t n = 0;
    for (auto [size, rc] : {std::pair{1024, 0}, {1025, -1}, {-1, -1}, {0, 0}}) {
        std::memset(plain, 0x11, sizeof plain);
        g_size = size;
        EXPECT_EQ(tav_decode_buf(1, cipher, sizeof cipher, plain, &n), rc) << size;
        if (rc == 0) {
            EXPECT_EQ(n, size);
        }
        EXPECT_EQ(plain[tav::kMaxPlainLen], 0x11) << "never written past 1024 bytes";
    }
    tav_decode = failing_dec;
    g_size = 10;
    EXPECT_EQ(tav_decode_buf(1, cipher, sizeof cipher, plain, &n), -1);
    EXPECT_EQ(tav_decode_buf(1, nullptr, 0, plain, &n), -1);
    EXPECT_EQ(tav_decode_buf(1, cipher, 0, nullptr, &n), -1);
    EXPECT_EQ(out(), "") << "dropped without a message";
}
