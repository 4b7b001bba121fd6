// SPDX-License-Identifier: ISC
// The maintenance commands: the central-management agent's profile, firmware
// upgrade, configuration backup and restore (optionally followed to their
// end), and reboot.
#include <cstdio>
#include <thread>

#include "tools/tavctl/tavctl.h"

namespace tavctl {

namespace {

const char kHelp_agent_set[] =
    R"(usage: tavctl [OPTIONS] agent set --uuid ID --server ADDR --interval N

Hands the device over to a central management server (op 0xE6): stores the
agent group identifier ID (at most 32 characters), the management server's
address ADDR (at most 256 characters) and the keep-alive interval N (0 to
255), and starts the device's management agent unless it runs already.
While the agent runs, the device refuses most other operations (the agent
profile, discovery, reboot and a few more stay served).
Needs --user and a password (see "tavctl verify --help") and one device
(--target, or --udp to its address).
)";

const char kHelp_firmware_upgrade[] =
    R"(usage: tavctl [OPTIONS] firmware upgrade --server ADDR --file NAME [--wait [--limit S]]

Has the device fetch the firmware image NAME (at most 127 bytes) from the TFTP
server at IPv4 address ADDR and install it (op 0x100); on success the device
reboots. Refused when an upgrade already runs on the device.
--wait     follow the upgrade with status queries (one a second), show its
           progress and report the outcome: "upgrade FW failed" and exit
           status 1 on failure; on success, with --iface, the device's bye and
           its hello once it is back
--limit S  give up waiting after S seconds (default 300; exit status 3)
Needs --user and a password and one device.
)";

const char kHelp_config_backup[] =
    R"(usage: tavctl [OPTIONS] config backup --server ADDR --file NAME [--wait [--limit S]]

Has the device save its configuration and upload it by TFTP to the server at
IPv4 address ADDR as NAME (at most 127 bytes) (op 0x101).
--wait     follow the upload with status queries until it has ended (the
           device does not report whether the upload itself succeeded)
--limit S  give up waiting after S seconds (default 300; exit status 3)
Needs --user and a password and one device.
)";

const char kHelp_config_restore[] =
    R"(usage: tavctl [OPTIONS] config restore --server ADDR --file NAME [--wait [--limit S]]

Has the device download the configuration file NAME (at most 127 bytes) from
the TFTP server at IPv4 address ADDR and apply it (op 0x102); on success the
device reboots 5 seconds later with that configuration.
--wait     follow the download with status queries and report the outcome
           (exit status 1 when the device reports a failure); on success,
           with --iface, the device's bye and its hello once it is back
--limit S  give up waiting after S seconds (default 300; exit status 3)
Needs --user and a password and one device.
)";

const char kHelp_reboot[] = R"(usage: tavctl [OPTIONS] reboot [--delay S]

Restarts the device (op 0x103), at once or S seconds after it answers
(0 to 4294967295). Prints the time the device asks managers to wait.
Needs --user and a password and one device.
)";

// The three tftp transfers and what their progress values mean.
struct TransferKind {
    const char *name;  // as the person calls it
    uint16_t op;
    uint16_t file_tag;
    bool fails_visibly;  // 1 means failure (the backup never reports one)
    bool reboots;        // success ends with a reboot
};
constexpr TransferKind kUpgrade{"firmware upgrade", kOpFirmwareUpgrade, kTagFwOrUrlName, true,
                                true};
constexpr TransferKind kBackup{"configuration backup", kOpConfigBackup, kTagCfgOrUrlName, false,
                               false};
constexpr TransferKind kRestore{"configuration restore", kOpConfigRestore, kTagCfgOrUrlName, true,
                                true};

constexpr uint8_t kConfigure = 1, kStatusQuery = 2;
constexpr uint8_t kTftpServer = 1, kIpv4Server = 1;
constexpr uint8_t kRunning = 2, kFailed = 1;

void require_one_device(const Args &a) {
    if (a.target.empty() && !addressed_to_one(a))
        throw UsageError{a.command +
                         " acts on one device: name it with --target (MAC, address or host name)"};
}

