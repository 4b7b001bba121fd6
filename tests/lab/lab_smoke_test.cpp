// Brings the namespace lab up and checks what everything else relies on: the
// access point sees the lab's cipher, its own database and only stubs for the
// device commands; frames and datagrams cross between manager and access
// points; and nothing of the lab survives `down`. Needs root.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace {

struct Result {
    int status;
    std::string out;
};

Result sh(const std::string &cmd) {
    Result r{-1, {}};
    FILE *p = popen((cmd + " 2>&1").c_str(), "r");
    if (p == nullptr) return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    const int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

std::string quote(const std::string &s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// A lab instance of its own, so a lab someone else has up is never touched.
const std::string kInstance = LAB_INSTANCE;
const std::string kLab = std::string(TAVLAB_SCRIPT) + " --instance " + kInstance;
const std::string kRun = "/run/tavlab-" + kInstance + "/";
const std::string kBuild = LAB_BUILD_DIR;
const std::string kPython = "/usr/bin/python3";

Result lab(const std::string &args) { return sh(kLab + " " + args); }
Result on(const std::string &host, const std::string &cmd) {
    return lab("exec " + host + " sh -c " + quote(cmd));
}
std::string trimmed(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
    return s;
}
std::string db_get(const std::string &host, const std::string &key) {
    return trimmed(on(host, "rgdb -g " + quote(key)).out);
}
std::string slurp(const std::string &path) {
    std::ifstream f(path);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}
bool exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}
bool have_database() { return access((kBuild + "/sim/rgdb/rgdb").c_str(), X_OK) == 0 &&
                              access((kBuild + "/sim/xmldb/xmldb").c_str(), X_OK) == 0; }
std::string boot_id() { return slurp("/proc/sys/kernel/random/boot_id"); }

// What must be gone after `down`; empty when nothing is left.
std::string leftovers() {
    std::string left;
    const std::string name = "tavlab-" + kInstance;
    const Result ns = sh("ip netns list | grep -- " + name + "-");
    if (!ns.out.empty()) left += "namespaces: " + ns.out;
    const Result mounts = sh("grep -- " + name + " /proc/mounts");
    if (!mounts.out.empty()) left += "mounts: " + mounts.out;
    if (exists(kRun)) left += kRun + " exists\n";
    // The bracket keeps the scan from finding itself.
    const Result procs = sh(
        "for f in /proc/[0-9]*/cmdline; do tr '\\0' ' ' <$f 2>/dev/null; echo; done"
        " | grep -e '/run/[t]avlab-" + kInstance + "/'");
    if (!procs.out.empty()) left += "processes: " + procs.out;
    const Result links = sh("ls /sys/class/net | grep -E '^(veth-|sw0$)'");
    if (!links.out.empty()) left += "interfaces: " + links.out;
    return left;
}

class LabSmoke : public ::testing::Test {
protected:
    static inline Result up_;

    static void SetUpTestSuite() {
        if (geteuid() != 0) return;
        lab("down");
        up_ = lab("up -n 2 --build " + quote(kBuild));
    }
    static void TearDownTestSuite() {
        if (geteuid() == 0) lab("down");
    }
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "the lab needs root";
        ASSERT_EQ(up_.status, 0) << up_.out;
    }
};

TEST_F(LabSmoke, AccessPointLoadsTheLabsCipherAndHostHasNone) {
    const std::string cipher = kBuild + "/sim/cipher/TAV_Auth.so";
    for (const char *ap : {"ap1", "ap2"})
        EXPECT_EQ(on(ap, "cmp /usr/lib/TAV_Auth.so " + quote(cipher)).status, 0) << ap;
    for (const char *path : {"/usr/lib/TAV_Auth.so", "/usr/sbin/submit", "/usr/sbin/sys",
                             "/etc/templates", "/var/run/events.log", "/var/config.bin"})
        EXPECT_FALSE(exists(path)) << path << " appeared on the host";
}

TEST_F(LabSmoke, DatabaseAnswersEachAccessPointsOwnIdentity) {
    if (!have_database()) GTEST_SKIP() << "xmldb/rgdb not built in " << kBuild;
    struct {
        const char *ap, *mac, *ip;
    } cases[] = {{"ap1", "02:7a:76:00:00:01", "192.0.2.11"},
                 {"ap2", "02:7a:76:00:00:02", "192.0.2.12"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.ap);
        EXPECT_EQ(db_get(c.ap, "/runtime/wan/inf:1/mac"), c.mac);
        EXPECT_EQ(db_get(c.ap, "/runtime/wan/inf:1/ip"), c.ip);
        EXPECT_EQ(db_get(c.ap, "/runtime/wan/inf:1/netmask"), "255.255.255.0");
        EXPECT_EQ(db_get(c.ap, "/sys/hostname"), c.ap);
        EXPECT_TRUE(exists(kRun + c.ap + "/xmldb_sock"));
    }
}

