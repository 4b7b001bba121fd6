// SPDX-License-Identifier: ISC
// Maintenance: the central-management agent's profile, firmware upgrade,
// configuration backup and restore (optionally followed to their end), and
// reboot.
#include <cstdio>
#include <thread>

#include "tools/tavctl/tavctl.h"

namespace tavctl {

namespace {

// The three TFTP transfers and what their progress values mean.
struct Transfer {
    const char *name;
    uint16_t op;
    uint16_t file_tag;
    bool fails_visibly;  // status 1 means failure (the backup never reports one)
    bool reboots;        // success ends with a reboot
};
constexpr Transfer kUpgrade{"firmware upgrade", kOpFirmwareUpgrade, kTagFwOrUrlName, true, true};
constexpr Transfer kBackup{"configuration backup", kOpConfigBackup, kTagCfgOrUrlName, false, false};
constexpr Transfer kRestore{"configuration restore", kOpConfigRestore, kTagCfgOrUrlName, true, true};

constexpr uint8_t kConfigure = 1, kStatusQuery = 2;
constexpr uint8_t kTftpServer = 1, kIpv4Server = 1;
constexpr uint8_t kRunning = 2, kFailed = 1;

// Progress for people: standard output, or standard error when the output
// is for a script.
void progress(const Ctx &c, const Ap &ap, const Transfer &k, const std::string &text) {
    std::fprintf(c.g.format == Format::Table ? stdout : stderr, "%s: %s: %s\n", k.name, ap.label().c_str(),
                 text.c_str());
    std::fflush(c.g.format == Format::Table ? stdout : stderr);
}

void outcome(Row &r, const char *what, int status, const std::string &detail, int seconds, int exit = kExitOk,
             std::string error = "") {
    r.data.set("outcome", what);
    r.data.set("status", status >= 0 ? Node(status) : Node());
    r.data.set("detail", detail);
    r.data.set("seconds", seconds);
    r.exit = exit;
    r.error = std::move(error);
}

// After a success that reboots the access point: its bye, then its hello
// (raw path only; announcements are Ethernet broadcasts).
bool follow_reboot(Fleet &f, const Ctx &c, const Ap &ap, const Transfer &k, const Mac &mac,
                   Clock::time_point deadline) {
    auto left = [&] {
        return std::max(std::chrono::milliseconds(0),
                        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()));
    };
    for (uint16_t op : {kOpBye, kOpHello}) {
        if (!f.client().wait_for(
                [&](const Message &m) { return m.is_announcement() && m.op_code() == op && m.src_mac == mac; }, left()))
            return false;
        progress(c, ap, k, op == kOpBye ? "bye (rebooting)" : "hello (back)");
    }
    return true;
}

void transfer_one(Ctx &c, Fleet &f, Row &r, const Transfer &k, const TlvList &configure, const TlvList &query,
                  bool wait, uint64_t limit) {
    const Ap &ap = r.ap;
    r.data.set("operation", k.name);
    // A configure request that finds one running starts nothing and says so
    // nowhere: ask first.
    auto before = f.ask_one(ap, k.op, query, true);
    if (!answered(f, r, before, k.op)) return;
    if (before->u8(kTagReplyStatus) == kRunning)
        return outcome(r, "busy", kRunning, "already running", 0, kExitResult, std::string(k.name) + " already runs there");
    auto started = f.ask_one(ap, k.op, configure, false);
    if (!answered(f, r, started, k.op)) return;
    progress(c, ap, k, "started");
    if (!wait)
        return outcome(r, "started", started->u8(kTagReplyStatus).value_or(0),
                       k.reboots ? "the access point reboots when it succeeds" : "", 0);
    const auto t0 = Clock::now();
    const auto deadline = t0 + std::chrono::seconds(limit);
    auto elapsed = [&] { return int(std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - t0).count()); };
    int last_shown = -1;
    bool silent = false;
    while (Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        auto m = f.ask_one(ap, k.op, query, true);
        if (!m || m->result() != 0) {
            if (!silent) progress(c, ap, k, "no answer (the access point may be restarting)");
            silent = true;
            continue;
        }
        silent = false;
        const int status = m->u8(kTagReplyStatus).value_or(0);
        if (status == kRunning) {
            if (last_shown < 0 || elapsed() - last_shown >= 5)
                progress(c, ap, k, "running (status 2, " + std::to_string(last_shown = elapsed()) + " s)");
            continue;
        }
        if (k.fails_visibly && status == kFailed) {
            std::string why = m->text(kTagFailureText).value_or("the access point reports a failure");
            return outcome(r, "failed", status, why, elapsed(), kExitResult, "failed: " + why);
        }
        if (status != 0)
            return outcome(r, "unknown", status, "", elapsed(), kExitResult,
                           "the access point reports the unknown status " + std::to_string(status));
        if (!k.reboots)
            return outcome(r, "ended", status, "the access point does not report whether the upload succeeded: "
                           "check the file on the server", elapsed());
        progress(c, ap, k, "succeeded after " + std::to_string(elapsed()) + " s; the access point reboots");
        if (f.ipv4()) return outcome(r, "succeeded", status, "rebooting (its bye and hello show with --iface)", elapsed());
        if (!follow_reboot(f, c, ap, k, ap.mac.value_or(m->src_mac), deadline))
            return outcome(r, "succeeded", status, "restart not seen", elapsed(), kExitNoReply,
                           "succeeded, but the restart was not seen within the limit");
        return outcome(r, "succeeded", status, "rebooted", elapsed());
    }
    outcome(r, "timeout", -1, "", elapsed(), kExitNoReply, "no outcome within " + std::to_string(elapsed()) + " s");
}

