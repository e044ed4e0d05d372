#include "stats_ifs.h"
#include "raii.h"

#include "log.h"
#include "stats.h"
#include "wlanif.h"

#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <unistd.h>

if_counters_t stats_collection[STATS_IF_SLOTS];
if_stats_t stats[STATS_IF_SLOTS];
int num_stats;

const char *stats_proc_net_dev = "/proc/net/dev";
const char *stats_sys_class_net = "/sys/class/net";
unsigned int (*stats_if_nametoindex)(const char *ifname) = if_nametoindex;
char *(*stats_if_indextoname)(unsigned int ifindex, char *ifname) = if_indextoname;
unsigned long (*stats_clock)(unsigned long fractions) = st_time;

namespace
{

// fgets-sized pieces of a file read through one descriptor and a buffer on
// the stack, so that a sampling tick never touches the heap.
constexpr size_t STATS_LINE_SIZE = 256;

class piece_reader
{
  public:
    explicit piece_reader(int fd) : fd_(fd) {}
    // The next piece: up to and including a line end, at most size - 1
    // characters; false at the end of the file.
    bool next(char *out, size_t size)
    {
        size_t n = 0;
        while (n + 1 < size) {
            if (pos_ == len_ && !fill())
                break;
            char c = buf_[pos_++];
            out[n++] = c;
            if (c == '\n')
                break;
        }
        out[n] = '\0';
        return n > 0;
    }

  private:
    bool fill()
    {
        ssize_t r;
        do
            r = read(fd_, buf_, sizeof(buf_));
        while (r < 0 && errno == EINTR);
        if (r <= 0)
            return false;
        pos_ = 0;
        len_ = (size_t)r;
        return true;
    }
    int fd_;
    char buf_[4096];
    size_t pos_ = 0, len_ = 0;
};

// A slot's times are a wrapping 32-bit count of milliseconds.
long ms_between(unsigned long from, unsigned long to)
{
    return (long)(int32_t)(uint32_t)(to - from);
}

// Whether the interface a slot counts for still exists.
bool slot_live(const if_counters_t *c)
{
    char name[IF_NAMESIZE];
    return stats_if_indextoname((unsigned int)c->ifidx, name) != nullptr;
}

// Finds the slot of an interface, claiming a free or stale one; -1 when the
// table is full of live interfaces. *fresh tells whether it was claimed.
//
// An interface already in the table sits somewhere on the run of used slots
// that starts at its home slot (free_slot keeps it so). A stale slot on that
// run may only be taken once the rest of the run is known not to hold the
// asker: taking the first one seen would count an interface in two slots,
// one of them never sampled again.
int find_slot(unsigned int ifidx, bool *fresh)
{
    unsigned int slot = stats_slot_of(ifidx);
    int stale = -1;
    for (int step = 0; step < STATS_IF_SLOTS; step++) {
        if_counters_t *c = &stats_collection[slot];
        if (c->ifidx == (int)ifidx) {
            *fresh = false;
            return (int)slot;
        }
        if (c->ifidx == 0) {
            *fresh = true;
            // The first stale slot of the run is nearer home than this one.
            return stale >= 0 ? stale : (int)slot;
        }
        if (stale < 0 && !slot_live(c))
            stale = (int)slot;
        slot = (slot + 1) % STATS_IF_SLOTS;
    }
    // A full table: the asker is nowhere in it, so a stale slot may go to it.
    *fresh = true;
    return stale;
}

// Empties a slot and closes the gap it leaves in the runs of used slots:
// every later slot of the run whose home does not lie between the gap and
// itself moves back into the gap, so each interface stays reachable from its
// home without crossing a free slot.
void free_slot(int gap)
{
    memset(&stats_collection[gap], 0, sizeof(stats_collection[gap]));
    // The gap is free, so a full table ends the walk there at the latest.
    int next = gap;
    for (;;) {
        next = (next + 1) % STATS_IF_SLOTS;
        if_counters_t *c = &stats_collection[next];
        if (c->ifidx == 0)
            break;
        int home = (int)stats_slot_of((unsigned int)c->ifidx);
        // Distances going forward, wrapping at the end of the table.
        int to_next = (next - gap + STATS_IF_SLOTS) % STATS_IF_SLOTS;
        int home_to_next = (next - home + STATS_IF_SLOTS) % STATS_IF_SLOTS;
        if (home_to_next < to_next)
            continue; // home is after the gap: the slot stays reachable
        stats_collection[gap] = *c;
        memset(c, 0, sizeof(*c));
        gap = next;
    }
}

void strip_trailing_space(char *s)
{
    size_t n = strlen(s);
    while (n > 0 && isspace((unsigned char)s[n - 1]))
        s[--n] = '\0';
}

} // namespace