// One request in an open session: the reply, or empty after printing why.
// `quiet_silence`: a missing reply is expected (a device restarting).
std::optional<Message> ask(Args &a, Session &s, uint16_t op, const TlvList &tlvs, int &rc,
                           bool quiet_silence = false) {
    auto r = s.client.request(op, tlvs, s.window, 1);
    if (!r) {
        std::fprintf(stderr, "tavctl: %s\n", r.error().c_str());
        rc = kExitNetwork;
        return std::nullopt;
    }
    if (r->empty()) {
        if (!quiet_silence)
            std::fprintf(stderr, "tavctl: %s: no reply to op %s within %g s\n", a.command.c_str(),
                         format_op_code(op).c_str(), a.timeout);
        rc = kExitNoReply;
        return std::nullopt;
    }
    Message m = std::move(r->front());
    if (m.result() != 0) {
        std::fprintf(stderr, "tavctl: %s: refused: %s\n", a.command.c_str(),
                     refusal_text(m.result(), op).c_str());
        rc = kExitResult;
        return std::nullopt;
    }
    rc = kExitOk;
    return m;
}

// What the person sees of a followed operation: lines on standard output
// (standard error with --json, whose output is the final object only).
struct Report {
    const Args &a;
    const char *name;
    void line(const std::string &text) const {
        std::fprintf(a.json ? stderr : stdout, "%s: %s\n", name, text.c_str());
        std::fflush(a.json ? stderr : stdout);
    }
    int finish(const std::string &from, const char *outcome, int status, const std::string &detail,
               int seconds, int rc) const {
        if (a.json) {
            JsonWriter j;
            j.begin_object();
            j.key("from").value(from);
            j.key("operation").value(std::string(name));
            j.key("outcome").value(std::string(outcome));
            j.key("status");
            if (status >= 0)
                j.value(uint64_t(status));
            else
                j.null();
            j.key("detail").value(detail);
            j.key("seconds").value(uint64_t(seconds));
            j.end_object();
            std::fputs(j.str().c_str(), stdout);
        }
        return rc;
    }
};

// After a success that reboots the device: its bye, then its hello (raw
// path only; the announcements are Ethernet broadcasts).
bool follow_reboot(Session &s, const Report &rep, const Mac &device, Clock::time_point deadline) {
    auto announced = [&](uint16_t op) {
        return [&device, op](const Message &m) {
            return m.is_announcement() && m.op_code() == op && m.src_mac == device;
        };
    };
    auto left = [&] {
        return std::max(
            std::chrono::milliseconds(0),
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()));
    };
    if (!s.client.wait_for(announced(kOpBye), left())) return false;
    rep.line("bye from " + format_mac(device) + " (rebooting)");
    if (!s.client.wait_for(announced(kOpHello), left())) return false;
    rep.line("hello from " + format_mac(device) + " (back)");
    return true;
}

