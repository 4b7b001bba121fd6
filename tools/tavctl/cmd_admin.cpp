// SPDX-License-Identifier: ISC
// Device administration: account, reset, SNMP, general information, IPv4,
// system name and web port, date and time.
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>

#include "tools/tavctl/tavctl.h"
#include "util/base64.h"

namespace tavctl {

namespace {

// What verification reads back of the stored account: a longer value is
// stored whole but never matches again.
constexpr size_t kUserNameMax = 63, kPasswordMax = 31;
// The device keeps 95 characters of each base64 text.
constexpr size_t kBase64Max = 95;
// What the device takes of a system name and of an NTP server: it reads the
// rest of a longer value as records of their own.
constexpr size_t kSystemNameMax = 63, kNtpServerMax = 254;

const char kAccountHelp[] = R"(usage: tavctl [OPTIONS] account set --new-user NAME [--new-password-file FILE] [--force]
                                   --user NAME [--password-file FILE] [--precedence N]

Replaces the administrator account of one device (op 0xA4). The current
account (--user and its password) proves the right to do so; the new user
name and password are sent base64-encoded. The new password comes from
--new-password-file (its first line), else TAVCTL_NEW_PASSWORD, else a prompt
(asked twice). It is never taken on the command line.

The device stores names and passwords of any length but compares only 63
characters of the name and 31 of the password, so a longer value would lock
the administrator out: such values are refused unless --force is given.
Empty values are always refused (the device cannot decode them).
)";

const char kResetHelp[] = R"(usage: tavctl [OPTIONS] reset [--delay SECONDS] --user NAME [--password-file FILE]

Resets one device's configuration to its defaults, keeping its IPv4
settings (op 0xAA, service FRESET_EX_IP). The device answers at once and
starts after --delay seconds (default 0); it is back after about five minutes.
)";

const char kFactoryResetHelp[] = R"(usage: tavctl [OPTIONS] factory-reset [--delay SECONDS] --user NAME [--password-file FILE]

Resets one device to its factory settings, IPv4 settings included (op 0xAB,
service FRESET). The device answers at once and starts after --delay seconds
(default 0).
)";

const char kSnmpGetHelp[] = R"(usage: tavctl [OPTIONS] snmp get

Reads one device's SNMP state and its read-only and read-write communities
(op 0xDA).
)";

const char kSnmpSetHelp[] = R"(usage: tavctl [OPTIONS] snmp set [--on | --off] [--ro-community TEXT] [--rw-community TEXT]
                          [--delete] --user NAME [--password-file FILE]

Changes one device's SNMP agent (op 0xD4). Without --on or --off the current
state is read first and kept (the device would otherwise switch SNMP off).
A community must be shorter than 30 characters and free of # ` ' " \; the
device refuses the others one by one and still applies the rest (exit 1,
naming each refused item). --delete asks to delete the named communities,
which the device refuses.
)";

const char kInfoHelp[] = R"(usage: tavctl [OPTIONS] info

Prints one device's general information text (op 0xE0).
)";

const char kIpv4Help[] = R"(usage: tavctl [OPTIONS] ipv4 set --static ADDR/MASK --gateway G --dns D | --dhcp
                         --user NAME [--password-file FILE]

Sets the IPv4 addressing of one device's interface (op 0xE1): static with
address, mask (a prefix length such as 24, or dotted), gateway and DNS server,
or dynamic (--dhcp). The device restarts its network services after the reply
and may change its address.
)";

const char kDeviceHelp[] = R"(usage: tavctl [OPTIONS] device set --name NAME | --web-port PORT
                           --user NAME [--password-file FILE]

Changes one device's system name (at most 63 characters) or the port of its
web server (op 0xE3), one item per request.
)";

const char kTimeGetHelp[] = R"(usage: tavctl [OPTIONS] time get

Reads one device's clock settings (op 0xE4): NTP on or off, NTP server,
time-zone id (1 to 84) and the current date and time.
)";

const char kTimeSetHelp[] = R"(usage: tavctl [OPTIONS] time set [--ntp on|off] [--ntp-server HOST] [--zone ID]
                         [--date-time "YYYY-MM-DD hh:mm:ss" | now]
                         --user NAME [--password-file FILE]
       tavctl [OPTIONS] time set --dst on|off --user NAME [--password-file FILE]

