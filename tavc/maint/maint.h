// SPDX-License-Identifier: ISC
// The maintenance and central-management group: the agent profile, firmware
// upgrade, configuration backup and restore, reboot. What the handlers share
// with each other and with tests.
#pragma once

#include <stdint.h>
#include <sys/types.h>

// Progress keys that managers poll with status queries.
inline constexpr const char *kFwUpgradeStatusKey = "/runtime/tavclient/function/fw_upgrade/status";
inline constexpr const char *kBackupStatusKey =
    "/runtime/tavclient/function/tav_configuration_backup/status";
inline constexpr const char *kRestoreStatusKey =
    "/runtime/tavclient/function/tav_configuration_restore/status";
// The verdict the device's tftp tool leaves after a firmware transfer.
inline constexpr const char *kUpdateVerdictKey = "/runtime/update/status";

// Stores the agent profile, marks the agent enabled and running, commits,
// and starts the agent unless one runs: its pid, or the start script's status.
int start_qm5_agent(const char *ag_uuid, const char *nms_server, uint8_t interval);
// 1 when both equal the stored identifier and server address, else 0.
int same_uuid_and_url(const char *ag_uuid, const char *nms_server);
// The pid of the first process whose first command-line argument is exactly
// `name`, or -1.
pid_t proc_find(const char *name);

// Workers: each forks, and the child fetches by tftp and records the
// outcome in its progress key. They return the child's pid (or -1) at once.
pid_t firmware_upgrade(const char *server, const char *file_name);
pid_t configuration_restore(const char *server, const char *file_name);
