// tavctl: the manager's command-line tool for TAV devices.
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "proto/tags.h"
#include "proto/wire.h"
#include "tools/client/client.h"
#include "tools/client/json.h"
#include "tools/client/tlv_text.h"

namespace {

using namespace tav;
using namespace tav::client;

enum Exit : int {
    kExitOk = 0,
    kExitResult = 1,   // a device answered with a non-zero result code
    kExitUsage = 2,
    kExitNoReply = 3,
    kExitCipher = 4,
    kExitNetwork = 5,
};

const char kMainHelp[] =
    R"(usage: tavctl [OPTIONS] COMMAND [COMMAND OPTIONS]

Talks to TAV devices by raw Ethernet or UDP.

Path (exactly one):
  --iface IF          raw Ethernet frames (EtherType 0x2386) on interface IF
  --udp ADDR          UDP to ADDR port 62976; a broadcast address or
                      224.0.0.1 reaches every device

Options:
  --cipher PATH       cipher library (default /usr/lib/TAV_Auth.so)
  --target MAC        the device's MAC (default: every device;
                      FF:FF:FF:FF:FF:FF on Ethernet, 00:00:00:00:00:00 on UDP)
  --target-ip IP      the device's IPv4 address, UDP only (default 0.0.0.0)
  --seq N             sequence number of the request (default random)
  --timeout SECONDS   how long to collect replies (default 2; fractions allowed)
  --json              print JSON (always an array) instead of tables
  --port N            UDP destination port (default 62976)
  --bind ADDR         UDP: local IPv4 address to send from
  --netns NAME        open the socket inside network namespace NAME
  --source-mac MAC    raw Ethernet: send as a manager with this MAC
  -h, --help          this text; "tavctl COMMAND --help" for a command

Commands:
  discover            find devices (op 0xA1) and list them
  raw OPCODE [--tlv TAG=VALUE]...
                      send any request and print the decoded replies
  functions           list the op codes a device serves (op 0xA5)
  verify --user NAME  test a user name and password (op 0xA3)
  hello               send a manager hello (op 0x104)
  bye                 send a manager bye (op 0x105)
  tags [OPCODE]       list the protocol's tags (no network)

A request addressed to one device (--target, --target-ip, or --udp to a
unicast address) ends at its first reply; otherwise replies are collected
for the whole --timeout.

Exit status:
  0  success
  1  a device answered with a non-zero result code
  2  usage error
  3  no reply within the timeout
  4  the cipher library cannot be loaded
  5  network error (no such interface or namespace, no permission)
)";

const std::map<std::string, std::string> kCommandHelp = {
    {"discover", R"(usage: tavctl [OPTIONS] discover

Broadcasts a discovery request (op 0xA1) and lists every device that answers
within --timeout: MAC, IPv4 address, host name, model, firmware, system name,
web port. With --json, prints an array of objects (one per device) with every
field of the answer; MACs are six zero-padded lower-case pairs.
Exit status 3 when no device answers.
)"},
    {"raw", R"(usage: tavctl [OPTIONS] raw OPCODE [--tlv TAG=VALUE]...

Sends op code OPCODE (a number such as 0xA1 or 161, or a handler name such as
tav_discovery or discovery) with the given TLVs and prints each reply: its
result code and meaning, and its TLVs by name with typed values.

TAG is a number or a tag name (see "tavctl tags OPCODE"). VALUE is read by
the tag's kind (text gets its terminating NUL; numbers are decimal or 0x hex;
MACs aa:bb:cc:dd:ee:ff; IPv4 dotted), or by an explicit prefix:
  text:admin  str:abc (no NUL)  u8:5  u16:80  u32:1  u32le:1  i32:-5  u64:1
  mac:02:7a:76:00:00:01  ip:192.0.2.1  x:0a0b0c (raw hex bytes)
Examples:
  tavctl --iface eth0 raw 0xA3 --tlv 54=u8:5 --tlv USER_NAME=admin --tlv 56=text:
  tavctl --udp 192.0.2.11 raw tav_get_device_status
Exit status 1 when a reply carries a non-zero result code.
)"},
    {"functions", R"(usage: tavctl [OPTIONS] functions

Asks for the supported optional functions (op 0xA5) and lists the advertised
op codes with their handler names.
)"},
    {"verify", R"(usage: tavctl [OPTIONS] verify --user NAME [--password-file FILE] [--precedence N]

Tests a user name and password (op 0xA3). The password is read from FILE (its
first line), else from the environment variable TAVCTL_PASSWORD, else from a
prompt on the terminal without echo. It is never taken on the command line.
--precedence N also sends this manager's precedence (tag 54).
Exit status 0 when the device accepts the credentials, 1 when it answers with
a non-zero result code (64: authentication failed).
)"},
    {"hello", R"(usage: tavctl [OPTIONS] hello

Sends a manager hello (op 0x104) and prints each device's result.
)"},
    {"bye", R"(usage: tavctl [OPTIONS] bye

Sends a manager bye (op 0x105): the device forgets this manager's precedences.
)"},
    {"tags", R"(usage: tavctl tags [OPCODE]

Lists every tag with its number, name, value kind and meaning; with OPCODE,
names and kinds as that op code uses them. Needs no network.
)"},
};

