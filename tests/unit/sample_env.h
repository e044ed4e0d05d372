// The boot environment of the sample switch lab/devroot.py builds, as the
// agent holds it once it has read it at start-up. Shared by the unit tests'
// agent fixture and the fuzz targets.
#pragma once

#include "config.h"

#include <cstdio>

inline void set_sample_env()
{
    snprintf(env_serial, sizeof(env_serial), "VX0123456789");
    snprintf(env_uuid, sizeof(env_uuid), "e9d6ecc0-23bb-11e3-932d-020000000001");
    snprintf(env_hardware, sizeof(env_hardware), "VX-S28-A1");
    snprintf(env_country, sizeof(env_country), "US");
    snprintf(env_boot, sizeof(env_boot), "0");
    snprintf(env_primary, sizeof(env_primary), "1.0.0.1");
    snprintf(env_secondary, sizeof(env_secondary), "1.0.0.2");
    snprintf(env_ethaddr, sizeof(env_ethaddr), "02:00:00:00:00:01");
}
