// SPDX-License-Identifier: ISC
// What the person types: global options and their defaults (config files,
// TAVCTL_* variables), a command's own options with one typed parser per
// kind of value, secrets, confirmations and "did you mean".
#include <fcntl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>

#include "tools/tavctl/tavctl.h"

namespace tavctl {

void usage(std::string message) { throw Failure{kExitUsage, std::move(message)}; }
void fail(int code, std::string message) { throw Failure{code, std::move(message)}; }

namespace {

constexpr OptSpec kGlobal[] = {
    {"--iface", "IF", "raw Ethernet frames (EtherType 0x2386) on interface IF"},
    {"--udp", "ADDR", "UDP to ADDR port 62976; a broadcast address or 224.0.0.1 reaches every access point"},
    {"--target", "AP", "an access point by MAC, IPv4 address, host name or system name; repeat for several "
                       "(default for reads: every access point that answers)"},
    {"--all", "", "every access point that answers discovery (reads only)"},
    {"--json", "", "print one JSON array of per-access-point objects"},
    {"--format", "FMT", "table (default), json or keyvalue (\"MAC key=value\" lines for shells)"},
    {"--yes", "", "answer yes to confirmations (for scripts)"},
    {"--user", "NAME", "the administrator's user name (commands that change settings)"},
    {"--password-file", "FILE", "the password is the first line of FILE; else TAVCTL_PASSWORD, else "
                                "\"password\" in a private config file, else a prompt"},
    {"--precedence", "N", "this manager's precedence, 0 to 255: an access point refuses a manager whose "
                          "precedence for an operation is lower than another manager's; the higher wins, "
                          "equal ones do not refuse each other, and a request without one is never refused "
                          "for precedence"},
    {"--timeout", "SECONDS", "how long to wait for replies (default 2; fractions allowed)"},
    {"--retries", "N", "a read over UDP without a reply is sent again up to N times (default 2)"},
    {"--parallel", "N", "requests in flight at once (default 16)"},
    {"--cipher", "PATH", "cipher library (default /usr/lib/TAV_Auth.so)"},
    {"--netns", "NAME", "open the socket inside network namespace NAME"},
    {"--port", "N", "UDP destination port (default 62976)"},
    {"--bind", "ADDR", "UDP: local IPv4 address to send from"},
    {"--target-ip", "IP", "the access point's IPv4 address in the header (UDP only)"},
    {"--seq", "N", "sequence number of the first request (default random)"},
    {"--source-mac", "MAC", "raw Ethernet: send as a manager with this MAC"},
    {"--pcap", "FILE", "record what is sent and received, with the plaintext beside each message, in FILE "
                       "(mode 0600) for the Wireshark dissector (tools/wireshark); secrets are masked"},
    {"--pcap-secrets", "", "with --pcap: keep passwords, passphrases, RADIUS secrets and SNMP communities"},
    {"--config", "FILE", "read only this config file"},
    {"--version", "", "print the version"},
    {"--help", "", "this text; \"tavctl COMMAND --help\" for a command"},
};

std::string trim(std::string s) {
    size_t b = s.find_first_not_of(" \t\r");
    size_t e = s.find_last_not_of(" \t\r");
    return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

bool read_config(Globals &g, const std::string &path) {
    std::ifstream f(path);
    if (!f) return false;
    struct stat st{};
    bool private_file = ::stat(path.c_str(), &st) == 0 && (st.st_mode & 077) == 0;
    std::string line;
    for (int n = 1; std::getline(f, line); ++n) {
        line = trim(line);
        if (line.empty() || line[0] == '#') continue;
        auto eq = line.find('=');
        std::string where = path + ":" + std::to_string(n) + ": ";
        if (eq == std::string::npos) usage(where + "expected \"key = value\"");
        std::string key = trim(line.substr(0, eq)), value = trim(line.substr(eq + 1));
        if (key == "password") {
            if (!private_file) usage(where + "a password may only stand in a file no one else can read (chmod 600)");
            g.cred.password = value;
            continue;
        }
        static const char *const kKeys[] = {"iface", "udp",  "port", "bind", "netns", "cipher", "source-mac",
                                            "timeout", "user", "password-file", "precedence", "retries"};
        if (std::none_of(std::begin(kKeys), std::end(kKeys), [&](const char *k) { return key == k; }))
            usage(where + "unknown key \"" + key + "\"");
        try {
            global_option(g, "--" + key, [&] { return value; });
        } catch (const Failure &e) {
            usage(where + e.message);
        }
    }
    return true;
}

size_t distance(std::string_view a, std::string_view b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diag = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            size_t up = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diag + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diag = up;
        }
    }
    return row[b.size()];
}

// The closest of `names`, when it is close enough to be a typo.
std::string nearest(std::string_view typed, const std::vector<std::string_view> &names) {
    std::string_view best;
    size_t best_d = SIZE_MAX;
    for (auto n : names)
        if (size_t d = distance(typed, n); d < best_d) best = n, best_d = d;
    return best_d <= std::max<size_t>(2, typed.size() / 3) ? std::string(best) : std::string();
}

}  // namespace

