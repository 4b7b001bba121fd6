// SPDX-License-Identifier: ISC
// The two primitives under the typed access: reading one composed key and
// writing one key. `lrgbin` implements them over the database socket,
// `lrgbin_store` over an in-process map; the typed layer is shared.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Reads `key` into buf as the socket read does: at most `size` bytes, the last
// byte of buf set to NUL. 0, or -1 (buf untouched when the database can't be
// reached, zero-filled when the read fails).
int rgdb_read_key(char *buf, int size, const char *key);

#ifdef __cplusplus
}
#endif