int run_transfer(Ctx &c, const Transfer &k) {
    Opts o(c.g, *c.cmd, c.words);
    auto server = o.ipv4("--server");
    auto file = o.text("--file", 127);
    if (!server || !file) usage("needs --server ADDR (the TFTP server's IPv4 address) and --file NAME");
    const bool wait = o.flag("--wait");
    auto limit = o.number("--limit", 1, 86400);
    if (limit && !wait) usage("--limit applies to --wait only");
    const std::vector<std::string> names = write_targets(c);
    if (k.reboots)
        confirm(c, std::string(k.name) + " on " + joined(names) + " from " + format_ipv4(*server) + " (" + *file +
                       "): the access point reboots when it succeeds. Go on?");
    else if (names.size() > 1)
        confirm(c, std::string(k.name) + " of " + std::to_string(names.size()) + " access points?");
    Fleet f(c);
    std::vector<Ap> aps = f.targets(true);
    const TlvList cred = credentials(c);
    TlvList query = cred, configure = cred;
    query.push_back(tlv_u8(kTagSubserviceType, kStatusQuery));
    for (auto r : {tlv_u8(kTagSubserviceType, kConfigure), tlv_u8(kTagServerType, kTftpServer),
                   tlv_u8(kTagServerIpType, kIpv4Server), tlv_ipv4(kTagServerIpAddr, *server),
                   tlv_text(k.file_tag, *file)})
        configure.push_back(r);
    std::vector<Row> rows;
    for (const Ap &ap : aps) {
        Row &r = rows.emplace_back();
        r.ap = ap;
        transfer_one(c, f, r, k, configure, query, wait, limit.value_or(300));
    }
    return print_report(c, rows, aps.size() > 1);
}

int run_upgrade(Ctx &c) { return run_transfer(c, kUpgrade); }
int run_backup(Ctx &c) { return run_transfer(c, kBackup); }
int run_restore(Ctx &c) { return run_transfer(c, kRestore); }

Node agent_view(const Message &m) {
    Node o = Node::object();
    o.set("managed", under_management(m));
    o.set("nms_server", m.text(kTagNmsServer).value_or(""));
    o.set("ag_uuid", m.text(kTagAgUuid).value_or(""));
    return o;
}

