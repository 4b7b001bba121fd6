// SPDX-License-Identifier: ISC
// Reaching access points: the session, target resolution (MAC, address, host
// or system name, or the whole fleet), requests in parallel with retries for
// reads, and the read and write flows every command shares.
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>

#include "tools/tavctl/tavctl.h"

namespace tavctl {

std::string joined(const std::vector<std::string> &names) {
    std::string s;
    for (const std::string &n : names) s += (s.empty() ? "" : ", ") + n;
    return s;
}

std::string seconds_text(double s) {
    char b[32];
    std::snprintf(b, sizeof b, "%g s", s);
    return b;
}

namespace {

// Op codes an access point still serves while a central-management agent
// runs; it does not answer the others at all.
constexpr uint16_t kServedWhileManaged[] = {kOpSetAgProfile,       kOpDiscovery,         kOpInformation,
                                            kOpUserVerification,  kOpGetSnmp,           kOpSupportedFunctions,
                                            kOpSetIpv4,           kOpReset,             kOpResetFactory,
                                            kOpReboot,            kOpGetDeviceStatus,   kOpGetSsidList,
                                            kOpGetWirelessInfo,   kOpGetClientList};

Options checked_options(Ctx &c) {
    Globals &g = c.g;
    if (g.path_options > 1 || g.opts.iface.empty() == g.opts.udp.empty())
        usage("choose the path: exactly one of --iface IF (raw Ethernet) and --udp ADDR (UDP)");
    if (g.opts.target_ip && !g.opts.iface.empty()) usage("--target-ip applies to --udp only");
    if (g.opts.source_mac && g.opts.iface.empty()) usage("--source-mac applies to --iface only");
    // dlopen searches the library path for a bare name; a person means the file here.
    if (g.opts.cipher.find('/') == std::string::npos && access(g.opts.cipher.c_str(), F_OK) == 0)
        g.opts.cipher = "./" + g.opts.cipher;
    g.opts.unicast = true;
    if (auto ci = Cipher::load(g.opts.cipher); !ci)
        fail(kExitCipher, ci.error() + " (the cipher library: --cipher PATH or \"cipher\" in the config)");
    return g.opts;
}

Client open_client(Ctx &c) {
    auto client = Client::open(checked_options(c));
    if (!client) fail(kExitNetwork, client.error());
    if (!c.g.pcap.empty()) {
        // One file for the whole run, whatever sessions it opens.
        static std::shared_ptr<CaptureWriter> writer;
        if (!writer) {
            auto w = CaptureWriter::open(c.g.pcap, c.g.pcap_secrets);
            if (!w) usage(w.error());
            writer = *w;
        }
        client->set_capture(writer);
    }
    return std::move(*client);
}

Ap ap_of(const Message &m, bool ipv4) {
    Ap ap;
    ap.mac = m.mac(kTagMac);
    if (!ap.mac && !ipv4) ap.mac = m.src_mac;
    ap.ip = m.ipv4(kTagIpAddress);
    ap.system_name = m.text(kTagSystemName).value_or("");
    ap.host_name = m.text(kTagHostName).value_or("");
    ap.discovery = m;
    return ap;
}

}  // namespace

bool under_management(const Message &discovery) {
    return discovery.u16(kTagConnectionStatus).value_or(0) != 0 || discovery.u8(kTagManagedStatus).value_or(0) != 0;
}

Fleet::Fleet(Ctx &c)
    : c_(c), client_(open_client(c)), window_(long(std::ceil(c.g.timeout * 1000))) {}

std::vector<Ap> Fleet::discover(std::chrono::milliseconds window, std::optional<Mac> only) {
    Ap one;
    one.mac = only;
    std::vector<Ap> out;
    if (only) {
        if (auto m = ask_one(one, kOpDiscovery, {}, true)) out.push_back(ap_of(*m, ipv4()));
        return out;
    }
    auto replies = client_.request(kOpDiscovery, {}, window);
    if (!replies) fail(kExitNetwork, replies.error());
    std::map<std::string, Ap> by_key;  // one per access point, whatever the path
    for (const Message &m : *replies) {
        Ap ap = ap_of(m, ipv4());
        by_key.emplace(ap.label(), std::move(ap));
    }
    for (auto &[k, ap] : by_key) out.push_back(std::move(ap));
    return out;
}

std::vector<std::string> write_targets(const Ctx &c) {
    const Globals &g = c.g;
    auto ip = parse_ipv4(g.opts.udp);
    const bool unicast_udp = ip && ((*ip)[0] & 0xF0) != 0xE0 && (*ip)[3] != 255;
    if (g.all || (g.targets.empty() && !unicast_udp && !g.opts.target_ip))
        usage("changes settings, so it never goes to the whole fleet: name the access points with --target "
              "(repeat it for several)");
    if (!g.targets.empty()) return g.targets;
    return {g.opts.target_ip ? format_ipv4(*g.opts.target_ip) : g.opts.udp};
}

std::vector<Ap> Fleet::targets(bool write) {
    const Globals &g = c_.g;
    if (write) write_targets(c_);
    const bool unicast_udp = [&] {
        auto ip = parse_ipv4(g.opts.udp);
        return ip && ((*ip)[0] & 0xF0) != 0xE0 && (*ip)[3] != 255;
    }();
    if (g.all && !g.targets.empty()) usage("--all and --target exclude each other");
    if (g.targets.empty() && (g.opts.target_ip || unicast_udp)) {
        Ap ap;  // the one access point that --udp or --target-ip names
        ap.ip = g.opts.target_ip ? g.opts.target_ip : parse_ipv4(g.opts.udp);
        // Its MAC and names, for the output: one quick question.
        if (auto d = ask_one(ap, kOpDiscovery, {}, true); d && d->result() == 0) ap = ap_of(*d, true);
        return {ap};
    }
    if (g.targets.empty()) {
        auto aps = discover(window_);
        if (aps.empty())
            fail(kExitNoReply, "no access point answered discovery within " + seconds_text(g.timeout) +
                                   " (is --iface or --udp the access points' network?)");
        return aps;
    }
    std::vector<Ap> out;
    std::vector<Ap> seen;
    bool discovered = false;
    for (const std::string &t : g.targets) {
        if (auto mac = parse_mac(t)) {
            Ap ap;
            ap.mac = *mac;
            out.push_back(ap);
            continue;
        }
        if (!discovered) seen = discover(window_), discovered = true;
        auto ip = parse_ipv4(t);
        std::vector<const Ap *> hits;
        for (const Ap &ap : seen)
            if ((ip && ap.ip == *ip) || (!ip && (ap.host_name == t || ap.system_name == t))) hits.push_back(&ap);
        if (hits.empty())
            fail(kExitNoReply, "--target " + t + ": no access point with that " +
                                   (ip ? "address" : "host or system name") + " answered discovery");
        if (hits.size() > 1)
            usage("--target " + t + ": " + std::to_string(hits.size()) +
                  " access points have that name; name one by its MAC");
        out.push_back(*hits[0]);
    }
    return out;
}

std::vector<std::optional<Message>> Fleet::ask(const std::vector<Ap> &aps, uint16_t op, const TlvList &tlvs,
                                               bool read) {
    std::vector<std::optional<Message>> out(aps.size());
    const int tries = read && ipv4() ? 1 + c_.g.retries : 1;
    struct Pending {
        size_t index;
        uint16_t seq;
        Clock::time_point deadline;
        int tries;
    };
    std::vector<Pending> flight;
    std::vector<std::pair<size_t, int>> queue;  // (index, tries done)
    for (size_t i = 0; i < aps.size(); ++i) queue.emplace_back(i, 0);
    const Options base = client_.options();
    while (!queue.empty() || !flight.empty()) {
        while (!queue.empty() && flight.size() < size_t(c_.g.parallel)) {
            auto [i, done] = queue.front();
            queue.erase(queue.begin());
            const Ap &ap = aps[i];
            auto seq = client_.send_request_to(op, tlvs, ap.mac ? ap.mac : base.target_mac,
                                               ipv4() ? (ap.ip ? ap.ip : base.target_ip) : std::nullopt);
            if (!seq) fail(kExitNetwork, seq.error());
            flight.push_back({i, *seq, Clock::now() + window_, done + 1});
        }
        Clock::time_point next = flight.front().deadline;
        for (const Pending &p : flight) next = std::min(next, p.deadline);
        auto m = client_.receive(next);
        if (m) {
            auto it = std::find_if(flight.begin(), flight.end(),
                                   [&](const Pending &p) { return client_.is_reply(*m, p.seq, op); });
            if (it != flight.end()) {
                out[it->index] = std::move(*m);
                flight.erase(it);
            }
            continue;
        }
        for (auto it = flight.begin(); it != flight.end();) {
            if (Clock::now() < it->deadline) {
                ++it;
                continue;
            }
            if (it->tries < tries) queue.emplace_back(it->index, it->tries);
            it = flight.erase(it);
        }
    }
    return out;
}

std::string Fleet::silence(const Ap &ap, uint16_t op) {
    const std::string wait = "no answer within " + seconds_text(c_.g.timeout);
    if (op == kOpDiscovery || std::find(std::begin(kServedWhileManaged), std::end(kServedWhileManaged), op) !=
                                  std::end(kServedWhileManaged))
        return wait + " (is it on, and on the network of --iface/--udp?)";
    std::optional<Message> d = ap.discovery;
    if (!d && ap.mac) {
        auto found = discover(window_, ap.mac);
        if (!found.empty()) d = found[0].discovery;
    }
    if (!d) return wait + " (is it on, and on the network of --iface/--udp?)";
    if (!under_management(*d)) return wait + " (it answers discovery: perhaps busy or restarting; try again)";
    return wait + ": it is under central management (server \"" + d->text(kTagNmsServer).value_or("") +
           "\", agent group \"" + d->text(kTagAgUuid).value_or("") +
           "\") and answers only discover, functions, info, verify, snmp get, status, ssid list, wireless get, "
           "clients, ipv4 set, agent set, reboot, reset and factory-reset. To manage it here again, reset it "
           "(tavctl --target " + ap.label() + " --user NAME reset), which clears the agent's settings; a reboot "
           "does not";
}

std::string refusal_text(uint16_t code, uint16_t op, bool sent_precedence) {
    std::string meaning(result_meaning(code, op));
    if (meaning.starts_with("refused: ")) meaning.erase(0, 9);
    if (meaning.empty()) meaning = "an unknown result code";
    if (code == kResultAuthFailed) meaning = "wrong user name or password, or a request it does not accept";
    std::string s = "refused: " + meaning + " (result " + std::to_string(code);
    if (code >= 0xFF00) {
        char b[12];
        std::snprintf(b, sizeof b, ", 0x%04X", code);
        s += b;
    }
    s += ")";
    if ((code == kResultRefused || code == kResultRefusedHigh) && sent_precedence)
        s += "; if another manager holds a higher precedence, give at least its --precedence";
    return s;
}

bool answered(Fleet &f, Row &row, const std::optional<Message> &m, uint16_t op) {
    if (!m) {
        row.exit = kExitNoReply;
        row.error = f.silence(row.ap, op);
        return false;
    }
    row.result = m->result();
    if (m->result() != 0) {
        row.exit = kExitResult;
        row.error = refusal_text(m->result(), op, f.sent_precedence());
        const Record *mask = m->find(kTagErrorMask);
        if (op == kOpSetSnmp && mask && mask->value.size() == 4) {  // little-endian on the wire
            static const char *const kItems[] = {nullptr, "the read-only community", "the read-write community",
                                                 "read-only views", "read-write views"};
            for (int bit = 1; bit < 5; ++bit)
                if (mask->value[0] >> bit & 1) row.error += std::string("; refused: ") + kItems[bit];
            row.error += "; the rest was applied";
        }
        return false;
    }
    return true;
}

int read_each(Ctx &c, uint16_t op, const TlvList &tlvs, const Fill &fill) {
    Fleet f(c);
    std::vector<Ap> aps = f.targets(false);
    auto replies = f.ask(aps, op, tlvs, true);
    std::vector<Row> rows;
    for (size_t i = 0; i < aps.size(); ++i) {
        Row &r = rows.emplace_back();
        r.ap = aps[i];
        if (answered(f, r, replies[i], op)) fill(*replies[i], r.data);
    }
    return print_report(c, rows, aps.size() > 1);
}

Node changes(const Node &before, const Node &after) {
    Node list = Node::list();
    for (const auto &[k, a] : after.fields()) {
        const Node *b = before.get(k);
        std::string was = b ? b->display() : "-";
        if (was == a.display()) continue;
        Node &ch = list.push(Node::object());
        std::string label = k;
        std::replace(label.begin(), label.end(), '_', ' ');
        ch.set("setting", Node(k).shown(label));
        ch.set("before", b ? *b : Node());
        ch.set("after", a);
    }
    return list;
}

int write_each(Ctx &c, const Setter &s) {
    // Asked before anything is sent, of the targets as they were named.
    const std::vector<std::string> names = write_targets(c);
    std::string q = s.question ? s.question(names) : "";
    if (q.empty() && names.size() > 1) q = c.name() + " on " + std::to_string(names.size()) + " access points?";
    if (!q.empty()) confirm(c, q);
    Fleet f(c);
    std::vector<Ap> aps = f.targets(true);
    const TlvList cred = credentials(c);
    std::vector<Row> rows;
    for (const Ap &ap : aps) {
        Row &r = rows.emplace_back();
        r.ap = ap;
        std::optional<Message> now;
        if (s.read_op) {
            now = f.ask_one(ap, s.read_op, {}, true);
            if (!answered(f, r, now, s.read_op)) continue;
        }
        TlvList body = s.build(ap, now ? &*now : nullptr);
        TlvList req = s.credentials_last ? body : cred;
        req.insert(req.end(), (s.credentials_last ? cred : body).begin(), (s.credentials_last ? cred : body).end());
        auto reply = f.ask_one(ap, s.op, req, false);
        if (!answered(f, r, reply, s.op)) continue;
        std::optional<Message> again;
        if (s.read_op && s.view) {
            again = f.ask_one(ap, s.read_op, {}, true);
            if (again && again->result() == 0) {
                Node ch = changes(s.view(*now), s.view(*again));
                if (ch.items().empty()) r.data.set("note", "nothing changed");
                r.data.set("changes", ch);
            } else {
                r.data.set("note", "sent and accepted, but the settings could not be read back (restarting?)");
            }
        }
        if (s.after) s.after(f, *reply, again && again->result() == 0 ? &*again : nullptr, r);
    }
    return print_report(c, rows, aps.size() > 1);
}

// ---- reads of reply values -----------------------------------------------------------

std::string text_of(const Record &r) { return format_text(r.value); }
uint64_t number_of(const Record &r) {
    uint64_t v = 0;
    for (uint8_t b : r.value) v = v << 8 | b;
    return v;
}

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

std::string wait_note(const Message &reply) {
    auto w = reply.u32(kTagWaitTime);
    return w ? "managers are asked to wait " + std::to_string(*w / 1000) + " s" : "";
}

}  // namespace tavctl
