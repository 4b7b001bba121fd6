// SPDX-License-Identifier: ISC
// Message types, target checks, the op-code table and the reply header.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "tavc/registry.h"

// A handler gets the request body (within the received plaintext), its length
// and the reply body buffer (host-order 16-bit length, then the TLV area).
// It returns the result code; only the low 16 bits go on the wire.
typedef int (*tav_handler)(const uint8_t *body, uint16_t body_length, uint8_t *reply);

struct tav_function_row {
    uint16_t op_code;
    tav_handler handler;
};

extern const tav_function_row tav_function[kTavFunctionCount];

inline constexpr size_t kReplyBodySize = 2 + 65490;

int process_message(const uint8_t *plain, uint16_t len);
int handle_L2_msg(const uint8_t *plain, uint16_t len);
int handle_ipv4_msg(const uint8_t *plain, uint16_t len);
int handle_ipv6_msg(const uint8_t *plain, uint16_t len);
int IPv4_check_receiver(const uint8_t *plain);
int operation_is_allowed(uint16_t op_code);
int tav_func_find(uint16_t op_code);
int tav_function_parameter_check(const void *body, const void *reply);