struct UsageError {
    std::string message;
};

struct Args {
    Options opts;
    bool json = false;
    double timeout = 2.0;
    bool help = false;
    std::string command;
    std::vector<std::string> positional;
    std::vector<std::string> tlvs;
    std::string user;
    bool have_user = false;
    std::string password_file;
    std::optional<uint8_t> precedence;
};

std::string need(int &i, int argc, char **argv, const std::string &opt) {
    if (i + 1 >= argc) throw UsageError{opt + " needs a value"};
    return argv[++i];
}

Args parse_args(int argc, char **argv) {
    Args a;
    for (int i = 1; i < argc; ++i) {
        std::string s = argv[i];
        std::optional<std::string> inline_val;  // --opt=value
        if (s.starts_with("--"))
            if (auto eq = s.find('='); eq != std::string::npos) {
                inline_val = s.substr(eq + 1);
                s.resize(eq);
            }
        auto value = [&](const std::string &opt) {
            return inline_val ? *inline_val : need(i, argc, argv, opt);
        };
        if (s == "-h" || s == "--help") {
            a.help = true;
        } else if (s == "--iface") {
            a.opts.iface = value(s);
        } else if (s == "--udp") {
            a.opts.udp = value(s);
        } else if (s == "--cipher") {
            a.opts.cipher = value(s);
        } else if (s == "--target") {
            std::string v = value(s);
            auto m = parse_mac(v);
            if (!m) throw UsageError{"--target: \"" + v + "\" is not a MAC address"};
            a.opts.target_mac = *m;
        } else if (s == "--target-ip") {
            std::string v = value(s);
            auto ip = parse_ipv4(v);
            if (!ip) throw UsageError{"--target-ip: \"" + v + "\" is not an IPv4 address"};
            a.opts.target_ip = *ip;
        } else if (s == "--seq") {
            std::string v = value(s);
            auto n = parse_uint(v, 0xFFFF);
            if (!n) throw UsageError{"--seq: \"" + v + "\" is not a number from 0 to 65535"};
            a.opts.sequence = uint16_t(*n);
        } else if (s == "--timeout") {
            std::string v = value(s);
            char *end = nullptr;
            double t = std::strtod(v.c_str(), &end);
            if (v.empty() || *end != '\0' || !(t > 0) || t > 3600)
                throw UsageError{"--timeout: \"" + v + "\" is not a number of seconds (0 to 3600)"};
            a.timeout = t;
        } else if (s == "--json") {
            a.json = true;
        } else if (s == "--port") {
            std::string v = value(s);
            auto n = parse_uint(v, 0xFFFF);
            if (!n || *n == 0) throw UsageError{"--port: \"" + v + "\" is not a port number"};
            a.opts.port = uint16_t(*n);
        } else if (s == "--bind") {
            a.opts.bind = value(s);
        } else if (s == "--netns") {
            a.opts.netns = value(s);
        } else if (s == "--source-mac") {
            std::string v = value(s);
            auto m = parse_mac(v);
            if (!m) throw UsageError{"--source-mac: \"" + v + "\" is not a MAC address"};
            a.opts.source_mac = *m;
        } else if (s == "--tlv") {
            a.tlvs.push_back(value(s));
        } else if (s == "--user") {
            a.user = value(s);
            a.have_user = true;
        } else if (s == "--password-file") {
            a.password_file = value(s);
        } else if (s == "--password") {
            throw UsageError{
                "passwords are never taken on the command line: use --password-file FILE, "
                "TAVCTL_PASSWORD or the prompt"};
        } else if (s == "--precedence") {
            std::string v = value(s);
            auto n = parse_uint(v, 0xFF);
            if (!n) throw UsageError{"--precedence: \"" + v + "\" is not a number from 0 to 255"};
            a.precedence = uint8_t(*n);
        } else if (s.size() > 1 && s[0] == '-') {
            throw UsageError{"unknown option " + s};
        } else if (a.command.empty()) {
            a.command = s;
        } else {
            a.positional.push_back(s);
        }
    }
    // Command options belong to their commands.
    if (!a.tlvs.empty() && a.command != "raw") throw UsageError{"--tlv belongs to the raw command"};
    if ((a.have_user || !a.password_file.empty() || a.precedence) && a.command != "verify")
        throw UsageError{"--user, --password-file and --precedence belong to the verify command"};
    return a;
}

