#include "utils.h"
#include "raii.h"

#include "debug.h"
#include "devroot.h"

#include <cctype>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace
{

// Callers hand their own error format in; it always takes one string.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void report_out_of_memory(const char *logfmt, char *message)
{
    if (message != nullptr)
        strcpy(message, "Out of memory");
    if (logfmt != nullptr)
        log_fprint(orkad_log, logfmt, "Out of memory");
}
#pragma GCC diagnostic pop

// Every byte outside the alphabet, padding included, decodes as 0: the
// decoder trusts what the controller sends.
struct decode_table {
    unsigned int v[256] = {};
    constexpr decode_table()
    {
        const char *a = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        for (unsigned int i = 0; i < 64; i++)
            v[static_cast<unsigned char>(a[i])] = i;
    }
};
constexpr decode_table base64_decode_table;

// Built by the compiler: two threads checking images at once never see a
// half-built table.
struct crc_table {
    uint16_t v[256] = {};
    constexpr crc_table()
    {
        for (unsigned int b = 0; b < 256; b++) {
            unsigned int c = 0;
            unsigned int x = b;
            for (int k = 0; k < 8; k++) {
                bool differ = ((c & 0x8000) != 0) != ((x & 0x80) != 0);
                c = (c << 1) & 0xFFFF;
                x = (x << 1) & 0xFF;
                if (differ)
                    c ^= 0xA097;
            }
            v[b] = static_cast<uint16_t>(c);
        }
    }
};
constexpr crc_table CrcTable;

} // namespace

const char base64_alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

void utils_init(void) {}

namespace
{

// The member `key` of obj when it is there with the type `is_type` accepts;
// otherwise null, and the log says which of the two, in the caller's name.
json_t *typed_member(json_t *obj, const char *key, bool (*is_type)(const json_t *), const char *who)
{
    json_t *v = json_object_get(obj, key);
    if (v == nullptr) {
        log_fprint(orkad_log, "%s: no '%s' object\n", who, key);
        return nullptr;
    }
    if (!is_type(v)) {
        log_fprint(orkad_log, "%s: bad '%s' object\n", who, key);
        return nullptr;
    }
    return v;
}

} // namespace

int get_json_string_value(json_t *obj, const char *key, char *value, size_t len)
{
    json_t *v = typed_member(
        obj, key, [](const json_t *j) { return json_is_string(j); }, __func__);
    if (v == nullptr)
        return -1;
        // A bounded copy: a string that fills the buffer is left unterminated.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wstringop-truncation"
    strncpy(value, json_string_value(v), len);
#pragma GCC diagnostic pop
    return 1;
}

int get_json_int_value(json_t *obj, const char *key, int *value)
{
    json_t *v = typed_member(
        obj, key, [](const json_t *j) { return json_is_integer(j); }, __func__);
    if (v == nullptr)
        return -1;
    *value = static_cast<int>(json_integer_value(v));
    return 1;
}

int get_json_boolean_value(json_t *obj, const char *key, int *value)
{
    json_t *v = typed_member(
        obj, key, [](const json_t *j) { return json_is_boolean(j); }, __func__);
    if (v == nullptr)
        return -1;
    *value = json_is_true(v) ? 1 : 0;
    return 1;
}

char *strdup_with_error(const char *str, const char *logfmt, char *message)
{
    if (str == nullptr)
        return nullptr;
    char *copy = strdup(str);
    if (copy == nullptr)
        report_out_of_memory(logfmt, message);
    return copy;
}

void *calloc_with_error(size_t size, const char *logfmt, char *message)
{
    void *p = calloc(1, size);
    if (p == nullptr)
        report_out_of_memory(logfmt, message);
    return p;
}

void strip_char(const char *str, char ch, char *out)
{
    if (str == nullptr || out == nullptr)
        return;
    for (; *str != '\0'; str++)
        if (*str != ch)
            *out++ = *str;
    *out = '\0';
}

void replace_char(char *str, char ch1, char ch2)
{
    if (str == nullptr)
        return;
    for (; *str != '\0'; str++)
        if (*str == ch2)
            *str = ch1;
}

int _sys(const char *cmd, ...)
{
    char buf[1024];
    va_list ap;
    va_start(ap, cmd);
    vsnprintf(buf, sizeof(buf), cmd, ap);
    va_end(ap);
    int status = dev_system(buf);
    log_fprint(orkad_log, "%s: '%s' (status = %d)\n", __func__, buf, status);
    return status;
}