int run_transfer(Args &a, const TransferKind &k) {
    std::optional<std::string> server, file;
    std::optional<uint64_t> limit;
    bool wait = false;
    OptParser(a)
        .text("--server", server)
        .text("--file", file)
        .flag("--wait", wait)
        .number("--limit", 86400, limit)
        .parse_none();
    if (!server || !file) throw UsageError{a.command + " needs --server ADDR and --file NAME"};
    auto ip = parse_ipv4(*server);
    if (!ip) throw UsageError{"--server: \"" + *server + "\" is not an IPv4 address"};
    // The name travels with its NUL, and the device ignores a value over 128
    // bytes as a whole (it would fetch an empty name).
    if (file->empty() || file->size() > 127)
        throw UsageError{
            "--file: the name must have 1 to 127 bytes (with its NUL, the device ignores longer "
            "ones)"};
    if (file->find('\0') != std::string::npos) throw UsageError{"--file: the name holds a NUL"};
    if (limit && !wait) throw UsageError{"--limit applies to --wait only"};
    if (limit && *limit == 0) throw UsageError{"--limit: at least 1 second"};
    require_one_device(a);

    TlvList cred;
    if (int rc = add_credentials(a, cred)) return rc;
    TlvList query = cred;
    query.push_back(tlv_u8(kTagSubserviceType, kStatusQuery));
    TlvList configure = cred;
    for (auto r : {tlv_u8(kTagSubserviceType, kConfigure), tlv_u8(kTagServerType, kTftpServer),
                   tlv_u8(kTagServerIpType, kIpv4Server), tlv_ipv4(kTagServerIpAddr, *ip),
                   tlv_text(k.file_tag, *file)})
        configure.push_back(r);

    std::optional<Session> s;
    if (int rc = open_session(a, s); rc != kExitOk) return rc;
    const bool ipv4 = s->client.ipv4();
    const Report rep{a, k.name};
    int rc = kExitOk;

    // A configure request that finds one running starts nothing and says
    // nothing about it: ask first.
    auto before = ask(a, *s, k.op, query, rc);
    if (!before) {
        if (rc == kExitNoReply)
            std::fprintf(
                stderr,
                "tavctl: (a device whose management agent runs does not answer %s requests)\n",
                k.name);
        return rc;
    }
    const std::string from = from_text(*before, ipv4);
    if (before->u8(kTagReplyStatus) == kRunning) {
        std::fprintf(stderr, "tavctl: %s: %s already runs on %s\n", a.command.c_str(), k.name,
                     from.c_str());
        return rep.finish(from, "busy", kRunning, "already running", 0, kExitResult);
    }
    auto started = ask(a, *s, k.op, configure, rc);
    if (!started) return rc;
    rep.line("started on " + from + " (server " + *server + ", file " + *file + ")");
    if (!wait)
        return rep.finish(from, "started", started->u8(kTagReplyStatus).value_or(0), "", 0,
                          kExitOk);

    const auto t0 = Clock::now();
    const auto deadline = t0 + std::chrono::seconds(limit.value_or(300));
    auto elapsed = [&] {
        return int(std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - t0).count());
    };
    int last_shown = -1;
    bool silent = false;
    while (Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        auto m = ask(a, *s, k.op, query, rc, true);
        if (!m) {
            if (rc != kExitNoReply) return rc;
            if (!silent) rep.line("no answer (the device may be restarting)");
            silent = true;
            continue;
        }
        silent = false;
        const int status = m->u8(kTagReplyStatus).value_or(0);
        if (status == kRunning) {
            if (last_shown < 0 || elapsed() - last_shown >= 5) {
                rep.line("running (status 2, " + std::to_string(elapsed()) + " s)");
                last_shown = elapsed();
            }
            continue;
        }
        if (k.fails_visibly && status == kFailed) {
            std::string why = m->text(kTagFailureText).value_or("the device reports a failure");
            std::fprintf(stderr, "tavctl: %s: failed: %s\n", a.command.c_str(), why.c_str());
            return rep.finish(from, "failed", status, why, elapsed(), kExitResult);
        }
        if (status != 0) {
            std::fprintf(stderr, "tavctl: %s: the device reports the unknown status %d\n",
                         a.command.c_str(), status);
            return rep.finish(from, "unknown", status, "", elapsed(), kExitResult);
        }
        if (!k.reboots) {
            rep.line("ended after " + std::to_string(elapsed()) +
                     " s (the device does not report whether the upload succeeded)");
            return rep.finish(from, "ended", status, "", elapsed(), kExitOk);
        }
        rep.line("succeeded after " + std::to_string(elapsed()) + " s; the device reboots");
        if (ipv4) {
            rep.line("(its bye and hello are seen with --iface only)");
            return rep.finish(from, "succeeded", status, "rebooting", elapsed(), kExitOk);
        }
        if (!follow_reboot(*s, rep, m->src_mac, deadline)) {
            std::fprintf(stderr,
                         "tavctl: %s: the device did not announce its restart within the limit\n",
                         a.command.c_str());
            return rep.finish(from, "succeeded", status, "restart not seen", elapsed(),
                              kExitNoReply);
        }
        return rep.finish(from, "succeeded", status, "rebooted", elapsed(), kExitOk);
    }
    std::fprintf(stderr, "tavctl: %s: no outcome within %d s\n", a.command.c_str(), elapsed());
    return rep.finish(from, "timeout", -1, "", elapsed(), kExitNoReply);
}

