// The interface sampling table: which names count, the slot hash and its
// probing, rates with 32-bit wraps and rounding, period rows, attribute
// reads, the statistics and heartbeat members, and bad counter input. The
// kernel's counters, names, attribute files and clock are stand-ins the
// test controls.
#include "alloc_count.h"
#include "log.h"
#include "stats.h"
#include "stats_ifs.h"
#include "testkit.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <net/if.h>
#include <string>
#include <sys/stat.h>
#include <vector>

using namespace testkit;

namespace
{

// The kernel as the table sees it.
std::map<std::string, unsigned int> kernel_index;
unsigned long now_ms = 0;

unsigned int fake_nametoindex(const char *name)
{
    auto it = kernel_index.find(name);
    return it == kernel_index.end() ? 0 : it->second;
}

char *fake_indextoname(unsigned int idx, char *name)
{
    for (const auto &[n, i] : kernel_index)
        if (i == idx) {
            snprintf(name, IF_NAMESIZE, "%s", n.c_str());
            return name;
        }
    return nullptr;
}

unsigned long fake_clock(unsigned long)
{
    return now_ms;
}

struct Counter {
    std::string name;
    unsigned long long rx, tx;
};

std::string proc_line(const std::string &name, unsigned long long rx, unsigned long long tx)
{
    char line[512];
    // As the kernel prints it: name right-aligned to 6, then 16 columns.
    snprintf(line, sizeof(line), "%6s: %llu 10 0 0 0 0 0 0 %llu 20 0 0 0 0 0 0\n", name.c_str(), rx,
             tx);
    return line;
}

const char *HEADER =
    "Inter-|   Receive                                                |  Transmit\n"
    " face |bytes    packets errs drop fifo frame compressed multicast|bytes    "
    "packets errs drop fifo colls carrier compressed\n";

class StatsIfsTest : public ::testing::Test
{
  protected:
    DeviceRoot root;
    std::string proc, sys;

    void SetUp() override
    {
        log_init();
        init_stats_ifs();
        kernel_index.clear();
        now_ms = 100000;
        proc = root.path() + "/proc_net_dev";
        sys = root.path() + "/sys_class_net";
        mkdir(sys.c_str(), 0755);
        stats_proc_net_dev_path = proc;
        stats_proc_net_dev = stats_proc_net_dev_path.c_str();
        stats_sys_class_net_path = sys;
        stats_sys_class_net = stats_sys_class_net_path.c_str();
        stats_if_nametoindex = fake_nametoindex;
        stats_if_indextoname = fake_indextoname;
        stats_clock = fake_clock;
    }

    std::string stats_proc_net_dev_path, stats_sys_class_net_path;

    void counters(const std::vector<Counter> &list)
    {
        std::string text = HEADER;
        for (const auto &c : list)
            text += proc_line(c.name, c.rx, c.tx);
        write_file(proc, text);
    }
    // Samples these counters at time t (ms).
    void sample(unsigned long t, const std::vector<Counter> &list)
    {
        now_ms = t;
        counters(list);
        ASSERT_EQ(collect_interface_stats(), 0);
    }
    void attrs(const std::string &ifname, const std::string &operstate,
               const std::string &speed = "", const std::string &duplex = "")
    {
        std::string dir = sys + "/" + ifname;
        mkdir(dir.c_str(), 0755);
        write_file(dir + "/operstate", operstate + "\n");
        if (!speed.empty())
            write_file(dir + "/speed", speed + "\n");
        if (!duplex.empty())
            write_file(dir + "/duplex", duplex + "\n");
    }

    if_counters_t *slot_of(const char *name)
    {
        unsigned int idx = kernel_index[name];
        for (auto &c : stats_collection)
            if (c.ifidx == (int)idx)
                return &c;
        return nullptr;
    }
    int slots_holding(unsigned int idx)
    {
        return (int)std::count_if(std::begin(stats_collection), std::end(stats_collection),
                                  [&](const if_counters_t &c) { return c.ifidx == (int)idx; });
    }
    int used_slots()
    {
        return (int)std::count_if(std::begin(stats_collection), std::end(stats_collection),
                                  [](const if_counters_t &c) { return c.ifidx != 0; });
    }
    std::vector<std::string> main_log() { return log_messages(root.at("/rw/orkad.log")); }
    bool logged(const std::string &line)
    {
        auto m = main_log();
        return std::find(m.begin(), m.end(), line) != m.end();
    }
    std::string text_of(json_t *j) { return json_text(j); }
};

} // namespace

// ---- which interfaces count --------------------------------------------

TEST(StatsCounted, NamePrefixes)
{
    for (const char *yes : {"eth0", "eth1.100", "gre1", "tun0", "vif3.0", "vxlan42", "wlan0",
                            "wlan1-1", "wifi0vap1", "wifi1.vap0"})
        EXPECT_TRUE(stats_counted_if(yes)) << yes;
    for (const char *no : {"lo", "br0", "wifi0", "wifi1", "vxla0", "wla0", "et0", "veth0", "dummy0",
                           "vap0", "gr0", "tu0", "vi0", ""})
        EXPECT_FALSE(stats_counted_if(no)) << no;
}

