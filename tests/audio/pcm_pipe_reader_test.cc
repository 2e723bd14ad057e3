#include "audio/pcm_pipe_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "audio/wav_bytes.h"

namespace kerrow::testing {
namespace {

// A real pipe, as the host provides on the audio descriptor.
class Pipe {
 public:
  Pipe() { EXPECT_EQ(pipe(fds_), 0); }
  ~Pipe() {
    CloseWrite();
    close(fds_[0]);
  }
  int read_fd() const { return fds_[0]; }
  void Write(const std::string& bytes) {
    ASSERT_EQ(write(fds_[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  void CloseWrite() {
    if (fds_[1] >= 0) close(fds_[1]);
    fds_[1] = -1;
  }

 private:
  int fds_[2] = {-1, -1};
};

std::string Float32Bytes(const std::vector<float>& values) {
  std::string bytes(values.size() * 4, '\0');
  std::memcpy(&bytes[0], values.data(), bytes.size());
  return bytes;
}

TEST(PcmPipeReader, OddByteAfterFullChunkIsDroppedAtEndOfStream) {
  Pipe pipe;
  pipe.Write(std::string(3201, '\0'));
  pipe.CloseWrite();
  PcmPipeReader reader(pipe.read_fd(), AudioFormat::s16le);
  std::vector<float> out;
  bool eof = true;
  ASSERT_TRUE(reader.ReadChunk(1600, &out, &eof));
  EXPECT_EQ(out.size(), 1600u);
  EXPECT_FALSE(eof);
  ASSERT_TRUE(reader.ReadChunk(1600, &out, &eof));
  EXPECT_EQ(out.size(), 0u);
  EXPECT_TRUE(eof);
}

TEST(PcmPipeReader, LastShortChunkIsDeliveredBeforeEndOfStream) {
  Pipe pipe;
  pipe.Write(std::string(3201, '\0'));
  pipe.CloseWrite();
  PcmPipeReader reader(pipe.read_fd(), AudioFormat::s16le);
  std::vector<float> out;
  bool eof = true;
  ASSERT_TRUE(reader.ReadChunk(1000, &out, &eof));
  EXPECT_EQ(out.size(), 1000u);
  EXPECT_FALSE(eof);
  ASSERT_TRUE(reader.ReadChunk(1000, &out, &eof));
  EXPECT_EQ(out.size(), 600u);
  EXPECT_FALSE(eof);
  ASSERT_TRUE(reader.ReadChunk(1000, &out, &eof));
  EXPECT_EQ(out.size(), 0u);
  EXPECT_TRUE(eof);
}

TEST(PcmPipeReader, EndOfStreamStaysReported) {
  Pipe pipe;
  pipe.CloseWrite();
  PcmPipeReader reader(pipe.read_fd(), AudioFormat::s16le);
  std::vector<float> out = {1.0f};
  bool eof = false;
  ASSERT_TRUE(reader.ReadChunk(160, &out, &eof));
  EXPECT_TRUE(eof);
  EXPECT_TRUE(out.empty());
  eof = false;
  ASSERT_TRUE(reader.ReadChunk(160, &out, &eof));
  EXPECT_TRUE(eof);
}

TEST(PcmPipeReader, RequestForZeroSamplesReturnsExactlyOne) {
  Pipe pipe;
  pipe.Write(testing::S16Samples({0x4000, 0xC000, 0x2000}));
  PcmPipeReader reader(pipe.read_fd(), AudioFormat::s16le);
  std::vector<float> out;
  bool eof = true;
  ASSERT_TRUE(reader.ReadChunk(0, &out, &eof));
  EXPECT_EQ(out, (std::vector<float>{0.5f}));
  EXPECT_FALSE(eof);
  ASSERT_TRUE(reader.ReadChunk(2, &out, &eof));
  EXPECT_EQ(out, (std::vector<float>{-0.5f, 0.25f}));
}

TEST(PcmPipeReader, F32leSixBytesGiveOneSampleThenEndOfStream) {
  Pipe pipe;
  pipe.Write(Float32Bytes({0.75f}) + "\x01\x02");
  pipe.CloseWrite();
  PcmPipeReader reader(pipe.read_fd(), AudioFormat::f32le);
  std::vector<float> out;
  bool eof = true;
  ASSERT_TRUE(reader.ReadChunk(1600, &out, &eof));
  EXPECT_EQ(out, (std::vector<float>{0.75f}));
  EXPECT_FALSE(eof);
  ASSERT_TRUE(reader.ReadChunk(1600, &out, &eof));
  EXPECT_TRUE(out.empty());
  EXPECT_TRUE(eof);
}

TEST(PcmPipeReader, ChunksSpanningSeveralWritesAreJoined) {
  Pipe pipe;
  PcmPipeReader reader(pipe.read_fd(), AudioFormat::s16le);
  std::thread writer([&pipe] {
    // One sample split across two writes, as a pipe may deliver it.
    pipe.Write(std::string("\x00", 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    pipe.Write(std::string("\x40\x00\xC0", 3));
  });
  std::vector<float> out;
  bool eof = true;
  ASSERT_TRUE(reader.ReadChunk(2, &out, &eof));
  writer.join();
  EXPECT_EQ(out, (std::vector<float>{0.5f, -0.5f}));
  EXPECT_FALSE(eof);
}

std::atomic<int> g_interruptions{0};
void CountInterruption(int) { ++g_interruptions; }

TEST(PcmPipeReader, ReadInterruptedBySignalDoesNotEndTheStream) {
  // Without SA_RESTART a signal makes the blocked read fail with EINTR.
  struct sigaction action {};
  action.sa_handler = CountInterruption;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;
  struct sigaction previous {};
  ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
  g_interruptions = 0;

  Pipe pipe;
  const pthread_t reading_thread = pthread_self();
  std::thread interrupter([&pipe, reading_thread] {
    for (int i = 0; i < 5; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      pthread_kill(reading_thread, SIGUSR1);
    }
    while (g_interruptions < 5) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    pipe.Write(testing::S16Samples({0x4000, 0xC000}));
    pipe.CloseWrite();
  });
  PcmPipeReader reader(pipe.read_fd(), AudioFormat::s16le);
  std::vector<float> out;
  bool eof = true;
  const bool ok = reader.ReadChunk(2, &out, &eof);
  interrupter.join();
  sigaction(SIGUSR1, &previous, nullptr);

  ASSERT_TRUE(ok);
  EXPECT_EQ(out, (std::vector<float>{0.5f, -0.5f}));
  EXPECT_FALSE(eof);
  EXPECT_EQ(g_interruptions, 5);
}

TEST(PcmPipeReader, ClearPendingDropsPartialSampleAndNextChunkStartsFresh) {
  Pipe pipe;
  pipe.Write(testing::S16Samples({0x4000}) + "\x11");
  PcmPipeReader reader(pipe.read_fd(), AudioFormat::s16le);
  std::vector<float> out;
  bool eof = true;
  ASSERT_TRUE(reader.ReadChunk(1, &out, &eof));
  EXPECT_EQ(out, (std::vector<float>{0.5f}));
  EXPECT_EQ(reader.ClearPending(), 1u);
  EXPECT_EQ(reader.ClearPending(), 0u);
  pipe.Write(testing::S16Samples({0xC000}));
  ASSERT_TRUE(reader.ReadChunk(1, &out, &eof));
  EXPECT_EQ(out, (std::vector<float>{-0.5f}));
  EXPECT_FALSE(eof);
}

// The PCM loop reads a non-blocking descriptor so that it never hangs while the
// host pauses its audio: a chunk still on its way is "nothing yet", not an error.
TEST(PcmPipeReader, NonBlockingChunkNotYetCompleteGivesNothingAndKeepsTheBytes) {
  Pipe pipe;
  ASSERT_EQ(fcntl(pipe.read_fd(), F_SETFL, fcntl(pipe.read_fd(), F_GETFL) | O_NONBLOCK), 0);
  PcmPipeReader reader(pipe.read_fd(), AudioFormat::s16le);
  std::vector<float> out{0.5f};
  bool eof = true;

  ASSERT_TRUE(reader.ReadChunk(4, &out, &eof));
  EXPECT_TRUE(out.empty());
  EXPECT_FALSE(eof);

  pipe.Write(std::string("\x00\x80\xff\x7f\x00", 5));
  ASSERT_TRUE(reader.ReadChunk(4, &out, &eof));
  EXPECT_TRUE(out.empty());
  EXPECT_FALSE(eof);

  pipe.Write(std::string("\x00\x00\x00", 3));
  ASSERT_TRUE(reader.ReadChunk(4, &out, &eof));
  EXPECT_EQ(out, (std::vector<float>{-1.0f, 32767.0f / 32768.0f, 0.0f, 0.0f}));
  EXPECT_FALSE(eof);
}

TEST(PcmPipeReader, ReadErrorFailsAndLeavesOutputUntouched) {
  const int directory = open("/", O_RDONLY);
  ASSERT_GE(directory, 0);
  PcmPipeReader reader(directory, AudioFormat::s16le);
  std::vector<float> out = {0.125f};
  bool eof = true;
  EXPECT_FALSE(reader.ReadChunk(10, &out, &eof));
  EXPECT_EQ(out, (std::vector<float>{0.125f}));
  close(directory);
}

TEST(PcmPipeReader, NullArgumentsFailWithoutReading) {
  Pipe pipe;
  pipe.Write(testing::S16Samples({0x4000}));
  PcmPipeReader reader(pipe.read_fd(), AudioFormat::s16le);
  bool eof = false;
  std::vector<float> out;
  EXPECT_FALSE(reader.ReadChunk(1, nullptr, &eof));
  EXPECT_FALSE(reader.ReadChunk(1, &out, nullptr));
  ASSERT_TRUE(reader.ReadChunk(1, &out, &eof));
  EXPECT_EQ(out, (std::vector<float>{0.5f}));
}

TEST(PcmPipeReader, BytesToFloat32ConvertsBothFormats) {
  const std::string s16 = testing::S16Samples({0x8000, 0x7FFF}) + "\x01";
  std::vector<float> out = {9.0f};
  PcmPipeReader::BytesToFloat32(reinterpret_cast<const uint8_t*>(s16.data()), s16.size(),
                                AudioFormat::s16le, &out);
  EXPECT_EQ(out, (std::vector<float>{-1.0f, 0.999969482421875f}));

  const std::string f32 = Float32Bytes({2.5f, -7.0f}) + "\x01\x02\x03";
  PcmPipeReader::BytesToFloat32(reinterpret_cast<const uint8_t*>(f32.data()), f32.size(),
                                AudioFormat::f32le, &out);
  EXPECT_EQ(out, (std::vector<float>{2.5f, -7.0f}));

  PcmPipeReader::BytesToFloat32(nullptr, 8, AudioFormat::f32le, &out);
  EXPECT_TRUE(out.empty());
}

}  // namespace
}  // namespace kerrow::testing
