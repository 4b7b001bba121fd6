// SPDX-License-Identifier: ISC
// The wireless commands: status counters, SSIDs, radios and country,
// clients, and the AP array.
#include <cstdio>
#include <fstream>
#include <map>

#include "proto/auth_codes.h"
#include "tools/tavctl/tavctl.h"

namespace tavctl {

namespace {

// ---- names ------------------------------------------------------------------


// parse_uint, with the bound checked here as well (its own check lets a
// single digit above a small bound through).
std::optional<uint64_t> bounded(const std::string &s, uint64_t max) {
    auto n = parse_uint(s, max);
    if (n && *n > max) return std::nullopt;
    return n;
}

std::string auth_name(uint8_t code) {
    return code < kAuthCodes.size() ? std::string(kAuthCodes[code].name) : std::to_string(code);
}
uint8_t parse_auth(const std::string &s) {
    for (const AuthCode &c : kAuthCodes)
        if (s == c.name) return c.code;
    if (auto n = bounded(s, kAuthCodes.size() - 1)) return uint8_t(*n);
    std::string all;
    for (const AuthCode &c : kAuthCodes) all += (all.empty() ? "" : ", ") + std::string(c.name);
    throw UsageError{"unknown authentication '" + s + "' (" + all + ", or 0-12)"};
}

// Wireless modes are sets of standards, one bit each.
constexpr std::pair<uint16_t, std::string_view> kModeBits[] = {
    {0x01, "a"}, {0x02, "b"}, {0x04, "g"}, {0x08, "n"}, {0x10, "ac"}, {0x20, "ax"}};

std::string mode_name(uint16_t code) {
    std::string s;
    for (auto [bit, name] : kModeBits)
        if (code & bit) s += (s.empty() ? "" : "/") + std::string(name);
    return s.empty() ? std::to_string(code) : s;
}
uint16_t parse_mode(const std::string &s) {
    if (auto n = bounded(s, 0x7FFF)) return uint16_t(*n);
    uint16_t code = 0;
    for (size_t p = 0; p <= s.size();) {
        size_t e = s.find('/', p);
        if (e == std::string::npos) e = s.size();
        const std::string part = s.substr(p, e - p);
        bool known = false;
        for (auto [bit, name] : kModeBits)
            if (part == name) code = uint16_t(code | bit), known = true;
        if (!known) throw UsageError{"unknown wireless mode '" + s + "' (for example b/g/n, a/n/ac, ax)"};
        p = e + 1;
    }
    return code;
}

bool parse_switch(const std::string &option, const std::string &s) {
    if (s == "on" || s == "1") return true;
    if (s == "off" || s == "0") return false;
    throw UsageError{option + " takes on or off"};
}
std::string on_off(bool b) { return b ? "on" : "off"; }

std::string read_first_line(const std::string &path, const char *what) {
    std::ifstream f(path);
    std::string line;
    if (!f || !std::getline(f, line)) throw UsageError{std::string("cannot read the ") + what + " from " + path};
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

std::string text_of(const Record &r) { return format_text(r.value); }
uint64_t number_of(const Record &r) {
    uint64_t v = 0;
    for (uint8_t b : r.value) v = v << 8 | b;
    return v;
}

// ---- reading several devices ----------------------------------------------

// Runs a read request and hands each reply to `show` (human) or `json`.
int for_each_reply(Args &a, uint16_t op, const TlvList &tlvs,
                   const std::function<void(const Message &)> &show,
                   const std::function<void(JsonWriter &, const Message &)> &json) {
    return each_reply(a, op, tlvs, [&](JsonWriter &j, const Message &m, bool ipv4, bool several) {
        if (a.json) {
            json_head(j, m, ipv4);
            if (m.result() == 0) json(j, m);
            j.end_object();
            return;
        }
        if (several || m.result() != 0)
            std::printf("%s%s\n", from_text(m, ipv4).c_str(),
                        m.result() ? (": result " + result_text(m.result(), op)).c_str() : ":");
        if (m.result() == 0) show(m);
    });
}

// A set request to one device; prints the outcome.
int set_request(Args &a, uint16_t op, const TlvList &tlvs) {
    Message m;
    if (int rc = request_one_device(a, op, tlvs, m)) return rc;
    const auto wait = m.u32(kTagWaitTime).value_or(0);
    if (a.json) {
        JsonWriter j;
        j.begin_object().key("result").value(uint64_t(m.result()));
        j.key("wait_ms").value(uint64_t(wait)).end_object();
        std::printf("%s\n", j.str().c_str());
    } else {
        std::printf("done; the device asks to wait %.0f s\n", wait / 1000.0);
    }
    return kExitOk;
}

// The records of a reply split into groups, each opened by `first`.
std::vector<TlvList> groups_of(const Message &m, uint16_t first) {
    std::vector<TlvList> out;
    for (const auto &r : m.tlvs) {
        if (r.tag == first) out.emplace_back();
        if (!out.empty() && r.tag != kTagEolOrCnt) out.back().push_back(r);
    }
    return out;
}
const Record *in(const TlvList &g, uint16_t tag) {
    for (const auto &r : g)
        if (r.tag == tag) return &r;
    return nullptr;
}
std::string text_in(const TlvList &g, uint16_t tag) {
    const Record *r = in(g, tag);
    return r ? text_of(*r) : "";
}
uint64_t number_in(const TlvList &g, uint16_t tag) {
    const Record *r = in(g, tag);
    return r ? number_of(*r) : 0;
}

// ---- status -------------------------------------------------------------------

const char kStatusHelp[] = R"(usage: tavctl status [--json]

Reads CPU and memory load and the byte counters of both radios and of the
wired side (op 0x2003).
)";

int cmd_status(Args &a) {
    OptParser(a).parse_none();
    const std::pair<const char *, std::pair<uint16_t, uint16_t>> sides[] = {
        {"2.4 GHz", {kTagWlan2gSend, kTagWlan2gReceived}},
        {"5 GHz", {kTagWlan5gSend, kTagWlan5gReceived}},
        {"ethernet", {kTagLanSend, kTagLanReceived}}};
    return for_each_reply(
        a, kOpGetDeviceStatus, {},
        [&](const Message &m) {
            print_fields({{"cpu", std::to_string(m.u8(kTagCpuUtilization).value_or(0)) + " %"},
                          {"memory", std::to_string(m.u8(kTagMemoryUsage).value_or(0)) + " %"}});
            std::vector<std::vector<std::string>> rows{{"SIDE", "SENT BYTES", "RECEIVED BYTES"}};
            for (const auto &[name, tags] : sides)
                rows.push_back({name, std::to_string(m.u64(tags.first).value_or(0)),
                                std::to_string(m.u64(tags.second).value_or(0))});
            print_table(rows);
        },
        [&](JsonWriter &j, const Message &m) {
            j.key("cpu").value(uint64_t(m.u8(kTagCpuUtilization).value_or(0)));
            j.key("memory").value(uint64_t(m.u8(kTagMemoryUsage).value_or(0)));
            const char *keys[] = {"wlan_2g", "wlan_5g", "ethernet"};
            for (size_t i = 0; i < 3; ++i) {
                j.key(keys[i]).begin_object();
                j.key("sent").value(m.u64(sides[i].second.first).value_or(0));
                j.key("received").value(m.u64(sides[i].second.second).value_or(0));
                j.end_object();
            }
        });
}

// ---- SSIDs ----------------------------------------------------------------------

// Name and RADIUS secret as the SSID list reports them at most.
constexpr size_t kSsidTextMax = 62;

struct Ssid {
    uint8_t band = 0, index = 0, auth = 0, status = 0, radius_type = 1;
    uint16_t vlan = 0;
    std::string name, passphrase, radius_address, radius_secret;
};

std::vector<Ssid> ssids_of(const Message &m) {
    std::vector<Ssid> out;
    for (const auto &g : groups_of(m, kTagSsidIndex)) {
        Ssid s;
        s.index = uint8_t(number_in(g, kTagSsidIndex));
        s.name = text_in(g, kTagSsidName);
        s.band = uint8_t(number_in(g, kTagBand));
        s.vlan = uint16_t(number_in(g, kTagVlanId));
        s.auth = uint8_t(number_in(g, kTagAuthType));
        s.passphrase = text_in(g, kTagPassphrase);
        s.radius_address = text_in(g, kTagRadiusAddress);
        s.radius_secret = text_in(g, kTagRadiusSecret);
        s.status = uint8_t(number_in(g, kTagSsidStatus));
        out.push_back(s);
    }
    return out;
}

const char kSsidListHelp[] = R"(usage: tavctl ssid list [--show-secrets] [--json]

Lists the SSIDs of the bands in access-point mode (op 0x2004): band, index
(0 is the band's primary SSID), name, authentication, VLAN, on/off and the
credential. Passphrases and RADIUS secrets are shown only with --show-secrets.
)";

int cmd_ssid_list(Args &a) {
    bool secrets = false;
    OptParser(a).flag("--show-secrets", secrets).parse_none();
    auto credential = [&](const Ssid &s) -> std::string {
        switch (credential_of(s.auth)) {
        case Credential::Psk:
            return "passphrase " + (secrets ? s.passphrase : std::string("(hidden)"));
        case Credential::Radius:
            return "radius " + s.radius_address + (secrets ? " secret " + s.radius_secret : "");
        case Credential::None: break;
        }
        return "-";
    };
    return for_each_reply(
        a, kOpGetSsidList, {},
        [&](const Message &m) {
            std::vector<std::vector<std::string>> rows{
                {"BAND", "INDEX", "NAME", "AUTH", "VLAN", "STATE", "CREDENTIAL"}};
            for (const Ssid &s : ssids_of(m))
                rows.push_back({s.band == 1 ? "2.4GHz" : "5GHz", std::to_string(s.index), s.name,
                                auth_name(s.auth), std::to_string(s.vlan), on_off(s.status != 0),
                                credential(s)});
            print_table(rows);
        },
        [&](JsonWriter &j, const Message &m) {
            j.key("bands").value(uint64_t(m.u8(kTagSupportedBand).value_or(0)));
            j.key("ssids").begin_array();
            for (const Ssid &s : ssids_of(m)) {
                j.begin_object();
                j.key("band").value(uint64_t(s.band)).key("index").value(uint64_t(s.index));
                j.key("name").value(s.name).key("auth").value(auth_name(s.auth));
                j.key("auth_code").value(uint64_t(s.auth)).key("vlan").value(uint64_t(s.vlan));
                j.key("on").value(s.status != 0);
                const Credential c = credential_of(s.auth);
                if (c == Credential::Radius) j.key("radius_address").value(s.radius_address);
                if (secrets && c == Credential::Psk) j.key("passphrase").value(s.passphrase);
                if (secrets && c == Credential::Radius)
                    j.key("radius_secret").value(s.radius_secret);
                j.end_object();
            }
            j.end_array();
        });
}

const char kSsidSetHelp[] = R"(usage: tavctl ssid set --index N [--band 1|2|both] [SETTINGS]... [--index N ...]

Changes one or more SSIDs in one request (op 0x2005). Each --index starts an
SSID (0 is the band's primary SSID, 1-7 the additional ones); the settings
after it apply to that SSID:
  --band 1|2|both          2.4 GHz, 5 GHz or both (default: the previous SSID's, else 1);
                           with both, each band keeps its own values of what is not given
  --name TEXT              SSID name (at most 62 characters)
  --auth NAME              open, wpa-psk, wpa-eap, wpa2-psk, wpa2-eap, enhanced-open,
                           owe-transition, wpa2-wpa3-eap, wpa-wpa2-psk, wpa2-wpa3-psk,
                           wpa3-psk, wpa-wpa2-eap, wpa3-eap (or 0-12)
  --passphrase-file FILE   new passphrase (8-63 characters): first line of FILE,
                           or asked for on the terminal with -
  --radius ADDR            RADIUS server (dotted IPv4 address)
  --radius-secret-file FILE  RADIUS shared secret (at most 62 characters),
                           first line of FILE
  --vlan N                 VLAN id (0-4096)
  --state on|off           switch an additional SSID on or off
Settings not given keep the device's current values (read first with op
0x2004). Needs --user and the password (see tavctl --help).
)";

int cmd_ssid_set(Args &a) {
    struct Change {
        uint8_t index = 0, band = 1;
        std::optional<std::string> name, passphrase, radius, secret;
        std::optional<uint8_t> auth;
        std::optional<uint16_t> vlan;
        std::optional<bool> on;
    };
    std::vector<Change> changes;
    auto current = [&](const std::string &opt) -> Change & {
        if (changes.empty()) throw UsageError{opt + " must follow --index"};
        return changes.back();
    };
    OptParser p(a);
    p.value("--index", [&](const std::string &v) {
        auto n = bounded(v, 7);
        if (!n) throw UsageError{"--index takes 0 to 7"};
        Change c;
        c.index = uint8_t(*n);
        if (!changes.empty()) c.band = changes.back().band;
        changes.push_back(c);
    });
    p.value("--band", [&](const std::string &v) {
        if (v != "1" && v != "2" && v != "both") throw UsageError{"--band takes 1, 2 or both"};
        current("--band").band = v == "both" ? 3 : uint8_t(v[0] - '0');
    });
    // Longer texts would not come back whole from the device, and past 63
    // characters the device would read the end of the value as a record of
    // its own and lose the rest of the SSID's settings.
    p.value("--name", [&](const std::string &v) {
        if (v.size() > kSsidTextMax) throw UsageError{"--name: at most 62 characters"};
        current("--name").name = v;
    });
    p.value("--auth", [&](const std::string &v) { current("--auth").auth = parse_auth(v); });
    p.value("--passphrase-file", [&](const std::string &v) {
        Change &c = current("--passphrase-file");
        if (v != "-") {
            c.passphrase = read_first_line(v, "passphrase");
        } else if (!(c.passphrase = prompt_secret("New passphrase: "))) {
            throw UsageError{"no terminal to ask for the passphrase"};
        }
    });
    p.value("--radius", [&](const std::string &v) {
        if (!parse_ipv4(v)) throw UsageError{"--radius takes a dotted IPv4 address"};
        current("--radius").radius = v;
    });
    p.value("--radius-secret-file", [&](const std::string &v) {
        std::string secret = read_first_line(v, "RADIUS secret");
        if (secret.size() > kSsidTextMax) throw UsageError{"the RADIUS secret: at most 62 characters"};
        current("--radius-secret-file").secret = std::move(secret);
    });
    p.value("--vlan", [&](const std::string &v) {
        auto n = bounded(v, 4096);
        if (!n) throw UsageError{"--vlan takes 0 to 4096"};
        current("--vlan").vlan = uint16_t(*n);
    });
    p.value("--state", [&](const std::string &v) { current("--state").on = parse_switch("--state", v); });
    p.parse_none();
    if (changes.empty()) throw UsageError{"ssid set needs at least one --index"};

    // What is not given is sent as it stands: the device writes every
    // setting of a group.
    Message now;
    if (int rc = request_one_device(a, kOpGetSsidList, {}, now)) return rc;
    const std::vector<Ssid> known = ssids_of(now);
    TlvList tlvs;
    if (int rc = add_credentials(a, tlvs)) return rc;
    for (const Change &c : changes) {
        // One group per band, so that each band keeps its own current values.
        for (uint8_t band : {uint8_t(1), uint8_t(2)}) {
            if (!(c.band & band)) continue;
            const Ssid *listed = nullptr;
            for (const Ssid &s : known)
                if (s.index == c.index && s.band == band) listed = &s;
            // A band that is no access point is not listed: nothing to keep.
            if (!listed && (!c.name || !c.auth))
                throw UsageError{"the device does not list SSID " + std::to_string(c.index) + " of band " +
                                 std::to_string(band) +
                                 " (not in access-point mode); give --name and --auth to write it anyway"};
            const Ssid base = listed ? *listed : Ssid{};
            const uint8_t auth = c.auth.value_or(base.auth);
            uint8_t status = base.status;
            if (c.on) status = *c.on ? 1 : 0;
            if (c.index == 0) status = 1;
            tlvs.push_back(tlv_u8(kTagSsidIndex, c.index));
            tlvs.push_back(tlv_text(kTagSsidName, c.name.value_or(base.name)));
            tlvs.push_back(tlv_u8(kTagBand, band));
            if (c.vlan) tlvs.push_back(tlv_u16(kTagVlanId, *c.vlan));
            tlvs.push_back(tlv_u8(kTagAuthType, auth));
            const Credential credential = credential_of(auth);
            if (credential == Credential::Psk && (c.passphrase || auth == 1)) {
                const std::string pass = c.passphrase.value_or(base.passphrase);
                if (pass.size() < 8 || pass.size() > 63)
                    throw UsageError{"a passphrase of 8 to 63 characters is needed (--passphrase-file)"};
                tlvs.push_back(tlv_text(kTagPassphrase, pass));
            }
            if (credential == Credential::Radius && (c.radius || c.secret || auth == 2)) {
                const std::string addr = c.radius.value_or(base.radius_address);
                if (!parse_ipv4(addr)) throw UsageError{"a RADIUS server address is needed (--radius)"};
                tlvs.push_back(tlv_u8(kTagRadiusAddressType, 1));
                tlvs.push_back(tlv_text(kTagRadiusAddress, addr));
                tlvs.push_back(tlv_text(kTagRadiusSecret, c.secret.value_or(base.radius_secret)));
            }
            tlvs.push_back(tlv_u8(kTagSsidStatus, status));
        }
    }
    return set_request(a, kOpSetSsidList, tlvs);
}

// ---- radios, modes, country ---------------------------------------------------

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

const char kWirelessGetHelp[] = R"(usage: tavctl wireless get [--json]

Reads which bands are on (in access-point mode and switched on), the
wireless mode of each band with the modes it supports, and the country
index (op 0x2006).
)";

int cmd_wireless_get(Args &a) {
    OptParser(a).parse_none();
    return for_each_reply(
        a, kOpGetWirelessInfo, {},
        [&](const Message &m) {
            const Radio r = radio_of(m);
            std::vector<std::vector<std::string>> rows{{"BAND", "STATE", "MODE", "SUPPORTED"}};
            const char *names[] = {"2.4GHz", "5GHz"};
            for (int b = 0; b < 2; ++b) {
                std::string supported;
                for (auto [bit, name] : kModeBits)
                    if (r.supported[b] & bit) supported += (supported.empty() ? "" : ",") + std::string(name);
                rows.push_back({names[b], on_off(r.bands >> b & 1), mode_name(r.mode[b]), supported});
            }
            print_table(rows);
            print_fields({{"country index", std::to_string(r.country)}});
        },
        [&](JsonWriter &j, const Message &m) {
            const Radio r = radio_of(m);
            j.key("bands").begin_array();
            for (int b = 0; b < 2; ++b) {
                j.begin_object().key("band").value(b + 1).key("on").value(bool(r.bands >> b & 1));
                j.key("mode").value(mode_name(r.mode[b])).key("mode_code").value(unsigned(r.mode[b]));
                j.key("supported_modes").value(unsigned(r.supported[b])).end_object();
            }
            j.end_array();
            j.key("country_index").value(unsigned(r.country));
        });
}

const char kWirelessSetHelp[] = R"(usage: tavctl wireless set [--band1 on|off] [--band2 on|off]
                          [--mode1 MODE] [--mode2 MODE] [--country INDEX]

Changes the radios (op 0x2007): switches bands on or off, sets the wireless
mode of band 1 (2.4 GHz: b/g, b/g/n, n, ax) or band 2 (5 GHz: a, a/n, n,
a/n/ac, ax), and the country by its index in the device's country table. A
new country reboots the device. What is not given stays as it is (the current
state is read first with op 0x2006). Needs --user and the password.
)";

