#include "speaker/segments_tsv.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace kerrow::testing {
namespace {

std::vector<DiarizationSegment> Parse(const std::string& text) {
  std::istringstream input(text);
  return ParseSegmentsTsv(input);
}

TEST(SegmentsTsv, ReadsStartEndAndLabel) {
  const std::vector<DiarizationSegment> turns = Parse("1.5\t3.25\tSPEAKER_00\n");
  ASSERT_EQ(turns.size(), 1u);
  EXPECT_EQ(turns[0].start, 1.5);
  EXPECT_EQ(turns[0].end, 3.25);
  EXPECT_EQ(turns[0].speaker, "SPEAKER_00");
}

TEST(SegmentsTsv, OnlyMalformedLinesGiveNoTurns) {
  EXPECT_TRUE(Parse("no tabs at all\n"
                    "1.0\tonly one tab\n"
                    "abc\t2.0\tSPEAKER_00\n"
                    "1.0\txyz\tSPEAKER_00\n"
                    "\n")
                  .empty());
}

TEST(SegmentsTsv, HeaderLineIsSkippedBecauseItsStartIsNotANumber) {
  const std::vector<DiarizationSegment> turns = Parse("start\tend\tlabel\n0\t1\tSPEAKER_01\n");
  ASSERT_EQ(turns.size(), 1u);
  EXPECT_EQ(turns[0].speaker, "SPEAKER_01");
}

TEST(SegmentsTsv, TurnWhoseEndEqualsItsStartIsDropped) {
  EXPECT_TRUE(Parse("2.0\t2.0\tSPEAKER_00\n").empty());
}

TEST(SegmentsTsv, TurnWhoseEndIsBeforeItsStartIsDropped) {
  EXPECT_TRUE(Parse("3.0\t2.0\tSPEAKER_00\n").empty());
}

TEST(SegmentsTsv, EmptyLabelIsDropped) { EXPECT_TRUE(Parse("0.0\t1.0\t\n").empty()); }

TEST(SegmentsTsv, LabelKeepsFurtherTabsAndBlanksAsTheyStand) {
  const std::vector<DiarizationSegment> turns = Parse("0\t1\t Alice\tand\tBob \n");
  ASSERT_EQ(turns.size(), 1u);
  EXPECT_EQ(turns[0].speaker, " Alice\tand\tBob ");
}

TEST(SegmentsTsv, OneTrailingCarriageReturnIsRemoved) {
  const std::vector<DiarizationSegment> turns = Parse("0\t1\tA\r\n0\t1\tB\r\r\n");
  ASSERT_EQ(turns.size(), 2u);
  EXPECT_EQ(turns[0].speaker, "A");
  EXPECT_EQ(turns[1].speaker, "B\r");
}

TEST(SegmentsTsv, NumbersMayHaveLeadingBlanksAndTrailingText) {
  const std::vector<DiarizationSegment> turns = Parse("  0.25s\t 1e1 sec\tSPEAKER_00\n");
  ASSERT_EQ(turns.size(), 1u);
  EXPECT_EQ(turns[0].start, 0.25);
  EXPECT_EQ(turns[0].end, 10.0);
}

TEST(SegmentsTsv, OverlappingAndUnsortedTurnsKeepFileOrder) {
  const std::vector<DiarizationSegment> turns =
      Parse("5\t9\tSPEAKER_01\n0\t6\tSPEAKER_00\n4\t5\tSPEAKER_01\n");
  ASSERT_EQ(turns.size(), 3u);
  EXPECT_EQ(turns[0].start, 5.0);
  EXPECT_EQ(turns[1].start, 0.0);
  EXPECT_EQ(turns[2].start, 4.0);
}

TEST(SegmentsTsv, LastLineWithoutNewlineIsRead) {
  const std::vector<DiarizationSegment> turns = Parse("0\t1\tA\n1\t2\tB");
  ASSERT_EQ(turns.size(), 2u);
  EXPECT_EQ(turns[1].speaker, "B");
}

TEST(SegmentsTsv, InfiniteOrNotANumberTimesAreSkippedBecauseJsonCannotCarryThem) {
  EXPECT_TRUE(Parse("0\tinf\tA\nnan\t1\tA\n0\t1e999\tA\n").empty());
}

TEST(SegmentsTsv, SingleLineParserReportsWhetherTheTurnIsKept) {
  DiarizationSegment turn;
  EXPECT_FALSE(ParseSegmentsTsvLine("", &turn));
  EXPECT_TRUE(ParseSegmentsTsvLine("0.5\t0.75\tSPEAKER_02", &turn));
  EXPECT_EQ(turn.start, 0.5);
  EXPECT_EQ(turn.end, 0.75);
  EXPECT_EQ(turn.speaker, "SPEAKER_02");
}

}  // namespace
}  // namespace kerrow::testing
