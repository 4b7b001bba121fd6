// SPDX-License-Identifier: ISC
// The daemon against its floor, in a lab of its own (root): per op code and
// path, latency p50/p99 beside the floor (the database commands the request
// caused, each one connect+get+close by a minimal C client against the same
// server, plus one network round trip through the same namespaces), in runs
// of alternating rounds; the daemon's instructions per request (callgrind),
// split into its own code and libc; start-up to the hello frame; the stripped
// size; private dirty memory idle, after mixed traffic and after 1,000
// managers. Prints one Markdown table and writes it to --out.
//
//   bench_table [--quick] [--out FILE] [--build DIR] [--baseline DAEMON] [--profiles DIR] [--instance NAME]
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/shell.h"
#include "tools/client/client.h"

namespace {

using namespace std::chrono_literals;
using tav::client::Client;
using tav::client::TlvList;
using Clock = std::chrono::steady_clock;

struct Config {
    std::string build = BENCH_BUILD_DIR, out, baseline, instance, profiles, daemon;
    bool quick = false, instructions_only = false, latency_only = false, pin = true;
    std::string only, rounds_file;  // --op NAME: that op code's rows alone; --rounds-file: every round's figures
    int runs = 7, rounds = 150, cg_requests = 40, startups = 5;
    long mixed = 100000, managers = 1000;
} cfg;

std::string lab() { return std::string(BENCH_TAVLAB) + " --instance " + cfg.instance + " "; }
std::string run_dir() { return "/run/tavlab-" + cfg.instance + "/ap1/"; }
std::string mgr_ns() { return "tavlab-" + cfg.instance + "-mgr"; }
constexpr const char *kApIp = "192.0.2.11", *kApMac = "02:7a:76:00:00:01";

using bench::sh;

[[noreturn]] void die(const std::string &why) {
    std::fprintf(stderr, "bench_table: %s\n", why.c_str());
    sh(lab() + "down");
    std::exit(1);
}

// A process started through `tavlab exec HOST`, kept until the end.
pid_t spawn(const std::vector<std::string> &args, int in = -1, int out = -1) {
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    if (in >= 0) posix_spawn_file_actions_adddup2(&fa, in, 0);
    if (out >= 0) posix_spawn_file_actions_adddup2(&fa, out, 1);
    else posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
    std::vector<char *> argv;
    for (auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&fa);
    return pid;
}

// With --pin (the default on two CPUs or more) the access point's processes
// share CPU 0, as on the single core of an access point, and the manager's
// side runs on CPU 1, as on another machine. Left to the scheduler, the
// daemon and the database server land on one CPU for some requests and on
// two for others (a wake-up across CPUs costs tens of microseconds in a VM),
// and that, not the daemon, decided the ratio.
bool pinned() { return cfg.pin && sysconf(_SC_NPROCESSORS_ONLN) >= 2; }

void pin_self(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    if (sched_setaffinity(0, sizeof set, &set) != 0) std::perror("bench_table: sched_setaffinity");
}

// Every process in the network namespace of `host` to `cpu`.
void pin_host(const std::string &host, int cpu) {
    struct stat ns{};
    if (stat(("/run/netns/tavlab-" + cfg.instance + "-" + host).c_str(), &ns) != 0) return;
    const std::string want = "net:[" + std::to_string(ns.st_ino) + "]";
    DIR *d = opendir("/proc");
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    while (dirent *e = d ? readdir(d) : nullptr) {
        char link[64] = {};
        const std::string path = std::string("/proc/") + e->d_name + "/ns/net";
        if (e->d_name[0] < '1' || e->d_name[0] > '9' || readlink(path.c_str(), link, sizeof link - 1) < 0) continue;
        if (want == link) sched_setaffinity(pid_t(std::atol(e->d_name)), sizeof set, &set);
    }
    if (d) closedir(d);
}

std::vector<std::string> on(const std::string &host, std::vector<std::string> cmd) {
    if (pinned() && host.rfind("ap", 0) == 0) cmd.insert(cmd.begin(), {"/usr/bin/taskset", "-c", "0"});
    std::vector<std::string> v = {BENCH_TAVLAB, "--instance", cfg.instance, "exec", host};
    v.insert(v.end(), cmd.begin(), cmd.end());
    return v;
}

// bench_floor inside a lab host, one command a line.
class Helper {
  public:
    explicit Helper(const std::string &host) {
        int to[2], from[2];
        if (pipe2(to, O_CLOEXEC) || pipe2(from, O_CLOEXEC)) die("pipe");
        pid_ = spawn(on(host, {BENCH_FLOOR}), to[0], from[1]);
        close(to[0]), close(from[1]);
        in_ = fdopen(to[1], "w"), out_ = fdopen(from[0], "r");
        if (pid_ < 0 || !in_ || !out_) die("cannot start bench_floor on " + host);
    }
    ~Helper() {
        std::fputs("quit\n", in_), std::fclose(in_), std::fclose(out_);
        waitpid(pid_, nullptr, 0);
    }
    std::string ask(const std::string &line) {
        std::fprintf(in_, "%s\n", line.c_str());
        std::fflush(in_);
        char buf[256] = {};
        if (!std::fgets(buf, sizeof buf, out_)) die("bench_floor went away after: " + line);
        buf[std::strcspn(buf, "\n")] = '\0';
        return buf;
    }
    long long num(const std::string &line) { return std::atoll(ask(line).c_str()); }

