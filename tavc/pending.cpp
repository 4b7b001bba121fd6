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

// administration
TAV_PENDING(tav_change_ID_and_password)
TAV_PENDING(tav_reset)
TAV_PENDING(tav_reset_factory_settings)
TAV_PENDING(tav_get_snmp_configuration)
TAV_PENDING(tav_set_snmp_configuration)
TAV_PENDING(tav_information_func)
TAV_PENDING(tav_set_ipv4_address)
TAV_PENDING(tav_set_device_information)
TAV_PENDING(tav_get_device_date_time)
TAV_PENDING(tav_set_device_date_time)

