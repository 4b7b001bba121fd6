// SPDX-License-Identifier: ISC
// Wireless: status counters, SSIDs, radios and country, clients, and the AP
// array.
#include <cstdio>

#include "proto/auth_codes.h"
#include "tools/tavctl/tavctl.h"

namespace tavctl {

namespace {

Node auth_node(uint8_t code) {
    return Node(code < kAuthCodes.size() ? std::string(kAuthCodes[code].name) : std::to_string(code));
}

uint8_t parse_auth(const std::string &s) {
    for (const AuthCode &c : kAuthCodes)
        if (s == c.name) return c.code;
    std::string all;
    for (const AuthCode &c : kAuthCodes) all += (all.empty() ? "" : ", ") + std::string(c.name);
    usage("--auth: \"" + s + "\" is none of " + all);
}

// Wireless modes are sets of standards, one bit each.
constexpr std::pair<uint16_t, std::string_view> kModeBits[] = {{0x01, "a"}, {0x02, "b"}, {0x04, "g"},
                                                               {0x08, "n"}, {0x10, "ac"}, {0x20, "ax"}};

std::string mode_name(uint16_t code) {
    std::string s;
    for (auto [bit, name] : kModeBits)
        if (code & bit) s += (s.empty() ? "" : "/") + std::string(name);
    return s.empty() ? std::to_string(code) : s;
}

uint16_t parse_mode(std::string_view opt, const std::string &s) {
    uint16_t code = 0;
    for (size_t p = 0; p <= s.size();) {
        size_t e = std::min(s.find('/', p), s.size());
        bool known = false;
        for (auto [bit, name] : kModeBits)
            if (s.substr(p, e - p) == name) code = uint16_t(code | bit), known = true;
        if (!known) usage(std::string(opt) + ": \"" + s + "\" is not a wireless mode such as b/g/n, a/n/ac or ax");
        p = e + 1;
    }
    return code;
}

const char *band_name(uint64_t band) { return band == 1 ? "2.4GHz" : band == 2 ? "5GHz" : "?"; }

// ---- status ----------------------------------------------------------------------------

int run_status(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    return read_each(c, kOpGetDeviceStatus, {}, [](const Message &m, Node &ap) {
        auto pct = [](unsigned v) { return Node(v).shown(std::to_string(v) + " %"); };
        ap.set("cpu_percent", pct(m.u8(kTagCpuUtilization).value_or(0)));
        ap.set("memory_percent", pct(m.u8(kTagMemoryUsage).value_or(0)));
        const std::tuple<const char *, uint16_t, uint16_t> sides[] = {
            {"wlan_2g", kTagWlan2gSend, kTagWlan2gReceived},
            {"wlan_5g", kTagWlan5gSend, kTagWlan5gReceived},
            {"ethernet", kTagLanSend, kTagLanReceived}};
        for (auto [name, sent, received] : sides) {
            Node &side = ap.set(name, Node::object());
            side.set("sent_bytes", (unsigned long)m.u64(sent).value_or(0));
            side.set("received_bytes", (unsigned long)m.u64(received).value_or(0));
        }
    });
}

// ---- SSIDs --------------------------------------------------------------------------------

// Name and RADIUS secret as the SSID list reports them at most.
constexpr size_t kSsidTextMax = 62;

struct Ssid {
    uint8_t band = 0, index = 0, auth = 0, status = 0;
    uint16_t vlan = 0;
    std::string name, passphrase, radius_address, radius_secret;
};

std::vector<Ssid> ssids_of(const Message &m) {
    std::vector<Ssid> out;
    for (const auto &g : groups_of(m, kTagSsidIndex))
        out.push_back({uint8_t(number_in(g, kTagBand)), uint8_t(number_in(g, kTagSsidIndex)),
                       uint8_t(number_in(g, kTagAuthType)), uint8_t(number_in(g, kTagSsidStatus)),
                       uint16_t(number_in(g, kTagVlanId)), text_in(g, kTagSsidName), text_in(g, kTagPassphrase),
                       text_in(g, kTagRadiusAddress), text_in(g, kTagRadiusSecret)});
    return out;
}

Node ssid_list(const Message &m, bool secrets) {
    Node list = Node::list();
    for (const Ssid &s : ssids_of(m)) {
        Node &n = list.push(Node::object());
        n.set("band", Node(unsigned(s.band)).shown(band_name(s.band)));
        n.set("index", unsigned(s.index));
        n.set("name", s.name);
        n.set("auth", auth_node(s.auth));
        n.set("auth_code", Node(unsigned(s.auth)).json_only());
        n.set("vlan", Node(unsigned(s.vlan)).shown(s.vlan ? std::to_string(s.vlan) : "untagged"));
        n.set("state", on_off(s.status != 0));
        const Credential cr = credential_of(s.auth);
        std::string shown = cr == Credential::Psk ? "passphrase " + (secrets ? s.passphrase : "(hidden)")
                            : cr == Credential::Radius ? "radius " + s.radius_address +
                                                             (secrets ? " secret " + s.radius_secret : "")
                                                       : "-";
        n.set("credential", Node(shown));
        if (cr == Credential::Radius) n.set("radius_address", Node(s.radius_address).json_only());
        if (secrets && cr == Credential::Psk) n.set("passphrase", Node(s.passphrase).json_only());
        if (secrets && cr == Credential::Radius) n.set("radius_secret", Node(s.radius_secret).json_only());
    }
    return list;
}

int run_ssid_list(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    const bool secrets = o.flag("--show-secrets");
    return read_each(c, kOpGetSsidList, {}, [&](const Message &m, Node &ap) { ap.set("ssids", ssid_list(m, secrets)); });
}

// The settings of every listed SSID, flat, for before/after.
Node ssid_view(const Message &m) {
    Node v = Node::object();
    for (const Ssid &s : ssids_of(m)) {
        std::string at = std::string("ssid ") + band_name(s.band) + " " + std::to_string(s.index) + " ";
        v.set(at + "name", s.name);
        v.set(at + "auth", auth_node(s.auth));
        v.set(at + "vlan", unsigned(s.vlan));
        v.set(at + "state", on_off(s.status != 0));
        v.set(at + "passphrase", s.passphrase.empty() ? "" : "(changed)");
        v.set(at + "radius", s.radius_address);
    }
    return v;
}

struct SsidChange {
    uint8_t index = 0, band = 1;
    std::optional<std::string> name, passphrase, radius, secret;
    std::optional<uint8_t> auth;
    std::optional<uint16_t> vlan;
    std::optional<bool> on;
};

std::vector<SsidChange> ssid_changes(const Opts &o) {
    std::vector<SsidChange> out;
    for (const auto &[k, v] : o.given()) {
        if (k == "--index") {
            SsidChange ch;
            ch.index = uint8_t(parse_number(k, v, 0, 7));
            if (!out.empty()) ch.band = out.back().band;
            out.push_back(ch);
            continue;
        }
        if (out.empty()) usage(k + " must follow the --index of the SSID it changes");
        SsidChange &ch = out.back();
        if (k == "--band") {
            if (v != "1" && v != "2" && v != "both") usage("--band: \"" + v + "\" is none of 1 (2.4 GHz), 2 (5 GHz), both");
            ch.band = v == "both" ? 3 : uint8_t(v[0] - '0');
        } else if (k == "--name") {
            // Longer names would not come back whole, and past 63 characters the
            // device would read the rest as records of their own.
            if (v.empty() || v.size() > kSsidTextMax) usage("--name: 1 to 62 characters");
            ch.name = v;
        } else if (k == "--auth") {
            ch.auth = parse_auth(v);
        } else if (k == "--passphrase-file") {
            ch.passphrase = v == "-" ? prompt_secret("New passphrase: ") : first_line_of(v, "passphrase");
            if (!ch.passphrase) usage("--passphrase-file -: no terminal to ask on");
            if (ch.passphrase->size() < 8 || ch.passphrase->size() > 63) usage("a passphrase has 8 to 63 characters");
        } else if (k == "--radius") {
            ch.radius = format_ipv4(parse_address(k, v));
        } else if (k == "--radius-secret-file") {
            ch.secret = first_line_of(v, "RADIUS secret");
            if (ch.secret->empty() || ch.secret->size() > kSsidTextMax) usage("a RADIUS secret has 1 to 62 characters");
        } else if (k == "--vlan") {
            ch.vlan = parse_vlan(k, v);
        } else if (k == "--state") {
            ch.on = parse_on_off(k, v);
            if (ch.index == 0 && !*ch.on)
                usage("--state off: the primary SSID (index 0) is always on; switch its band off instead "
                      "(tavctl wireless set --band1 off)");
        }
    }
    if (out.empty()) usage("needs --index N, then the settings of that SSID");
    for (const SsidChange &ch : out)
        if (!ch.name && !ch.auth && !ch.passphrase && !ch.radius && !ch.secret && !ch.vlan && !ch.on)
            usage("--index " + std::to_string(ch.index) + " has no setting to change");
    return out;
}

TlvList ssid_request(const std::vector<SsidChange> &changes, const Message &now) {
    const std::vector<Ssid> known = ssids_of(now);
    TlvList t;
    for (const SsidChange &ch : changes)
        for (uint8_t band : {uint8_t(1), uint8_t(2)}) {
            if (!(ch.band & band)) continue;
            const Ssid *listed = nullptr;
            for (const Ssid &s : known)
                if (s.index == ch.index && s.band == band) listed = &s;
            // A band that is no access point is not listed: nothing to keep.
            if (!listed && (!ch.name || !ch.auth))
                usage("the access point does not list SSID " + std::to_string(ch.index) + " of band " +
                      std::to_string(band) + " (not in access-point mode); give --name and --auth to write it anyway");
            const Ssid base = listed ? *listed : Ssid{};
            const uint8_t auth = ch.auth.value_or(base.auth);
            const Credential cr = credential_of(auth);
            t.push_back(tlv_u8(kTagSsidIndex, ch.index));
            t.push_back(tlv_text(kTagSsidName, ch.name.value_or(base.name)));
            t.push_back(tlv_u8(kTagBand, band));
            if (ch.vlan) t.push_back(tlv_u16(kTagVlanId, *ch.vlan));
            t.push_back(tlv_u8(kTagAuthType, auth));
            if (cr == Credential::Psk && (ch.passphrase || auth == 1)) {
                std::string pass = ch.passphrase.value_or(base.passphrase);
                if (pass.size() < 8)
                    usage(std::string(kAuthCodes[auth].name) + " needs a passphrase of 8 to 63 characters (--passphrase-file)");
                t.push_back(tlv_text(kTagPassphrase, pass));
            }
            if (cr == Credential::Psk && !ch.passphrase && credential_of(base.auth) != Credential::Psk)
                usage(std::string(kAuthCodes[auth].name) + " needs a passphrase (--passphrase-file)");
            if (cr == Credential::Radius) {
                std::string addr = ch.radius.value_or(base.radius_address);
                std::string secret = ch.secret.value_or(base.radius_secret);
                if (!parse_ipv4(addr) || addr == "0.0.0.0")
                    usage(std::string(kAuthCodes[auth].name) + " needs a RADIUS server (--radius ADDR)");
                if (secret.empty())
                    usage(std::string(kAuthCodes[auth].name) + " needs a RADIUS secret (--radius-secret-file)");
                t.push_back(tlv_u8(kTagRadiusAddressType, 1));
                t.push_back(tlv_text(kTagRadiusAddress, addr));
                t.push_back(tlv_text(kTagRadiusSecret, secret));
            }
            t.push_back(tlv_u8(kTagSsidStatus, ch.index == 0 ? 1 : ch.on.value_or(base.status) ? 1 : 0));
        }
    return t;
}

int run_ssid_set(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    const auto changes = ssid_changes(o);
    return write_each(c, {.op = kOpSetSsidList,
                          .read_op = kOpGetSsidList,
                          .view = ssid_view,
                          .build = [&](const Ap &, const Message *now) { return ssid_request(changes, *now); },
                          .after = [](Fleet &, const Message &m, const Message *, Row &row) {
                              Node &ap = row.data;
                              if (std::string w = wait_note(m); !w.empty()) ap.set("note", w);
                          }});
}

// ---- radios, modes, country -----------------------------------------------------------------

struct Radio {
    uint8_t bands = 0;
    uint16_t mode[2] = {}, supported[2] = {}, country = 0;
};
Radio radio_of(const Message &m) {
    Radio r;
    r.bands = m.u8(kTagBandStatus).value_or(0);
    r.supported[0] = m.u16(kTagSupportedWirelessMode2g).value_or(0);
    r.mode[0] = m.u16(kTagWirelessModeStatus2g).value_or(0);
    r.supported[1] = m.u16(kTagSupportedWirelessMode5g).value_or(0);
    r.mode[1] = m.u16(kTagWirelessModeStatus5g).value_or(0);
    r.country = m.u16(kTagCountryIndex).value_or(0);
    return r;
}

Node country_node(uint16_t index) {
    return Node(unsigned(index)).shown(std::to_string(index) + " (an entry of the access point's own country table)");
}

int run_wireless_get(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    return read_each(c, kOpGetWirelessInfo, {}, [](const Message &m, Node &ap) {
        const Radio r = radio_of(m);
        ap.set("country_index", country_node(r.country));
        Node &bands = ap.set("bands", Node::list());
        for (int b = 0; b < 2; ++b) {
            Node &n = bands.push(Node::object());
            n.set("band", Node(b + 1).shown(band_name(b + 1)));
            n.set("state", on_off(r.bands >> b & 1));
            n.set("mode", mode_name(r.mode[b]));
            n.set("mode_code", Node(unsigned(r.mode[b])).json_only());
            Node &sup = n.set("supported_modes", Node::list());
            for (auto [bit, name] : kModeBits)
                if (r.supported[b] & bit) sup.push(std::string(name));
            n.set("supported", mode_name(r.supported[b]));
            n.set("supported_code", Node(unsigned(r.supported[b])).json_only());
        }
    });
}

Node radio_view(const Message &m) {
    const Radio r = radio_of(m);
    Node v = Node::object();
    v.set("band1", on_off(r.bands & 1));
    v.set("band2", on_off(r.bands & 2));
    v.set("mode1", mode_name(r.mode[0]));
    v.set("mode2", mode_name(r.mode[1]));
    v.set("country_index", unsigned(r.country));
    return v;
}

int run_wireless_set(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    std::optional<bool> on[2] = {o.on_off("--band1"), o.on_off("--band2")};
    std::optional<uint16_t> mode[2];
    for (int b = 0; b < 2; ++b)
        if (auto v = o.text(b ? "--mode2" : "--mode1")) mode[b] = parse_mode(b ? "--mode2" : "--mode1", *v);
    auto country = o.number("--country", 0, 65535);
    if (!o.any()) usage("nothing to change: give --band1, --band2, --mode1, --mode2 or --country");
    return write_each(
        c, {.op = kOpSetWirelessInfo,
            .read_op = kOpGetWirelessInfo,
            .view = radio_view,
            .build = [&](const Ap &, const Message *now) {
                const Radio r = radio_of(*now);
                TlvList t;
                if (on[0] || on[1])
                    t.push_back(tlv_u8(kTagRadioBand, uint8_t(1 | (on[0].value_or(r.bands & 1) ? 2 : 0) |
                                                              (on[1].value_or(r.bands & 2) ? 4 : 0))));
                const uint16_t tags[] = {kTagWirelessMode2g, kTagWirelessMode5g};
                for (int b = 0; b < 2; ++b)
                    if (mode[b]) t.push_back(tlv_u16(tags[b], uint16_t(*mode[b] << 1 | 1)));
                // The device looks the index up every time: the current one when unchanged.
                t.push_back(tlv_u16(kTagCountryIndex, uint16_t(country.value_or(r.country))));
                return t;
            },
            .after = [](Fleet &, const Message &m, const Message *, Row &row) {
                              Node &ap = row.data;
                if (m.u32(kTagWaitTime).value_or(0) >= 120000)
                    ap.set("note", "the country changed: the access point reboots in 5 s (" + wait_note(m) + ")");
            },
            .question = [&](const std::vector<std::string> &aps) -> std::string {
                if (!country) return aps.size() > 1 ? "wireless set on " + std::to_string(aps.size()) + " access points?" : "";
                return "country index " + std::to_string(*country) +
                       " (an entry of the access point's own country table): a new country reboots the access "
                       "point. Go on?";
            }});
}

// ---- clients ---------------------------------------------------------------------------------

int run_clients(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    return read_each(c, kOpGetClientList, {}, [](const Message &m, Node &ap) {
        Node &list = ap.set("clients", Node::list());
        for (const auto &g : groups_of(m, kTagMac)) {
            Node &n = list.push(Node::object());
            n.set("mac", format_mac(in(g, kTagMac)->value));
            n.set("ssid", text_in(g, kTagClientSsid));
            const unsigned band = unsigned(number_in(g, kTagTlvBand) + 1);
            n.set("band", Node(band).shown(band_name(band)));
            n.set("channel", (unsigned long)number_in(g, kTagChannel));
            n.set("auth", auth_node(uint8_t(number_in(g, kTagClientAuth))));
            n.set("auth_code", Node((unsigned long)number_in(g, kTagClientAuth)).json_only());
            const int rssi = int32_t(uint32_t(number_in(g, kTagRssi)));
            n.set("rssi_dbm", Node(rssi).shown(std::to_string(rssi) + " dBm"));
        }
    });
}

// ---- AP array ---------------------------------------------------------------------------------

constexpr std::string_view kRoles[] = {"none", "master", "slave"};

Node array_view(const Message &m) {
    Node v = Node::object();
    v.set("enabled", on_off(m.u8(kTagApArrayEnable).value_or(0)));
    const uint8_t role = m.u8(kTagApArrayRole).value_or(0);
    v.set("role", role < 3 ? std::string(kRoles[role]) : std::to_string(role));
    v.set("name", m.text(kTagApArrayName).value_or(""));
    v.set("name_filter", on_off(m.u8(kTagApArrayNameFilter).value_or(0)));
    v.set("preferred_master", on_off(m.u8(kTagApArrayPreferredMaster).value_or(0)));
    v.set("add_automatically", on_off(m.u8(kTagApArrayAddApAuto).value_or(0)));
    return v;
}

int run_array_get(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    return read_each(c, kOpGetApArrayInfo, {}, [](const Message &m, Node &ap) {
        const Node view = array_view(m);
        for (const auto &[k, v] : view.fields()) ap.set(k, v);
    });
}

int run_array_set(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    auto enable = o.on_off("--enable"), filter = o.on_off("--name-filter"), master = o.on_off("--preferred-master"),
         auto_add = o.on_off("--auto-add");
    // The device reports no more, and would misread the NUL of a
    // 16-character name as the start of a record.
    auto name = o.text("--name", 14);
    std::optional<uint8_t> role;
    if (auto r = o.text("--role")) {
        for (size_t i = 0; i < 3; ++i)
            if (*r == kRoles[i]) role = uint8_t(i);
        if (!role) usage("--role: \"" + *r + "\" is none of none, master, slave");
    }
    if (!o.any()) usage("nothing to change: give --enable, --role, --name, --name-filter, --preferred-master or --auto-add");
    return write_each(c, {.op = kOpSetApArrayInfo,
                          .read_op = kOpGetApArrayInfo,
                          .view = array_view,
                          .build = [&](const Ap &, const Message *now) {
                              auto keep = [&](std::optional<bool> v, uint16_t tag) {
                                  return tlv_u8(tag, v ? *v : now->u8(tag).value_or(0) != 0);
                              };
                              return TlvList{keep(enable, kTagApArrayEnable),
                                             tlv_u8(kTagApArrayRole, role.value_or(now->u8(kTagApArrayRole).value_or(0))),
                                             tlv_text(kTagApArrayName, name.value_or(now->text(kTagApArrayName).value_or(""))),
                                             keep(filter, kTagApArrayNameFilter), keep(master, kTagApArrayPreferredMaster),
                                             keep(auto_add, kTagApArrayAddApAuto)};
                          }});
}

int run_array_members(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    const bool members = o.flag("--members"), unmanaged = o.flag("--unmanaged");
    const uint8_t want = members == unmanaged ? 3 : members ? 1 : 2;
    return read_each(c, kOpGetApArrayDeviceList, {tlv_u8(kTagReqType, want)}, [](const Message &m, Node &ap) {
        Node &list = ap.set("devices", Node::list());
        for (const auto &g : groups_of(m, kTagGroup)) {
            Node &n = list.push(Node::object());
            n.set("list", number_in(g, kTagListType) ? "unmanaged" : "member");
            n.set("model", text_in(g, kTagHostName));
            n.set("name", text_in(g, kTagSystemName));
            n.set("mac", in(g, kTagMac) ? Node(format_mac(in(g, kTagMac)->value)) : Node());
            n.set("online", in(g, kTagDeviceStatus) ? Node(number_in(g, kTagDeviceStatus) != 0) : Node());
        }
    });
}

// One group per MAC; the credentials and the precedence come last, as the
// device checks them when tag 54 arrives.
int array_action(Ctx &c, uint8_t action) {
    Opts o(c.g, *c.cmd, c.words);
    if (o.positional().empty()) usage("needs one or more MAC addresses of array members");
    TlvList body;
    std::string macs;
    for (const auto &w : o.positional()) {
        auto mac = parse_mac(w);
        if (!mac) usage("\"" + w + "\" is not a MAC address (such as 02:7a:76:00:00:02)");
        body.push_back(tlv_u16(kTagGroup, 0xFFFF));
        body.push_back(tlv_mac(kTagMac, *mac));
        body.push_back(tlv_u8(kTagAction, action));
        macs += " " + format_mac(*mac);
    }
    return write_each(c, {.op = kOpSetApArrayMemberList,
                          .build = [&](const Ap &, const Message *) { return body; },
                          .after = [&](Fleet &, const Message &, const Message *, Row &row) {
                              Node &ap = row.data;
                              ap.set("note", action == 3 ? "accepted; the members named reboot"
                                                         : "accepted; the lists change at the next refresh (tavctl "
                                                           "array members)");
                          },
                          .credentials_last = true,
                          .question = [&](const std::vector<std::string> &) -> std::string {
                              return action == 3 ? "reboot the array members" + macs + "? Go on?" : "";
                          }});
}

int run_array_approve(Ctx &c) { return array_action(c, 1); }
int run_array_remove(Ctx &c) { return array_action(c, 2); }
int run_array_reboot(Ctx &c) { return array_action(c, 3); }

constexpr OptSpec kSsidListOpts[] = {{"--show-secrets", "", "show passphrases and RADIUS secrets"}};
constexpr OptSpec kSsidSetOpts[] = {
    {"--index", "N", "starts an SSID: 0 is the band's primary SSID (always on), 1 to 7 the additional ones"},
    {"--band", "1|2|both", "2.4 GHz, 5 GHz or both (default: the previous SSID's, else 1)"},
    {"--name", "TEXT", "SSID name (1 to 62 characters)"},
    {"--auth", "NAME", "open, wpa-psk, wpa-eap, wpa2-psk, wpa2-eap, enhanced-open, owe-transition, wpa2-wpa3-eap, "
                       "wpa-wpa2-psk, wpa2-wpa3-psk, wpa3-psk, wpa-wpa2-eap, wpa3-eap"},
    {"--passphrase-file", "FILE", "new passphrase (8 to 63 characters): first line of FILE, or - to be asked"},
    {"--radius", "ADDR", "RADIUS server (IPv4 address); the eap kinds need one"},
    {"--radius-secret-file", "FILE", "RADIUS shared secret (1 to 62 characters), first line of FILE"},
    {"--vlan", "N", "VLAN id: 0 for untagged, or 1 to 4094"},
    {"--state", "on|off", "switch an additional SSID on or off"},
};
constexpr OptSpec kWirelessSetOpts[] = {
    {"--band1", "on|off", "switch the 2.4 GHz band on or off"},
    {"--band2", "on|off", "switch the 5 GHz band on or off"},
    {"--mode1", "MODE", "2.4 GHz wireless mode: b/g, b/g/n, n, ax..."},
    {"--mode2", "MODE", "5 GHz wireless mode: a, a/n, n, a/n/ac, ax..."},
    {"--country", "INDEX", "country index: an entry of the access point's own country table (the protocol names "
                           "no countries); a new country reboots the access point"},
};
constexpr OptSpec kMembersOpts[] = {
    {"--members", "", "only the array's members"},
    {"--unmanaged", "", "only the unmanaged access points around it"},
};
constexpr OptSpec kArraySetOpts[] = {
    {"--enable", "on|off", "the AP array on or off"},
    {"--role", "ROLE", "none, master or slave"},
    {"--name", "TEXT", "array name (at most 14 characters)"},
    {"--name-filter", "on|off", "join only arrays of this name"},
    {"--preferred-master", "on|off", "prefer this access point as master"},
    {"--auto-add", "on|off", "add access points automatically"},
};

const Command kWireless[] = {
    {"status", Kind::Read, "CPU and memory load, traffic counters (op 0x2003)", "", {}, "", run_status},
    {"ssid list", Kind::Read, "the SSIDs of both bands (op 0x2004)", "", kSsidListOpts,
     "Bands in access-point mode only. Passphrases and RADIUS secrets only with --show-secrets.", run_ssid_list},
    {"ssid set", Kind::Write, "change one or more SSIDs (op 0x2005)", "", kSsidSetOpts,
     "Each --index starts an SSID; the settings after it apply to that SSID. What is not given keeps the "
     "access point's current value (read first); the settings are read back and the changes shown.",
     run_ssid_set},
    {"wireless get", Kind::Read, "bands, wireless modes and country index (op 0x2006)", "", {},
     "The country index is an entry of the access point's own country table; the protocol gives no names.",
     run_wireless_get},
    {"wireless set", Kind::Write, "switch bands, set modes and the country (op 0x2007)", "", kWirelessSetOpts,
     "What is not given stays as it is. A country change asks for confirmation (--yes for scripts) and "
     "reboots the access point.",
     run_wireless_set},
    {"clients", Kind::Read, "the associated stations (op 0x2008)", "", {}, "", run_clients},
    {"array get", Kind::Read, "AP-array settings (op 0x2009)", "", {}, "", run_array_get},
    {"array set", Kind::Write, "change the AP-array settings (op 0x200A)", "", kArraySetOpts,
     "What is not given keeps its current value; the mesh service restarts.", run_array_set},
    {"array members", Kind::Read, "members and unmanaged access points (op 0x200B)", "", kMembersOpts,
     "The access point refreshes its lists first.", run_array_members},
    {"array approve", Kind::Write, "take access points into the array (op 0x200C)", "MAC...", {},
     "The lists change at the access point's next refresh.", run_array_approve},
    {"array remove", Kind::Write, "take members out of the array (op 0x200C)", "MAC...", {},
     "The lists change at the access point's next refresh.", run_array_remove},
    {"array reboot", Kind::Write, "reboot members of the array (op 0x200C)", "MAC...", {},
     "Asks for confirmation (--yes for scripts).", run_array_reboot},
};

}  // namespace

std::span<const Command> wireless_commands() { return kWireless; }

}  // namespace tavctl
