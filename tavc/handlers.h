// SPDX-License-Identifier: ISC
// The 31 protocol handlers of the dispatch table (tav_function), one per op
// code. Each follows the handler contract of tav_handler (dispatch.h).
#pragma once

#include <stdint.h>

#define TAV_HANDLER(name) int name(const uint8_t *body, uint16_t body_length, uint8_t *reply)

// presence (announce.cpp) and verification (auth.cpp)
TAV_HANDLER(tav_report);
TAV_HANDLER(tav_discovery);
TAV_HANDLER(tav_user_verification);
TAV_HANDLER(tav_hello);
TAV_HANDLER(tav_bye);
TAV_HANDLER(tav_query_supported_optional_functions);

// device administration (admin/)
TAV_HANDLER(tav_change_ID_and_password);
TAV_HANDLER(tav_reset);
TAV_HANDLER(tav_reset_factory_settings);
TAV_HANDLER(tav_get_snmp_configuration);
TAV_HANDLER(tav_set_snmp_configuration);
TAV_HANDLER(tav_information_func);
TAV_HANDLER(tav_set_ipv4_address);
TAV_HANDLER(tav_set_device_information);
TAV_HANDLER(tav_get_device_date_time);
TAV_HANDLER(tav_set_device_date_time);

// maintenance and central management (maint/)
TAV_HANDLER(tav_set_ag_profile);
TAV_HANDLER(tav_firmware_upgrade);
TAV_HANDLER(tav_configuration_backup);
TAV_HANDLER(tav_configuration_restore);
TAV_HANDLER(tav_reboot);

// wireless (wireless/)
TAV_HANDLER(tav_get_device_status);
TAV_HANDLER(tav_get_ssid_list);
TAV_HANDLER(tav_set_ssid_list);
TAV_HANDLER(tav_get_wireless_information);
TAV_HANDLER(tav_set_wireless_information);
TAV_HANDLER(tav_get_client_list);
TAV_HANDLER(tav_get_ap_array_information);
TAV_HANDLER(tav_set_ap_array_information);
TAV_HANDLER(tav_get_ap_array_device_list);
TAV_HANDLER(tav_set_ap_array_member_list);
