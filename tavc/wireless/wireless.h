// SPDX-License-Identifier: ISC
// The SSID settings store and the band helpers the wireless handlers share.
// Bands are 1 (2.4 GHz, "inf:1") and 2 (5 GHz, "inf:2"); each band has SSID
// 0 (its primary SSID) to 7. The accessors pick the key form by the index.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include "tavc/reply.h"

// One SSID of a set request (a record group of the walk). Texts are
// NUL-terminated; a record starts zero-filled.
struct ssid_info {
    uint8_t ssid_index;
    char ssid_name[65];
    uint8_t band;  // mask: bit 0 band 1, bit 1 band 2
    uint8_t auth_type;
    char passphrase[129];
    uint8_t radius_address_type;
    char radius_address[65];
    char radius_secret[65];
    uint8_t vlan_id[2];  // network byte order, as received
    uint8_t ssid_status;
    // Whether the group carried the tag (an absent one changes nothing).
    bool has_vlan_id, has_passphrase, has_radius_address;
};

int get_ssid_name(char *buf, int size, int band, int index);
// The key get_ssid_name reads, for a caller that reads it again and again.
void ssid_name_key(char out[64], int band, int index);
int set_ssid_name(int band, int index, const char *name);
uint16_t get_vlan_id(int band, int index);  // host order
int set_vlan_id(int band, int index, uint16_t vlan_id);
uint8_t get_auth_type(int band, int index);
int set_auth_type(int band, int index, uint8_t code);
int set_cipher_auto(int band, int index);
int set_cipher_none(int band, int index);
int get_passphrase(char *buf, int size, int band, int index);
int set_passphrase(int band, int index, const char *passphrase);
int get_radius_address(char *buf, int size, int band, int index);
int get_radius_secret(char *buf, int size, int band, int index);
int set_radius_address(int band, int index, const char *address);
int set_radius_secret(int band, int index, const char *secret);
uint8_t multi_enabled(int band);
void set_ssid_status(int band, int index, uint8_t status);
bool is_apmode(int band);
bool is_valid_ip_address(int family, const char *text);

// Appends the SSID TLV groups of indexes 0 to 7 of the band.
void get_ssid_info(int band, Reply &reply);
// Applies a record to each band of its mask (band 1 first; stops at the
// first non-zero result, which it returns).
int set_ssid_info(const ssid_info &rec);
int set_ssid_info_with_band(int band, const ssid_info &rec);

// Zeroes the six bytes, then stores what sscanf(text,
// "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", ...) stores, field by field, stopping
// where it would. The stdio scanner's first touches cost more than a
// station's key read.
void scan_mac(const char *text, uint8_t mac[6]);

// Runs the AP-array command of `action` for the MAC text and waits for it;
// actions other than 1 to 3 run nothing. Returns the command's status.
int apply_action(const char *mac_text, uint8_t action);
