// Whole-file input that is not a plain file on disk, or too large for the memory
// the host allows: kerrow --wav-input / --pcm-input (and --register-input) as a
// child process, asserting the exact event stream and exit status.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "support/fifo_feeder.h"
#include "support/protocol_fixtures.h"
#include "support/timing_mask.h"

namespace kerrow::testing {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KERROW_SANITIZED_BUILD 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KERROW_SANITIZED_BUILD 1
#endif
#endif

// A sanitizer maps terabytes of shadow memory at start-up, so a kerrow built
// with one (the sanitizer runs build the tests and the binary alike) cannot
// start under an address-space limit at all.
#ifdef KERROW_SANITIZED_BUILD
constexpr bool kAddressSpaceLimitsWork = false;
#else
constexpr bool kAddressSpaceLimitsWork = true;
#endif

// Comfortably above what kerrow needs with the pattern model loaded, far below
// the samples of the large files below.
constexpr unsigned long long kAddressSpaceLimit = 768ull << 20;

std::vector<std::string> PatternStubArgs() {
  return {"--second-model", PatternSenseVoiceModel(), "--second-tokens", PatternSenseVoiceTokens(),
          "--num-threads-second", "1"};
}

std::vector<std::string> TrainedWithVadArgs() {
  return Concat(TrainedSenseVoiceArgs(),
                {"--ct-transformer", TrainedPunctuationModel(), "--silero-vad-model", SileroVadModel()});
}

ProcessResult RunToEnd(const std::vector<std::string>& args, unsigned long long address_space_limit = 0) {
  KerrowProcess::Config config;
  config.args = args;
  config.audio_fd = -1;
  config.address_space_limit_bytes = address_space_limit;
  KerrowProcess process(config);
  ProcessResult result;
  std::string error;
  if (!process.Start(&error)) {
    ADD_FAILURE() << error;
    return result;
  }
  process.CloseStdin();
  result.exit_status = process.Wait(std::chrono::seconds(120));
  result.stdout_lines = process.Lines();
  result.stderr_text = process.Stderr();
  return result;
}

// The RIFF header and fmt chunk of a 16 kHz mono 16-bit file whose data chunk
// declares data_bytes; the data itself follows separately.
std::string WavHeaderDeclaring(uint32_t data_bytes) {
  std::string header = WavBytes({});
  header.replace(header.size() - 4, 4, std::string{static_cast<char>(data_bytes & 0xFF),
                                                    static_cast<char>((data_bytes >> 8) & 0xFF),
                                                    static_cast<char>((data_bytes >> 16) & 0xFF),
                                                    static_cast<char>(data_bytes >> 24)});
  return header;
}

// A file of the given size that occupies no disk: all but head is a hole of zeros.
void WriteSparseFile(const std::string& path, const std::string& head, off_t size) {
  WriteFileBytes(path, head);
  ASSERT_EQ(truncate(path.c_str(), size), 0) << path;
}

void ExpectOutOfMemoryFailure(const ProcessResult& r, const std::string& message) {
  EXPECT_EQ(r.exit_status, 1) << JoinLines(r.stdout_lines);
  ASSERT_EQ(r.stdout_lines.size(), 5u) << JoinLines(r.stdout_lines);
  EXPECT_EQ(r.stdout_lines[2], ReadyLine());
  EXPECT_EQ(r.stdout_lines[3], ErrorLine(message));
  EXPECT_EQ(r.stdout_lines[4], CompleteLine("File decode failed"));
  EXPECT_EQ(r.stderr_text, "");
}

TEST(FileInputStream, WavThroughAFifoDecodesLikeTheFile) {
  const std::string wav = AudioPath("espeak/en10s.wav");
  const ProcessResult from_file = RunToEnd(Concat({"--manual-mode", "--wav-input", wav}, TrainedWithVadArgs()));
  ASSERT_EQ(from_file.exit_status, 0) << JoinLines(from_file.stdout_lines);
  ASSERT_GE(IndexOfResult(from_file.stdout_lines), 0) << JoinLines(from_file.stdout_lines);

  TempDir dir;
  const std::string fifo = dir.File("input.wav");
  ProcessResult from_fifo;
  {
    FifoFeeder feeder(fifo, ReadFileBytes(wav));
    from_fifo = RunToEnd(Concat({"--manual-mode", "--wav-input", fifo}, TrainedWithVadArgs()));
  }
  EXPECT_EQ(from_fifo.exit_status, 0) << JoinLines(from_fifo.stdout_lines);
  EXPECT_EQ(MaskTimings(from_fifo.stdout_lines), MaskTimings(from_file.stdout_lines));
  EXPECT_EQ(from_fifo.stderr_text, "");
}

TEST(FileInputStream, PcmThroughAFifoDecodesLikeTheFile) {
  TempDir dir;
  const std::string pcm_bytes = S16leBytes(LoadWavForTest(AudioPath("format-checks/1s.wav")));
  WriteFileBytes(dir.File("input.pcm"), pcm_bytes);
  const ProcessResult from_file =
      RunToEnd(Concat({"--manual-mode", "--pcm-input", dir.File("input.pcm")}, PatternStubArgs()));
  ASSERT_EQ(from_file.exit_status, 0) << JoinLines(from_file.stdout_lines);

  const std::string fifo = dir.File("input.fifo");
  ProcessResult from_fifo;
  {
    FifoFeeder feeder(fifo, pcm_bytes);
    from_fifo = RunToEnd(Concat({"--manual-mode", "--pcm-input", fifo}, PatternStubArgs()));
  }
  EXPECT_EQ(from_fifo.exit_status, 0) << JoinLines(from_fifo.stdout_lines);
  const int result = IndexOfResult(from_fifo.stdout_lines);
  ASSERT_GE(result, 0) << JoinLines(from_fifo.stdout_lines);
  EXPECT_EQ(from_fifo.stdout_lines[result], from_file.stdout_lines[IndexOfResult(from_file.stdout_lines)]);
  EXPECT_EQ(from_fifo.stdout_lines.back(), CompleteLine("PCM decode done"));
}

TEST(FileInputStream, WavLargerThanTheMemoryLimitIsAnErrorEvent) {
  if (!kAddressSpaceLimitsWork) GTEST_SKIP() << "a sanitized kerrow cannot run under an address-space limit";
  TempDir dir;
  const uint32_t data_bytes = 1u << 30;  // half a gigasample: 2 GiB as floats
  const std::string path = dir.File("large.wav");
  WriteSparseFile(path, WavHeaderDeclaring(data_bytes), 44 + static_cast<off_t>(data_bytes));
  const ProcessResult r =
      RunToEnd(Concat({"--manual-mode", "--wav-input", path}, PatternStubArgs()), kAddressSpaceLimit);
  ExpectOutOfMemoryFailure(r, "Out of memory reading WAV data");
}

TEST(FileInputStream, PcmLargerThanTheMemoryLimitIsAnErrorEvent) {
  if (!kAddressSpaceLimitsWork) GTEST_SKIP() << "a sanitized kerrow cannot run under an address-space limit";
  TempDir dir;
  const std::string path = dir.File("large.pcm");
  WriteSparseFile(path, "", 1ll << 30);
  const ProcessResult r =
      RunToEnd(Concat({"--manual-mode", "--pcm-input", path}, PatternStubArgs()), kAddressSpaceLimit);
  ExpectOutOfMemoryFailure(r, "Out of memory reading PCM file: " + path);
}

TEST(FileInputStream, EndlessWavThroughAFifoUnderAMemoryLimitIsAnErrorEvent) {
  if (!kAddressSpaceLimitsWork) GTEST_SKIP() << "a sanitized kerrow cannot run under an address-space limit";
  TempDir dir;
  const std::string fifo = dir.File("endless.wav");
  ProcessResult r;
  {
    // Streaming writers declare 0xFFFFFFFF; the zeros go on until kerrow stops reading.
    FifoFeeder feeder(fifo, WavHeaderDeclaring(0xFFFFFFFFu), 1ull << 40);
    r = RunToEnd(Concat({"--manual-mode", "--wav-input", fifo}, PatternStubArgs()), kAddressSpaceLimit);
  }
  ExpectOutOfMemoryFailure(r, "Out of memory reading WAV data");
}

TEST(FileInputStream, RecordingToRegisterLargerThanTheMemoryLimitIsAnErrorEvent) {
  if (!kAddressSpaceLimitsWork) GTEST_SKIP() << "a sanitized kerrow cannot run under an address-space limit";
  TempDir dir;
  const std::string path = dir.File("large.wav");
  WriteSparseFile(path, WavHeaderDeclaring(1u << 30), 44 + (1ll << 30));
  const ProcessResult r = RunToEnd({"--register-name", "Large", "--register-input", path,
                                    "--speaker-embedding-model", ModelPath("trained/speaker-embedding/model.onnx"),
                                    "--speaker-enroll-db", dir.File("speakers.db")},
                                   kAddressSpaceLimit);
  EXPECT_EQ(r.exit_status, 1);
  EXPECT_EQ(r.stdout_lines, std::vector<std::string>{ErrorLine("Out of memory")});
  EXPECT_EQ(r.stderr_text, "");
  EXPECT_FALSE(std::filesystem::exists(dir.File("speakers.db")));
}

}  // namespace
}  // namespace kerrow::testing