std::span<const OptSpec> global_options() { return kGlobal; }

std::string nearest_command(std::string_view typed) {
    std::vector<std::string_view> names;
    for (const Command &c : all_commands()) names.push_back(c.name);
    return nearest(typed, names);
}

std::string nearest_option(std::string_view typed, std::span<const OptSpec> opts) {
    std::vector<std::string_view> names;
    for (const OptSpec &o : opts) names.push_back(o.name);
    for (const OptSpec &o : kGlobal) names.push_back(o.name);
    return nearest(typed, names);
}

bool global_option(Globals &g, const std::string &s, const std::function<std::string()> &value) {
    auto number = [&](uint64_t lo, uint64_t hi) { return parse_number(s, value(), lo, hi); };
    if (s == "--iface") {
        g.opts.iface = value();
        g.opts.udp.clear();
        ++g.path_options;
    } else if (s == "--udp") {
        g.opts.udp = value();
        g.opts.iface.clear();
        ++g.path_options;
    } else if (s == "--cipher") {
        g.opts.cipher = value();
    } else if (s == "--target") {
        std::string t = value();
        if (t.empty()) usage("--target needs a MAC, an IPv4 address, a host name or a system name");
        g.targets.push_back(t);
    } else if (s == "--all") {
        g.all = true;
    } else if (s == "--yes") {
        g.yes = true;
    } else if (s == "--target-ip") {
        g.opts.target_ip = parse_address(s, value());
    } else if (s == "--seq") {
        g.opts.sequence = uint16_t(number(0, 0xFFFF));
    } else if (s == "--timeout") {
        std::string v = value();
        char *end = nullptr;
        double t = std::strtod(v.c_str(), &end);
        if (v.empty() || *end != '\0' || !(t > 0) || t > 3600)
            usage("--timeout: \"" + v + "\" is not a number of seconds (above 0, at most 3600)");
        g.timeout = t;
    } else if (s == "--retries") {
        g.retries = int(number(0, 10));
    } else if (s == "--parallel") {
        g.parallel = int(number(1, 256));
    } else if (s == "--pcap") {
        g.pcap = value();
        if (g.pcap.empty()) usage("--pcap needs a file name");
    } else if (s == "--pcap-secrets") {
        g.pcap_secrets = true;
    } else if (s == "--json") {
        g.format = Format::Json;
    } else if (s == "--format") {
        std::string v = value();
        if (v == "table") g.format = Format::Table;
        else if (v == "json") g.format = Format::Json;
        else if (v == "keyvalue") g.format = Format::KeyValue;
        else usage("--format: \"" + v + "\" is none of table, json, keyvalue");
    } else if (s == "--port") {
        g.opts.port = uint16_t(number(1, 65535));
    } else if (s == "--bind") {
        g.opts.bind = value();
    } else if (s == "--netns") {
        g.opts.netns = value();
    } else if (s == "--source-mac") {
        std::string v = value();
        auto m = parse_mac(v);
        if (!m) usage("--source-mac: \"" + v + "\" is not a MAC address (such as 02:7a:76:00:00:01)");
        g.opts.source_mac = *m;
    } else if (s == "--user") {
        g.cred.user = value();
        g.cred.have_user = true;
    } else if (s == "--password-file") {
        g.cred.password_file = value();
        g.password_file_given = true;
    } else if (s == "--password") {
        usage("passwords are never taken on the command line: use --password-file FILE, TAVCTL_PASSWORD or the "
              "prompt");
    } else if (s == "--precedence") {
        g.cred.precedence = uint8_t(number(0, 255));
    } else {
        return false;
    }
    return true;
}

