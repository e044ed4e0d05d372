// UTF-8 checks and repair for texts that go into JSON (jansson takes UTF-8
// only). Kept apart from utils so that orkadctl can use them without the
// agent.
#pragma once

#include <cstddef>
#include <jansson.h>
#include <string>

// Bytes of a well-formed UTF-8 sequence at p (at most n bytes there), or 0
// when the byte at p starts none.
int utf8_sequence(const unsigned char *p, int n);
bool utf8_valid(const char *text, size_t n);
// The text with every byte that is not part of well-formed UTF-8 replaced
// by U+FFFD.
std::string utf8_replaced(const char *text, size_t n);
// A JSON string of the text as it is when it is UTF-8, else with the bad
// bytes replaced (jansson takes UTF-8 only); null text gives "".
json_t *json_utf8_string(const char *text);
