#include "live/shared_state.h"

#include <gtest/gtest.h>

#include <limits>

namespace kerrow::testing {
namespace {

TEST(SinglePartialStepSamples, DefaultHalfSecondIs8000SamplesAt16k) {
  EXPECT_EQ(SinglePartialStepSamples(0.5, 16000), 8000u);
}

TEST(SinglePartialStepSamples, IntervalBelowMinimumIsRaisedToPointTwoSeconds) {
  EXPECT_EQ(SinglePartialStepSamples(0.05, 16000), 3200u);
}

TEST(SinglePartialStepSamples, ZeroOrNegativeIntervalFallsBackToHalfSecond) {
  EXPECT_EQ(SinglePartialStepSamples(0.0, 16000), 8000u);
  EXPECT_EQ(SinglePartialStepSamples(-1.0, 16000), 8000u);
}

TEST(SinglePartialStepSamples, NonFiniteIntervalFallsBackToHalfSecond) {
  EXPECT_EQ(SinglePartialStepSamples(std::numeric_limits<double>::quiet_NaN(), 16000), 8000u);
  EXPECT_EQ(SinglePartialStepSamples(std::numeric_limits<double>::infinity(), 16000), 8000u);
}

TEST(SinglePartialStepSamples, RateBelowOneMeans16k) {
  EXPECT_EQ(SinglePartialStepSamples(1.0, 0), 16000u);
  EXPECT_EQ(SinglePartialStepSamples(1.0, -5), 16000u);
}

TEST(SinglePartialStepSamples, RoundsHalfAwayFromZero) {
  // 0.5 s at 3 Hz is exactly 1.5 samples.
  EXPECT_EQ(SinglePartialStepSamples(0.5, 3), 2u);
}

TEST(SinglePartialStepSamples, HugeIntervalIsClampedToUint32Max) {
  EXPECT_EQ(SinglePartialStepSamples(1e12, 16000), std::numeric_limits<uint32_t>::max());
}

TEST(SharedState, StartsZeroedWithModeAuto) {
  SharedState state;
  EXPECT_FALSE(state.quit.load());
  EXPECT_FALSE(state.capturing.load());
  EXPECT_EQ(state.session_seq.load(), 0u);
  EXPECT_EQ(state.next_segment_id.load(), 0u);
  EXPECT_EQ(state.mode, "auto");
  EXPECT_TRUE(state.total_samples.is_lock_free());
  EXPECT_TRUE(state.single_partial_step_samples.is_lock_free());
}

}  // namespace
}  // namespace kerrow::testing
