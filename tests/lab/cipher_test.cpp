// Contract of the stand-in cipher library, loaded the way the daemon loads it.
#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "proto/cipher.h"

namespace {

struct Cipher {
    void *handle = nullptr;
    tav_get_encrypted_msg_len_fn enc_len = nullptr;
    tav_encode_fn encode = nullptr;
    tav_get_decrypted_msg_len_fn dec_len = nullptr;
    tav_decode_fn decode = nullptr;

    explicit Cipher(const char *path) {
        handle = dlopen(path, RTLD_LAZY | RTLD_LOCAL);
        if (handle == nullptr) return;
        enc_len = reinterpret_cast<tav_get_encrypted_msg_len_fn>(dlsym(handle, TAV_SYM_ENC_LEN));
        encode = reinterpret_cast<tav_encode_fn>(dlsym(handle, TAV_SYM_ENCODE));
        dec_len = reinterpret_cast<tav_get_decrypted_msg_len_fn>(dlsym(handle, TAV_SYM_DEC_LEN));
        decode = reinterpret_cast<tav_decode_fn>(dlsym(handle, TAV_SYM_DECODE));
    }
    ~Cipher() {
        if (handle != nullptr) dlclose(handle);
    }
    bool ok() const { return enc_len && encode && dec_len && decode; }
};

// n bytes that end exactly where an inaccessible page begins, so any access
// past the end faults.
class GuardedBuf {
public:
    explicit GuardedBuf(size_t n) : n_(n) {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        map_len_ = (n + page - 1) / page * page + page;
        void *m = mmap(nullptr, map_len_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (m == MAP_FAILED) return;
        map_ = static_cast<uint8_t *>(m);
        mprotect(map_ + map_len_ - page, page, PROT_NONE);
        data_ = map_ + map_len_ - page - n;
    }
    ~GuardedBuf() {
        if (map_ != nullptr) munmap(map_, map_len_);
    }
    GuardedBuf(const GuardedBuf &) = delete;
    GuardedBuf &operator=(const GuardedBuf &) = delete;
    uint8_t *data() { return data_; }
    uint16_t size() const { return static_cast<uint16_t>(n_); }

private:
    size_t n_;
    size_t map_len_ = 0;
    uint8_t *map_ = nullptr;
    uint8_t *data_ = nullptr;
};

std::vector<uint8_t> pattern(size_t n) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 7 + 3);
    return v;
}

struct Encoded {
    int rc;
    uint16_t selector;
    std::vector<uint8_t> cipher;
};

Encoded encode(const Cipher &c, std::vector<uint8_t> plain) {
    tav_buf in{plain.data(), static_cast<uint16_t>(plain.size())};
    const int size = c.enc_len(in.length);
    std::vector<uint8_t> out(static_cast<size_t>(size), 0);
    tav_buf ob{out.data(), static_cast<uint16_t>(size)};
    uint16_t sel = 0;
    Encoded e{c.encode(0, &in, &ob, &sel), sel, {}};
    if (e.rc == 0) e.cipher.assign(out.begin(), out.begin() + ob.length);
    return e;
}

int decode(const Cipher &c, uint16_t sel, std::vector<uint8_t> cipher, std::vector<uint8_t> *plain) {
    tav_buf in{cipher.data(), static_cast<uint16_t>(cipher.size())};
    const int size = c.dec_len(in.data, in.length);
    std::vector<uint8_t> out(1024 + 64 * 1024, 0);
    tav_buf ob{out.data(), static_cast<uint16_t>(size)};
    const int rc = c.decode(sel, &in, &ob);
    if (rc == 0) plain->assign(out.begin(), out.begin() + ob.length);
    return rc;
}

class CipherTest : public ::testing::Test {
protected:
    Cipher lib{TAV_CIPHER_SO};
    void SetUp() override { ASSERT_TRUE(lib.ok()) << TAV_CIPHER_SO << ": " << dlerror(); }
};

TEST_F(CipherTest, RoundTripsAndAnnouncesSizes) {
    for (size_t n : {0u, 1u, 2u, 18u, 1024u, 65533u}) {
        SCOPED_TRACE(n);
        EXPECT_EQ(lib.enc_len(static_cast<uint16_t>(n)), static_cast<int>(n) + 2);
        const auto plain = pattern(n);
        const Encoded e = encode(lib, plain);
        ASSERT_EQ(e.rc, 0);
        ASSERT_EQ(e.cipher.size(), n + 2);
        EXPECT_EQ(lib.dec_len(e.cipher.data(), static_cast<uint16_t>(e.cipher.size())),
                  static_cast<int>(n));
        std::vector<uint8_t> back;
        ASSERT_EQ(decode(lib, e.selector, e.cipher, &back), 0);
        EXPECT_EQ(back, plain);
    }
    EXPECT_EQ(lib.dec_len(nullptr, 1), 0);
    EXPECT_EQ(lib.dec_len(nullptr, 0), 0);
}

