#include "offline/speaker_assign.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "events/event_emitter.h"
#include "support/json_fields.h"
#include "support/stdout_capture.h"

namespace kerrow::testing {
namespace {


SegmentResult Segment(double start, double end, const std::string& text) {
  SegmentResult segment;
  segment.start_time = start;
  segment.end_time = end;
  segment.text = text;
  return segment;
}

DiarizationSegment Turn(double start, double end, const std::string& speaker) {
  return DiarizationSegment{start, end, speaker};
}

TEST(SpeakerAssign, SegmentAcrossSpeakerChangeIsSplitAndFirstLabelMetBecomesSpeaker00) {
  std::vector<SegmentResult> segments = {Segment(1.0, 4.0, "one two, three four")};
  const std::vector<DiarizationSegment> turns = {Turn(0.0, 2.5, "SPEAKER_01"),
                                                 Turn(2.5, 6.0, "SPEAKER_00")};
  EventEmitter emitter;
  StdoutCapture capture;
  AssignAndSplitBySpeakers(&segments, turns, &emitter);
  const std::vector<std::string> logs = LogMessages(capture.Stop());

  ASSERT_EQ(segments.size(), 2u);
  EXPECT_DOUBLE_EQ(segments[0].start_time, 1.0);
  EXPECT_DOUBLE_EQ(segments[0].end_time, 2.5);
  EXPECT_EQ(segments[0].speaker, "SPEAKER_00");
  EXPECT_EQ(segments[0].text, "one two,");
  EXPECT_DOUBLE_EQ(segments[1].start_time, 2.5);
  EXPECT_DOUBLE_EQ(segments[1].end_time, 4.0);
  EXPECT_EQ(segments[1].speaker, "SPEAKER_01");
  EXPECT_EQ(segments[1].text, "three four");
  EXPECT_EQ(logs, std::vector<std::string>{
                      "[DIARIZATION] split 1 ASR segment(s) across speaker boundaries"});
}

TEST(SpeakerAssign, ShortOverlapBelowTenPercentIsIgnored) {
  // 0.2 s of SPEAKER_02 at the end of a 4 s segment: 5 %, and under 0.25 s.
  std::vector<SegmentResult> segments = {Segment(0.0, 4.0, "all mine")};
  const std::vector<DiarizationSegment> turns = {Turn(0.0, 3.8, "SPEAKER_01"),
                                                 Turn(3.8, 6.0, "SPEAKER_02")};
  AssignAndSplitBySpeakers(&segments, turns, nullptr);
  ASSERT_EQ(segments.size(), 1u);
  EXPECT_EQ(segments[0].speaker, "SPEAKER_00");
  EXPECT_EQ(segments[0].text, "all mine");
  EXPECT_DOUBLE_EQ(segments[0].start_time, 0.0);
  EXPECT_DOUBLE_EQ(segments[0].end_time, 4.0);
}

TEST(SpeakerAssign, ShortOverlapAboveTenPercentIsKept) {
  // The same 0.2 s on a 1.5 s segment is 13 %.
  std::vector<SegmentResult> segments = {Segment(0.0, 1.5, "abcdefghijklm")};
  const std::vector<DiarizationSegment> turns = {Turn(0.0, 1.3, "SPEAKER_01"),
                                                 Turn(1.3, 6.0, "SPEAKER_02")};
  AssignAndSplitBySpeakers(&segments, turns, nullptr);
  ASSERT_EQ(segments.size(), 2u);
  EXPECT_EQ(segments[0].speaker, "SPEAKER_00");
  EXPECT_DOUBLE_EQ(segments[0].end_time, 1.3);
  EXPECT_EQ(segments[1].speaker, "SPEAKER_01");
  EXPECT_DOUBLE_EQ(segments[1].start_time, 1.3);
  EXPECT_DOUBLE_EQ(segments[1].end_time, 1.5);
  // 13 characters cut at round(1.3 / 1.5 * 13) = 11.
  EXPECT_EQ(segments[0].text, "abcdefghijk");
  EXPECT_EQ(segments[1].text, "lm");
}

TEST(SpeakerAssign, PiecesOfOneSpeakerLessThanOneSecondApartMerge) {
  std::vector<SegmentResult> segments = {Segment(0.0, 4.0, "hello there")};
  const std::vector<DiarizationSegment> turns = {Turn(0.0, 1.0, "SPEAKER_03"),
                                                 Turn(1.9, 4.0, "SPEAKER_03")};
  AssignAndSplitBySpeakers(&segments, turns, nullptr);
  ASSERT_EQ(segments.size(), 1u);
  EXPECT_EQ(segments[0].speaker, "SPEAKER_00");
  EXPECT_EQ(segments[0].text, "hello there");
  EXPECT_DOUBLE_EQ(segments[0].start_time, 0.0);
  EXPECT_DOUBLE_EQ(segments[0].end_time, 4.0);
}

TEST(SpeakerAssign, PiecesOfOneSpeakerOneSecondApartStaySeparate) {
  std::vector<SegmentResult> segments = {Segment(0.0, 4.0, "abc def")};
  const std::vector<DiarizationSegment> turns = {Turn(0.0, 1.0, "SPEAKER_03"),
                                                 Turn(2.0, 4.0, "SPEAKER_03")};
  AssignAndSplitBySpeakers(&segments, turns, nullptr);
  ASSERT_EQ(segments.size(), 2u);
  EXPECT_DOUBLE_EQ(segments[0].start_time, 0.0);
  EXPECT_DOUBLE_EQ(segments[0].end_time, 1.0);
  EXPECT_DOUBLE_EQ(segments[1].start_time, 2.0);
  EXPECT_DOUBLE_EQ(segments[1].end_time, 4.0);
  EXPECT_EQ(segments[0].speaker, "SPEAKER_00");
  EXPECT_EQ(segments[1].speaker, "SPEAKER_00");
  // 7 characters, one third: round(7 / 3) = 2, and "c" is no break.
  EXPECT_EQ(segments[0].text, "ab");
  EXPECT_EQ(segments[1].text, "c def");
}

TEST(SpeakerAssign, SegmentBetweenTurnsTakesNearestMidpointAndLogsIt) {
  std::vector<SegmentResult> segments = {Segment(3.0, 4.0, "in between")};
  const std::vector<DiarizationSegment> turns = {Turn(0.0, 2.0, "SPEAKER_03"),
                                                 Turn(5.0, 9.0, "SPEAKER_04")};
  EventEmitter emitter;
  StdoutCapture capture;
  AssignAndSplitBySpeakers(&segments, turns, &emitter);
  const std::vector<std::string> logs = LogMessages(capture.Stop());

  ASSERT_EQ(segments.size(), 1u);
  EXPECT_EQ(segments[0].speaker, "SPEAKER_00");
  EXPECT_EQ(segments[0].text, "in between");
  EXPECT_EQ(logs, std::vector<std::string>{
                      "[DIARIZATION] no overlap for ASR [3.000s,4.000s]; "
                      "nearest diar=SPEAKER_03 dist=2.500s"});
}

TEST(SpeakerAssign, EnrolledNamesPassAndOnlySpeakerWithDigitsIsRenumbered) {
  std::vector<SegmentResult> segments = {Segment(0.0, 1.0, "a"), Segment(1.0, 2.0, "b"),
                                         Segment(2.0, 3.0, "c")};
  const std::vector<DiarizationSegment> turns = {
      Turn(0.0, 1.0, "Alice"), Turn(1.0, 2.0, "SPEAKER_7"), Turn(2.0, 3.0, "SPEAKER_")};
  AssignAndSplitBySpeakers(&segments, turns, nullptr);
  ASSERT_EQ(segments.size(), 3u);
  EXPECT_EQ(segments[0].speaker, "Alice");
  EXPECT_EQ(segments[1].speaker, "SPEAKER_00");
  EXPECT_EQ(segments[2].speaker, "SPEAKER_");
}

TEST(SpeakerAssign, NoTurnsLeavesSegmentsUntouched) {
  std::vector<SegmentResult> segments = {Segment(0.0, 1.0, "a")};
  AssignAndSplitBySpeakers(&segments, {}, nullptr);
  ASSERT_EQ(segments.size(), 1u);
  EXPECT_EQ(segments[0].speaker, "");
}

TEST(SplitTextByWeights, CutsAfterPeriodWithinSearchRadius) {
  EXPECT_EQ(SplitTextByWeights("Hello there. How are you", {1.0, 1.0}),
            (std::vector<std::string>{"Hello there.", " How are you"}));
}

TEST(SplitTextByWeights, PrefersForwardBreakAtEqualDistance) {
  // 10 characters, target 5; a cut at 4 and a cut at 6 would both follow a
  // comma: forward wins.
  EXPECT_EQ(SplitTextByWeights("abc,d,fghi", {1.0, 1.0}),
            (std::vector<std::string>{"abc,d,", "fghi"}));
}

TEST(SplitTextByWeights, TextWithoutPunctuationIsCutAtProportionalPositionInsideWord) {
  EXPECT_EQ(SplitTextByWeights("hello world", {1.0, 3.0}),
            (std::vector<std::string>{"hel", "lo world"}));
}

TEST(SplitTextByWeights, PunctuationBeyondRadiusIsIgnored) {
  // 21 characters, radius 5, target 11: the "." after "Hi" is too far away.
  EXPECT_EQ(SplitTextByWeights("Hi. How are you today", {1.0, 1.0}),
            (std::vector<std::string>{"Hi. How are", " you today"}));
}

TEST(SplitTextByWeights, CountsMultiByteCharactersAsOne) {
  EXPECT_EQ(SplitTextByWeights("你好，世界", {1.0, 1.0}),
            (std::vector<std::string>{"你好，", "世界"}));
}

TEST(SplitTextByWeights, NoWeightsGiveWholeText) {
  EXPECT_EQ(SplitTextByWeights("abc", {}), std::vector<std::string>{"abc"});
}

TEST(SplitTextByWeights, EmptyTextGivesOneEmptyPiecePerWeight) {
  EXPECT_EQ(SplitTextByWeights("", {1.0, 2.0, 3.0}), (std::vector<std::string>{"", "", ""}));
}

TEST(SplitTextByWeights, NonPositiveTotalGivesWholeTextOnly) {
  EXPECT_EQ(SplitTextByWeights("abc", {-1.0, 0.0}), std::vector<std::string>{"abc"});
}

TEST(SplitTextByWeights, CutsKeepIncreasingWhenTextIsShorterThanWeights) {
  EXPECT_EQ(SplitTextByWeights("ab", {1.0, 1.0, 1.0, 1.0}),
            (std::vector<std::string>{"a", "b", "", ""}));
}

TEST(Utf8Scan, RecordsOffsetsLengthsAndBreaks) {
  const std::vector<Utf8Char> chars = Utf8Scan("a，b. c");
  ASSERT_EQ(chars.size(), 6u);
  EXPECT_EQ(chars[0].offset, 0u);
  EXPECT_EQ(chars[1].offset, 1u);
  EXPECT_EQ(chars[1].length, 3u);
  EXPECT_TRUE(chars[1].is_break);
  EXPECT_FALSE(chars[2].is_break);
  EXPECT_EQ(chars[3].offset, 5u);
  EXPECT_TRUE(chars[3].is_break);
  EXPECT_FALSE(chars[4].is_break);  // a space is no break
  EXPECT_EQ(chars[5].offset, 7u);
}

TEST(Utf8Scan, TruncatedSequenceIsTakenByteByByte) {
  const std::string text = "a\xE4\xBD";  // the first two bytes of 你
  const std::vector<Utf8Char> chars = Utf8Scan(text);
  ASSERT_EQ(chars.size(), 3u);
  EXPECT_EQ(chars[1].length, 1u);
  EXPECT_EQ(chars[2].length, 1u);
  EXPECT_EQ(chars[2].offset, 2u);
}

TEST(Utf8Scan, OnlyTheSixAsciiMarksAreBreaks) {
  for (char mark : std::string("!,.:;?")) {
    EXPECT_TRUE(Utf8Scan(std::string(1, mark))[0].is_break) << mark;
  }
  for (char other : std::string("-'\"()")) {
    EXPECT_FALSE(Utf8Scan(std::string(1, other))[0].is_break) << other;
  }
}

}  // namespace
}  // namespace kerrow::testing