TEST_F(StatsIfsTest, OnlyCountedInterfacesTakeSlots)
{
    kernel_index = {{"lo", 1}, {"br0", 2}, {"wifi0", 3}, {"wifi0vap1", 4}, {"eth0", 5}};
    sample(1000,
           {{"lo", 5, 5}, {"br0", 6, 6}, {"wifi0", 7, 7}, {"wifi0vap1", 8, 8}, {"eth0", 9, 9}});
    EXPECT_EQ(used_slots(), 2);
    EXPECT_NE(slot_of("wifi0vap1"), nullptr);
    EXPECT_NE(slot_of("eth0"), nullptr);
    EXPECT_EQ(slot_of("lo"), nullptr);
    EXPECT_EQ(slot_of("br0"), nullptr);
    EXPECT_EQ(slot_of("wifi0"), nullptr);

    sample(2000,
           {{"lo", 5, 5}, {"br0", 6, 6}, {"wifi0", 7, 7}, {"wifi0vap1", 8, 8}, {"eth0", 9, 9}});
    calc_stats_for_interfaces();
    ASSERT_EQ(num_stats, 2);
    std::vector<std::string> names = {stats[0].ifname, stats[1].ifname};
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"eth0", "wifi0vap1"}));
}

// ---- the slot hash and probing -----------------------------------------

TEST(StatsSlots, MultiplicativeHashKeepsTheLowSevenBits)
{
    // (index * 0x9E3779B1) mod 2^32, low 7 bits, worked by hand.
    EXPECT_EQ(stats_slot_of(1), 49u);  // 0x9E3779B1 & 0x7f
    EXPECT_EQ(stats_slot_of(2), 98u);  // 0x3C6EF362 & 0x7f
    EXPECT_EQ(stats_slot_of(3), 19u);  // 0xDAA66D13 & 0x7f
    EXPECT_EQ(stats_slot_of(128), 0u); // 128 * odd: low 7 bits zero
    EXPECT_EQ(stats_slot_of(129), 49u);
}

TEST_F(StatsIfsTest, CollidingIndexProbesToTheNextSlot)
{
    kernel_index = {{"eth1", 1}, {"eth129", 129}, {"eth257", 257}};
    sample(1000, {{"eth1", 1, 1}, {"eth129", 2, 2}, {"eth257", 3, 3}});
    EXPECT_EQ(stats_collection[49].ifidx, 1);
    EXPECT_EQ(stats_collection[50].ifidx, 129);
    EXPECT_EQ(stats_collection[51].ifidx, 257);
    // Found again at the same places on the next sample.
    sample(2000, {{"eth1", 1001, 1}, {"eth129", 2002, 2}, {"eth257", 3003, 3}});
    EXPECT_EQ(used_slots(), 3);
    EXPECT_EQ(stats_collection[49].rx_max, 1000u);
    EXPECT_EQ(stats_collection[50].rx_max, 2000u);
    EXPECT_EQ(stats_collection[51].rx_max, 3000u);
}

TEST_F(StatsIfsTest, ProbingWrapsAtTheEndOfTheTable)
{
    // 127 * 0x9E3779B1 ends in 0x4F... low 7 bits: worked out below.
    unsigned int last = 0;
    for (unsigned int i = 1; i < 100000 && last == 0; i++)
        if (stats_slot_of(i) == 127)
            last = i;
    ASSERT_NE(last, 0u);
    unsigned int other = 0;
    for (unsigned int i = last + 1; i < 200000 && other == 0; i++)
        if (stats_slot_of(i) == 127)
            other = i;
    kernel_index = {{"eth-a", last}, {"eth-b", other}};
    sample(1000, {{"eth-a", 1, 1}, {"eth-b", 2, 2}});
    EXPECT_EQ(stats_collection[127].ifidx, (int)last);
    EXPECT_EQ(stats_collection[0].ifidx, (int)other);
}

TEST_F(StatsIfsTest, StaleSlotIsTakenOverAndPrimed)
{
    kernel_index = {{"eth1", 1}};
    sample(1000, {{"eth1", 500, 600}});
    sample(2000, {{"eth1", 1500, 1600}});
    EXPECT_EQ(stats_collection[49].rx_max, 1000u);
    // eth1 goes away; an interface whose index hashes to the same slot
    // takes it over, primed with its own counters and no rate.
    kernel_index = {{"eth129", 129}};
    sample(3000, {{"eth129", 70000, 80000}});
    const if_counters_t &c = stats_collection[49];
    EXPECT_EQ(c.ifidx, 129);
    EXPECT_EQ(c.s_time, 3000u);
    EXPECT_EQ(c.l_time, 3000u);
    EXPECT_EQ(c.rx_start, 70000u);
    EXPECT_EQ(c.rx_last, 70000u);
    EXPECT_EQ(c.tx_start, 80000u);
    EXPECT_EQ(c.tx_last, 80000u);
    EXPECT_EQ(c.rx_max, 0u);
    EXPECT_EQ(c.tx_max, 0u);
    EXPECT_EQ(used_slots(), 1);
}

// eth1 and eth129 share home slot 49; eth129 sits one further on. When
// eth1 goes, eth129 keeps its own slot: the stale one in front of it is not
// taken, so eth129 is never counted twice, and the stale slot is freed at
// the period end.
TEST_F(StatsIfsTest, StaleSlotBeforeALiveOneIsNotTakenByIt)
{
    kernel_index = {{"eth1", 1}, {"eth129", 129}};
    sample(1000, {{"eth1", 0, 0}, {"eth129", 0, 0}});
    sample(2000, {{"eth1", 1000, 0}, {"eth129", 2000, 0}});
    ASSERT_EQ(stats_collection[49].ifidx, 1);
    ASSERT_EQ(stats_collection[50].ifidx, 129);
    kernel_index.erase("eth1");
    sample(3000, {{"eth129", 4000, 0}});
    sample(4000, {{"eth129", 6000, 0}});
    EXPECT_EQ(slots_holding(129), 1);
    EXPECT_EQ(stats_collection[50].l_time, 4000u);
    calc_stats_for_interfaces();
    ASSERT_EQ(num_stats, 1);
    EXPECT_STREQ(stats[0].ifname, "eth129");
    // One period of three seconds: 6000 bytes.
    EXPECT_EQ(stats[0].rx_avg, 2000u);
    EXPECT_EQ(stats[0].rx_max, 2000u);
    EXPECT_EQ(used_slots(), 1);
    EXPECT_EQ(stats_collection[49].ifidx, 129);
}