int cmd_wireless_set(Args &a) {
    std::optional<bool> on[2];
    std::optional<uint16_t> mode[2];
    std::optional<uint64_t> country;
    OptParser p(a);
    for (int b = 0; b < 2; ++b) {
        const std::string n = std::to_string(b + 1);
        p.value("--band" + n, [&, b, n](const std::string &v) { on[b] = parse_switch("--band" + n, v); });
        p.value("--mode" + n, [&, b](const std::string &v) { mode[b] = parse_mode(v); });
    }
    p.number("--country", 65535, country);
    p.parse_none();
    Message now;
    if (int rc = request_one_device(a, kOpGetWirelessInfo, {}, now)) return rc;
    const Radio r = radio_of(now);
    TlvList tlvs;
    if (int rc = add_credentials(a, tlvs)) return rc;
    if (on[0] || on[1]) {
        const bool b1 = on[0].value_or(r.bands & 1), b2 = on[1].value_or(r.bands & 2);
        tlvs.push_back(tlv_u8(kTagRadioBand, uint8_t(1 | (b1 ? 2 : 0) | (b2 ? 4 : 0))));
    }
    const uint16_t mode_tags[] = {kTagWirelessMode2g, kTagWirelessMode5g};
    for (int b = 0; b < 2; ++b)
        if (mode[b]) tlvs.push_back(tlv_u16(mode_tags[b], uint16_t(*mode[b] << 1 | 1)));
    // The device looks the index up every time: the current one when unchanged.
    tlvs.push_back(tlv_u16(kTagCountryIndex, uint16_t(country.value_or(r.country))));
    return set_request(a, kOpSetWirelessInfo, tlvs);
}

