// The seconds/samples conversion every folder uses.

#include "common/sample_time.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace kerrow::testing {
namespace {

TEST(SampleTime, RoundsHalfAwayFromZeroByDefault) {
  EXPECT_EQ(SecondsToSamples(0.2, 16000), 3200);
  EXPECT_EQ(SecondsToSamples(0.5 / 16000, 16000), 1);
  EXPECT_EQ(SecondsToSamples(1.49999 / 16000, 16000), 1);
}

TEST(SampleTime, TruncatesWhenAskedTo) {
  EXPECT_EQ(SecondsToSamples(1.9 / 16000, 16000, SampleRounding::kTowardZero), 1);
  EXPECT_EQ(SecondsToSamples(8.0, 16000, SampleRounding::kTowardZero), 128000);
}

TEST(SampleTime, NegativeAndNanGiveZero) {
  EXPECT_EQ(SecondsToSamples(-3.0, 16000), 0);
  EXPECT_EQ(SecondsToSamples(std::nan(""), 16000), 0);
  EXPECT_EQ(SecondsToSamples(-std::numeric_limits<double>::infinity(), 16000), 0);
  EXPECT_EQ(SecondsToSamples(1.0, -16000), 0);
}

TEST(SampleTime, HugeDurationsSaturateAndStillAddWithoutOverflow) {
  EXPECT_EQ(SecondsToSamples(1e15, 16000), kMaxSampleCount);
  EXPECT_EQ(SecondsToSamples(std::numeric_limits<double>::infinity(), 16000), kMaxSampleCount);
  EXPECT_EQ(SecondsToSamples(std::numeric_limits<double>::max(), 16000,
                             SampleRounding::kTowardZero),
            kMaxSampleCount);
  const int64_t position = int64_t{1} << 40;
  EXPECT_GT(position + SecondsToSamples(1e300, 16000), position);
}

TEST(SampleTime, SamplesToSecondsDividesByTheRate) {
  EXPECT_DOUBLE_EQ(SamplesToSeconds(8000, 16000), 0.5);
  EXPECT_DOUBLE_EQ(SamplesToSeconds(kMaxSampleCount, 16000),
                   static_cast<double>(kMaxSampleCount) / 16000.0);
  EXPECT_EQ(SamplesToSeconds(8000, 0), 0.0);
}

}  // namespace
}  // namespace kerrow::testing
