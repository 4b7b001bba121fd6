// SPDX-License-Identifier: ISC
// tavctl: the manager's command-line tool for TAV access points. main, the
// command table and what is made from it: --help, the man page (scdoc) and
// bash completion.
#include <cstdio>
#include <cstdlib>

#include "tools/tavctl/tavctl.h"

namespace tavctl {

namespace {

int run_completion(Ctx &c);

constexpr OptSpec kNoOpts[] = {{"", "", ""}};
const Command kMisc[] = {
    {"completion", Kind::Local, "print the bash completion script", "bash", std::span(kNoOpts, 0),
     "Load it with: source <(tavctl completion bash), or install it as "
     "/usr/share/bash-completion/completions/tavctl.",
     run_completion},
};

const char kAbout[] =
    "Finds TAV access points by raw Ethernet (EtherType 0x2386) or UDP (port 62976), reads their identity, "
    "status and settings, and changes them.";

const char kFleet[] =
    "Reads go to every access point that answers discovery, unless --target names some (repeat it for "
    "several; a MAC, an IPv4 address, a host name or a system name): the answers come back in parallel, at "
    "most --parallel in flight, and are printed as one table with an AP column, or one JSON array. Over UDP a "
    "read without a reply is sent again, up to --retries times; a change never is. A change goes only to "
    "access points named with --target, and asks once before changing several, or before anything that "
    "cannot be undone (--yes for scripts; without a terminal and without --yes nothing is sent).";

const char kPrecedence[] =
    "Precedence: a manager may send its precedence (--precedence N, 0 to 255) with a change. An access point "
    "remembers, per manager and operation, the last precedence given, and refuses a request whose precedence "
    "is lower than another manager's for the same operation: the higher number wins, equal ones do not refuse "
    "each other, and a request that carries none is never refused for precedence.";

const char kOutput[] =
    "Output: a table or block for people; --json: one JSON array of objects, one per access point, each with "
    "its \"mac\", its \"result\" (the access point's result code) and, when it failed, an \"error\"; decoded "
    "values stand beside their raw codes (\"auth\" and \"auth_code\"). --format keyvalue prints \"MAC "
    "key=value\" lines (nested keys joined with dots, values quoted for the shell). The JSON of each command "
    "is described by a JSON Schema in /usr/share/tavctl/schemas/COMMAND.schema.json (words joined with "
    "\"-\").";

const char kExits[] =
    "0 success; 1 an access point refused (or a question was answered no); 2 usage error (nothing sent); "
    "3 no reply within the timeout; 4 the cipher library cannot be loaded; 5 network error.";

const char kFiles[] =
    "Defaults come from /etc/tavctl.conf, then ~/.config/tavctl.conf (or only the file named by --config or "
    "TAVCTL_CONFIG), as lines \"key = value\" with the keys iface, udp, port, bind, netns, cipher, source-mac, "
    "timeout, retries, user, password-file, password (only in a file no one else may read) and precedence; "
    "TAVCTL_IFACE, TAVCTL_UDP, TAVCTL_NETNS, TAVCTL_CIPHER, TAVCTL_USER, TAVCTL_PASSWORD_FILE, "
    "TAVCTL_PASSWORD and TAVCTL_PRECEDENCE win over the files, the command line over both. Passwords are never "
    "taken on the command line.";

std::span<const Command> (*const kGroups[])() = {core_commands, admin_commands, maint_commands,
                                                       wireless_commands,
#ifdef TAVCTL_WEB
                                                       web_commands,
#endif
};

// Words of `text` in lines of at most `width`, each after `indent`.
std::string wrap(std::string_view text, size_t indent, size_t width = 78) {
    std::string out, line;
    size_t p = 0;
    while (p < text.size()) {
        if (text[p] == '\n') {
            out += std::string(indent, ' ') + line + "\n";
            line.clear();
            ++p;
            continue;
        }
        size_t e = text.find_first_of(" \n", p);
        if (e == std::string_view::npos) e = text.size();
        std::string_view word = text.substr(p, e - p);
        if (!line.empty() && indent + line.size() + 1 + word.size() > width) {
            out += std::string(indent, ' ') + line + "\n";
            line.clear();
        }
        line += (line.empty() ? "" : " ") + std::string(word);
        p = e < text.size() && text[e] == ' ' ? e + 1 : e;
    }
    if (!line.empty()) out += std::string(indent, ' ') + line + "\n";
    return out;
}

std::string option_lines(std::span<const OptSpec> opts) {
    std::string s;
    for (const OptSpec &o : opts) {
        std::string head = "  " + std::string(o.name) + (o.arg.empty() ? "" : " " + std::string(o.arg));
        std::string body = wrap(o.help, 26);
        if (head.size() < 25)
            s += head + body.substr(head.size());
        else
            s += head + "\n" + body;
    }
    return s;
}

std::string usage_line(const Command &c) {
    std::string s = "tavctl [GLOBAL OPTIONS] " + std::string(c.name);
    if (!c.options.empty()) s += " [OPTIONS]";
    if (!c.args.empty()) s += " " + std::string(c.args);
    return s;
}

std::string main_help() {
    std::string s = "usage: tavctl [GLOBAL OPTIONS] COMMAND [OPTIONS]\n\n" + wrap(kAbout, 0) + "\nCommands:\n";
    for (const Command &c : all_commands()) {
        std::string head = "  " + std::string(c.name);
        s += head + (head.size() < 20 ? std::string(20 - head.size(), ' ') : "\n" + std::string(20, ' ')) +
             std::string(c.summary) + "\n";
    }
    s += "\nGlobal options (before or after the command):\n" + option_lines(global_options());
    s += "\n" + wrap(kFleet, 0) + "\n" + wrap(kPrecedence, 0) + "\n" + wrap(kOutput, 0) + "\nExit status: " +
         std::string(kExits) + "\n\n" + wrap(kFiles, 0);
    return s;
}

// scdoc source of tavctl(1).
std::string man_page() {
    auto esc = [](std::string_view t) {
        std::string s;
        for (char ch : t) {
            if (ch == '*' || ch == '_' || ch == '\\') s += '\\';
            s += ch;
        }
        return s;
    };
    auto opts = [&](std::span<const OptSpec> list) {
        std::string s;
        for (const OptSpec &o : list)
            s += "*" + esc(o.name) + "*" + (o.arg.empty() ? "" : " _" + esc(o.arg) + "_") + "\n\t" + esc(o.help) + "\n\n";
        return s;
    };
    std::string s = "tavctl(1)\n\n# NAME\n\ntavctl - manage TAV access points from the command line\n\n"
                    "# SYNOPSIS\n\n*tavctl* [_global options_] _command_ [_options_] [_arguments_]\n\n"
                    "# DESCRIPTION\n\n" + esc(kAbout) + "\n\n" + esc(kFleet) + "\n\n" + esc(kPrecedence) +
                    "\n\n# GLOBAL OPTIONS\n\n" + opts(global_options()) + "# COMMANDS\n\n";
    for (const Command &c : all_commands()) {
        s += "## " + esc(c.name) + "\n\n*" + esc(usage_line(c)) + "*\n\n" + esc(c.summary) + ".";
        if (!c.details.empty()) s += " " + esc(c.details);
        s += "\n\n" + opts(c.options);
    }
    s += "# OUTPUT\n\n" + esc(kOutput) + "\n\n# EXIT STATUS\n\n" + esc(kExits) + "\n\n# FILES AND ENVIRONMENT\n\n" +
         esc(kFiles) +
         "\n\n# EXAMPLES\n\n```\ntavctl --iface eth0 discover\ntavctl --iface eth0 --json status\n"
         "tavctl --iface eth0 --target ap1 --user admin device set --name Lobby\n```\n\n# SEE ALSO\n\n*tavc*(8)\n";
    return s;
}

int run_completion(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    if (o.positional() != std::vector<std::string>{"bash"}) usage("completion takes one shell: bash");
    std::string globals, firsts, cases;
    for (const OptSpec &g : global_options()) globals += std::string(g.name) + " ";
    std::vector<std::string> seen;
    for (const Command &cmd : all_commands()) {
        std::string name(cmd.name), first = name.substr(0, name.find(' '));
        if (std::find(seen.begin(), seen.end(), first) == seen.end()) seen.push_back(first), firsts += first + " ";
        std::string words;
        for (const OptSpec &op : cmd.options) words += std::string(op.name) + " ";
        cases += "        \"" + name + "\") opts=\"" + words + "\" ;;\n";
    }
    std::string subs;
    for (const std::string &f : seen) {
        std::string list;
        for (const Command &cmd : all_commands())
            if (cmd.name.starts_with(f + " ")) list += std::string(cmd.name.substr(f.size() + 1)) + " ";
        if (!list.empty()) subs += "        " + f + ") subs=\"" + list + "\" ;;\n";
    }
    std::printf(
        "# bash completion for tavctl (made by tavctl completion bash)\n"
        "_tavctl() {\n"
        "    local cur=${COMP_WORDS[COMP_CWORD]} words=() w i subs= opts= cmd=\n"
        "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
        "        w=${COMP_WORDS[i]}\n"
        "        [[ $w == -* ]] && continue\n"
        "        [[ ${COMP_WORDS[i-1]} == --@(iface|udp|target|format|user|password-file|precedence|timeout|"
        "retries|parallel|cipher|netns|port|bind|target-ip|seq|source-mac|config) ]] && continue\n"
        "        words+=(\"$w\")\n"
        "    done\n"
        "    if ((${#words[@]} == 0)); then\n"
        "        COMPREPLY=($(compgen -W \"%s %s\" -- \"$cur\")); return\n"
        "    fi\n"
        "    case ${words[0]} in\n%s    esac\n"
        "    if [[ -n $subs && ${#words[@]} == 1 ]]; then COMPREPLY=($(compgen -W \"$subs\" -- \"$cur\")); return; fi\n"
        "    cmd=${words[0]}; [[ -n $subs ]] && cmd+=\" ${words[1]}\"\n"
        "    case $cmd in\n%s    esac\n"
        "    COMPREPLY=($(compgen -W \"$opts %s\" -- \"$cur\"))\n"
        "}\n"
        "complete -o default -F _tavctl tavctl\n",
        firsts.c_str(), globals.c_str(), subs.c_str(), cases.c_str(), globals.c_str());
    return kExitOk;
}

const Command *find_command(std::string_view name) {
    for (const Command &c : all_commands())
        if (c.name == name) return &c;
    return nullptr;
}

}  // namespace

std::span<const Command> all_commands() {
    static const std::vector<Command> all = [] {
        std::vector<Command> v;
        for (auto group : kGroups)
            for (const Command &c : group()) v.push_back(c);
        v.insert(v.end(), std::begin(kMisc), std::end(kMisc));
        return v;
    }();
    return all;
}

std::string command_help(const Command &c) {
    std::string summary = std::string(c.summary) + ".";
    summary[0] = char(std::toupper(uint8_t(summary[0])));
    std::string s = "usage: " + usage_line(c) + "\n\n" + wrap(summary, 0);
    if (!c.options.empty()) s += "\nOptions:\n" + option_lines(c.options);
    if (!c.details.empty()) s += "\n" + wrap(c.details, 0);
    if (c.kind == Kind::Read) s += "\n" + wrap("Without --target: every access point that answers (see tavctl --help).", 0);
    if (c.kind == Kind::Write)
        s += "\n" + wrap("Needs --target (one or more access points), --user and the password; --precedence N "
                         "optional (see tavctl --help).", 0);
    return s;
}

}  // namespace tavctl

