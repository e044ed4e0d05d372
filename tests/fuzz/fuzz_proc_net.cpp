// The kernel's interface and routing tables as the daemon reads them:
// "/proc/net/dev" through the statistics collector and "/proc/net/route"
// through the gateway lookup. The first byte picks the table.
#include "fuzz_env.h"

#include "netutils.h"
#include "stats.h"
#include "stats_ifs.h"

#include <cstring>
#include <net/if.h>
#include <string>

namespace
{

std::string dev_path;
std::string route_path;
unsigned long now;

unsigned long fake_clock(unsigned long)
{
    return now;
}

// Every name is an interface: the table decides what exists.
unsigned int any_index(const char *ifname)
{
    unsigned int h = 1;
    for (const char *p = ifname; *p != '\0'; p++)
        h = h * 31 + static_cast<unsigned char>(*p);
    return h % 1000 + 1;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::start_agent(false);
    dev_path = fuzz::at("/tmp/proc_net_dev");
    route_path = fuzz::at("/tmp/proc_net_route");
    stats_proc_net_dev = dev_path.c_str();
    netutils_proc_net_route = route_path.c_str();
    stats_clock = fake_clock;
    stats_if_nametoindex = any_index;
    init_stats_ifs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    if (data[0] & 1) {
        fuzz::write_file(route_path, data + 1, size - 1);
        char gw[4][16];
        char mask[4][16];
        // The management interface reads the kernel's table.
        char ifname[IFNAMSIZ];
        get_mgmt_ifname(ifname);
        get_ipv4_gateways(ifname, &gw[0][0], &mask[0][0], 4, 16);
    } else {
        fuzz::write_file(dev_path, data + 1, size - 1);
        now += 5000;
        std::lock_guard<std::mutex> rows(stats_lock);
        std::lock_guard<std::mutex> table(collector_lock);
        collect_interface_stats();
        calc_stats_for_interfaces();
    }
    return 0;
}
