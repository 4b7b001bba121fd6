// SPDX-License-Identifier: ISC
// The time-zone table: protocol time-zone id (1..84) -> the device's code in
// "/time/timezone"; 0 = the id has no device code.
#include <string.h>

#include "tavc/time_zone.h"

static constexpr uint8_t kTimeZoneCodes[kTimeTableSize] = {
    0,                                               // index 0 belongs to no id
    1,  2,  3,  4,  5,  0,  8,  7,  6,  9,  11, 12,  // ids 1-12
    10, 13, 14, 0,  16, 17, 18, 0,  19, 21, 20, 22,  // 13-24
    0,  23, 24, 25, 27, 26, 29, 32, 31, 30, 28, 37,  // 25-36
    33, 0,  36, 35, 0,  0,  0,  38, 39, 42, 45, 41,  // 37-48
    40, 43, 45, 44, 0,  46, 47, 47, 48, 49, 50, 51,  // 49-60
    0,  52, 54, 55, 57, 56, 59, 60, 58, 62, 63, 64,  // 61-72
    65, 66, 71, 68, 67, 69, 70, 73, 76, 75, 77, 78,  // 73-84
};

void init_time_zone_table() {
    if (time_table != nullptr) memcpy(time_table, kTimeZoneCodes, sizeof kTimeZoneCodes);
}
