#include "text/piece_join.h"

#include <gtest/gtest.h>

#include <string>

namespace kerrow::testing {
namespace {

std::string Join(std::string text, const std::string& piece) {
  AppendTextPiece(piece, &text);
  return text;
}

TEST(AppendTextPiece, BlankBetweenTwoLatinWords) {
  EXPECT_EQ(Join("hello world", "how are you"), "hello world how are you");
  EXPECT_EQ(Join("route 66", "7 miles"), "route 66 7 miles");
}

TEST(AppendTextPiece, BlankAfterAClosingAsciiMark) {
  EXPECT_EQ(Join("a stub café.", "Hello world"), "a stub café. Hello world");
  EXPECT_EQ(Join("well,", "yes"), "well, yes");
}

TEST(AppendTextPiece, NoBlankAroundCjkOrFullWidthMarks) {
  EXPECT_EQ(Join("你好。", "我很好"), "你好。我很好");
  EXPECT_EQ(Join("hello world，", "how"), "hello world，how");
  EXPECT_EQ(Join("你好", "hello"), "你好hello");
  EXPECT_EQ(Join("hello", "你好"), "hello你好");
}

TEST(AppendTextPiece, NoBlankWhereOneSideAlreadyHasOneOrIsEmpty) {
  EXPECT_EQ(Join("hello ", "world"), "hello world");
  EXPECT_EQ(Join("hello", " world"), "hello world");
  EXPECT_EQ(Join("", "world"), "world");
  EXPECT_EQ(Join("hello", ""), "hello");
}

TEST(AppendTextPiece, NoBlankAfterAnOpeningBracket) {
  EXPECT_EQ(Join("(", "aside)"), "(aside)");
}

TEST(AppendTextPiece, NullTextIsIgnored) { AppendTextPiece("x", nullptr); }

}  // namespace
}  // namespace kerrow::testing
