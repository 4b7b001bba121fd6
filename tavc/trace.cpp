// SPDX-License-Identifier: ISC
#include "tavc/trace.h"

#include <stdarg.h>
#include <stdio.h>

#include "lrgbin/rgdb_getset.h"

// Every trace names this source unit, whichever file of the engine it is in.
static const char kUnit[] = "tavc_main";

bool tav_debug_enabled() { return rgdb_get_digit("/runtime/tav_debug_enable") != 0; }

static void vtrace(const char *func, int line, const char *fmt, va_list ap) {
    fprintf(stderr, "[%s->%s->%d]-> ", kUnit, func, line);
    vfprintf(stderr, fmt, ap);
}

void tav_debug(const char *func, int line, const char *fmt, ...) {
    if (!tav_debug_enabled()) return;
    va_list ap;
    va_start(ap, fmt);
    vtrace(func, line, fmt, ap);
    va_end(ap);
}

void tav_debug_raw(const char *func, int line, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vtrace(func, line, fmt, ap);
    va_end(ap);
}