// ---- output helpers -------------------------------------------------------

std::string from_text(const Message &m, bool ipv4) {
    if (ipv4) return format_ipv4(m.src_ip) + ":" + std::to_string(m.src_port);
    return format_mac(m.src_mac);
}

std::string result_text(uint16_t code, uint16_t op) {
    std::string_view meaning = result_meaning(code, op);
    std::string s = std::to_string(code);
    if (code >= 0xFF00) {
        char b[12];
        std::snprintf(b, sizeof b, " (0x%04X)", code);
        s += b;
    }
    s += meaning.empty() ? std::string(" unknown result code") : " " + std::string(meaning);
    return s;
}

// Typed value for JSON: numbers as numbers, everything else as text.
void json_value(JsonWriter &j, std::span<const uint8_t> v, TagKind kind) {
    size_t want = tag_kind_size(kind);
    if (want != 0 && v.size() != want) {
        j.value(to_hex(v));
        return;
    }
    switch (kind) {
        case TagKind::kU8: j.value(uint64_t(v[0])); return;
        case TagKind::kU16: j.value(uint64_t(get_be16(v.data()))); return;
        case TagKind::kU32: j.value(uint64_t(get_be32(v.data()))); return;
        case TagKind::kU32Le:
            j.value(uint64_t(v[0] | v[1] << 8 | v[2] << 16 | uint32_t(v[3]) << 24));
            return;
        case TagKind::kI32: j.value(int64_t(int32_t(get_be32(v.data())))); return;
        case TagKind::kU64: j.value(get_be64(v.data())); return;
        case TagKind::kText: {
            std::string s(v.begin(), v.end());
            if (auto nul = s.find('\0'); nul != std::string::npos) s.resize(nul);
            j.value(s);
            return;
        }
        default: j.value(format_value(v, kind)); return;
    }
}

// Human form of one TLV's value in its op code's context.
std::string human_value(const Record &t, const TagInfo *info) {
    TagKind kind = info ? info->kind : TagKind::kBytes;
    std::string s = format_value(t.value, kind);
    if (kind == TagKind::kText && (tag_kind_size(kind) == 0)) s = "\"" + s + "\"";
    if (t.tag == kTagSupportedFunction && t.value.size() == 2) {
        uint16_t code = get_be16(t.value.data());
        const OpCodeInfo *op = find_op_code(code);
        s = format_op_code(code) + (op ? " " + std::string(op->handler) : "");
    }
    return s;
}