// The period end frees eth1's slot in front of eth129: eth129 moves back
// into it rather than leaving a gap its next sample would stop at (and
// claim, counting it twice and its old slot never again).
TEST_F(StatsIfsTest, FreedSlotIsFilledFromFurtherOnItsRun)
{
    kernel_index = {{"eth1", 1}, {"eth129", 129}};
    sample(1000, {{"eth1", 0, 0}, {"eth129", 0, 0}});
    sample(2000, {{"eth1", 1000, 0}, {"eth129", 2000, 0}});
    kernel_index.erase("eth1");
    calc_stats_for_interfaces();
    ASSERT_EQ(num_stats, 1);
    EXPECT_STREQ(stats[0].ifname, "eth129");
    EXPECT_EQ(used_slots(), 1);
    EXPECT_EQ(stats_collection[49].ifidx, 129);
    EXPECT_EQ(stats_collection[50].ifidx, 0);

    sample(3000, {{"eth129", 4000, 0}});
    sample(4000, {{"eth129", 6000, 0}});
    EXPECT_EQ(slots_holding(129), 1);
    EXPECT_EQ(used_slots(), 1);
    calc_stats_for_interfaces();
    ASSERT_EQ(num_stats, 1);
    EXPECT_EQ(stats[0].rx_avg, 2000u);
}

// A run of four: x and y at home 49, z at home 50 pushed to 51, w at its
// own home 52. x goes: y and z each move back one, w stays, and every one
// of them is found again in one slot.
TEST_F(StatsIfsTest, FreeingMovesBackOnlyWhatItsHomeAllows)
{
    auto at_home = [](unsigned int home, unsigned int from) {
        for (unsigned int i = from + 1;; i++)
            if (stats_slot_of(i) == home)
                return i;
    };
    unsigned int x = 1, y = 129, z = at_home(50, 0), w = at_home(52, 0);
    kernel_index = {{"tun-x", x}, {"tun-y", y}, {"tun-z", z}, {"tun-w", w}};
    std::vector<Counter> all = {{"tun-x", 0, 0}, {"tun-y", 0, 0}, {"tun-z", 0, 0}, {"tun-w", 0, 0}};
    sample(1000, all);
    ASSERT_EQ(stats_collection[49].ifidx, (int)x);
    ASSERT_EQ(stats_collection[50].ifidx, (int)y);
    ASSERT_EQ(stats_collection[51].ifidx, (int)z);
    ASSERT_EQ(stats_collection[52].ifidx, (int)w);
    for (auto &c : all)
        c.rx = 1000;
    sample(2000, all);
    kernel_index.erase("tun-x");
    calc_stats_for_interfaces();
    EXPECT_EQ(num_stats, 3);
    EXPECT_EQ(stats_collection[49].ifidx, (int)y);
    EXPECT_EQ(stats_collection[50].ifidx, (int)z);
    EXPECT_EQ(stats_collection[51].ifidx, 0);
    EXPECT_EQ(stats_collection[52].ifidx, (int)w);

    all.erase(all.begin());
    for (auto &c : all)
        c.rx = 3000;
    sample(3000, all);
    for (unsigned int i : {y, z, w})
        EXPECT_EQ(slots_holding(i), 1) << i;
    EXPECT_EQ(used_slots(), 3);
    calc_stats_for_interfaces();
    ASSERT_EQ(num_stats, 3);
    for (int r = 0; r < 3; r++)
        EXPECT_EQ(stats[r].rx_avg, 2000u) << stats[r].ifname;
}

// The run wraps: a at slot 127, b (same home) at slot 0. a goes at the
// period end; b, closed already at slot 0, moves back to 127 and yields no
// second row, and its next samples land in that one slot.
TEST_F(StatsIfsTest, FreeingAcrossTheEndOfTheTable)
{
    unsigned int a = 0, b = 0;
    for (unsigned int i = 1; b == 0; i++)
        if (stats_slot_of(i) == 127)
            (a == 0 ? a : b) = i;
    kernel_index = {{"eth-a", a}, {"eth-b", b}};
    sample(1000, {{"eth-a", 0, 0}, {"eth-b", 0, 0}});
    sample(2000, {{"eth-a", 1000, 0}, {"eth-b", 1000, 0}});
    ASSERT_EQ(stats_collection[127].ifidx, (int)a);
    ASSERT_EQ(stats_collection[0].ifidx, (int)b);
    kernel_index.erase("eth-a");
    calc_stats_for_interfaces();
    ASSERT_EQ(num_stats, 1);
    EXPECT_STREQ(stats[0].ifname, "eth-b");
    EXPECT_EQ(stats_collection[127].ifidx, (int)b);
    EXPECT_EQ(used_slots(), 1);
    sample(3000, {{"eth-b", 3000, 0}});
    EXPECT_EQ(slots_holding(b), 1);
    EXPECT_EQ(used_slots(), 1);
    calc_stats_for_interfaces();
    ASSERT_EQ(num_stats, 1);
    EXPECT_EQ(stats[0].rx_avg, 2000u);
}

