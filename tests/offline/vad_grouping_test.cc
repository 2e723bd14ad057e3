#include "offline/vad_grouping.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kerrow::testing {
namespace {

constexpr int64_t kRate = 16000;

int64_t Samples(double seconds) { return static_cast<int64_t>(seconds * kRate + 0.5); }

SampleSpan Span(double start, double end) { return {Samples(start), Samples(end)}; }

// The plan written out as text, one entry per step, so a test can state the
// whole expected plan at once.
std::vector<std::string> Describe(const std::vector<VadPlanStep>& plan) {
  std::vector<std::string> lines;
  for (const VadPlanStep& step : plan) {
    if (step.kind == VadPlanStep::Kind::kLog) {
      lines.push_back(step.log_line);
    } else {
      lines.push_back("decode " + std::to_string(step.piece.start) + ".." +
                      std::to_string(step.piece.end));
    }
  }
  return lines;
}

std::vector<std::string> Plan(const Options& options, double total_seconds,
                              const std::vector<SampleSpan>& speech) {
  return Describe(PlanVadDecode(MakeVadGroupingLimits(options, Samples(total_seconds)), speech));
}

TEST(VadGrouping, SegmentsFourTenthsApartJoinUnderHalfSecondSilence) {
  Options options;  // vad_min_silence 0.5, lookback 0.2, lookahead 0.1
  EXPECT_EQ(Plan(options, 3.0, {Span(1.0, 2.0), Span(2.4, 3.0)}),
            (std::vector<std::string>{
                "[OFFLINE2PASS][VAD] start=1.000000s end=2.000000s raw=1.000000s "
                "added=1.000000s acc=1.000000s max=8.000000s span=1.000000s span_max=disabled",
                "[OFFLINE2PASS][VAD] start=2.400000s end=3.000000s raw=0.600000s "
                "added=0.600000s acc=1.600000s max=8.000000s span=2.000000s span_max=disabled",
                "[OFFLINE2PASS][CUT] reason=flush group_start=1.000000s group_end=3.000000s "
                "padded_start=0.800000s padded_end=3.000000s acc=1.600000s max=8.000000s "
                "span=2.000000s span_max=disabled",
                "decode 12800..48000"}));
}

TEST(VadGrouping, SegmentsSixTenthsApartCutWithSilenceGap) {
  Options options;
  EXPECT_EQ(Plan(options, 3.0, {Span(1.0, 2.0), Span(2.6, 3.0)}),
            (std::vector<std::string>{
                "[OFFLINE2PASS][VAD] start=1.000000s end=2.000000s raw=1.000000s "
                "added=1.000000s acc=1.000000s max=8.000000s span=1.000000s span_max=disabled",
                "[OFFLINE2PASS][CUT] reason=silence_gap group_start=1.000000s "
                "group_end=2.000000s padded_start=0.800000s padded_end=2.100000s "
                "acc=1.000000s max=8.000000s span=1.000000s span_max=disabled",
                "decode 12800..33600",
                "[OFFLINE2PASS][VAD] start=2.600000s end=3.000000s raw=0.400000s "
                "added=0.400000s acc=0.400000s max=8.000000s span=0.400000s span_max=disabled",
                "[OFFLINE2PASS][CUT] reason=flush group_start=2.600000s group_end=3.000000s "
                "padded_start=2.400000s padded_end=3.000000s acc=0.400000s max=8.000000s "
                "span=0.400000s span_max=disabled",
                "decode 38400..48000"}));
}

TEST(VadGrouping, GroupPastMaxLengthCutsBeforeTheSegmentThatWouldExceedIt) {
  Options options;
  options.vad_lookback = 0.0;
  options.vad_lookahead = 0.0;
  const std::vector<std::string> plan =
      Plan(options, 9.0, {Span(0.5, 3.0), Span(3.2, 6.0), Span(6.3, 9.0)});
  ASSERT_EQ(plan.size(), 7u);
  EXPECT_EQ(plan[2],
            "[OFFLINE2PASS][CUT] reason=max_duration group_start=0.500000s "
            "group_end=6.000000s padded_start=0.500000s padded_end=6.000000s "
            "acc=5.300000s max=8.000000s span=5.500000s span_max=disabled");
  EXPECT_EQ(plan[3], "decode 8000..96000");
  // The segment that would have exceeded 8 s opens the next group.
  EXPECT_EQ(plan[4],
            "[OFFLINE2PASS][VAD] start=6.300000s end=9.000000s raw=2.700000s "
            "added=2.700000s acc=2.700000s max=8.000000s span=2.700000s span_max=disabled");
  EXPECT_EQ(plan[6], "decode 100800..144000");
}

TEST(VadGrouping, WhisperGroupOf35SecondsIsDecodedAs29And6SecondPieces) {
  Options options;
  options.second_type = "whisper";
  options.vad_max_speech = 40.0;
  options.vad_lookback = 0.0;
  options.vad_lookahead = 0.0;
  EXPECT_EQ(Plan(options, 35.0, {Span(0.0, 35.0)}),
            (std::vector<std::string>{
                "[OFFLINE2PASS][VAD] start=0.000000s end=35.000000s raw=35.000000s "
                "added=35.000000s acc=35.000000s max=40.000000s span=35.000000s "
                "span_max=29.000000s",
                "[OFFLINE2PASS][CUT] reason=flush group_start=0.000000s group_end=35.000000s "
                "padded_start=0.000000s padded_end=35.000000s acc=35.000000s "
                "max=40.000000s span=35.000000s span_max=29.000000s",
                "decode 0..464000", "decode 464000..560000"}));
}

TEST(VadGrouping, WhisperGroupGrowingPast29SecondsCutsWithMaxSpan) {
  Options options;
  options.second_type = "whisper";
  options.vad_max_speech = 40.0;
  const std::vector<std::string> plan = Plan(options, 31.0, {Span(0.0, 20.0), Span(20.3, 31.0)});
  ASSERT_GE(plan.size(), 3u);
  EXPECT_EQ(plan[1].rfind("[OFFLINE2PASS][CUT] reason=max_span group_start=0.000000s "
                          "group_end=20.000000s ",
                          0),
            0u);
}

TEST(VadGrouping, SilenceAfterLastSpeechIsAddedByTailCompensation) {
  Options options;
  EXPECT_EQ(Plan(options, 3.0, {Span(1.0, 2.0)}),
            (std::vector<std::string>{
                "offline_2pass tail compensation enabled",
                "[OFFLINE2PASS][VAD] start=1.000000s end=2.000000s raw=1.000000s "
                "added=1.000000s acc=1.000000s max=8.000000s span=1.000000s span_max=disabled",
                "[OFFLINE2PASS][VAD] start=2.000000s end=3.000000s raw=1.000000s "
                "added=1.000000s acc=2.000000s max=8.000000s span=2.000000s span_max=disabled",
                "[OFFLINE2PASS][CUT] reason=flush group_start=1.000000s group_end=3.000000s "
                "padded_start=0.800000s padded_end=3.000000s acc=2.000000s max=8.000000s "
                "span=2.000000s span_max=disabled",
                "decode 12800..48000"}));
}

TEST(VadGrouping, RecordingWithoutSpeechIsDecodedWholeInEightSecondPieces) {
  Options options;
  options.vad_lookback = 0.0;
  options.vad_lookahead = 0.0;
  std::vector<std::string> decodes;
  for (const std::string& line : Plan(options, 20.0, {})) {
    if (line.rfind("decode ", 0) == 0) decodes.push_back(line);
  }
  EXPECT_EQ(decodes, (std::vector<std::string>{"decode 0..128000", "decode 128000..256000",
                                               "decode 256000..320000"}));
}

TEST(VadGrouping, FirstSegmentAtPointOneWithLookbackPointTwoDecodesFromZero) {
  Options options;
  const std::vector<std::string> plan = Plan(options, 1.0, {Span(0.1, 1.0)});
  ASSERT_EQ(plan.size(), 3u);
  EXPECT_EQ(plan[1],
            "[OFFLINE2PASS][CUT] reason=flush group_start=0.100000s group_end=1.000000s "
            "padded_start=0.000000s padded_end=1.000000s acc=0.900000s max=8.000000s "
            "span=0.900000s span_max=disabled");
  EXPECT_EQ(plan[2], "decode 0..16000");
}

TEST(VadGrouping, EmptySegmentIsSkippedWithoutLogLine) {
  Options options;
  const std::vector<std::string> plan = Plan(options, 2.0, {Span(0.5, 0.5), Span(1.0, 2.0)});
  ASSERT_EQ(plan.size(), 3u);
  EXPECT_EQ(plan[0].rfind("[OFFLINE2PASS][VAD] start=1.000000s ", 0), 0u);
}

TEST(VadGrouping, OverlappingSpeechIsCountedOnce) {
  Options options;
  const std::vector<std::string> plan = Plan(options, 3.0, {Span(1.0, 2.0), Span(1.5, 3.0)});
  ASSERT_EQ(plan.size(), 4u);
  EXPECT_EQ(plan[1],
            "[OFFLINE2PASS][VAD] start=1.500000s end=3.000000s raw=1.500000s "
            "added=1.000000s acc=2.000000s max=8.000000s span=2.000000s span_max=disabled");
}

TEST(VadGroupingLimits, DerivedFromOptions) {
  Options options;
  options.vad_max_speech = 0.0;  // no limit given: 8 s
  options.vad_min_silence = -1.0;
  options.vad_lookback = 0.25;
  options.vad_lookahead = -3.0;
  options.second_type = "Whisper";  // only the exact word selects Whisper
  const VadGroupingLimits limits = MakeVadGroupingLimits(options, 1234);
  EXPECT_EQ(limits.total_samples, 1234);
  EXPECT_EQ(limits.max_group_samples, 128000);
  EXPECT_FALSE(limits.whisper);
  EXPECT_EQ(limits.max_span_samples, 2147483647);
  EXPECT_EQ(limits.silence_gap_samples, 1);
  EXPECT_EQ(limits.lookback_samples, 4000);
  EXPECT_EQ(limits.lookahead_samples, 0);
}

TEST(VadGroupingLimits, MaxGroupIsAtLeastOneSecond) {
  Options options;
  options.vad_max_speech = 0.3;
  EXPECT_EQ(MakeVadGroupingLimits(options, 0).max_group_samples, 16000);
}

TEST(VadGrouping, ChunkFallbackCoversRecordingInMaxGroupPieces) {
  Options options;
  const VadGroupingLimits limits = MakeVadGroupingLimits(options, Samples(20.0));
  const std::vector<SampleSpan> pieces = ChunkFallbackPieces(limits);
  ASSERT_EQ(pieces.size(), 3u);
  EXPECT_EQ(pieces[0].start, 0);
  EXPECT_EQ(pieces[0].end, 128000);
  EXPECT_EQ(pieces[2].start, 256000);
  EXPECT_EQ(pieces[2].end, 320000);
}

}  // namespace
}  // namespace kerrow::testing