int cmd_firmware_upgrade(Args &a) {
    return run_transfer(a, kUpgrade);
}
int cmd_config_backup(Args &a) {
    return run_transfer(a, kBackup);
}
int cmd_config_restore(Args &a) {
    return run_transfer(a, kRestore);
}

int cmd_agent_set(Args &a) {
    std::optional<std::string> uuid, server;
    std::optional<uint64_t> interval;
    OptParser(a)
        .text("--uuid", uuid)
        .text("--server", server)
        .number("--interval", 255, interval)
        .parse_none();
    if (!uuid || !server || !interval)
        throw UsageError{"agent set needs --uuid ID, --server ADDR and --interval N"};
    if (uuid->size() > 32)
        throw UsageError{"--uuid: at most 32 characters (the device keeps no more)"};
    if (server->size() > 256)
        throw UsageError{"--server: at most 256 characters (the device keeps no more)"};
    require_one_device(a);
    TlvList t;
    if (int rc = add_credentials(a, t)) return rc;
    t.push_back(tlv_text(kTagAgUuid, *uuid));
    t.push_back(tlv_text(kTagNmsServer, *server));
    t.push_back(tlv_u8(kTagMsgInterval, uint8_t(*interval)));
    Message m;
    if (int rc = request_one_device(a, kOpSetAgProfile, t, m)) return rc;
    const std::string from = from_text(m, !a.opts.udp.empty());
    if (a.json) {
        JsonWriter j;
        j.begin_object();
        j.key("from").value(from);
        j.key("result").value(uint64_t(m.result()));
        j.key("reply_status").value(uint64_t(m.u8(kTagReplyStatus).value_or(0)));
        j.end_object();
        std::fputs(j.str().c_str(), stdout);
    } else {
        std::printf(
            "agent profile: accepted by %s; the management agent runs, and the device now refuses "
            "most "
            "other operations\n",
            from.c_str());
    }
    return kExitOk;
}

int cmd_reboot(Args &a) {
    std::optional<uint64_t> delay;
    OptParser(a).number("--delay", 0xFFFFFFFF, delay).parse_none();
    require_one_device(a);
    TlvList t;
    if (int rc = add_credentials(a, t)) return rc;
    if (delay) t.push_back(tlv_u32(kTagDelayTime, uint32_t(*delay)));
    Message m;
    if (int rc = request_one_device(a, kOpReboot, t, m)) return rc;
    const std::string from = from_text(m, !a.opts.udp.empty());
    const uint32_t wait_ms = m.u32(kTagWaitTime).value_or(0);
    if (a.json) {
        JsonWriter j;
        j.begin_object();
        j.key("from").value(from);
        j.key("result").value(uint64_t(m.result()));
        j.key("delay").value(delay.value_or(0));
        j.key("wait_ms").value(uint64_t(wait_ms));
        j.end_object();
        std::fputs(j.str().c_str(), stdout);
    } else {
        std::printf("reboot: accepted by %s; the device restarts %s; allow it %u s to come back\n",
                    from.c_str(),
                    delay && *delay ? ("in " + std::to_string(*delay) + " s").c_str() : "now",
                    wait_ms / 1000);
    }
    return kExitOk;
}

const Command kMaint[] = {
    {"agent set", "--uuid ID --server ADDR --interval N",
     "hand the device to a management server (op 0xE6)", kHelp_agent_set, cmd_agent_set},
    {"firmware upgrade", "--server ADDR --file NAME [--wait]",
     "install firmware from a TFTP server (op 0x100)", kHelp_firmware_upgrade,
     cmd_firmware_upgrade},
    {"config backup", "--server ADDR --file NAME [--wait]",
     "upload the configuration to a TFTP server (op 0x101)", kHelp_config_backup,
     cmd_config_backup},
    {"config restore", "--server ADDR --file NAME [--wait]",
     "apply a configuration from a TFTP server (op 0x102)", kHelp_config_restore,
     cmd_config_restore},
    {"reboot", "[--delay S]", "restart the device (op 0x103)", kHelp_reboot, cmd_reboot},
};

}  // namespace

std::span<const Command> maint_commands() {
    return kMaint;
}

}  // namespace tavctl