void load_defaults(Globals &g, const std::string &config_file) {
    if (!config_file.empty()) {
        if (!read_config(g, config_file)) usage("cannot read config file \"" + config_file + "\"");
    } else {
        read_config(g, "/etc/tavctl.conf");
        if (const char *home = std::getenv("HOME"); home && *home)
            read_config(g, std::string(home) + "/.config/tavctl.conf");
    }
    static const std::pair<const char *, const char *> kEnv[] = {
        {"TAVCTL_IFACE", "--iface"}, {"TAVCTL_UDP", "--udp"},   {"TAVCTL_NETNS", "--netns"},
        {"TAVCTL_CIPHER", "--cipher"}, {"TAVCTL_USER", "--user"}, {"TAVCTL_PASSWORD_FILE", "--password-file"},
        {"TAVCTL_PRECEDENCE", "--precedence"},
    };
    for (const auto &[var, opt] : kEnv)
        if (const char *v = std::getenv(var); v && *v) {
            try {
                global_option(g, opt, [&] { return std::string(v); });
            } catch (const Failure &e) {
                usage(std::string(var) + ": " + e.message);
            }
        }
    // Only the command line counts towards "both --iface and --udp", and a
    // password file from the defaults yields to TAVCTL_PASSWORD.
    g.path_options = 0;
    g.password_file_given = false;
}

// ---- a command's options ----------------------------------------------------------

Opts::Opts(Globals &g, const Command &cmd, const std::vector<std::string> &w) {
    for (size_t i = 0; i < w.size(); ++i) {
        std::string s = w[i];
        if (s == "-h" || s == "--help") throw HelpRequested{};
        if (s == "--") {
            positional_.insert(positional_.end(), w.begin() + long(i) + 1, w.end());
            break;
        }
        if (s.size() < 2 || s[0] != '-' || (s[1] != '-' && !std::isalpha(uint8_t(s[1])))) {
            positional_.push_back(s);  // words, "-", negative numbers
            continue;
        }
        std::optional<std::string> inline_val;  // --opt=value
        if (auto eq = s.find('='); s.starts_with("--") && eq != std::string::npos) {
            inline_val = s.substr(eq + 1);
            s.resize(eq);
        }
        auto value = [&]() -> std::string {
            if (inline_val) return *inline_val;
            if (i + 1 >= w.size()) usage(s + " needs a value");
            return w[++i];
        };
        auto own = std::find_if(cmd.options.begin(), cmd.options.end(), [&](const OptSpec &o) { return o.name == s; });
        if (own != cmd.options.end()) {
            if (own->arg.empty() && inline_val) usage(s + " takes no value");
            given_.emplace_back(s, own->arg.empty() ? std::string() : value());
        } else if (!global_option(g, s, value)) {
            std::string near = nearest_option(s, cmd.options);
            usage("unknown option " + s + (near.empty() ? "" : " (did you mean " + near + "?)") + "; see tavctl " +
                  std::string(cmd.name) + " --help");
        }
    }
    if (cmd.args.empty() && !positional_.empty())
        usage(std::string(cmd.name) + " takes no arguments (\"" + positional_[0] + "\" is one too many)");
}

const std::string *Opts::value(std::string_view name) const {
    const std::string *v = nullptr;
    for (const auto &[k, val] : given_)
        if (k == name) v = &val;  // the last one wins
    return v;
}

bool Opts::flag(std::string_view name) const { return value(name) != nullptr; }

std::optional<std::string> Opts::text(std::string_view name, size_t max, bool allow_empty) const {
    const std::string *v = value(name);
    if (!v) return std::nullopt;
    if (v->empty() && !allow_empty) usage(std::string(name) + ": must not be empty");
    if (v->size() > max) usage(std::string(name) + ": at most " + std::to_string(max) + " characters");
    return *v;
}

