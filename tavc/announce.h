// SPDX-License-Identifier: ISC
// The daemon's own announcements: hello at start, report every period, bye.
#pragma once

int report_device_info();
int tav_own_hello();
int tav_own_bye();
