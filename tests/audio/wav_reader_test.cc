#include "audio/wav_reader.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "support/fifo_feeder.h"
#include "audio/wav_bytes.h"
#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {


const char kUnsupported[] = "Unsupported WAV format. Expect mono 16-bit PCM or mono 32-bit float";

class WavReaderTest : public ::testing::Test {
 protected:
  // Writes bytes to a file and reads it back at 16 kHz; returns the reader's result.
  bool Read(const std::string& bytes) {
    const std::string path = dir_.File("input.wav");
    testing::WriteFileBytes(path, bytes);
    return ReadWavMono(path, 16000, &samples_, &error_);
  }

  testing::TempDir dir_;
  std::vector<float> samples_;
  std::string error_;
};

std::string Float32Samples(const std::vector<float>& values) {
  std::string bytes(values.size() * 4, '\0');
  std::memcpy(&bytes[0], values.data(), bytes.size());
  return bytes;
}

TEST_F(WavReaderTest, CanonicalSixteenBitExtremesScaleByOneOver32768) {
  ASSERT_TRUE(Read(Riff({Chunk("fmt ", FmtBody(1, 1, 16000, 16)),
                         Chunk("data", S16Samples({0x8000, 0x7FFF}))})))
      << error_;
  EXPECT_EQ(samples_, (std::vector<float>{-1.0f, 0.999969482421875f}));
}

TEST_F(WavReaderTest, CanonicalFileIsFortyFourBytesOfHeader) {
  const std::string bytes =
      Riff({Chunk("fmt ", FmtBody(1, 1, 16000, 16)), Chunk("data", S16Samples({0x8000, 0x7FFF}))});
  ASSERT_EQ(bytes.size(), 44u + 4u);
  ASSERT_TRUE(Read(bytes)) << error_;
  EXPECT_EQ(samples_.size(), 2u);
}

TEST_F(WavReaderTest, WrongSampleRateFailsNamingTheExpectedRate) {
  EXPECT_FALSE(Read(Riff({Chunk("fmt ", FmtBody(1, 1, 44100, 16)), Chunk("data", S16Samples({1}))})));
  EXPECT_EQ(error_, "WAV sample rate must be 16000");
}

TEST_F(WavReaderTest, StereoFailsBeforeSampleRate) {
  EXPECT_FALSE(
      Read(Riff({Chunk("fmt ", FmtBody(1, 2, 44100, 16)), Chunk("data", S16Samples({1, 2}))})));
  EXPECT_EQ(error_, "WAV must be mono");
}

TEST_F(WavReaderTest, ListChunkBetweenFmtAndDataIsSkipped) {
  ASSERT_TRUE(Read(Riff({Chunk("fmt ", FmtBody(1, 1, 16000, 16)),
                         Chunk("LIST", "INFOISFT\x06\0\0\0kerrow"),
                         Chunk("data", S16Samples({0x4000}))})))
      << error_;
  EXPECT_EQ(samples_, (std::vector<float>{0.5f}));
}

TEST_F(WavReaderTest, OddSizedChunkIsFollowedByItsPadByte) {
  const std::string odd_chunk = Chunk("junk", "abc");
  ASSERT_EQ(odd_chunk.size(), 8u + 3u + 1u);
  ASSERT_TRUE(Read(Riff({Chunk("fmt ", FmtBody(1, 1, 16000, 16)), odd_chunk,
                         Chunk("data", S16Samples({0xC000}))})))
      << error_;
  EXPECT_EQ(samples_, (std::vector<float>{-0.5f}));
}

TEST_F(WavReaderTest, EighteenByteFmtChunkSkipsTheExtraBytes) {
  ASSERT_TRUE(Read(Riff({Chunk("fmt ", FmtBody(1, 1, 16000, 16) + Le16(0)),
                         Chunk("data", S16Samples({0x2000, 0xE000}))})))
      << error_;
  EXPECT_EQ(samples_, (std::vector<float>{0.25f, -0.25f}));
}

TEST_F(WavReaderTest, ExtensibleFormatTagIsUnsupportedEvenWithPcmSubFormat) {
  // cbSize 22, valid bits 16, channel mask 4, then the PCM sub-format GUID.
  const std::string extension = Le16(22) + Le16(16) + Le32(4) +
                                std::string("\x01\x00\x00\x00\x00\x00\x10\x00\x80\x00\x00\xAA\x00\x38\x9B\x71", 16);
  EXPECT_FALSE(Read(Riff({Chunk("fmt ", FmtBody(0xFFFE, 1, 16000, 16) + extension),
                          Chunk("data", S16Samples({1}))})));
  EXPECT_EQ(error_, kUnsupported);
}