// ---- clients ------------------------------------------------------------------

const char kClientsHelp[] = R"(usage: tavctl clients [--json]

Lists the stations associated with the device (op 0x2008): MAC, SSID, band,
channel, authentication and signal strength.
)";

int cmd_clients(Args &a) {
    OptParser(a).parse_none();
    auto rssi = [](const TlvList &g) { return int32_t(uint32_t(number_in(g, kTagRssi))); };
    return for_each_reply(
        a, kOpGetClientList, {},
        [&](const Message &m) {
            std::vector<std::vector<std::string>> rows{{"MAC", "SSID", "BAND", "CHANNEL", "AUTH", "RSSI"}};
            for (const auto &g : groups_of(m, kTagMac))
                rows.push_back({format_mac(in(g, kTagMac)->value), text_in(g, kTagClientSsid),
                                number_in(g, kTagTlvBand) ? "5GHz" : "2.4GHz",
                                std::to_string(number_in(g, kTagChannel)),
                                auth_name(uint8_t(number_in(g, kTagClientAuth))),
                                std::to_string(rssi(g)) + " dBm"});
            print_table(rows);
        },
        [&](JsonWriter &j, const Message &m) {
            j.key("clients").begin_array();
            for (const auto &g : groups_of(m, kTagMac)) {
                j.begin_object().key("mac").value(format_mac(in(g, kTagMac)->value));
                j.key("ssid").value(text_in(g, kTagClientSsid));
                j.key("band").value(unsigned(number_in(g, kTagTlvBand) + 1));
                j.key("channel").value(number_in(g, kTagChannel));
                j.key("auth").value(auth_name(uint8_t(number_in(g, kTagClientAuth))));
                j.key("rssi").value(int64_t(rssi(g))).end_object();
            }
            j.end_array();
        });
}

