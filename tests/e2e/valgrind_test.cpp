// The daemon under valgrind's memcheck in the lab, through end-to-end traffic
// (every op code, verification, hostile bursts on both paths) and its
// SIGTERM exit: no memory error and no definite leak.
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <regex>

#include "tests/e2e/hostile_support.h"

namespace e2e {
namespace {

// A build directory for the lab whose daemon is this build's, started by
// valgrind: the stand-ins are this build's own.
std::string valgrind_build() {
    const std::string dir = std::string(E2E_BUILD_DIR) + "/valgrind-lab";
    mkdir(dir.c_str(), 0755);
    mkdir((dir + "/tavc").c_str(), 0755);
    unlink((dir + "/sim").c_str());
    if (symlink((std::string(E2E_BUILD_DIR) + "/sim").c_str(), (dir + "/sim").c_str()) != 0) return {};
    const std::string script = dir + "/tavc/tavc";
    std::ofstream(script) << "#!/bin/sh\nexec " << E2E_VALGRIND
                          << " --tool=memcheck --leak-check=full --show-leak-kinds=definite"
                             " --errors-for-leak-kinds=definite --error-exitcode=99"
                             " --child-silent-after-fork=yes --log-file=/var/run/valgrind.log "
                          << E2E_BUILD_DIR << "/tavc/tavc\n";
    chmod(script.c_str(), 0755);
    return dir;
}

E2E_SUITE(Valgrind, "vg", 1, "--build " + quote(valgrind_build()));

TEST_F(Valgrind, TrafficAndExitWithoutErrorsOrDefiniteLeaks) {
    Client raw = lab().raw(), udp = lab().udp();
    for (const char *password : {"admin", "wrong"}) {
        TlvList tlvs = tav::requests::lead("admin", password);
        EXPECT_TRUE(raw.request_one(tav::kOpUserVerification, tlvs, kLong));
    }
    // Every op code with its tags, refused at authentication where it changes
    // something (the lab must not reboot under the test).
    for (const auto &row : tav::kOpCodes) {
        TlvList tlvs = tav::requests::lead("admin", HostileTraffic::kWrongPassword);
        for (auto &r : tav::requests::tags_of(row.code, "request")) tlvs.push_back(r);
        (void)udp.request(row.code, tlvs, 300ms);
    }
    HostileTraffic gen(11);
    Counts n;
    for (int i = 0; i < 30; ++i) {
        burst(gen, raw, udp, n);
        EXPECT_TRUE(discovered(raw, udp, n)) << "not serving after " << n.total();
    }
    const int pid = daemon_pid(lab());
    const int status = terminate_daemon(lab(), pid);
    const std::string report = slurp(lab().run_file(1, "valgrind.log"));
    EXPECT_EQ(status, 1) << "status 99 means memcheck found something\n" << report;
    EXPECT_NE(report.find("ERROR SUMMARY: 0 errors"), std::string::npos) << report;
    EXPECT_FALSE(std::regex_search(report, std::regex("definitely lost: [1-9]"))) << report;
    std::smatch m;
    for (const char *what : {"total heap usage:[^\n]*", "ERROR SUMMARY:[^\n]*", "definitely lost:[^\n]*",
                             "All heap blocks were freed[^\n]*"})
        if (std::regex_search(report, m, std::regex(what))) std::printf("valgrind: %s\n", m.str().c_str());
    std::printf("valgrind: %ld malformed messages, exit by SIGTERM\n", n.total());
}

}  // namespace
}  // namespace e2e
