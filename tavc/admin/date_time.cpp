// SPDX-License-Identifier: ISC
// Ops 0x00E4 and 0x00E5: the clock, its NTP server, the time zone and
// daylight saving.
#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>

#include "lrgbin/rgdb_getset.h"
#include "proto/tags.h"
#include "proto/wire.h"
#include "platform/command.h"
#include "tavc/handlers.h"
#include "platform/proc.h"
#include "tavc/reply.h"
#include "tavc/identity.h"
#include "tavc/service.h"
#include "tavc/time_zone.h"
#include "tavc/tlv_walk.h"

static constexpr int kTimeZoneIdMax = kTimeTableSize - 1;

// Piece [from, from + width) of the text as a decimal number (atoi rules);
// a text shorter than the piece gives what is there.
static int piece(const char *text, size_t from, size_t width) {
    char buf[8] = {};
    size_t len = strnlen(text, from + width);
    if (len > from) memcpy(buf, text + from, len - from);
    return atoi(buf);
}

static int set_date_time(const char *date_time) {
    if (date_time == nullptr) date_time = "";
    // Only numbers enter the command, so the request's text never does.
    Command date(64, "date -s '%d-%02d-%02d %02d:%02d:%02d'", piece(date_time, 0, 4),
                 piece(date_time, 4, 2), piece(date_time, 6, 2), piece(date_time, 8, 2),
                 piece(date_time, 10, 2), piece(date_time, 12, 2));
    return date.system();
}

TAV_HANDLER(tav_get_device_date_time) {
    (void)body;
    (void)body_length;
    char sync[2] = {};
    _rgdb_get_(sync, sizeof sync, "/time/syncwith");
    int ntp_enable = atoi(sync);
    if (ntp_enable == 2) ntp_enable = 1;

    char server[254] = {};
    _rgdb_get_(server, sizeof server, "/time/ntpserver/ip");
    in_addr a;
    uint8_t server_format = inet_pton(AF_INET, server, &a) == 1 ? 1 : 0;

    char zone[3] = {};
    _rgdb_get_(zone, sizeof zone, "/time/timezone");
    int code = atoi(zone);
    uint16_t zone_id = 0;
    for (int id = 1; id <= kTimeZoneIdMax; ++id)  // the highest matching id wins
        if (time_table != nullptr && time_table[id] == code) zone_id = uint16_t(id);

    char date[63] = {}, time[9] = {};
    _rgdb_get_(date, sizeof date, "/runtime/time/date");
    _rgdb_get_(time, sizeof time, "/runtime/time/time");
    char own[sizeof device_info->date_time] = {};
    char *date_time = device_info != nullptr ? device_info->date_time : own;
    convert_date_time(date_time, date, time);

    Reply r(reply);
    r.add(tav::kTagNtpEnable, uint8_t(ntp_enable));
    r.add(tav::kTagNtpServer, server);
    r.add(tav::kTagNtpServerFormat, server_format);
    r.add(tav::kTagTimeReserved, uint8_t{4});
    r.add(tav::kTagTimeZoneId, zone_id);
    char stamp[sizeof device_info->date_time + 1] = {};
    memcpy(stamp, date_time, sizeof device_info->date_time);
    r.add(tav::kTagDateTime, stamp);
    return r.finish(tav::kResultSuccess);
}