// A full table has no free slot to end the moving back at: freeing one of
// 128 live slots still ends, and every other interface keeps one slot.
TEST_F(StatsIfsTest, FreeingInAFullTable)
{
    std::vector<Counter> list;
    for (unsigned int i = 1; i <= 128; i++) {
        std::string name = "eth" + std::to_string(i);
        kernel_index[name] = i;
        list.push_back({name, 0, 0});
    }
    sample(1000, list);
    ASSERT_EQ(used_slots(), 128);
    for (auto &c : list)
        c.rx = 1000;
    sample(2000, list);
    kernel_index.erase("eth1");
    list.erase(list.begin());
    calc_stats_for_interfaces();
    EXPECT_EQ(num_stats, 127);
    EXPECT_EQ(used_slots(), 127);
    sample(3000, list);
    for (unsigned int i = 2; i <= 128; i++)
        ASSERT_EQ(slots_holding(i), 1) << i;
    EXPECT_EQ(used_slots(), 127);
}

TEST_F(StatsIfsTest, HundredTwentyNinthInterfaceIsSkippedWithOverflow)
{
    std::vector<Counter> list;
    for (unsigned int i = 1; i <= 129; i++) {
        std::string name = "eth" + std::to_string(i);
        kernel_index[name] = i;
        list.push_back({name, i, i});
    }
    sample(1000, list);
    EXPECT_EQ(used_slots(), 128);
    EXPECT_TRUE(logged("collect_interface_stats: error, interface table overflow, skipped eth129"));
    // The 128 that have slots keep them; the 129th is skipped every time.
    sample(2000, list);
    EXPECT_EQ(used_slots(), 128);
    auto m = main_log();
    EXPECT_EQ(
        std::count(m.begin(), m.end(),
                   "collect_interface_stats: error, interface table overflow, skipped eth129"),
        2);
    EXPECT_EQ(slot_of("eth129"), nullptr);
    // One of them goes: the next sample finds its slot stale and the 129th
    // moves in.
    kernel_index.erase("eth1");
    list.erase(list.begin());
    sample(3000, list);
    EXPECT_EQ(used_slots(), 128);
    EXPECT_NE(slot_of("eth129"), nullptr);
}

TEST_F(StatsIfsTest, UnknownIndexIsLoggedAndSkipped)
{
    kernel_index = {};
    sample(1000, {{"eth5", 1, 1}});
    EXPECT_EQ(used_slots(), 0);
    auto m = main_log();
    ASSERT_FALSE(m.empty());
    EXPECT_EQ(m.back().rfind("collect_interface_stats: error ", 0), 0u) << m.back();
    EXPECT_NE(m.back().find(" getting index of interface <eth5>"), std::string::npos);
}

// ---- rates ---------------------------------------------------------------

TEST(StatsRates, WrapAndRounding)
{
    // 4294967000 -> 200 across a 32-bit wrap: 296 + 200 = 496 bytes.
    EXPECT_EQ(stats_rate(4294967000ULL, 200, 1000), 496u);
    // Over 2 s: 248 per second.
    EXPECT_EQ(stats_rate(4294967000ULL, 200, 2000), 248u);
    // Rounded to nearest: 1 byte in 3 ms is 333.3 -> 333; in 2000 ms 0.5 -> 1;
    // 3 bytes in 2000 ms 1.5 -> 2; 1 byte in 2001 ms 0.4998 -> 0.
    EXPECT_EQ(stats_rate(0, 1, 3), 333u);
    EXPECT_EQ(stats_rate(0, 1, 2000), 1u);
    EXPECT_EQ(stats_rate(0, 3, 2000), 2u);
    EXPECT_EQ(stats_rate(0, 1, 2001), 0u);
    // 2 bytes in 3 ms: 666.7 -> 667.
    EXPECT_EQ(stats_rate(10, 12, 3), 667u);
    // Only the low 32 bits of the step count, even on 64-bit counters.
    EXPECT_EQ(stats_rate(0, (1ULL << 32) + 7, 1), 7000u);
}

TEST_F(StatsIfsTest, ReceiveCounterWrapCountsFourHundredNinetySix)
{
    kernel_index = {{"eth0", 2}};
    sample(10000, {{"eth0", 4294967000ULL, 0}});
    sample(11000, {{"eth0", 200, 0}});
    if_counters_t *c = slot_of("eth0");
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->rx_max, 496u);
    EXPECT_EQ(c->rx_last, 200u);
    calc_stats_for_interfaces();
    ASSERT_EQ(num_stats, 1);
    EXPECT_EQ(stats[0].rx_avg, 496u);
    EXPECT_EQ(stats[0].rx_max, 496u);
}

TEST_F(StatsIfsTest, MaximumIsTheHighestSampleRateAndAverageTheWholePeriod)
{
    kernel_index = {{"eth0", 2}};
    sample(10000, {{"eth0", 0, 0}});
    sample(15000, {{"eth0", 5000, 100}});   // 1000/s rx, 20/s tx
    sample(20000, {{"eth0", 30000, 100}});  // 5000/s rx, 0 tx
    sample(25000, {{"eth0", 32500, 3100}}); // 500/s rx, 600/s tx
    calc_stats_for_interfaces();
    ASSERT_EQ(num_stats, 1);
    EXPECT_STREQ(stats[0].ifname, "eth0");
    EXPECT_EQ(stats[0].rx_max, 5000u);
    EXPECT_EQ(stats[0].tx_max, 600u);
    // 32500 bytes in 15 s; 3100 in 15 s = 206.67 -> 207.
    EXPECT_EQ(stats[0].rx_avg, 2167u);
    EXPECT_EQ(stats[0].tx_avg, 207u);
    // The slot starts the next period where this one ended, maxima cleared.
    if_counters_t *c = slot_of("eth0");
    EXPECT_EQ(c->rx_max, 0u);
    EXPECT_EQ(c->tx_max, 0u);
    EXPECT_EQ(c->rx_start, 32500u);
    EXPECT_EQ(c->tx_start, 3100u);
    EXPECT_EQ(c->s_time, 25000u);
}