unsigned int stats_slot_of(unsigned int ifidx)
{
    return (uint32_t)(ifidx * 0x9E3779B1u) & (STATS_IF_SLOTS - 1);
}

uint64_t stats_rate(uint64_t last, uint64_t now, long dt)
{
    // Only the low 32 bits of the step count: a 32-bit counter that wrapped
    // between two samples still gives the right amount.
    uint64_t delta = (uint32_t)(now - last);
    return (delta * 1000 + (uint64_t)dt / 2) / (uint64_t)dt;
}

bool stats_counted_if(const char *ifname)
{
    if (strncmp(ifname, "gre", 3) == 0 || strncmp(ifname, "tun", 3) == 0 ||
        strncmp(ifname, "eth", 3) == 0 || strncmp(ifname, "vif", 3) == 0 ||
        strncmp(ifname, "vxlan", 5) == 0 || strncmp(ifname, "wlan", 4) == 0)
        return true;
    return strncmp(ifname, "wifi", 4) == 0 && strstr(ifname, "vap") != nullptr;
}

int init_stats_ifs(void)
{
    num_stats = 0;
    memset(stats_collection, 0, sizeof(stats_collection));
    memset(stats, 0, sizeof(stats));
    return 0;
}

int collect_interface_stats(void)
{
    unsigned long t = stats_clock(1000);
    fd_guard fd(open(stats_proc_net_dev, O_RDONLY | O_CLOEXEC));
    if (!fd.ok()) {
        log_fprint(orkad_log, "%s: error %d opening %s\n", __func__, errno, stats_proc_net_dev);
        return 1;
    }
    piece_reader reader(fd.get());
    char line[STATS_LINE_SIZE];
    while (reader.next(line, sizeof(line))) {
        char ifname[STATS_IFNAME_SIZE];
        unsigned long long rx, tx;
        int n = sscanf(
            line, " %16[^:]: %llu %*u %*u %*u %*u %*u %*u %*u %llu %*u %*u %*u %*u %*u %*u %*u",
            ifname, &rx, &tx);
        if (n != 3) {
            // The two header lines have no colon; a line with one that
            // still does not parse is a counter line we cannot use.
            if (n >= 1 && strchr(line, ':') != nullptr && stats_counted_if(ifname))
                log_fprint(orkad_log, "%s: unreadable counters for <%s>, line skipped\n", __func__,
                           ifname);
            continue;
        }
        if (!stats_counted_if(ifname))
            continue;
        unsigned int ifidx = stats_if_nametoindex(ifname);
        if (ifidx == 0) {
            log_fprint(orkad_log, "%s: error %d getting index of interface <%s>\n", __func__, errno,
                       ifname);
            continue;
        }
        bool fresh = false;
        int slot = find_slot(ifidx, &fresh);
        if (slot < 0) {
            log_fprint(orkad_log, "%s: error, interface table overflow, skipped %s\n", __func__,
                       ifname);
            continue;
        }
        if_counters_t *c = &stats_collection[slot];
        if (fresh) {
            // The first sample only primes the slot.
            memset(c, 0, sizeof(*c));
            c->ifidx = (int)ifidx;
            c->s_time = c->l_time = t;
            c->rx_start = c->rx_last = rx;
            c->tx_start = c->tx_last = tx;
            continue;
        }
        long dt = ms_between(c->l_time, t);
        if (dt < 1)
            continue;
        uint64_t rx_rate = stats_rate(c->rx_last, rx, dt);
        uint64_t tx_rate = stats_rate(c->tx_last, tx, dt);
        if (rx_rate > (uint64_t)c->rx_max)
            c->rx_max = (uint32_t)rx_rate;
        if (tx_rate > (uint64_t)c->tx_max)
            c->tx_max = (uint32_t)tx_rate;
        c->rx_last = rx;
        c->tx_last = tx;
        c->l_time = t;
    }
    return 0;
}