TEST_F(WavReaderTest, TwentyFourBitPcmIsUnsupported) {
  EXPECT_FALSE(
      Read(Riff({Chunk("fmt ", FmtBody(1, 1, 16000, 24)), Chunk("data", std::string(6, '\x01'))})));
  EXPECT_EQ(error_, kUnsupported);
}

TEST_F(WavReaderTest, BareRiffHeaderFailsAsNotMono) {
  EXPECT_FALSE(Read("RIFF" + Le32(4) + "WAVE"));
  EXPECT_EQ(error_, "WAV must be mono");
}

TEST_F(WavReaderTest, TruncatedDataChunkFails) {
  const std::string bytes = Riff({Chunk("fmt ", FmtBody(1, 1, 16000, 16))}) + "data" + Le32(1000) +
                            S16Samples({1, 2, 3});
  EXPECT_FALSE(Read(bytes));
  EXPECT_EQ(error_, "Invalid WAV data chunk");
}

TEST_F(WavReaderTest, HugeDeclaredDataSizeFailsAsTruncated) {
  const std::string bytes =
      Riff({Chunk("fmt ", FmtBody(1, 1, 16000, 16))}) + "data" + Le32(0xFFFFFFF0u) + S16Samples({1});
  EXPECT_FALSE(Read(bytes));
  EXPECT_EQ(error_, "Invalid WAV data chunk");
}

TEST_F(WavReaderTest, MissingFileIsNotFound) {
  const std::string path = dir_.File("absent.wav");
  EXPECT_FALSE(ReadWavMono(path, 16000, &samples_, &error_));
  EXPECT_EQ(error_, "WAV file not found: " + path);
}

TEST_F(WavReaderTest, ShortRiffHeaderIsInvalid) {
  EXPECT_FALSE(Read("RIFF" + Le32(4) + "WA"));
  EXPECT_EQ(error_, "Invalid WAV header");
}

TEST_F(WavReaderTest, OtherFormTypeIsNotRiffWave) {
  EXPECT_FALSE(Read("RIFF" + Le32(4) + "AVI "));
  EXPECT_EQ(error_, "Not a RIFF/WAVE file");
}

TEST_F(WavReaderTest, ShortFmtChunkIsInvalid) {
  const std::string bytes = "RIFF" + Le32(20) + "WAVE" + "fmt " + Le32(16) + Le16(1) + Le16(1);
  EXPECT_FALSE(Read(bytes));
  EXPECT_EQ(error_, "Invalid WAV fmt chunk");
}

TEST_F(WavReaderTest, EmptyDataChunkHasNoData) {
  EXPECT_FALSE(Read(Riff({Chunk("fmt ", FmtBody(1, 1, 16000, 16)), Chunk("data", "")})));
  EXPECT_EQ(error_, "WAV has no data");
}

TEST_F(WavReaderTest, FmtChunkAfterDataIsStillUsed) {
  ASSERT_TRUE(Read(Riff({Chunk("data", S16Samples({0x4000})), Chunk("fmt ", FmtBody(1, 1, 16000, 16))})))
      << error_;
  EXPECT_EQ(samples_, (std::vector<float>{0.5f}));
}

TEST_F(WavReaderTest, SecondDataChunkReplacesTheFirst) {
  ASSERT_TRUE(Read(Riff({Chunk("fmt ", FmtBody(1, 1, 16000, 16)), Chunk("data", S16Samples({0x4000})),
                         Chunk("data", S16Samples({0xC000, 0x2000}))})))
      << error_;
  EXPECT_EQ(samples_, (std::vector<float>{-0.5f, 0.25f}));
}

TEST_F(WavReaderTest, FloatSamplesAreCopiedWithoutClampingOrValidation) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  ASSERT_TRUE(Read(Riff({Chunk("fmt ", FmtBody(3, 1, 16000, 32)),
                         Chunk("data", Float32Samples({1.5f, -2.0f, nan}))})))
      << error_;
  ASSERT_EQ(samples_.size(), 3u);
  EXPECT_EQ(samples_[0], 1.5f);
  EXPECT_EQ(samples_[1], -2.0f);
  EXPECT_TRUE(std::isnan(samples_[2]));
}