TEST_F(StatsIfsTest, SampleWithoutTimePassingIsIgnored)
{
    kernel_index = {{"eth0", 2}};
    sample(10000, {{"eth0", 0, 0}});
    sample(10000, {{"eth0", 999999, 999999}});
    if_counters_t *c = slot_of("eth0");
    EXPECT_EQ(c->rx_last, 0u);
    EXPECT_EQ(c->rx_max, 0u);
    // A clock that went back is ignored too.
    sample(9000, {{"eth0", 999999, 999999}});
    EXPECT_EQ(c->rx_last, 0u);
    EXPECT_EQ(c->l_time, 10000u);
}

TEST_F(StatsIfsTest, MillisecondClockWrapBetweenSamples)
{
    kernel_index = {{"eth0", 2}};
    sample(4294966796UL, {{"eth0", 0, 0}}); // 500 ms before the 32-bit wrap
    sample(500, {{"eth0", 1000, 0}});       // 1000 ms later
    EXPECT_EQ(slot_of("eth0")->rx_max, 1000u);
    calc_stats_for_interfaces();
    ASSERT_EQ(num_stats, 1);
    EXPECT_EQ(stats[0].rx_avg, 1000u);
}

// ---- period rows ---------------------------------------------------------

TEST_F(StatsIfsTest, InterfaceSampledOnceInAPeriodYieldsNoRow)
{
    kernel_index = {{"eth0", 2}, {"eth1", 3}};
    sample(10000, {{"eth0", 0, 0}});
    sample(15000, {{"eth0", 100, 100}, {"eth1", 0, 0}});
    calc_stats_for_interfaces();
    ASSERT_EQ(num_stats, 1);
    EXPECT_STREQ(stats[0].ifname, "eth0");
    // Next period: eth0 not sampled again, eth1 twice.
    sample(20000, {{"eth1", 500, 0}});
    calc_stats_for_interfaces();
    ASSERT_EQ(num_stats, 1);
    EXPECT_STREQ(stats[0].ifname, "eth1");
    EXPECT_EQ(stats[0].rx_avg, 100u);
}

TEST_F(StatsIfsTest, VanishedInterfaceFreesItsSlotAtPeriodEnd)
{
    kernel_index = {{"eth0", 2}, {"eth1", 3}};
    sample(10000, {{"eth0", 0, 0}, {"eth1", 0, 0}});
    sample(15000, {{"eth0", 100, 0}, {"eth1", 100, 0}});
    kernel_index.erase("eth1");
    calc_stats_for_interfaces();
    EXPECT_EQ(num_stats, 1);
    EXPECT_EQ(used_slots(), 1);
    if_counters_t empty{};
    EXPECT_EQ(memcmp(&stats_collection[stats_slot_of(3)], &empty, sizeof(empty)), 0);
}

TEST_F(StatsIfsTest, RowLookups)
{
    kernel_index = {{"eth0", 2}, {"eth1", 3}};
    sample(10000, {{"eth0", 0, 0}, {"eth1", 0, 0}});
    sample(15000, {{"eth0", 100, 0}, {"eth1", 100, 0}});
    calc_stats_for_interfaces();
    ASSERT_EQ(num_stats, 2);
    EXPECT_EQ(stats_get_if(0), &stats[0]);
    EXPECT_EQ(stats_get_if(1), &stats[1]);
    EXPECT_EQ(stats_get_if(2), nullptr);
    EXPECT_EQ(stats_get_if(-1), nullptr);
    ASSERT_NE(stats_find_if("eth1"), nullptr);
    EXPECT_STREQ(stats_find_if("eth1")->ifname, "eth1");
    EXPECT_EQ(stats_find_if("eth9"), nullptr);
    // Gone from the kernel: not found even though the row is still there.
    kernel_index.erase("eth1");
    EXPECT_EQ(stats_find_if("eth1"), nullptr);
}

// ---- attribute files -----------------------------------------------------

class StatsRowsTest : public StatsIfsTest
{
  protected:
    // Two rows, eth0 and eth1, in slot order.
    void two_rows()
    {
        kernel_index = {{"eth0", 2}, {"eth1", 3}};
        sample(10000, {{"eth0", 0, 0}, {"eth1", 0, 0}});
        sample(15000, {{"eth0", 15000, 30000}, {"eth1", 0, 5}});
        calc_stats_for_interfaces();
        ASSERT_EQ(num_stats, 2);
    }
    int row(const char *name)
    {
        for (int i = 0; i < num_stats; i++)
            if (strcmp(stats[i].ifname, name) == 0)
                return i;
        return -1;
    }
    // A statistics document, made and dropped: the pass that reads the
    // attributes and marks their changes.
    void document()
    {
        Json doc(json_object());
        ASSERT_EQ(stats_interfaces(doc.get()), 0);
    }
    // What the heartbeat provider adds to an empty heartbeat.
    std::string heartbeat(bool last_failed = false)
    {
        Json hb(json_object());
        stats_hb_if(hb.get(), last_failed);
        return text_of(hb.get());
    }
    static std::string interfaces(const std::string &array)
    {
        return R"({"interface":)" + array + "}";
    }
};