int run_agent_set(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    auto uuid = o.text("--uuid"), server = o.text("--server", 256);
    auto interval = o.number("--interval", 0, 255);
    if (!uuid || !server || !interval) usage("needs --uuid ID, --server ADDR and --interval N");
    // The device keeps 32 characters: a UUID in its standard 36-character
    // form goes without its hyphens, which is the same identifier.
    std::string id = *uuid;
    if (id.size() == 36 && id[8] == '-' && id[13] == '-' && id[18] == '-' && id[23] == '-')
        std::erase(id, '-');
    if (id.size() > 32)
        usage("--uuid: \"" + *uuid + "\" has " + std::to_string(uuid->size()) +
              " characters; the access point keeps 32 (a standard UUID is taken without its hyphens)");
    return write_each(c, {.op = kOpSetAgProfile,
                          .read_op = kOpDiscovery,
                          .view = agent_view,
                          .build = [&](const Ap &, const Message *) {
                              return TlvList{tlv_text(kTagAgUuid, id), tlv_text(kTagNmsServer, *server),
                                             tlv_u8(kTagMsgInterval, uint8_t(*interval))};
                          },
                          .after = [&](Fleet &, const Message &, const Message *back, Row &row) {
                              Node &ap = row.data;
                              // Discovery reports 31 characters of the 32 the access point keeps.
                              std::string shown = back ? back->text(kTagAgUuid).value_or("") : "";
                              if (id != *uuid) ap.set("uuid_sent", id);
                              ap.set("note", (shown != id && !shown.empty() && id.starts_with(shown)
                                                  ? "(discovery shows " + std::to_string(shown.size()) + " of the " +
                                                        std::to_string(id.size()) + " characters it keeps) "
                                                  : std::string()) +
                                             "the access point is now under central management and no longer "
                                             "answers most changes (they fail with no answer); tavctl reset takes "
                                             "it back");
                          },
                          .question = [&](const std::vector<std::string> &aps) {
                              return "hand " + joined(aps) + " to the management server " + *server +
                                     "? Most changes stop working from here until a reset. Go on?";
                          }});
}

int run_reboot(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    auto delay = o.number("--delay", 0, 0xFFFFFFFF);
    return write_each(c, {.op = kOpReboot,
                          .build = [&](const Ap &, const Message *) {
                              TlvList t;
                              if (delay) t.push_back(tlv_u32(kTagDelayTime, uint32_t(*delay)));
                              return t;
                          },
                          .after = [&](Fleet &, const Message &m, const Message *, Row &row) {
                              Node &ap = row.data;
                              ap.set("delay_seconds", (unsigned long)delay.value_or(0));
                              ap.set("wait_seconds", unsigned(m.u32(kTagWaitTime).value_or(0) / 1000));
                              ap.set("note", std::string("the access point reboots") +
                                                 (delay && *delay ? " in " + std::to_string(*delay) + " s" : " now") +
                                                 (wait_note(m).empty() ? "" : "; " + wait_note(m)));
                          }});
}

constexpr OptSpec kTransferOpts[] = {
    {"--server", "ADDR", "the TFTP server's IPv4 address"},
    {"--file", "NAME", "the file's name on the server (1 to 127 bytes)"},
    {"--wait", "", "follow the operation with status queries (one a second) to its outcome"},
    {"--limit", "SECONDS", "with --wait: give up after SECONDS (default 300; exit status 3)"},
};
constexpr OptSpec kAgentOpts[] = {
    {"--uuid", "ID", "the agent group identifier: at most 32 characters, or a standard UUID (sent without "
                     "its hyphens)"},
    {"--server", "ADDR", "the management server's address (at most 256 characters)"},
    {"--interval", "N", "the agent's keep-alive interval, 0 to 255"},
};
constexpr OptSpec kRebootOpts[] = {{"--delay", "SECONDS", "restart SECONDS after answering (default 0)"}};

const Command kMaint[] = {
    {"agent set", Kind::Write, "hand the access point to a central management server (op 0xE6)", "", kAgentOpts,
     "Starts the access point's management agent. While it runs, the access point answers only discovery, "
     "functions, info, verify, snmp get, status, ssid list, wireless get, clients, ipv4 set, agent set, reboot, "
     "reset and factory-reset; other requests get no answer at all, across reboots. A reset takes it back.",
     run_agent_set},
    {"firmware upgrade", Kind::Write, "install firmware from a TFTP server (op 0x100)", "", kTransferOpts,
     "The access point fetches the image and installs it, then reboots. Refused while one runs. With --wait "
     "and --iface, its bye and its hello once back are shown. Asks for confirmation (--yes for scripts).",
     run_upgrade},
    {"config backup", Kind::Write, "upload the configuration to a TFTP server (op 0x101)", "", kTransferOpts,
     "The access point saves its configuration and uploads it. It does not report whether the upload "
     "succeeded: --wait follows it to its end only.",
     run_backup},
    {"config restore", Kind::Write, "apply a configuration from a TFTP server (op 0x102)", "", kTransferOpts,
     "The access point downloads the file, applies it and reboots 5 s later. Asks for confirmation.",
     run_restore},
    {"reboot", Kind::Write, "restart the access point (op 0x103)", "", kRebootOpts,
     "Prints how long the access point asks managers to wait.", run_reboot},
};

}  // namespace

std::span<const Command> maint_commands() { return kMaint; }

}  // namespace tavctl
