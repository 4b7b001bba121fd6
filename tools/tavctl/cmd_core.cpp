// SPDX-License-Identifier: ISC
// The core commands: discovery, raw requests, supported functions,
// verification, hello, bye and the tag list.
#include <cstdio>
#include <set>

#include "tools/tavctl/tavctl.h"

namespace tavctl {

namespace {

const char kHelp_discover[] = R"(usage: tavctl [OPTIONS] discover

Broadcasts a discovery request (op 0xA1) and lists every device that answers
within --timeout: MAC, IPv4 address, host name, model, firmware, system name,
web port. With --json, prints an array of objects (one per device) with every
field of the answer; MACs are six zero-padded lower-case pairs.
Exit status 3 when no device answers.
)";

const char kHelp_raw[] = R"(usage: tavctl [OPTIONS] raw OPCODE [--tlv TAG=VALUE]...

Sends op code OPCODE (a number such as 0xA1 or 161, or a handler name such as
tav_discovery or discovery) with the given TLVs and prints each reply: its
result code and meaning, and its TLVs by name with typed values.

TAG is a number or a tag name (see "tavctl tags OPCODE"). VALUE is read by
the tag's kind (text gets its terminating NUL; numbers are decimal or 0x hex;
MACs aa:bb:cc:dd:ee:ff; IPv4 dotted), or by an explicit prefix:
  text:admin  str:abc (no NUL)  u8:5  u16:80  u32:1  u32le:1  i32:-5  u64:1
  mac:02:7a:76:00:00:01  ip:192.0.2.1  x:0a0b0c (raw hex bytes)
With --credentials, the request starts with the credential TLVs (54 when a
precedence is set, 55 and 56), the password read as for "verify"; a VALUE
of @password also takes the password from there.
Examples:
  tavctl --iface eth0 raw 0xA3 --tlv 54=u8:5 --tlv USER_NAME=admin --tlv 56=text:
  tavctl --udp 192.0.2.11 raw tav_get_device_status
Exit status 1 when a reply carries a non-zero result code.
)";

const char kHelp_functions[] = R"(usage: tavctl [OPTIONS] functions

Asks for the supported optional functions (op 0xA5) and lists the advertised
op codes with their handler names.
)";

const char kHelp_verify[] = R"(usage: tavctl [OPTIONS] verify --user NAME [--password-file FILE] [--precedence N]

Tests a user name and password (op 0xA3). The password is read from FILE (its
first line), else from the environment variable TAVCTL_PASSWORD, else from a
prompt on the terminal without echo. It is never taken on the command line.
--precedence N also sends this manager's precedence (tag 54).
Exit status 0 when the device accepts the credentials, 1 when it answers with
a non-zero result code (64: authentication failed).
)";

const char kHelp_hello[] = R"(usage: tavctl [OPTIONS] hello

Sends a manager hello (op 0x104) and prints each device's result.
)";

const char kHelp_bye[] = R"(usage: tavctl [OPTIONS] bye

Sends a manager bye (op 0x105): the device forgets this manager's precedences.
)";

const char kHelp_tags[] = R"(usage: tavctl tags [OPCODE]

Lists every tag with its number, name, value kind and meaning; with OPCODE,
names and kinds as that op code uses them. Needs no network.
)";

int cmd_discover(Args &a) {
    OptParser(a).parse_none();
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
    print_table(rows);
    return worst_result(replies);
}


int cmd_raw(Args &a) {
    std::vector<std::string> tlv_args;
    bool credentials = false;
    auto words = OptParser(a)
                     .value("--tlv", [&](const std::string &v) { tlv_args.push_back(v); })
                     .flag("--credentials", credentials)
                     .parse();
    if (words.size() != 1) throw UsageError{"raw needs one OPCODE"};
    auto op = parse_op_code(words[0]);
    if (!op) throw UsageError{op.error()};
    TlvList tlvs;
    if (credentials)
        if (int rc = add_credentials(a, tlvs)) return rc;
    for (const auto &arg : tlv_args) {
        if (arg.ends_with("=@password")) {
            auto tag = parse_tlv_arg(arg.substr(0, arg.size() - 9) + "x:", *op);
            if (!tag) throw UsageError{tag.error()};
            std::string err;
            auto pw = read_password(a, err);
            if (!pw) {
                std::fprintf(stderr, "tavctl: %s\n", err.c_str());
                return kExitUsage;
            }
            tlvs.push_back(tlv_text(tag->tag, *pw));
            continue;
        }
        auto t = parse_tlv_arg(arg, *op);
        if (!t) throw UsageError{t.error()};
        tlvs.push_back(std::move(*t));
    }
    return each_reply(a, *op, tlvs, [&](JsonWriter &j, const Message &m, bool ipv4, bool) {
        if (a.json)
            json_reply(j, m, ipv4);
        else
            print_reply_human(m, ipv4);
    });
}

