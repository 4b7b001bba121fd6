// SPDX-License-Identifier: ISC
// Sessions with devices, credentials and output helpers shared by every
// tavctl command.
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "tools/tavctl/tavctl.h"

namespace tavctl {

// ---- output -----------------------------------------------------------------

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

std::string refusal_text(uint16_t code, uint16_t op) {
    std::string_view meaning = result_meaning(code, op);
    std::string s = meaning.empty() ? std::string("unknown result code") : std::string(meaning);
    s += " (" + std::to_string(code);
    if (code >= 0xFF00) {
        char b[12];
        std::snprintf(b, sizeof b, ", 0x%04X", code);
        s += b;
    }
    return s + ")";
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

void print_table(const std::vector<std::vector<std::string>> &rows) {
    if (rows.empty()) return;
    std::vector<size_t> width(rows[0].size(), 0);
    for (const auto &r : rows)
        for (size_t c = 0; c < r.size() && c < width.size(); ++c) width[c] = std::max(width[c], r[c].size());
    for (const auto &r : rows) {
        std::string line;
        for (size_t c = 0; c < r.size(); ++c) {
            line += r[c];
            if (c + 1 < r.size()) line += std::string(width[c] - r[c].size() + 2, ' ');
        }
        std::printf("%s\n", line.c_str());
    }
}

void print_fields(const std::vector<std::pair<std::string, std::string>> &fields) {
    size_t w = 0;
    for (const auto &f : fields) w = std::max(w, f.first.size());
    for (const auto &[k, v] : fields)
        std::printf("%s:%s %s\n", k.c_str(), std::string(w - k.size(), ' ').c_str(), v.c_str());
}

// ---- sessions ---------------------------------------------------------------

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

namespace {

std::string fix_cipher_path(const std::string &p) {
    // dlopen searches the library path for a bare name; a person means the file here.
    if (p.find('/') == std::string::npos && access(p.c_str(), F_OK) == 0) return "./" + p;
    return p;
}

// --target by IPv4 address (raw path) or host name: asks every device and
// takes the MAC (and address) of the first that matches.
int resolve_by_discovery(Args &a) {
    Options o = a.opts;
    o.target_mac.reset();
    o.target_ip.reset();
    auto c = Client::open(o);
    if (!c) {
        std::fprintf(stderr, "tavctl: %s\n", c.error().c_str());
        return kExitNetwork;
    }
    auto seq = c->send_request(kOpDiscovery, {});
    if (!seq) {
        std::fprintf(stderr, "tavctl: %s\n", seq.error().c_str());
        return kExitNetwork;
    }
    auto ip = parse_ipv4(a.target);
    uint16_t reply_type = c->ipv4() ? kMsgIpv4Reply : kMsgL2Reply;
    auto window = std::chrono::milliseconds(long(std::ceil(a.timeout * 1000)));
    auto found = c->wait_for(
        [&](const Message &m) {
            if (!m.header || m.msg_type() != reply_type || m.op_code() != kOpDiscovery ||
                m.header->sequence != *seq || !m.mac(kTagMac))
                return false;
            if (ip) return m.ipv4(kTagIpAddress) == *ip;
            return m.text(kTagHostName) == a.target;
        },
        window);
    if (!found) {
        std::fprintf(stderr, "tavctl: --target: no device %s \"%s\" answered discovery within %g s\n",
                     ip ? "with address" : "named", a.target.c_str(), a.timeout);
        return kExitNoReply;
    }
    a.opts.target_mac = *found->mac(kTagMac);
    if (c->ipv4() && found->ipv4(kTagIpAddress)) a.opts.target_ip = *found->ipv4(kTagIpAddress);
    return kExitOk;
}

}  // namespace

int open_session(Args &a, std::optional<Session> &out) {
    if (a.path_options > 1 || a.opts.iface.empty() == a.opts.udp.empty()) {
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
    if (!a.target.empty()) {
        if (auto m = parse_mac(a.target)) {
            a.opts.target_mac = *m;
        } else if (auto ip = parse_ipv4(a.target); ip && !a.opts.udp.empty()) {
            a.opts.target_ip = *ip;  // the device checks it itself
        } else if (int rc = resolve_by_discovery(a); rc != kExitOk) {
            return rc;
        }
        a.target.clear();
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

int run_request(Args &a, uint16_t op, const TlvList &tlvs, std::vector<Message> &replies, bool &ipv4,
                size_t max_override) {
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
        std::fprintf(stderr, "tavctl: no reply to op %s within %g s\n", format_op_code(op).c_str(), a.timeout);
        return kExitNoReply;
    }
    return kExitOk;
}

int worst_result(const std::vector<Message> &replies) {
    for (const auto &m : replies)
        if (m.result() != 0) return kExitResult;
    return kExitOk;
}

int each_reply(Args &a, uint16_t op, const TlvList &tlvs, const EachReply &each) {
    std::vector<Message> replies;
    bool ipv4 = false;
    int rc = run_request(a, op, tlvs, replies, ipv4);
    if (rc == kExitNoReply && a.json) std::printf("[]\n");
    if (rc != kExitOk) return rc;
    JsonWriter j;
    j.begin_array();
    for (const auto &m : replies) each(j, m, ipv4, replies.size() > 1);
    j.end_array();
    if (a.json) std::fputs(j.str().c_str(), stdout);
    return worst_result(replies);
}

void json_head(JsonWriter &j, const Message &m, bool ipv4) {
    j.begin_object();
    j.key("from").value(from_text(m, ipv4));
    j.key("result").value(uint64_t(m.result()));
}

int request_one_device(Args &a, uint16_t op, const TlvList &tlvs, Message &reply) {
    bool named = !a.target.empty() || addressed_to_one(a);
    if (!named)
        throw UsageError{a.command + " acts on one device: name it with --target (MAC, address or host name)"};
    std::vector<Message> replies;
    bool ipv4 = false;
    if (int rc = run_request(a, op, tlvs, replies, ipv4, 1); rc != kExitOk) return rc;
    reply = std::move(replies[0]);
    if (reply.result() != 0) {
        std::fprintf(stderr, "tavctl: %s: refused: %s\n", a.command.c_str(),
                     refusal_text(reply.result(), op).c_str());
        return kExitResult;
    }
    return kExitOk;
}

// ---- credentials ------------------------------------------------------------

std::optional<std::string> prompt_secret(const char *prompt) {
    int fd = ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    termios old{};
    bool have_tio = tcgetattr(fd, &old) == 0;
    if (have_tio) {
        termios quiet = old;
        quiet.c_lflag &= tcflag_t(~ECHO);
        quiet.c_lflag |= ECHONL;
        tcsetattr(fd, TCSAFLUSH, &quiet);
    }
    (void)!::write(fd, prompt, std::strlen(prompt));
    std::string pw;
    char c;
    while (::read(fd, &c, 1) == 1 && c != '\n') pw.push_back(c);
    if (have_tio) tcsetattr(fd, TCSAFLUSH, &old);
    ::close(fd);
    if (!pw.empty() && pw.back() == '\r') pw.pop_back();
    return pw;
}

namespace {

std::optional<std::string> first_line(const std::string &path, std::string &err) {
    std::ifstream f(path, std::ios::binary);
    if (!f) {
        err = "cannot read password file \"" + path + "\": " + std::strerror(errno);
        return std::nullopt;
    }
    std::string line;
    std::getline(f, line);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

}  // namespace

std::optional<std::string> read_password(const Args &a, std::string &err) {
    if (a.password_file_given) return first_line(a.cred.password_file, err);
    if (const char *env = std::getenv("TAVCTL_PASSWORD")) return std::string(env);
    if (!a.cred.password_file.empty()) return first_line(a.cred.password_file, err);
    if (a.cred.password) return a.cred.password;
    auto pw = prompt_secret("Password: ");
    if (!pw) err = "no password: use --password-file FILE, TAVCTL_PASSWORD or a terminal";
    return pw;
}

int add_credentials(const Args &a, TlvList &tlvs) {
    if (!a.cred.have_user) {
        std::fprintf(stderr, "tavctl: %s needs --user NAME (or \"user\" in the config file, or TAVCTL_USER)\n",
                     a.command.c_str());
        return kExitUsage;
    }
    std::string err;
    auto pw = read_password(a, err);
    if (!pw) {
        std::fprintf(stderr, "tavctl: %s\n", err.c_str());
        return kExitUsage;
    }
    if (a.cred.precedence) tlvs.push_back(tlv_u8(kTagServerPrecedence, *a.cred.precedence));
    tlvs.push_back(tlv_text(kTagUserName, a.cred.user));
    tlvs.push_back(tlv_text(kTagPassword, *pw));
    return kExitOk;
}

}  // namespace tavctl