using namespace tavctl;

int main(int argc, char **argv) {
    Ctx c;
    try {
        // --config first: it decides which defaults the command line overrides.
        std::string config = std::getenv("TAVCTL_CONFIG") ? std::getenv("TAVCTL_CONFIG") : "";
        for (int i = 1; i < argc; ++i) {
            std::string s = argv[i];
            if (s == "--config" && i + 1 < argc) config = argv[i + 1];
            if (s.starts_with("--config=")) config = s.substr(9);
            if (!s.starts_with("-")) break;
        }
        load_defaults(c.g, config);
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
                if (i + 1 >= argc) usage(s + " needs a value");
                return argv[++i];
            };
            if (s == "-h" || s == "--help") {
                help = true;
            } else if (s == "--version") {
                std::printf("%s\n", kToolVersion);
                return kExitOk;
            } else if (s == "--scdoc") {
                std::fputs(man_page().c_str(), stdout);
                return kExitOk;
            } else if (s == "--config") {
                value();
            } else if (!global_option(c.g, s, value)) {
                std::string near = nearest_option(s, {});
                usage("unknown option " + s + (near.empty() ? "" : " (did you mean " + near + "?)") +
                      "; see tavctl --help");
            }
        }
        if (i >= argc) {
            std::fputs(main_help().c_str(), help ? stdout : stderr);
            return help ? kExitOk : kExitUsage;
        }
        std::string word = argv[i++];
        if (i < argc && (c.cmd = find_command(word + " " + argv[i]))) {
            ++i;
        } else if (!(c.cmd = find_command(word))) {
            std::string list;
            for (const Command &cmd : all_commands())
                if (cmd.name.starts_with(word + " ")) list += (list.empty() ? "" : ", ") + std::string(cmd.name);
            if (!list.empty()) {
                std::string typed = i < argc ? word + " " + argv[i] : word;
                std::string near = i < argc ? nearest_command(typed) : "";
                usage("\"" + typed + "\" is no command" + (near.empty() ? "" : "; did you mean \"" + near + "\"?") +
                      " (" + word + " has: " + list + ")");
            }
            std::string near = nearest_command(word);
            usage("unknown command \"" + word + "\"" + (near.empty() ? "" : "; did you mean \"" + near + "\"?") +
                  " (see tavctl --help)");
        }
        c.words.assign(argv + i, argv + argc);
        if (help) throw HelpRequested{};
        return c.cmd->run(c);
    } catch (const HelpRequested &) {
        std::fputs(command_help(*c.cmd).c_str(), stdout);
        return kExitOk;
    } catch (const Failure &e) {
        std::fprintf(stderr, "tavctl: %s%s\n", c.cmd ? (std::string(c.cmd->name) + ": ").c_str() : "",
                     e.message.c_str());
        return e.code;
    }
}
