#include "text/in_word_marks.h"

#include <gtest/gtest.h>

#include <string>

namespace kerrow::testing {
namespace {

TEST(RestoreInWordMarks, ApostropheComesBackBetweenTheSameLetters) {
  EXPECT_EQ(RestoreInWordMarks("i don't know what it's like", "i dont know，what its like。"),
            "i don't know，what it's like。");
}

TEST(RestoreInWordMarks, MarkTheModelPutInsideTheWordIsReplaced) {
  // The model saw "dont" and split it; the word's own mark wins.
  EXPECT_EQ(RestoreInWordMarks("don't go", "don，t go。"), "don't go。");
  EXPECT_EQ(RestoreInWordMarks("don't go", "don t go"), "don't go");
}

TEST(RestoreInWordMarks, HyphenColonAndTypographicApostropheAreWordMarks) {
  EXPECT_EQ(RestoreInWordMarks("a well-known fact", "a wellknown fact。"), "a well-known fact。");
  EXPECT_EQ(RestoreInWordMarks("at 3:30 then", "at 330，then"), "at 3:30，then");
  EXPECT_EQ(RestoreInWordMarks("it’s fine", "it s fine。"), "it’s fine。");
}

TEST(RestoreInWordMarks, MarksAtWordEdgesAreNotWordMarks) {
  // The model decides the marks between words and at the ends.
  EXPECT_EQ(RestoreInWordMarks("'quoted' yes, no", "quoted yes no。"), "quoted yes no。");
  EXPECT_EQ(RestoreInWordMarks("dogs' bones", "dogs bones。"), "dogs bones。");
  EXPECT_EQ(RestoreInWordMarks("a--b", "ab"), "ab");
}

TEST(RestoreInWordMarks, FullWidthMarkBetweenLatinWordsIsAWordBreakNotAWordMark) {
  EXPECT_EQ(RestoreInWordMarks("world，how", "world how？"), "world how？");
}

TEST(RestoreInWordMarks, TextWithoutWordMarksIsReturnedAsTheModelGaveIt) {
  EXPECT_EQ(RestoreInWordMarks("hello world", "hello，world。"), "hello，world。");
  EXPECT_EQ(RestoreInWordMarks("", "。"), "。");
}

TEST(RestoreInWordMarks, OutputWithOtherWordsIsLeftAlone) {
  EXPECT_EQ(RestoreInWordMarks("don't go", "do not go。"), "do not go。");
}

TEST(RestoreInWordMarks, OutputThatAlreadyHasTheMarkIsUnchanged) {
  EXPECT_EQ(RestoreInWordMarks("don't go", "don't go。"), "don't go。");
}

TEST(RestoreInWordMarks, WorksBesideMultiByteText) {
  EXPECT_EQ(RestoreInWordMarks("我说 don't 吧", "我说 dont 吧。"), "我说 don't 吧。");
}

}  // namespace
}  // namespace kerrow::testing
