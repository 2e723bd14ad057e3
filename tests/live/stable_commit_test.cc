#include <gtest/gtest.h>

#include "live/single_model_streaming.h"

namespace kerrow {
namespace {

using Tokens = std::vector<std::string>;

TEST(StableCommitEnd, NoPreviousDecodeCommitsNothing) {
  EXPECT_EQ(StableCommitEnd({}, Tokens{"a", "b", "c"}, {0, 100, 200, 300}, 0, 1000), 0u);
}

TEST(StableCommitEnd, CommitsTheCommonPrefixOfTwoDecodes) {
  // "a b" agree, "c" changed into "x": only up to token 2 is stable.
  EXPECT_EQ(StableCommitEnd(Tokens{"a", "b", "c"}, Tokens{"a", "b", "x", "y"},
                            {0, 100, 200, 300, 400}, 0, 1000),
            2u);
}

TEST(StableCommitEnd, StopsWhereTheNextTokenStartsTooCloseToTheNewestAudio) {
  // Token 2 starts at 200, after the newest allowed position 150: the chunk
  // may only end at token 1's start.
  EXPECT_EQ(StableCommitEnd(Tokens{"a", "b", "c"}, Tokens{"a", "b", "c"}, {0, 100, 200, 300}, 0,
                            150),
            1u);
}

TEST(StableCommitEnd, WholeListUsesTheCaptureLengthAsLastBoundary) {
  EXPECT_EQ(StableCommitEnd(Tokens{"a", "b"}, Tokens{"a", "b"}, {0, 100, 500}, 0, 500), 2u);
  EXPECT_EQ(StableCommitEnd(Tokens{"a", "b"}, Tokens{"a", "b"}, {0, 100, 500}, 0, 499), 1u);
}

TEST(StableCommitEnd, StartsAfterTheAlreadyCommittedTokens) {
  EXPECT_EQ(StableCommitEnd(Tokens{"a", "b", "c", "d"}, Tokens{"a", "b", "c", "d"},
                            {0, 100, 200, 300, 400}, 2, 1000),
            4u);
  EXPECT_EQ(StableCommitEnd(Tokens{"a", "x"}, Tokens{"a", "b", "c"}, {0, 100, 200, 300}, 1, 1000),
            1u);
}

}  // namespace
}  // namespace kerrow
