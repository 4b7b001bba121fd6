// SPDX-License-Identifier: ISC
// tavctl: the manager's command-line tool for TAV devices. This file holds
// main, the global options, their defaults from config files and the
// environment, the per-command option parser and the command registry.
#include "tools/tavctl/tavctl.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace tavctl {

namespace {

const char kMainHelpHead[] =
    R"(usage: tavctl [OPTIONS] COMMAND [COMMAND OPTIONS]

Talks to TAV devices by raw Ethernet or UDP.

Path (exactly one):
  --iface IF          raw Ethernet frames (EtherType 0x2386) on interface IF
  --udp ADDR          UDP to ADDR port 62976; a broadcast address or
                      224.0.0.1 reaches every device

Options (also accepted after the command):
  --cipher PATH       cipher library (default /usr/lib/TAV_Auth.so)
  --target DEVICE     one device by MAC, IPv4 address, or host name as seen in
                      discovery (default: every device)
  --target-ip IP      the device's IPv4 address in the header, UDP only
  --seq N             sequence number of the request (default random)
  --timeout SECONDS   how long to collect replies (default 2; fractions allowed)
  --json              print JSON (always an array) instead of tables
  --port N            UDP destination port (default 62976)
  --bind ADDR         UDP: local IPv4 address to send from
  --netns NAME        open the socket inside network namespace NAME
  --source-mac MAC    raw Ethernet: send as a manager with this MAC
  --config FILE       read only this config file
  --version           print the version
  -h, --help          this text; "tavctl COMMAND --help" for a command

Credentials (commands that change a device):
  --user NAME         the administrator's user name
  --password-file F   the password is the first line of F; else TAVCTL_PASSWORD,
                      else "password" in a private config file, else a prompt
  --precedence N      this manager's precedence (tag 54)

Defaults come from /etc/tavctl.conf, then ~/.config/tavctl.conf, as lines
"key = value" with the keys iface, udp, port, bind, netns, cipher,
source-mac, timeout, user, password-file, password (only in a file that no
one else may read) and precedence; the environment variables TAVCTL_IFACE,
TAVCTL_UDP, TAVCTL_NETNS, TAVCTL_CIPHER, TAVCTL_USER, TAVCTL_PASSWORD_FILE
and TAVCTL_PRECEDENCE win over the files, the command line over both.

Commands:
)";

const char kMainHelpTail[] = R"(
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

std::span<const Command> (*const kGroups[])() = {core_commands, admin_commands, maint_commands,
                                                  wireless_commands};

const Command *find_command(std::string_view name) {
    for (auto group : kGroups)
        for (const Command &c : group())
            if (c.name == name) return &c;
    return nullptr;
}

// Commands whose name starts with `word` followed by a space ("snmp" for
// "snmp get" and "snmp set").
std::vector<const Command *> commands_under(std::string_view word) {
    std::vector<const Command *> out;
    for (auto group : kGroups)
        for (const Command &c : group())
            if (c.name.size() > word.size() && c.name.starts_with(word) && c.name[word.size()] == ' ')
                out.push_back(&c);
    return out;
}

std::string main_help() {
    std::string s = kMainHelpHead;
    for (auto group : kGroups)
        for (const Command &c : group()) {
            std::string head = "  " + std::string(c.name);
            if (!c.synopsis.empty()) head += " " + std::string(c.synopsis);
            if (head.size() >= 22)
                s += head + "\n" + std::string(22, ' ');
            else
                s += head + std::string(22 - head.size(), ' ');
            s += std::string(c.summary) + "\n";
        }
    return s + kMainHelpTail;
}

std::string trim(std::string s) {
    size_t b = s.find_first_not_of(" \t\r");
    size_t e = s.find_last_not_of(" \t\r");
    return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

// Applies one config file; false when it does not exist.
bool read_config(Args &a, const std::string &path) {
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
        if (eq == std::string::npos) throw UsageError{where + "expected \"key = value\""};
        std::string key = trim(line.substr(0, eq)), value = trim(line.substr(eq + 1));
        if (key == "password") {
            if (!private_file)
                throw UsageError{where + "a password may only stand in a file no one else can read (chmod 600)"};
            a.cred.password = value;
            continue;
        }
        static const char *const kKeys[] = {"iface",   "udp",     "port", "bind",
                                            "netns",   "cipher",  "source-mac", "timeout",
                                            "user",    "password-file", "precedence"};
        if (std::find_if(std::begin(kKeys), std::end(kKeys), [&](const char *k) { return key == k; }) ==
            std::end(kKeys))
            throw UsageError{where + "unknown key \"" + key + "\""};
        try {
            global_option(a, "--" + key, [&] { return value; });
        } catch (const UsageError &e) {
            throw UsageError{where + e.message};
        }
    }
    return true;
}

}  // namespace

