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

// maintenance
TAV_PENDING(tav_set_ag_profile)
TAV_PENDING(tav_firmware_upgrade)
TAV_PENDING(tav_configuration_backup)
TAV_PENDING(tav_configuration_restore)
TAV_PENDING(tav_reboot)

// wireless
TAV_PENDING(tav_get_device_status)
TAV_PENDING(tav_get_ssid_list)
TAV_PENDING(tav_set_ssid_list)
TAV_PENDING(tav_get_wireless_information)
TAV_PENDING(tav_set_wireless_information)
TAV_PENDING(tav_get_client_list)
TAV_PENDING(tav_get_ap_array_information)
TAV_PENDING(tav_set_ap_array_information)
TAV_PENDING(tav_get_ap_array_device_list)
TAV_PENDING(tav_set_ap_array_member_list)
