// The child-process driver is what every process-level test stands on, so its
// own behaviour is checked here against ordinary system programs.

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/json_fields.h"
#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {

using std::chrono::seconds;

TEST(HostDriver, RunCollectsStdoutLinesStderrAndExitStatus) {
  const ProcessResult result =
      RunKerrow({"-c", "printf 'one\\ntwo\\n'; printf 'oops' >&2; exit 7"}, "", -1, "", seconds(20),
                "", "/bin/sh");
  EXPECT_EQ(result.exit_status, 7);
  EXPECT_EQ(result.stdout_lines, (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(result.stderr_text, "oops");
}

TEST(HostDriver, UnterminatedLastLineIsStillALine) {
  const ProcessResult result =
      RunKerrow({"-c", "printf 'a\\nb'"}, "", -1, "", seconds(20), "", "/bin/sh");
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.stdout_lines, (std::vector<std::string>{"a", "b"}));
}

TEST(HostDriver, StdinTextReachesChildAndIsClosed) {
  const ProcessResult result = RunKerrow({}, "start\nstop\n", -1, "", seconds(20), "", "/bin/cat");
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.stdout_lines, (std::vector<std::string>{"start", "stop"}));
}

TEST(HostDriver, AudioBytesArriveOnDescriptorThree) {
  // wc counts what arrives on fd 3 and only finishes when the driver closes it.
  const std::string audio(100000, 'x');
  const ProcessResult result =
      RunKerrow({"-c", "wc -c <&3"}, "", 3, audio, seconds(20), "", "/bin/sh");
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.stdout_lines, (std::vector<std::string>{"100000"}));
}

TEST(HostDriver, AudioOnHighDescriptorNumber) {
  const ProcessResult result =
      RunKerrow({"-c", "wc -c <&9"}, "", 9, "abcdef", seconds(20), "", "/bin/sh");
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.stdout_lines, (std::vector<std::string>{"6"}));
}

TEST(HostDriver, ChildSeesNoDescriptorsBeyondItsStreams) {
  // With the audio pipe on 3, fd 4 and above must be closed in the child.
  const ProcessResult result = RunKerrow(
      {"-c", "for fd in 4 5 6 7 8 9; do (: <&$fd) 2>/dev/null && echo open $fd; done; echo done"},
      "", 3, "", seconds(20), "", "/bin/sh");
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.stdout_lines, (std::vector<std::string>{"done"}));
}

TEST(HostDriver, WorkingDirectoryIsApplied) {
  TempDir dir;
  const ProcessResult result = RunKerrow({"-c", "pwd -P"}, "", -1, "", seconds(20), dir.path(), "/bin/sh");
  char resolved[4096];
  ASSERT_NE(realpath(dir.path().c_str(), resolved), nullptr);
  EXPECT_EQ(result.stdout_lines, (std::vector<std::string>{resolved}));
}

TEST(HostDriver, TimeoutKillsChildAndReportsMinusOne) {
  const ProcessResult result =
      RunKerrow({"-c", "echo started; exec sleep 60"}, "", -1, "", std::chrono::milliseconds(300), "",
                "/bin/sh");
  EXPECT_EQ(result.exit_status, -1);
  EXPECT_EQ(result.stdout_lines, (std::vector<std::string>{"started"}));
}

TEST(HostDriver, SignalDeathReportsOneHundredTwentyEightPlusSignal) {
  const ProcessResult result = RunKerrow({"-c", "kill -TERM $$"}, "", -1, "", seconds(20), "", "/bin/sh");
  EXPECT_EQ(result.exit_status, 128 + 15);
}

TEST(HostDriver, MissingBinaryFailsToStartWithMessage) {
  KerrowProcess::Config config;
  config.binary = "/nonexistent/kerrow";
  KerrowProcess process(config);
  std::string error;
  EXPECT_FALSE(process.Start(&error));
  EXPECT_EQ(error, "cannot start /nonexistent/kerrow: No such file or directory");
}

