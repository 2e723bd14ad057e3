#include "audio/block_sample_reader.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "audio/wav_bytes.h"
#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {

const uint8_t* Bytes(const std::string& text) { return reinterpret_cast<const uint8_t*>(text.data()); }

TEST(SampleAppender, SampleSplitAcrossPiecesIsJoined) {
  std::vector<float> samples;
  SampleAppender appender(SampleEncoding::kS16le, &samples);
  const std::string bytes = testing::S16Samples({0x4000, 0xC000, 0x2000});
  appender.Append(Bytes(bytes), 1);
  EXPECT_TRUE(samples.empty());
  appender.Append(Bytes(bytes) + 1, 2);
  EXPECT_EQ(samples, (std::vector<float>{0.5f}));
  appender.Append(Bytes(bytes) + 3, 3);
  EXPECT_EQ(samples, (std::vector<float>{0.5f, -0.5f, 0.25f}));
  EXPECT_EQ(appender.tail(), "");
}

TEST(SampleAppender, BytesAfterTheLastWholeSampleStayInTheTail) {
  std::vector<float> samples;
  SampleAppender appender(SampleEncoding::kF32le, &samples);
  const float value = 0.25f;
  const std::string bytes = std::string(reinterpret_cast<const char*>(&value), 4) + "xyz";
  appender.Append(Bytes(bytes), 2);
  appender.Append(Bytes(bytes) + 2, 5);
  EXPECT_EQ(samples, (std::vector<float>{0.25f}));
  EXPECT_EQ(appender.tail(), "xyz");
}

TEST(ReadSampleBlocks, StopsAtTheLimitAndLeavesTheRestInTheStream) {
  std::istringstream in(testing::S16Samples({0x4000, 0x4000, 0x4000}) + "rest");
  std::vector<float> samples;
  SampleAppender appender(SampleEncoding::kS16le, &samples);
  bool failed = true;
  EXPECT_EQ(ReadSampleBlocks(in, 6, &appender, &failed), 6u);
  EXPECT_FALSE(failed);
  EXPECT_EQ(samples.size(), 3u);
  std::string rest;
  in >> rest;
  EXPECT_EQ(rest, "rest");
}

TEST(ReadSampleBlocks, EndOfStreamBeforeTheLimitIsAShortReadNotAFailure) {
  std::istringstream in(testing::S16Samples({0x4000}));
  std::vector<float> samples;
  SampleAppender appender(SampleEncoding::kS16le, &samples);
  bool failed = true;
  EXPECT_EQ(ReadSampleBlocks(in, 100, &appender, &failed), 2u);
  EXPECT_FALSE(failed);
}

TEST(DiscardBytes, CountsWhatItDrops) {
  std::istringstream in(std::string(200000, 'a'));
  bool failed = true;
  EXPECT_EQ(DiscardBytes(in, kToEndOfStream, &failed), 200000u);
  EXPECT_FALSE(failed);
}

TEST(RegularFileSizeOrZero, OnlyRegularFilesHaveASize) {
  EXPECT_EQ(RegularFileSizeOrZero("/nonexistent/file"), 0u);
  EXPECT_EQ(RegularFileSizeOrZero("/dev/null"), 0u);
  EXPECT_EQ(RegularFileSizeOrZero("/"), 0u);
  testing::TempDir dir;
  testing::WriteFileBytes(dir.File("five"), "12345");
  EXPECT_EQ(RegularFileSizeOrZero(dir.File("five")), 5u);
}

}  // namespace
}  // namespace kerrow::testing