TEST_F(CipherTest, SelectorAndCiphertextChangeFromOneEncodeToTheNext) {
    const auto plain = pattern(64);
    std::set<uint16_t> selectors;
    std::vector<uint8_t> previous;
    for (int i = 0; i < 16; ++i) {
        const Encoded e = encode(lib, plain);
        ASSERT_EQ(e.rc, 0);
        selectors.insert(e.selector);
        EXPECT_NE(std::vector<uint8_t>(e.cipher.begin(), e.cipher.end() - 2), plain);
        EXPECT_NE(e.cipher, previous);
        previous = e.cipher;
    }
    EXPECT_EQ(selectors.size(), 16u);
}

TEST_F(CipherTest, AlteredFramesDoNotDecode) {
    const Encoded e = encode(lib, pattern(40));
    ASSERT_EQ(e.rc, 0);
    std::vector<uint8_t> out;
    for (size_t i = 0; i < e.cipher.size(); ++i) {
        auto bad = e.cipher;
        bad[i] ^= 0x01;
        EXPECT_NE(decode(lib, e.selector, bad, &out), 0) << "flipped byte " << i;
    }
    EXPECT_NE(decode(lib, static_cast<uint16_t>(e.selector + 1), e.cipher, &out), 0);
    EXPECT_NE(decode(lib, e.selector, {e.cipher.begin(), e.cipher.end() - 1}, &out), 0);
    EXPECT_NE(decode(lib, e.selector, {e.cipher.begin(), e.cipher.begin() + 1}, &out), 0);
    EXPECT_NE(decode(lib, e.selector, {}, &out), 0);
}

TEST_F(CipherTest, StaysWithinTheGivenBuffers) {
    const uint16_t n = 300;
    GuardedBuf plain(n), cipher(n + 2), back(n);
    std::memcpy(plain.data(), pattern(n).data(), n);
    tav_buf in{plain.data(), n}, out{cipher.data(), static_cast<uint16_t>(n + 2)};
    uint16_t sel = 0;
    ASSERT_EQ(lib.encode(0, &in, &out, &sel), 0);
    EXPECT_EQ(out.length, n + 2);

    tav_buf cin{cipher.data(), static_cast<uint16_t>(n + 2)}, pout{back.data(), n};
    ASSERT_EQ(lib.decode(sel, &cin, &pout), 0);
    EXPECT_EQ(std::memcmp(back.data(), plain.data(), n), 0);

    // Output descriptors one byte short are refused, not overrun.
    GuardedBuf small_cipher(n + 1), small_plain(n - 1);
    tav_buf short_out{small_cipher.data(), static_cast<uint16_t>(n + 1)};
    EXPECT_NE(lib.encode(0, &in, &short_out, &sel), 0);
    tav_buf short_plain{small_plain.data(), static_cast<uint16_t>(n - 1)};
    EXPECT_NE(lib.decode(sel, &cin, &short_plain), 0);
}

TEST(CipherVariants, AnnounceSizesBeyondTheDaemonsLimits) {
    struct Case {
        const char *path;
        int enc_for_10, dec_for_10;
    } cases[] = {{TAV_CIPHER_ENC65508_SO, 65508, 8}, {TAV_CIPHER_DEC1025_SO, 12, 1025}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.path);
        Cipher lib(c.path);
        ASSERT_TRUE(lib.ok());
        EXPECT_EQ(lib.enc_len(10), c.enc_for_10);
        EXPECT_EQ(lib.enc_len(0), c.enc_for_10 == 65508 ? 65508 : 2);
        uint8_t ct[10] = {};
        EXPECT_EQ(lib.dec_len(ct, 10), c.dec_for_10);
        // The cipher itself still works.
        const auto plain = pattern(20);
        const Encoded e = encode(lib, plain);
        ASSERT_EQ(e.rc, 0);
        std::vector<uint8_t> back;
        ASSERT_EQ(decode(lib, e.selector, e.cipher, &back), 0);
        EXPECT_EQ(back, plain);
    }
}

}  // namespace
