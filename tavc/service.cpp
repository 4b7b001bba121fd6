// Fire-and-forget service actions shared by several handler groups: a child
// runs the command line through the shell and exits 0; the caller never
// waits (the SIGCHLD handler reaps it).
#include "tavc/proc.h"
#include "tavc/tavc.h"

static void run_shell(void *cmd) { proc_system(static_cast<const char *>(cmd)); }

static pid_t in_child(const char *cmd) { return proc_fork(run_shell, const_cast<char *>(cmd)); }

pid_t submit_wlan() { return in_child("submit WAN; submit WLAN"); }
pid_t reboot_after_5s() { return in_child("sleep 5; reboot"); }