bool global_option(Args &a, const std::string &s, const std::function<std::string()> &value) {
    if (s == "--iface") {
        a.opts.iface = value();
        a.opts.udp.clear();
        ++a.path_options;
    } else if (s == "--udp") {
        a.opts.udp = value();
        a.opts.iface.clear();
        ++a.path_options;
    } else if (s == "--cipher") {
        a.opts.cipher = value();
    } else if (s == "--target") {
        a.target = value();
        if (a.target.empty()) throw UsageError{"--target needs a MAC, an IPv4 address or a host name"};
    } else if (s == "--target-ip") {
        std::string v = value();
        auto ip = parse_ipv4(v);
        if (!ip) throw UsageError{"--target-ip: \"" + v + "\" is not an IPv4 address"};
        a.opts.target_ip = *ip;
    } else if (s == "--seq") {
        std::string v = value();
        auto n = parse_uint(v, 0xFFFF);
        if (!n) throw UsageError{"--seq: \"" + v + "\" is not a number from 0 to 65535"};
        a.opts.sequence = uint16_t(*n);
    } else if (s == "--timeout") {
        std::string v = value();
        char *end = nullptr;
        double t = std::strtod(v.c_str(), &end);
        if (v.empty() || *end != '\0' || !(t > 0) || t > 3600)
            throw UsageError{"--timeout: \"" + v + "\" is not a number of seconds (0 to 3600)"};
        a.timeout = t;
    } else if (s == "--json") {
        a.json = true;
    } else if (s == "--port") {
        std::string v = value();
        auto n = parse_uint(v, 0xFFFF);
        if (!n || *n == 0) throw UsageError{"--port: \"" + v + "\" is not a port number"};
        a.opts.port = uint16_t(*n);
    } else if (s == "--bind") {
        a.opts.bind = value();
    } else if (s == "--netns") {
        a.opts.netns = value();
    } else if (s == "--source-mac") {
        std::string v = value();
        auto m = parse_mac(v);
        if (!m) throw UsageError{"--source-mac: \"" + v + "\" is not a MAC address"};
        a.opts.source_mac = *m;
    } else if (s == "--user") {
        a.cred.user = value();
        a.cred.have_user = true;
    } else if (s == "--password-file") {
        a.cred.password_file = value();
        a.password_file_given = true;
    } else if (s == "--password") {
        throw UsageError{
            "passwords are never taken on the command line: use --password-file FILE, "
            "TAVCTL_PASSWORD or the prompt"};
    } else if (s == "--precedence") {
        std::string v = value();
        auto n = parse_uint(v, 0xFF);
        if (!n) throw UsageError{"--precedence: \"" + v + "\" is not a number from 0 to 255"};
        a.cred.precedence = uint8_t(*n);
    } else {
        return false;
    }
    return true;
}

void load_defaults(Args &a, const std::string &config_file) {
    if (!config_file.empty()) {
        if (!read_config(a, config_file)) throw UsageError{"cannot read config file \"" + config_file + "\""};
    } else {
        read_config(a, "/etc/tavctl.conf");
        if (const char *home = std::getenv("HOME"); home && *home)
            read_config(a, std::string(home) + "/.config/tavctl.conf");
    }
    static const std::pair<const char *, const char *> kEnv[] = {
        {"TAVCTL_IFACE", "--iface"},   {"TAVCTL_UDP", "--udp"},
        {"TAVCTL_NETNS", "--netns"},   {"TAVCTL_CIPHER", "--cipher"},
        {"TAVCTL_USER", "--user"},     {"TAVCTL_PASSWORD_FILE", "--password-file"},
        {"TAVCTL_PRECEDENCE", "--precedence"},
    };
    for (const auto &[var, opt] : kEnv)
        if (const char *v = std::getenv(var); v && *v) {
            try {
                global_option(a, opt, [&] { return std::string(v); });
            } catch (const UsageError &e) {
                throw UsageError{std::string(var) + ": " + e.message};
            }
        }
    // Only the command line counts towards "both --iface and --udp", and a
    // password file from the defaults yields to TAVCTL_PASSWORD.
    a.path_options = 0;
    a.password_file_given = false;
}

OptParser &OptParser::flag(std::string name, bool &out) {
    opts_.push_back({std::move(name), false, [&out](const std::string &) { out = true; }});
    return *this;
}

OptParser &OptParser::value(std::string name, std::function<void(const std::string &)> set) {
    opts_.push_back({std::move(name), true, std::move(set)});
    return *this;
}

OptParser &OptParser::text(std::string name, std::optional<std::string> &out) {
    return value(std::move(name), [&out](const std::string &v) { out = v; });
}

OptParser &OptParser::number(std::string name, uint64_t max, std::optional<uint64_t> &out) {
    std::string n = name;
    return value(std::move(name), [&out, max, n](const std::string &v) {
        auto x = parse_uint(v, max);
        if (!x) throw UsageError{n + ": \"" + v + "\" is not a number from 0 to " + std::to_string(max)};
        out = *x;
    });
}

