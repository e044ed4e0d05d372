#include "allocator.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

const char ALLOCATOR_TUNABLE[] = "glibc.malloc.tcache_count";
const char ALLOCATOR_SETTING[] = "glibc.malloc.tcache_count=0";

namespace
{

const char TUNABLES_ENV[] = "GLIBC_TUNABLES";
// Set across the second start: what the tunables were before, behind a
// '=' ("=" alone: empty), or "-" when there were none.
const char SAVED_ENV[] = "ORKAD_SAVED_TUNABLES";

void restore(const char *saved)
{
    if (saved[0] == '=')
        setenv(TUNABLES_ENV, saved + 1, 1);
    else
        unsetenv(TUNABLES_ENV);
    unsetenv(SAVED_ENV);
}

} // namespace

std::string allocator_tunables(const char *current)
{
    if (current == nullptr || current[0] == '\0')
        return ALLOCATOR_SETTING;
    // Tunables are "name=value" pairs separated by ':'.
    size_t len = strlen(ALLOCATOR_TUNABLE);
    for (const char *p = current; p != nullptr; p = strchr(p, ':')) {
        if (*p == ':')
            p++;
        if (strncmp(p, ALLOCATOR_TUNABLE, len) == 0 && p[len] == '=')
            return "";
    }
    return std::string(current) + ":" + ALLOCATOR_SETTING;
}

void allocator_tune(char **argv)
{
    const char *saved = getenv(SAVED_ENV);
    if (saved != nullptr) {
        restore(saved);
        return;
    }
    const char *current = getenv(TUNABLES_ENV);
    std::string tunables = allocator_tunables(current);
    if (tunables.empty())
        return;
    std::string keep = current == nullptr ? std::string("-") : std::string("=") + current;
    setenv(SAVED_ENV, keep.c_str(), 1);
    setenv(TUNABLES_ENV, tunables.c_str(), 1);
    // By its path, not /proc/self/exe: the process is named after the file
    // it runs, and operators look for "orkad".
    char self[4096];
    ssize_t len = readlink("/proc/self/exe", self, sizeof self - 1);
    if (len > 0 && len < static_cast<ssize_t>(sizeof self) - 1) {
        self[len] = '\0';
        execv(self, argv);
    }
    // Could not run again (no /proc, say): go on as started.
    restore(keep.c_str());
}
