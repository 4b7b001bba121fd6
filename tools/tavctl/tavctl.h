// SPDX-License-Identifier: ISC
// tavctl's shared pieces. A command is a row of a group's table (cmd_*.cpp):
// its name, summary, options and a run function. The run function reads its
// typed options, reaches the access points through a Fleet and fills one
// Report, which a single writer prints as a table, JSON or key=value lines.
//
//   int run_status(Ctx &c) {
//       return read_each(c, kOpGetDeviceStatus, {}, [](const Message &m, Node &ap) {
//           ap.set("cpu", m.u8(kTagCpuUtilization).value_or(0));
//       });
//   }
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "proto/tags.h"
#include "proto/wire.h"
#include "tools/client/client.h"
#include "tools/client/tlv_text.h"

namespace tavctl {

using namespace tav;
using namespace tav::client;

enum Exit : int {
    kExitOk = 0,
    kExitResult = 1,  // an access point refused, or the person answered no
    kExitUsage = 2,
    kExitNoReply = 3,
    kExitCipher = 4,
    kExitNetwork = 5,
};

inline constexpr const char *kToolVersion = "tavctl 2.0";

// The one way a command gives up: main prints "tavctl: COMMAND: message"
// and exits with `code`.
struct Failure {
    int code;
    std::string message;
};
[[noreturn]] void usage(std::string message);
[[noreturn]] void fail(int code, std::string message);
// Thrown by -h/--help after a command's name.
struct HelpRequested {};

// ---- the result tree ----------------------------------------------------------

// A JSON-like value with an optional text form for the table writer
// ("on" for true, "-40 dBm" for -40) and a flag for values only scripts need
// (raw codes beside their decoded names).
class Node {
  public:
    enum class Type { Null, Bool, Int, Text, Object, List };
    Node() = default;
    Node(bool b) : type_(Type::Bool), int_(b) {}
    Node(int n) : type_(Type::Int), int_(n) {}
    Node(unsigned n) : type_(Type::Int), int_(n) {}
    Node(long n) : type_(Type::Int), int_(n) {}
    Node(unsigned long n) : type_(Type::Int), int_(int64_t(n)) {}
    Node(std::string s) : type_(Type::Text), text_(std::move(s)) {}
    Node(const char *s) : type_(Type::Text), text_(s) {}
    static Node object() { return Node(Type::Object); }
    static Node list() { return Node(Type::List); }

    Node &set(std::string key, Node v);  // appends to an object (replaces an existing key)
    Node &push(Node v);                  // appends to a list; returns the new element
    Node &shown(std::string text) { shown_ = std::move(text); return *this; }
    Node &json_only() { json_only_ = true; return *this; }

    Type type() const { return type_; }
    bool is_scalar() const { return type_ != Type::Object && type_ != Type::List; }
    int64_t number() const { return int_; }
    const std::string &text() const { return text_; }
    const std::vector<std::pair<std::string, Node>> &fields() const { return fields_; }
    const std::vector<Node> &items() const { return items_; }
    const Node *get(std::string_view key) const;
    bool hidden_in_text() const { return json_only_; }
    std::string display() const;  // the text form of a scalar

