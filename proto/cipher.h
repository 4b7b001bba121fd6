// SPDX-License-Identifier: ISC
// Calling contract of the cipher library ("/usr/lib/TAV_Auth.so"): four C
// symbols; every buffer descriptor is passed by address, and the library may
// change an output descriptor's length.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct tav_buf {
    uint8_t *data;
    uint16_t length;
} tav_buf;

// Size of the ciphertext TAV_encode will produce for `plain_len` bytes.
typedef int (*tav_get_encrypted_msg_len_fn)(uint16_t plain_len);
// mode is always 0; `selector` is set by the library.
typedef int (*tav_encode_fn)(int mode, tav_buf *in, tav_buf *out, uint16_t *selector);
// Size of the plaintext TAV_decode will produce.
typedef int (*tav_get_decrypted_msg_len_fn)(const uint8_t *cipher, uint16_t cipher_len);
// 0 on success, otherwise an error number.
typedef int (*tav_decode_fn)(uint16_t selector, tav_buf *in, tav_buf *out);

#define TAV_SYM_ENCODE "TAV_encode"
#define TAV_SYM_DECODE "TAV_decode"
#define TAV_SYM_ENC_LEN "TAV_get_encrypted_msg_len"
#define TAV_SYM_DEC_LEN "TAV_get_decrypted_msg_len"

#ifdef __cplusplus
}
#endif
