// How many threads a model may ask the library for, against the cores the
// process may use.

#include "common/thread_count_cap.h"
#include "support/one_core_pin.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <thread>

#ifdef __linux__
#include <sched.h>
#endif

namespace kerrow::testing {
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

TEST(UsableCoreCount, IsTheAffinityMaskLoweredToTheCpuQuota) {
  const uint32_t affinity = AffinityCoreCount();
  const uint32_t quota = CpuQuotaCores();
  EXPECT_EQ(UsableCoreCount(), quota > 0 && quota < affinity ? quota : affinity);
}

#ifdef __linux__
// A cpuset (taskset, a container's limit) shows in the affinity mask only.
TEST(AffinityCoreCount, FollowsTheAffinityMask) {
  OneCorePin pin;
  ASSERT_TRUE(pin.pinned());
  const uint32_t cores = AffinityCoreCount();
  const uint32_t usable = UsableCoreCount();
  ASSERT_TRUE(pin.Restore());
  EXPECT_EQ(cores, 1u);
  EXPECT_EQ(usable, 1u);
  EXPECT_EQ(AffinityCoreCount(), static_cast<uint32_t>(pin.original_core_count()));
}
#endif

}  // namespace
}  // namespace kerrow::testing