void print_reply_human(const Message &m, bool ipv4) {
    const Header &h = *m.header;
    const OpCodeInfo *op = find_op_code(h.op_code);
    std::printf("reply from %s: op %s%s, sequence %u\n", from_text(m, ipv4).c_str(),
                format_op_code(h.op_code).c_str(),
                op ? (" " + std::string(op->handler)).c_str() : "", h.sequence);
    std::printf("  result %s\n", result_text(h.result, h.op_code).c_str());
    for (const auto &t : m.tlvs) {
        const TagInfo *info = find_tag(t.tag, h.op_code);
        std::string name = info ? std::string(info->name) : "?";
        std::printf("  %5u  %-26s %s\n", t.tag, name.c_str(), human_value(t, info).c_str());
    }
    if (m.truncated) std::printf("  (body ends inside a record)\n");
}

void json_reply(JsonWriter &j, const Message &m, bool ipv4) {
    const Header &h = *m.header;
    const OpCodeInfo *op = find_op_code(h.op_code);
    j.begin_object();
    j.key("from").value(from_text(m, ipv4));
    j.key("sequence").value(uint64_t(h.sequence));
    j.key("op_code").value(uint64_t(h.op_code));
    j.key("handler");
    if (op)
        j.value(op->handler);
    else
        j.null();
    j.key("target_mac").value(format_mac(h.target_mac));
    j.key("result").value(uint64_t(h.result));
    j.key("result_meaning").value(result_meaning(h.result, h.op_code));
    j.key("tlvs").begin_array();
    for (const auto &t : m.tlvs) {
        const TagInfo *info = find_tag(t.tag, h.op_code);
        j.begin_object();
        j.key("tag").value(uint64_t(t.tag));
        j.key("name");
        if (info)
            j.value(info->name);
        else
            j.null();
        TagKind kind = info ? info->kind : TagKind::kBytes;
        j.key("kind").value(tag_kind_name(kind));
        j.key("length").value(uint64_t(t.value.size()));
        j.key("value");
        json_value(j, t.value, kind);
        j.key("hex").value(to_hex(t.value));
        j.end_object();
    }
    j.end_array();
    j.key("truncated").value(m.truncated);
    j.end_object();
}

// ---- running requests -----------------------------------------------------

bool addressed_to_one(const Args &a) {
    if (a.opts.target_mac && *a.opts.target_mac != kBroadcastMac && *a.opts.target_mac != kZeroMac)
        return true;
    if (a.opts.target_ip && *a.opts.target_ip != std::array<uint8_t, 4>{}) return true;
    if (!a.opts.udp.empty()) {
        auto ip = parse_ipv4(a.opts.udp);
        if (ip && ((*ip)[0] & 0xF0) != 0xE0 && (*ip)[3] != 255) return true;
    }
    return false;
}

std::string fix_cipher_path(const std::string &p) {
    // dlopen searches the library path for a bare name; a person means the file here.
    if (p.find('/') == std::string::npos && access(p.c_str(), F_OK) == 0) return "./" + p;
    return p;
}

struct Session {
    Client client;
    std::chrono::milliseconds window;
    size_t max_replies;
};

