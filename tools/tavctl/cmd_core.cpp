// SPDX-License-Identifier: ISC
// The core commands: discovery (once or watching), raw requests, supported
// functions, verification, the manager's hello and bye, and the tag list.
#include <csignal>
#include <cstdio>
#include <ctime>
#include <map>

#include "tools/client/json.h"
#include "tools/tavctl/tavctl.h"

namespace tavctl {

namespace {

std::string ip_text(const Message &m, uint16_t tag) {
    auto ip = m.ipv4(tag);
    return ip ? format_ipv4(*ip) : "";
}

// The fields of a discovery reply or a report.
Node identity(const Message &m) {
    Node o = Node::object();
    auto txt = [&](uint16_t tag) { return Node(m.text(tag).value_or("")); };
    o.set("ip", ip_text(m, kTagIpAddress));
    o.set("system_name", txt(kTagSystemName));
    o.set("host_name", txt(kTagHostName));
    o.set("model", txt(kTagModelName));
    o.set("firmware", txt(kTagFirmwareVersion));
    auto port = m.u16(kTagWebPort);
    o.set("web_port", port ? Node(unsigned(*port)) : Node());
    const bool managed = under_management(m);
    o.set("managed", Node(managed).shown(managed ? "yes (" + m.text(kTagNmsServer).value_or("") + ")" : "no"));
    o.set("netmask", Node(ip_text(m, kTagNetmask)).json_only());
    o.set("gateway", Node(ip_text(m, kTagGateway)).json_only());
    o.set("primary_dns", Node(ip_text(m, kTagPrimaryDns)).json_only());
    o.set("vendor", txt(kTagVendor).json_only());
    o.set("product_type", txt(kTagProductType).json_only());
    o.set("hardware", txt(kTagHardwareVersion).json_only());
    auto wan = m.u8(kTagWanMode);
    o.set("addressing", Node(wan ? (*wan == 1 ? "dhcp" : *wan == 0 ? "static" : "other") : "").json_only());
    o.set("wan_mode", (wan ? Node(unsigned(*wan)) : Node()).json_only());
    const std::string d = m.text(kTagDateTime).value_or("");
    o.set("date_time", Node(d.size() == 14 ? d.substr(0, 4) + "-" + d.substr(4, 2) + "-" + d.substr(6, 2) + " " +
                                                 d.substr(8, 2) + ":" + d.substr(10, 2) + ":" + d.substr(12, 2)
                                           : d)
                           .json_only());
    o.set("managed_status", Node(unsigned(m.u8(kTagManagedStatus).value_or(0))).json_only());
    o.set("connection_status", Node(unsigned(m.u16(kTagConnectionStatus).value_or(0))).json_only());
    o.set("nms_server", txt(kTagNmsServer).json_only());
    o.set("ag_uuid", txt(kTagAgUuid).json_only());
    return o;
}

// hh:mm:ss for people; for scripts the whole local time with its offset.
std::string now_text(bool iso = false) {
    char b[32];
    std::time_t t = std::time(nullptr);
    std::tm tm{};
    localtime_r(&t, &tm);
    std::strftime(b, sizeof b, iso ? "%Y-%m-%dT%H:%M:%S%z" : "%H:%M:%S", &tm);
    return b;
}

volatile std::sig_atomic_t g_stop = 0;

// Follows the fleet: the discovery's answers, then hellos, reports and byes
// as they arrive; an access point three reports late is marked stale.
int watch(Ctx &c, Fleet &f, double duration, double report_interval) {
    if (f.ipv4()) usage("--watch needs --iface: access points announce themselves by raw Ethernet only");
    std::signal(SIGINT, [](int) { g_stop = 1; });
    std::signal(SIGTERM, [](int) { g_stop = 1; });
    struct Seen {
        Clock::time_point last;
        bool stale = false;
    };
    std::map<std::string, Seen> fleet;
    auto event = [&](const char *what, const std::string &mac, const Message *m) {
        if (c.json()) {
            JsonWriter j;
            j.begin_object().key("event").value(what).key("mac").value(mac).key("time").value(now_text(true));
            if (m && m->find(kTagSystemName))
                j.key("ip").value(ip_text(*m, kTagIpAddress)).key("system_name").value(
                    m->text(kTagSystemName).value_or(""));
            j.end_object();
            std::string line;  // one object a line: the writer's indentation goes
            for (size_t i = 0; i < j.str().size(); ++i) {
                if (j.str()[i] != '\n') {
                    line += j.str()[i];
                    continue;
                }
                while (i + 1 < j.str().size() && j.str()[i + 1] == ' ') ++i;
            }
            std::printf("%s\n", line.c_str());
        } else {
            std::printf("%s  %-6s %s", now_text().c_str(), what, mac.c_str());
            if (m && m->find(kTagSystemName))
                std::printf("  %s  %s", ip_text(*m, kTagIpAddress).c_str(), m->text(kTagSystemName).value_or("").c_str());
            std::printf("\n");
        }
        std::fflush(stdout);
    };
    for (const Ap &ap : f.discover(f.window())) {
        fleet[ap.label()] = {Clock::now()};
        event("found", ap.label(), &*ap.discovery);
    }
    const auto late = std::chrono::milliseconds(long(3 * report_interval * 1000 + 5000));
    const auto end = Clock::now() + std::chrono::milliseconds(long(duration * 1000));
    while (!g_stop && (duration <= 0 || Clock::now() < end)) {
        auto m = f.client().receive(Clock::now() + std::chrono::milliseconds(500));
        if (m && m->is_announcement()) {
            std::string mac = format_mac(m->src_mac);
            const char *what = m->op_code() == kOpHello ? "hello" : m->op_code() == kOpBye ? "bye" : "report";
            if (m->op_code() == kOpBye) {
                fleet.erase(mac);
            } else {
                bool known = fleet.count(mac) && !fleet[mac].stale;
                fleet[mac] = {Clock::now()};
                if (known && m->op_code() == kOpReport) continue;  // a report of one we list: quiet
            }
            event(what, mac, &*m);
        }
        for (auto &[mac, s] : fleet)
            if (!s.stale && Clock::now() - s.last > late) {
                s.stale = true;
                event("stale", mac, nullptr);
            }
    }
    return kExitOk;
}

int run_discover(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    std::string sort = o.text("--sort").value_or("mac");
    if (sort != "mac" && sort != "ip" && sort != "name" && sort != "model")
        usage("--sort: \"" + sort + "\" is none of mac, ip, name, model");
    Fleet f(c);
    if (o.flag("--watch"))
        return watch(c, f, double(o.number("--duration", 1, 86400 * 365).value_or(0)),
                     double(o.number("--report-interval", 1, 3600).value_or(60)));
    std::vector<Ap> aps = f.discover(f.window());
    if (aps.empty()) fail(kExitNoReply, "no access point answered within " + seconds_text(c.g.timeout));
    auto key = [&](const Ap &ap) -> std::string {
        if (sort == "ip") {
            auto ip = ap.ip.value_or(Ipv4{});
            char b[16];
            std::snprintf(b, sizeof b, "%03u%03u%03u%03u", ip[0], ip[1], ip[2], ip[3]);
            return b;
        }
        if (sort == "name") return ap.system_name;
        if (sort == "model") return ap.discovery->text(kTagModelName).value_or("");
        return ap.label();
    };
    std::stable_sort(aps.begin(), aps.end(), [&](const Ap &a, const Ap &b) { return key(a) < key(b); });
    std::vector<Row> rows;
    for (const Ap &ap : aps) rows.push_back({ap, identity(*ap.discovery)});
    return print_report(c, rows, true);
}

Node value_node(std::span<const uint8_t> v, TagKind kind) {
    size_t want = tag_kind_size(kind);
    if (want != 0 && v.size() != want) return to_hex(v);
    switch (kind) {
        case TagKind::kU8: return unsigned(v[0]);
        case TagKind::kU16: return unsigned(get_be16(v.data()));
        case TagKind::kU32: return unsigned(get_be32(v.data()));
        case TagKind::kU32Le: return unsigned(v[0] | v[1] << 8 | v[2] << 16 | uint32_t(v[3]) << 24);
        case TagKind::kI32: return long(int32_t(get_be32(v.data())));
        case TagKind::kU64: return (unsigned long)(get_be64(v.data()));
        case TagKind::kText: return format_text(v);
        default: return format_value(v, kind);
    }
}

Node reply_node(const Message &m, bool ipv4) {
    const Header &h = *m.header;
    const OpCodeInfo *op = find_op_code(h.op_code);
    Node o = Node::object();
    o.set("from", ipv4 ? format_ipv4(m.src_ip) + ":" + std::to_string(m.src_port) : format_mac(m.src_mac));
    o.set("sequence", unsigned(h.sequence));
    o.set("op_code", Node(unsigned(h.op_code)).shown(format_op_code(h.op_code)));
    o.set("handler", op ? Node(std::string(op->handler)) : Node());
    o.set("result_meaning", std::string(result_meaning(h.result, h.op_code)));
    Node &list = o.set("tlvs", Node::list());
    for (const auto &t : m.tlvs) {
        const TagInfo *info = find_tag(t.tag, h.op_code);
        TagKind kind = info ? info->kind : TagKind::kBytes;
        Node &r = list.push(Node::object());
        r.set("tag", unsigned(t.tag));
        r.set("name", info ? Node(std::string(info->name)) : Node());
        r.set("kind", std::string(tag_kind_name(kind)));
        r.set("length", Node(unsigned(t.value.size())).json_only());
        r.set("value", value_node(t.value, kind));
        r.set("hex", Node(to_hex(t.value)).json_only());
    }
    o.set("truncated", Node(m.truncated).json_only());
    return o;
}

int run_raw(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    if (o.positional().size() != 1) usage("raw needs one OPCODE (a number such as 0xA1, or a handler name)");
    auto op = parse_op_code(o.positional()[0]);
    if (!op) usage(op.error());
    TlvList tlvs;
    if (o.flag("--credentials")) tlvs = credentials(c);
    for (const auto &[k, v] : o.given()) {
        if (k != "--tlv") continue;
        if (v.ends_with("=@password")) {
            auto tag = parse_tlv_arg(v.substr(0, v.size() - 9) + "x:", *op);
            if (!tag) usage(tag.error());
            tlvs.push_back(tlv_text(tag->tag, password(c)));
            continue;
        }
        auto t = parse_tlv_arg(v, *op);
        if (!t) usage(t.error());
        tlvs.push_back(std::move(*t));
    }
    Fleet f(c);
    std::vector<Row> rows;
    if (c.g.targets.empty()) {  // every reply to one request, as it comes
        auto replies = f.client().request(*op, tlvs, f.window());
        if (!replies) fail(kExitNetwork, replies.error());
        if (replies->empty()) fail(kExitNoReply, "no reply within " + seconds_text(c.g.timeout));
        for (const Message &m : *replies) {
            Row &r = rows.emplace_back();
            r.ap.mac = m.mac(kTagMac);
            if (!f.ipv4()) r.ap.mac = m.src_mac;
            if (f.ipv4()) r.ap.ip = m.src_ip;
            r.result = m.result();
            r.data = reply_node(m, f.ipv4());
        }
    } else {
        std::vector<Ap> aps = f.targets(false);
        auto replies = f.ask(aps, *op, tlvs, false);
        for (size_t i = 0; i < aps.size(); ++i) {
            Row &r = rows.emplace_back();
            r.ap = aps[i];
            if (!replies[i]) {
                r.exit = kExitNoReply, r.error = f.silence(aps[i], *op);
                continue;
            }
            r.result = replies[i]->result();
            r.data = reply_node(*replies[i], f.ipv4());
        }
    }
    int rc = print_report(c, rows, rows.size() > 1);
    for (const Row &r : rows)
        if (r.error.empty() && r.result != 0) rc = std::max(rc, int(kExitResult));
    return rc;
}

int run_functions(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    return read_each(c, kOpSupportedFunctions, {}, [](const Message &m, Node &ap) {
        Node &list = ap.set("functions", Node::list());
        for (const Record *t : m.all(kTagSupportedFunction)) {
            if (t->value.size() != 2) continue;
            uint16_t code = get_be16(t->value.data());
            const OpCodeInfo *op = find_op_code(code);
            Node &f = list.push(Node::object());
            f.set("op_code", Node(unsigned(code)).shown(format_op_code(code)));
            f.set("handler", op ? Node(std::string(op->handler)) : Node("(unknown)"));
        }
    });
}

int run_verify(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    return read_each(c, kOpUserVerification, credentials(c), [](const Message &m, Node &ap) {
        const Record *v = m.find(kTagVerification);
        ap.set("verified", v && v->value.size() == 4 && v->value[0] == 1);
    });
}

int run_hello(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    return read_each(c, c.cmd->name == "hello" ? kOpHello : kOpBye, {},
                     [](const Message &, Node &ap) { ap.set("accepted", true); });
}

int run_tags(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    if (o.positional().size() > 1) usage("tags takes at most one OPCODE");
    uint16_t op = 0;
    if (!o.positional().empty()) {
        auto p = parse_op_code(o.positional()[0]);
        if (!p) usage(p.error());
        if (!find_op_code(*p)) usage("no op code " + format_op_code(*p) + " in the protocol (see tavctl functions)");
        op = *p;
    }
    char code[8];
    std::snprintf(code, sizeof code, "0x%X", op);
    std::vector<Row> rows;
    Row &r = rows.emplace_back();
    Node &list = r.data.set("tags", Node::list());
    for (const auto &base : kTags) {
        const TagInfo &t = *find_tag(base.tag, op);
        if (op) {  // only the tags this op code takes or gives
            bool used = &t != &base;
            for (size_t p = t.where.find(code); !used && p != std::string_view::npos; p = t.where.find(code, p + 1)) {
                size_t e = p + std::strlen(code);
                used = e == t.where.size() || !std::isxdigit(uint8_t(t.where[e]));
            }
            if (!used) continue;
        }
        Node &n = list.push(Node::object());
        n.set("tag", unsigned(t.tag));
        n.set("name", std::string(t.name));
        n.set("kind", std::string(tag_kind_name(t.kind)));
        n.set("where", Node(std::string(t.where)).json_only());
        n.set("meaning", std::string(t.meaning));
    }
    if (c.g.format == Format::Table) return print_report(c, rows, false);
    JsonWriter j;  // not per access point: the table itself
    if (c.g.format == Format::KeyValue) {
        for (const Node &n : list.items())
            std::printf("%s kind=%s name=%s\n", std::to_string(n.get("tag")->number()).c_str(),
                        n.get("kind")->text().c_str(), n.get("name")->text().c_str());
        return kExitOk;
    }
    j.begin_array();
    for (const Node &n : list.items()) {
        j.begin_object();
        for (const auto &[k, v] : n.fields()) {
            j.key(k);
            if (v.type() == Node::Type::Int) j.value(int64_t(v.number()));
            else j.value(v.text());
        }
        j.end_object();
    }
    j.end_array();
    std::fputs(j.str().c_str(), stdout);
    return kExitOk;
}

constexpr OptSpec kDiscoverOpts[] = {
    {"--sort", "KEY", "order of the rows: mac (default), ip, name (system name) or model"},
    {"--watch", "", "keep listening: list access points as hellos and reports arrive, drop them on bye, mark "
                    "one stale after three missed reports (needs --iface)"},
    {"--duration", "SECONDS", "with --watch: stop after SECONDS (default: until interrupted)"},
    {"--report-interval", "SECONDS", "with --watch: the access points' report period (default 60)"},
};
constexpr OptSpec kRawOpts[] = {
    {"--tlv", "TAG=VALUE", "a record to send; repeat for several (TAG a number or name, see tavctl tags)"},
    {"--credentials", "", "start the request with the credentials (54, 55, 56)"},
};

const Command kCore[] = {
    {"discover", Kind::Local, "find access points (op 0xA1) and list them", "", kDiscoverOpts,
     "Lists every access point that answers within --timeout, sorted by MAC: address, system and host name, "
     "model, firmware, web port and whether it is under central management. --json adds every other field of "
     "the answer (netmask, gateway, DNS, vendor, agent settings...).\n\n"
     "With --watch the list stays live: \"found\" for the first answers, then \"hello\" (an access point "
     "started), \"report\" (one not listed yet sent its periodic report), \"bye\" (it stopped) and \"stale\" "
     "(no report for three periods: an access point that loses power sends no bye). Under --json each event "
     "is one JSON object on a line of its own.",
     run_discover},
    {"raw", Kind::Local, "send any request and print the decoded replies", "OPCODE", kRawOpts,
     "Sends op code OPCODE (a number such as 0xA1 or 161, or a handler name such as tav_discovery or "
     "discovery) with the given records and prints each reply: result code and meaning and its records by "
     "name with typed values. Without --target every reply to one broadcast is shown.\n\n"
     "VALUE is read by the tag's kind (text gets its terminating NUL; numbers are decimal or 0x hex; MACs "
     "aa:bb:cc:dd:ee:ff; IPv4 dotted), or by a prefix: text:admin str:abc (no NUL) u8:5 u16:80 u32:1 "
     "u32le:1 i32:-5 u64:1 mac:02:7a:76:00:00:01 ip:192.0.2.1 x:0a0b0c (raw bytes). A VALUE of @password "
     "sends the password, read as for any command that changes settings.",
     run_raw},
    {"functions", Kind::Read, "list the op codes an access point serves (op 0xA5)", "", {},
     "Lists the optional functions (op codes with their handler names) each access point advertises.",
     run_functions},
    {"verify", Kind::Read, "test a user name and password (op 0xA3)", "", {},
     "Asks each access point whether --user and the password are its administrator's. The password comes "
     "from --password-file, TAVCTL_PASSWORD, a private config file or a prompt; never from the command "
     "line. Exit status 1 when one refuses them.",
     run_verify},
    {"hello", Kind::Read, "send a manager hello (op 0x104)", "", {}, "Sends this manager's hello.", run_hello},
    {"bye", Kind::Read, "send a manager bye (op 0x105)", "", {},
     "Sends this manager's bye: the access points forget the precedences it gave.", run_hello},
    {"tags", Kind::Local, "list the protocol's tags, or those of one op code (no network)", "[OPCODE]", {},
     "Lists tags with number, name, value kind and meaning; with OPCODE only those that op code's requests "
     "and replies carry, named as it uses them.",
     run_tags},
};

}  // namespace

std::span<const Command> core_commands() { return kCore; }

}  // namespace tavctl