std::optional<uint64_t> Opts::number(std::string_view name, uint64_t lo, uint64_t hi) const {
    const std::string *v = value(name);
    return v ? std::optional(parse_number(name, *v, lo, hi)) : std::nullopt;
}

std::optional<bool> Opts::on_off(std::string_view name) const {
    const std::string *v = value(name);
    return v ? std::optional(parse_on_off(name, *v)) : std::nullopt;
}

std::optional<uint16_t> Opts::port(std::string_view name) const {
    auto n = number(name, 1, 65535);
    return n ? std::optional(uint16_t(*n)) : std::nullopt;
}

std::optional<Ipv4> Opts::ipv4(std::string_view name) const {
    const std::string *v = value(name);
    return v ? std::optional(parse_address(name, *v)) : std::nullopt;
}

std::optional<std::string> Opts::secret(std::string_view name, const char *what) const {
    const std::string *v = value(name);
    if (!v) return std::nullopt;
    if (*v != "-") return first_line_of(*v, what);
    auto s = prompt_secret((std::string("New ") + what + ": ").c_str());
    if (!s) usage(std::string(name) + " -: no terminal to ask for the " + what + " on");
    return s;
}

// ---- typed values ------------------------------------------------------------------

bool parse_on_off(std::string_view opt, const std::string &v) {
    for (const char *yes : {"on", "yes", "true", "1"})
        if (v == yes) return true;
    for (const char *no : {"off", "no", "false", "0"})
        if (v == no) return false;
    usage(std::string(opt) + ": \"" + v + "\" is not on or off (also yes/no, true/false, 1/0)");
}

uint64_t parse_number(std::string_view opt, const std::string &v, uint64_t lo, uint64_t hi) {
    auto n = parse_uint(v, hi);
    if (!n || *n < lo || *n > hi)
        usage(std::string(opt) + ": \"" + v + "\" is not a number from " + std::to_string(lo) + " to " +
              std::to_string(hi));
    return *n;
}

uint16_t parse_vlan(std::string_view opt, const std::string &v) {
    auto n = parse_uint(v, 4094);
    if (!n || *n > 4094)
        usage(std::string(opt) + ": \"" + v + "\" is not a VLAN id: 0 for untagged, or 1 to 4094");
    return uint16_t(*n);
}

Ipv4 parse_address(std::string_view opt, const std::string &v) {
    auto ip = parse_ipv4(v);
    if (!ip) usage(std::string(opt) + ": \"" + v + "\" is not an IPv4 address (such as 192.0.2.11)");
    return *ip;
}

Subnet parse_subnet(std::string_view opt, const std::string &v) {
    const std::string what = std::string(opt) + ": \"" + v + "\" ";
    auto slash = v.find('/');
    if (slash == std::string::npos) usage(what + "needs ADDR/PREFIX or ADDR/MASK, such as 192.0.2.11/24");
    Subnet s;
    s.addr = parse_address(opt, v.substr(0, slash));
    std::string m = v.substr(slash + 1);
    uint32_t bits = 0;
    if (m.find('.') == std::string::npos) {
        auto n = parse_uint(m, 32);
        if (!n || *n < 1 || *n > 30) usage(what + "has a prefix length outside 1 to 30");
        bits = ~uint32_t(0) << (32 - *n);
    } else {
        Ipv4 mask = parse_address(opt, m);
        bits = get_be32(mask.data());
        if (bits == 0 || (~bits & (~bits + 1)) != 0 || bits > 0xFFFFFFFC)
            usage(what + "has a mask that is not contiguous ones then zeros (such as 255.255.255.0)");
    }
    put_be32(s.mask.data(), bits);
    uint32_t host = get_be32(s.addr.data()) & ~bits;
    if (host == 0 || host == ~bits) usage(what + "is the subnet's network or broadcast address, not a host's");
    return s;
}

bool in_subnet(const Subnet &s, const Ipv4 &ip) {
    uint32_t m = get_be32(s.mask.data());
    return (get_be32(s.addr.data()) & m) == (get_be32(ip.data()) & m);
}

