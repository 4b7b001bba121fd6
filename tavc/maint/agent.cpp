// SPDX-License-Identifier: ISC
// Op 0x00E6: the central-management agent's profile, and starting the agent.
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "lrgbin/rgdb_getset.h"
#include "proto/tags.h"
#include "proto/wire.h"
#include "tavc/handlers.h"
#include "tavc/maint/maint.h"
#include "platform/proc.h"
#include "tavc/reply.h"
#include "tavc/service.h"
#include "tavc/tlv_walk.h"
#include "tavc/trace.h"

namespace {

struct AgentProfile {
    char ag_uuid[33];
    char nms_server[257];
    uint8_t msg_interval;
    char user_name[65];
    char password[65];
};

constexpr TlvRule kAgentProfileRules[] = {
    tlv_precedence(),
    tlv_text(tav::kTagAgUuid, Take::Declared, 0, TAVC_FIELD(AgentProfile, ag_uuid)),
    tlv_text(tav::kTagNmsServer, Take::Declared, 0, TAVC_FIELD(AgentProfile, nms_server)),
    tlv_u8(tav::kTagMsgInterval, TAVC_FIELD(AgentProfile, msg_interval)),
    tlv_text(tav::kTagUserName, Take::DeclaredMax, 65, TAVC_FIELD(AgentProfile, user_name)),
    tlv_text(tav::kTagPassword, Take::DeclaredMax, 65, TAVC_FIELD(AgentProfile, password)),
};

constexpr TlvRequest<AgentProfile> kAgentProfile{
    kAgentProfileRules,
    Take::Declared,
    ParamRefusal{tav::kResultRefused},
    PrecedenceRefusal{tav::kResultRefused},
    AuthRefusal{tav::kResultAuthFailed},
    tlv_credentials(TAVC_FIELD(AgentProfile, user_name), TAVC_FIELD(AgentProfile, password))};

// A stored value equals `given` in length and bytes. The buffers hold the
// full accepted lengths (32 and 256 characters), so a profile of full length
// compares equal to itself.
bool same_stored(const char *key, char *buf, int cap, const char *given) {
    memset(buf, 0, size_t(cap));
    rgdb_get_key(buf, cap, key);
    return strlen(buf) == strlen(given) && strcmp(buf, given) == 0;
}

bool all_digits(const char *s) {
    if (*s == '\0') return false;
    for (; *s; ++s)
        if (*s < '0' || *s > '9') return false;
    return true;
}

}  // namespace

int same_uuid_and_url(const char *ag_uuid, const char *nms_server) {
    char uuid[33], server[257];
    bool same = same_stored("/qm5_agent/ag_uuid", uuid, sizeof uuid, ag_uuid);
    same = same_stored("/qm5_agent/nms_server", server, sizeof server, nms_server) && same;
    return same ? 1 : 0;
}

pid_t proc_find(const char *name) {
    DIR *dir = opendir("/proc");
    if (dir == nullptr) {
        perror("can't open /proc");
        return -1;
    }
    while (const dirent *e = readdir(dir)) {
        if (!all_digits(e->d_name)) continue;
        long pid = strtol(e->d_name, nullptr, 10);
        char path[64];
        snprintf(path, sizeof path, "/proc/%ld/cmdline", pid);
        FILE *f = fopen(path, "r");
        if (f == nullptr) continue;
        char line[512] = {};
        bool got = fgets(line, sizeof line, f) != nullptr;
        fclose(f);
        if (!got) continue;
        // Arguments are NUL-separated: the text up to the first space (or
        // the end of the line) is the first argument.
        line[strcspn(line, " \n")] = '\0';
        if (line[0] != '\0' && strcmp(line, name) == 0) {
            closedir(dir);
            return pid_t(pid);
        }
    }
    closedir(dir);
    return -1;
}

int start_qm5_agent(const char *ag_uuid, const char *nms_server, uint8_t interval) {
    // A new identifier or server, while no agent runs, starts the
    // registration afresh.
    if (rgdb_get_digit("/qm5_agent/running") == 0 && !same_uuid_and_url(ag_uuid, nms_server)) {
        binary__rgdb_set_("/qm5_agent/record_unmanaged", 0);
        binary__rgdb_set_("/qm5_agent/reg_pass", 0);
    }
    tav_rgdb_set_str(ag_uuid, "/qm5_agent/ag_uuid");
    tav_rgdb_set_str(nms_server, "/qm5_agent/nms_server");
    tav_rgdb_set_digit(interval, "/qm5_agent/keep_alive");
    binary__rgdb_set_("/qm5_agent/enable", 1);
    binary__rgdb_set_("/qm5_agent/running", 1);

    int version = rgdb_get_digit("/runtime/qm5_agent/tav_sync_version") + 1;
    tav_rgdb_set_digit(version > 99 ? 1 : version, "/runtime/qm5_agent/tav_sync_version");

    store_config_to_flash();

    if (pid_t pid = proc_find("qm5_agent"); pid != -1) return pid;
    return proc_system("sh /etc/templates/qm5_agent.sh 2> /dev/console");
}

TAV_HANDLER(tav_set_ag_profile) {
    AgentProfile req{};
    if (Step s = tlv_request_prologue(kAgentProfile, body, body_length, reply, &req); s.ended())
        return s.result();
    TAV_DEBUG("tav_authentic success\n");
    proc_system("rgdb -d /sys/swcontroller");
    start_qm5_agent(req.ag_uuid, req.nms_server, req.msg_interval);
    Reply r(reply);
    r.add(tav::kTagReplyStatus, uint8_t{0});
    return r.finish(tav::kResultSuccess);
}
