#include "common/utf8_punc.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace kerrow::testing {
namespace {

TEST(Utf8PuncTables, PunctuationSetHasTwentySixEntriesOfTwoOrThreeBytes) {
  ASSERT_EQ(kUtf8Punc.size(), 26u);
  for (const std::string_view mark : kUtf8Punc) {
    if (mark == "·") {
      EXPECT_EQ(mark.size(), 2u);
    } else {
      EXPECT_EQ(mark.size(), 3u) << mark;
    }
  }
  EXPECT_EQ(kUtf8Punc.back(), "\xEF\xBC\x8E");
}

TEST(Utf8PuncTables, TerminalMarksKeepEllipsisBeforeAsciiDot) {
  const std::vector<std::string_view> expected = {"。", "！", "？", "…", ".", "!", "?"};
  EXPECT_EQ(std::vector<std::string_view>(kTerms.begin(), kTerms.end()), expected);
}

TEST(Utf8CharLen, LengthFollowsLeadBytePattern) {
  EXPECT_EQ(Utf8CharLen('a'), 1u);
  EXPECT_EQ(Utf8CharLen(0xC2), 2u);
  EXPECT_EQ(Utf8CharLen(0xE4), 3u);
  EXPECT_EQ(Utf8CharLen(0xF0), 4u);
}

TEST(Utf8CharLen, ContinuationAndInvalidLeadBytesAreOneByte) {
  EXPECT_EQ(Utf8CharLen(0x80), 1u);
  EXPECT_EQ(Utf8CharLen(0xBF), 1u);
  EXPECT_EQ(Utf8CharLen(0xF8), 1u);
  EXPECT_EQ(Utf8CharLen(0xFF), 1u);
}

TEST(Utf8StepAt, TruncatedCharacterAtEndStepsOneByte) {
  const std::string text = "a\xE4\xBD";
  EXPECT_EQ(Utf8StepAt(text, 0), 1u);
  EXPECT_EQ(Utf8StepAt(text, 1), 1u);
  EXPECT_EQ(Utf8StepAt(text, 2), 1u);
  EXPECT_EQ(Utf8StepAt(text, 3), 0u);
  EXPECT_EQ(Utf8StepAt("好", 0), 3u);
}

TEST(IsUtf8PuncToken, MatchesWholeEntriesOnly) {
  EXPECT_TRUE(IsUtf8PuncToken("，"));
  EXPECT_TRUE(IsUtf8PuncToken("·"));
  EXPECT_TRUE(IsUtf8PuncToken("．"));
  EXPECT_FALSE(IsUtf8PuncToken("好"));
  EXPECT_FALSE(IsUtf8PuncToken(","));
  EXPECT_FALSE(IsUtf8PuncToken("，，"));
  EXPECT_FALSE(IsUtf8PuncToken(""));
}

TEST(IsNumericDot, DotBetweenAsciiDigits) {
  EXPECT_TRUE(IsNumericDot("3.14", 1));
  EXPECT_FALSE(IsNumericDot(".5", 0));
  EXPECT_FALSE(IsNumericDot("5.", 1));
  EXPECT_FALSE(IsNumericDot("a.5", 1));
  EXPECT_FALSE(IsNumericDot("3,1", 1));
}

TEST(IsNumericDot, FullWidthStopBetweenAsciiDigits) {
  EXPECT_TRUE(IsNumericDot("3．5", 1));
  EXPECT_FALSE(IsNumericDot("3．", 1));
  EXPECT_FALSE(IsNumericDot("３．５", 3));
  // EF BC 8C is the full-width comma, never a decimal point.
  EXPECT_FALSE(IsNumericDot("3，5", 1));
}

TEST(ShouldStripPuncToken, ZeroLengthAndOutOfRangeAreKept) {
  EXPECT_FALSE(ShouldStripPuncToken("a.", 1, 0));
  EXPECT_FALSE(ShouldStripPuncToken("a.", 2, 1));
}

TEST(ShouldStripPuncToken, AsciiPunctuationButNotDecimalPoint) {
  EXPECT_TRUE(ShouldStripPuncToken("end.", 3, 1));
  EXPECT_TRUE(ShouldStripPuncToken("a,b", 1, 1));
  EXPECT_FALSE(ShouldStripPuncToken("3.14", 1, 1));
  EXPECT_FALSE(ShouldStripPuncToken("a b", 1, 1));
  EXPECT_FALSE(ShouldStripPuncToken("ab", 1, 1));
}

TEST(ShouldStripPuncToken, MultiByteOnlyWhenListed) {
  EXPECT_TRUE(ShouldStripPuncToken("好，", 3, 3));
  EXPECT_FALSE(ShouldStripPuncToken("好，", 0, 3));
  EXPECT_TRUE(ShouldStripPuncToken("完．", 3, 3));
  EXPECT_FALSE(ShouldStripPuncToken("3．5", 1, 3));
}

TEST(ShouldStripPuncToken, HighByteAloneIsNeverPunctuation) {
  EXPECT_FALSE(ShouldStripPuncToken("\xE3", 0, 1));
  EXPECT_FALSE(ShouldStripPuncToken("\xA1", 0, 1));
}

TEST(PrevUtf8Start, StepsBackOverContinuationBytes) {
  const std::string text = "a你b";
  EXPECT_EQ(PrevUtf8Start(text, 5), 4u);
  EXPECT_EQ(PrevUtf8Start(text, 4), 1u);
  EXPECT_EQ(PrevUtf8Start(text, 1), 0u);
}

TEST(PrevUtf8Start, ZeroAtStartOrBeyondEnd) {
  EXPECT_EQ(PrevUtf8Start("abc", 0), 0u);
  EXPECT_EQ(PrevUtf8Start("abc", 4), 0u);
  EXPECT_EQ(PrevUtf8Start("\x80\x80", 2), 0u);
}

TEST(StripPuncForPuncModel, DecimalPointKeptBetweenDigits) {
  EXPECT_EQ(StripPuncForPuncModel("3.14"), "3.14");
}

TEST(StripPuncForPuncModel, DotWithoutDigitOnBothSidesIsRemoved) {
  EXPECT_EQ(StripPuncForPuncModel(".5"), "5");
  EXPECT_EQ(StripPuncForPuncModel("5."), "5");
  EXPECT_EQ(StripPuncForPuncModel("a.5"), "a5");
}

TEST(StripPuncForPuncModel, FullWidthDotKeptBetweenDigitsRemovedElsewhere) {
  EXPECT_EQ(StripPuncForPuncModel("价格3．5元"), "价格3．5元");
  EXPECT_EQ(StripPuncForPuncModel("完．"), "完");
}

TEST(StripPuncForPuncModel, OnlyFullWidthCommaStripsToEmpty) {
  EXPECT_EQ(StripPuncForPuncModel("，"), "");
}

TEST(StripPuncForPuncModel, SpaceBetweenLettersIsKept) {
  EXPECT_EQ(StripPuncForPuncModel("a b"), "a b");
  EXPECT_EQ(StripPuncForPuncModel("Hello, world! 你好，世界。"), "Hello world 你好世界");
}

TEST(StripPuncForPuncModel, LoneLeadByteAtEndIsWalkedByteByByteAndKept) {
  EXPECT_EQ(StripPuncForPuncModel("好\xE4"), "好\xE4");
  EXPECT_EQ(StripPuncForPuncModel("a,\xE4\xBD"), "a\xE4\xBD");
}

TEST(StripPuncForPuncModel, EmptyStaysEmpty) { EXPECT_EQ(StripPuncForPuncModel(""), ""); }

TEST(CollectPlainTokens, OneTokenPerNonPunctuationCharacterWithPositions) {
  std::vector<std::string> tokens = {"stale"};
  std::vector<size_t> positions = {99};
  CollectPlainTokens("你好，a b!", &tokens, &positions);
  EXPECT_EQ(tokens, (std::vector<std::string>{"你", "好", "a", " ", "b"}));
  EXPECT_EQ(positions, (std::vector<size_t>{0, 3, 9, 10, 11}));
}

TEST(CollectPlainTokens, PositionsAreOptionalAndNullTokensDoNothing) {
  std::vector<std::string> tokens;
  CollectPlainTokens("3.5", &tokens);
  EXPECT_EQ(tokens, (std::vector<std::string>{"3", ".", "5"}));
  std::vector<size_t> positions = {7};
  CollectPlainTokens("abc", nullptr, &positions);
  EXPECT_EQ(positions, (std::vector<size_t>{7}));
}

TEST(FindLastTokenSubseq, LastOccurrenceWins) {
  EXPECT_EQ(FindLastTokenSubseq({"a", "b", "a", "b"}, {"a", "b"}), 2u);
}

TEST(FindLastTokenSubseq, EmptyNeedleGivesZero) { EXPECT_EQ(FindLastTokenSubseq({"a"}, {}), 0u); }

TEST(FindLastTokenSubseq, LongerNeedleOrNoMatchGivesNpos) {
  EXPECT_EQ(FindLastTokenSubseq({"a"}, {"a", "b"}), std::string::npos);
  EXPECT_EQ(FindLastTokenSubseq({"a", "b", "c"}, {"c", "a"}), std::string::npos);
  EXPECT_EQ(FindLastTokenSubseq({"x", "y"}, {"x", "y"}), 0u);
}

TEST(Utf8SuffixByCodepoints, TakesLastCodePoints) {
  EXPECT_EQ(Utf8SuffixByCodepoints("你好世界", 2), "世界");
  EXPECT_EQ(Utf8SuffixByCodepoints("ab你", 2), "b你");
}

TEST(Utf8SuffixByCodepoints, ZeroOrNegativeCountGivesEmpty) {
  EXPECT_EQ(Utf8SuffixByCodepoints("你好世界", 0), "");
  EXPECT_EQ(Utf8SuffixByCodepoints("你好世界", -3), "");
  EXPECT_EQ(Utf8SuffixByCodepoints("", 2), "");
}

TEST(Utf8SuffixByCodepoints, ShortTextIsReturnedWhole) {
  EXPECT_EQ(Utf8SuffixByCodepoints("你好", 5), "你好");
}

TEST(EndsWith, EmptySuffixNeverMatches) {
  EXPECT_FALSE(EndsWith("abc", ""));
  EXPECT_FALSE(EndsWith("", ""));
  EXPECT_TRUE(EndsWith("abc", "bc"));
  EXPECT_FALSE(EndsWith("c", "bc"));
  EXPECT_TRUE(EndsWith("好。", "。"));
}

TEST(PopOneTerminalPunc, RemovesOneMarkPerCall) {
  std::string text = "ok...";
  EXPECT_TRUE(PopOneTerminalPunc(&text));
  EXPECT_EQ(text, "ok..");
  text = "好。！";
  EXPECT_TRUE(PopOneTerminalPunc(&text));
  EXPECT_EQ(text, "好。");
}

TEST(PopOneTerminalPunc, NullEmptyOrNoMarkGivesFalse) {
  EXPECT_FALSE(PopOneTerminalPunc(nullptr));
  std::string empty;
  EXPECT_FALSE(PopOneTerminalPunc(&empty));
  std::string comma = "a,";
  EXPECT_FALSE(PopOneTerminalPunc(&comma));
  EXPECT_EQ(comma, "a,");
}

TEST(StripTerminalPunc, RemovesWholeTrailingRunOfMarks) {
  EXPECT_EQ(StripTerminalPunc("what?!…"), "what");
  EXPECT_EQ(StripTerminalPunc("好。！"), "好");
  EXPECT_EQ(StripTerminalPunc("ok?!"), "ok");
}

TEST(StripTerminalPunc, InnerMarksStay) { EXPECT_EQ(StripTerminalPunc("a. b!"), "a. b"); }

TEST(EnsureTerminalPunc, AppendsIdeographicStopWhenMissing) {
  EXPECT_EQ(EnsureTerminalPunc("hello"), "hello。");
  EXPECT_EQ(EnsureTerminalPunc("hello"), "hello\xE3\x80\x82");
}

TEST(EnsureTerminalPunc, LeavesExistingMarkAndEmptyText) {
  EXPECT_EQ(EnsureTerminalPunc("hello!"), "hello!");
  EXPECT_EQ(EnsureTerminalPunc("好…"), "好…");
  EXPECT_EQ(EnsureTerminalPunc(""), "");
}

TEST(EnsureTerminalPunc, CommaIsNotSentenceFinal) {
  EXPECT_EQ(EnsureTerminalPunc("a,"), "a,。");
  EXPECT_EQ(EnsureTerminalPunc("好，"), "好，。");
}

}  // namespace
}  // namespace kerrow::testing
