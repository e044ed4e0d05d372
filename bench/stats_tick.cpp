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

#include "../tests/unit/alloc_count.h"

namespace
{

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
        alloc_count::start();
        double t0 = cpu_us();
        collect_interface_stats();
        double t1 = cpu_us();
        tick_allocations += alloc_count::stop();
        tick.push_back(t1 - t0);

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
