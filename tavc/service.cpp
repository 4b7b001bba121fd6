// SPDX-License-Identifier: ISC
// Service actions shared by the handler groups. The fire-and-forget ones run
// in a child that starts the command line through the shell and exits 0; the
// caller never waits.
#include "tavc/service.h"

#include "platform/proc.h"

int store_config_to_flash() { return proc_system("submit COMMIT"); }

static void run_line(void *line) { proc_system(*static_cast<const ShellLine *>(line)); }

static pid_t in_child(const ShellLine &line) {
    return proc_fork(run_line, const_cast<ShellLine *>(&line));
}

pid_t submit_wlan() {
    static constexpr ShellLine kLine = "submit WAN; submit WLAN";
    return in_child(kLine);
}
pid_t reboot_after_5s() {
    static constexpr ShellLine kLine = "sleep 5; reboot";
    return in_child(kLine);
}
pid_t submit_httpd() {
    static constexpr ShellLine kLine = "submit HTTPD";
    return in_child(kLine);
}
pid_t submit_mesh() {
    static constexpr ShellLine kLine = "submit SMESH";
    return in_child(kLine);
}