int open_session(Args &a, std::optional<Session> &out) {
    if (a.opts.iface.empty() == a.opts.udp.empty()) {
        std::fprintf(stderr, "tavctl: choose exactly one of --iface IF and --udp ADDR\n");
        return kExitUsage;
    }
    if (a.opts.target_ip && !a.opts.iface.empty()) {
        std::fprintf(stderr, "tavctl: --target-ip applies to --udp only\n");
        return kExitUsage;
    }
    if (a.opts.source_mac && a.opts.iface.empty()) {
        std::fprintf(stderr, "tavctl: --source-mac applies to --iface only\n");
        return kExitUsage;
    }
    a.opts.cipher = fix_cipher_path(a.opts.cipher);
    if (auto c = Cipher::load(a.opts.cipher); !c) {
        std::fprintf(stderr, "tavctl: %s\n", c.error().c_str());
        return kExitCipher;
    }
    auto c = Client::open(a.opts);
    if (!c) {
        std::fprintf(stderr, "tavctl: %s\n", c.error().c_str());
        return kExitNetwork;
    }
    auto window = std::chrono::milliseconds(long(std::ceil(a.timeout * 1000)));
    out.emplace(Session{std::move(*c), window, addressed_to_one(a) ? size_t(1) : size_t(0)});
    return kExitOk;
}

// Sends and collects; prints the "no reply" message itself.
int run_request(Args &a, uint16_t op, const TlvList &tlvs, std::vector<Message> &replies,
                bool &ipv4, size_t max_override = SIZE_MAX) {
    std::optional<Session> s;
    if (int rc = open_session(a, s); rc != kExitOk) return rc;
    ipv4 = s->client.ipv4();
    size_t max = max_override != SIZE_MAX ? max_override : s->max_replies;
    auto r = s->client.request(op, tlvs, s->window, max);
    if (!r) {
        std::fprintf(stderr, "tavctl: %s\n", r.error().c_str());
        return kExitNetwork;
    }
    replies = std::move(*r);
    if (replies.empty()) {
        std::fprintf(stderr, "tavctl: no reply to op %s within %g s\n",
                     format_op_code(op).c_str(), a.timeout);
        return kExitNoReply;
    }
    return kExitOk;
}

int worst_result(const std::vector<Message> &replies) {
    for (const auto &m : replies)
        if (m.result() != 0) return kExitResult;
    return kExitOk;
}

// ---- commands -------------------------------------------------------------

