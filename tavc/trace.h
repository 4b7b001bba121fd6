// SPDX-License-Identifier: ISC
// Debug tracing to standard error, switched at run time by the configuration
// key "/runtime/tav_debug_enable" (read afresh on every trace, so a manager
// can turn it on without restarting the daemon).
#pragma once

// True when "/runtime/tav_debug_enable" holds a non-zero number.
bool tav_debug_enabled();

// Writes "[tavc_main-><func>-><line>]-> " and the message when tracing is on.
void tav_debug(const char *func, int line, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

// Same, for a caller that has already asked tav_debug_enabled().
void tav_debug_raw(const char *func, int line, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

#define TAV_DEBUG(...) tav_debug(__func__, __LINE__, __VA_ARGS__)