Sets one device's clock (op 0xE5). The device writes NTP use, server and time
zone together: what is not given is read from the device first and kept (a
device whose zone has no id, 1 to 84, needs --zone). The date and time are sent only with --date-time ("now": this machine's local
time); without it the device still runs its date command, with zeros, which
fails and changes nothing. The NTP server 127.0.0.1 is refused by the device.
--dst switches daylight saving on or off and changes nothing else.
)";

// ---- helpers -----------------------------------------------------------------

std::string base64(const std::string &s) {
    std::vector<char> out(s.size() * 2 + 8);
    size_t n = 0;
    if (tav_base64_encode(reinterpret_cast<const uint8_t *>(s.data()), s.size(), out.data(), out.size(), &n) != 0)
        throw UsageError{"value too long to encode"};
    std::string text;
    for (size_t i = 0; i < n; ++i)
        if (out[i] != '\n') text += out[i];  // the device would keep the line breaks as characters
    return text;
}

bool on_off(const std::string &opt, const std::string &v) {
    if (v == "on" || v == "1" || v == "yes") return true;
    if (v == "off" || v == "0" || v == "no") return false;
    throw UsageError{opt + ": \"" + v + "\" is not on or off"};
}

Ipv4 need_ipv4(const std::string &opt, const std::string &v) {
    auto ip = parse_ipv4(v);
    if (!ip) throw UsageError{opt + ": \"" + v + "\" is not an IPv4 address"};
    return *ip;
}

void print_wait(const Message &m) {
    if (auto w = m.u32(kTagWaitTime)) std::printf("the device asks to wait %g s\n", *w / 1000.0);
}

// ---- account -------------------------------------------------------------------

std::optional<std::string> new_password(const std::string &file, std::string &err) {
    if (!file.empty()) {
        std::ifstream f(file, std::ios::binary);
        if (!f) {
            err = "cannot read new password file \"" + file + "\"";
            return std::nullopt;
        }
        std::string line;
        std::getline(f, line);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        return line;
    }
    if (const char *env = std::getenv("TAVCTL_NEW_PASSWORD")) return std::string(env);
    auto first = prompt_secret("New password: ");
    if (!first) {
        err = "no new password: use --new-password-file FILE, TAVCTL_NEW_PASSWORD or a terminal";
        return std::nullopt;
    }
    auto again = prompt_secret("New password again: ");
    if (!again || *again != *first) {
        err = "the two new passwords differ";
        return std::nullopt;
    }
    return first;
}

int cmd_account_set(Args &a) {
    std::optional<std::string> new_user, new_password_file;
    bool force = false;
    OptParser(a)
        .text("--new-user", new_user)
        .text("--new-password-file", new_password_file)
        .flag("--force", force)
        .parse_none();
    if (!new_user) throw UsageError{"account set needs --new-user NAME"};
    std::string err;
    auto pw = new_password(new_password_file.value_or(""), err);
    if (!pw) {
        std::fprintf(stderr, "tavctl: %s\n", err.c_str());
        return kExitUsage;
    }
    if (new_user->empty() || pw->empty())
        throw UsageError{"the new user name and password must not be empty"};
    if (new_user->find('\0') != std::string::npos || pw->find('\0') != std::string::npos)
        throw UsageError{"the new user name and password cannot hold NUL bytes"};
    if (!force && new_user->size() > kUserNameMax)
        throw UsageError{"the new user name has " + std::to_string(new_user->size()) +
                         " characters, but the device compares only " + std::to_string(kUserNameMax) +
                         ": no one could log in afterwards (--force sends it anyway)"};
    if (!force && pw->size() > kPasswordMax)
        throw UsageError{"the new password has " + std::to_string(pw->size()) +
                         " characters, but the device compares only " + std::to_string(kPasswordMax) +
                         ": no one could log in afterwards (--force sends it anyway)"};
    std::string name64 = base64(*new_user), pw64 = base64(*pw);
    if (name64.size() > kBase64Max || pw64.size() > kBase64Max)
        throw UsageError{"encoded, the new user name or password is longer than the " + std::to_string(kBase64Max) +
                         " characters the device keeps"};

    TlvList tlvs;
    if (int rc = add_credentials(a, tlvs)) return rc;
    tlvs.push_back(tlv_text(kTagNewUserName, name64));
    tlvs.push_back(tlv_text(kTagNewPassword, pw64));
    Message m;
    if (int rc = request_one_device(a, kOpChangeIdPassword, tlvs, m)) return rc;
    std::printf("account changed: the administrator is now \"%s\"\n", new_user->c_str());
    print_wait(m);
    return kExitOk;
}