// ---- AP array -------------------------------------------------------------------

constexpr std::string_view kRoles[] = {"none", "master", "slave"};

struct Array {
    bool enable = false, filter = false, master = false, auto_add = false;
    uint8_t role = 0;
    std::string name;
};
Array array_of(const Message &m) {
    Array r;
    r.enable = m.u8(kTagApArrayEnable).value_or(0);
    r.role = m.u8(kTagApArrayRole).value_or(0);
    r.name = m.text(kTagApArrayName).value_or("");
    r.filter = m.u8(kTagApArrayNameFilter).value_or(0);
    r.master = m.u8(kTagApArrayPreferredMaster).value_or(0);
    r.auto_add = m.u8(kTagApArrayAddApAuto).value_or(0);
    return r;
}
std::string role_name(uint8_t r) { return r < 3 ? std::string(kRoles[r]) : std::to_string(r); }

const char kArrayGetHelp[] = R"(usage: tavctl array get [--json]

Reads the AP-array settings (op 0x2009): on/off, role, array name, name
filter, preferred master, adding access points automatically.
)";

int cmd_array_get(Args &a) {
    OptParser(a).parse_none();
    return for_each_reply(
        a, kOpGetApArrayInfo, {},
        [&](const Message &m) {
            const Array r = array_of(m);
            print_fields({{"enabled", on_off(r.enable)},
                          {"role", role_name(r.role)},
                          {"name", r.name},
                          {"name filter", on_off(r.filter)},
                          {"preferred master", on_off(r.master)},
                          {"add automatically", on_off(r.auto_add)}});
        },
        [&](JsonWriter &j, const Message &m) {
            const Array r = array_of(m);
            j.key("enabled").value(r.enable).key("role").value(role_name(r.role));
            j.key("name").value(r.name).key("name_filter").value(r.filter);
            j.key("preferred_master").value(r.master).key("add_automatically").value(r.auto_add);
        });
}

