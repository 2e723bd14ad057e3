// The helper-process backend against small fake helpers: shell scripts that
// play one side of the line protocol each, the way a real helper would, so
// that every handshake variant, reply shape and way of dying is exercised
// against the real pipes, fork/exec and shutdown code.

#include "diarization/fluid_audio_subprocess_backend.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <string>
#include <vector>

#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {


// Writes an executable /bin/sh script into dir and returns its path.
std::string WriteHelperScript(const TempDir& dir, const std::string& name,
                              const std::string& body) {
  const std::string path = dir.File(name);
  WriteFileBytes(path, "#!/bin/sh\n" + body);
  ::chmod(path.c_str(), 0755);
  return path;
}

// A helper that says READY and then answers every request with `reply`
// (printf format), recording its argv, each request line and a copy of the
// WAV it was sent.
std::string WriteAnsweringHelper(const TempDir& dir, const std::string& reply) {
  return WriteHelperScript(
      dir, "answering-helper",
      "echo \"$@\" > '" + dir.File("argv") + "'\n" +
          "echo READY\n"
          "while IFS= read -r line; do\n"
          "  printf '%s\\n' \"$line\" >> '" + dir.File("requests") + "'\n" +
          "  wav=${line#'{\"input\":\"'}; wav=${wav%'\"}'}\n"
          "  cp \"$wav\" '" + dir.File("request.wav") + "'\n" +
          "  printf '" + reply + "'\n" +
          "done\n");
}

DiarizationInitOptions HelperOptions(const std::string& helper) {
  DiarizationInitOptions options;
  options.helper_binary = helper;
  options.model = "/models/diarization";
  return options;
}

constexpr double kTwoPi = 6.283185307179586;

std::vector<float> OneSecondOfTone() {
  std::vector<float> samples(16000);
  for (size_t i = 0; i < samples.size(); ++i) {
    samples[i] = 0.5f * static_cast<float>(std::sin(kTwoPi * 440.0 * static_cast<double>(i) / 16000.0));
  }
  return samples;
}

bool ProcessIsGone(pid_t pid) { return ::kill(pid, 0) != 0 && errno == ESRCH; }

pid_t ReadPid(const TempDir& dir) { return std::stoi(ReadFileBytes(dir.File("pid"))); }

bool FileExists(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0;
}

TEST(FluidAudioSubprocessBackend, InitRefusesAnEmptyHelperPath) {
  FluidAudioSubprocessBackend backend;
  std::string error;
  EXPECT_FALSE(backend.Init(HelperOptions(""), &error));
  EXPECT_EQ(error,
            "diarization helper_binary is empty (macOS requires --diarization-helper-binary)");
  EXPECT_FALSE(backend.IsReady());
}

TEST(FluidAudioSubprocessBackend, InitRefusesAnEmptyModelDirectory) {
  TempDir dir;
  DiarizationInitOptions options = HelperOptions(WriteHelperScript(dir, "h", "echo READY\n"));
  options.model.clear();
  FluidAudioSubprocessBackend backend;
  std::string error;
  EXPECT_FALSE(backend.Init(options, &error));
  EXPECT_EQ(error, "diarization model_dir is empty");
}

TEST(FluidAudioSubprocessBackend, InitRefusesAHelperWithoutExecutePermission) {
  TempDir dir;
  const std::string helper = WriteHelperScript(dir, "h", "echo READY\n");
  ::chmod(helper.c_str(), 0644);
  FluidAudioSubprocessBackend backend;
  std::string error;
  EXPECT_FALSE(backend.Init(HelperOptions(helper), &error));
  EXPECT_EQ(error, "diarization helper not executable: " + helper + " (Permission denied)");
}

TEST(FluidAudioSubprocessBackend, InitRefusesAMissingHelper) {
  TempDir dir;
  FluidAudioSubprocessBackend backend;
  std::string error;
  EXPECT_FALSE(backend.Init(HelperOptions(dir.File("absent")), &error));
  EXPECT_EQ(error, "diarization helper not executable: " + dir.File("absent") +
                       " (No such file or directory)");
}