TEST_F(StatsRowsTest, ReadsStatusSpeedDuplexAndMarksChanges)
{
    two_rows();
    int r = row("eth0");
    attrs("eth0", "up", "1000", "full");
    EXPECT_EQ(get_value_from_file(r, "operstate", 1), 0);
    EXPECT_EQ(get_value_from_file(r, "speed", 2), 0);
    EXPECT_EQ(get_value_from_file(r, "duplex", 4), 0);
    EXPECT_STREQ(stats[r].ifs.status, "up");
    EXPECT_STREQ(stats[r].ifs.speed, "1000");
    EXPECT_STREQ(stats[r].ifs.duplex, "full");
    EXPECT_EQ(stats[r].ifs.flags, 0x07);
    // Same values again: no new change bits (the old ones stay until a
    // heartbeat takes them).
    stats[r].ifs.flags = 0;
    EXPECT_EQ(get_value_from_file(r, "operstate", 1), 0);
    EXPECT_EQ(get_value_from_file(r, "speed", 2), 0);
    EXPECT_EQ(stats[r].ifs.flags, 0);
    attrs("eth0", "down", "100", "half");
    EXPECT_EQ(get_value_from_file(r, "speed", 2), 0);
    EXPECT_EQ(stats[r].ifs.flags, 0x02);
}

TEST_F(StatsRowsTest, InvalidPositionAndBit)
{
    two_rows();
    EXPECT_EQ(get_value_from_file(2, "operstate", 1), -1);
    EXPECT_TRUE(logged("get_value_from_file: invalid interface position index 2"));
    EXPECT_EQ(get_value_from_file(-1, "operstate", 1), -1);
    EXPECT_TRUE(logged("get_value_from_file: invalid interface position index -1"));
    EXPECT_EQ(get_value_from_file(0, "operstate", 8), -2);
    EXPECT_TRUE(logged("get_value_from_file: invalid variable bit 0x8"));
    EXPECT_EQ(get_value_from_file(0, "operstate", 3), -2);
    EXPECT_TRUE(logged("get_value_from_file: invalid variable bit 0x3"));
}

TEST_F(StatsRowsTest, UnknownOperstateEmptiesStatusAndClearsItsBits)
{
    two_rows();
    int r = row("eth0");
    attrs("eth0", "up");
    ASSERT_EQ(get_value_from_file(r, "operstate", 1), 0);
    stats[r].ifs.flags = 0x0101 | 0x0202;
    attrs("eth0", "unknown");
    EXPECT_EQ(get_value_from_file(r, "operstate", 1), -6);
    EXPECT_STREQ(stats[r].ifs.status, "");
    EXPECT_EQ(stats[r].ifs.flags, 0x0202);
    for (const char *word : {"dormant", "lowerla", "Up", "", "notpresent"}) {
        attrs("eth0", "up");
        ASSERT_EQ(get_value_from_file(r, "operstate", 1), 0);
        stats[r].ifs.flags = 0x0101;
        attrs("eth0", word);
        EXPECT_EQ(get_value_from_file(r, "operstate", 1), -6) << word;
        EXPECT_STREQ(stats[r].ifs.status, "") << word;
        EXPECT_EQ(stats[r].ifs.flags, 0) << word;
    }
}

TEST_F(StatsRowsTest, DuplexOtherThanHalfOrFullIsRefused)
{
    two_rows();
    int r = row("eth0");
    attrs("eth0", "up", "10", "unknown");
    stats[r].ifs.flags = 0x0404;
    EXPECT_EQ(get_value_from_file(r, "duplex", 4), -6);
    EXPECT_STREQ(stats[r].ifs.duplex, "");
    EXPECT_EQ(stats[r].ifs.flags, 0);
    // Speed is taken as read, whatever it says.
    attrs("eth0", "up", "-1", "full");
    EXPECT_EQ(get_value_from_file(r, "speed", 2), 0);
    EXPECT_STREQ(stats[r].ifs.speed, "-1");
}

TEST_F(StatsRowsTest, LongValueIsCutToSevenBytes)
{
    two_rows();
    int r = row("eth0");
    attrs("eth0", "up", "1000000000");
    EXPECT_EQ(get_value_from_file(r, "speed", 2), 0);
    EXPECT_STREQ(stats[r].ifs.speed, "1000000");
}

TEST_F(StatsRowsTest, UnreadableAttributeEmptiesTheFieldAndSaysSo)
{
    two_rows();
    int r = row("eth0");
    attrs("eth0", "up", "1000", "full");
    ASSERT_EQ(get_value_from_file(r, "speed", 2), 0);
    stats[r].ifs.flags = 0x0202;
    std::string speed = sys + "/eth0/speed";
    // Missing file: -4.
    unlink(speed.c_str());
    EXPECT_EQ(get_value_from_file(r, "speed", 2), -4);
    EXPECT_STREQ(stats[r].ifs.speed, "");
    EXPECT_EQ(stats[r].ifs.flags, 0);
    bool said = false;
    for (auto &m : main_log())
        said = said || (m.rfind("get_value_from_file: error 2 opening ", 0) == 0 &&
                        m.find("/eth0/speed, speed of <eth0> unknown now") != std::string::npos);
    EXPECT_TRUE(said);
    // A file that opens but cannot be read (a folder): -5.
    ASSERT_EQ(get_value_from_file(r, "duplex", 4), 0);
    stats[r].ifs.flags = 0x0404;
    std::string duplex = sys + "/eth0/duplex";
    unlink(duplex.c_str());
    mkdir(duplex.c_str(), 0755);
    EXPECT_EQ(get_value_from_file(r, "duplex", 4), -5);
    EXPECT_STREQ(stats[r].ifs.duplex, "");
    EXPECT_EQ(stats[r].ifs.flags, 0);
    said = false;
    for (auto &m : main_log())
        said = said || (m.rfind("get_value_from_file: error 21 reading ", 0) == 0 &&
                        m.find("/eth0/duplex, duplex of <eth0> unknown now") != std::string::npos);
    EXPECT_TRUE(said);
    // Already empty: nothing more to say.
    size_t lines = main_log().size();
    EXPECT_EQ(get_value_from_file(r, "speed", 2), -4);
    EXPECT_EQ(main_log().size(), lines);
}

