// Cost of one statistics sampling tick and one period end over the
// interfaces of the current network namespace, and the heap allocations of a
// tick. Prints one JSON object. Run by bench/stats_tick.py inside a namespace
// holding a known number of counted interfaces.
#include "log.h"
#include "stats.h"
#include "stats_ifs.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <jansson.h>
#include <vector>

#if !defined(__SANITIZE_ADDRESS__)
extern "C" void *__libc_malloc(size_t);
extern "C" void *__libc_calloc(size_t, size_t);
extern "C" void *__libc_realloc(void *, size_t);

#endif

namespace
{
bool counting = false;
long allocations = 0;

double cpu_us()
{
    struct timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec * 1e6 + ts.tv_nsec / 1e3;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}
} // namespace

// The sanitizer build keeps its own allocator: nothing is counted there.
#if !defined(__SANITIZE_ADDRESS__)
extern "C" void *malloc(size_t n)
{
    if (counting)
        allocations++;
    return __libc_malloc(n);
}
extern "C" void *calloc(size_t a, size_t b)
{
    if (counting)
        allocations++;
    return __libc_calloc(a, b);
}
extern "C" void *realloc(void *p, size_t n)
{
    if (counting)
        allocations++;
    return __libc_realloc(p, n);
}
#endif

int main(int argc, char **argv)
{
    int rounds = argc > 1 ? atoi(argv[1]) : 200;
    nolog = 1;
    init_stats_ifs();
    collect_interface_stats(); // primes the slots
    int slots = 0;
    for (const auto &c : stats_collection)
        slots += c.ifidx != 0;

    std::vector<double> tick, close, close_json;
    long tick_allocations = 0;
    for (int r = 0; r < rounds; r++) {
        // Samples must be at least a millisecond apart to count.
        struct timespec pause = {0, 1500000};
        nanosleep(&pause, nullptr);
        allocations = 0;
        counting = true;
        double t0 = cpu_us();
        collect_interface_stats();
        double t1 = cpu_us();
        counting = false;
        tick.push_back(t1 - t0);
        tick_allocations += allocations;

        if (r % 4 == 3) {
            double c0 = cpu_us();
            calc_stats_for_interfaces();
            double c1 = cpu_us();
            json_t *doc = json_object();
            stats_interfaces(doc);
            char *text = json_dumps(doc, JSON_COMPACT);
            double c2 = cpu_us();
            free(text);
            json_decref(doc);
            close.push_back(c1 - c0);
            close_json.push_back(c2 - c0);
        }
    }
    printf("{\"interfaces\":%d,\"rows\":%d,\"rounds\":%d,\"tick_us\":%.2f,\"close_us\":%.2f,"
           "\"close_with_document_us\":%.2f,\"tick_allocations\":%ld}\n",
           slots, num_stats, rounds, median(tick), median(close), median(close_json),
           tick_allocations);
    return 0;
}