char *base64_encode(const char *istr, const int *ilenp)
{
    const unsigned char *in = reinterpret_cast<const unsigned char *>(istr);
    int n = ilenp != nullptr ? *ilenp : static_cast<int>(strlen(istr));
    char *out = static_cast<char *>(malloc(4 * ((n + 2) / 3) + 1));
    if (out == nullptr)
        return nullptr;
    char *o = out;
    int i = 0;
    for (; i + 2 < n; i += 3) {
        unsigned int v = (in[i] << 16) | (in[i + 1] << 8) | in[i + 2];
        *o++ = base64_alphabet[(v >> 18) & 63];
        *o++ = base64_alphabet[(v >> 12) & 63];
        *o++ = base64_alphabet[(v >> 6) & 63];
        *o++ = base64_alphabet[v & 63];
    }
    if (n - i == 1) {
        unsigned int v = in[i] << 16;
        *o++ = base64_alphabet[(v >> 18) & 63];
        *o++ = base64_alphabet[(v >> 12) & 63];
        *o++ = '=';
        *o++ = '=';
    } else if (n - i == 2) {
        unsigned int v = (in[i] << 16) | (in[i + 1] << 8);
        *o++ = base64_alphabet[(v >> 18) & 63];
        *o++ = base64_alphabet[(v >> 12) & 63];
        *o++ = base64_alphabet[(v >> 6) & 63];
        *o++ = '=';
    }
    *o = '\0';
    return out;
}

char *base64_decode(const char *istr, const int *ilenp, int *olenp)
{
    const unsigned char *in = reinterpret_cast<const unsigned char *>(istr);
    int n = ilenp != nullptr ? *ilenp : static_cast<int>(strlen(istr));
    if (debug)
        log_fprint(orkad_log, "%s ilen = %d, '%s'\n", __func__, n, istr);
    if (n % 4 != 0)
        return nullptr;
    int olen = (n / 4) * 3;
    if (n >= 2 && istr[n - 2] == '=')
        olen -= 2;
    else if (n >= 1 && istr[n - 1] == '=')
        olen -= 1;
    char *out = static_cast<char *>(malloc(olen + 1));
    if (out == nullptr) {
        log_fprint(orkad_log, "%s cannot allocate %d bytes\n", __func__, olen + 1);
        return nullptr;
    }
    int o = 0;
    for (int i = 0; i < n; i += 4) {
        unsigned int v = (base64_decode_table.v[in[i]] << 18) |
                         (base64_decode_table.v[in[i + 1]] << 12) |
                         (base64_decode_table.v[in[i + 2]] << 6) | base64_decode_table.v[in[i + 3]];
        if (o < olen)
            out[o++] = static_cast<char>((v >> 16) & 0xFF);
        if (o < olen)
            out[o++] = static_cast<char>((v >> 8) & 0xFF);
        if (o < olen)
            out[o++] = static_cast<char>(v & 0xFF);
    }
    out[olen] = '\0';
    if (olenp != nullptr)
        *olenp = olen;
    return out;
}

void base64_test(void)
{
    static const unsigned char sample[22] = {0x00, 0x01, 0x02, 0x7f, 0x80, 0xfe, 0xff, 'o',
                                             'r',  'k',  'a',  'd',  ' ',  'b',  'a',  's',
                                             'e',  '6',  '4',  0x0d, 0x0a, 0x3d};
    int ilen = sizeof(sample);
    malloc_ptr<char> enc(base64_encode(reinterpret_cast<const char *>(sample), &ilen));
    if (!enc)
        return;
    int olen = 0;
    malloc_ptr<char> dec(base64_decode(enc.get(), nullptr, &olen));
    if (!dec)
        return;
    for (int i = 0; i < olen; i++)
        printf("0x%02x ", static_cast<unsigned char>(dec.get()[i]));
    printf("\n");
}

int in_list(int item, const char *list)
{
    int max = -1;
    const char *p = list;
    while (isdigit(static_cast<unsigned char>(*p))) {
        int first = static_cast<int>(strtol(p, const_cast<char **>(&p), 10));
        if (*p == '-') {
            p++;
            // "3-" has no end and so matches nothing.
            if (isdigit(static_cast<unsigned char>(*p))) {
                int last = static_cast<int>(strtol(p, const_cast<char **>(&p), 10));
                if (item >= first && item <= last)
                    return 0;
                if (last > max)
                    max = last;
            }
        } else {
            if (item == first)
                return 0;
            if (first > max)
                max = first;
        }
        if (*p != ',')
            break;
        p++;
    }
    return item > max ? 1 : -1;
}

int next_in_list(int item, const char *list)
{
    // Lists name at most the three indexes 0, 1 and 2.
    for (int i = item + 1; i <= 2; i++)
        if (in_list(i, list) == 0)
            return i;
    return -1;
}