int cmd_functions(Args &a) {
    OptParser(a).parse_none();
    return each_reply(a, kOpSupportedFunctions, {}, [&](JsonWriter &j, const Message &m, bool ipv4,
                                                        bool several) {
        std::vector<uint16_t> codes;
        for (const Record *t : m.all(kTagSupportedFunction))
            if (t->value.size() == 2) codes.push_back(get_be16(t->value.data()));
        if (a.json) {
            json_head(j, m, ipv4);
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
            if (several || m.result() != 0)
                std::printf("%s: result %s\n", from_text(m, ipv4).c_str(),
                            result_text(m.result(), m.op_code()).c_str());
            for (uint16_t c : codes) {
                const OpCodeInfo *op = find_op_code(c);
                std::printf("%s  %s\n", format_op_code(c).c_str(),
                            op ? std::string(op->handler).c_str() : "(unknown)");
            }
        }
    });
}

int cmd_verify(Args &a) {
    OptParser(a).parse_none();
    if (!a.cred.have_user) throw UsageError{"verify needs --user NAME"};
    TlvList tlvs;
    if (int rc = add_credentials(a, tlvs)) return rc;
    return each_reply(a, kOpUserVerification, tlvs, [&](JsonWriter &j, const Message &m, bool ipv4, bool) {
        const Record *v = m.find(kTagVerification);
        bool ok = m.result() == 0 && v && v->value.size() == 4 && v->value[0] == 1;
        if (a.json) {
            json_head(j, m, ipv4);
            j.key("result_meaning").value(result_meaning(m.result(), kOpUserVerification));
            j.key("verified").value(ok);
            j.end_object();
        } else {
            std::printf("%s: %s\n", from_text(m, ipv4).c_str(),
                        ok ? "credentials accepted"
                           : ("result " + result_text(m.result(), kOpUserVerification)).c_str());
        }
    });
}

int cmd_simple(Args &a, uint16_t op) {
    OptParser(a).parse_none();
    return each_reply(a, op, {}, [&](JsonWriter &j, const Message &m, bool ipv4, bool) {
        if (a.json) {
            json_head(j, m, ipv4);
            j.key("result_meaning").value(result_meaning(m.result(), op));
            j.end_object();
        } else {
            std::printf("%s: result %s\n", from_text(m, ipv4).c_str(), result_text(m.result(), op).c_str());
        }
    });
}

int cmd_hello(Args &a) { return cmd_simple(a, kOpHello); }
int cmd_bye(Args &a) { return cmd_simple(a, kOpBye); }

int cmd_tags(Args &a) {
    auto words = OptParser(a).parse();
    if (words.size() > 1) throw UsageError{"tags takes at most one OPCODE"};
    uint16_t op = 0;
    if (!words.empty()) {
        auto o = parse_op_code(words[0]);
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

const Command kCore[] = {
    {"discover", "", "find devices (op 0xA1) and list them", kHelp_discover, cmd_discover},
    {"raw", "OPCODE [--tlv TAG=VALUE]...", "send any request and print the decoded replies", kHelp_raw, cmd_raw},
    {"functions", "", "list the op codes a device serves (op 0xA5)", kHelp_functions, cmd_functions},
    {"verify", "--user NAME", "test a user name and password (op 0xA3)", kHelp_verify, cmd_verify},
    {"hello", "", "send a manager hello (op 0x104)", kHelp_hello, cmd_hello},
    {"bye", "", "send a manager bye (op 0x105)", kHelp_bye, cmd_bye},
    {"tags", "[OPCODE]", "list the protocol's tags (no network)", kHelp_tags, cmd_tags},
};

}  // namespace

std::span<const Command> core_commands() { return kCore; }

}  // namespace tavctl
