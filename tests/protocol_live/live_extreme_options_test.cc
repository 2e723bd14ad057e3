// Durations on the command line far beyond any recording: the sample counts
// derived from them saturate, so the transcript still comes out whole.

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "protocol_live/live_fixtures.h"

namespace kerrow::testing {
namespace {

using std::chrono::seconds;

std::string MergedTextOfFileDecode(const std::vector<std::string>& extra_args) {
  const ProcessResult r = RunKerrow(Concat(
      Concat({"--manual-mode", "--wav-input", AudioPath("espeak/en_short.wav"), "--silero-vad-model",
              SileroVadModel()},
             TrainedSenseVoiceArgs()),
      extra_args));
  EXPECT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  const int result = IndexOfResult(r.stdout_lines);
  EXPECT_GE(result, 0) << JoinLines(r.stdout_lines);
  return result < 0 ? "" : JsonStringField(r.stdout_lines[result], "merged_text");
}

class ExtremeFileOption : public ::testing::TestWithParam<std::vector<std::string>> {};

TEST_P(ExtremeFileOption, FileDecodeStillGivesTheTranscript) {
  const std::string text = MergedTextOfFileDecode(GetParam());
  EXPECT_LT(CharacterErrorRate(kShortReference, PlainWords(text)), 0.3) << text;
}

INSTANTIATE_TEST_SUITE_P(
    LiveExtremeOptions, ExtremeFileOption,
    ::testing::Values(std::vector<std::string>{"--vad-lookahead", "1e15"},
                      std::vector<std::string>{"--vad-lookback", "1e15"},
                      std::vector<std::string>{"--vad-lookahead", "1e300", "--vad-lookback",
                                               "1e300"},
                      std::vector<std::string>{"--vad-max-speech", "1e15"},
                      std::vector<std::string>{"--vad-min-silence", "1e15"}));

TEST(LiveExtremeOptions, ManualRealtimeWithHugeLookbackStillGivesTheTranscript) {
  auto process = StartLive(Concat(ManualRealtimeArgs(), {"--vad-lookback", "1e15"}));
  ASSERT_TRUE(StartCaptureAndWait(process.get(), 1));
  ASSERT_TRUE(process->WriteAudioS16(Join(ShortSpeech(), SilenceSeconds(1.0))));
  const int result = process->WaitForLine(IsResultLine, seconds(60));
  ASSERT_GE(result, 0) << JoinLines(process->Lines());
  QuitAndExpectCleanEnd(process.get());
  const std::string text = JsonTextField(process->Lines()[result]);
  EXPECT_LT(CharacterErrorRate(kShortReference, PlainWords(text)), 0.3) << text;
}

TEST(LiveExtremeOptions, SingleModelStreamingWithHugeWindowSettingsStillCommitsTheSpeech) {
  auto process = StartLive(Concat(SingleModelArgs(), {"--single-trim-keep", "1e15",
                                                      "--single-max-window", "1e15"}));
  ASSERT_TRUE(StartCaptureAndWait(process.get(), 1, {"vad-reset-applied seq=1"}));
  ASSERT_TRUE(process->WriteAudioS16(Join(ShortSpeech(), SilenceSeconds(1.5))));
  const int result = process->WaitForLine(IsResultLine, seconds(60));
  ASSERT_GE(result, 0) << JoinLines(process->Lines());
  QuitAndExpectCleanEnd(process.get());
  std::string committed;
  for (const auto& line : ResultLines(process->Lines())) committed += JsonTextField(line) + " ";
  EXPECT_LT(CharacterErrorRate(kShortReference, PlainWords(committed)), 0.3) << committed;
}

}  // namespace
}  // namespace kerrow::testing