TEST(FluidAudioSubprocessBackend, StartsTheHelperResidentWithModelAndBackend) {
  TempDir dir;
  FluidAudioSubprocessBackend backend;
  std::string error;
  ASSERT_TRUE(backend.Init(HelperOptions(WriteAnsweringHelper(dir, "DONE\\n")), &error)) << error;
  EXPECT_TRUE(backend.IsReady());
  EXPECT_EQ(ReadFileBytes(dir.File("argv")), "--resident --model /models/diarization --backend offline\n");
}

TEST(FluidAudioSubprocessBackend, LeavesOutTheBackendArgumentWhenItsNameIsEmpty) {
  TempDir dir;
  DiarizationInitOptions options = HelperOptions(WriteAnsweringHelper(dir, "DONE\\n"));
  options.backend.clear();
  FluidAudioSubprocessBackend backend;
  ASSERT_TRUE(backend.Init(options, nullptr));
  EXPECT_EQ(ReadFileBytes(dir.File("argv")), "--resident --model /models/diarization\n");
}

TEST(FluidAudioSubprocessBackend, AcceptsReadyEndedByCarriageReturnAndLineFeed) {
  TempDir dir;
  FluidAudioSubprocessBackend backend;
  std::string error;
  ASSERT_TRUE(backend.Init(
      HelperOptions(WriteHelperScript(dir, "h", "printf 'READY\\r\\n'\nwhile read l; do :; done\n")),
      &error))
      << error;
  EXPECT_TRUE(backend.IsReady());
}

TEST(FluidAudioSubprocessBackend, RefusesAProgressLineBeforeReady) {
  TempDir dir;
  FluidAudioSubprocessBackend backend;
  std::string error;
  EXPECT_FALSE(backend.Init(
      HelperOptions(WriteHelperScript(dir, "h", "echo 'Loading models 50%'\necho READY 2>/dev/null\n")), &error));
  EXPECT_EQ(error, "expected READY from diarization helper, got: Loading models 50%");
  EXPECT_FALSE(backend.IsReady());
}

TEST(FluidAudioSubprocessBackend, RefusesReadyWithATrailingBlank) {
  TempDir dir;
  FluidAudioSubprocessBackend backend;
  std::string error;
  EXPECT_FALSE(backend.Init(HelperOptions(WriteHelperScript(dir, "h", "echo 'READY '\n")), &error));
  EXPECT_EQ(error, "expected READY from diarization helper, got: READY ");
}

TEST(FluidAudioSubprocessBackend, FailsWhenTheHelperExitsBeforeReady) {
  TempDir dir;
  FluidAudioSubprocessBackend backend;
  std::string error;
  EXPECT_FALSE(backend.Init(HelperOptions(WriteHelperScript(dir, "h", "exit 3\n")), &error));
  EXPECT_EQ(error, "diarization helper exited before READY");
  EXPECT_FALSE(backend.IsReady());
}

TEST(FluidAudioSubprocessBackend, TreatsAnEndlessFirstLineAsNoReady) {
  TempDir dir;
  FluidAudioSubprocessBackend backend;
  std::string error;
  EXPECT_FALSE(backend.Init(
      HelperOptions(WriteHelperScript(dir, "h", "head -c 70000 /dev/zero | tr '\\0' x\necho\n")),
      &error));
  EXPECT_EQ(error, "diarization helper exited before READY");
}

TEST(FluidAudioSubprocessBackend, WritesTheExecFailureLineToStandardErrorAndFailsInit) {
  TempDir dir;
  // Executable, but neither a binary nor a script with an interpreter line.
  const std::string helper = dir.File("not-a-program");
  WriteFileBytes(helper, std::string("\x7f\x01\x02garbage", 10));
  ::chmod(helper.c_str(), 0755);
  FluidAudioSubprocessBackend backend;
  std::string error;
  ::testing::internal::CaptureStderr();
  const bool ok = backend.Init(HelperOptions(helper), &error);
  const std::string stderr_text = ::testing::internal::GetCapturedStderr();
  EXPECT_FALSE(ok);
  EXPECT_EQ(error, "diarization helper exited before READY");
  EXPECT_EQ(stderr_text, "execv " + helper + " failed: Exec format error\n");
}