  private:
    explicit Node(Type t) : type_(t) {}
    Type type_ = Type::Null;
    int64_t int_ = 0;
    std::string text_, shown_;
    bool json_only_ = false;
    std::vector<std::pair<std::string, Node>> fields_;
    std::vector<Node> items_;
};

Node on_off(bool b);  // true/false shown as on/off

// One access point as a command knows it.
struct Ap {
    std::optional<Mac> mac;
    std::optional<Ipv4> ip;
    std::string system_name, host_name;
    std::optional<Message> discovery;  // its discovery reply, when one was asked
    std::string label() const;         // MAC, else address
};

// One access point's part of a command's result.
struct Row {
    Ap ap;
    Node data = Node::object();
    uint16_t result = 0;  // the device's result code
    int exit = kExitOk;
    std::string error;    // empty when the access point answered as asked
};

enum class Format { Table, Json, KeyValue };

struct Ctx;
// Prints the rows in the chosen format (errors go to standard error), or
// their JSON to Ctx::capture when set, and returns the worst exit status.
int print_report(const Ctx &c, const std::vector<Row> &rows, bool several);
std::string shell_quote(const std::string &s);

// ---- options ------------------------------------------------------------------

struct OptSpec {
    std::string_view name;  // "--web-port"
    std::string_view arg;   // "PORT"; empty for a flag
    std::string_view help;
};

enum class Kind { Read, Write, Local };

struct Ctx;
struct Command {
    std::string_view name;     // one or two words: "discover", "snmp get"
    Kind kind;
    std::string_view summary;  // one line for the overview
    std::string_view args;     // positional words, e.g. "MAC..."
    std::span<const OptSpec> options;
    std::string_view details;  // paragraphs after the options in --help
    int (*run)(Ctx &);
};

std::span<const Command> all_commands();
std::span<const Command> core_commands();
std::span<const Command> admin_commands();
std::span<const Command> maint_commands();
std::span<const Command> wireless_commands();
std::span<const Command> web_commands();  // when built with cpp-httplib (TAVCTL_WEB)
std::span<const OptSpec> global_options();
std::string command_help(const Command &c);
// The commands nearest to a mistyped name, for "did you mean".
std::string nearest_command(std::string_view typed);
std::string nearest_option(std::string_view typed, std::span<const OptSpec> opts);

struct Credentials {
    std::string user;
    bool have_user = false;
    std::string password_file;
    std::optional<std::string> password;  // from a private config file only
    std::optional<uint8_t> precedence;
};

struct Globals {
    Options opts;
    int path_options = 0;              // --iface and --udp seen on the command line
    bool password_file_given = false;  // --password-file on the command line
    Format format = Format::Table;
    double timeout = 2.0;
    std::vector<std::string> targets;  // as typed: MAC, address, host or system name
    bool all = false;
    bool yes = false;
    int retries = 2;     // a read over UDP with no reply is asked again
    int parallel = 16;   // requests in flight
    std::string pcap;    // capture records go here
    bool pcap_secrets = false;
    Credentials cred;
};

// Applies one global option; false when `name` is none.
bool global_option(Globals &g, const std::string &name, const std::function<std::string()> &value);
// Config files and TAVCTL_* variables, before the command line.
void load_defaults(Globals &g, const std::string &config_file);

// A command's own options after parsing: typed reads, each refusing a bad
// value with exit 2 and one line that says what is allowed.
class Opts {
  public:
    Opts(Globals &g, const Command &cmd, const std::vector<std::string> &words);
    bool flag(std::string_view name) const;
    std::optional<std::string> text(std::string_view name, size_t max = 0xFFFF, bool allow_empty = false) const;
    std::optional<uint64_t> number(std::string_view name, uint64_t lo, uint64_t hi) const;
    std::optional<bool> on_off(std::string_view name) const;
    std::optional<uint16_t> port(std::string_view name) const;
    std::optional<Ipv4> ipv4(std::string_view name) const;
    std::optional<std::string> secret(std::string_view name, const char *what) const;
    const std::vector<std::string> &positional() const { return positional_; }
    // Every option in command-line order (for options that group others).
    const std::vector<std::pair<std::string, std::string>> &given() const { return given_; }
    bool any() const { return !given_.empty(); }