TEST(HostDriver, LiveProcessEchoesCommandsAndWaitsForLines) {
  KerrowProcess::Config config;
  config.binary = "/bin/cat";
  config.audio_fd = -1;
  KerrowProcess process(config);
  std::string error;
  ASSERT_TRUE(process.Start(&error)) << error;
  ASSERT_TRUE(process.WriteCommand("start"));
  EXPECT_EQ(process.WaitForLineContaining("start", seconds(20)), 0);
  ASSERT_TRUE(process.WriteCommand("quit"));
  EXPECT_EQ(process.WaitForLine([](const std::string& l) { return l == "quit"; }, seconds(20)), 1);
  EXPECT_EQ(process.WaitForLineContaining("start", std::chrono::milliseconds(100), 1), -1);
  process.CloseStdin();
  EXPECT_EQ(process.Wait(seconds(20)), 0);
  EXPECT_EQ(process.Lines(), (std::vector<std::string>{"start", "quit"}));
}

TEST(HostDriver, WaitForLineGivesUpWhenStdoutEnds) {
  KerrowProcess::Config config;
  config.binary = "/bin/true";
  config.audio_fd = -1;
  KerrowProcess process(config);
  std::string error;
  ASSERT_TRUE(process.Start(&error)) << error;
  EXPECT_EQ(process.WaitForLineContaining("never", seconds(60)), -1);
  EXPECT_EQ(process.Wait(seconds(20)), 0);
}

TEST(HostDriver, PlayedS16AudioRoundTripsThroughThePipe) {
  KerrowProcess::Config config;
  config.binary = "/bin/sh";
  config.args = {"-c", "od -An -v -tx1 <&3 | tr -s ' \\n' ' '"};
  KerrowProcess process(config);
  std::string error;
  ASSERT_TRUE(process.Start(&error)) << error;
  ASSERT_TRUE(process.PlayAudioS16({-1.0f, 0.999969482421875f, 0.0f}, 0.0, 2));
  process.CloseAudio();
  process.CloseStdin();
  EXPECT_EQ(process.Wait(seconds(20)), 0);
  EXPECT_EQ(process.Lines(), (std::vector<std::string>{" 00 80 ff 7f 00 00 "}));
}

TEST(HostDriver, WritingToExitedChildFailsInsteadOfKillingTheHost) {
  KerrowProcess::Config config;
  config.binary = "/bin/true";
  KerrowProcess process(config);
  std::string error;
  ASSERT_TRUE(process.Start(&error)) << error;
  EXPECT_EQ(process.Wait(seconds(20)), 0);
  EXPECT_FALSE(process.WriteAudioBytes(std::string(200000, 'x')));
  EXPECT_FALSE(process.WriteCommand("start"));
}

TEST(HostDriver, DestructorKillsRunningChild) {
  pid_t pid = -1;
  {
    KerrowProcess::Config config;
    config.binary = "/bin/sleep";
    config.args = {"60"};
    KerrowProcess process(config);
    std::string error;
    ASSERT_TRUE(process.Start(&error)) << error;
    pid = process.pid();
  }
  EXPECT_EQ(kill(pid, 0), -1);  // reaped: no such process any more
}

TEST(TestHelpers, JsonStringFieldReadsTopLevelStringsOnly) {
  const std::string line =
      R"({"type":"result","nested":{"merged_text":"inner"},"merged_text":"a \"b\"\n\u00e9","n":3})";
  EXPECT_EQ(JsonStringField(line, "merged_text"), "a \"b\"\n\xC3\xA9");
  EXPECT_EQ(JsonStringField(line, "type"), "result");
  EXPECT_EQ(JsonStringField(line, "n"), "");
  EXPECT_EQ(JsonStringField(line, "missing"), "");
}

TEST(TestHelpers, CharacterErrorRateCountsEditsOverReferenceLength) {
  EXPECT_DOUBLE_EQ(CharacterErrorRate("abcd", "abcd"), 0.0);
  EXPECT_DOUBLE_EQ(CharacterErrorRate("abcd", "abxd"), 0.25);
  EXPECT_DOUBLE_EQ(CharacterErrorRate("abcd", "abcde"), 0.25);
  EXPECT_DOUBLE_EQ(CharacterErrorRate("abcd", ""), 1.0);
}

TEST(TestHelpers, LoadWavForTestReadsBundledRecording) {
  const std::vector<float> samples = LoadWavForTest(AudioPath("espeak/en_short.wav"));
  EXPECT_GT(samples.size(), 16000u / 2);
}

}  // namespace
}  // namespace kerrow::testing
