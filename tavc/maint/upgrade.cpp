// SPDX-License-Identifier: ISC
// Op 0x0100: firmware upgrade by tftp, started by one request and followed
// by status queries through the progress key
// (0 idle, 2 running, 3 done and rebooting, 1 failed).
#include <stdio.h>
#include <string.h>

#include "lrgbin/rgdb_getset.h"
#include "proto/tags.h"
#include "proto/wire.h"
#include "platform/command.h"
#include "tavc/handlers.h"
#include "tavc/maint/maint.h"
#include "tavc/maint/transfer.h"
#include "platform/proc.h"
#include "tavc/reply.h"
#include "tavc/tlv_walk.h"

namespace {

using maint::Transfer;

constexpr auto kUpgradeRules = maint::transfer_rules(tav::kTagFwOrUrlName);

constexpr TlvRequest<Transfer> kUpgrade = maint::transfer_request(kUpgradeRules);

enum FwProgress : uint8_t { kIdle = 0, kFailed = 1, kRunning = 2, kDone = 3 };

using maint::Source;

// In the child: fetch and install, then record the verdict the tool left.
void upgrade_child(void *arg) {
    const auto *src = static_cast<const Source *>(arg);
    Command tftp(512, "tftp -f %s -r %s", src->server, src->file_name);
    if (!tftp.ok()) {
        // Never run a cut command; the verdict key would be a stale one.
        binary__rgdb_set_(kFwUpgradeStatusKey, kFailed);
        return;
    }
    tftp.system();
    char verdict[64] = {};
    rgdb_get_key(verdict, sizeof verdict, kUpdateVerdictKey);
    printf("firmware upgrade:%s\n", verdict);
    fflush(stdout);
    if (strcmp(verdict, "FW_SUCCESS") == 0) {
        binary__rgdb_set_(kFwUpgradeStatusKey, kDone);
        proc_system("sleep 5; reboot");
    } else {
        binary__rgdb_set_(kFwUpgradeStatusKey, kFailed);
    }
}

}  // namespace

pid_t firmware_upgrade(const char *server, const char *file_name) {
    Source src{server, file_name};
    return proc_fork(upgrade_child, &src);
}

TAV_HANDLER(tav_firmware_upgrade) {
    Transfer req{};
    if (Step s = tlv_request_prologue(kUpgrade, body, body_length, reply, &req); s.ended())
        return s.result();

    int progress = rgdb_get_digit_key(kFwUpgradeStatusKey);
    uint8_t status = 0;
    if (req.server_type == maint::kTftpServer && req.subservice_type == maint::kConfigure) {
        // A run in progress, or one that succeeded and reboots, is left alone.
        if (progress == kIdle || progress == kFailed) {
            binary__rgdb_set_(kFwUpgradeStatusKey, kRunning);
            firmware_upgrade(req.server, req.file_name);
        }
    } else if (req.subservice_type == maint::kStatusQuery) {
        // Success reads as 0: the device is on its way down by then.
        status = progress == kRunning ? kRunning : progress == kFailed ? kFailed : 0;
    }

    Reply r(reply);
    r.add(tav::kTagSubserviceType, req.subservice_type);
    r.add(tav::kTagReplyStatus, status);
    if (status == kFailed)  // with its NUL in this op code
        r.add(tav::kTagFailureText.in<tav::kOpFirmwareUpgrade>(), "upgrade FW failed");
    return r.finish(tav::kResultSuccess);
}
