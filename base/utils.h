// Helpers shared by every module: JSON getters, strings and memory, a shell
// runner, Base64, interface lists and bitmaps, hex dumps, time and the stack
// file CRC. The network helpers live beside them in netutils.h and come in
// with this header.
#pragma once

#include "log.h"
#include "netutils.h"
#include "utf8.h"

#include <cstddef>
#include <ctime>
#include <jansson.h>
#include <string>

void utils_init(void);

// Each returns 1 and the value, or logs "no"/"bad" object and returns -1.
int get_json_string_value(json_t *obj, const char *key, char *value, size_t len);
int get_json_int_value(json_t *obj, const char *key, int *value);
int get_json_boolean_value(json_t *obj, const char *key, int *value);

// logfmt is logged with "Out of memory" as its one argument when the
// allocation fails; message (if given) receives the same text.
char *strdup_with_error(const char *str, const char *logfmt, char *message);
void *calloc_with_error(size_t size, const char *logfmt, char *message);

void strip_char(const char *str, char ch, char *out);
// Replaces every ch2 by ch1: the replacement comes first.
void replace_char(char *str, char ch1, char ch2);
int _sys(const char *cmd, ...) __attribute__((format(printf, 1, 2)));

extern const char base64_alphabet[];
// Null ilenp: the input is a string. Results are heap strings.
char *base64_encode(const char *istr, const int *ilenp);
char *base64_decode(const char *istr, const int *ilenp, int *olenp);
void base64_test(void);

int in_list(int item, const char *list);
int next_in_list(int item, const char *list);
int bitmap_is_set(const unsigned char *bitmap, int i, int size);
int bitmap_set(unsigned char *bitmap, int i, int size);
int bitmap_clear(unsigned char *bitmap, int i, int size);
int bitmap_set_iflist(unsigned char *bitmap, const char *iflist, int size);
int bitmap_clear_iflist(unsigned char *bitmap, const char *iflist, int size);
void bitmap_to_hex(const unsigned char *bitmap, char *hex, int len);
void bitmap_from_hex(unsigned char *bitmap, const char *hex, int len);

void hexlog_ascii(log_t *log, const char *title, const void *buf, size_t len);
// zone: 32 bytes; a longer zone name is cut to 31 characters.
int get_timezone(char *zone, int *offset);
void tvdiff(struct timespec *t, const struct timespec *t1, const struct timespec *t2);

int stk_crc_check(const char *stk_file_name);

// jansson parses by recursion, about 80 bytes of stack per level of nesting,
// and every thread of ours has 128 KiB: a reply nested a few thousand levels
// deep would run the parsing thread off its stack. No document the daemon
// takes comes near this depth.
constexpr int JSON_MAX_DEPTH = 64;

// The nesting depth of the arrays and objects in a JSON text, counted
// without recursion and without parsing (brackets inside strings do not
// count); stops counting once max is passed and returns max + 1.
int json_depth(const char *buf, size_t len, int max);
// json_loadb for everything that arrives from outside: a text nested deeper
// than JSON_MAX_DEPTH never reaches the parser and fails like any other
// unparsable text, with "maximum parsing depth reached" in err->text.
json_t *json_loadb_bounded(const char *buf, size_t len, size_t flags, json_error_t *err);

// A JSON text as the logs may show it: the text value of every "password"
// member, wherever it sits, replaced by LOG_SECRET_MARKER (a set.system
// command in a heartbeat reply carries the switch's administrator password).
// It reads the bytes without parsing them, so a text cut short, or no JSON
// at all, is shown as it came less the secrets found in it. Refers to the
// text itself when there is nothing to hide: the text must outlive it.
class loggable_json
{
  public:
    loggable_json(const char *text, size_t len);
    loggable_json(const loggable_json &) = delete;
    loggable_json &operator=(const loggable_json &) = delete;

    const char *data() const { return data_; }
    // For "%.*s".
    int length() const { return (int)len_; }

  private:
    std::string masked_;
    const char *data_;
    size_t len_;
};
