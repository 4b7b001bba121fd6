// The daemon's global records and the routines the engine's units share.
// Handler groups (admin/, maint/, wireless/) include this and handlers.h.
#pragma once

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "proto/cipher.h"

// ---- records ----------------------------------------------------------------

inline constexpr int kTavFunctionCount = 31;

struct tav_function_entry {
    uint16_t op_code;  // 0 = empty
    uint8_t precedence;
};

// A manager (in tav_server_list) or the sender of the request being served
// (tav_tmp_server, where functions[0].op_code is the current op code).
struct tav_server {
    tav_server *next;
    uint8_t mac[6];
    sockaddr_in addr;
    uint32_t addr_len;
    tav_function_entry functions[kTavFunctionCount];
};

// What the device says about itself. Addresses and 16-bit numbers are kept
// as network-order bytes so they go into TLVs unchanged on any host.
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

// Seconds and microseconds, both 64-bit whatever the host's timeval is.
struct tav_time {
    int64_t tv_sec;
    int64_t tv_usec;
};

inline constexpr int kTimeTableSize = 85;

// ---- globals (created at start-up, released at exit) ------------------------

extern int tav_l2_fd;
extern int tav_l3_fd;
extern tav_server *tav_tmp_server;
extern tav_server *tav_server_list;
extern tav_time report_time;
extern device_status *device_info;
extern uint8_t *time_table;
extern void *handle;
extern tav_encode_fn tav_encode;
extern tav_decode_fn tav_decode;
extern tav_get_encrypted_msg_len_fn tav_get_encrypted_msg_len;
extern tav_get_decrypted_msg_len_fn tav_get_decrypted_msg_len;

// ---- start-up, loop and shutdown (tavc_main.cpp) ----------------------------

void init_env();
int init_buff();
void free_buff();
void init_manage_status();
void init_node();
void init_sigaction();
void sigchld_handler(int sig);
int get_time(tav_time *t);
void init_report_timer();
[[noreturn]] void tavc_run();
[[noreturn]] void tavc_exit();

// ---- transport and cipher binding (transport.cpp) ---------------------------

inline constexpr size_t kTavEncodedMax = 2 + 65507;  // selector + ciphertext

void init_socket();
int mcast_join(int fd, const struct sockaddr *group, socklen_t len);
void close_socket();
int get_mac_from_arp_cache();
int send_msg_L2(const uint8_t *plain, uint16_t len);
int send_msg_L4(const uint8_t *plain, uint16_t len);
void init_tav_lib();
int tav_encode_buf(const uint8_t *plain, uint16_t len, uint8_t *out, uint16_t *out_len);
int tav_decode_buf(uint16_t selector, const uint8_t *cipher, uint16_t len, uint8_t *out,
                   uint16_t *out_len);

// ---- dispatch (dispatch.cpp) ------------------------------------------------

// A handler gets the request body (within the received plaintext), its length
// and the reply body buffer (host-order 16-bit length, then the TLV area).
// It returns the result code; only the low 16 bits go on the wire.
typedef int (*tav_handler)(const uint8_t *body, uint16_t body_length, uint8_t *reply);

struct tav_function_row {
    uint16_t op_code;
    tav_handler handler;
};

extern const tav_function_row tav_function[kTavFunctionCount];

inline constexpr size_t kReplyBodySize = 2 + 65490;

int process_message(const uint8_t *plain, uint16_t len);
int handle_L2_msg(const uint8_t *plain, uint16_t len);
int handle_ipv4_msg(const uint8_t *plain, uint16_t len);
int handle_ipv6_msg(const uint8_t *plain, uint16_t len);
int IPv4_check_receiver(const uint8_t *plain);
int operation_is_allowed(uint16_t op_code);
int tav_func_find(uint16_t op_code);
int tav_function_parameter_check(const void *body, const void *reply);
int store_config_to_flash();
uint64_t ntohll(uint64_t v);
uint64_t htonll(uint64_t v);

// ---- identity record (identity.cpp) -----------------------------------------

int init_device_status();
int mac_string2hex(char *text, uint8_t *out);
// Fills the 14 date-time digits from "MM/DD/YYYY" and "hh:mm:ss" texts.
// Missing pieces leave their positions as they are; a short piece brings its
// NUL along.
void convert_date_time(char *date_time, const char *date, const char *time);
void wizard_page_check();

// ---- manager registry (registry.cpp) ----------------------------------------

inline constexpr int kTavServerMax = 1024;

int check_server_precedence(uint16_t op_code, uint8_t precedence, const tav_server *sender);
void free_tav_server();
// The registry's record pool: a record taken for a new manager, or null when
// all kTavServerMax records are in use; and its release.
tav_server *tav_server_alloc();
void tav_server_release(tav_server *s);

// ---- authentication (auth.cpp) ----------------------------------------------

int tav_authentic(const char *user_name, const char *password);

// ---- announcements (announce.cpp) -------------------------------------------

int report_device_info();
int tav_own_hello();
int tav_own_bye();

// ---- service actions (service.cpp) -----------------------------------------

// Each starts its command line in a child process and returns the child's
// pid at once (-1 when fork fails, and nothing runs).
pid_t submit_wlan();      // "submit WAN; submit WLAN"
pid_t reboot_after_5s();  // "sleep 5; reboot"

// ---- date and time (admin/) -------------------------------------------------

void init_time_zone_table();
// Sets the system clock from a 14-digit YYYYMMDDhhmmss text with
// "date -s '...'" (waits); returns the shell's status.
int set_date_time(const char *date_time);
// Restarts the web server ("submit HTTPD") in a child process; returns its
// pid at once (-1 when fork fails).
pid_t submit_httpd();
// 1 when `text` holds any of # ` ' " \ (kept out of SNMP communities).
int invalid_snmp_str(const char *text);
// Decodes the base64 new user name and password of op 0xA4 into outputs of
// at least 70 bytes (zeroed by the caller): 0, or 1001 (name) / 1011
// (password) when one does not decode; the name is tried first.
int decode_name_and_password(const char *name64, const char *password64, char *name,
                             char *password);
