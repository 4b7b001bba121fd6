// Op codes that are in the table but not served yet: each is dropped without
// a reply. A handler group that serves one removes its line here.
#include "tavc/handlers.h"

#define TAV_PENDING(name) \
    TAV_HANDLER(name) {   \
        (void)body;       \
        (void)body_length; \
        (void)reply;      \
        return kTavNoReply; \
    }