TEST_F(LabSmoke, DeviceCommandsAreStubsThatRecordAndStayInside) {
    const Result where = on("ap1",
                            "for c in reboot date submit tftp rgdb sys nb_submit halt; do "
                            "command -v $c; done; readlink -f /sbin/reboot /bin/date "
                            "/usr/sbin/submit /usr/sbin/sys; ls /etc/templates");
    ASSERT_EQ(where.status, 0) << where.out;
    std::istringstream lines(where.out);
    std::string line;
    int stubs = 0;
    while (std::getline(lines, line))
        if (line.rfind("/usr/lib/tavlab/stubs/", 0) == 0) ++stubs;
    EXPECT_EQ(stubs, 12) << where.out;
    for (const char *t : {"webs.sh", "console.sh", "qm5_agent.sh"})
        EXPECT_NE(where.out.find(t), std::string::npos) << t;

    const std::string boot = boot_id();
    const time_t before = time(nullptr);
    EXPECT_EQ(on("ap1", "date -s '2030-01-02 03:04:05' && submit TIME").status, 0);
    EXPECT_NE(on("ap1", "date -s '2030-02-30 03:04:05'").status, 0);
    EXPECT_LT(std::labs(static_cast<long>(time(nullptr) - before)), 60L) << "machine clock moved";
    EXPECT_EQ(boot_id(), boot);
    EXPECT_EQ(on("ap1", "/usr/sbin/submit GET_PENDING_LIST").status, 0);

    const std::string events = slurp(kRun + "ap1/events.log");
    for (const char *want : {"date -s '2030-01-02 03:04:05'\t", "submit TIME\t",
                             "submit GET_PENDING_LIST\t"})
        EXPECT_NE(events.find(std::string("\n") + want), std::string::npos)
            << want << " not in:\n" << events;
    EXPECT_EQ(slurp(kRun + "ap2/events.log").find("submit TIME"), std::string::npos)
        << "one access point's calls leaked into another's log";
    if (have_database()) {
        EXPECT_EQ(db_get("ap1", "/runtime/time/date"), "01/02/2030");
        EXPECT_EQ(db_get("ap1", "/runtime/time/time"), "03:04:05");
        EXPECT_EQ(trimmed(on("ap1", "date +%Y%m%d%H%M%S").out), "20300102030405");
    }
}

TEST_F(LabSmoke, RebootKeepsCommittedSettingsOnly) {
    if (!have_database()) GTEST_SKIP() << "xmldb/rgdb not built in " << kBuild;
    const std::string boot = boot_id();
    const std::string boots_file = kRun + "ap2/boot_count";
    const int boots = std::atoi(slurp(boots_file).c_str());
    ASSERT_EQ(on("ap2", "rgdb -s /lab/kept 1 && submit COMMIT && rgdb -s /lab/lost 1").status, 0);
    ASSERT_EQ(on("ap2", "reboot").status, 0);
    for (int i = 0; i < 100 && std::atoi(slurp(boots_file).c_str()) == boots; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ASSERT_EQ(std::atoi(slurp(boots_file).c_str()), boots + 1) << "no simulated reboot";
    for (int i = 0; i < 50 && slurp(kRun + "ap2/ready").empty(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(db_get("ap2", "/lab/kept"), "1");
    EXPECT_EQ(db_get("ap2", "/lab/lost"), "");
    EXPECT_EQ(db_get("ap2", "/runtime/wan/inf:1/mac"), "02:7a:76:00:00:02");
    EXPECT_NE(slurp(kRun + "ap2/events.log").find("\nreboot\t"), std::string::npos);
    EXPECT_EQ(boot_id(), boot) << "the machine rebooted?!";
}

TEST_F(LabSmoke, FramesAndDatagramsCrossBetweenManagerAndAccessPoints) {
    if (access(kPython.c_str(), X_OK) != 0) GTEST_SKIP() << "no " << kPython;
    const std::string x = kPython + " " + XCROSS_SCRIPT + " ";
    struct {
        const char *what, *rx_host, *rx, *tx_host, *tx, *from;
    } cases[] = {
        {"raw to ap", "ap1", "rawrecv T1 3", "mgr", "rawsend eth0 T1", "02:7a:76:00:00:fe"},
        {"raw to mgr", "mgr", "rawrecv T2 3", "ap2", "rawsend br0 T2", "02:7a:76:00:00:02"},
        {"udp broadcast", "ap2", "udprecv 40000 T3 3", "mgr", "udpsend 192.0.2.255 40000 T3",
         "192.0.2.1"},
        {"udp multicast", "ap1", "udprecv 40001 T4 3", "mgr", "udpsend 224.0.0.1 40001 T4",
         "192.0.2.1"},
        {"udp unicast", "mgr", "udprecv 40002 T5 3", "ap1", "udpsend 192.0.2.1 40002 T5",
         "192.0.2.11"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        FILE *rx = popen((kLab + " exec " + c.rx_host + " " + x + c.rx + " 2>&1").c_str(), "r");
        ASSERT_NE(rx, nullptr);
        char line[256] = {};
        const bool ready = fgets(line, sizeof line, rx) != nullptr &&
                           std::string(line) == "ready\n";
        if (ready)
            for (int i = 0; i < 3; ++i) {  // a few copies, in case the first races the socket
                lab(std::string("exec ") + c.tx_host + " " + x + c.tx);
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
        std::string got;
        while (fgets(line, sizeof line, rx) != nullptr) got += line;
        const int st = pclose(rx);
        ASSERT_TRUE(ready) << line;
        EXPECT_EQ(got, std::string("got ") + c.from + "\n");
        EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
    }
}

TEST(LabDown, LeavesNothingBehind) {
    if (geteuid() != 0) GTEST_SKIP() << "the lab needs root";
    lab("down");
    const Result up = lab("up -n 3 --no-daemon --build " + quote(kBuild));
    ASSERT_EQ(up.status, 0) << up.out;
    EXPECT_NE(lab("up -n 1 --build " + quote(kBuild)).status, 0) << "second lab over the first";
    EXPECT_NE(leftovers(), "");
    const Result down = lab("down");
    EXPECT_EQ(down.status, 0) << down.out;
    EXPECT_EQ(leftovers(), "");
    EXPECT_EQ(lab("down").status, 0) << "down must be idempotent";
    EXPECT_EQ(trimmed(lab("status").out), "lab is down");
}

}  // namespace