  private:
    const std::string *value(std::string_view name) const;
    std::vector<std::pair<std::string, std::string>> given_;
    std::vector<std::string> positional_;
};

// The typed parsers behind Opts, for values met in other ways.
bool parse_on_off(std::string_view opt, const std::string &v);
uint64_t parse_number(std::string_view opt, const std::string &v, uint64_t lo, uint64_t hi);
uint16_t parse_vlan(std::string_view opt, const std::string &v);
Ipv4 parse_address(std::string_view opt, const std::string &v);
struct Subnet {
    Ipv4 addr{}, mask{};
};
Subnet parse_subnet(std::string_view opt, const std::string &v);  // ADDR/PREFIX or ADDR/MASK
bool in_subnet(const Subnet &s, const Ipv4 &ip);
// "YYYY-MM-DD hh:mm:ss" (a real calendar date and time) or "now": 14 digits.
std::string parse_date_time(std::string_view opt, const std::string &v);
std::string first_line_of(const std::string &path, const char *what);

// ---- the person -------------------------------------------------------------------

std::optional<std::string> prompt_secret(const char *prompt);
// Asks "question [y/N]" on the terminal unless --yes. Without a terminal:
// Failure(kExitUsage); on anything but yes: Failure(kExitResult). Nothing
// has been sent when it fails.
void confirm(const Ctx &c, const std::string &question);

// ---- access points ----------------------------------------------------------------

struct Ctx {
    Globals g;
    const Command *cmd = nullptr;
    std::vector<std::string> words;  // after the command's name
    std::string *capture = nullptr;  // the result's JSON goes here instead (the fleet page)
    std::string name() const { return std::string(cmd->name); }
    bool json() const { return g.format == Format::Json; }
};

// Credentials for a request that changes something: 54 (with a precedence),
// 55, 56. The password is read once.
TlvList credentials(const Ctx &c);
std::string password(const Ctx &c);

// The client session and the access points it addresses.
class Fleet {
  public:
    explicit Fleet(Ctx &c);
    bool ipv4() const { return client_.ipv4(); }
    Client &client() { return client_; }
    // Read: --target list, or every access point that answers discovery.
    // Write: only named targets (a usage error otherwise).
    std::vector<Ap> targets(bool write);
    // Every discovery reply within the timeout, one per access point.
    std::vector<Ap> discover(std::chrono::milliseconds window, std::optional<Mac> only = std::nullopt);
    // One request per access point, at most --parallel in flight; a read over
    // UDP without a reply is sent again up to --retries times. The replies in
    // the order of `aps` (empty where none came).
    std::vector<std::optional<Message>> ask(const std::vector<Ap> &aps, uint16_t op, const TlvList &tlvs,
                                            bool read);
    std::optional<Message> ask_one(const Ap &ap, uint16_t op, const TlvList &tlvs, bool read) {
        return ask({ap}, op, tlvs, read)[0];
    }
    // Why an access point did not answer, in the person's words (checks for
    // central management, which locks most op codes).
    std::string silence(const Ap &ap, uint16_t op);
    std::chrono::milliseconds window() const { return window_; }
    bool sent_precedence() const { return c_.g.cred.precedence.has_value(); }

  private:
    Ctx &c_;
    Client client_;
    std::chrono::milliseconds window_;
};

// Fills a Row for a reply: the refusal text when its result is not 0.
bool answered(Fleet &f, Row &row, const std::optional<Message> &m, uint16_t op);
// Refusal in words: "wrong user name or password (result 64)".
std::string refusal_text(uint16_t code, uint16_t op, bool sent_precedence);

// A read command: one request to each target, `fill` per answer.
using Fill = std::function<void(const Message &, Node &)>;
int read_each(Ctx &c, uint16_t op, const TlvList &tlvs, const Fill &fill);

// A write: read the current settings (read_op), build the request, send it
// once, read the settings back and report what changed.
struct Setter {
    uint16_t op;
    uint16_t read_op = 0;  // 0: nothing to read before or after
    // The readable settings as a flat object (key -> scalar).
    std::function<Node(const Message &)> view;
    // The request's TLVs (credentials added by the caller) from the current
    // settings (null when there is no read op).
    std::function<TlvList(const Ap &, const Message *current)> build;
    // Extra fields from the reply and the settings read back (null when
    // none); optional.
    std::function<void(Fleet &, const Message &reply, const Message *readback, Row &row)> after;
    bool credentials_last = false;
    // Asked once before anything is sent; empty: no question (unless several
    // targets).
    std::function<std::string(const std::vector<std::string> &targets)> question;
};
int write_each(Ctx &c, const Setter &s);
// The access points a change names (a usage error when none): --target as
// typed, or the one that --udp or --target-ip addresses.
std::vector<std::string> write_targets(const Ctx &c);
std::string joined(const std::vector<std::string> &names);  // "ap1, ap2"
// The changes between two flat views: [{setting, before, after}].
Node changes(const Node &before, const Node &after);

// Reads of a reply's values.
std::string text_of(const Record &r);
uint64_t number_of(const Record &r);
std::vector<TlvList> groups_of(const Message &m, uint16_t first);
const Record *in(const TlvList &g, uint16_t tag);
std::string text_in(const TlvList &g, uint16_t tag);
uint64_t number_in(const TlvList &g, uint16_t tag);
std::string wait_note(const Message &reply);
std::string seconds_text(double s);
// A discovery reply of an access point whose central-management agent runs.
bool under_management(const Message &discovery);  // "2 s", "0.5 s"

}  // namespace tavctl
