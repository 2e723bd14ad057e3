#include "live/recent_audio.h"

#include <gtest/gtest.h>

#include <vector>

namespace kerrow::testing {
namespace {

std::vector<float> Ramp(int from, int to) {
  std::vector<float> samples;
  for (int i = from; i < to; ++i) samples.push_back(static_cast<float>(i));
  return samples;
}

TEST(RecentAudio, CopiesByCapturePositionAfterTheFrontIsReleased) {
  RecentAudio audio;
  audio.Append(Ramp(0, 10));
  audio.Append(Ramp(10, 20));
  audio.ReleaseBefore(12);
  EXPECT_EQ(audio.start(), 12);
  EXPECT_EQ(audio.end(), 20);
  EXPECT_EQ(audio.Copy(14, 17), Ramp(14, 17));
}

TEST(RecentAudio, CopyIsClampedToWhatIsStillHeld) {
  RecentAudio audio;
  audio.Append(Ramp(0, 20));
  audio.ReleaseBefore(10);
  EXPECT_EQ(audio.Copy(-5, 12), Ramp(10, 12));
  EXPECT_EQ(audio.Copy(18, 40), Ramp(18, 20));
  EXPECT_TRUE(audio.Copy(15, 15).empty());
  EXPECT_TRUE(audio.Copy(25, 12).empty());
}

TEST(RecentAudio, ReleasingBackwardsOrPastTheEndIsHarmless) {
  RecentAudio audio;
  audio.Append(Ramp(0, 10));
  audio.ReleaseBefore(6);
  audio.ReleaseBefore(2);
  EXPECT_EQ(audio.start(), 6);
  audio.ReleaseBefore(1000);
  EXPECT_EQ(audio.start(), 10);
  EXPECT_EQ(audio.end(), 10);
  audio.Append(Ramp(10, 12));
  EXPECT_EQ(audio.Copy(0, 100), Ramp(10, 12));
}

TEST(RecentAudio, ClearStartsTheNextCaptureAtPositionZero) {
  RecentAudio audio;
  audio.Append(Ramp(0, 10));
  audio.ReleaseBefore(5);
  audio.Clear();
  audio.Append(Ramp(0, 3));
  EXPECT_EQ(audio.start(), 0);
  EXPECT_EQ(audio.Copy(0, 3), Ramp(0, 3));
}

}  // namespace
}  // namespace kerrow::testing