int bitmap_is_set(const unsigned char *bitmap, int i, int size)
{
    if (i < 0 || i >= size)
        return 0;
    return bitmap[i / 8] & (1 << (i % 8));
}

int bitmap_set(unsigned char *bitmap, int i, int size)
{
    if (i < 0 || i >= size)
        return -1;
    bitmap[i / 8] |= static_cast<unsigned char>(1 << (i % 8));
    return 0;
}

int bitmap_clear(unsigned char *bitmap, int i, int size)
{
    if (i < 0 || i >= size)
        return -1;
    bitmap[i / 8] &= static_cast<unsigned char>(~(1 << (i % 8)));
    return 0;
}

int bitmap_set_iflist(unsigned char *bitmap, const char *iflist, int size)
{
    for (int i = next_in_list(-1, iflist); i >= 0; i = next_in_list(i, iflist))
        if (bitmap_set(bitmap, i, size) != 0)
            return -1;
    return 0;
}

int bitmap_clear_iflist(unsigned char *bitmap, const char *iflist, int size)
{
    for (int i = next_in_list(-1, iflist); i >= 0; i = next_in_list(i, iflist))
        if (bitmap_clear(bitmap, i, size) != 0)
            return -1;
    return 0;
}

void bitmap_to_hex(const unsigned char *bitmap, char *hex, int len)
{
    static const char digits[] = "0123456789ABCDEF";
    for (int i = 0; i < len; i++) {
        *hex++ = digits[bitmap[i] >> 4];
        *hex++ = digits[bitmap[i] & 0x0F];
    }
    *hex = '\0';
}

void bitmap_from_hex(unsigned char *bitmap, const char *hex, int len)
{
    auto digit = [](char c) { return c <= '9' ? c - '0' : c - 55; };
    for (int i = 0; i < len; i++)
        bitmap[i] = static_cast<unsigned char>((digit(hex[2 * i]) << 4) | digit(hex[2 * i + 1]));
}

void hexlog_ascii(log_t *log, const char *title, const void *buf, size_t len)
{
    const unsigned char *b = static_cast<const unsigned char *>(buf);
    log_fprint(log, "%s - (data len=%lu):\n", title, static_cast<unsigned long>(len));
    for (size_t row = 0; row < len; row += 16) {
        char line[4 + 16 * 3 + 3 + 16 + 2];
        size_t n = len - row < 16 ? len - row : 16;
        int o = snprintf(line, sizeof(line), "    ");
        for (size_t i = 0; i < 16; i++) {
            if (i < n)
                o += snprintf(line + o, sizeof(line) - o, " %02x", b[row + i]);
            else
                o += snprintf(line + o, sizeof(line) - o, "   ");
        }
        o += snprintf(line + o, sizeof(line) - o, "   ");
        for (size_t i = 0; i < n; i++)
            line[o++] = isprint(b[row + i]) ? static_cast<char>(b[row + i]) : '*';
        line[o] = '\0';
        log_fprint(log, "%s\n", line);
    }
}

int get_timezone(char *zone, int *offset)
{
    pipe_ptr fp(dev_popen("TZ=`cat /tmp/TZ` date +'%z %Z'", "r"));
    int hm = 0;
    int n = 0;
    if (fp != nullptr) {
        // The zone name goes into the caller's 32 bytes, however long it is.
        n = fscanf(fp.get(), "%d %31s", &hm, zone);
        if (n == EOF)
            n = 0;
    }
    if (debug)
        log_fprint(orkad_log, "n = %d, zone = '%s', hm = %d\n", n, n == 2 ? zone : "", hm);
    if (n != 2)
        return -1;
    *offset = hm % 100 + (hm / 100) * 60;
    return 0;
}

void tvdiff(struct timespec *t, const struct timespec *t1, const struct timespec *t2)
{
    if (t1->tv_sec == t2->tv_sec) {
        t->tv_sec = 0;
        t->tv_nsec = t2->tv_nsec - t1->tv_nsec;
        return;
    }
    int64_t d = (static_cast<int64_t>(t2->tv_sec) - t1->tv_sec) * 1000000000LL +
                (static_cast<int64_t>(t2->tv_nsec) - t1->tv_nsec);
    t->tv_sec = static_cast<time_t>(d / 1000000000LL);
    t->tv_nsec = static_cast<long>(d % 1000000000LL);
}