TEST(FluidAudioSubprocessBackend, MapsReplyLabelsInOrderAndDropsTurnsThatEndBeforeTheyStart) {
  TempDir dir;
  FluidAudioSubprocessBackend backend;
  ASSERT_TRUE(backend.Init(
      HelperOptions(WriteAnsweringHelper(
          dir, "0.5\\t1.2\\tA\\n1.0\\t0.9\\tB\\n2\\t3\\tB\\n3\\t4\\tA\\nDONE\\n")),
      nullptr));
  std::vector<DiarizationSegment> turns;
  std::string error;
  ASSERT_TRUE(backend.Process(OneSecondOfTone(), 16000, &turns, &error)) << error;
  ASSERT_EQ(turns.size(), 3u);
  EXPECT_DOUBLE_EQ(turns[0].start, 0.5);
  EXPECT_DOUBLE_EQ(turns[0].end, 1.2);
  EXPECT_EQ(turns[0].speaker, "SPEAKER_00");
  EXPECT_DOUBLE_EQ(turns[1].start, 2.0);
  EXPECT_DOUBLE_EQ(turns[1].end, 3.0);
  EXPECT_EQ(turns[1].speaker, "SPEAKER_01");
  EXPECT_DOUBLE_EQ(turns[2].start, 3.0);
  EXPECT_DOUBLE_EQ(turns[2].end, 4.0);
  EXPECT_EQ(turns[2].speaker, "SPEAKER_00");
  EXPECT_TRUE(backend.IsReady());
}

TEST(FluidAudioSubprocessBackend, SkipsMalformedReplyLinesAndSortsTurnsByStart) {
  TempDir dir;
  FluidAudioSubprocessBackend backend;
  ASSERT_TRUE(backend.Init(
      HelperOptions(WriteAnsweringHelper(dir,
                                         "\\nprogress 80%%\\n1.0\\t2.0\\nx\\t2\\tA\\n1\\ty\\tA\\n"
                                         "5\\t6\\tA\\n3s\\t4.5s\\tB b\\tc\\n\\nDONE\\n")),
      nullptr));
  std::vector<DiarizationSegment> turns;
  std::string error;
  ASSERT_TRUE(backend.Process(OneSecondOfTone(), 16000, &turns, &error)) << error;
  ASSERT_EQ(turns.size(), 2u);
  EXPECT_DOUBLE_EQ(turns[0].start, 3.0);
  EXPECT_DOUBLE_EQ(turns[0].end, 4.5);
  EXPECT_EQ(turns[0].speaker, "SPEAKER_01");
  EXPECT_DOUBLE_EQ(turns[1].start, 5.0);
  EXPECT_EQ(turns[1].speaker, "SPEAKER_00");
}

TEST(FluidAudioSubprocessBackend, NumbersLabelsAfreshForEveryRequest) {
  TempDir dir;
  FluidAudioSubprocessBackend backend;
  ASSERT_TRUE(backend.Init(HelperOptions(WriteAnsweringHelper(dir, "0\\t1\\tZ\\nDONE\\n")), nullptr));
  std::vector<DiarizationSegment> turns;
  ASSERT_TRUE(backend.Process(OneSecondOfTone(), 16000, &turns, nullptr));
  ASSERT_TRUE(backend.Process(OneSecondOfTone(), 16000, &turns, nullptr));
  ASSERT_EQ(turns.size(), 1u);
  EXPECT_EQ(turns[0].speaker, "SPEAKER_00");
}

