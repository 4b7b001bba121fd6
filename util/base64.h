// SPDX-License-Identifier: ISC
// Base64 (standard alphabet, "=" padding) for the account handler and the
// manager tool. No allocation: the caller provides the output buffer.
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Bytes the decoder needs for `len` input bytes (an upper bound).
size_t tav_base64_decoded_max(size_t len);

// Decodes `text` (len bytes) into out (cap bytes): bytes outside the alphabet
// and "=" are skipped; the count of the others must be a non-zero multiple
// of 4; the first group holding a pad ends the text (one pad drops one byte,
// two drop two, three or four fail). Returns 0 and the decoded length in
// *out_len, or -1 (a text that does not decode, or cap too small). The output
// is not NUL-terminated.
int tav_base64_decode(const char *text, size_t len, uint8_t *out, size_t cap, size_t *out_len);

// Encodes data as padded base64 with a newline after every 72 characters and
// after a non-empty last line, NUL-terminated. Returns 0 and the text length
// (NUL not counted) in *out_len, or -1 when cap is too small or the size
// would overflow.
int tav_base64_encode(const uint8_t *data, size_t len, char *out, size_t cap, size_t *out_len);

#ifdef __cplusplus
}
#endif