int cmd_discover(Args &a) {
    if (!a.positional.empty()) throw UsageError{"discover takes no arguments"};
    std::vector<Message> replies;
    bool ipv4 = false;
    int rc = run_request(a, kOpDiscovery, {}, replies, ipv4);
    if (rc == kExitNoReply && a.json) std::printf("[]\n");
    if (rc != kExitOk) return rc;

    // One entry per device even when it answers on several paths.
    std::vector<const Message *> devices;
    std::set<std::string> seen;
    for (const auto &m : replies) {
        std::string key = m.mac(kTagMac) ? format_mac(*m.mac(kTagMac)) : from_text(m, ipv4);
        if (seen.insert(key).second) devices.push_back(&m);
    }
    auto ip_or = [](const Message &m, uint16_t tag) {
        auto ip = m.ipv4(tag);
        return ip ? format_ipv4(*ip) : std::string();
    };
    auto mac_of = [&](const Message &m) {
        auto mac = m.mac(kTagMac);
        return mac ? format_mac(*mac) : (ipv4 ? std::string() : format_mac(m.src_mac));
    };
    if (a.json) {
        JsonWriter j;
        j.begin_array();
        for (const Message *m : devices) {
            j.begin_object();
            j.key("mac").value(mac_of(*m));
            j.key("ip").value(ip_or(*m, kTagIpAddress));
            j.key("netmask").value(ip_or(*m, kTagNetmask));
            j.key("gateway").value(ip_or(*m, kTagGateway));
            j.key("primary_dns").value(ip_or(*m, kTagPrimaryDns));
            j.key("vendor").value(m->text(kTagVendor).value_or(""));
            j.key("model").value(m->text(kTagModelName).value_or(""));
            j.key("product_type").value(m->text(kTagProductType).value_or(""));
            j.key("host_name").value(m->text(kTagHostName).value_or(""));
            j.key("firmware").value(m->text(kTagFirmwareVersion).value_or(""));
            j.key("hardware").value(m->text(kTagHardwareVersion).value_or(""));
            j.key("system_name").value(m->text(kTagSystemName).value_or(""));
            auto num = [&](const char *k, std::optional<uint64_t> v) {
                j.key(k);
                if (v)
                    j.value(*v);
                else
                    j.null();
            };
            auto opt8 = [](std::optional<uint8_t> v) {
                return v ? std::optional<uint64_t>(*v) : std::nullopt;
            };
            auto opt16 = [](std::optional<uint16_t> v) {
                return v ? std::optional<uint64_t>(*v) : std::nullopt;
            };
            num("web_port", opt16(m->u16(kTagWebPort)));
            num("wan_mode", opt8(m->u8(kTagWanMode)));
            num("tav_mode", opt8(m->u8(kTagTavMode)));
            j.key("date_time").value(m->text(kTagDateTime).value_or(""));
            num("managed_status", opt8(m->u8(kTagManagedStatus)));
            num("connection_status", opt16(m->u16(kTagConnectionStatus)));
            j.key("nms_server").value(m->text(kTagNmsServer).value_or(""));
            j.key("ag_uuid").value(m->text(kTagAgUuid).value_or(""));
            j.key("from").value(from_text(*m, ipv4));
            j.key("result").value(uint64_t(m->result()));
            j.end_object();
        }
        j.end_array();
        std::fputs(j.str().c_str(), stdout);
        return worst_result(replies);
    }
    std::vector<std::vector<std::string>> rows = {
        {"MAC", "IP ADDRESS", "HOST NAME", "MODEL", "FIRMWARE", "SYSTEM NAME", "WEB PORT"}};
    for (const Message *m : devices) {
        auto port = m->u16(kTagWebPort);
        auto txt = [&](uint16_t tag) {
            const Record *t = m->find(tag);
            return t ? format_text(t->value) : std::string();
        };
        rows.push_back({mac_of(*m), ip_or(*m, kTagIpAddress), txt(kTagHostName),
                        txt(kTagModelName), txt(kTagFirmwareVersion), txt(kTagSystemName),
                        port ? std::to_string(*port) : ""});
    }
    std::vector<size_t> width(rows[0].size(), 0);
    for (const auto &r : rows)
        for (size_t c = 0; c < r.size(); ++c) width[c] = std::max(width[c], r[c].size());
    for (const auto &r : rows) {
        std::string line;
        for (size_t c = 0; c < r.size(); ++c) {
            line += r[c];
            if (c + 1 < r.size()) line += std::string(width[c] - r[c].size() + 2, ' ');
        }
        std::printf("%s\n", line.c_str());
    }
    return worst_result(replies);
}

int cmd_raw(Args &a) {
    if (a.positional.size() != 1) throw UsageError{"raw needs one OPCODE"};
    auto op = parse_op_code(a.positional[0]);
    if (!op) throw UsageError{op.error()};
    TlvList tlvs;
    for (const auto &arg : a.tlvs) {
        auto t = parse_tlv_arg(arg, *op);
        if (!t) throw UsageError{t.error()};
        tlvs.push_back(std::move(*t));
    }
    std::vector<Message> replies;
    bool ipv4 = false;
    int rc = run_request(a, *op, tlvs, replies, ipv4);
    if (rc == kExitNoReply && a.json) std::printf("[]\n");
    if (rc != kExitOk) return rc;
    if (a.json) {
        JsonWriter j;
        j.begin_array();
        for (const auto &m : replies) json_reply(j, m, ipv4);
        j.end_array();
        std::fputs(j.str().c_str(), stdout);
    } else {
        for (const auto &m : replies) print_reply_human(m, ipv4);
    }
    return worst_result(replies);
}

