// Single-model streaming over whole bundled recordings: committed results end
// on word boundaries and the end of speech commits as soon as the VAD says so.

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "protocol_live/live_fixtures.h"

namespace kerrow::testing {
namespace {

using std::chrono::seconds;

// Every line of one single-model capture of `audio`, after "stop".
std::vector<std::string> SingleModelCapture(const std::vector<float>& audio) {
  auto process = StartLive(SingleModelArgs());
  EXPECT_TRUE(StartCaptureAndWait(process.get(), 1, {"vad-reset-applied seq=1"}));
  const std::vector<float> padded = PadToKeepalive(Join(audio, SilenceSeconds(1.5)));
  EXPECT_TRUE(process->WriteAudioS16(padded));
  const std::string all_read =
      "received " + std::to_string(padded.size() / 16000) + ".000000s audio";
  EXPECT_GE(process->WaitForLineContaining(all_read, seconds(120)), 0);
  process->WriteCommand("stop");
  EXPECT_GE(process->WaitForLineContaining("Capture stopped", seconds(30)), 0);
  QuitAndExpectCleanEnd(process.get());
  return process->Lines();
}

bool IsLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '\''; }

class SingleModelRecording : public ::testing::TestWithParam<const char*> {};

// A rolling commit takes the head of the window's latest decode, which the
// partial just before it shows whole: the committed text is a prefix of that
// partial, and the partial must not go on with more letters of the same word.
TEST_P(SingleModelRecording, NoCommittedResultEndsInsideAWord) {
  const std::vector<std::string> lines =
      SingleModelCapture(LoadWavForTest(AudioPath(GetParam())));
  std::string partial;
  int judged = 0;
  int results = 0;
  for (const auto& line : lines) {
    if (IsFirstPassLine(line)) partial = JsonTextField(line);
    if (!IsResultLine(line)) continue;
    ++results;
    const std::string committed = JsonTextField(line);
    if (committed.empty() || partial.compare(0, committed.size(), committed) != 0) continue;
    ++judged;
    if (partial.size() > committed.size()) {
      EXPECT_FALSE(IsLetter(committed.back()) && IsLetter(partial[committed.size()]))
          << "committed \"" << committed << "\" out of the partial \"" << partial << "\"";
    }
  }
  EXPECT_GE(results, 2);
  // The recordings are long enough for the rolling commit to cut them.
  EXPECT_GE(judged, 1);
}

// The VAD lowers its speech flag once its own minimum silence (0.5 s) has
// passed; that is the end of the utterance. The recording ends in 0.39 s of
// silence; with 0.45 s more (about 0.8 s in all) and no audio after it, the
// result must come out: a second wait of a minimum silence after the flag
// drop would hold it until more audio came.
TEST(SingleModelEndOfSpeech, CommitsWhenTheVadSpeechFlagDrops) {
  auto process = StartLive(Concat(SingleModelArgs(), {"--single-trim-cap", "0"}));
  ASSERT_TRUE(StartCaptureAndWait(process.get(), 1, {"vad-reset-applied seq=1"}));
  ASSERT_TRUE(process->WriteAudioS16(Join(ShortSpeech(), SilenceSeconds(0.45))));
  const int result = process->WaitForLine(IsResultLine, seconds(60));
  ASSERT_GE(result, 0) << JoinLines(process->Lines());
  QuitAndExpectCleanEnd(process.get());
  const std::vector<std::string> lines = process->Lines();
  EXPECT_EQ(ResultLines(lines).size(), 1u);
  EXPECT_EQ(JsonIntField(lines[result], "segment_id"), 1);
  EXPECT_LT(CharacterErrorRate(kShortReference, PlainWords(JsonTextField(lines[result]))), 0.3)
      << lines[result];
}

INSTANTIATE_TEST_SUITE_P(BundledRecordings, SingleModelRecording,
                         ::testing::Values("espeak/en10s.wav",
                                           "espeak-dialog/heldout-2voices-a.wav",
                                           "espeak-dialog/heldout-3voices-a.wav"));

}  // namespace
}  // namespace kerrow::testing
