// SPDX-License-Identifier: ISC
// Ops 0x0101 and 0x0102: configuration backup to and restore from a tftp
// server. A configure request starts the transfer in a child and answers at
// once; every request answers the progress key as it is afterwards
// (backup: 2 running, 0 ended; restore: 2 running, 0 done, 1 failed).
#include "lrgbin/rgdb_getset.h"
#include "proto/tags.h"
#include "proto/wire.h"
#include "platform/command.h"
#include "tavc/handlers.h"
#include "tavc/maint/maint.h"
#include "tavc/maint/transfer.h"
#include "platform/proc.h"
#include "tavc/reply.h"
#include "tavc/service.h"
#include "tavc/tlv_walk.h"

namespace {

using maint::Transfer;

constexpr auto kBackupRules = maint::transfer_rules(tav::kTagCfgOrUrlName);

constexpr TlvRequest<Transfer> kTransfer = maint::transfer_request(kBackupRules);

constexpr int kRunning = 2;

int answer(uint8_t *reply, const Transfer &req, const char *progress_key) {
    Reply r(reply);
    r.add(tav::kTagSubserviceType, req.subservice_type);
    r.add(tav::kTagReplyStatus, uint8_t(rgdb_get_digit_key(progress_key)));
    return r.finish(tav::kResultSuccess);
}

// A configure request for a tftp server starts a transfer unless one runs.
bool starts(const Transfer &req, int progress) {
    return req.server_type == maint::kTftpServer && req.subservice_type == maint::kConfigure &&
           progress != kRunning;
}

// In the child: upload, then mark the backup ended whatever the outcome.
void upload_child(void *arg) {
    static_cast<const Command *>(arg)->system();
    binary__rgdb_set_(kBackupStatusKey, 0);
}

using maint::Source;

// In the child: download; success reboots into the restored configuration.
void restore_child(void *arg) {
    const auto *src = static_cast<const Source *>(arg);
    Command tftp(512, "tftp -d %s -r %s", src->server, src->file_name);
    if (tftp.system() == 0) {
        binary__rgdb_set_(kRestoreStatusKey, 0);
        reboot_after_5s();
    } else {
        binary__rgdb_set_(kRestoreStatusKey, 1);
    }
}

}  // namespace

pid_t configuration_restore(const char *server, const char *file_name) {
    Source src{server, file_name};
    return proc_fork(restore_child, &src);
}

TAV_HANDLER(tav_configuration_backup) {
    Transfer req{};
    req.server_type = maint::kTftpServer;  // a backup request may leave it out
    if (Step s = tlv_request_prologue(kTransfer, body, body_length, reply, &req); s.ended())
        return s.result();
    if (starts(req, rgdb_get_digit_key(kBackupStatusKey))) {
        binary__rgdb_set_(kBackupStatusKey, kRunning);
        // The saved configuration must be in place before the upload starts.
        proc_system("/usr/sbin/sys -s configsave");
        Command upload(512, "tftp -r %s -p %s -l /var/config.bin", req.file_name, req.server);
        proc_fork(upload_child, &upload);
    }
    return answer(reply, req, kBackupStatusKey);
}

TAV_HANDLER(tav_configuration_restore) {
    Transfer req{};
    if (Step s = tlv_request_prologue(kTransfer, body, body_length, reply, &req); s.ended())
        return s.result();
    if (starts(req, rgdb_get_digit_key(kRestoreStatusKey))) {
        binary__rgdb_set_(kRestoreStatusKey, kRunning);
        configuration_restore(req.server, req.file_name);
    }
    return answer(reply, req, kRestoreStatusKey);
}