int cmd_functions(Args &a) {
    if (!a.positional.empty()) throw UsageError{"functions takes no arguments"};
    std::vector<Message> replies;
    bool ipv4 = false;
    int rc = run_request(a, kOpSupportedFunctions, {}, replies, ipv4);
    if (rc == kExitNoReply && a.json) std::printf("[]\n");
    if (rc != kExitOk) return rc;
    JsonWriter j;
    j.begin_array();
    for (const auto &m : replies) {
        std::vector<uint16_t> codes;
        for (const Record *t : m.all(kTagSupportedFunction))
            if (t->value.size() == 2) codes.push_back(get_be16(t->value.data()));
        if (a.json) {
            j.begin_object();
            j.key("from").value(from_text(m, ipv4));
            j.key("result").value(uint64_t(m.result()));
            j.key("functions").begin_array();
            for (uint16_t c : codes) {
                const OpCodeInfo *op = find_op_code(c);
                j.begin_object();
                j.key("op_code").value(uint64_t(c));
                j.key("hex").value(format_op_code(c));
                j.key("handler");
                if (op)
                    j.value(op->handler);
                else
                    j.null();
                j.end_object();
            }
            j.end_array();
            j.end_object();
        } else {
            if (replies.size() > 1 || m.result() != 0)
                std::printf("%s: result %s\n", from_text(m, ipv4).c_str(),
                            result_text(m.result(), m.op_code()).c_str());
            for (uint16_t c : codes) {
                const OpCodeInfo *op = find_op_code(c);
                std::printf("%s  %s\n", format_op_code(c).c_str(),
                            op ? std::string(op->handler).c_str() : "(unknown)");
            }
        }
    }
    j.end_array();
    if (a.json) std::fputs(j.str().c_str(), stdout);
    return worst_result(replies);
}

std::optional<std::string> read_password(const Args &a, std::string &err) {
    if (!a.password_file.empty()) {
        std::ifstream f(a.password_file, std::ios::binary);
        if (!f) {
            err = "cannot read password file \"" + a.password_file + "\": " + std::strerror(errno);
            return std::nullopt;
        }
        std::string line;
        std::getline(f, line);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        return line;
    }
    if (const char *env = std::getenv("TAVCTL_PASSWORD")) return std::string(env);
    int fd = ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        err = "no password: use --password-file FILE, TAVCTL_PASSWORD or a terminal";
        return std::nullopt;
    }
    termios old{};
    bool have_tio = tcgetattr(fd, &old) == 0;
    if (have_tio) {
        termios quiet = old;
        quiet.c_lflag &= tcflag_t(~ECHO);
        quiet.c_lflag |= ECHONL;
        tcsetattr(fd, TCSAFLUSH, &quiet);
    }
    const char prompt[] = "Password: ";
    (void)!::write(fd, prompt, sizeof prompt - 1);
    std::string pw;
    char c;
    while (::read(fd, &c, 1) == 1 && c != '\n') pw.push_back(c);
    if (have_tio) tcsetattr(fd, TCSAFLUSH, &old);
    ::close(fd);
    if (!pw.empty() && pw.back() == '\r') pw.pop_back();
    return pw;
}

int cmd_verify(Args &a) {
    if (!a.positional.empty()) throw UsageError{"verify takes no arguments besides its options"};
    if (!a.have_user) throw UsageError{"verify needs --user NAME"};
    std::string err;
    auto pw = read_password(a, err);
    if (!pw) {
        std::fprintf(stderr, "tavctl: %s\n", err.c_str());
        return kExitUsage;
    }
    TlvList tlvs;
    if (a.precedence) tlvs.push_back(tlv_u8(kTagServerPrecedence, *a.precedence));
    tlvs.push_back(tlv_text(kTagUserName, a.user));
    tlvs.push_back(tlv_text(kTagPassword, *pw));
    std::vector<Message> replies;
    bool ipv4 = false;
    int rc = run_request(a, kOpUserVerification, tlvs, replies, ipv4);
    if (rc == kExitNoReply && a.json) std::printf("[]\n");
    if (rc != kExitOk) return rc;
    JsonWriter j;
    j.begin_array();
    for (const auto &m : replies) {
        const Record *v = m.find(kTagVerification);
        bool ok = m.result() == 0 && v && v->value.size() == 4 && v->value[0] == 1;
        if (a.json) {
            j.begin_object();
            j.key("from").value(from_text(m, ipv4));
            j.key("result").value(uint64_t(m.result()));
            j.key("result_meaning").value(result_meaning(m.result(), kOpUserVerification));
            j.key("verified").value(ok);
            j.end_object();
        } else {
            std::printf("%s: %s\n", from_text(m, ipv4).c_str(),
                        ok ? "credentials accepted"
                           : ("result " + result_text(m.result(), kOpUserVerification)).c_str());
        }
    }
    j.end_array();
    if (a.json) std::fputs(j.str().c_str(), stdout);
    return worst_result(replies);
}