const char kArraySetHelp[] = R"(usage: tavctl array set [--enable on|off] [--role none|master|slave]
                      [--name TEXT] [--name-filter on|off]
                      [--preferred-master on|off] [--auto-add on|off]

Replaces the AP-array settings (op 0x200A) and restarts the mesh service.
The array name takes at most 14 characters. What is not given keeps its
current value (read first with op 0x2009).
Needs --user and the password.
)";

int cmd_array_set(Args &a) {
    std::optional<bool> enable, filter, master, auto_add;
    std::optional<uint8_t> role;
    std::optional<std::string> name;
    auto sw = [&](const char *opt, std::optional<bool> &out) {
        return [&out, opt](const std::string &v) { out = parse_switch(opt, v); };
    };
    OptParser(a)
        .value("--enable", sw("--enable", enable))
        .value("--name-filter", sw("--name-filter", filter))
        .value("--preferred-master", sw("--preferred-master", master))
        .value("--auto-add", sw("--auto-add", auto_add))
        .value("--role",
               [&](const std::string &v) {
                   for (size_t i = 0; i < 3; ++i)
                       if (v == kRoles[i]) role = uint8_t(i);
                   if (!role) throw UsageError{"--role takes none, master or slave"};
               })
        .value("--name",
               [&](const std::string &v) {
                   // The device reports no more, and would misread the
                   // NUL of a 16-character name as the start of a record.
                   if (v.size() > 14) throw UsageError{"--name: at most 14 characters"};
                   name = v;
               })
        .parse_none();
    Message now;
    if (int rc = request_one_device(a, kOpGetApArrayInfo, {}, now)) return rc;
    const Array r = array_of(now);
    TlvList tlvs;
    if (int rc = add_credentials(a, tlvs)) return rc;
    tlvs.push_back(tlv_u8(kTagApArrayEnable, enable.value_or(r.enable)));
    tlvs.push_back(tlv_u8(kTagApArrayRole, role.value_or(r.role)));
    tlvs.push_back(tlv_text(kTagApArrayName, name.value_or(r.name)));
    tlvs.push_back(tlv_u8(kTagApArrayNameFilter, filter.value_or(r.filter)));
    tlvs.push_back(tlv_u8(kTagApArrayPreferredMaster, master.value_or(r.master)));
    tlvs.push_back(tlv_u8(kTagApArrayAddApAuto, auto_add.value_or(r.auto_add)));
    return set_request(a, kOpSetApArrayInfo, tlvs);
}

