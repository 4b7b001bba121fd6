// Compiled once per CASE by systemf_formats.cmake: which proc_systemf formats
// compile, and with which reason the others do not.
#include <stddef.h>

#include "tavc/proc.h"

int use(int i, unsigned u, long l, unsigned long ul, size_t z, short h, unsigned char c, const char *text) {
    (void)i, (void)u, (void)l, (void)ul, (void)z, (void)h, (void)c, (void)text;
#if CASE == 0
    return proc_systemf("a %d %i %u %02x %-3X %5ld %lu %zu %hd %hhu %c %%", i, i, u, u, u, l, ul, z, h, c, 'a') +
           proc_systemf("submit COMMIT");
#elif CASE == 1
    return proc_systemf("echo %s", text);
#elif CASE == 2
    return proc_systemf("echo %-20s", text);
#elif CASE == 3
    return proc_systemf("echo %d %d", i);
#elif CASE == 4
    return proc_systemf("echo %d", i, i);
#elif CASE == 5
    return proc_systemf("echo %d", l);
#elif CASE == 6
    return proc_systemf("echo %ld", i);
#elif CASE == 7
    return proc_systemf("echo %p", static_cast<const void *>(text));
#elif CASE == 8
    return proc_systemf("echo %.*d", i, i);
#elif CASE == 9
    const char *fmt = "reboot";
    return proc_systemf(fmt);
#endif
}
