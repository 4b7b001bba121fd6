// SPDX-License-Identifier: ISC
// The manager registry: who asked with which precedence, per op code.
#pragma once

#include <netinet/in.h>
#include <stdint.h>

#include "proto/wire.h"

inline constexpr int kTavFunctionCount = int(tav::kOpCodes.size());

struct tav_function_entry {
    uint16_t op_code;  // 0 = empty
    uint8_t precedence;
};

// A manager (in tav_server_list) or the sender of the request being served
// (tav_tmp_server, where functions[0].op_code is the current op code).
struct tav_server {
    tav_server *next;
    uint8_t mac[6];
    sockaddr_in addr;
    uint32_t addr_len;
    tav_function_entry functions[kTavFunctionCount];
};

extern tav_server *tav_tmp_server;
extern tav_server *tav_server_list;

inline constexpr int kTavServerMax = 1024;

int check_server_precedence(uint16_t op_code, uint8_t precedence, const tav_server *sender);
void free_tav_server();
// The registry's record pool: a record taken for a new manager, or null when
// all kTavServerMax records are in use; and its release.
tav_server *tav_server_alloc();
void tav_server_release(tav_server *s);