// ---- the statistics member -------------------------------------------------

TEST_F(StatsRowsTest, StatisticsArrayRowsAndRates)
{
    two_rows();
    attrs("eth0", "up", "1000", "full");
    attrs("eth1", "down", "1000", "full");
    json_t *doc = json_object();
    ASSERT_EQ(stats_interfaces(doc), 0);
    // eth0: 3000/s rx, 6000/s tx, over the one 5-s step; eth1: 5 bytes in
    // 5 s is 1/s tx, nothing received (left out).
    std::string a = R"({"id":"eth0","rx_max":3000,"rx_avg":3000,"tx_max":6000,"tx_avg":6000})";
    std::string b = R"({"id":"eth1","tx_max":1,"tx_avg":1})";
    std::string expected = row("eth0") == 0 ? "[" + a + "," + b + "]" : "[" + b + "," + a + "]";
    EXPECT_EQ(text_of(json_object_get(doc, "interface")), expected);
    int down = row("eth1"), up = row("eth0");
    EXPECT_STREQ(stats[up].ifs.status, "up");
    EXPECT_STREQ(stats[up].ifs.speed, "1000");
    EXPECT_STREQ(stats[up].ifs.duplex, "full");
    // A row whose state is "down" reports empty speed and duplex.
    EXPECT_STREQ(stats[down].ifs.status, "down");
    EXPECT_STREQ(stats[down].ifs.speed, "");
    EXPECT_STREQ(stats[down].ifs.duplex, "");
    json_decref(doc);
}

TEST_F(StatsIfsTest, WirelessRowsCarryTheRadioAndNoSpeed)
{
    kernel_index = {{"wlan0-1", 7}};
    sample(10000, {{"wlan0-1", 0, 0}});
    sample(12000, {{"wlan0-1", 2000, 0}});
    calc_stats_for_interfaces();
    attrs("wlan0-1", "up", "54", "half");
    json_t *doc = json_object();
    ASSERT_EQ(stats_interfaces(doc), 0);
    EXPECT_EQ(text_of(json_object_get(doc, "interface")),
              R"([{"id":"wlan0-1","radio":"wlan0","rx_max":1000,"rx_avg":1000}])");
    EXPECT_STREQ(stats[0].ifs.status, "up");
    EXPECT_STREQ(stats[0].ifs.speed, "");
    EXPECT_STREQ(stats[0].ifs.duplex, "");
    json_decref(doc);
}

TEST_F(StatsIfsTest, NoRowsGiveAnEmptyArrayAndNullObjectIsRefused)
{
    json_t *doc = json_object();
    ASSERT_EQ(stats_interfaces(doc), 0);
    EXPECT_EQ(text_of(doc), R"({"interface":[]})");
    json_decref(doc);
    EXPECT_EQ(stats_interfaces(nullptr), 1);
}

// ---- heartbeat changes ---------------------------------------------------

TEST_F(StatsRowsTest, HeartbeatReportsChangesOnce)
{
    two_rows();
    attrs("eth0", "up", "1000", "full");
    attrs("eth1", "down");
    document();

    std::string a = R"({"id":"eth0","status":"up","speed":"1000","duplex":"full"})";
    std::string b = R"({"id":"eth1","status":"down"})";
    std::string expected = row("eth0") == 0 ? "[" + a + "," + b + "]" : "[" + b + "," + a + "]";
    EXPECT_EQ(heartbeat(), interfaces(expected));
    for (int i = 0; i < num_stats; i++)
        EXPECT_EQ(stats[i].ifs.flags & 0xff, 0);

    // Nothing changed since: no member at all.
    EXPECT_EQ(heartbeat(), "{}");

    // eth0 goes down: only its status is new.
    attrs("eth0", "down");
    document();
    // Speed and duplex were emptied without a change bit: only the status.
    EXPECT_EQ(heartbeat(), interfaces(R"([{"id":"eth0","status":"down"}])"));
}

TEST_F(StatsRowsTest, HeartbeatAfterAFailedOneRepeatsItsChanges)
{
    two_rows();
    int r = row("eth1");
    attrs("eth0", "up", "1000", "full");
    attrs("eth1", "up", "100", "half");
    document();
    heartbeat();

    // A change goes out with a heartbeat that then fails...
    attrs("eth1", "down");
    document();
    EXPECT_EQ(heartbeat(), interfaces(R"([{"id":"eth1","status":"down"}])"));
    EXPECT_EQ(stats[r].ifs.flags, 0x0100);

    // ...and a second change comes before the next one, which follows the
    // failure: both are in it.
    attrs("eth0", "up", "100", "full");
    document();
    std::string a = R"({"id":"eth0","speed":"100"})";
    std::string b = R"({"id":"eth1","status":"down"})";
    std::string expected = row("eth0") == 0 ? "[" + a + "," + b + "]" : "[" + b + "," + a + "]";
    EXPECT_EQ(heartbeat(true), interfaces(expected));

    // Failed again: the same again.
    EXPECT_EQ(heartbeat(true), interfaces(expected));

    // That one went through: the next has nothing to repeat.
    EXPECT_EQ(heartbeat(), "{}");
}

