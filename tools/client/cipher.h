// SPDX-License-Identifier: ISC
// The manager's side of the cipher library: loaded with dlopen from a path
// (the device's "/usr/lib/TAV_Auth.so" or a substitute), turning plaintext
// into selector + ciphertext and back.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "proto/cipher.h"
#include "tools/client/expected.h"

namespace tav::client {

struct Sealed {
    uint16_t selector = 0;
    std::vector<uint8_t> ciphertext;
};

class Cipher {
  public:
    // Fails with the loader's own text when the library or a symbol is missing.
    static Expected<Cipher> load(const std::string &path);

    Cipher(Cipher &&other) noexcept;
    Cipher &operator=(Cipher &&other) noexcept;
    Cipher(const Cipher &) = delete;
    Cipher &operator=(const Cipher &) = delete;
    ~Cipher();

    Expected<Sealed> encode(std::span<const uint8_t> plaintext) const;
    Expected<std::vector<uint8_t>> decode(uint16_t selector,
                                          std::span<const uint8_t> ciphertext) const;
    const std::string &path() const { return path_; }

  private:
    Cipher() = default;
    std::string path_;
    void *handle_ = nullptr;
    tav_encode_fn encode_ = nullptr;
    tav_decode_fn decode_ = nullptr;
    tav_get_encrypted_msg_len_fn enc_len_ = nullptr;
    tav_get_decrypted_msg_len_fn dec_len_ = nullptr;
};

}  // namespace tav::client
