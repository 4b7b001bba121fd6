// SPDX-License-Identifier: ISC
// The identity record: what the device says about itself, rebuilt from the
// configuration database before every request.
#pragma once

#include <stdint.h>

// Addresses and 16-bit numbers are kept as network-order bytes so they go
// into TLVs unchanged on any host.
struct device_status {
    char vendor[64];
    char product_type[32];
    char model_name[64];
    char host_name[32];
    char firmware_version[32];
    uint8_t reserved_word[4];
    uint8_t mac[6];
    char hardware_version[32];
    char interface_name[8];
    uint8_t tav_mode;
    char system_name[64];
    uint8_t web_port[2];
    uint8_t address_mode;
    uint8_t managed_status;
    char nms_server[256];
    char ag_uuid[32];
    uint8_t connection_status[2];
    uint8_t ip_address[4];
    uint8_t netmask[4];
    uint8_t gateway[4];
    uint8_t primary_dns[4];
    uint8_t secondary_dns[4];
    uint8_t wan_mode;
    char date_time[16];
};

extern device_status *device_info;

int init_device_status();
int mac_string2hex(char *text, uint8_t *out);
// Fills the 14 date-time digits from "MM/DD/YYYY" and "hh:mm:ss" texts.
// Missing pieces leave their positions as they are; a short piece brings its
// NUL along.
void convert_date_time(char *date_time, const char *date, const char *time);
void wizard_page_check();
