// SPDX-License-Identifier: ISC
// The time-zone table: protocol time-zone id (1..84) -> the device's code in
// "/time/timezone"; 0 = the id has no device code.
#pragma once

#include <stdint.h>

inline constexpr int kTimeTableSize = 85;

extern uint8_t *time_table;

void init_time_zone_table();