TEST(FluidAudioSubprocessBackend, SendsTheAudioAsAFloatWavNamedInOneRequestLine) {
  TempDir dir;
  FluidAudioSubprocessBackend backend;
  ASSERT_TRUE(backend.Init(HelperOptions(WriteAnsweringHelper(dir, "DONE\\n")), nullptr));
  const std::vector<float> samples = OneSecondOfTone();
  std::vector<DiarizationSegment> turns;
  std::string error;
  ASSERT_TRUE(backend.Process(samples, 16000, &turns, &error)) << error;
  EXPECT_TRUE(turns.empty());

  // {"input":"/tmp/fluiddiar-XXXXXX.wav"} and a newline, XXXXXX from mkstemp.
  const std::string request = ReadFileBytes(dir.File("requests"));
  const std::string prefix = "{\"input\":\"";
  const std::string suffix = ".wav\"}\n";
  ASSERT_EQ(request.size(), prefix.size() + std::string("/tmp/fluiddiar-XXXXXX").size() + suffix.size())
      << request;
  EXPECT_EQ(request.substr(0, prefix.size() + 15), prefix + "/tmp/fluiddiar-") << request;
  EXPECT_EQ(request.substr(request.size() - suffix.size()), suffix) << request;
  const std::string reserved_name = request.substr(prefix.size(), 21);
  // Both the WAV and the name reserved for it are gone once the reply is in.
  EXPECT_FALSE(FileExists(reserved_name + ".wav"));
  EXPECT_FALSE(FileExists(reserved_name));

  const std::string wav = ReadFileBytes(dir.File("request.wav"));
  ASSERT_EQ(wav.size(), 44u + 4u * samples.size());
  EXPECT_EQ(wav.substr(20, 2), std::string("\x03\x00", 2)) << "IEEE float format tag";
  const std::vector<float> sent = LoadWavForTest(dir.File("request.wav"));
  EXPECT_EQ(sent, samples);
}

TEST(FluidAudioSubprocessBackend, EmptyAudioSucceedsWithoutContactingTheHelper) {
  TempDir dir;
  {
    FluidAudioSubprocessBackend backend;
    ASSERT_TRUE(backend.Init(HelperOptions(WriteAnsweringHelper(dir, "0\\t1\\tA\\nDONE\\n")), nullptr));
    std::vector<DiarizationSegment> turns = {{0.0, 1.0, "stale"}};
    std::string error;
    EXPECT_TRUE(backend.Process({}, 16000, &turns, &error)) << error;
    EXPECT_TRUE(turns.empty());
  }
  // The helper has been shut down, so any request it received is on record.
  EXPECT_FALSE(FileExists(dir.File("requests")));
}

TEST(FluidAudioSubprocessBackend, ProcessBeforeInitIsNotReady) {
  FluidAudioSubprocessBackend backend;
  std::vector<DiarizationSegment> turns;
  std::string error;
  EXPECT_FALSE(backend.Process(OneSecondOfTone(), 16000, &turns, &error));
  EXPECT_EQ(error, "diarization backend not ready");
}

TEST(FluidAudioSubprocessBackend, ProcessRefusesANullOutput) {
  FluidAudioSubprocessBackend backend;
  std::string error;
  EXPECT_FALSE(backend.Process(OneSecondOfTone(), 16000, nullptr, &error));
  EXPECT_EQ(error, "out is null");
}

TEST(FluidAudioSubprocessBackend, AHelperThatDiesMidRequestFailsThatRequestAndLeavesTheBackendNotReady) {
  TempDir dir;
  FluidAudioSubprocessBackend backend;
  ASSERT_TRUE(backend.Init(
      HelperOptions(WriteHelperScript(dir, "h", "echo READY\nread line\nprintf '0\\t1\\tA\\n'\nexit 1\n")),
      nullptr));
  std::vector<DiarizationSegment> turns;
  std::string error;
  EXPECT_FALSE(backend.Process(OneSecondOfTone(), 16000, &turns, &error));
  EXPECT_EQ(error, "diarization helper closed stdout before DONE");
  EXPECT_TRUE(turns.empty()) << "the turn sent before dying is not kept";
  EXPECT_FALSE(backend.IsReady());

  EXPECT_FALSE(backend.Process(OneSecondOfTone(), 16000, &turns, &error));
  EXPECT_EQ(error, "diarization backend not ready");
  EXPECT_TRUE(turns.empty());
}