// ---- reset -------------------------------------------------------------------

int reset_common(Args &a, uint16_t op, const char *what) {
    std::optional<uint64_t> delay;
    OptParser(a).number("--delay", 0xFFFFFFFF, delay).parse_none();
    TlvList tlvs;
    if (int rc = add_credentials(a, tlvs)) return rc;
    if (delay) tlvs.push_back(tlv_u32(kTagDelayTime, uint32_t(*delay)));
    Message m;
    if (int rc = request_one_device(a, op, tlvs, m)) return rc;
    std::printf("%s starts %s\n", what,
                delay && *delay ? ("in " + std::to_string(*delay) + " s").c_str() : "now");
    print_wait(m);
    return kExitOk;
}

int cmd_reset(Args &a) { return reset_common(a, kOpReset, "reset (IPv4 settings kept)"); }
int cmd_factory_reset(Args &a) { return reset_common(a, kOpResetFactory, "factory reset"); }

// ---- SNMP --------------------------------------------------------------------

struct Snmp {
    uint8_t state = 0;
    std::string ro, rw;
};

Snmp snmp_of(const Message &m) {
    Snmp s;
    s.state = m.u8(kTagSnmpGlobalState).value_or(0);
    int type = 0;
    for (const auto &t : m.tlvs) {
        if (t.tag == kTagSnmpCommunityType && t.value.size() == 1) type = t.value[0];
        if (t.tag == kTagSnmpCommunity) (type == 1 ? s.ro : s.rw) = format_text(t.value);
    }
    return s;
}

// One device's settings: a --json array of one object, or labelled fields.
int print_settings(const Args &a, const std::function<void(JsonWriter &)> &json,
                   const std::vector<std::pair<std::string, std::string>> &fields) {
    if (a.json) {
        JsonWriter j;
        j.begin_array().begin_object();
        json(j);
        j.end_object().end_array();
        std::fputs(j.str().c_str(), stdout);
    } else {
        print_fields(fields);
    }
    return kExitOk;
}

int cmd_snmp_get(Args &a) {
    OptParser(a).parse_none();
    Message m;
    if (int rc = request_one_device(a, kOpGetSnmp, {}, m)) return rc;
    Snmp s = snmp_of(m);
    return print_settings(
        a,
        [&](JsonWriter &j) {
            j.key("enabled").value((s.state & 1) != 0);
            j.key("ro_community").value(s.ro);
            j.key("rw_community").value(s.rw);
        },
        {{"snmp", (s.state & 1) ? "on" : "off"}, {"read-only community", s.ro}, {"read-write community", s.rw}});
}

