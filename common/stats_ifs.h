// Host interface counters: a fixed sampling table fed from the kernel's byte
// counters, the per-period rate rows built from it, and the JSON members
// those rows give to the statistics document and to the heartbeat.
#pragma once

#include <cstdint>
#include <jansson.h>

constexpr int STATS_IF_SLOTS = 128;
constexpr int STATS_IFNAME_SIZE = 17;
constexpr int STATS_ATTR_SIZE = 8;

// Change bits of if_status_t.flags: set by the attribute reader, and the
// same facts waiting for a heartbeat in the byte above.
constexpr int IFS_STATUS_CHANGED = 0x01;
constexpr int IFS_SPEED_CHANGED = 0x02;
constexpr int IFS_DUPLEX_CHANGED = 0x04;
constexpr int IFS_CHANGE_BITS = 0x00ff;
constexpr int IFS_WAITING_BITS = 0xff00;

// One sampling slot, keyed by kernel interface index (0: free).
typedef struct if_counters {
    int ifidx;
    unsigned long s_time; // ms, start of the current period
    unsigned long l_time; // ms, last sample
    uint64_t rx_last;
    uint64_t tx_last;
    uint64_t rx_start;
    uint64_t tx_start;
    unsigned long rx_max; // bytes per second, highest in the period
    unsigned long tx_max;
} if_counters_t;

typedef struct if_status {
    int flags;
    char status[STATS_ATTR_SIZE]; // "operstate"
    char speed[STATS_ATTR_SIZE];
    char duplex[STATS_ATTR_SIZE];
} if_status_t;

// One result row of the last period.
typedef struct if_stats {
    char ifname[STATS_IFNAME_SIZE];
    unsigned int rx_max, tx_max, rx_avg, tx_avg; // bytes per second
    if_status_t ifs;
} if_stats_t;

extern if_counters_t stats_collection[STATS_IF_SLOTS];
extern if_stats_t stats[STATS_IF_SLOTS];
extern int num_stats;

// Where the counters and attributes come from, and the kernel's name and
// index lookups and the clock: the device's own unless a test points them
// elsewhere.
extern const char *stats_proc_net_dev;
extern const char *stats_sys_class_net;
extern unsigned int (*stats_if_nametoindex)(const char *ifname);
extern char *(*stats_if_indextoname)(unsigned int ifindex, char *ifname);
extern unsigned long (*stats_clock)(unsigned long fractions);

// 0.
int init_stats_ifs(void);
// 0, or 1 when the kernel's counters cannot be opened.
int collect_interface_stats(void);
// 0.
int calc_stats_for_interfaces(void);
// Adds the "interface" array to object: 0; 1 when object is null or the
// array cannot be made, 2 when a row or one of its members cannot, 3 when a
// row cannot be appended, 4 when the array cannot be added to object.
int stats_interfaces(json_t *object);
void stats_hb_if(json_t *js_hb, bool last_failed);
// Reads one attribute of row ii into its field: 0; -1 for a position out of
// the table, -2 for an unknown var_bit, -4 when the file cannot be opened,
// -5 when it cannot be read, -6 when it holds no value the attribute takes.
int get_value_from_file(int ii, const char *file, int var_bit);
if_stats_t *stats_find_if(const char *ifname);
if_stats_t *stats_get_if(int pos);

// Whether an interface of this name is sampled at all.
bool stats_counted_if(const char *ifname);
// The slot a kernel index starts probing at.
unsigned int stats_slot_of(unsigned int ifidx);
// The rate of `delta` bytes over dt ms, in bytes per second, rounded.
uint64_t stats_rate(uint64_t last, uint64_t now, long dt);