int cmd_simple(Args &a, uint16_t op) {
    if (!a.positional.empty()) throw UsageError{a.command + " takes no arguments"};
    std::vector<Message> replies;
    bool ipv4 = false;
    int rc = run_request(a, op, {}, replies, ipv4);
    if (rc == kExitNoReply && a.json) std::printf("[]\n");
    if (rc != kExitOk) return rc;
    JsonWriter j;
    j.begin_array();
    for (const auto &m : replies) {
        if (a.json) {
            j.begin_object();
            j.key("from").value(from_text(m, ipv4));
            j.key("result").value(uint64_t(m.result()));
            j.key("result_meaning").value(result_meaning(m.result(), op));
            j.end_object();
        } else {
            std::printf("%s: result %s\n", from_text(m, ipv4).c_str(),
                        result_text(m.result(), op).c_str());
        }
    }
    j.end_array();
    if (a.json) std::fputs(j.str().c_str(), stdout);
    return worst_result(replies);
}

int cmd_tags(Args &a) {
    if (a.positional.size() > 1) throw UsageError{"tags takes at most one OPCODE"};
    uint16_t op = 0;
    if (!a.positional.empty()) {
        auto o = parse_op_code(a.positional[0]);
        if (!o) throw UsageError{o.error()};
        op = *o;
    }
    JsonWriter j;
    j.begin_array();
    for (const auto &base : kTags) {
        const TagInfo &t = *find_tag(base.tag, op);
        if (a.json) {
            j.begin_object();
            j.key("tag").value(uint64_t(t.tag));
            j.key("name").value(t.name);
            j.key("kind").value(tag_kind_name(t.kind));
            j.key("where").value(t.where);
            j.key("meaning").value(t.meaning);
            j.end_object();
        } else {
            std::printf("%5u  0x%04X  %-27s %-6s %s\n", t.tag, t.tag, std::string(t.name).c_str(),
                        std::string(tag_kind_name(t.kind)).c_str(), std::string(t.meaning).c_str());
        }
    }
    j.end_array();
    if (a.json) std::fputs(j.str().c_str(), stdout);
    return kExitOk;
}

}  // namespace

int main(int argc, char **argv) {
    Args a;
    try {
        a = parse_args(argc, argv);
        if (a.help || a.command.empty()) {
            auto it = kCommandHelp.find(a.command);
            const char *text = it != kCommandHelp.end() ? it->second.c_str() : kMainHelp;
            // Asked for: stdout, success. Missing command: a usage error.
            std::fputs(text, a.help ? stdout : stderr);
            return a.help ? kExitOk : kExitUsage;
        }
        if (a.command == "discover") return cmd_discover(a);
        if (a.command == "raw") return cmd_raw(a);
        if (a.command == "functions") return cmd_functions(a);
        if (a.command == "verify") return cmd_verify(a);
        if (a.command == "hello") return cmd_simple(a, kOpHello);
        if (a.command == "bye") return cmd_simple(a, kOpBye);
        if (a.command == "tags") return cmd_tags(a);
        throw UsageError{"unknown command \"" + a.command + "\" (see tavctl --help)"};
    } catch (const UsageError &e) {
        std::fprintf(stderr, "tavctl: %s\n", e.message.c_str());
        return kExitUsage;
    }
}
