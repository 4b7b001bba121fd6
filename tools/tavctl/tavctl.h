// SPDX-License-Identifier: ISC
// Shared pieces of the tavctl commands: exit statuses, arguments and their
// sources (command line, environment, config files), per-command option
// parsing, sessions with a device, credentials and output helpers.
//
// A command lives in one of the group files (cmd_core.cpp, cmd_admin.cpp,
// cmd_maint.cpp, cmd_wireless.cpp) as a row of its group's table:
//
//   int cmd_snmp_get(Args &a) {
//       OptParser(a).parse_none();                 // or declare options first
//       Message m;
//       TlvList tlvs;
//       if (int rc = add_credentials(a, tlvs)) return rc;
//       if (int rc = request_one_device(a, kOpGetSnmp, tlvs, m)) return rc;
//       ... print m ...
//   }
//   {"snmp get", "", "read the SNMP communities (op 0xDA)", kSnmpGetHelp, cmd_snmp_get},
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "proto/tags.h"
#include "proto/wire.h"
#include "tools/client/client.h"
#include "tools/client/json.h"
#include "tools/client/tlv_text.h"

namespace tavctl {

using namespace tav;
using namespace tav::client;

enum Exit : int {
    kExitOk = 0,
    kExitResult = 1,  // a device answered with a non-zero result code
    kExitUsage = 2,
    kExitNoReply = 3,
    kExitCipher = 4,
    kExitNetwork = 5,
};

inline constexpr const char *kToolVersion = "tavctl 1.1";

// Thrown for anything wrong in what the person typed; main prints it and
// exits with kExitUsage.
struct UsageError {
    std::string message;
};
// Thrown by OptParser on -h/--help; main prints the command's help.
struct HelpRequested {};

// Who the manager is: sent as tags 54, 55 and 56 by add_credentials.
struct Credentials {
    std::string user;
    bool have_user = false;
    std::string password_file;
    std::optional<std::string> password;  // from a config file only
    std::optional<uint8_t> precedence;
};

struct Args {
    Options opts;
    int path_options = 0;              // --iface and --udp seen on the command line
    bool password_file_given = false;  // --password-file on the command line
    bool json = false;
    double timeout = 2.0;
    std::string target;  // as typed: MAC, IPv4 address or discovered host name
    Credentials cred;
    std::string command;            // its full name, e.g. "snmp get"
    std::vector<std::string> rest;  // the words after the command's name
};

// ---- options ----------------------------------------------------------------

// Reads the options that come after a command's name: the command's own
// (declared first), then the global ones (--udp, --target, --json ...),
// which may also stand there. What is not an option is returned by parse().
class OptParser {
  public:
    explicit OptParser(Args &a) : a_(a) {}
    OptParser &flag(std::string name, bool &out);
    OptParser &value(std::string name, std::function<void(const std::string &)> set);
    OptParser &text(std::string name, std::optional<std::string> &out);
    // A number from 0 to max (decimal or 0x hex).
    OptParser &number(std::string name, uint64_t max, std::optional<uint64_t> &out);
    std::vector<std::string> parse();
    // For commands without positional words.
    void parse_none();

  private:
    struct Opt {
        std::string name;
        bool takes_value;
        std::function<void(const std::string &)> set;
    };
    Args &a_;
    std::vector<Opt> opts_;
};

// One global option at argv-style position; `value` fetches its value.
// False when `name` is not a global option.
bool global_option(Args &a, const std::string &name, const std::function<std::string()> &value);

// Settings from the config files and TAVCTL_* variables, before the command
// line overrides them: TAVCTL_CONFIG (or --config) names the only file to
// read, else /etc/tavctl.conf and then ~/.config/tavctl.conf (the later wins);
// the environment wins over both.
void load_defaults(Args &a, const std::string &config_file);

// ---- commands ---------------------------------------------------------------

struct Command {
    std::string_view name;      // one or two words: "discover", "snmp get"
    std::string_view synopsis;  // what follows the name in the overview
    std::string_view summary;   // one line for "tavctl --help"
    std::string_view help;      // the full text of "tavctl NAME --help"
    int (*run)(Args &);
};

std::span<const Command> core_commands();
std::span<const Command> admin_commands();
std::span<const Command> maint_commands();
std::span<const Command> wireless_commands();

// ---- sessions ---------------------------------------------------------------

struct Session {
    Client client;
    std::chrono::milliseconds window;
    size_t max_replies;
};

bool addressed_to_one(const Args &a);
// Checks the path options, loads the cipher, opens the client and resolves
// --target. Prints its own errors; returns an exit status.
int open_session(Args &a, std::optional<Session> &out);
// Sends and collects; prints the "no reply" message itself.
int run_request(Args &a, uint16_t op, const TlvList &tlvs, std::vector<Message> &replies,
                bool &ipv4, size_t max_override = SIZE_MAX);
int worst_result(const std::vector<Message> &replies);
// Runs a request to every device it reaches and hands each reply to `each`
// with the writer of the --json array (printed afterwards; "[]" when none
// answered) and whether several replied. Returns the exit status.
using EachReply = std::function<void(JsonWriter &, const Message &, bool ipv4, bool several)>;
int each_reply(Args &a, uint16_t op, const TlvList &tlvs, const EachReply &each);
// Opens a reply's --json object with "from" and "result".
void json_head(JsonWriter &j, const Message &m, bool ipv4);

// The request to exactly one device (--target, --target-ip or a unicast
// --udp; a usage error otherwise). On a non-zero result prints
// "tavctl: COMMAND: refused: authentication failed (64)" and returns
// kExitResult; `reply` is filled either way when an answer came.
int request_one_device(Args &a, uint16_t op, const TlvList &tlvs, Message &reply);

// ---- credentials ------------------------------------------------------------

// From --password-file (first line), TAVCTL_PASSWORD, a config file, or a
// prompt on the terminal without echo, in that order.
std::optional<std::string> read_password(const Args &a, std::string &err);
// Asks on the terminal (no echo); empty when there is no terminal.
std::optional<std::string> prompt_secret(const char *prompt);
// Appends 54 (when a precedence is set), 55 and 56. Prints the error and
// returns kExitUsage when no user or password can be had.
int add_credentials(const Args &a, TlvList &tlvs);

// ---- output -----------------------------------------------------------------

std::string from_text(const Message &m, bool ipv4);
// "64 authentication failed", "65533 (0xFFFD) refused ..."
std::string result_text(uint16_t code, uint16_t op);
// "authentication failed (64)", "refused ... (65533, 0xFFFD)"
std::string refusal_text(uint16_t code, uint16_t op);
void json_value(JsonWriter &j, std::span<const uint8_t> v, TagKind kind);
std::string human_value(const Record &t, const TagInfo *info);
void print_reply_human(const Message &m, bool ipv4);
void json_reply(JsonWriter &j, const Message &m, bool ipv4);
// Left-aligned columns, two spaces apart; rows[0] is the heading.
void print_table(const std::vector<std::vector<std::string>> &rows);
// Prints "name: value" lines, the names padded to one width.
void print_fields(const std::vector<std::pair<std::string, std::string>> &fields);

}  // namespace tavctl
