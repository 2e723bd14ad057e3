#include <gtest/gtest.h>

#include "live/single_model_streaming.h"
#include "live/token_word_start.h"

namespace kerrow::testing {
namespace {

using Tokens = std::vector<std::string>;

// Character tokens with " " as the word separator, as the trained recognizer
// emits them: "ab cd ef".
const Tokens kWords = {"a", "b", " ", "c", "d", " ", "e", "f"};
const std::vector<int64_t> kBoundaries = {0, 100, 200, 300, 400, 500, 600, 700, 800};

TEST(StableCommitEnd, NoPreviousDecodeCommitsNothing) {
  EXPECT_EQ(StableCommitEnd({}, kWords, kBoundaries, 0, 1000), 0u);
}

TEST(StableCommitEnd, EndsOnlyWhereTheNextTokenStartsAWord) {
  // Everything is stable and old enough; the last word start is token 5.
  EXPECT_EQ(StableCommitEnd(kWords, kWords, kBoundaries, 0, 1000), 5u);
  // Token 4 starts at 400 and token 5 at 500: with 450 allowed the chunk
  // could end at token 4, inside "cd", so it ends at token 2 instead.
  EXPECT_EQ(StableCommitEnd(kWords, kWords, kBoundaries, 0, 450), 2u);
}

TEST(StableCommitEnd, ACommonPrefixEndingInsideAWordCommitsOnlyWholeWords) {
  const Tokens changed = {"a", "b", " ", "c", "x", " ", "e", "f"};
  EXPECT_EQ(StableCommitEnd(kWords, changed, kBoundaries, 0, 1000), 2u);
}

TEST(StableCommitEnd, AChunkWithoutAWordBoundaryWaits) {
  const Tokens one_word = {"a", "b", "c", "d"};
  EXPECT_EQ(StableCommitEnd(one_word, one_word, {0, 100, 200, 300, 400}, 0, 1000), 0u);
}

TEST(StableCommitEnd, NeverEndsAtTheNewestAudio) {
  // The end of the token list is no word boundary: the word may go on.
  const Tokens words = {"a", " ", "b"};
  EXPECT_EQ(StableCommitEnd(words, words, {0, 100, 200, 300}, 0, 300), 1u);
}

TEST(StableCommitEnd, StartsAfterTheAlreadyCommittedTokens) {
  EXPECT_EQ(StableCommitEnd(kWords, kWords, kBoundaries, 2, 1000), 5u);
  EXPECT_EQ(StableCommitEnd(kWords, kWords, kBoundaries, 5, 1000), 5u);
}

TEST(TokenStartsWord, BlankMarkAndCjkStartWords) {
  EXPECT_TRUE(TokenStartsWord(" "));
  EXPECT_TRUE(TokenStartsWord(" the"));
  EXPECT_TRUE(TokenStartsWord("\xE2\x96\x81the"));
  EXPECT_TRUE(TokenStartsWord("\xE4\xBD\xA0"));  // 你
  EXPECT_TRUE(TokenStartsWord("\xE3\x81\x82"));  // あ
  EXPECT_FALSE(TokenStartsWord("the"));
  EXPECT_FALSE(TokenStartsWord("'"));
  EXPECT_FALSE(TokenStartsWord(""));
  EXPECT_FALSE(TokenStartsWord("\xC3\xA9"));  // é continues a word
  EXPECT_FALSE(TokenStartsWord("\xE4"));      // a cut sequence
}

}  // namespace
}  // namespace kerrow::testing
