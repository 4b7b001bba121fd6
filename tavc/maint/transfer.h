// SPDX-License-Identifier: ISC
// The request of the tftp transfers (firmware upgrade, backup, restore):
// what a "Parameter configure" or "Status query" carries.
#pragma once

#include <stdio.h>
#include <string.h>

#include <array>

#include "proto/tags.h"
#include "tavc/tlv_walk.h"

namespace maint {

inline constexpr uint8_t kConfigure = 1;  // SUBSERVICE_TYPE: start a transfer
inline constexpr uint8_t kStatusQuery = 2;
inline constexpr uint8_t kTftpServer = 1;  // SERVER_TYPE
inline constexpr size_t kFileNameMax = 128;

struct Transfer {
    char user_name[65];
    char password[65];
    uint8_t subservice_type;
    uint8_t server_type;
    uint8_t server_ip_type;  // read and not used
    char server[16];         // dotted IPv4 text, empty when absent
    char file_name[kFileNameMax + 1];
};

// What a transfer's child fetches or sends, and from or to where.
struct Source {
    const char *server;
    const char *file_name;
};

// SERVER_IP_ADDR: four bytes in network order become dotted text; a value of
// any other length is ignored.
inline Step take_server_address(void *req, uint16_t, const uint8_t *v, uint16_t taken) {
    if (taken == 4) {
        auto *t = static_cast<Transfer *>(req);
        snprintf(t->server, sizeof t->server, "%u.%u.%u.%u", v[0], v[1], v[2], v[3]);
    }
    return Step::go_on();
}

// The file name: at most 128 bytes, up to the first NUL; a longer value is
// ignored as a whole rather than cut (a cut name would fetch another file).
inline Step take_file_name(void *req, uint16_t, const uint8_t *v, uint16_t taken) {
    if (taken <= kFileNameMax) {
        auto *t = static_cast<Transfer *>(req);
        memset(t->file_name, 0, sizeof t->file_name);
        size_t n = 0;
        while (n < taken && v[n] != 0) ++n;
        memcpy(t->file_name, v, n);
    }
    return Step::go_on();
}

// The rules every transfer shares; only the file name's tag differs. Tags
// not listed here (SERVER_PORT among them) are stepped over by their length.
template <class FileTag>
constexpr std::array<TlvRule, 8> transfer_rules(FileTag file_tag) {
    return {
        tlv_precedence(),
        tlv_text(tav::kTagUserName, Take::DeclaredMax, 65, TAVC_FIELD(Transfer, user_name)),
        tlv_text(tav::kTagPassword, Take::DeclaredMax, 65, TAVC_FIELD(Transfer, password)),
        tlv_u8(tav::kTagSubserviceType, TAVC_FIELD(Transfer, subservice_type)),
        tlv_u8(tav::kTagServerType, TAVC_FIELD(Transfer, server_type)),
        tlv_u8(tav::kTagServerIpType, TAVC_FIELD(Transfer, server_ip_type)),
        tlv_call(tav::kTagServerIpAddr, Take::Declared, 0, take_server_address),
        tlv_call(file_tag, Take::Declared, 0, take_file_name),
    };
}

// The description every transfer shares: both refusals 0xFFFD, then
// authentication. `rules` must outlive it (a constant of the caller's).
constexpr TlvRequest<Transfer> transfer_request(std::span<const TlvRule> rules) {
    return {rules,
            Take::Declared,
            ParamRefusal{tav::kResultRefused},
            PrecedenceRefusal{tav::kResultRefused},
            AuthRefusal{tav::kResultAuthFailed},
            tlv_credentials(TAVC_FIELD(Transfer, user_name), TAVC_FIELD(Transfer, password))};
}

}  // namespace maint