std::vector<std::string> OptParser::parse() {
    std::vector<std::string> positional;
    const auto &w = a_.rest;
    for (size_t i = 0; i < w.size(); ++i) {
        std::string s = w[i];
        if (s == "-h" || s == "--help") throw HelpRequested{};
        if (s == "--") {
            positional.insert(positional.end(), w.begin() + long(i) + 1, w.end());
            break;
        }
        if (s.size() < 2 || s[0] != '-' || (s[1] != '-' && !std::isalpha(uint8_t(s[1])))) {
            positional.push_back(s);  // words, "-", negative numbers
            continue;
        }
        std::optional<std::string> inline_val;  // --opt=value
        if (auto eq = s.find('='); s.starts_with("--") && eq != std::string::npos) {
            inline_val = s.substr(eq + 1);
            s.resize(eq);
        }
        auto value = [&]() -> std::string {
            if (inline_val) return *inline_val;
            if (i + 1 >= w.size()) throw UsageError{s + " needs a value"};
            return w[++i];
        };
        auto own = std::find_if(opts_.begin(), opts_.end(), [&](const Opt &o) { return o.name == s; });
        if (own != opts_.end()) {
            if (!own->takes_value && inline_val) throw UsageError{s + " takes no value"};
            own->set(own->takes_value ? value() : std::string());
        } else if (!global_option(a_, s, value)) {
            throw UsageError{"unknown option " + s + " for \"" + a_.command + "\" (see tavctl " + a_.command +
                             " --help)"};
        }
    }
    return positional;
}

void OptParser::parse_none() {
    if (auto p = parse(); !p.empty())
        throw UsageError{a_.command + " takes no arguments (\"" + p[0] + "\" is one too many)"};
}

}  // namespace tavctl

using namespace tavctl;

int main(int argc, char **argv) {
    Args a;
    const Command *cmd = nullptr;
    try {
        // --config first: it decides which defaults the command line overrides.
        std::string config = std::getenv("TAVCTL_CONFIG") ? std::getenv("TAVCTL_CONFIG") : "";
        for (int i = 1; i < argc; ++i) {
            std::string s = argv[i];
            if (s == "--config" && i + 1 < argc) config = argv[i + 1];
            if (s.starts_with("--config=")) config = s.substr(9);
            if (!s.starts_with("-")) break;
        }
        load_defaults(a, config);

        bool help = false;
        int i = 1;
        for (; i < argc; ++i) {
            std::string s = argv[i];
            if (!s.starts_with("-") || s == "-") break;
            std::optional<std::string> inline_val;
            if (auto eq = s.find('='); s.starts_with("--") && eq != std::string::npos) {
                inline_val = s.substr(eq + 1);
                s.resize(eq);
            }
            auto value = [&]() -> std::string {
                if (inline_val) return *inline_val;
                if (i + 1 >= argc) throw UsageError{s + " needs a value"};
                return argv[++i];
            };
            if (s == "-h" || s == "--help") {
                help = true;
            } else if (s == "--version") {
                std::printf("%s\n", kToolVersion);
                return kExitOk;
            } else if (s == "--config") {
                value();
            } else if (!global_option(a, s, value)) {
                throw UsageError{"unknown option " + s + " (see tavctl --help)"};
            }
        }
        if (i >= argc) {
            // Asked for: stdout, success. Missing command: a usage error.
            std::fputs(main_help().c_str(), help ? stdout : stderr);
            return help ? kExitOk : kExitUsage;
        }
        std::string word = argv[i++];
        if (i < argc && (cmd = find_command(word + " " + argv[i]))) {
            ++i;
        } else if (!(cmd = find_command(word))) {
            auto under = commands_under(word);
            if (under.empty()) throw UsageError{"unknown command \"" + word + "\" (see tavctl --help)"};
            std::string list;
            for (const Command *c : under) list += (list.empty() ? "" : ", ") + std::string(c->name);
            bool asked = i < argc && (std::string(argv[i]) == "--help" || std::string(argv[i]) == "-h");
            if (asked || help) {
                for (const Command *c : under) std::printf("%s\n", std::string(c->help).c_str());
                return kExitOk;
            }
            throw UsageError{"\"" + word + "\" needs one of: " + list};
        }
        a.command = std::string(cmd->name);
        a.rest.assign(argv + i, argv + argc);
        if (help) throw HelpRequested{};
        return cmd->run(a);
    } catch (const HelpRequested &) {
        std::fputs(std::string(cmd->help).c_str(), stdout);
        return kExitOk;
    } catch (const UsageError &e) {
        std::fprintf(stderr, "tavctl: %s\n", e.message.c_str());
        return kExitUsage;
    }
}
