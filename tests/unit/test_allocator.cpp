#include "allocator.h"
#include "testkit.h"

#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace testkit;

namespace
{

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const bool SANITIZED = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
const bool SANITIZED = true;
#else
const bool SANITIZED = false;
#endif
#else
const bool SANITIZED = false;
#endif

std::string env_or_none(const char *name)
{
    const char *v = getenv(name);
    return v == nullptr ? "(none)" : v;
}

// Whether a freed block of 600 bytes goes back to the heap at once (the
// per-thread cache off) or stays counted as in use (kept in the cache).
bool freed_blocks_go_back()
{
    // volatile: the compiler may drop a block nobody uses.
    void *volatile p = malloc(600);
    size_t held = mallinfo2().uordblks;
    free(p);
    return mallinfo2().uordblks < held;
}

TEST(AllocatorTest, AddsTheCacheSettingToTheEnvironmentsTunables)
{
    EXPECT_EQ(allocator_tunables(nullptr), "glibc.malloc.tcache_count=0");
    EXPECT_EQ(allocator_tunables(""), "glibc.malloc.tcache_count=0");
    EXPECT_EQ(allocator_tunables("glibc.malloc.arena_max=2"),
              "glibc.malloc.arena_max=2:glibc.malloc.tcache_count=0");
    // Names that only begin like it are other tunables.
    EXPECT_EQ(allocator_tunables("glibc.malloc.tcache_count_x=1"),
              "glibc.malloc.tcache_count_x=1:glibc.malloc.tcache_count=0");
}

TEST(AllocatorTest, KeepsTheOperatorsChoiceOfTheCache)
{
    EXPECT_EQ(allocator_tunables("glibc.malloc.tcache_count=7"), "");
    EXPECT_EQ(allocator_tunables("glibc.malloc.arena_max=2:glibc.malloc.tcache_count=3"), "");
}

// Run by the test below in the program started again, never on its own.
TEST(AllocatorTest, DISABLED_SecondStart)
{
    const char *out = getenv("ALLOCATOR_TEST_OUT");
    ASSERT_NE(out, nullptr);
    std::string started = env_or_none("GLIBC_TUNABLES");
    bool cache_off = freed_blocks_go_back();
    char *argv[] = {nullptr};
    allocator_tune(argv);
    std::ofstream(out) << "started=" << started << "\nnow=" << env_or_none("GLIBC_TUNABLES")
                       << "\nsaved=" << env_or_none("ORKAD_SAVED_TUNABLES")
                       << "\ncache_off=" << cache_off << "\n";
}

std::string run_twice(const char *tunables)
{
    DeviceRoot root;
    std::string out = root.at("/second-start");
    pid_t pid = fork();
    if (pid == 0) {
        setenv("ALLOCATOR_TEST_OUT", out.c_str(), 1);
        if (tunables == nullptr)
            unsetenv("GLIBC_TUNABLES");
        else
            setenv("GLIBC_TUNABLES", tunables, 1);
        char name[] = "test_allocator";
        char filter[] = "--gtest_filter=AllocatorTest.DISABLED_SecondStart";
        char disabled[] = "--gtest_also_run_disabled_tests";
        char *argv[] = {name, filter, disabled, nullptr};
        allocator_tune(argv);
        _exit(99); // not run again
    }
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    return file_exists(out) ? read_file(out) : "";
}

TEST(AllocatorTest, RunsItselfAgainWithTheCacheOffAndPutsTheEnvironmentBack)
{
    std::string got = run_twice(nullptr);
    EXPECT_NE(got.find("started=glibc.malloc.tcache_count=0\n"), std::string::npos) << got;
    EXPECT_NE(got.find("now=(none)\nsaved=(none)\n"), std::string::npos) << got;
    // The sanitizers bring an allocator of their own.
    if (!SANITIZED) {
        EXPECT_NE(got.find("cache_off=1"), std::string::npos) << got;
    }
}

TEST(AllocatorTest, KeepsTheEnvironmentsOwnTunables)
{
    std::string got = run_twice("glibc.malloc.arena_max=2");
    EXPECT_NE(got.find("started=glibc.malloc.arena_max=2:glibc.malloc.tcache_count=0\n"),
              std::string::npos)
        << got;
    EXPECT_NE(got.find("now=glibc.malloc.arena_max=2\nsaved=(none)\n"), std::string::npos) << got;
}

TEST(AllocatorTest, TheCacheIsOnWithoutTheSetting)
{
    // What the test above tells apart: in a program started without the
    // setting, a freed block stays in the cache.
    if (SANITIZED)
        GTEST_SKIP() << "the sanitizers bring an allocator of their own";
    if (env_or_none("GLIBC_TUNABLES").find("tcache_count") != std::string::npos)
        GTEST_SKIP() << "started with the cache set";
    EXPECT_FALSE(freed_blocks_go_back());
}

} // namespace
