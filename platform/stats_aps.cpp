#include "stats_aps.h"

// A switch has no stations to report.
int init_stats_aps(void)
{
    return 0;
}

int stats_aps(json_t *)
{
    return 0;
}
