// SPDX-License-Identifier: ISC
// Contract of the stand-in cipher library, loaded the way the daemon loads it.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "proto/cipher.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Lib {
    void *h;
    explicit Lib(const char *path) : h(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {}
    ~Lib() { h && dlclose(h); }
    template <class F> F fn(const char *name) const { return reinterpret_cast<F>(h ? dlsym(h, name) : nullptr); }
    tav_get_encrypted_msg_len_fn enc_len = fn<tav_get_encrypted_msg_len_fn>(TAV_SYM_ENC_LEN);
    tav_encode_fn encode = fn<tav_encode_fn>(TAV_SYM_ENCODE);
    tav_get_decrypted_msg_len_fn dec_len = fn<tav_get_decrypted_msg_len_fn>(TAV_SYM_DEC_LEN);
    tav_decode_fn decode = fn<tav_decode_fn>(TAV_SYM_DECODE);

    // rc, selector and ciphertext, with an output area of the announced size
    // minus `short_by`.
    std::tuple<int, uint16_t, Bytes> seal(Bytes plain, int short_by = 0) const {
        tav_buf in{plain.data(), uint16_t(plain.size())};
        Bytes out(enc_len(in.length) - short_by);
        tav_buf ob{out.data(), uint16_t(out.size())};
        uint16_t sel = 0;
        int rc = encode(0, &in, &ob, &sel);
        out.resize(rc ? 0 : ob.length);
        return {rc, sel, out};
    }
    std::pair<int, Bytes> open(uint16_t sel, Bytes cipher, int short_by = 0) const {
        tav_buf in{cipher.data(), uint16_t(cipher.size())};
        Bytes out(std::max(dec_len(in.data, in.length) - short_by, 0) + 1);
        tav_buf ob{out.data(), uint16_t(out.size() - 1)};
        int rc = decode(sel, &in, &ob);
        out.resize(rc ? 0 : ob.length);
        return {rc, out};
    }
};

Bytes pattern(size_t n) { Bytes v(n); return std::iota(v.begin(), v.end(), uint8_t(3)), v; }

// Round trips of every size announce their lengths and refuse areas one byte
// short; any altered byte is refused (altered selectors and cut frames: the
// dispatch suite).
TEST(Cipher, RoundTripsRefuseShortAreasAndAlteredFrames) {
    Lib lib(TAV_CIPHER_SO);
    ASSERT_TRUE(lib.encode && lib.decode && lib.enc_len && lib.dec_len) << dlerror();
    for (size_t n : {0u, 1u, 18u, 40u, 40u, 40u, 1024u, 65533u}) {
        const Bytes plain = pattern(n);
        auto [rc, sel, cipher] = lib.seal(plain);
        ASSERT_EQ(rc, 0) << n;
        EXPECT_EQ(std::tuple(lib.enc_len(uint16_t(n)), cipher.size(), lib.dec_len(cipher.data(), uint16_t(cipher.size()))),
                  std::tuple(int(n) + 2, n + 2, int(n)));
        EXPECT_EQ(lib.open(sel, cipher), std::pair(0, plain)) << n;
        EXPECT_NE(std::get<0>(lib.seal(plain, 1)), 0) << n;
        EXPECT_NE(n ? lib.open(sel, cipher, 1).first : 1, 0) << n;
        if (n != 40) continue;
        for (size_t i = 0; i < cipher.size(); ++i) {
            Bytes bad = cipher;
            bad[i] ^= 0x01;
            EXPECT_NE(lib.open(sel, bad).first, 0) << "flipped byte " << i;
        }
    }
    EXPECT_EQ(lib.dec_len(nullptr, 1), 0);
}

}  // namespace
