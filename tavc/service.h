// SPDX-License-Identifier: ISC
// The device services that handlers start after a change. The pid-returning
// ones run their command line in a child and return at once (-1 when fork
// fails, and nothing runs); the SIGCHLD handler reaps the child.
#pragma once

#include <sys/types.h>

int store_config_to_flash();  // "submit COMMIT", waits; the shell's status
pid_t submit_wlan();          // "submit WAN; submit WLAN"
pid_t reboot_after_5s();      // "sleep 5; reboot"
pid_t submit_httpd();         // "submit HTTPD"
pid_t submit_mesh();          // "submit SMESH"