int cmd_snmp_set(Args &a) {
    bool on = false, off = false, del = false;
    std::optional<std::string> ro, rw;
    OptParser(a)
        .flag("--on", on)
        .flag("--off", off)
        .flag("--delete", del)
        .text("--ro-community", ro)
        .text("--rw-community", rw)
        .parse_none();
    if (on && off) throw UsageError{"--on and --off exclude each other"};
    if (!on && !off && !ro && !rw) throw UsageError{"snmp set needs --on, --off or a community"};
    TlvList tlvs;
    if (int rc = add_credentials(a, tlvs)) return rc;
    bool enable = on;
    if (!on && !off) {
        Message cur;
        if (int rc = request_one_device(a, kOpGetSnmp, {}, cur)) return rc;
        enable = snmp_of(cur).state & 1;
    }
    tlvs.push_back(tlv_u8(kTagSnmpGlobalState, uint8_t((enable ? 1 : 0) | (del ? 2 : 0))));
    if (ro) tlvs.push_back(tlv_text(kTagSnmpRocomm, *ro));
    if (rw) tlvs.push_back(tlv_text(kTagSnmpRwcomm, *rw));
    Message m;
    int rc = request_one_device(a, kOpSetSnmp, tlvs, m);
    if (rc != kExitOk && m.result() != kResultSnmpPartial) return rc;
    const Record *mask_tlv = m.find(kTagErrorMask);
    uint32_t mask = 0;
    if (mask_tlv && mask_tlv->value.size() == 4)  // little-endian on the wire
        for (int i = 3; i >= 0; --i) mask = mask << 8 | mask_tlv->value[size_t(i)];
    static const std::pair<uint32_t, const char *> kRefused[] = {
        {2, "read-only community refused"},
        {4, "read-write community refused"},
        {8, "read-only views are not supported"},
        {16, "read-write views are not supported"},
    };
    for (const auto &[bit, text] : kRefused)
        if (mask & bit) std::fprintf(stderr, "tavctl: snmp set: %s\n", text);
    std::printf("snmp %s%s\n", enable ? "on" : "off", mask ? ", some items refused" : "");
    return mask ? kExitResult : rc;
}

// ---- information, IPv4, device ----------------------------------------------------

int cmd_info(Args &a) {
    OptParser(a).parse_none();
    Message m;
    if (int rc = request_one_device(a, kOpInformation, {}, m)) return rc;
    std::printf("%s\n", m.text(kTagInformation).value_or("").c_str());
    return kExitOk;
}

int cmd_ipv4_set(Args &a) {
    std::optional<std::string> stat, gateway, dns;
    bool dhcp = false;
    OptParser(a)
        .text("--static", stat)
        .text("--gateway", gateway)
        .text("--dns", dns)
        .flag("--dhcp", dhcp)
        .parse_none();
    if (dhcp == bool(stat)) throw UsageError{"ipv4 set needs either --static ADDR/MASK or --dhcp"};
    if (dhcp && (gateway || dns)) throw UsageError{"--gateway and --dns belong to --static"};
    TlvList tlvs;
    if (dhcp) {
        tlvs.push_back(tlv_u8(kTagWanMode, 1));
    } else {
        if (!gateway || !dns) throw UsageError{"--static needs --gateway G and --dns D"};
        auto slash = stat->find('/');
        if (slash == std::string::npos) throw UsageError{"--static: give ADDR/MASK, e.g. 192.0.2.11/24"};
        Ipv4 addr = need_ipv4("--static", stat->substr(0, slash));
        std::string mask_text = stat->substr(slash + 1);
        Ipv4 mask{};
        if (auto bits = parse_uint(mask_text, 32); bits && mask_text.find('.') == std::string::npos) {
            uint32_t m = *bits ? ~uint32_t(0) << (32 - *bits) : 0;
            mask = {uint8_t(m >> 24), uint8_t(m >> 16), uint8_t(m >> 8), uint8_t(m)};
        } else {
            mask = need_ipv4("--static mask", mask_text);
        }
        tlvs.push_back(tlv_u8(kTagWanMode, 0));
        tlvs.push_back(tlv_ipv4(kTagIpAddress, addr));
        tlvs.push_back(tlv_ipv4(kTagNetmask, mask));
        tlvs.push_back(tlv_ipv4(kTagGateway, need_ipv4("--gateway", *gateway)));
        tlvs.push_back(tlv_ipv4(kTagPrimaryDns, need_ipv4("--dns", *dns)));
    }
    TlvList creds;
    if (int rc = add_credentials(a, creds)) return rc;
    tlvs.insert(tlvs.begin(), creds.begin(), creds.end());
    Message m;
    if (int rc = request_one_device(a, kOpSetIpv4, tlvs, m)) return rc;
    if (dhcp)
        std::printf("IPv4: dynamic addressing; the device restarts its network services\n");
    else
        std::printf("IPv4: static %s; the device restarts its network services\n", stat->c_str());
    return kExitOk;
}