  private:
    pid_t pid_;
    FILE *in_, *out_;
};

// ---- figures -----------------------------------------------------------------

double pct(std::vector<double> v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    size_t i = size_t(p / 100.0 * double(v.size() - 1) + 0.5);
    return v[std::min(i, v.size() - 1)];
}
std::string fmt(const char *f, double x) {
    char b[64];
    std::snprintf(b, sizeof b, f, x);
    return b;
}
std::string thousands(long long n) {
    std::string s = std::to_string(n), o;
    for (size_t i = 0; i < s.size(); ++i) {
        if (i && (s.size() - i) % 3 == 0) o += ',';
        o += s[i];
    }
    return o;
}

// ---- the daemon ------------------------------------------------------------

struct Daemon {
    pid_t exec_pid = -1;  // tavlab exec, ours
    long pid = -1;        // the daemon in the access point's process namespace
    long long started_ns = 0;
};

Daemon start_daemon(std::vector<std::string> cmd) {
    const std::string file = run_dir() + "bench.pid";
    unlink(file.c_str());
    cmd.insert(cmd.begin(), {BENCH_FLOOR, "exec", "/var/run/bench.pid"});
    Daemon d;
    d.exec_pid = spawn(on("ap1", cmd));
    for (int i = 0; i < 500 && d.pid < 0; ++i) {
        std::ifstream f(file);
        if (!(f >> d.pid >> d.started_ns)) d.pid = -1, std::this_thread::sleep_for(10ms);
    }
    if (d.pid < 0) die("the daemon did not start (safety probe or launcher)");
    return d;
}

void stop_daemon(Helper &ap, Daemon &d) {
    ap.ask("stop " + std::to_string(d.pid));
    int st = 0;
    waitpid(d.exec_pid, &st, 0);
}

Client udp_client() {
    return Client(tav::client::Options::over_udp(kApIp, mgr_ns(), cfg.build + "/sim/cipher/TAV_Auth.so"));
}
Client raw_client() {
    return Client(tav::client::Options::raw("eth0", mgr_ns(), cfg.build + "/sim/cipher/TAV_Auth.so"));
}
Client client(bool raw) { return raw ? raw_client() : udp_client(); }

struct Op {
    uint16_t code;
    const char *name;
    TlvList tlvs;
};
std::vector<Op> ops() {
    using namespace tav::client;
    const TlvList creds = {tlv_text(tav::kTagUserName, "admin"), tlv_text(tav::kTagPassword, "admin")};
    return {{tav::kOpDiscovery, "discovery", {}},
            {tav::kOpUserVerification, "verification", creds},
            {tav::kOpGetDeviceStatus, "status", {}},
            {tav::kOpGetSsidList, "SSID list", {}},
            {tav::kOpGetClientList, "client list", {}},
            {tav::kOpGetDateTime, "date and time", {}}};
}

bool ask_daemon(Client &c, const Op &op, std::chrono::milliseconds window = 2s) {
    auto r = c.request_one(op.code, op.tlvs, window);
    return r && r->result() == 0;
}

// ---- the parts of the table -------------------------------------------------

struct Row {
    std::string op, path;
    long commands = 0;
    double p50 = 0, p99 = 0, floor = 0, ratio = 0, ratio_lo = 0, ratio_hi = 0, library = 0;
};

// The request as bytes on the wire (selector and ciphertext) in hex, for
// bench_floor to send: the timing then leaves out what a manager's tool does
// around it, as the floor's network round trip does.
std::string sealed_hex(const tav::client::Cipher &cipher, bool raw, const Op &op, uint16_t seq) {
    const auto plain = tav::client::build_request(!raw, seq, op.code, raw ? tav::kBroadcastMac : tav::kZeroMac,
                                                  {}, op.tlvs);
    auto sealed = cipher.encode(plain);
    if (!sealed) die("cannot encipher: " + sealed.error());
    std::string hex;
    char b[3];
    std::snprintf(b, sizeof b, "%02x", unsigned(sealed->selector >> 8)), hex += b;
    std::snprintf(b, sizeof b, "%02x", unsigned(sealed->selector & 0xff)), hex += b;
    for (uint8_t c : sealed->ciphertext) std::snprintf(b, sizeof b, "%02x", unsigned(c)), hex += b;
    return hex;
}

// --rounds-file: every round as a line (op code, path, run, round, database
// ns, network ns, request ns, monotonic ns at its end), for looking closer.
FILE *rounds_out = nullptr;

// One row's measurement: its request as the lean sender sends it and its
// figures, run by run.
struct Series {
    const Op *op = nullptr;
    bool raw = false;
    Row row;
    std::string ping, send;
    std::vector<double> ratios, p50s, p99s, floors;
};

// The commands one request causes, the least of three (a minute report may
// fall between two counts). The client library is open only while it is
// used: its packet socket would take a copy of every reply of the lean rounds.
long commands_of(Helper &ap, bool raw, const Op &op) {
    Client c = client(raw);
    long least = 1L << 30;
    for (int i = 0; i < 3; ++i) {
        long long before = ap.num("count");
        if (!ask_daemon(c, op)) die(std::string("no successful reply to ") + op.name);
        std::this_thread::sleep_for(50ms);  // the loop reads the trace switch after the reply
        least = std::min<long>(least, long(ap.num("count") - before));
    }
    return least;
}

// One run of a row: `cfg.rounds` rounds of floor (database, then network),
// then request.
void run_once(Helper &ap, Helper &mgr, const tav::client::Cipher &cipher, Series &s, int run) {
    static uint16_t seq = 0x5000;
    std::vector<double> lat, fl;
    for (int i = 0; i < cfg.rounds; ++i) {
        const long long db = ap.num("db " + std::to_string(s.row.commands) + " /sys/hostname");
        const long long net = mgr.num(s.ping);
        if (db < 0 || net < 0) die("floor measurement failed");
        fl.push_back(double(db + net) / 1e6);
        const long long req = mgr.num(s.send + sealed_hex(cipher, s.raw, *s.op, seq++));
        if (req < 0) die(std::string("no reply to ") + s.op->name);
        lat.push_back(double(req) / 1e6);
        if (rounds_out)
            std::fprintf(rounds_out, "%s\t%s\t%d\t%d\t%lld\t%lld\t%lld\t%lld\n", s.op->name, s.row.path.c_str(), run, i,
                         db, net, req, static_cast<long long>(Clock::now().time_since_epoch() / 1ns));
    }
    s.p50s.push_back(pct(lat, 50)), s.p99s.push_back(pct(lat, 99)), s.floors.push_back(pct(fl, 50));
    s.ratios.push_back(s.p50s.back() / s.floors.back());
}

// Every row, run after run: each run goes through all rows, so that a slow
// stretch of the machine falls on one run of many rows, which the median
// over runs sets aside, rather than on every run of one row.
std::vector<Row> latency(Helper &ap, Helper &mgr, const tav::client::Cipher &cipher) {
    static const std::vector<Op> every = ops();  // the rows point into it
    std::vector<Series> all;
    for (const Op &op : every)
        for (bool raw : {false, true}) {
            if (!cfg.only.empty() && cfg.only != op.name) continue;
            Series s;
            s.op = &op, s.raw = raw, s.row = Row{op.name, raw ? "raw" : "UDP"};
            s.row.commands = commands_of(ap, raw, op);
            s.ping = raw ? "ping raw eth0 " + std::string(kApMac) : "ping udp " + std::string(kApIp);
            s.send = raw ? "send raw eth0 " + std::string(kApMac) + " " : "send udp " + std::string(kApIp) + " ";
            all.push_back(std::move(s));
        }
    for (int r = 0; r < cfg.runs; ++r)
        for (Series &s : all) run_once(ap, mgr, cipher, s, r);
    std::vector<Row> rows;
    for (Series &s : all) {
        // The same request through the manager's client library, in rounds
        // of their own: interleaved, the library's reading of every broadcast
        // reply it saw meanwhile would weigh on the rounds above.
        Client c = client(s.raw);
        std::vector<double> lib;
        for (int i = 0; i < cfg.rounds; ++i) {
            const auto t0 = Clock::now();
            if (!ask_daemon(c, *s.op)) die(std::string("no reply to ") + s.op->name);
            lib.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
        }
        Row &row = s.row;
        row.p50 = pct(s.p50s, 50), row.p99 = pct(s.p99s, 50), row.floor = pct(s.floors, 50), row.library = pct(lib, 50);
        row.ratio = pct(s.ratios, 50), row.ratio_lo = pct(s.ratios, 0), row.ratio_hi = pct(s.ratios, 100);
        rows.push_back(row);
    }
    return rows;
}

// Instructions per object of one callgrind output.
std::map<std::string, double> objects(const std::string &file) {
    std::map<std::string, double> by;
    std::istringstream in(sh("callgrind_annotate --inclusive=no --threshold=100 --auto=no " + file));
    static const std::regex line(R"(^\s*([0-9,]+)\s.*\[(.*)\]\s*$)");
    std::smatch m;
    for (std::string l; std::getline(in, l);)
        if (std::regex_match(l, m, line)) {
            std::string n = m[1];
            n.erase(std::remove(n.begin(), n.end(), ','), n.end());
            std::string obj = m[2];
            by[obj.substr(obj.rfind('/') + 1)] += std::atof(n.c_str());
        }
    return by;
}

struct Instr {
    std::string op, path;
    double own = 0, libc = 0, cipher = 0, other = 0;
};

// One daemon run under callgrind: `n` requests of `op` (none: start and stop).
std::map<std::string, double> callgrind_run(Helper &ap, Helper &mgr, const std::string &daemon, const Op *op,
                                            bool raw, int n) {
    const std::string out = "/var/run/bench.cg";
    unlink((run_dir() + "bench.cg").c_str());
    mgr.ask("arm eth0");
    Daemon d = start_daemon({"/usr/bin/valgrind", "--tool=callgrind", "--callgrind-out-file=" + out, daemon});
    if (mgr.num("hello 30000") < 0) die("no hello from the daemon under callgrind");
    if (op) {
        Client c = client(raw);
        for (int i = 0; i < n; ++i)
            if (!ask_daemon(c, *op, 10s)) die(std::string("no reply under callgrind to ") + op->name);
    }
    stop_daemon(ap, d);
    if (!cfg.profiles.empty() && op) {
        std::string name = std::string(op->name) + (raw ? "-raw" : "-udp") + (daemon == cfg.baseline ? "-before" : "");
        std::replace(name.begin(), name.end(), ' ', '-');
        sh("cp " + run_dir() + "bench.cg '" + cfg.profiles + "/callgrind." + name + "'");
    }
    return objects(run_dir() + "bench.cg");
}

std::vector<Instr> instructions(Helper &ap, Helper &mgr, const std::string &daemon) {
    const std::string self = daemon.substr(daemon.rfind('/') + 1);
    std::vector<Instr> rows;
    for (bool raw : {false, true}) {
        auto base = callgrind_run(ap, mgr, daemon, nullptr, raw, 0);
        for (const Op &op : ops()) {
            auto with = callgrind_run(ap, mgr, daemon, &op, raw, cfg.cg_requests);
            Instr r{op.name, raw ? "raw" : "UDP"};
            for (auto &[obj, ir] : with) {
                const double per = (ir - base[obj]) / cfg.cg_requests;
                if (obj == self) r.own += per;
                else if (obj.rfind("libc.so", 0) == 0) r.libc += per;
                else if (obj.rfind("TAV_Auth", 0) == 0) r.cipher += per;
                else r.other += per;
            }
            rows.push_back(r);
        }
    }
    return rows;
}

// A set request that carries a precedence and is refused at authentication:
// it registers its manager and changes nothing.
tav::client::TlvList registering_request() {
    using namespace tav::client;
    return {tlv_u8(tav::kTagServerPrecedence, 1), tlv_text(tav::kTagUserName, "admin"),
            tlv_text(tav::kTagPassword, "not-the-password")};
}

void mixed_traffic(Client &udp, Client &raw, long count) {
    const auto all = ops();
    auto &rt = static_cast<tav::client::RawTransport &>(raw.transport());
    const tav::Mac own = rt.interface_mac();
    const auto managed = registering_request();
    for (long i = 0; i < count; ++i) {
        if (i % 7 == 6) {
            tav::Mac m = own;
            m[5] = uint8_t(0xf0 + (i / 7) % 4);  // four managers
            rt.set_source_mac(m);
            (void)raw.request_one(tav::kOpSetDateTime, managed, 2s);
            rt.set_source_mac(own);
            continue;
        }
        const Op &op = all[size_t(i) % all.size()];
        (void)ask_daemon((i / 2) % 2 ? raw : udp, op);
    }
}

void many_managers(Client &raw, long count) {
    auto &rt = static_cast<tav::client::RawTransport &>(raw.transport());
    const tav::Mac own = rt.interface_mac();
    const auto managed = registering_request();
    for (long i = 0; i < count; ++i) {
        tav::Mac m = {0x02, 0x7a, 0x76, 0x80, uint8_t(i >> 8), uint8_t(i)};
        rt.set_source_mac(m);
        if (!raw.request_one(tav::kOpSetDateTime, managed, 2s)) die("a manager's request went unanswered");
    }
    rt.set_source_mac(own);
}

std::string machine() {
    utsname u{};
    uname(&u);
    std::string cpu = sh("sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -1");
    cpu.erase(cpu.find_last_not_of("\n ") + 1);
    char day[32];
    const std::time_t t = std::time(nullptr);
    std::strftime(day, sizeof day, "%d %b %Y", std::gmtime(&t));
    std::string load = sh("cut -d' ' -f1-3 /proc/loadavg");
    load.erase(load.find_last_not_of("\n ") + 1);
    return std::string(day) + ", " + std::to_string(sysconf(_SC_NPROCESSORS_ONLN)) + " CPUs (" + cpu + "), Linux " +
           u.release + ", load average " + load;
}

}  // namespace