int stk_crc_check(const char *stk_file_name)
{
    file_ptr fp(dev_fopen(stk_file_name, "rb"));
    if (fp == nullptr) {
        log_fprint(orkad_log, "%s: can't open file: %s\n", __func__, stk_file_name);
        return 0;
    }
    unsigned char stored[2];
    size_t rc = fread(stored, 1, 2, fp.get());
    if (rc < 2) {
        log_fprint(orkad_log, "%s: can't read file crc (rc = %d).\n", __func__,
                   static_cast<int>(rc));
        return 0;
    }
    unsigned int crc = 0;
    unsigned char block[1024];
    size_t got;
    while ((got = fread(block, 1, sizeof(block), fp.get())) > 0)
        for (size_t i = 0; i < got; i++)
            crc = ((crc << 8) ^ CrcTable.v[crc >> 8] ^ block[i]) & 0xFFFF;
    unsigned int crc_net = ((crc & 0xFF) << 8) | (crc >> 8);
    unsigned int file_crc = stored[0] | (stored[1] << 8);
    log_fprint(orkad_log, "%s: crc_net = %04X, file_crc = %04X\n", __func__, crc_net, file_crc);
    return crc_net == file_crc ? 1 : 0;
}

int json_depth(const char *buf, size_t len, int max)
{
    int depth = 0;
    int deepest = 0;
    bool in_string = false;
    for (size_t i = 0; i < len; i++) {
        char c = buf[i];
        if (in_string) {
            if (c == '\\')
                i++; // the escaped byte cannot end the string
            else if (c == '"')
                in_string = false;
            continue;
        }
        if (c == '"') {
            in_string = true;
        } else if (c == '[' || c == '{') {
            if (++depth > deepest) {
                deepest = depth;
                if (deepest > max)
                    return max + 1;
            }
        } else if ((c == ']' || c == '}') && depth > 0) {
            depth--;
        }
    }
    return deepest;
}

namespace
{

// Where the JSON string that opens at text[start] (a quote) ends: the index
// of its closing quote, or len when the text ends first.
size_t json_string_end(const char *text, size_t len, size_t start)
{
    for (size_t i = start + 1; i < len; i++) {
        if (text[i] == '\\')
            i++;
        else if (text[i] == '"')
            return i;
    }
    return len;
}

// Whether the body of a JSON string (between its quotes, escapes as sent)
// decodes to word. Only escapes that can spell a printable ASCII letter
// need decoding: any other escape makes the text differ from word.
bool json_string_is(const char *s, size_t n, const char *word)
{
    size_t i = 0;
    for (; *word != '\0'; word++) {
        if (i >= n)
            return false;
        char c = s[i++];
        if (c == '\\') {
            if (i + 5 > n || s[i] != 'u')
                return false;
            char hex[5] = {s[i + 1], s[i + 2], s[i + 3], s[i + 4], '\0'};
            char *end = nullptr;
            long code = strtol(hex, &end, 16);
            if (end != hex + 4)
                return false;
            c = (char)code;
            if (code < 0x20 || code > 0x7e)
                return false;
            i += 5;
        }
        if (c != *word)
            return false;
    }
    return i == n;
}

bool json_space(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

} // namespace

loggable_json::loggable_json(const char *text, size_t len) : data_(text), len_(len)
{
    size_t copied = 0; // text before this index is already in masked_
    size_t i = 0;
    while (i < len) {
        if (text[i] != '"') {
            i++;
            continue;
        }
        size_t end = json_string_end(text, len, i);
        if (end >= len)
            break;
        bool secret = json_string_is(text + i + 1, end - i - 1, "password");
        i = end + 1;
        if (!secret)
            continue;
        // A member name is followed by its colon; the same word as a value
        // is not.
        size_t j = i;
        while (j < len && json_space(text[j]))
            j++;
        if (j >= len || text[j] != ':')
            continue;
        j++;
        while (j < len && json_space(text[j]))
            j++;
        if (j >= len || text[j] != '"')
            continue;
        size_t value_end = json_string_end(text, len, j);
        masked_.append(text + copied, j + 1 - copied);
        masked_.append(LOG_SECRET_MARKER);
        // A value cut off by the end of the text is hidden all the same.
        copied = value_end;
        i = value_end + 1;
    }
    if (copied == 0)
        return;
    if (copied < len)
        masked_.append(text + copied, len - copied);
    data_ = masked_.data();
    len_ = masked_.size();
}

json_t *json_loadb_bounded(const char *buf, size_t len, size_t flags, json_error_t *err)
{
    if (json_depth(buf, len, JSON_MAX_DEPTH) > JSON_MAX_DEPTH) {
        if (err != nullptr) {
            // The same wording jansson uses for its own, much deeper, limit.
            memset(err, 0, sizeof(*err));
            err->line = -1;
            err->column = -1;
            snprintf(err->source, sizeof(err->source), "%s", "<buffer>");
            snprintf(err->text, sizeof(err->text), "%s", "maximum parsing depth reached");
        }
        return nullptr;
    }
    return json_loadb(buf, len, flags, err);
}