TEST(FluidAudioSubprocessBackend, AHelperThatNoLongerReadsFailsTheWriteAndLeavesTheBackendNotReady) {
  TempDir dir;
  // The helper closes its only copy of the request pipe, so our write meets a
  // pipe without a reader.
  FluidAudioSubprocessBackend backend;
  ASSERT_TRUE(backend.Init(
      HelperOptions(WriteHelperScript(dir, "h", "exec 0<&-\necho READY\nexec sleep 30\n")), nullptr));
  std::vector<DiarizationSegment> turns;
  std::string error;
  EXPECT_FALSE(backend.Process(OneSecondOfTone(), 16000, &turns, &error));
  EXPECT_EQ(error, "write to helper failed: Broken pipe");
  EXPECT_FALSE(backend.IsReady());
}

TEST(FluidAudioSubprocessBackend, AHelperThatLeavesOnClosedInputIsNotSignalled) {
  TempDir dir;
  const std::string helper = WriteHelperScript(
      dir, "h",
      "trap 'echo TERM >> \"" + dir.File("signals") + "\"' TERM\n" +
          "echo $$ > '" + dir.File("pid") + "'\n" +
          "echo READY\n"
          "while read line; do :; done\n");
  {
    FluidAudioSubprocessBackend backend;
    ASSERT_TRUE(backend.Init(HelperOptions(helper), nullptr));
  }
  EXPECT_TRUE(ProcessIsGone(ReadPid(dir)));
  EXPECT_FALSE(FileExists(dir.File("signals")));
}

TEST(FluidAudioSubprocessBackend, ShutdownEscalatesToSigkillForAHelperThatIgnoresClosedInputAndSigterm) {
  TempDir dir;
  const std::string helper = WriteHelperScript(
      dir, "h",
      "trap 'echo TERM >> \"" + dir.File("signals") + "\"' TERM\n" +
          "echo $$ > '" + dir.File("pid") + "'\n" +
          "echo READY\n"
          "exec 0</dev/null\n"
          "while :; do sleep 0.1; done\n");
  {
    FluidAudioSubprocessBackend backend;
    ASSERT_TRUE(backend.Init(HelperOptions(helper), nullptr));
  }
  // Destruction returned, so the helper was reaped; it saw SIGTERM and
  // outlived it, so only SIGKILL can have ended it.
  EXPECT_TRUE(ProcessIsGone(ReadPid(dir)));
  EXPECT_EQ(ReadFileBytes(dir.File("signals")).substr(0, 5), "TERM\n");
}

TEST(FluidAudioSubprocessBackend, InitAgainShutsTheFirstHelperDown) {
  TempDir first_dir;
  TempDir second_dir;
  const auto write_helper = [](const TempDir& dir) {
    return WriteHelperScript(dir, "h",
                             "echo $$ > '" + dir.File("pid") + "'\necho READY\nwhile read l; do :; done\n");
  };
  FluidAudioSubprocessBackend backend;
  ASSERT_TRUE(backend.Init(HelperOptions(write_helper(first_dir)), nullptr));
  const pid_t first = ReadPid(first_dir);
  ASSERT_TRUE(backend.Init(HelperOptions(write_helper(second_dir)), nullptr));
  EXPECT_TRUE(ProcessIsGone(first));
  EXPECT_TRUE(backend.IsReady());
}

TEST(FluidAudioSubprocessBackend, AFailedInitAfterASuccessfulOneLeavesItNotReady) {
  TempDir dir;
  FluidAudioSubprocessBackend backend;
  ASSERT_TRUE(backend.Init(HelperOptions(WriteAnsweringHelper(dir, "DONE\\n")), nullptr));
  EXPECT_FALSE(backend.Init(HelperOptions(""), nullptr));
  EXPECT_FALSE(backend.IsReady());
}

TEST(MakeFluidAudioDiarizationBackend, ReturnsAnUninitialisedHelperBackend) {
  const std::unique_ptr<DiarizationBackend> backend = MakeFluidAudioDiarizationBackend();
  ASSERT_NE(backend, nullptr);
  EXPECT_FALSE(backend->IsReady());
}

}  // namespace
}  // namespace kerrow::testing