int main(int argc, char **argv) {
    int runs = 0, rounds = 0;  // given on the command line: over the mode's own
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) die(a + " needs a value");
            return argv[++i];
        };
        if (a == "--quick") cfg.quick = true;
        else if (a == "--out") cfg.out = value();
        else if (a == "--build") cfg.build = value();
        else if (a == "--baseline") cfg.baseline = value();
        else if (a == "--instance") cfg.instance = value();
        else if (a == "--profiles") cfg.profiles = value();
        else if (a == "--daemon") cfg.daemon = value();
        else if (a == "--instructions-only") cfg.instructions_only = true;
        else if (a == "--latency-only") cfg.latency_only = true;
        else if (a == "--no-pin") cfg.pin = false;
        else if (a == "--op") cfg.only = value();
        else if (a == "--runs") runs = std::atoi(value().c_str());
        else if (a == "--rounds") rounds = std::atoi(value().c_str());
        else if (a == "--rounds-file") cfg.rounds_file = value();
        else {
            std::puts("usage: bench_table [--quick] [--out FILE] [--build DIR] [--baseline DAEMON] [--profiles DIR]\n"
                      "                   [--daemon PATH] [--instructions-only | --latency-only] [--no-pin]\n"
                      "                   [--op NAME] [--runs N] [--rounds N] [--rounds-file FILE] [--instance NAME]\n"
                      "The daemon of DIR (default the build this came from) against its floor, in a lab\n"
                      "instance of its own (needs root); --baseline adds another daemon's instructions;\n"
                      "--profiles keeps each op code's callgrind output in DIR (callgrind_annotate reads them);\n"
                      "--no-pin leaves the lab's processes to the scheduler instead of the access point on\n"
                      "CPU 0 and the manager on CPU 1; --latency-only prints the latency rows alone;\n"
                      "--op measures one op code (its name in the table); --runs and --rounds replace the\n"
                      "mode's own counts; --rounds-file writes every round (op code, path, run, round, then\n"
                      "database, network and request ns and the monotonic clock at its end, tab-separated).");
            return a == "--help" || a == "-h" ? 0 : 2;
        }
    }
    if (cfg.quick) cfg.runs = 5, cfg.rounds = 40, cfg.cg_requests = 10, cfg.startups = 3, cfg.mixed = 3000,
                   cfg.managers = 1000;
    if (runs > 0) cfg.runs = runs;
    if (rounds > 0) cfg.rounds = rounds;
    if (cfg.instance.empty()) {
        // Named after the build, so that benchmarks of other trees run beside it.
        char name[16];
        std::snprintf(name, sizeof name, "b%08zx", std::hash<std::string>{}(cfg.build) & 0xffffffff);
        cfg.instance = name;
    }
    if (geteuid() != 0) die("the lab needs root");
    const std::string daemon = cfg.daemon.empty() ? cfg.build + "/tavc/tavc" : cfg.daemon;
    sh(lab() + "down");
    std::fprintf(stderr, "bench_table: lab up (%s)\n", cfg.build.c_str());
    const std::string up = sh(lab() + "up -n 1 --no-daemon --build '" + cfg.build + "'");
    if (access((run_dir() + "xmldb_sock").c_str(), F_OK) != 0) die("lab did not come up:\n" + up);
    if (pinned()) pin_self(1), pin_host("ap1", 0);
    std::string table;
    {
        Helper ap("ap1"), mgr("mgr");
        if (ap.ask("echo br0") != "ok") die("no echo responder in the access point");

        if (cfg.instructions_only) {
            for (const auto &r : instructions(ap, mgr, daemon))
                std::printf("%-14s %-4s daemon %8.0f libc %8.0f cipher %8.0f other %8.0f\n", r.op.c_str(),
                            r.path.c_str(), r.own, r.libc, r.cipher, r.other);
        }
    }
    if (cfg.instructions_only) {
        sh(lab() + "down");
        return 0;
    }
    do {  // a block that --latency-only leaves early, its helpers and lab closed behind it
        Helper ap("ap1"), mgr("mgr");
        if (ap.ask("echo br0") != "ok") die("no echo responder in the access point");
        // Start-up to the hello frame, then the daemon that serves the rest.
        std::vector<double> startup;
        Daemon d;
        for (int i = 0; i < cfg.startups; ++i) {
            if (i) stop_daemon(ap, d);
            mgr.ask("arm eth0");
            d = start_daemon({daemon});
            const long long hello = mgr.num("hello 5000");
            if (hello < 0) die("no hello frame");
            startup.push_back(double(hello - d.started_ns) / 1e6);
        }
        std::this_thread::sleep_for(1s);
        const long idle = long(ap.num("mem " + std::to_string(d.pid)));

        std::fprintf(stderr, "bench_table: latency against the floor\n");
        auto cipher = tav::client::Cipher::load(cfg.build + "/sim/cipher/TAV_Auth.so");
        if (!cipher) die("cannot load the cipher library: " + cipher.error());
        if (!cfg.rounds_file.empty()) rounds_out = std::fopen(cfg.rounds_file.c_str(), "w");
        const std::vector<Row> rows = latency(ap, mgr, *cipher);
        if (cfg.latency_only) {
            for (const Row &r : rows) {
                char line[160];
                std::snprintf(line, sizeof line, "%-14s %-4s p50 %6.2f floor %6.2f ratio %.2f (%.2f-%.2f) library %6.2f\n",
                              r.op.c_str(), r.path.c_str(), r.p50, r.floor, r.ratio, r.ratio_lo, r.ratio_hi, r.library);
                table += line;
            }
            stop_daemon(ap, d);
            break;
        }

        Client udp = udp_client(), raw = raw_client();
        std::fprintf(stderr, "bench_table: %ld mixed requests\n", cfg.mixed);
        mixed_traffic(udp, raw, cfg.mixed);
        const long mixed = long(ap.num("mem " + std::to_string(d.pid)));
        std::fprintf(stderr, "bench_table: %ld managers\n", cfg.managers);
        many_managers(raw, cfg.managers);
        const long managers = long(ap.num("mem " + std::to_string(d.pid)));
        stop_daemon(ap, d);

        std::fprintf(stderr, "bench_table: instructions under callgrind\n");
        auto instr = instructions(ap, mgr, daemon);
        std::vector<Instr> before;
        if (!cfg.baseline.empty()) before = instructions(ap, mgr, cfg.baseline);

        struct stat st{};
        stat(daemon.c_str(), &st);
        const std::string needed = sh("readelf -d '" + daemon + "' | sed -n 's/.*Shared library: \\[\\(.*\\)\\]/\\1/p' | tr '\\n' ' '");

        std::ostringstream t;
        t << "Measured " << machine() << "; " << (cfg.quick ? "quick mode" : "full mode") << ": " << cfg.runs
          << " runs of " << cfg.rounds << " rounds (floor, then request) per row.\n\n";
        t << "| Op code | Path | DB commands | p50 ms | p99 ms | Floor ms | p50 / floor (runs' min-max) | "
             "Client library p50 ms | Instructions: daemon | libc | cipher library |"
          << (before.empty() ? "" : " daemon before | libc before |") << "\n";
        t << "|---|---|---:|---:|---:|---:|---|---:|---:|---:|---:|" << (before.empty() ? "" : "---:|---:|") << "\n";
        for (size_t i = 0; i < rows.size(); ++i) {
            const Row &r = rows[i];
            auto same = [&](const Instr &x) { return x.op == r.op && x.path == r.path; };
            auto it = std::find_if(instr.begin(), instr.end(), same);
            auto bt = std::find_if(before.begin(), before.end(), same);
            t << "| " << r.op << " | " << r.path << " | " << r.commands << " | " << fmt("%.2f", r.p50) << " | "
              << fmt("%.2f", r.p99) << " | " << fmt("%.2f", r.floor) << " | " << fmt("%.2f", r.ratio) << " ("
              << fmt("%.2f", r.ratio_lo) << "-" << fmt("%.2f", r.ratio_hi) << ") | " << fmt("%.2f", r.library)
              << " | " << thousands(std::llround(it->own)) << " | " << thousands(std::llround(it->libc)) << " | "
              << thousands(std::llround(it->cipher)) << " |";
            if (bt != before.end()) t << " " << thousands(std::llround(bt->own)) << " | " << thousands(std::llround(bt->libc)) << " |";
            t << "\n";
        }
        t << "\n| Figure | Value |\n|---|---|\n";
        t << "| Start-up to the hello frame (median of " << startup.size() << ") | " << fmt("%.1f", pct(startup, 50))
          << " ms (" << fmt("%.1f", pct(startup, 0)) << "-" << fmt("%.1f", pct(startup, 100)) << ") |\n";
        t << "| Stripped daemon | " << thousands(st.st_size) << " bytes; needs " << needed << "|\n";
        t << "| Private dirty memory, idle | " << idle << " KiB |\n";
        t << "| ... after " << thousands(cfg.mixed) << " mixed requests (4 managers) | " << mixed << " KiB |\n";
        t << "| ... then after " << thousands(cfg.managers) << " managers | " << managers << " KiB |\n";
        table = t.str();
    } while (false);
    if (rounds_out) std::fclose(rounds_out);
    sh(lab() + "down");
    std::fputs(table.c_str(), stdout);
    if (!cfg.out.empty()) std::ofstream(cfg.out) << table;
    return 0;
}
