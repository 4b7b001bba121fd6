// tavc: the device-side daemon of the TAV discovery and management protocol.
// Takes no arguments and reads no environment: everything comes from the
// configuration database.
#include "tavc/tavc.h"

int main() {
    init_env();
    tav_own_hello();
    tavc_run();
}
