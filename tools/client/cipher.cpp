// SPDX-License-Identifier: ISC
#include "tools/client/cipher.h"

#include <dlfcn.h>

#include <utility>

#include "proto/wire.h"

namespace tav::client {

namespace {
std::string dl_error_text() {
    const char *e = dlerror();
    return e ? e : "unknown loader error";
}
}  // namespace

Expected<Cipher> Cipher::load(const std::string &path) {
    Cipher c;
    c.path_ = path;
    c.handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (c.handle_ == nullptr)
        return fail("cannot load cipher library \"" + path + "\": " + dl_error_text());
    struct Sym {
        const char *name;
        void **slot;
    };
    const Sym syms[] = {
        {TAV_SYM_ENCODE, reinterpret_cast<void **>(&c.encode_)},
        {TAV_SYM_DECODE, reinterpret_cast<void **>(&c.decode_)},
        {TAV_SYM_ENC_LEN, reinterpret_cast<void **>(&c.enc_len_)},
        {TAV_SYM_DEC_LEN, reinterpret_cast<void **>(&c.dec_len_)},
    };
    for (const auto &s : syms) {
        dlerror();
        *s.slot = dlsym(c.handle_, s.name);
        if (*s.slot == nullptr)
            return fail("cannot load cipher library \"" + path + "\": " + dl_error_text());
    }
    return c;
}

Cipher::Cipher(Cipher &&o) noexcept
    : path_(std::move(o.path_)),
      handle_(std::exchange(o.handle_, nullptr)),
      encode_(o.encode_),
      decode_(o.decode_),
      enc_len_(o.enc_len_),
      dec_len_(o.dec_len_) {}

Cipher &Cipher::operator=(Cipher &&o) noexcept {
    if (this != &o) {
        if (handle_) dlclose(handle_);
        path_ = std::move(o.path_);
        handle_ = std::exchange(o.handle_, nullptr);
        encode_ = o.encode_;
        decode_ = o.decode_;
        enc_len_ = o.enc_len_;
        dec_len_ = o.dec_len_;
    }
    return *this;
}

Cipher::~Cipher() {
    if (handle_) dlclose(handle_);
}

Expected<Sealed> Cipher::encode(std::span<const uint8_t> plaintext) const {
    if (plaintext.size() > 0xFFFF) return fail("plaintext too long for the cipher");
    std::vector<uint8_t> in(plaintext.begin(), plaintext.end());
    int size = enc_len_(uint16_t(in.size()));
    if (size < 0 || size_t(size) > kMaxCipherLen)
        return fail("cipher announces a ciphertext of " + std::to_string(size) + " bytes");
    std::vector<uint8_t> out(size_t(size), 0);
    tav_buf ib{in.data(), uint16_t(in.size())};
    tav_buf ob{out.data(), uint16_t(out.size())};
    Sealed s;
    int rc = encode_(0, &ib, &ob, &s.selector);
    if (rc != 0) return fail("cipher refused to encode: error " + std::to_string(rc));
    out.resize(std::min<size_t>(ob.length, out.size()));
    s.ciphertext = std::move(out);
    return s;
}

Expected<std::vector<uint8_t>> Cipher::decode(uint16_t selector,
                                              std::span<const uint8_t> ciphertext) const {
    if (ciphertext.size() > 0xFFFF) return fail("ciphertext too long");
    std::vector<uint8_t> in(ciphertext.begin(), ciphertext.end());
    int size = dec_len_(in.data(), uint16_t(in.size()));
    // Replies may be far larger than the 1024 bytes the device accepts.
    if (size < 0 || size > 0xFFFF)
        return fail("cipher announces a plaintext of " + std::to_string(size) + " bytes");
    std::vector<uint8_t> out(size_t(size), 0);
    tav_buf ib{in.data(), uint16_t(in.size())};
    tav_buf ob{out.data(), uint16_t(out.size())};
    int rc = decode_(selector, &ib, &ob);
    if (rc != 0) return fail("cipher refused to decode: error " + std::to_string(rc));
    out.resize(std::min<size_t>(ob.length, out.size()));
    return out;
}

}  // namespace tav::client
