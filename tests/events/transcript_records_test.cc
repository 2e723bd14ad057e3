#include "events/transcript_records.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "events/json_escape.h"
#include "events/segment_result.h"

namespace kerrow::testing {
namespace {

SegmentResult Segment(double start, double end, const std::string& text,
                      const std::string& speaker = "") {
  SegmentResult segment;
  segment.start_time = start;
  segment.end_time = end;
  segment.text = text;
  segment.speaker = speaker;
  return segment;
}

TEST(JsonEscape, EscapesExactlyFiveBytes) {
  EXPECT_EQ(JsonEscape("a\tb\nc\rd\"e\\f"), "a\\tb\\nc\\rd\\\"e\\\\f");
}

TEST(JsonEscape, OtherControlBytesAreEscapedAndUtf8PassesRaw) {
  EXPECT_EQ(JsonEscape(std::string("\x01\x1F\x7F", 3) + "中文"),
            std::string("\\u0001\\u001f\x7F") + "中文");
  EXPECT_EQ(JsonEscape(std::string("a\0b", 3)), "a\\u0000b");
}

TEST(JsonEscape, EmptyTextStaysEmpty) { EXPECT_EQ(JsonEscape(""), ""); }

TEST(HasContentText, EmptyAndPunctuationOnlyHaveNoContent) {
  EXPECT_FALSE(HasContentText(""));
  EXPECT_FALSE(HasContentText("，。！"));
  EXPECT_FALSE(HasContentText("..."));
  EXPECT_FALSE(HasContentText(" \t\n\v\f\r"));
  EXPECT_FALSE(HasContentText(" 。 , "));
}

TEST(HasContentText, LettersDigitsAndHighBytesAreContent) {
  EXPECT_TRUE(HasContentText("a"));
  EXPECT_TRUE(HasContentText(" 7 "));
  EXPECT_TRUE(HasContentText("好"));
  EXPECT_TRUE(HasContentText(std::string("\x80")));
}

TEST(BuildFirstPassEventJson, WritesKeysInFixedOrder) {
  EXPECT_EQ(BuildFirstPassEventJson(3, "hello", false, 7),
            "{\"type\":\"first-pass\",\"sessionId\":7,\"segment_id\":3,\"text\":\"hello\","
            "\"mode\":\"online_partial\",\"is_final\":false}");
}

TEST(BuildFirstPassEventJson, FinalFlagIsBareTrue) {
  EXPECT_EQ(BuildFirstPassEventJson(0, "x", true, -1),
            "{\"type\":\"first-pass\",\"segment_id\":0,\"text\":\"x\","
            "\"mode\":\"online_partial\",\"is_final\":true}");
}

TEST(BuildFirstPassEventJson, NegativeSessionIdOmitsKey) {
  EXPECT_EQ(BuildFirstPassEventJson(2, "a", false, -1),
            "{\"type\":\"first-pass\",\"segment_id\":2,\"text\":\"a\","
            "\"mode\":\"online_partial\",\"is_final\":false}");
}

TEST(BuildFirstPassEventJson, SessionIdZeroIsWritten) {
  EXPECT_EQ(BuildFirstPassEventJson(2, "a", false, 0),
            "{\"type\":\"first-pass\",\"sessionId\":0,\"segment_id\":2,\"text\":\"a\","
            "\"mode\":\"online_partial\",\"is_final\":false}");
}

TEST(BuildFirstPassEventJson, NegativeSegmentIdIsStillWritten) {
  EXPECT_EQ(BuildFirstPassEventJson(-1, "", false, -1),
            "{\"type\":\"first-pass\",\"segment_id\":-1,\"text\":\"\","
            "\"mode\":\"online_partial\",\"is_final\":false}");
}

TEST(BuildFirstPassEventJson, QuoteAndLineFeedAreEscapedChineseIsRaw) {
  EXPECT_EQ(BuildFirstPassEventJson(1, "他说\"好\"\n", false, -1),
            "{\"type\":\"first-pass\",\"segment_id\":1,\"text\":\"他说\\\"好\\\"\\n\","
            "\"mode\":\"online_partial\",\"is_final\":false}");
}

TEST(BuildPunctuatedEventJson, HasNoModeOrFinalKey) {
  EXPECT_EQ(BuildPunctuatedEventJson(4, "Hello, world.", 9),
            "{\"type\":\"punctuated\",\"sessionId\":9,\"segment_id\":4,"
            "\"text\":\"Hello, world.\"}");
}

TEST(BuildPunctuatedEventJson, NegativeSessionIdOmitsKey) {
  EXPECT_EQ(BuildPunctuatedEventJson(4, "你好。", -1),
            "{\"type\":\"punctuated\",\"segment_id\":4,\"text\":\"你好。\"}");
}

TEST(BuildPunctuatedEventJson, SessionIdZeroIsWritten) {
  EXPECT_EQ(BuildPunctuatedEventJson(-1, "a", 0),
            "{\"type\":\"punctuated\",\"sessionId\":0,\"segment_id\":-1,\"text\":\"a\"}");
}

TEST(BuildSecondPassResultJson, WholeFileRecordJoinsMergedText) {
  const std::vector<SegmentResult> segments = {Segment(0.0, 1.5, "Hello there."),
                                               Segment(2.0, 3.25, "How are you?")};
  EXPECT_EQ(BuildSecondPassResultJson(segments, true, true, -1, -1, -1, nullptr, -1),
            "{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":\"offline_final\","
            "\"is_final\":true,\"offline_2pass\":true,\"segments\":["
            "{\"start_time\":0.00,\"end_time\":1.50,\"start_ms\":0,\"end_ms\":1500,"
            "\"text\":\"Hello there.\"},"
            "{\"start_time\":2.00,\"end_time\":3.25,\"start_ms\":2000,\"end_ms\":3250,"
            "\"text\":\"How are you?\"}],"
            "\"merged_text\":\"Hello there. How are you?\"}");
}

TEST(BuildSecondPassResultJson, EmptyListWithContentMergedTextStillWritesMergedText) {
  const std::string merged = "Refined text.";
  EXPECT_EQ(BuildSecondPassResultJson({}, false, true, -1, -1, -1, &merged, -1),
            "{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":\"offline_final\","
            "\"is_final\":true,\"segments\":[],\"merged_text\":\"Refined text.\"}");
}

TEST(BuildSecondPassResultJson, PunctuationOnlyTextsGiveEmptySegmentsAndNoMergedText) {
  const std::vector<SegmentResult> segments = {Segment(0.0, 1.0, "。"),
                                               Segment(1.0, 2.0, "  "),
                                               Segment(2.0, 3.0, "?!")};
  EXPECT_EQ(BuildSecondPassResultJson(segments, true, true, -1, -1, -1, nullptr, -1),
            "{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":\"offline_final\","
            "\"is_final\":true,\"offline_2pass\":true,\"segments\":[]}");
}

TEST(BuildSecondPassResultJson, MergedTextWithoutContentIsDropped) {
  const std::string merged = "，。";
  const std::vector<SegmentResult> segments = {Segment(0.0, 1.0, "ok")};
  EXPECT_EQ(BuildSecondPassResultJson(segments, true, true, -1, -1, -1, &merged, -1),
            "{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":\"offline_final\","
            "\"is_final\":true,\"offline_2pass\":true,\"segments\":["
            "{\"start_time\":0.00,\"end_time\":1.00,\"start_ms\":0,\"end_ms\":1000,"
            "\"text\":\"ok\"}]}");
}

TEST(BuildSecondPassResultJson, SkippedSegmentsLeaveNoStrayComma) {
  const std::vector<SegmentResult> segments = {Segment(0.0, 1.0, "，"), Segment(1.0, 2.0, "a"),
                                               Segment(2.0, 3.0, ""), Segment(3.0, 4.0, "b")};
  EXPECT_EQ(BuildSecondPassResultJson(segments, true, false, -1, -1, -1, nullptr, -1),
            "{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":\"offline_final\","
            "\"offline_2pass\":true,\"segments\":["
            "{\"start_time\":1.00,\"end_time\":2.00,\"start_ms\":1000,\"end_ms\":2000,"
            "\"text\":\"a\"},"
            "{\"start_time\":3.00,\"end_time\":4.00,\"start_ms\":3000,\"end_ms\":4000,"
            "\"text\":\"b\"}],\"merged_text\":\"a b\"}");
}

TEST(BuildSecondPassResultJson, EmptySpeakerHasNoKeyNamedSpeakerFollowsText) {
  const std::vector<SegmentResult> segments = {Segment(0.0, 1.0, "one", ""),
                                               Segment(1.0, 2.0, "two", "Alice")};
  EXPECT_EQ(BuildSecondPassResultJson(segments, false, false, -1, -1, -1, nullptr, -1),
            "{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":\"offline_final\","
            "\"segments\":["
            "{\"start_time\":0.00,\"end_time\":1.00,\"start_ms\":0,\"end_ms\":1000,"
            "\"text\":\"one\"},"
            "{\"start_time\":1.00,\"end_time\":2.00,\"start_ms\":1000,\"end_ms\":2000,"
            "\"text\":\"two\",\"speaker\":\"Alice\"}]}");
}

TEST(BuildSecondPassResultJson, SessionIdMinusOneOmitsKeyZeroWritesIt) {
  const std::vector<SegmentResult> segments = {Segment(0.0, 1.0, "x")};
  EXPECT_EQ(BuildSecondPassResultJson(segments, false, false, -1, -1, -1, nullptr, -1),
            "{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":\"offline_final\","
            "\"segments\":[{\"start_time\":0.00,\"end_time\":1.00,\"start_ms\":0,"
            "\"end_ms\":1000,\"text\":\"x\"}]}");
  EXPECT_EQ(BuildSecondPassResultJson(segments, false, false, -1, -1, -1, nullptr, 0),
            "{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":\"offline_final\","
            "\"sessionId\":0,\"segments\":[{\"start_time\":0.00,\"end_time\":1.00,"
            "\"start_ms\":0,\"end_ms\":1000,\"text\":\"x\"}]}");
}

TEST(BuildSecondPassResultJson, SegmentCountZeroOmittedWhileStartIdZeroWritten) {
  const std::vector<SegmentResult> segments = {Segment(0.5, 1.0, "x")};
  EXPECT_EQ(BuildSecondPassResultJson(segments, false, false, 0, 0, 0, nullptr, 2),
            "{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":\"offline_final\","
            "\"sessionId\":2,\"segment_id\":0,\"segment_start_id\":0,"
            "\"segments\":[{\"start_time\":0.50,\"end_time\":1.00,\"start_ms\":500,"
            "\"end_ms\":1000,\"text\":\"x\"}]}");
}

TEST(BuildSecondPassResultJson, LiveBatchWritesRangeAndNoMergedText) {
  const std::vector<SegmentResult> segments = {Segment(10.0, 11.0, "first"),
                                               Segment(12.0, 13.0, "second")};
  EXPECT_EQ(BuildSecondPassResultJson(segments, false, false, 6, 5, 2, nullptr, 1),
            "{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":\"offline_final\","
            "\"sessionId\":1,\"segment_id\":6,\"segment_start_id\":5,\"segment_count\":2,"
            "\"segments\":["
            "{\"start_time\":10.00,\"end_time\":11.00,\"start_ms\":10000,\"end_ms\":11000,"
            "\"text\":\"first\"},"
            "{\"start_time\":12.00,\"end_time\":13.00,\"start_ms\":12000,\"end_ms\":13000,"
            "\"text\":\"second\"}]}");
}

TEST(BuildSecondPassResultJson, QuoteAndLineFeedEscapedChineseRaw) {
  const std::vector<SegmentResult> segments = {Segment(0.0, 1.0, "say \"hi\"\n", "张三"),
                                               Segment(1.0, 2.0, "你好")};
  EXPECT_EQ(BuildSecondPassResultJson(segments, true, true, -1, -1, -1, nullptr, -1),
            "{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":\"offline_final\","
            "\"is_final\":true,\"offline_2pass\":true,\"segments\":["
            "{\"start_time\":0.00,\"end_time\":1.00,\"start_ms\":0,\"end_ms\":1000,"
            "\"text\":\"say \\\"hi\\\"\\n\",\"speaker\":\"张三\"},"
            "{\"start_time\":1.00,\"end_time\":2.00,\"start_ms\":1000,\"end_ms\":2000,"
            "\"text\":\"你好\"}],"
            "\"merged_text\":\"say \\\"hi\\\"\\n 你好\"}");
}

TEST(BuildSecondPassResultJson, TimesHaveTwoDecimalsIndependentOfMilliseconds) {
  const std::vector<SegmentResult> segments = {Segment(59.995, 2.675, "t"),
                                               Segment(0.004, 12.345, "u"),
                                               Segment(1.2345, 0.0004, "v")};
  EXPECT_EQ(BuildSecondPassResultJson(segments, false, false, -1, -1, -1, nullptr, -1),
            "{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":\"offline_final\","
            "\"segments\":["
            "{\"start_time\":59.99,\"end_time\":2.67,\"start_ms\":59995,\"end_ms\":2675,"
            "\"text\":\"t\"},"
            "{\"start_time\":0.00,\"end_time\":12.35,\"start_ms\":4,\"end_ms\":12345,"
            "\"text\":\"u\"},"
            "{\"start_time\":1.23,\"end_time\":0.00,\"start_ms\":1235,\"end_ms\":0,"
            "\"text\":\"v\"}]}");
}

TEST(BuildSecondPassResultJson, MergedTextOnlyWithFinalOrWholeFileFlag) {
  const std::string merged = "kept";
  const std::vector<SegmentResult> segments = {Segment(0.0, 1.0, "kept")};
  const std::string without_flags =
      BuildSecondPassResultJson(segments, false, false, -1, -1, -1, &merged, -1);
  EXPECT_EQ(without_flags,
            "{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":\"offline_final\","
            "\"segments\":[{\"start_time\":0.00,\"end_time\":1.00,\"start_ms\":0,"
            "\"end_ms\":1000,\"text\":\"kept\"}]}");
}

}  // namespace
}  // namespace kerrow::testing