const char kArrayMembersHelp[] = R"(usage: tavctl array members [--members | --unmanaged] [--json]

Lists the members of the AP array and the unmanaged access points around it
(op 0x200B; the device refreshes its lists first).
)";

int cmd_array_members(Args &a) {
    bool only_members = false, only_unmanaged = false;
    OptParser(a).flag("--members", only_members).flag("--unmanaged", only_unmanaged).parse_none();
    const uint8_t want = only_members ? 1 : only_unmanaged ? 2 : 3;
    auto status = [](const TlvList &g) -> std::string {
        if (!in(g, kTagDeviceStatus)) return "-";
        return number_in(g, kTagDeviceStatus) ? "online" : "offline";
    };
    return for_each_reply(
        a, kOpGetApArrayDeviceList, {tlv_u8(kTagReqType, want)},
        [&](const Message &m) {
            std::vector<std::vector<std::string>> rows{{"LIST", "MODEL", "NAME", "MAC", "STATUS"}};
            for (const auto &g : groups_of(m, kTagGroup))
                rows.push_back({number_in(g, kTagListType) ? "unmanaged" : "member",
                                text_in(g, kTagHostName), text_in(g, kTagSystemName),
                                in(g, kTagMac) ? format_mac(in(g, kTagMac)->value) : "-", status(g)});
            print_table(rows);
        },
        [&](JsonWriter &j, const Message &m) {
            j.key("devices").begin_array();
            for (const auto &g : groups_of(m, kTagGroup)) {
                j.begin_object().key("member").value(number_in(g, kTagListType) == 0);
                j.key("model").value(text_in(g, kTagHostName)).key("name").value(text_in(g, kTagSystemName));
                j.key("mac").value(in(g, kTagMac) ? format_mac(in(g, kTagMac)->value) : "");
                if (in(g, kTagDeviceStatus)) j.key("online").value(number_in(g, kTagDeviceStatus) != 0);
                j.end_object();
            }
            j.end_array();
        });
}

