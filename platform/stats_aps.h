// Access-point station statistics: shared with wireless devices, inert on
// this switch.
#pragma once

#include <jansson.h>

int init_stats_aps(void);
int stats_aps(json_t *object);