int calc_stats_for_interfaces(void)
{
    int pos = 0;
    for (int i = 0; i < STATS_IF_SLOTS; i++) {
        if_counters_t *c = &stats_collection[i];
        if (c->ifidx == 0)
            continue;
        char name[IF_NAMESIZE];
        if (stats_if_indextoname((unsigned int)c->ifidx, name) == nullptr) {
            // The slot may receive a later slot of its run: look at it
            // again. One that comes round from the start of the table was
            // closed above already and yields no second row (its period
            // starts at its last sample).
            free_slot(i);
            i--;
            continue;
        }
        long dt = ms_between(c->s_time, c->l_time);
        if (dt <= 0)
            continue;
        if_stats_t *row = &stats[pos];
        snprintf(row->ifname, sizeof(row->ifname), "%.16s", name);
        row->rx_max = (unsigned int)c->rx_max;
        row->tx_max = (unsigned int)c->tx_max;
        c->rx_max = c->tx_max = 0;
        row->rx_avg = (unsigned int)stats_rate(c->rx_start, c->rx_last, dt);
        row->tx_avg = (unsigned int)stats_rate(c->tx_start, c->tx_last, dt);
        c->rx_start = c->rx_last;
        c->tx_start = c->tx_last;
        c->s_time = c->l_time;
        pos++;
    }
    // The status part of each row stays with its position, so its change
    // bits compare with whatever row stood there last period.
    num_stats = pos;
    return 0;
}

int get_value_from_file(int ii, const char *file, int var_bit)
{
    if (ii < 0 || ii >= num_stats) {
        log_fprint(orkad_log, "%s: invalid interface position index %d\n", __func__, ii);
        return -1;
    }
    if_status_t *ifs = &stats[ii].ifs;
    char *field;
    switch (var_bit) {
    case IFS_STATUS_CHANGED:
        field = ifs->status;
        break;
    case IFS_SPEED_CHANGED:
        field = ifs->speed;
        break;
    case IFS_DUPLEX_CHANGED:
        field = ifs->duplex;
        break;
    default:
        log_fprint(orkad_log, "%s: invalid variable bit 0x%x\n", __func__, (unsigned int)var_bit);
        return -2;
    }
    int both = var_bit | (var_bit << 8);

    // 64 bytes on the device; a test's folder in front may need more.
    char path[64 + 192];
    snprintf(path, sizeof(path), "%s/%.16s/%s", stats_sys_class_net, stats[ii].ifname, file);
    fd_guard fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.ok()) {
        if (field[0] != '\0')
            log_fprint(orkad_log, "%s: error %d opening %s, %s of <%s> unknown now\n", __func__,
                       errno, path, file, stats[ii].ifname);
        field[0] = '\0';
        ifs->flags &= ~both;
        return -4;
    }
    char old[STATS_ATTR_SIZE];
    memcpy(old, field, sizeof(old));
    memset(field, 0, STATS_ATTR_SIZE);
    ssize_t r;
    do
        r = read(fd.get(), field, STATS_ATTR_SIZE - 1);
    while (r < 0 && errno == EINTR);
    if (r < 0) {
        if (old[0] != '\0')
            log_fprint(orkad_log, "%s: error %d reading %s, %s of <%s> unknown now\n", __func__,
                       errno, path, file, stats[ii].ifname);
        field[0] = '\0';
        ifs->flags &= ~both;
        return -5;
    }
    field[r] = '\0';
    strip_trailing_space(field);
    bool valid = true;
    if (var_bit == IFS_STATUS_CHANGED)
        valid = strcmp(field, "up") == 0 || strcmp(field, "down") == 0;
    else if (var_bit == IFS_DUPLEX_CHANGED)
        valid = strcmp(field, "half") == 0 || strcmp(field, "full") == 0;
    if (!valid) {
        field[0] = '\0';
        ifs->flags &= ~both;
        return -6;
    }
    if (strcmp(field, old) != 0)
        ifs->flags |= var_bit;
    return 0;
}

