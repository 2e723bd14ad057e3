// How many threads a model may ask the library for, against the cores the
// process may use.

#include "common/thread_count_cap.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <thread>

#ifdef __linux__
#include <sched.h>
#endif

namespace kerrow {
namespace {

TEST(CapThreadCount, CountAboveTheCoresIsLoweredToThem) {
  EXPECT_EQ(CapThreadCount(4, 2), 2);
  EXPECT_EQ(CapThreadCount(64, 2), 2);
  EXPECT_EQ(CapThreadCount(3, 1), 1);
  EXPECT_EQ(CapThreadCount(std::numeric_limits<int32_t>::max(), 8), 8);
}

TEST(CapThreadCount, CountWithinTheCoresIsKept) {
  EXPECT_EQ(CapThreadCount(1, 2), 1);
  EXPECT_EQ(CapThreadCount(2, 2), 2);
  EXPECT_EQ(CapThreadCount(4, 64), 4);
}

TEST(CapThreadCount, UnknownCoreCountKeepsEveryCount) {
  EXPECT_EQ(CapThreadCount(4, 0), 4);
  EXPECT_EQ(CapThreadCount(64, 0), 64);
}

// The adapters raise these to 1 themselves; the cap must not change them.
TEST(CapThreadCount, CountsBelowOneAreKept) {
  EXPECT_EQ(CapThreadCount(0, 2), 0);
  EXPECT_EQ(CapThreadCount(-3, 2), -3);
  EXPECT_EQ(CapThreadCount(std::numeric_limits<int32_t>::min(), 2), std::numeric_limits<int32_t>::min());
}

TEST(UsableCoreCount, IsKnownAndAtMostTheMachinesCount) {
  const uint32_t cores = UsableCoreCount();
  EXPECT_GE(cores, 1u);
  const unsigned machine = std::thread::hardware_concurrency();
  if (machine > 0) {
    EXPECT_LE(cores, machine);
  }
}

#ifdef __linux__
// A cpuset (taskset, a container's limit) shows in the affinity mask only.
TEST(UsableCoreCount, FollowsTheAffinityMask) {
  cpu_set_t original;
  CPU_ZERO(&original);
  ASSERT_EQ(sched_getaffinity(0, sizeof(original), &original), 0);
  int first_cpu = 0;
  while (!CPU_ISSET(first_cpu, &original)) ++first_cpu;
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(first_cpu, &one);
  ASSERT_EQ(sched_setaffinity(0, sizeof(one), &one), 0);
  const uint32_t cores = UsableCoreCount();
  ASSERT_EQ(sched_setaffinity(0, sizeof(original), &original), 0);
  EXPECT_EQ(cores, 1u);
  EXPECT_EQ(UsableCoreCount(), static_cast<uint32_t>(CPU_COUNT(&original)));
}
#endif

}  // namespace
}  // namespace kerrow