TEST_F(WavReaderTest, TrailingPartialSamplesAreDropped) {
  ASSERT_TRUE(Read(Riff({Chunk("fmt ", FmtBody(3, 1, 16000, 32)),
                         Chunk("data", Float32Samples({0.125f}) + "\x01\x02\x03")})))
      << error_;
  EXPECT_EQ(samples_, (std::vector<float>{0.125f}));
}

TEST_F(WavReaderTest, NullOutputsFailWithoutTouchingAnything) {
  std::string error = "untouched";
  EXPECT_FALSE(ReadWavMono(dir_.File("x.wav"), 16000, nullptr, &error));
  EXPECT_EQ(error, "untouched");
  std::vector<float> samples = {1.0f};
  EXPECT_FALSE(ReadWavMono(dir_.File("x.wav"), 16000, &samples, nullptr));
  EXPECT_EQ(samples, (std::vector<float>{1.0f}));
}

TEST_F(WavReaderTest, SuccessLeavesErrorUntouchedAndReplacesOldSamples) {
  error_ = "previous";
  samples_ = {9.0f, 9.0f, 9.0f};
  ASSERT_TRUE(Read(Riff({Chunk("fmt ", FmtBody(1, 1, 16000, 16)), Chunk("data", S16Samples({0}))})));
  EXPECT_EQ(error_, "previous");
  EXPECT_EQ(samples_, (std::vector<float>{0.0f}));
}

TEST_F(WavReaderTest, FifoReadsLikeTheSameBytesInAFile) {
  const std::string bytes =
      Riff({Chunk("fmt ", FmtBody(1, 1, 16000, 16)), Chunk("LIST", "INFOabc"), Chunk("data", S16Samples({0x4000, 0xC000}))});
  const std::string fifo = dir_.File("input.fifo");
  {
    testing::FifoFeeder feeder(fifo, bytes);
    ASSERT_TRUE(ReadWavMono(fifo, 16000, &samples_, &error_)) << error_;
  }
  EXPECT_EQ(samples_, (std::vector<float>{0.5f, -0.5f}));
}

TEST_F(WavReaderTest, FifoWithTruncatedDataChunkFails) {
  const std::string bytes = Riff({Chunk("fmt ", FmtBody(1, 1, 16000, 16))}) + "data" + Le32(1000) + S16Samples({1});
  const std::string fifo = dir_.File("input.fifo");
  {
    testing::FifoFeeder feeder(fifo, bytes);
    EXPECT_FALSE(ReadWavMono(fifo, 16000, &samples_, &error_));
  }
  EXPECT_EQ(error_, "Invalid WAV data chunk");
}

TEST_F(WavReaderTest, UnknownDataSizeOfStreamingWritersRunsToTheEndOfTheFile) {
  const std::string bytes = Riff({Chunk("fmt ", FmtBody(1, 1, 16000, 16))}) + "data" + Le32(0xFFFFFFFFu) +
                            S16Samples({0x4000, 0x2000, 0xC000}) + "\x01";
  ASSERT_TRUE(Read(bytes)) << error_;
  EXPECT_EQ(samples_, (std::vector<float>{0.5f, 0.25f, -0.5f}));
}

TEST_F(WavReaderTest, UnknownDataSizeThroughAFifoRunsToTheEndOfTheStream) {
  const std::string bytes =
      Riff({Chunk("fmt ", FmtBody(3, 1, 16000, 32))}) + "data" + Le32(0xFFFFFFFFu) + Float32Samples({0.75f, -0.125f});
  const std::string fifo = dir_.File("input.fifo");
  {
    testing::FifoFeeder feeder(fifo, bytes);
    ASSERT_TRUE(ReadWavMono(fifo, 16000, &samples_, &error_)) << error_;
  }
  EXPECT_EQ(samples_, (std::vector<float>{0.75f, -0.125f}));
}

TEST_F(WavReaderTest, UnknownDataSizeWithNothingAfterItHasNoData) {
  EXPECT_FALSE(Read(Riff({Chunk("fmt ", FmtBody(1, 1, 16000, 16))}) + "data" + Le32(0xFFFFFFFFu)));
  EXPECT_EQ(error_, "WAV has no data");
}

TEST_F(WavReaderTest, OddSizedDataChunkEndingTheFileWithoutItsPadByteReads) {
  const std::string bytes = Riff({Chunk("fmt ", FmtBody(1, 1, 16000, 16))}) + "data" + Le32(3) + S16Samples({0x4000}) + "\x7F";
  ASSERT_TRUE(Read(bytes)) << error_;
  EXPECT_EQ(samples_, (std::vector<float>{0.5f}));
}

