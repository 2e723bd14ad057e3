// The benchmark's scorer: its figures are only worth printing if it counts
// the three kinds of error as defined and finds the best label mapping.

#include "../bench/diarization_error_rate.h"

#include <gtest/gtest.h>

#include <vector>

namespace kerrow::testing {
namespace {

using bench::ScoreDiarization;

const std::vector<LabelledSpan> kReference = {
    {0.0, 2.0, "voiceA"}, {3.0, 5.0, "voiceB"}, {6.0, 8.0, "voiceA"}};

TEST(ScoreDiarization, RenamedButPerfectLabelsScoreZero) {
  const auto rate = ScoreDiarization(
      kReference, {{0.0, 2.0, "SPEAKER_01"}, {3.0, 5.0, "SPEAKER_00"}, {6.0, 8.0, "SPEAKER_01"}});
  EXPECT_NEAR(rate.reference_seconds, 6.0, 1e-9);
  EXPECT_NEAR(rate.Rate(), 0.0, 1e-9);
}

TEST(ScoreDiarization, UnlabelledSpeechIsMissed) {
  const auto rate = ScoreDiarization(kReference, {{0.0, 2.0, "x"}, {3.0, 5.0, "y"}});
  EXPECT_NEAR(rate.missed_seconds, 2.0, 1e-9);
  EXPECT_NEAR(rate.false_alarm_seconds, 0.0, 1e-9);
  EXPECT_NEAR(rate.confusion_seconds, 0.0, 1e-9);
  EXPECT_NEAR(rate.Rate(), 2.0 / 6.0, 1e-9);
}

TEST(ScoreDiarization, LabelledSilenceIsAFalseAlarm) {
  std::vector<LabelledSpan> hypothesis = kReference;
  hypothesis.push_back({9.0, 10.0, "voiceB"});
  const auto rate = ScoreDiarization(kReference, hypothesis);
  EXPECT_NEAR(rate.false_alarm_seconds, 1.0, 1e-9);
  EXPECT_NEAR(rate.Rate(), 1.0 / 6.0, 1e-9);
}

// The best mapping pairs x with voiceA (4 s shared); the last turn, labelled
// y, then counts as confused.
TEST(ScoreDiarization, WrongLabelOnOneTurnIsConfusion) {
  const auto rate =
      ScoreDiarization(kReference, {{0.0, 2.0, "x"}, {3.0, 5.0, "y"}, {6.0, 8.0, "y"}});
  EXPECT_NEAR(rate.confusion_seconds, 2.0, 1e-9);
  EXPECT_NEAR(rate.missed_seconds + rate.false_alarm_seconds, 0.0, 1e-9);
}

TEST(ScoreDiarization, OverlappedSpeechCountsOncePerSpeaker) {
  const std::vector<LabelledSpan> reference = {{0.0, 2.0, "a"}, {1.0, 3.0, "b"}};
  const auto rate = ScoreDiarization(reference, {{0.0, 3.0, "x"}});
  EXPECT_NEAR(rate.reference_seconds, 4.0, 1e-9);
  EXPECT_NEAR(rate.missed_seconds, 1.0, 1e-9);
  EXPECT_NEAR(rate.confusion_seconds, 1.0, 1e-9);
}

}  // namespace
}  // namespace kerrow::testing
