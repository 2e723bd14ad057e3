// The realtime second pass decodes each segment with the audio just before it,
// as the whole-file decode pads each group: the same recording gives the same
// first words live and from a file.

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "protocol_live/live_fixtures.h"

namespace kerrow::testing {
namespace {

using std::chrono::seconds;

std::string FirstWords(const std::string& text, int count) {
  const std::string plain = PlainWords(text);
  size_t end = 0;
  for (int i = 0; i < count && end != std::string::npos; ++i) {
    end = plain.find(' ', end == 0 ? 0 : end + 1);
  }
  return end == std::string::npos ? plain : plain.substr(0, end);
}

std::string FileTranscript(const std::string& wav) {
  const ProcessResult r = RunKerrow(
      Concat({"--manual-mode", "--wav-input", wav, "--silero-vad-model", SileroVadModel(), "--ct-transformer",
              TrainedPunctuationModel()},
             TrainedSenseVoiceArgs()));
  EXPECT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  const int result = IndexOfResult(r.stdout_lines);
  return result < 0 ? "" : JsonStringField(r.stdout_lines[result], "merged_text");
}

// The capture's realtime results, joined in order, once "stop" has forced
// the last batch out.
std::string LiveTranscript(const std::string& wav) {
  auto process = StartLive(ManualRealtimeArgs());
  EXPECT_TRUE(StartCaptureAndWait(process.get(), 1));
  EXPECT_TRUE(process->WriteAudioS16(Join(LoadWavForTest(wav), SilenceSeconds(1.5))));
  EXPECT_GE(process->WaitForLine(IsResultLine, seconds(60)), 0) << JoinLines(process->Lines());
  process->WriteCommand("stop");
  EXPECT_GE(process->WaitForLineContaining("Capture stopped", seconds(30)), 0);
  QuitAndExpectCleanEnd(process.get());
  std::string text;
  for (const auto& line : ResultLines(process->Lines())) text += JsonTextField(line) + " ";
  return text;
}

class LiveLookback : public ::testing::TestWithParam<const char*> {};

TEST_P(LiveLookback, FirstWordsOfTheLiveResultMatchTheFileDecode) {
  const std::string wav = AudioPath(GetParam());
  const std::string file = FileTranscript(wav);
  const std::string live = LiveTranscript(wav);
  ASSERT_FALSE(PlainWords(file).empty());
  EXPECT_EQ(FirstWords(live, 2), FirstWords(file, 2)) << "live: " << live << "\nfile: " << file;
}

INSTANTIATE_TEST_SUITE_P(BundledRecordings, LiveLookback,
                         ::testing::Values("espeak/en_short.wav", "espeak/en10s.wav",
                                           "espeak-dialog/a_test.wav",
                                           "espeak-dialog/b_test.wav"));

}  // namespace
}  // namespace kerrow::testing
