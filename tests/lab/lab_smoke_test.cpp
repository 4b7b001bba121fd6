// SPDX-License-Identifier: ISC
// Brings the namespace lab up and checks what everything else relies on: the
// access point sees the lab's cipher, its own database and only stubs for the
// device commands; and nothing of the lab survives `down`. Needs root. (That
// frames and datagrams cross, every end-to-end suite shows.)
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <ctime>
#include <fstream>
#include <string>
#include <thread>


namespace {

using namespace std::literals;

// Output (stderr included) and exit status of a shell command line.
std::pair<std::string, int> sh(const std::string &cmd) {
    std::string out;
    FILE *p = popen((cmd + " 2>&1").c_str(), "r");
    char buf[4096];
    for (size_t n; p && (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    const int st = p ? pclose(p) : -1;
    return {out, WIFEXITED(st) ? WEXITSTATUS(st) : -1};
}
std::string slurp(const std::string &path) {
    std::ifstream f(path);
    return {std::istreambuf_iterator<char>(f), {}};
}
// The machine's clock moved by more than a minute against the monotonic
// clock since `mark` (whatever the time the test itself took).
struct ClockMark {
    time_t wall = time(nullptr);
    std::chrono::steady_clock::time_point mono = std::chrono::steady_clock::now();
    long moved() const {
        const auto mono_s = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - mono);
        return std::labs(long(time(nullptr) - wall) - long(mono_s.count()));
    }
};
bool exists(const std::string &path) { return std::filesystem::exists(std::filesystem::symlink_status(path)); }

// A lab instance of its own, so a lab someone else has up is never touched.
const std::string kName = "tavlab-"s + LAB_INSTANCE, kRun = "/run/" + kName + "/";
// The build whose programs the lab runs: this one, or a cross build's (tests/e2e/e2e.h).
const char *const kTarget = std::getenv("TAVC_E2E_TARGET");
const std::string kLab = TAVLAB_SCRIPT " --instance "s + LAB_INSTANCE + " ", kBuild = kTarget && *kTarget ? kTarget : LAB_BUILD_DIR;
int lab(const std::string &args) { return sh(kLab + args).second; }
std::pair<std::string, int> on(const std::string &host, const std::string &cmd) {
    setenv("TAVLAB_SMOKE_CMD", cmd.c_str(), 1);  // one argument, however it is quoted
    return sh(kLab + "exec " + host + " sh -c \"$TAVLAB_SMOKE_CMD\"");
}
std::string db_get(const std::string &host, const std::string &key) {
    std::string v = on(host, "rgdb -g " + key).first;
    return v.empty() ? v : v.substr(0, v.size() - 1);
}

class LabSmoke : public ::testing::Test {
protected:
    static inline std::pair<std::string, int> up_;
    static void SetUpTestSuite() {
        if (geteuid() == 0) up_ = (lab("down"), sh(kLab + "up -n 2 --build " + kBuild));
    }
    static void TearDownTestSuite() { geteuid() == 0 && lab("down"); }
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "the lab needs root";
        ASSERT_EQ(up_.second, 0) << up_.first;
        // Nothing below may run a device command unless it is sure to meet a stub.
        for (const char *ap : {"ap1", "ap2"}) {
            const auto probe = sh(kLab + "probe " + ap);
            ASSERT_EQ(probe.second, 0) << probe.first;
        }
    }
};

// Host pid of a process of the lab from `status --json` ("supervisor_pid" or "daemon_pid" of ap1).
std::string ap1_pid(const std::string &which) {
    const std::string json = sh(kLab + "status --json").first, key = "\"" + which + "\": ";
    const size_t ap1 = json.find("\"host\": \"ap1\""), at = json.find(key, ap1);
    if (ap1 == std::string::npos || at == std::string::npos) return "";
    return json.substr(at + key.size(), json.find_first_of(",}", at) - at - key.size());
}
// The capability bounding set of a process, from /proc/PID/status.
unsigned long long cap_bounding_set(const std::string &pid) {
    const std::string status = slurp("/proc/" + pid + "/status");
    const size_t at = status.find("CapBnd:");
    return at == std::string::npos ? ~0ull : std::stoull(status.substr(at + 7), nullptr, 16);
}
constexpr unsigned long long kSysModule = 1ull << 16, kSysBoot = 1ull << 22, kSysTime = 1ull << 25;

TEST_F(LabSmoke, AccessPointsSeeTheLabsCipherTheirOwnDatabaseAndOnlyStubs) {
    for (int n : {1, 2}) {
        const std::string ap = "ap" + std::to_string(n);
        EXPECT_EQ(on(ap, "cmp /usr/lib/TAV_Auth.so " + kBuild + "/sim/cipher/TAV_Auth.so").second, 0);
        EXPECT_EQ(db_get(ap, "/runtime/wan/inf:1/mac"), "02:7a:76:00:00:0" + std::to_string(n));
        EXPECT_EQ(db_get(ap, "/runtime/wan/inf:1/ip"), "192.0.2.1" + std::to_string(n));
        EXPECT_EQ(db_get(ap, "/sys/hostname"), n == 1 ? "ap1" : "ap2-lobby");  // the fleet varies from ap2 on
    }
    for (const char *path : {"/usr/lib/TAV_Auth.so", "/usr/sbin/submit", "/usr/sbin/sys", "/etc/templates",
                             "/var/run/events.log", "/var/config.bin"})
        EXPECT_FALSE(exists(path)) << path << " appeared on the host";
    // Every device command is a stub by name, with the lab's PATH and with the default PATH of a
    // shell started without environment, and at the absolute paths a command line may use.
    const std::pair<std::string, std::string> commands[] = {
        {"reboot", "reboot"}, {"date", "date"}, {"submit", "submit"}, {"nb_submit", "nb_submit"},
        {"tftp", "tftp"},     {"rgdb", "rgdb"}, {"sys", "sys"},       {"halt", "noop"},
        {"poweroff", "noop"}, {"hwclock", "noop"}};
    for (const auto &[c, is] : commands) {
        const std::string stub = "/usr/lib/tavlab/stubs/" + is + "\n";
        EXPECT_EQ(on("ap1", "readlink -f \"$(command -v " + c + ")\" \"$(env -i /bin/sh -c 'command -v " + c +
                                "')\" /sbin/" + c + " /bin/" + c + " /usr/sbin/" + c + " /usr/bin/" + c)
                      .first,
                  stub + stub + stub + stub + stub + stub)
            << c;
    }

    const std::string boot = slurp("/proc/sys/kernel/random/boot_id");
    const ClockMark before;
    EXPECT_EQ(on("ap1", "date -s '2030-01-02 03:04:05' && submit TIME").second, 0);
    EXPECT_NE(on("ap1", "date -s '2030-02-30 03:04:05'").second, 0);
    EXPECT_LT(before.moved(), 60L) << "machine clock moved";
    EXPECT_EQ(db_get("ap1", "/runtime/time/date"), "01/02/2030");
    // A simulated reboot restarts the access point only, keeping what was committed.
    const std::string boots = kRun + "ap2/boot_count", count = slurp(boots);
    EXPECT_EQ(on("ap2", "rgdb -s /lab/kept 1 && submit COMMIT && rgdb -s /lab/lost 1 && reboot").second, 0);
    for (int i = 0; i < 1200 && (slurp(boots) == count || slurp(kRun + "ap2/ready").empty()); ++i)
        std::this_thread::sleep_for(100ms);
    EXPECT_NE(slurp(boots), count) << "no simulated reboot";
    // The stub's wake-up signal arriving after its request was taken starts no second reboot.
    const std::string rebooted = slurp(boots);
    EXPECT_EQ(on("ap2", "kill -USR1 \"$(cat /var/run/supervisor.pid)\"").second, 0);
    std::this_thread::sleep_for(2500ms);
    EXPECT_EQ(slurp(boots), rebooted) << "a second reboot";
    EXPECT_EQ(db_get("ap2", "/lab/kept") + "|" + db_get("ap2", "/lab/lost"), "1|");
    EXPECT_EQ(slurp("/proc/sys/kernel/random/boot_id"), boot);
    const std::string events = slurp(kRun + "ap1/events.log") + slurp(kRun + "ap2/events.log");
    for (const char *want : {"\ndate -s '2030-01-02 03:04:05'\t", "\nsubmit TIME\t", "\nreboot\t"})
        EXPECT_NE(events.find(want), std::string::npos) << want << " not in:\n" << events;
    EXPECT_EQ(slurp(kRun + "ap2/events.log").find("submit TIME"), std::string::npos);
}

// The daemon, the database server and rgdb of an access point are the build's programs (a cross
// build's, for its CPU): the ELF file each process maps (under an emulator, qemu is the process).
TEST_F(LabSmoke, AccessPointsRunTheBuildsPrograms) {
    // rgdb waits for the stopped database long enough to be seen.
    const auto r = on("ap1", "for p in /proc/[0-9]*; do case $(cat $p/comm) in tavc) t=$p;; xmldb) x=$p;; esac; done;"
                             " kill -STOP ${x#/proc/}; rgdb -g /sys/hostname >/dev/null & g=/proc/$!;"
                             " for i in $(seq 200); do grep -q /sim/rgdb/rgdb $g/maps && break; sleep 0.05; done;"
                             " for p in $t:/tavc/tavc $x:/sim/xmldb/xmldb $g:/sim/rgdb/rgdb; do"
                             "  grep -om1 \"/[^ ]*${p#*:}$\" ${p%%:*}/maps; done; kill -CONT ${x#/proc/}; wait");
    const std::string b = std::filesystem::canonical(kBuild);
    EXPECT_EQ(r.first, b + "/tavc/tavc\n" + b + "/sim/xmldb/xmldb\n" + b + "/sim/rgdb/rgdb\n");
}

TEST_F(LabSmoke, NoProcessOfAnAccessPointMaySetTheClockRebootOrLoadModules) {
    for (const char *which : {"supervisor_pid", "daemon_pid"}) {
        const std::string pid = ap1_pid(which);
        ASSERT_FALSE(pid.empty() || pid == "null") << which;
        EXPECT_EQ(cap_bounding_set(pid) & (kSysModule | kSysBoot | kSysTime), 0u) << which << " " << pid;
    }
    const auto cap = on("ap1", "grep CapBnd /proc/self/status");
    EXPECT_EQ(std::stoull(cap.first.substr(cap.first.find(':') + 1), nullptr, 16) & (kSysBoot | kSysTime), 0u)
        << cap.first;
}

// The lab fails closed: an access point that lacks its overlays, from the start
// or later, runs neither the daemon nor anything given to `exec`.
TEST(LabSafety, AnAccessPointWithoutItsOverlaysRunsNothing) {
    if (geteuid() != 0) GTEST_SKIP() << "the lab needs root";
    const std::string boot = slurp("/proc/sys/kernel/random/boot_id");
    const ClockMark before;
    lab("down");
    // Broken later: one overlay gone under a running access point.
    ASSERT_EQ(lab("up -n 1 --no-daemon --build " + kBuild), 0);
    ASSERT_EQ(sh(kLab + "probe ap1").second, 0);
    const std::string sup = ap1_pid("supervisor_pid");
    ASSERT_EQ(sh("nsenter -t " + sup + " -m -p umount /usr/sbin").second, 0);
    auto refused = on("ap1", "date -s '2030-01-02 03:04:05'; echo ran");
    EXPECT_EQ(refused.second, 126);  // the probe's refusal, whichever check refused
    EXPECT_EQ(refused.first.find("ran"), std::string::npos) << refused.first;
    EXPECT_NE(refused.first.find("/usr/sbin/submit is missing"), std::string::npos) << refused.first;
    EXPECT_NE(refused.first.find("nothing was run"), std::string::npos) << refused.first;
    EXPECT_EQ(lab("down"), 0);

    // Broken from the start (the test-only switch): no daemon, and exec refuses.
    setenv("TAVLAB_TEST_BREAK_OVERLAYS", "1", 1);
    const auto up = sh(kLab + "up -n 1 --build " + kBuild);
    unsetenv("TAVLAB_TEST_BREAK_OVERLAYS");
    ASSERT_EQ(up.second, 0) << up.first;
    EXPECT_EQ(ap1_pid("daemon_pid"), "null");
    EXPECT_EQ(sh("ip netns pids " + kName + "-ap1 | xargs -r -I@ cat /proc/@/comm | grep -cx tavc").first, "0\n");
    const auto probe = sh(kLab + "probe ap1");
    EXPECT_NE(probe.second, 0);
    for (const char *want : {"this is not the access point's root", "date -> /", "/usr/sbin/submit is missing"})
        EXPECT_NE(probe.first.find(want), std::string::npos) << want << " not in: " << probe.first;
    refused = on("ap1", "date -s '2030-01-02 03:04:05'; echo ran");
    EXPECT_EQ(refused.second, 126);  // the probe's refusal, whichever check refused
    EXPECT_EQ(refused.first.find("ran"), std::string::npos) << refused.first;
    EXPECT_EQ(slurp(kRun + "ap1/events.log"), "");
    EXPECT_EQ(lab("down"), 0);
    EXPECT_LT(before.moved(), 60L) << "machine clock moved";
    EXPECT_EQ(slurp("/proc/sys/kernel/random/boot_id"), boot);
}

// Brought up and entered from a chroot (as in a clean build image), exec
// still lands in the access point's root, not in the machine's.
TEST(LabSafety, FromAChrootExecLandsInTheAccessPoint) {
    if (geteuid() != 0) GTEST_SKIP() << "the lab needs root";
    lab("down");
    const ClockMark before;
    // The whole machine seen again under a directory, in a mount namespace of its own.
    setenv("TAVLAB_SMOKE_CMD", (kLab + "up -n 1 --no-daemon --build " + kBuild + " >/dev/null 2>&1 && " + kLab +
                                "exec ap1 sh -c 'readlink -f $(command -v date) /bin/date; date -s 2030-01-02'; " + kLab +
                                "down")
                                   .c_str(),
           1);
    const auto r = sh("unshare -m --propagation private sh -c 'root=$(mktemp -d) && mount --rbind / \"$root\" &&"
                      " chroot \"$root\" sh -c \"$TAVLAB_SMOKE_CMD\"; umount -l \"$root\"; rmdir \"$root\"'");
    EXPECT_EQ(r.first, "/usr/lib/tavlab/stubs/date\n/usr/lib/tavlab/stubs/date\nWed Jan  2 00:00:00 UTC 2030\n");
    EXPECT_LT(before.moved(), 60L) << "machine clock moved";
    EXPECT_EQ(lab("down"), 0);
}

TEST(LabDown, LeavesNothingBehind) {
    if (geteuid() != 0) GTEST_SKIP() << "the lab needs root";
    auto leftovers = [] {
        // Separate scans, and the bracket, keep the process scan from finding itself.
        return sh("ip netns list | grep -- " + kName + "-; grep -- " + kName + " /proc/mounts;"
                  " ls /sys/class/net | grep -E '^(veth-|sw0$)'").first +
               sh("cat /proc/[0-9]*/cmdline 2>/dev/null | tr '\\0' '\\n' | grep -e '/run/[t]avlab-" LAB_INSTANCE "/'").first +
               (exists(kRun) ? kRun : "");
    };
    lab("down");
    ASSERT_EQ(lab("up -n 3 --no-daemon --build " + kBuild), 0);
    EXPECT_NE(lab("up -n 1 --build " + kBuild), 0) << "second lab over the first";
    EXPECT_NE(leftovers(), "");
    EXPECT_EQ(lab("down"), 0);
    EXPECT_EQ(leftovers(), "");
    EXPECT_EQ(lab("down"), 0) << "down must be idempotent";
    EXPECT_EQ(sh(kLab + "status").first, "lab is down\n");
}

}  // namespace
