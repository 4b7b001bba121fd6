// SPDX-License-Identifier: ISC
// The administrator's credentials, checked in one place for the TLV walk and
// the verification request alike.
#pragma once

// 0 when both texts equal the stored user name and password, else -1. Takes
// the same time wherever a guess first goes wrong.
int tav_authentic(const char *user_name, const char *password);
