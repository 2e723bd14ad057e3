// Punctuation never changes a word: "don't" and "it's" keep their
// apostrophes through the punctuation model, in the file result and in the
// live session's results.

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "protocol_live/live_fixtures.h"

namespace kerrow::testing {
namespace {

using std::chrono::seconds;

// "i don't know what it's like but it's fine with me", spoken by espeak-ng.
const char kRecording[] = "espeak/apostrophes.wav";

// The second recognizer that reads this recording back with its apostrophes.
std::vector<std::string> ApostropheRecognizerArgs() {
  return {"--second-model", ModelPath("trained/sensevoice-en-char-v2/model.onnx"),
          "--second-tokens", ModelPath("trained/sensevoice-en-char-v2/tokens.txt"),
          "--num-threads-second", "1"};
}

void ExpectApostrophesKept(const std::string& text) {
  EXPECT_NE(text.find("don't"), std::string::npos) << text;
  EXPECT_NE(text.find("it's like"), std::string::npos) << text;
  EXPECT_EQ(text.find("dont"), std::string::npos) << text;
  EXPECT_EQ(text.find("its "), std::string::npos) << text;
}

TEST(ApostrophePunctuation, FileResultKeepsTheWordsApostrophes) {
  const ProcessResult r = RunKerrow(Concat(
      {"--manual-mode", "--wav-input", AudioPath(kRecording), "--silero-vad-model",
       SileroVadModel(), "--ct-transformer", TrainedPunctuationModel()},
      ApostropheRecognizerArgs()));
  ASSERT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  EXPECT_EQ(r.stderr_text, "");
  const std::vector<std::string> results = ResultLines(r.stdout_lines);
  ASSERT_EQ(results.size(), 1u) << JoinLines(r.stdout_lines);
  // The punctuation model did run: the merged text ends in its full stop.
  const std::string merged = JsonStringField(results[0], "merged_text");
  EXPECT_TRUE(EndsWithMark(merged)) << merged;
  ExpectApostrophesKept(merged);
  ExpectApostrophesKept(JsonTextField(results[0]));
}

TEST(ApostrophePunctuation, LiveResultKeepsTheWordsApostrophes) {
  auto process = StartLive(Concat(
      Concat({"--manual-mode", "--manual-realtime", "--start-paused", "--silero-vad-model",
              SileroVadModel(), "--ct-transformer", TrainedPunctuationModel()},
             TrainedStreamingFirstPassArgs()),
      ApostropheRecognizerArgs()));
  ASSERT_TRUE(StartCaptureAndWait(process.get(), 1));
  ASSERT_TRUE(process->WriteAudioS16(
      Join(LoadWavForTest(AudioPath(kRecording)), SilenceSeconds(1.5))));
  const int result = process->WaitForLine(IsResultLine, seconds(60));
  ASSERT_GE(result, 0) << JoinLines(process->Lines());
  QuitAndExpectCleanEnd(process.get());
  const std::string text = JsonTextField(process->Lines()[result]);
  EXPECT_EQ(JsonIntField(process->Lines()[result], "segment_id"), 1);
  ExpectApostrophesKept(text);
}

TEST(ApostrophePunctuation, PushToTalkResultKeepsTheWordsApostrophes) {
  auto process = StartLive(Concat(
      {"--manual-mode", "--start-paused", "--ct-transformer", TrainedPunctuationModel()},
      ApostropheRecognizerArgs()));
  ASSERT_TRUE(StartCaptureAndWait(process.get(), 1));
  ASSERT_TRUE(process->WriteAudioS16(PadToKeepalive(LoadWavForTest(AudioPath(kRecording)))));
  ASSERT_GE(process->WaitForLine(
                [](const std::string& line) { return line == KeepaliveLine(5); }, seconds(60)),
            0)
      << JoinLines(process->Lines());
  process->WriteCommand("stop");
  const int result = process->WaitForLine(IsResultLine, seconds(60));
  ASSERT_GE(result, 0) << JoinLines(process->Lines());
  QuitAndExpectCleanEnd(process.get());
  ExpectApostrophesKept(JsonTextField(process->Lines()[result]));
}

}  // namespace
}  // namespace kerrow::testing
