// SPDX-License-Identifier: ISC
// Administration: account, reset, SNMP, general information, IPv4, system
// name and web port, date and time.
#include <cstdio>
#include <cstdlib>

#include "tools/tavctl/tavctl.h"
#include "util/base64.h"

namespace tavctl {

namespace {

// What verification compares of the stored account: a longer value is
// stored whole but never matches again.
constexpr size_t kUserNameMax = 63, kPasswordMax = 31;
// The device keeps 95 characters of each base64 text.
constexpr size_t kBase64Max = 95;
// What the device takes of a system name and of an NTP server: it reads the
// rest of a longer value as records of their own.
constexpr size_t kSystemNameMax = 63, kNtpServerMax = 254;

std::string base64(const std::string &s) {
    std::vector<char> out(s.size() * 2 + 8);
    size_t n = 0;
    if (tav_base64_encode(reinterpret_cast<const uint8_t *>(s.data()), s.size(), out.data(), out.size(), &n) != 0)
        usage("value too long to encode");
    std::string text;
    for (size_t i = 0; i < n; ++i)
        if (out[i] != '\n') text += out[i];  // the device would keep the line breaks as characters
    return text;
}

std::string delay_note(std::optional<uint64_t> delay, const char *what) {
    return std::string(what) + (delay && *delay ? " in " + std::to_string(*delay) + " s" : " now");
}

// ---- account -----------------------------------------------------------------------

int run_account_set(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    auto user = o.text("--new-user");
    if (!user) usage("needs --new-user NAME");
    std::optional<std::string> pw = o.secret("--new-password-file", "password");
    if (!pw) {
        if (const char *env = std::getenv("TAVCTL_NEW_PASSWORD")) pw = env;
        else if ((pw = prompt_secret("New password: "))) {
            if (prompt_secret("New password again: ") != pw) usage("the two new passwords differ");
        } else {
            usage("no new password: use --new-password-file FILE, TAVCTL_NEW_PASSWORD or a terminal");
        }
    }
    const bool force = o.flag("--force");
    if (pw->empty()) usage("the new password must not be empty (the device cannot decode it)");
    if (user->find('\0') != std::string::npos || pw->find('\0') != std::string::npos)
        usage("the new user name and password cannot hold NUL bytes");
    for (auto [what, len, max] : {std::tuple("user name", user->size(), kUserNameMax),
                                  std::tuple("password", pw->size(), kPasswordMax)})
        if (!force && len > max)
            usage(std::string("the new ") + what + " has " + std::to_string(len) + " characters, but the device "
                  "compares only " + std::to_string(max) + ": no one could log in afterwards (--force sends it anyway)");
    const std::string name64 = base64(*user), pw64 = base64(*pw);
    if (name64.size() > kBase64Max || pw64.size() > kBase64Max)
        usage("encoded, the new user name or password is longer than the " + std::to_string(kBase64Max) +
              " characters the device keeps");
    return write_each(c, {.op = kOpChangeIdPassword,
                          .build = [&](const Ap &, const Message *) {
                              return TlvList{tlv_text(kTagNewUserName, name64), tlv_text(kTagNewPassword, pw64)};
                          },
                          .after = [&](Fleet &f, const Message &, const Message *, Row &row) {
                              // The proof that it took: the new account passes verification.
                              auto v = f.ask_one(row.ap, kOpUserVerification,
                                                 {tlv_text(kTagUserName, *user), tlv_text(kTagPassword, *pw)}, true);
                              const Record *ok = v && v->result() == 0 ? v->find(kTagVerification) : nullptr;
                              const bool verified = ok && ok->value.size() == 4 && ok->value[0] == 1;
                              row.data.set("user", *user);
                              row.data.set("verified", verified);
                              row.data.set("note", "the administrator is now \"" + *user + "\"" +
                                                       (verified ? " (verified with the new password)"
                                                                 : "; verification with the new password did not "
                                                                   "pass: check the account"));
                          }});
}

// ---- resets ---------------------------------------------------------------------------

int reset_common(Ctx &c, uint16_t op, const char *what, const char *keeps) {
    Opts o(c.g, *c.cmd, c.words);
    auto delay = o.number("--delay", 0, 0xFFFFFFFF);
    return write_each(c, {.op = op,
                          .build = [&](const Ap &, const Message *) {
                              TlvList t;
                              if (delay) t.push_back(tlv_u32(kTagDelayTime, uint32_t(*delay)));
                              return t;
                          },
                          .after = [&](Fleet &, const Message &, const Message *, Row &row) {
                              Node &ap = row.data;
                              ap.set("delay_seconds", (unsigned long)delay.value_or(0));
                              ap.set("note", delay_note(delay, what) + "; the access point reboots and is back "
                                                                      "after a few minutes");
                          },
                          .question = [&](const std::vector<std::string> &aps) {
                              return std::string(what) + " of " + joined(aps) + ": every setting returns to its default" + keeps +
                                     ", and the access point reboots. Go on?";
                          }});
}

int run_reset(Ctx &c) { return reset_common(c, kOpReset, "reset", " except its IPv4 settings"); }
int run_factory_reset(Ctx &c) { return reset_common(c, kOpResetFactory, "factory reset", ", IPv4 included"); }

// ---- SNMP -------------------------------------------------------------------------------

Node snmp_view(const Message &m) {
    Node o = Node::object();
    o.set("snmp", on_off(m.u8(kTagSnmpGlobalState).value_or(0) & 1));
    std::string ro, rw;
    int type = 0;
    for (const auto &t : m.tlvs) {
        if (t.tag == kTagSnmpCommunityType && t.value.size() == 1) type = t.value[0];
        if (t.tag == kTagSnmpCommunity) (type == 1 ? ro : rw) = format_text(t.value);
    }
    o.set("ro_community", ro);
    o.set("rw_community", rw);
    return o;
}

int run_snmp_get(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    return read_each(c, kOpGetSnmp, {}, [](const Message &m, Node &ap) {
        const Node view = snmp_view(m);
        for (const auto &[k, v] : view.fields()) ap.set(k, v);
    });
}

std::string community(const Opts &o, std::string_view name) {
    auto v = o.text(name, 29);
    if (!v) return "";
    if (v->find_first_of("#`'\"\\") != std::string::npos)
        usage(std::string(name) + ": a community may not hold # ` ' \" or \\ (the device refuses them)");
    return *v;
}

int run_snmp_set(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    auto state = o.on_off("--state");
    const std::string ro = community(o, "--ro-community"), rw = community(o, "--rw-community");
    if (!o.any()) usage("nothing to change: give --state, --ro-community or --rw-community");
    return write_each(c, {.op = kOpSetSnmp,
                          .read_op = kOpGetSnmp,
                          .view = snmp_view,
                          .build = [&](const Ap &, const Message *now) {
                              // Without a state the device would switch SNMP off: keep the current one.
                              bool on = state.value_or(now->u8(kTagSnmpGlobalState).value_or(0) & 1);
                              TlvList t{tlv_u8(kTagSnmpGlobalState, on ? 1 : 0)};
                              if (!ro.empty()) t.push_back(tlv_text(kTagSnmpRocomm, ro));
                              if (!rw.empty()) t.push_back(tlv_text(kTagSnmpRwcomm, rw));
                              return t;
                          }});
}

int run_info(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    return read_each(c, kOpInformation, {},
                     [](const Message &m, Node &ap) { ap.set("information", m.text(kTagInformation).value_or("")); });
}

// ---- IPv4, system name, web port ----------------------------------------------------------

int run_ipv4_set(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    const bool dhcp = o.flag("--dhcp");
    auto stat = o.text("--static");
    if (dhcp == bool(stat)) usage("needs either --static ADDR/PREFIX (with --gateway and --dns) or --dhcp");
    TlvList t;
    std::string what = "dynamic addressing (DHCP)";
    if (dhcp) {
        if (o.text("--gateway") || o.text("--dns")) usage("--gateway and --dns belong to --static");
        t.push_back(tlv_u8(kTagWanMode, 1));
    } else {
        Subnet s = parse_subnet("--static", *stat);
        auto gw = o.ipv4("--gateway"), dns = o.ipv4("--dns");
        if (!gw || !dns) usage("--static needs --gateway ADDR and --dns ADDR");
        if (!in_subnet(s, *gw) || *gw == s.addr)
            usage("--gateway " + format_ipv4(*gw) + " is not another host of " + *stat +
                  "'s subnet: the access point could not reach it");
        if (c.g.targets.size() > 1) usage("a static address belongs to one access point: give one --target");
        t = {tlv_u8(kTagWanMode, 0), tlv_ipv4(kTagIpAddress, s.addr), tlv_ipv4(kTagNetmask, s.mask),
             tlv_ipv4(kTagGateway, *gw), tlv_ipv4(kTagPrimaryDns, *dns)};
        what = "static " + format_ipv4(s.addr) + " mask " + format_ipv4(s.mask) + ", gateway " + format_ipv4(*gw);
    }
    return write_each(c, {.op = kOpSetIpv4,
                          .build = [&](const Ap &, const Message *) { return t; },
                          .after = [&](Fleet &, const Message &, const Message *, Row &row) {
                              Node &ap = row.data;
                              ap.set("addressing", dhcp ? "dhcp" : "static");
                              ap.set("note", "accepted: " + what + "; the access point restarts its network "
                                     "services and may answer at its new address only (tavctl discover shows it)");
                          }});
}

// What discovery reports of the two settings op 0xE3 changes.
Node device_view(const Message &m) {
    Node o = Node::object();
    o.set("system_name", m.text(kTagSystemName).value_or(""));
    o.set("web_port", unsigned(m.u16(kTagWebPort).value_or(0)));
    return o;
}

int run_device_set(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    auto name = o.text("--name", kSystemNameMax);
    auto port = o.port("--web-port");
    if (bool(name) == bool(port)) usage("needs exactly one of --name NAME and --web-port PORT (one item a request)");
    if (name && c.g.targets.size() > 1) usage("a system name belongs to one access point: give one --target");
    return write_each(c, {.op = kOpSetDeviceInfo,
                          .read_op = kOpDiscovery,
                          .view = device_view,
                          .build = [&](const Ap &, const Message *) {
                              TlvList t{tlv_u8(kTagDeviceInfoType, name ? 0 : 1)};
                              t.push_back(name ? tlv_text(kTagDeviceName, *name) : tlv_u16(kTagWebPort, *port));
                              return t;
                          },
                          .after = [&](Fleet &, const Message &m, const Message *, Row &row) {
                              Node &ap = row.data;
                              if (m.u8(kTagReplyStatus).value_or(0) != 0) {
                                  const Record *t = m.find(kTagFailureText);
                                  row.exit = kExitResult;
                                  row.error = "refused: " + (t ? format_text(t->value) : std::string("parameter error"));
                              } else if (port) {
                                  ap.set("note", "the web server restarts on port " + std::to_string(*port));
                              }
                          }});
}

// ---- date and time ----------------------------------------------------------------------------

std::string readable_stamp(const std::string &s) {
    if (s.size() != 14) return s;
    return s.substr(0, 4) + "-" + s.substr(4, 2) + "-" + s.substr(6, 2) + " " + s.substr(8, 2) + ":" +
           s.substr(10, 2) + ":" + s.substr(12, 2);
}

// Seconds of a 14-digit stamp, for comparing clocks (months as 31 days is
// close enough for that).
long seconds_of(const std::string &d) {
    if (d.size() != 14) return 0;
    auto n = [&](size_t at, size_t len) { return std::atol(d.substr(at, len).c_str()); };
    return ((((n(0, 4) * 12 + n(4, 2)) * 31 + n(6, 2)) * 24 + n(8, 2)) * 60 + n(10, 2)) * 60 + n(12, 2);
}

Node zone_node(uint16_t id) {
    return Node(unsigned(id)).shown(id ? std::to_string(id) : "none (the device's zone has no protocol id)");
}

// The settings op 0xE5 writes; the clock itself is compared apart.
Node clock_view(const Message &m) {
    Node o = Node::object();
    o.set("ntp", on_off(m.u8(kTagNtpEnable).value_or(0) != 0));
    o.set("ntp_server", m.text(kTagNtpServer).value_or(""));
    o.set("time_zone_id", zone_node(m.u16(kTagTimeZoneId).value_or(0)));
    return o;
}

int run_time_get(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    return read_each(c, kOpGetDateTime, {}, [](const Message &m, Node &ap) {
        const Node view = clock_view(m);
        for (const auto &[k, v] : view.fields()) ap.set(k, v);
        ap.set("date_time", readable_stamp(m.text(kTagDateTime).value_or("")));
    });
}

int run_time_set(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    auto dst = o.on_off("--dst");
    auto ntp = o.on_off("--ntp");
    auto server = o.text("--ntp-server", kNtpServerMax);
    auto zone = o.number("--zone", 1, 84);
    auto stamp = o.text("--date-time");
    std::string digits = stamp ? parse_date_time("--date-time", *stamp) : "";
    if (!o.any()) usage("nothing to change: give --ntp, --ntp-server, --zone, --date-time or --dst");
    if (dst && (ntp || server || zone || stamp)) usage("--dst is a request of its own: give it alone");
    if (server == "127.0.0.1") usage("--ntp-server: the device refuses 127.0.0.1");
    if (dst)
        return write_each(c, {.op = kOpSetDateTime,
                              .build = [&](const Ap &, const Message *) {
                                  return TlvList{tlv_u8(kTagTimeType, 1), tlv_u8(kTagDstEnable, *dst ? 1 : 0)};
                              },
                              .after = [&](Fleet &, const Message &, const Message *, Row &row) {
                              Node &ap = row.data;
                                  ap.set("dst", on_off(*dst));
                                  ap.set("note", std::string("daylight saving ") + (*dst ? "on" : "off"));
                              }});
    return write_each(c, {.op = kOpSetDateTime,
                          .read_op = kOpGetDateTime,
                          .view = clock_view,
                          .build = [&](const Ap &, const Message *now) {
                              // The device writes NTP use, server and zone together: keep what is not given.
                              uint16_t id = zone ? uint16_t(*zone) : now->u16(kTagTimeZoneId).value_or(0);
                              if (id == 0)
                                  usage("the access point's time zone has no protocol id (1 to 84) and would not be "
                                        "kept: give --zone ID");
                              TlvList t{tlv_u8(kTagTimeType, 0),
                                        tlv_u8(kTagNtpEnable, ntp.value_or(now->u8(kTagNtpEnable).value_or(0) != 0)),
                                        tlv_text(kTagNtpServer, server.value_or(now->text(kTagNtpServer).value_or(""))),
                                        tlv_u16(kTagTimeZoneId, id)};
                              if (!digits.empty()) t.push_back(tlv_text(kTagDateTime, digits));
                              return t;
                          },
                          .after = [&](Fleet &, const Message &, const Message *back, Row &row) {
                              Node &ap = row.data;
                              if (digits.empty()) return;
                              // The device reports no outcome of its date command: compare its clock.
                              std::string clock = back ? back->text(kTagDateTime).value_or("") : "";
                              ap.set("date_time", readable_stamp(clock));
                              if (!back)
                                  ap.set("note", "the clock could not be read back: check it with tavctl time get");
                              else if (std::abs(seconds_of(clock) - seconds_of(digits)) <= 120)
                                  ap.set("note", "clock set to " + readable_stamp(digits));
                              else
                                  ap.set("note", "the access point's clock reads " + readable_stamp(clock) + ", not " +
                                                     readable_stamp(digits) + ": its date command did not take it");
                          }});
}

constexpr OptSpec kAccountOpts[] = {
    {"--new-user", "NAME", "the new administrator's name (at most 63 characters)"},
    {"--new-password-file", "FILE", "the new password: first line of FILE, or - to be asked (else "
                                    "TAVCTL_NEW_PASSWORD, else asked twice)"},
    {"--force", "", "send a name over 63 or a password over 31 characters, which no one could log in with"},
};
constexpr OptSpec kDelayOpts[] = {{"--delay", "SECONDS", "start SECONDS after answering (default 0)"}};
constexpr OptSpec kSnmpOpts[] = {
    {"--state", "on|off", "switch the SNMP agent on or off (default: as it is)"},
    {"--ro-community", "TEXT", "read-only community (1 to 29 characters, none of # ` ' \" \\)"},
    {"--rw-community", "TEXT", "read-write community (likewise)"},
};
constexpr OptSpec kIpv4Opts[] = {
    {"--static", "ADDR/PREFIX", "static address with a prefix length (1-30) or a mask (ADDR/255.255.255.0)"},
    {"--gateway", "ADDR", "default gateway: another host of the same subnet"},
    {"--dns", "ADDR", "DNS server"},
    {"--dhcp", "", "dynamic addressing instead"},
};
constexpr OptSpec kDeviceOpts[] = {
    {"--name", "NAME", "system name (1 to 63 characters)"},
    {"--web-port", "PORT", "port of the web server (1 to 65535)"},
};
constexpr OptSpec kTimeOpts[] = {
    {"--ntp", "on|off", "follow an NTP server"},
    {"--ntp-server", "HOST", "the NTP server (not 127.0.0.1)"},
    {"--zone", "ID", "time zone: one of the protocol's time-zone ids, 1 to 84 (the protocol numbers them; it "
                     "names none)"},
    {"--date-time", "\"YYYY-MM-DD hh:mm:ss\"|now", "set the clock (now: this machine's local time)"},
    {"--dst", "on|off", "daylight saving (a request of its own)"},
};

const Command kAdmin[] = {
    {"account set", Kind::Write, "replace the administrator account (op 0xA4)", "", kAccountOpts,
     "The current account (--user and its password) proves the right; the new name and password travel "
     "base64-encoded. The device compares only 63 characters of a name and 31 of a password: longer ones "
     "are refused unless --force.",
     run_account_set},
    {"reset", Kind::Write, "reset the configuration, keeping IPv4 (op 0xAA)", "", kDelayOpts,
     "Every setting but the IPv4 addressing returns to its default, the central-management agent's included; "
     "the access point reboots. Asks for confirmation (--yes for scripts).",
     run_reset},
    {"factory-reset", Kind::Write, "reset to factory settings, IPv4 included (op 0xAB)", "", kDelayOpts,
     "Every setting returns to its factory default and the access point reboots, perhaps at another address. "
     "Asks for confirmation (--yes for scripts).",
     run_factory_reset},
    {"snmp get", Kind::Read, "read the SNMP agent's state and communities (op 0xDA)", "", {}, "", run_snmp_get},
    {"snmp set", Kind::Write, "change the SNMP agent's state and communities (op 0xD4)", "", kSnmpOpts,
     "What is not given stays as it is. The settings are read back and the changes shown.", run_snmp_set},
    {"info", Kind::Read, "the general information text (op 0xE0)", "", {}, "", run_info},
    {"ipv4 set", Kind::Write, "set the IPv4 addressing (op 0xE1)", "", kIpv4Opts,
     "The access point restarts its network services after answering and may then answer only at its new "
     "address.",
     run_ipv4_set},
    {"device set", Kind::Write, "set the system name or the web port (op 0xE3)", "", kDeviceOpts,
     "One item a request. The value is read back through discovery.", run_device_set},
    {"time get", Kind::Read, "NTP, time zone and clock (op 0xE4)", "", {},
     "The time zone is one of the protocol's ids 1 to 84 (\"none\" when the device's zone has none).",
     run_time_get},
    {"time set", Kind::Write, "set NTP, time zone, clock or daylight saving (op 0xE5)", "", kTimeOpts,
     "NTP use, server and zone are written together: what is not given is read first and kept. The clock is "
     "read back: a date the device refuses is reported, not hidden.",
     run_time_set},
};

}  // namespace

std::span<const Command> admin_commands() { return kAdmin; }

}  // namespace tavctl
