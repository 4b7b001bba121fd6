// SPDX-License-Identifier: ISC
// Typed access to configuration keys: one database connection per call.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

int _rgdb_get_(char *buf, int size, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
int rgdb_get_digit(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// The same for a key composed already: _rgdb_get_(buf, size, "%s", key) and
// rgdb_get_digit("%s", key), without scanning a format for every key.
int rgdb_get_key(char *buf, int size, const char *key);
int rgdb_get_digit_key(const char *key);
int _rgdb_set_(const char *key, const char *value);
int tav_rgdb_set_digit(int value, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
int tav_rgdb_set_str(const char *value, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));
int binary__rgdb_set_(const char *key, unsigned long value);
// snprintf for keys, without its cost for the daemon's plain formats.
void rgdb_format_key(char *buf, int size, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
int cli_get_val(char *buf, int size, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif
