// SPDX-License-Identifier: ISC
// Client of the configuration database socket and small process/text
// utilities. Usable from C and C++; needs nothing beyond libc.
#pragma once

#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef XMLDB_SOCK
#define XMLDB_SOCK "/var/run/xmldb_sock"
#endif

// Request and non-text reply header: host byte order, packed (16 bytes).
struct __attribute__((packed)) xmldb_header {
    uint16_t command;
    uint16_t data_length;  // payload bytes, terminating NUL included
    uint64_t flags;
    int32_t status;
};

enum xmldb_command {
    XMLDB_GET = 1,
    XMLDB_SET = 2,
    XMLDB_DEL = 3,
    XMLDB_RELOAD = 4,
    XMLDB_DUMP = 5,
    XMLDB_PATCH = 6,
    XMLDB_PATCH_BUFFER = 7,
    XMLDB_SET_NOTIFY = 8,
    XMLDB_EPHP = 10,
};

int lrgdb_open(const char *path);
int lrgdb_close(int fd);
int send_xmldb_cmd(int fd, uint16_t command, uint64_t flags, const void *data, uint16_t length);
void redirect_output(int fd, FILE *out);

int lrgdb_get(int fd, uint64_t flags, const char *key, FILE *out);
int lrgdb_set(int fd, uint64_t flags, const char *key, const char *value);
int lrgdb_set_notify(int fd, uint64_t flags, const char *key, const char *value);
int lrgdb_del(int fd, uint64_t flags, const char *key);
int lrgdb_reload(int fd, uint64_t flags, const char *arg);
int lrgdb_dump(int fd, uint64_t flags, const char *arg);
int lrgdb_patch(int fd, uint64_t flags, const char *arg, FILE *out);
int lrgdb_patch_buffer(int fd, uint64_t flags, const char *arg, FILE *out);
int lrgdb_ephp(int fd, uint64_t flags, const char *arg, FILE *out);
int lrgdb_getwb(int fd, char *buf, int size, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

// Process and text utilities. lrgbin_system and lrgbin_run_shell hand their
// printf-composed text to the shell unquoted: never give them text from a
// request. The daemon's engine and handlers do not call them (a build check
// fails on such a call); they compose commands with platform/command.h.
int lrgbin_system(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
int lrgbin_run_shell(char *buf, int size, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
char *lrgbin_eatwhite(char *s);
int lrgbin_reatwhite(char *s);

struct lrgbin_pa {
    uint64_t growby;
    uint64_t capacity;
    void **slots;
};
void lrgbin_pa_init(struct lrgbin_pa *pa, uint64_t growby);
int lrgbin_pa_grows(struct lrgbin_pa *pa, uint64_t capacity);
void *lrgbin_pa_get_nth(struct lrgbin_pa *pa, uint64_t index);
int lrgbin_pa_set_nth(struct lrgbin_pa *pa, uint64_t index, void *ptr, int release_old);
void lrgbin_pa_destroy(struct lrgbin_pa *pa, int release_items);

char *lrgbin_getdaystring(int first, int last);
char *lrgbin_get_line_from_file(FILE *in, int strip_lf);

#ifdef __cplusplus
}
#endif