// One group per MAC; the credentials and the precedence come last, as the
// device checks them when tag 54 arrives.
int array_action(Args &a, uint8_t action) {
    const auto words = OptParser(a).parse();
    if (words.empty()) throw UsageError{a.command + " needs one or more MAC addresses"};
    TlvList tlvs;
    for (const auto &w : words) {
        auto mac = parse_mac(w);
        if (!mac) throw UsageError{"not a MAC address: " + w};
        tlvs.push_back(tlv_u16(kTagGroup, 0xFFFF));
        tlvs.push_back(tlv_mac(kTagMac, *mac));
        tlvs.push_back(tlv_u8(kTagAction, action));
    }
    TlvList cred;
    if (int rc = add_credentials(a, cred)) return rc;
    for (const auto &r : cred)
        if (r.tag != kTagServerPrecedence) tlvs.push_back(r);
    for (const auto &r : cred)
        if (r.tag == kTagServerPrecedence) tlvs.push_back(r);
    return set_request(a, kOpSetApArrayMemberList, tlvs);
}

const char kArrayActionHelp[] = R"(usage: tavctl array approve|remove|reboot MAC...

Takes unmanaged access points into the AP array (approve), takes members out
of it (remove) or reboots members (reboot), named by MAC (op 0x200C). The
lists change at the device's next refresh (tavctl array members). Needs
--user and the password.
)";