std::string parse_date_time(std::string_view opt, const std::string &v) {
    char b[16];
    if (v == "now") {
        std::time_t t = std::time(nullptr);
        std::tm tm{};
        localtime_r(&t, &tm);
        std::strftime(b, sizeof b, "%Y%m%d%H%M%S", &tm);
        return b;
    }
    int y, mo, d, h, mi, s, used = 0;
    bool shape = std::sscanf(v.c_str(), "%4d-%2d-%2d %2d:%2d:%2d%n", &y, &mo, &d, &h, &mi, &s, &used) == 6 &&
                 size_t(used) == v.size() && v.size() == 19;
    static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    bool leap = y % 4 == 0 && (y % 100 != 0 || y % 400 == 0);
    if (!shape || y < 1970 || y > 2099 || mo < 1 || mo > 12 || d < 1 ||
        d > kDays[mo - 1] + (mo == 2 && leap) || h > 23 || mi > 59 || s > 59)
        usage(std::string(opt) + ": \"" + v +
              "\" is not a date and time: \"YYYY-MM-DD hh:mm:ss\" (a real calendar date, 1970 to 2099, "
              "24-hour clock) or now");
    std::snprintf(b, sizeof b, "%04d%02d%02d%02d%02d%02d", y, mo, d, h, mi, s);
    return b;
}

std::string first_line_of(const std::string &path, const char *what) {
    std::ifstream f(path, std::ios::binary);
    if (!f) usage(std::string("cannot read the ") + what + " from \"" + path + "\": " + std::strerror(errno));
    std::string line;
    std::getline(f, line);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

// ---- the person at the terminal -------------------------------------------------------

namespace {

// One line from the terminal, echo off when `quiet`; empty without one.
std::optional<std::string> ask_terminal(const std::string &prompt, bool quiet) {
    int fd = ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    termios old{};
    bool have_tio = tcgetattr(fd, &old) == 0;
    if (have_tio && quiet) {
        termios q = old;
        q.c_lflag &= tcflag_t(~ECHO);
        q.c_lflag |= ECHONL;
        tcsetattr(fd, TCSAFLUSH, &q);
    }
    (void)!::write(fd, prompt.data(), prompt.size());
    std::string line;
    char ch;
    while (::read(fd, &ch, 1) == 1 && ch != '\n') line.push_back(ch);
    if (have_tio && quiet) tcsetattr(fd, TCSAFLUSH, &old);
    ::close(fd);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

}  // namespace

std::optional<std::string> prompt_secret(const char *prompt) { return ask_terminal(prompt, true); }

void confirm(const Ctx &c, const std::string &question) {
    if (c.g.yes) return;
    auto answer = ask_terminal(question + " [y/N] ", false);
    if (!answer)
        usage(question + " Nothing was sent: confirm on a terminal, or give --yes");
    if (*answer != "y" && *answer != "Y" && *answer != "yes") fail(kExitResult, "not confirmed; nothing was sent");
}

std::string password(const Ctx &c) {
    const Globals &g = c.g;
    std::optional<std::string> pw;
    if (g.password_file_given) pw = first_line_of(g.cred.password_file, "password");
    else if (const char *env = std::getenv("TAVCTL_PASSWORD")) pw = env;
    else if (!g.cred.password_file.empty()) pw = first_line_of(g.cred.password_file, "password");
    else if (g.cred.password) pw = g.cred.password;
    else pw = prompt_secret("Password: ");
    if (!pw) usage("no password: use --password-file FILE, TAVCTL_PASSWORD or a terminal");
    return *pw;
}

TlvList credentials(const Ctx &c) {
    const Globals &g = c.g;
    if (!g.cred.have_user) usage("needs --user NAME (or \"user\" in the config file, or TAVCTL_USER)");
    const std::string pw = password(c);
    TlvList t;
    if (g.cred.precedence) t.push_back(tlv_u8(kTagServerPrecedence, *g.cred.precedence));
    t.push_back(tlv_text(kTagUserName, g.cred.user));
    t.push_back(tlv_text(kTagPassword, pw));
    return t;
}

}  // namespace tavctl