TEST_F(StatsRowsTest, ChangeBitsStayWithTheRowPosition)
{
    // The row that stands at a position compares with the one before it
    // there, whichever interface that was.
    two_rows();
    attrs("eth0", "up", "1000", "full");
    attrs("eth1", "up", "1000", "full");
    document();
    heartbeat();
    // The first row's interface is not sampled in the next period: the
    // other moves into position 0 and, with the same attributes, shows no
    // change.
    std::string first = stats[0].ifname, second = stats[1].ifname;
    sample(20000, {{second, 100, 100}});
    calc_stats_for_interfaces();
    ASSERT_EQ(num_stats, 1);
    EXPECT_EQ(std::string(stats[0].ifname), second);
    document();
    EXPECT_EQ(heartbeat(), "{}");
}

// ---- bad counter input ---------------------------------------------------

TEST_F(StatsIfsTest, MissingColumnsOverlongNamesAndJunkAreSkipped)
{
    kernel_index = {{"eth0", 2}, {"eth1", 3}, {"eth2", 4}};
    std::string text = HEADER;
    text += "  eth0: 100 1 0 0 0 0 0 0\n";                              // transmit side missing
    text += "  eth1: 100\n";                                            // almost nothing
    text += "eth0123456789abcdefgh: 1 2 3 4 5 6 7 8 9 1 2 3 4 5 6 7\n"; // name too long
    text += "garbage without a colon\n";
    text += "\n";
    text += std::string(600, 'x') + ": 1 2\n"; // longer than a read piece
    text += proc_line("eth2", 10, 20);
    write_file(proc, text);
    ASSERT_EQ(collect_interface_stats(), 0);
    EXPECT_EQ(used_slots(), 1);
    ASSERT_NE(slot_of("eth2"), nullptr);
    EXPECT_EQ(slot_of("eth2")->rx_last, 10u);
    EXPECT_EQ(slot_of("eth2")->tx_last, 20u);
    EXPECT_TRUE(logged("collect_interface_stats: unreadable counters for <eth0>, line skipped"));
    EXPECT_TRUE(logged("collect_interface_stats: unreadable counters for <eth1>, line skipped"));
    EXPECT_TRUE(logged(
        "collect_interface_stats: unreadable counters for <eth0123456789abc>, line skipped"));
}

TEST_F(StatsIfsTest, CountersGoingBackwardsCountAsAWrap)
{
    // The kernel's counters only grow; a step back is taken for a 32-bit
    // wrap, as on boards whose counters are 32 bits wide.
    kernel_index = {{"eth0", 2}};
    sample(10000, {{"eth0", 1000, 5000000000ULL}});
    sample(11000, {{"eth0", 400, 4999999999ULL}});
    if_counters_t *c = slot_of("eth0");
    EXPECT_EQ(c->rx_max, 4294966696u);
    EXPECT_EQ(c->tx_max, 4294967295u);
    EXPECT_EQ(c->rx_last, 400u);
    calc_stats_for_interfaces();
    ASSERT_EQ(num_stats, 1);
    EXPECT_EQ(stats[0].rx_avg, 4294966696u);
    // And the next step is measured from where it went.
    sample(12000, {{"eth0", 1400, 4999999999ULL}});
    EXPECT_EQ(c->rx_max, 1000u);
}

TEST_F(StatsIfsTest, MissingCounterFileIsReported)
{
    stats_proc_net_dev = "/nonexistent/net/dev";
    EXPECT_EQ(collect_interface_stats(), 1);
    EXPECT_TRUE(logged("collect_interface_stats: error 2 opening /nonexistent/net/dev"));
}

TEST_F(StatsIfsTest, ManyInterfacesComingAndGoingLeakNoSlots)
{
    // Waves of 100 interfaces with new indexes each time; the old ones are
    // gone. Slots are freed or taken over, never lost.
    unsigned int next = 1;
    unsigned long t = 10000;
    for (int wave = 0; wave < 5; wave++) {
        kernel_index.clear();
        std::vector<Counter> list;
        for (int i = 0; i < 100; i++) {
            std::string name = "tun" + std::to_string(next);
            kernel_index[name] = next++;
            list.push_back({name, 0, 0});
        }
        sample(t, list);
        for (auto &c : list)
            c.rx = 1000;
        sample(t + 1000, list);
        t += 2000;
        // The last wave's slots that were not taken over are still held...
        EXPECT_GE(used_slots(), 100);
        EXPECT_LE(used_slots(), 128);
        calc_stats_for_interfaces();
        EXPECT_EQ(num_stats, 100);
        // ...until the period ends.
        EXPECT_EQ(used_slots(), 100);
    }
    EXPECT_FALSE(
        logged("collect_interface_stats: error, interface table overflow, skipped tun401"));
}

// ---- a tick allocates nothing --------------------------------------------

#if ALLOC_COUNTING

TEST_F(StatsIfsTest, SamplingTickAllocatesNothing)
{
    std::vector<Counter> list;
    for (unsigned int i = 1; i <= 128; i++) {
        std::string name = "eth" + std::to_string(i);
        kernel_index[name] = i;
        list.push_back({name, i * 1000ULL, i * 2000ULL});
    }
    sample(10000, list); // claims the slots
    for (auto &c : list)
        c.rx += 5000;
    now_ms = 15000;
    counters(list);
    alloc_count::start();
    int r = collect_interface_stats();
    long allocations = alloc_count::stop();
    EXPECT_EQ(r, 0);
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(slot_of("eth7")->rx_max, 1000u);
    // The counter is live: one allocation is seen.
    alloc_count::start();
    void *p = malloc(16);
    allocations = alloc_count::stop();
    free(p);
    EXPECT_EQ(allocations, 1);
}
#endif