int cmd_device_set(Args &a) {
    std::optional<std::string> name;
    std::optional<uint64_t> port;
    OptParser(a).text("--name", name).number("--web-port", 65535, port).parse_none();
    if (bool(name) == bool(port)) throw UsageError{"device set needs exactly one of --name N and --web-port P"};
    if (name && name->size() > kSystemNameMax)
        throw UsageError{"--name: at most " + std::to_string(kSystemNameMax) + " characters"};
    TlvList tlvs;
    if (int rc = add_credentials(a, tlvs)) return rc;
    tlvs.push_back(tlv_u8(kTagDeviceInfoType, name ? 0 : 1));
    if (name)
        tlvs.push_back(tlv_text(kTagDeviceName, *name));
    else
        tlvs.push_back(tlv_u16(kTagWebPort, uint16_t(*port)));
    Message m;
    if (int rc = request_one_device(a, kOpSetDeviceInfo, tlvs, m)) return rc;
    if (m.u8(kTagReplyStatus).value_or(0) != 0) {
        const Record *t = m.find(kTagFailureText);
        std::fprintf(stderr, "tavctl: device set: refused: %s\n",
                     t ? format_text(t->value).c_str() : "parameter error");
        return kExitResult;
    }
    if (name)
        std::printf("system name set to \"%s\"\n", name->c_str());
    else
        std::printf("web port set to %u; the web server restarts\n", unsigned(*port));
    return kExitOk;
}

// ---- date and time ------------------------------------------------------------------

struct DevClock {
    bool ntp = false;
    std::string server;
    uint16_t zone = 0;
    std::string stamp;  // YYYYMMDDhhmmss
};

DevClock clock_of(const Message &m) {
    return {m.u8(kTagNtpEnable).value_or(0) != 0, m.text(kTagNtpServer).value_or(""),
            m.u16(kTagTimeZoneId).value_or(0), m.text(kTagDateTime).value_or("")};
}

std::string readable_stamp(const std::string &s) {
    if (s.size() != 14) return s;
    return s.substr(0, 4) + "-" + s.substr(4, 2) + "-" + s.substr(6, 2) + " " + s.substr(8, 2) + ":" +
           s.substr(10, 2) + ":" + s.substr(12, 2);
}

int cmd_time_get(Args &a) {
    OptParser(a).parse_none();
    Message m;
    if (int rc = request_one_device(a, kOpGetDateTime, {}, m)) return rc;
    DevClock c = clock_of(m);
    return print_settings(
        a,
        [&](JsonWriter &j) {
            j.key("ntp").value(c.ntp);
            j.key("ntp_server").value(c.server);
            j.key("time_zone_id").value(uint64_t(c.zone));
            j.key("date_time").value(readable_stamp(c.stamp));
        },
        {{"ntp", c.ntp ? "on" : "off"},
         {"ntp server", c.server},
         {"time zone id", c.zone ? std::to_string(c.zone) : "none"},
         {"date and time", readable_stamp(c.stamp)}});
}

// "YYYY-MM-DD hh:mm:ss", "YYYYMMDDhhmmss" or "now" as 14 digits.
std::string stamp_of(const std::string &v) {
    if (v == "now") {
        std::time_t t = std::time(nullptr);
        std::tm tm{};
        localtime_r(&t, &tm);
        char b[16];
        std::strftime(b, sizeof b, "%Y%m%d%H%M%S", &tm);
        return b;
    }
    std::string digits;
    for (char c : v)
        if (std::isdigit(uint8_t(c))) digits += c;
        else if (c != '-' && c != ' ' && c != ':' && c != 'T')
            digits.clear(), digits += "x";
    if (digits.size() != 14) throw UsageError{"--date-time: \"" + v + "\" is not YYYY-MM-DD hh:mm:ss"};
    return digits;
}