namespace {

struct SetDateTime {
    char user_name[65];
    char password[65];
    char ntp_server[255];
    char date_time[17];
    uint8_t ntp_enable, time_type, dst_enable;
    uint16_t time_zone_id;
};

constexpr TlvRule kSetDateTimeRules[] = {
    tlv_u8(tav::kTagNtpEnable, TAVC_FIELD(SetDateTime, ntp_enable)),
    tlv_text(tav::kTagNtpServer, Take::DeclaredMax, 255, TAVC_FIELD(SetDateTime, ntp_server)),
    tlv_skip(tav::kTagNtpServerFormat, Take::Fixed, 1),
    tlv_precedence(),
    tlv_text(tav::kTagUserName, Take::DeclaredMax, 65, TAVC_FIELD(SetDateTime, user_name)),
    tlv_text(tav::kTagPassword, Take::DeclaredMax, 65, TAVC_FIELD(SetDateTime, password)),
    tlv_u8(tav::kTagTimeType, TAVC_FIELD(SetDateTime, time_type)),
    tlv_text(tav::kTagDateTime, Take::DeclaredMax, 16, TAVC_FIELD(SetDateTime, date_time)),
    tlv_be16(tav::kTagTimeZoneId, TAVC_FIELD(SetDateTime, time_zone_id)),
    tlv_skip(tav::kTagTimeZoneFormat, Take::Fixed, 1),
    tlv_skip(tav::kTagGmtSign, Take::Fixed, 1),
    tlv_skip(tav::kTagGmtHour, Take::Fixed, 1),
    tlv_skip(tav::kTagGmtMinute, Take::Fixed, 1),
    tlv_u8(tav::kTagDstEnable, TAVC_FIELD(SetDateTime, dst_enable)),
    tlv_skip(tav::kTagStartYear, Take::Fixed, 2),
    tlv_skip(tav::kTagEndYear, Take::Fixed, 2),
    tlv_skip(tav::kTagStartMon, Take::Fixed, 1),
    tlv_skip(tav::kTagEndMon, Take::Fixed, 1),
    tlv_skip(tav::kTagStartDay, Take::Fixed, 1),
    tlv_skip(tav::kTagEndDay, Take::Fixed, 1),
    tlv_skip(tav::kTagStartHour, Take::Fixed, 1),
    tlv_skip(tav::kTagEndHour, Take::Fixed, 1),
    tlv_skip(tav::kTagStartMin, Take::Fixed, 1),
    tlv_skip(tav::kTagEndMin, Take::Fixed, 1),
};

constexpr TlvRequest<SetDateTime> kSetDateTime{
    kSetDateTimeRules,
    Take::Declared,
    ParamRefusal{tav::kResultRefusedHigh},
    PrecedenceRefusal{tav::kResultRefused},
    AuthRefusal{tav::kResultAuthFailed},
    tlv_credentials(TAVC_FIELD(SetDateTime, user_name), TAVC_FIELD(SetDateTime, password)),
};

// The device code of a protocol time-zone id; ids without one fall back to
// id 1.
uint8_t zone_code(uint16_t id) {
    if (time_table == nullptr) return 0;
    if (id == 0 || id > kTimeZoneIdMax || time_table[id] == 0) id = 1;
    return time_table[id];
}

}  // namespace

TAV_HANDLER(tav_set_device_date_time) {
    SetDateTime req{};
    if (Step s = tlv_param_check(kSetDateTime, body, reply); s.ended()) return s.result();
    if (Step s = tlv_walk(kSetDateTime, body, body_length, &req); s.ended()) return s.result();
    // Checked before the credentials, whatever the kind of request.
    if (strcmp(req.ntp_server, "127.0.0.1") == 0) return tav::kResultNtpLoopback;
    if (Step s = tlv_authenticate(kSetDateTime, &req); s.ended()) return s.result();

    if (req.time_type != 0) {  // daylight saving only
        tav_rgdb_set_digit(req.dst_enable, "/time/daylightSaving");
        tav_rgdb_set_digit(0, "/time/DaylightSaving/offset");
    } else {
        tav_rgdb_set_digit(req.ntp_enable != 0 ? 2 : 0, "/time/syncwith");
        tav_rgdb_set_str(req.ntp_server, "/time/ntpserver/ip");
        tav_rgdb_set_digit(zone_code(req.time_zone_id), "/time/timezone");
        set_date_time(req.date_time);
    }
    tav_rgdb_set_digit(1, "/tavclient/time_changed");
    wizard_page_check();

    store_config_to_flash();
    proc_system("submit TIME;submit CAPTIVAL_PORTAL");

    Reply r(reply);
    r.add_set_status(0, 20000);
    return r.finish(tav::kResultSuccess);
}
