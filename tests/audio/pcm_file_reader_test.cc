#include "audio/pcm_file_reader.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "support/fifo_feeder.h"
#include "audio/wav_bytes.h"
#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {

class PcmFileReaderTest : public ::testing::Test {
 protected:
  bool Read(const std::string& bytes, const std::string& format) {
    path_ = dir_.File("input.pcm");
    testing::WriteFileBytes(path_, bytes);
    return ReadPcmMono(path_, format, &samples_, &error_);
  }

  testing::TempDir dir_;
  std::string path_;
  std::vector<float> samples_;
  std::string error_;
};

TEST_F(PcmFileReaderTest, S16leSamplesScaleByOneOver32768) {
  ASSERT_TRUE(Read(testing::S16Samples({0x8000, 0x7FFF, 0x0000, 0x4000}), "s16le")) << error_;
  EXPECT_EQ(samples_, (std::vector<float>{-1.0f, 0.999969482421875f, 0.0f, 0.5f}));
}

TEST_F(PcmFileReaderTest, F32leSamplesAreCopiedBitForBit) {
  const std::vector<float> values = {0.25f, -3.0f, 1e-30f};
  std::string bytes(values.size() * 4, '\0');
  std::memcpy(&bytes[0], values.data(), bytes.size());
  ASSERT_TRUE(Read(bytes, "f32le")) << error_;
  EXPECT_EQ(samples_, values);
}

TEST_F(PcmFileReaderTest, ThreeByteS16leFileFailsAlignment) {
  EXPECT_FALSE(Read("abc", "s16le"));
  EXPECT_EQ(error_, "PCM s16le byte length must be aligned to 2 bytes");
}

TEST_F(PcmFileReaderTest, SixByteF32leFileFailsAlignment) {
  EXPECT_FALSE(Read("abcdef", "f32le"));
  EXPECT_EQ(error_, "PCM f32le byte length must be aligned to 4 bytes");
}

TEST_F(PcmFileReaderTest, EmptyFileIsEmptyWhateverTheFormat) {
  for (const std::string format : {"s16le", "f32le", "bogus"}) {
    EXPECT_FALSE(Read("", format));
    EXPECT_EQ(error_, "PCM file is empty: " + path_) << format;
  }
}

TEST_F(PcmFileReaderTest, UpperCaseFormatNameIsUnsupported) {
  EXPECT_FALSE(Read("abcd", "S16LE"));
  EXPECT_EQ(error_, "Unsupported PCM format: S16LE");
}

TEST_F(PcmFileReaderTest, MissingFileIsNotFound) {
  const std::string path = dir_.File("absent.pcm");
  EXPECT_FALSE(ReadPcmMono(path, "s16le", &samples_, &error_));
  EXPECT_EQ(error_, "PCM file not found: " + path);
}

TEST_F(PcmFileReaderTest, NullOutputsFailWithoutTouchingAnything) {
  std::string error = "untouched";
  EXPECT_FALSE(ReadPcmMono(dir_.File("x"), "s16le", nullptr, &error));
  EXPECT_EQ(error, "untouched");
}

TEST_F(PcmFileReaderTest, FifoReadsLikeTheSameBytesInAFile) {
  const std::string fifo = dir_.File("input.fifo");
  {
    testing::FifoFeeder feeder(fifo, testing::S16Samples({0x4000, 0x8000}));
    ASSERT_TRUE(ReadPcmMono(fifo, "s16le", &samples_, &error_)) << error_;
  }
  EXPECT_EQ(samples_, (std::vector<float>{0.5f, -1.0f}));
}

TEST_F(PcmFileReaderTest, EmptyFifoIsEmpty) {
  const std::string fifo = dir_.File("input.fifo");
  {
    testing::FifoFeeder feeder(fifo, "");
    EXPECT_FALSE(ReadPcmMono(fifo, "f32le", &samples_, &error_));
  }
  EXPECT_EQ(error_, "PCM file is empty: " + fifo);
}

TEST_F(PcmFileReaderTest, MisalignedFifoFailsAlignment) {
  const std::string fifo = dir_.File("input.fifo");
  {
    testing::FifoFeeder feeder(fifo, "abcde");
    EXPECT_FALSE(ReadPcmMono(fifo, "f32le", &samples_, &error_));
  }
  EXPECT_EQ(error_, "PCM f32le byte length must be aligned to 4 bytes");
}

TEST_F(PcmFileReaderTest, DirectoryCannotBeRead) {
  EXPECT_FALSE(ReadPcmMono(dir_.path(), "s16le", &samples_, &error_));
  EXPECT_EQ(error_, "Failed to read PCM file: " + dir_.path());
}

TEST_F(PcmFileReaderTest, DataOfManyBlocksMatchesSampleBySample) {
  std::vector<float> values;
  for (int i = 0; i < 70001; ++i) values.push_back(static_cast<float>(i) * 0.001f - 3.0f);
  std::string bytes(values.size() * 4, '\0');
  std::memcpy(&bytes[0], values.data(), bytes.size());
  ASSERT_TRUE(Read(bytes, "f32le")) << error_;
  EXPECT_EQ(samples_, values);
}

TEST(PcmFileReader, ReadsFromAnyStreamNamingItInMessages) {
  std::istringstream in(std::string("\x00\x40", 2));
  std::vector<float> samples;
  std::string error;
  ASSERT_TRUE(ReadPcmMonoFromStream(in, "stdin", "s16le", 0, &samples, &error)) << error;
  EXPECT_EQ(samples, (std::vector<float>{0.5f}));
  std::istringstream empty("");
  EXPECT_FALSE(ReadPcmMonoFromStream(empty, "stdin", "s16le", 0, &samples, &error));
  EXPECT_EQ(error, "PCM file is empty: stdin");
}

}  // namespace
}  // namespace kerrow::testing