int cmd_time_set(Args &a) {
    std::optional<std::string> ntp, server, date_time, dst;
    std::optional<uint64_t> zone;
    OptParser(a)
        .text("--ntp", ntp)
        .text("--ntp-server", server)
        .number("--zone", 84, zone)
        .text("--date-time", date_time)
        .text("--dst", dst)
        .parse_none();
    TlvList tlvs;
    if (dst) {
        if (ntp || server || zone || date_time) throw UsageError{"--dst is a request of its own"};
        bool on = on_off("--dst", *dst);
        if (int rc = add_credentials(a, tlvs)) return rc;
        tlvs.push_back(tlv_u8(kTagTimeType, 1));
        tlvs.push_back(tlv_u8(kTagDstEnable, on ? 1 : 0));
        Message m;
        if (int rc = request_one_device(a, kOpSetDateTime, tlvs, m)) return rc;
        std::printf("daylight saving %s\n", on ? "on" : "off");
        return kExitOk;
    }
    if (!ntp && !server && !zone && !date_time)
        throw UsageError{"time set needs --ntp, --ntp-server, --zone, --date-time or --dst"};
    if (zone && *zone == 0) throw UsageError{"--zone: ids run from 1 to 84"};
    if (server && server->size() > kNtpServerMax)
        throw UsageError{"--ntp-server: at most " + std::to_string(kNtpServerMax) + " characters"};
    std::string stamp = date_time ? stamp_of(*date_time) : "";
    if (int rc = add_credentials(a, tlvs)) return rc;
    DevClock cur;
    if (!ntp || !server || !zone) {
        Message m;
        if (int rc = request_one_device(a, kOpGetDateTime, {}, m)) return rc;
        cur = clock_of(m);
        // The device would replace a zone without an id by id 1's.
        if (!zone && cur.zone == 0)
            throw UsageError{"the device's time zone has no id (1 to 84) and would not be kept: give --zone ID"};
    }
    bool use_ntp = ntp ? on_off("--ntp", *ntp) : cur.ntp;
    std::string ntp_server = server.value_or(cur.server);
    uint16_t zone_id = zone ? uint16_t(*zone) : cur.zone;
    tlvs.push_back(tlv_u8(kTagTimeType, 0));
    tlvs.push_back(tlv_u8(kTagNtpEnable, use_ntp ? 1 : 0));
    tlvs.push_back(tlv_text(kTagNtpServer, ntp_server));
    tlvs.push_back(tlv_u16(kTagTimeZoneId, zone_id));
    if (!stamp.empty()) tlvs.push_back(tlv_text(kTagDateTime, stamp));
    Message m;
    if (int rc = request_one_device(a, kOpSetDateTime, tlvs, m)) return rc;
    std::printf("clock set: ntp %s, server \"%s\", time zone id %u%s\n", use_ntp ? "on" : "off",
                ntp_server.c_str(), zone_id, stamp.empty() ? "" : (", " + readable_stamp(stamp)).c_str());
    return kExitOk;
}

const Command kAdmin[] = {
    {"account set", "--new-user NAME", "replace the administrator account (op 0xA4)", kAccountHelp,
     cmd_account_set},
    {"reset", "[--delay S]", "reset the configuration, keeping IPv4 (op 0xAA)", kResetHelp, cmd_reset},
    {"factory-reset", "[--delay S]", "reset to factory settings (op 0xAB)", kFactoryResetHelp,
     cmd_factory_reset},
    {"snmp get", "", "read SNMP state and communities (op 0xDA)", kSnmpGetHelp, cmd_snmp_get},
    {"snmp set", "[--on|--off] ...", "change SNMP state and communities (op 0xD4)", kSnmpSetHelp, cmd_snmp_set},
    {"info", "", "print the general information text (op 0xE0)", kInfoHelp, cmd_info},
    {"ipv4 set", "--static A/M ... | --dhcp", "set the IPv4 addressing (op 0xE1)", kIpv4Help, cmd_ipv4_set},
    {"device set", "--name N | --web-port P", "set the system name or web port (op 0xE3)", kDeviceHelp,
     cmd_device_set},
    {"time get", "", "read NTP, time zone and clock (op 0xE4)", kTimeGetHelp, cmd_time_get},
    {"time set", "[--ntp on|off] ... | --dst on|off", "set NTP, time zone, clock or daylight saving (op 0xE5)",
     kTimeSetHelp, cmd_time_set},
};

}  // namespace

std::span<const Command> admin_commands() { return kAdmin; }

}  // namespace tavctl