TEST_F(WavReaderTest, OddSizedDataChunkIsFollowedByItsPadByteAndMoreChunks) {
  ASSERT_TRUE(Read(Riff({Chunk("fmt ", FmtBody(1, 1, 16000, 16)), Chunk("data", S16Samples({0x2000}) + "\x55"),
                         Chunk("LIST", "INFO"), Chunk("junk", "xyz")})))
      << error_;
  EXPECT_EQ(samples_, (std::vector<float>{0.25f}));
}

TEST_F(WavReaderTest, FloatDataBeforeItsFmtChunkIsStillUsed) {
  ASSERT_TRUE(Read(Riff({Chunk("data", Float32Samples({0.375f, -1.5f})), Chunk("fmt ", FmtBody(3, 1, 16000, 32))})))
      << error_;
  EXPECT_EQ(samples_, (std::vector<float>{0.375f, -1.5f}));
}

TEST_F(WavReaderTest, LaterFmtChunkReinterpretsDataReadUnderAnEarlierOne) {
  // The data is read as 16-bit under the first fmt chunk; the second one says
  // float, and wins, as it would had the data been read last.
  ASSERT_TRUE(Read(Riff({Chunk("fmt ", FmtBody(1, 1, 16000, 16)), Chunk("data", Float32Samples({0.5f, -2.0f}) + "\x01\x02"),
                         Chunk("fmt ", FmtBody(3, 1, 16000, 32))})))
      << error_;
  EXPECT_EQ(samples_, (std::vector<float>{0.5f, -2.0f}));
}

TEST_F(WavReaderTest, LaterFmtChunkTurnsFloatDataBackIntoSixteenBitSamples) {
  const std::string five_samples = S16Samples({0x4000, 0xC000, 0x2000, 0xE000, 0x1000});
  ASSERT_TRUE(Read(Riff({Chunk("fmt ", FmtBody(3, 1, 16000, 32)), Chunk("data", five_samples),
                         Chunk("fmt ", FmtBody(1, 1, 16000, 16))})))
      << error_;
  EXPECT_EQ(samples_, (std::vector<float>{0.5f, -0.5f, 0.25f, -0.25f, 0.125f}));
}

TEST_F(WavReaderTest, DataOfManyBlocksMatchesSampleBySample) {
  std::string data;
  std::vector<float> expected;
  for (int i = 0; i < 100003; ++i) {
    const uint16_t value = static_cast<uint16_t>(i * 7919);
    data += Le16(value);
    expected.push_back(static_cast<float>(static_cast<int16_t>(value)) / 32768.0f);
  }
  ASSERT_TRUE(Read(Riff({Chunk("fmt ", FmtBody(1, 1, 16000, 16)), Chunk("data", data)}))) << error_;
  EXPECT_EQ(samples_, expected);
}

TEST(WavReader, ReadsFromAnyStreamWithoutKnowingItsSize) {
  std::istringstream in(Riff({Chunk("fmt ", FmtBody(1, 1, 16000, 16)), Chunk("data", S16Samples({0x8000}))}));
  std::vector<float> samples;
  std::string error;
  ASSERT_TRUE(ReadWavMonoFromStream(in, 16000, 0, &samples, &error)) << error;
  EXPECT_EQ(samples, (std::vector<float>{-1.0f}));
}

TEST(WavReader, SizeHintSmallerThanTheStreamDoesNotCutTheData) {
  std::istringstream in(Riff({Chunk("fmt ", FmtBody(1, 1, 16000, 16)), Chunk("data", S16Samples({0x4000, 0x4000}))}));
  std::vector<float> samples;
  std::string error;
  ASSERT_TRUE(ReadWavMonoFromStream(in, 16000, 10, &samples, &error)) << error;
  EXPECT_EQ(samples, (std::vector<float>{0.5f, 0.5f}));
}

TEST(WavReader, BundledRecordingMatchesIndependentReader) {
  const std::string path = testing::AudioPath("espeak/en_short.wav");
  std::vector<float> samples;
  std::string error;
  ASSERT_TRUE(ReadWavMono(path, 16000, &samples, &error)) << error;
  EXPECT_EQ(samples, testing::LoadWavForTest(path));
}

}  // namespace
}  // namespace kerrow::testing
