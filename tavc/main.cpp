// SPDX-License-Identifier: ISC
// tavc: the device-side daemon of the TAV discovery and management protocol.
// Takes no arguments and reads no environment: everything comes from the
// configuration database.
#include <stdio.h>

#include "tavc/announce.h"
#include "tavc/lifecycle.h"

int main() {
    // Notices reach a console log line by line even when stdout is a file.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    init_env();
    tav_own_hello();
    tavc_run();
}
