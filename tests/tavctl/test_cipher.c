/* A cipher for the client's tests: XOR with a key taken from the selector,
 * plus a checksum byte, so a wrong selector, a cut ciphertext or a wrong
 * length contract shows up as a decode failure. */
#include <stdint.h>

#include "proto/cipher.h"

static uint16_t next_selector = 0x1200;

static uint8_t key_of(uint16_t selector) { return (uint8_t)(selector ^ (selector >> 8) ^ 0x5A); }

int TAV_get_encrypted_msg_len(uint16_t plain_len) { return plain_len + 1; }

int TAV_encode(int mode, tav_buf *in, tav_buf *out, uint16_t *selector) {
    if (mode != 0 || in == 0 || out == 0 || selector == 0) return 1;
    if (out->length < in->length + 1) return 2;
    uint16_t s = ++next_selector;
    uint8_t k = key_of(s), sum = 0;
    for (uint16_t i = 0; i < in->length; ++i) {
        out->data[i] = in->data[i] ^ k;
        sum = (uint8_t)(sum + in->data[i]);
    }
    out->data[in->length] = sum;
    out->length = (uint16_t)(in->length + 1);
    *selector = s;
    return 0;
}

int TAV_get_decrypted_msg_len(const uint8_t *cipher, uint16_t cipher_len) {
    (void)cipher;
    return cipher_len == 0 ? 0 : cipher_len - 1;
}

int TAV_decode(uint16_t selector, tav_buf *in, tav_buf *out) {
    if (in == 0 || out == 0 || in->length < 1) return 3;
    uint16_t n = (uint16_t)(in->length - 1);
    if (out->length < n) return 4;
    uint8_t k = key_of(selector), sum = 0;
    for (uint16_t i = 0; i < n; ++i) {
        out->data[i] = in->data[i] ^ k;
        sum = (uint8_t)(sum + out->data[i]);
    }
    if (sum != in->data[n]) return 5;
    out->length = n;
    return 0;
}
