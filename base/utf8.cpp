#include "utf8.h"

#include <cstring>

// Bytes of a well-formed UTF-8 sequence at p (at most n bytes there), or 0
// when the byte at p starts none: a stray continuation byte, an overlong
// form, a surrogate, a code point above U+10FFFF or a sequence cut short.
int utf8_sequence(const unsigned char *p, int n)
{
    unsigned char c = p[0];
    if (c < 0x80)
        return 1;
    int len;
    unsigned char lo = 0x80;
    unsigned char hi = 0xbf;
    if (c >= 0xc2 && c <= 0xdf) {
        len = 2;
    } else if (c >= 0xe0 && c <= 0xef) {
        len = 3;
        if (c == 0xe0)
            lo = 0xa0; // overlong below U+0800
        else if (c == 0xed)
            hi = 0x9f; // surrogates
    } else if (c >= 0xf0 && c <= 0xf4) {
        len = 4;
        if (c == 0xf0)
            lo = 0x90; // overlong below U+10000
        else if (c == 0xf4)
            hi = 0x8f; // above U+10FFFF
    } else {
        return 0;
    }
    if (n < len || p[1] < lo || p[1] > hi)
        return 0;
    for (int i = 2; i < len; i++)
        if (p[i] < 0x80 || p[i] > 0xbf)
            return 0;
    return len;
}

std::string utf8_replaced(const char *text, size_t n)
{
    static const char replacement[] = "\xef\xbf\xbd"; // U+FFFD
    std::string out;
    out.reserve(n);
    const unsigned char *u = reinterpret_cast<const unsigned char *>(text);
    for (size_t i = 0; i < n;) {
        int len = utf8_sequence(u + i, (int)(n - i > 4 ? 4 : n - i));
        if (len == 0) {
            out.append(replacement, 3);
            i++;
        } else {
            out.append(text + i, len);
            i += len;
        }
    }
    return out;
}

json_t *json_utf8_string(const char *text)
{
    if (text == nullptr)
        text = "";
    size_t n = strlen(text);
    if (utf8_valid(text, n))
        return json_stringn_nocheck(text, n);
    std::string fixed = utf8_replaced(text, n);
    return json_stringn_nocheck(fixed.data(), fixed.size());
}

bool utf8_valid(const char *text, size_t n)
{
    const unsigned char *u = reinterpret_cast<const unsigned char *>(text);
    for (size_t i = 0; i < n;) {
        int len = utf8_sequence(u + i, (int)(n - i > 4 ? 4 : n - i));
        if (len == 0)
            return false;
        i += len;
    }
    return true;
}
