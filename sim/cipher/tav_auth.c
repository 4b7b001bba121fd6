// SPDX-License-Identifier: ISC
/* Stand-in for the device's closed cipher library.
 *
 * Same four entry points and calling contract as the real one, but a cipher of
 * our own: the ciphertext is the plaintext XOR a keystream seeded by a 16-bit
 * selector, followed by a 2-byte check (CRC-16 of the plaintext, seeded by the
 * selector, also masked by the keystream). Each encode picks a fresh selector,
 * so two encodings of the same message differ, and a frame whose bytes or
 * selector were altered fails to decode.
 *
 * Variants (compile-time): TAV_FIXED_ENC_LEN makes the encrypted-size query
 * announce a fixed size, TAV_FIXED_DEC_LEN the decrypted-size query; both let
 * the daemon's size limits be exercised. Plain C: the daemon dlopens this and
 * must not pull in a C++ runtime through it. */
#include "proto/cipher.h"

#include <stddef.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#define TAV_EXPORT __attribute__((visibility("default")))

enum {
    TAV_CHECK_LEN = 2,
    TAV_MAX_PLAIN = 0xFFFF - TAV_CHECK_LEN, /* ciphertext length must fit 16 bits */
};

/* Error numbers handed back to the caller (any non-zero means failure). */
enum {
    TAV_ERR_ARG = 1,      /* null descriptor, null data, unknown mode */
    TAV_ERR_SPACE = 2,    /* output descriptor too small */
    TAV_ERR_LENGTH = 3,   /* ciphertext shorter than the check */
    TAV_ERR_CHECK = 4,    /* check does not match: wrong selector or altered bytes */
};

typedef struct keystream {
    uint32_t state;
} keystream;

static void ks_init(keystream *ks, uint16_t selector) {
    ks->state = ((uint32_t)selector * 0x9E3779B1u) ^ 0xA5C31D27u;
    if (ks->state == 0) ks->state = 0x6D2B79F5u;
}

__attribute__((always_inline)) static inline uint8_t ks_next(keystream *ks) {
    uint32_t x = ks->state;
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    ks->state = x;
    return (uint8_t)(x >> 24);
}

/* CRC-16 (polynomial 0x1021, most significant bit first) a byte at a time:
 * the bit-by-bit loop was half of what a request cost in user space. The
 * table is filled when the library is loaded, before any caller's thread
 * can use it. */
static uint16_t crc_table[256];

__attribute__((constructor)) static void crc_table_fill(void) {
    for (unsigned i = 0; i < 256; ++i) {
        uint16_t crc = (uint16_t)(i << 8);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x8000u) ? (uint16_t)((crc << 1) ^ 0x1021u) : (uint16_t)(crc << 1);
        crc_table[i] = crc;
    }
}

__attribute__((always_inline)) static inline uint16_t crc16_step(uint16_t crc, uint8_t byte) {
    return (uint16_t)((crc << 8) ^ crc_table[(uint8_t)((crc >> 8) ^ byte)]);
}

static uint16_t next_selector(void) {
    /* An odd step guarantees consecutive selectors differ; the start point
     * varies per process so restarts don't replay the same sequence. */
    static uint32_t counter;
    static uint32_t base;
    static int seeded;
    if (!seeded) {
        base = (uint32_t)time(NULL) * 2654435761u ^ (uint32_t)getpid() * 40503u;
        seeded = 1;
    }
    uint32_t n = __atomic_fetch_add(&counter, 1u, __ATOMIC_RELAXED);
    return (uint16_t)(base + n * 0x9E3Bu);
}

TAV_EXPORT int TAV_get_encrypted_msg_len(uint16_t plain_len) {
#ifdef TAV_FIXED_ENC_LEN
    (void)plain_len;
    return TAV_FIXED_ENC_LEN;
#else
    return (int)plain_len + TAV_CHECK_LEN;
#endif
}

TAV_EXPORT int TAV_get_decrypted_msg_len(const uint8_t *cipher, uint16_t cipher_len) {
    (void)cipher; /* the size follows from the length alone */
#ifdef TAV_FIXED_DEC_LEN
    (void)cipher_len;
    return TAV_FIXED_DEC_LEN;
#else
    return cipher_len < TAV_CHECK_LEN ? 0 : (int)cipher_len - TAV_CHECK_LEN;
#endif
}

TAV_EXPORT int TAV_encode(int mode, tav_buf *in, tav_buf *out, uint16_t *selector) {
    if (mode != 0 || in == NULL || out == NULL || selector == NULL) return TAV_ERR_ARG;
    if (in->length > 0 && in->data == NULL) return TAV_ERR_ARG;
    if (out->data == NULL) return TAV_ERR_ARG;
    if (in->length > TAV_MAX_PLAIN) return TAV_ERR_SPACE;
    const uint16_t need = (uint16_t)(in->length + TAV_CHECK_LEN);
    if (out->length < need) return TAV_ERR_SPACE;

    const uint16_t sel = next_selector();
    keystream ks;
    ks_init(&ks, sel);
    uint16_t crc = (uint16_t)(sel ^ 0x1D0Fu);
    for (uint16_t i = 0; i < in->length; ++i) {
        const uint8_t p = in->data[i];
        crc = crc16_step(crc, p);
        out->data[i] = p ^ ks_next(&ks);
    }
    out->data[in->length] = (uint8_t)(crc >> 8) ^ ks_next(&ks);
    out->data[in->length + 1] = (uint8_t)crc ^ ks_next(&ks);
    out->length = need;
    *selector = sel;
    return 0;
}

TAV_EXPORT int TAV_decode(uint16_t selector, tav_buf *in, tav_buf *out) {
    if (in == NULL || out == NULL || out->data == NULL) return TAV_ERR_ARG;
    if (in->length < TAV_CHECK_LEN) return TAV_ERR_LENGTH;
    if (in->data == NULL) return TAV_ERR_ARG;
    const uint16_t plain_len = (uint16_t)(in->length - TAV_CHECK_LEN);
    if (out->length < plain_len) return TAV_ERR_SPACE;

    keystream ks;
    ks_init(&ks, selector);
    uint16_t crc = (uint16_t)(selector ^ 0x1D0Fu);
    for (uint16_t i = 0; i < plain_len; ++i) {
        const uint8_t p = in->data[i] ^ ks_next(&ks);
        crc = crc16_step(crc, p);
        out->data[i] = p;
    }
    const uint8_t hi = in->data[plain_len] ^ ks_next(&ks);
    const uint8_t lo = in->data[plain_len + 1] ^ ks_next(&ks);
    if (hi != (uint8_t)(crc >> 8) || lo != (uint8_t)crc) {
        memset(out->data, 0, plain_len); /* hand back no garbage plaintext */
        return TAV_ERR_CHECK;
    }
    out->length = plain_len;
    return 0;
}

/* The exported functions must keep the exact types the daemon casts to. */
#define TAV_SAME_TYPE(fn, type) \
    _Static_assert(__builtin_types_compatible_p(__typeof__(&fn), type), #fn " type")
TAV_SAME_TYPE(TAV_get_encrypted_msg_len, tav_get_encrypted_msg_len_fn);
TAV_SAME_TYPE(TAV_get_decrypted_msg_len, tav_get_decrypted_msg_len_fn);
TAV_SAME_TYPE(TAV_encode, tav_encode_fn);
TAV_SAME_TYPE(TAV_decode, tav_decode_fn);
