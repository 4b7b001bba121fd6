// SPDX-License-Identifier: ISC
// Sockets, frames and the binding to the cipher library.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>

#include "proto/cipher.h"

inline constexpr size_t kTavEncodedMax = 2 + 65507;  // selector + ciphertext

extern int tav_l2_fd;
extern int tav_l3_fd;
// The cipher library's entry points (set by init_tav_lib, or by a test).
extern tav_encode_fn tav_encode;
extern tav_decode_fn tav_decode;
extern tav_get_encrypted_msg_len_fn tav_get_encrypted_msg_len;
extern tav_get_decrypted_msg_len_fn tav_get_decrypted_msg_len;

void init_socket();
int mcast_join(int fd, const struct sockaddr *group, socklen_t len);
void close_socket();
int get_mac_from_arp_cache();
int send_msg_L2(const uint8_t *plain, uint16_t len);
int send_msg_L4(const uint8_t *plain, uint16_t len);
void init_tav_lib();
void close_tav_lib();
int tav_encode_buf(const uint8_t *plain, uint16_t len, uint8_t *out, uint16_t *out_len);
int tav_decode_buf(uint16_t selector, const uint8_t *cipher, uint16_t len, uint8_t *out,
                   uint16_t *out_len);
