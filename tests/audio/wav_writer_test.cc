#include "audio/wav_writer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "audio/wav_bytes.h"
#include "audio/wav_reader.h"
#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {


std::string ExpectedHeader(uint32_t sample_rate, uint32_t data_size) {
  return "RIFF" + Le32(data_size + 36) + "WAVE" + "fmt " + Le32(16) + Le16(3) + Le16(1) +
         Le32(sample_rate) + Le32(sample_rate * 4) + Le16(4) + Le16(32) + "data" + Le32(data_size);
}

TEST(WavWriter, EmptySamplesGiveValidFortyFourByteFile) {
  testing::TempDir dir;
  const std::string path = dir.File("empty.wav");
  std::string error;
  ASSERT_TRUE(WriteWavFloat32(path, {}, 16000, &error)) << error;
  EXPECT_EQ(testing::ReadFileBytes(path), ExpectedHeader(16000, 0));
}

TEST(WavWriter, HeaderThenRawLittleEndianFloats) {
  testing::TempDir dir;
  const std::string path = dir.File("two.wav");
  ASSERT_TRUE(WriteWavFloat32(path, {1.0f, -0.5f}, 16000, nullptr));
  // 1.0f is 0x3F800000 and -0.5f is 0xBF000000.
  EXPECT_EQ(testing::ReadFileBytes(path),
            ExpectedHeader(16000, 8) + Le32(0x3F800000u) + Le32(0xBF000000u));
}

TEST(WavWriter, WrittenFileReadsBackUnchanged) {
  testing::TempDir dir;
  const std::string path = dir.File("round.wav");
  const std::vector<float> samples = {0.0f, 0.1f, -0.999f, 1.25f};
  ASSERT_TRUE(WriteWavFloat32(path, samples, 16000, nullptr));
  std::vector<float> read;
  std::string error;
  ASSERT_TRUE(ReadWavMono(path, 16000, &read, &error)) << error;
  EXPECT_EQ(read, samples);
}

TEST(WavWriter, UnopenablePathFailsWithSystemTextAndCreatesNothing) {
  testing::TempDir dir;
  const std::string path = dir.File("missing-folder/out.wav");
  std::string error;
  EXPECT_FALSE(WriteWavFloat32(path, {0.0f}, 16000, &error));
  EXPECT_EQ(error, "fopen failed: No such file or directory");
  struct stat info;
  EXPECT_NE(stat(path.c_str(), &info), 0);
}

TEST(WavWriter, ShortWriteFailsAndRemovesThePartialFile) {
  // /dev/full accepts the open but fails every flushed write; a sample block
  // larger than the stdio buffer makes the failure visible to fwrite. Writing
  // through a link keeps the removal away from the device node itself.
  struct stat info;
  if (stat("/dev/full", &info) != 0) GTEST_SKIP() << "/dev/full not available";
  testing::TempDir dir;
  const std::string path = dir.File("full.wav");
  ASSERT_EQ(symlink("/dev/full", path.c_str()), 0);
  std::string error;
  EXPECT_FALSE(WriteWavFloat32(path, std::vector<float>(1 << 16, 0.0f), 16000, &error));
  EXPECT_EQ(error, "wav write failed");
  EXPECT_NE(lstat(path.c_str(), &info), 0);
}

}  // namespace
}  // namespace kerrow::testing
