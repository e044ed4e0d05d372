// The statistics key/value parsers: "key=value" lines and labelled fields
// of one line, with control arrays of the shapes the collectors use.
#include "fuzz_env.h"

#include "stats.h"

#include <cstdlib>
#include <cstring>
#include <string>

namespace
{

unsigned long values[4];
char texts[2][32];

int take_number(stats_parser_t *e, char *value)
{
    char *end;
    unsigned long v = strtoul(value, &end, 0);
    if (end == value)
        return -1;
    *static_cast<unsigned long *>(e->param1) = v;
    return 0;
}

int take_text(stats_parser_t *e, char *value)
{
    snprintf(static_cast<char *>(e->param1), sizeof(texts[0]), "%s", value);
    return 0;
}

stats_parser_t keys[] = {
    {0, "rx_bytes", take_number, &values[0], nullptr},
    {0, "tx_bytes", take_number, &values[1], nullptr},
    {0, "operstate", take_text, texts[0], nullptr},
    {0, "flags", nullptr, nullptr, nullptr},
    {0, nullptr, take_text, texts[1], nullptr}, // everything else
};

stats_parser_t fields[] = {
    {0, "rx:", take_number, &values[2], nullptr},
    {0, " tx:", take_number, &values[3], nullptr},
    {0, " state:", take_text, texts[0], nullptr},
    {0, nullptr, nullptr, nullptr, nullptr},
};

} // namespace

const bool fuzz::pick_needs_commands = false;

void fuzz::pick_input(uint8_t pick, const uint8_t *data, size_t size)
{
    // The parsers cut their buffer in place and need its terminator.
    std::string buf(reinterpret_cast<const char *>(data), size);
    if (pick & 1)
        stats_parse_line(buf.data(), fields);
    else
        stats_parse_buf(buf.data(), keys);
}