int stats_interfaces(json_t *object)
{
    if (object == nullptr)
        return 1;
    for (int ii = 0; ii < num_stats; ii++) {
        get_value_from_file(ii, "operstate", IFS_STATUS_CHANGED);
        if_status_t *ifs = &stats[ii].ifs;
        if (strcmp(ifs->status, "up") == 0 && !is_wlan_if(stats[ii].ifname, nullptr)) {
            get_value_from_file(ii, "speed", IFS_SPEED_CHANGED);
            get_value_from_file(ii, "duplex", IFS_DUPLEX_CHANGED);
        } else {
            ifs->speed[0] = '\0';
            ifs->duplex[0] = '\0';
        }
    }

    json_ptr array(json_array());
    if (!array)
        return 1;
    for (int ii = 0; ii < num_stats; ii++) {
        const if_stats_t *row = &stats[ii];
        json_ptr item(json_object());
        if (!item)
            return 2;
        if (json_object_set_new(item.get(), "id", json_string(row->ifname)) != 0)
            return 2;
        char radio[8];
        if (is_wlan_if(row->ifname, radio) &&
            json_object_set_new(item.get(), "radio", json_string(radio)) != 0)
            return 2;
        const struct {
            const char *key;
            unsigned int value;
        } rates[] = {{"rx_max", row->rx_max},
                     {"rx_avg", row->rx_avg},
                     {"tx_max", row->tx_max},
                     {"tx_avg", row->tx_avg}};
        for (const auto &r : rates)
            if (r.value != 0 &&
                json_object_set_new(item.get(), r.key, json_integer((json_int_t)r.value)) != 0)
                return 2;
        if (json_array_append(array.get(), item.get()) != 0)
            return 3;
    }
    if (json_object_set(object, "interface", array.get()) != 0)
        return 4;
    return 0;
}

void stats_hb_if(json_t *js_hb, bool last_failed)
{
    json_ptr array;
    bool failed = false;
    for (int ii = 0; ii < num_stats; ii++) {
        if_status_t *ifs = &stats[ii].ifs;
        if (!last_failed)
            ifs->flags &= ~IFS_WAITING_BITS;
        ifs->flags |= (ifs->flags & IFS_CHANGE_BITS) << 8;
        // After a failure the rest only keep their changes waiting.
        if ((ifs->flags & IFS_WAITING_BITS) == 0 || failed)
            continue;
        const char *name = stats[ii].ifname;
        if (!array) {
            array.reset(json_array());
            if (!array) {
                log_fprint(orkad_log, "%s: Failed to allocate JSON array\n", __func__);
                failed = true;
                continue;
            }
        }
        json_ptr item(json_object());
        if (!item) {
            log_fprint(orkad_log, "%s: Can't allocate JSON object\n", __func__);
            failed = true;
            continue;
        }
        if (json_object_set_new(item.get(), "id", json_string(name)) != 0) {
            log_fprint(orkad_log, "%s: Can't set interface id for <%s>\n", __func__, name);
            failed = true;
            continue;
        }
        const struct {
            int bit;
            const char *key;
            const char *value;
        } changes[] = {{IFS_STATUS_CHANGED, "status", ifs->status},
                       {IFS_SPEED_CHANGED, "speed", ifs->speed},
                       {IFS_DUPLEX_CHANGED, "duplex", ifs->duplex}};
        for (const auto &c : changes) {
            if ((ifs->flags & (c.bit << 8)) &&
                json_object_set_new(item.get(), c.key, json_string(c.value)) != 0) {
                log_fprint(orkad_log, "%s: Can't set interface %s <%s> for <%s>\n", __func__, c.key,
                           c.value, name);
                failed = true;
                break;
            }
        }
        if (failed)
            continue;
        if (json_array_append(array.get(), item.get()) != 0) {
            log_fprint(orkad_log, "%s: JSON error adding interface <%s> to array\n", __func__,
                       name);
            failed = true;
            continue;
        }
    }
    if (!failed && array)
        json_object_set(js_hb, "interface", array.get());
    // Changes move to the waiting bits above; those survive until a
    // heartbeat that went through.
    for (int ii = 0; ii < num_stats; ii++)
        stats[ii].ifs.flags &= ~IFS_CHANGE_BITS;
}

if_stats_t *stats_find_if(const char *ifname)
{
    if (ifname == nullptr || stats_if_nametoindex(ifname) == 0)
        return nullptr;
    for (int ii = 0; ii < num_stats; ii++)
        if (strcmp(stats[ii].ifname, ifname) == 0)
            return &stats[ii];
    return nullptr;
}

if_stats_t *stats_get_if(int pos)
{
    if (pos < 0 || pos >= num_stats)
        return nullptr;
    return &stats[pos];
}