int cmd_array_approve(Args &a) { return array_action(a, 1); }
int cmd_array_remove(Args &a) { return array_action(a, 2); }
int cmd_array_reboot(Args &a) { return array_action(a, 3); }

const Command kWireless[] = {
    {"status", "", "CPU and memory load, traffic counters (op 0x2003)", kStatusHelp, cmd_status},
    {"ssid list", "[--show-secrets]", "list the SSIDs of both bands (op 0x2004)", kSsidListHelp,
     cmd_ssid_list},
    {"ssid set", "--index N [SETTINGS]...", "change one or more SSIDs (op 0x2005)", kSsidSetHelp,
     cmd_ssid_set},
    {"wireless get", "", "bands, wireless modes and country (op 0x2006)", kWirelessGetHelp,
     cmd_wireless_get},
    {"wireless set", "[--band1|--band2 on|off] [--mode1|--mode2 MODE] [--country N]",
     "switch bands, set modes and country (op 0x2007)", kWirelessSetHelp, cmd_wireless_set},
    {"clients", "", "list the associated stations (op 0x2008)", kClientsHelp, cmd_clients},
    {"array get", "", "AP-array settings (op 0x2009)", kArrayGetHelp, cmd_array_get},
    {"array set", "[SETTINGS]", "change the AP-array settings (op 0x200A)", kArraySetHelp,
     cmd_array_set},
    {"array members", "[--members|--unmanaged]", "members and unmanaged access points (op 0x200B)",
     kArrayMembersHelp, cmd_array_members},
    {"array approve", "MAC...", "take access points into the array (op 0x200C)", kArrayActionHelp,
     cmd_array_approve},
    {"array remove", "MAC...", "take members out of the array (op 0x200C)", kArrayActionHelp,
     cmd_array_remove},
    {"array reboot", "MAC...", "reboot members of the array (op 0x200C)", kArrayActionHelp,
     cmd_array_reboot},
};

}  // namespace

std::span<const Command> wireless_commands() { return kWireless; }

}  // namespace tavctl
