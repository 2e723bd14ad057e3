// One live capture holding several utterances, recognised by the trained
// streaming model: each utterance's partials and punctuated text are its own.

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "protocol_live/live_fixtures.h"

namespace kerrow::testing {
namespace {

using std::chrono::seconds;

bool IsResultForSegment(const std::string& line, long segment_id) {
  return IsResultLine(line) && JsonIntField(line, "segment_id") == segment_id;
}

// Runs one capture of `audio` in manual realtime with the trained models and
// returns every line, once the result of `last_segment` is out.
std::vector<std::string> RunTrainedCapture(const std::vector<float>& audio, long last_segment) {
  auto process = StartLive(TrainedManualRealtimeArgs());
  EXPECT_TRUE(StartCaptureAndWait(process.get(), 1, {"online-reset-applied seq=1"}));
  EXPECT_TRUE(process->WriteAudioS16(audio));
  EXPECT_GE(process->WaitForLine(
                [last_segment](const std::string& line) {
                  return IsResultForSegment(line, last_segment);
                },
                seconds(120)),
            0)
      << JoinLines(process->Lines());
  QuitAndExpectCleanEnd(process.get());
  return process->Lines();
}

TEST(LiveUtterance, TwoUtterancesOfOneCaptureGetFirstPassTextsOfTheirOwn) {
  const std::vector<std::string> lines = RunTrainedCapture(
      Join(Join(Join(ShortSpeech(), SilenceSeconds(1.0)), LongSpeech()), SilenceSeconds(1.0)),
      /*last_segment=*/2);
  // The second recording has pauses the VAD may cut at: its segments are 2 and on.
  const std::string first = LastTextForSegment(lines, "first-pass", 1);
  const std::string second = LastTextForSegment(lines, "first-pass", 2);
  ASSERT_FALSE(first.empty()) << JoinLines(lines);
  ASSERT_FALSE(second.empty()) << JoinLines(lines);
  EXPECT_EQ(second.find(first), std::string::npos) << first << " | " << second;
  EXPECT_EQ(first.find(second), std::string::npos) << first << " | " << second;
  EXPECT_LT(CharacterErrorRate(kShortReference, PlainWords(first)), 0.3) << first;
  EXPECT_EQ(PlainWords(second).rfind("the quick", 0), 0u) << second;

  const std::string punctuated = LastTextForSegment(lines, "punctuated", 2);
  EXPECT_EQ(PlainWords(punctuated).find("hello"), std::string::npos) << punctuated;
  EXPECT_EQ(PlainWords(punctuated).rfind("the quick", 0), 0u) << punctuated;
}

TEST(LiveUtterance, PartialsOfALongCaptureStayAsLongAsOneUtterance) {
  constexpr int kUtterances = 6;
  std::vector<float> audio;
  for (int i = 0; i < kUtterances; ++i) {
    audio = Join(Join(audio, ShortSpeech()), SilenceSeconds(1.0));
  }
  const std::vector<std::string> lines = RunTrainedCapture(audio, kUtterances);
  int partials = 0;
  for (const auto& line : lines) {
    if (!IsFirstPassLine(line) && line.rfind("{\"type\":\"punctuated\"", 0) != 0) continue;
    ++partials;
    // One utterance is 57 characters; a partial that kept earlier utterances
    // would be a multiple of that.
    EXPECT_LE(JsonTextField(line).size(), 90u) << line;
  }
  EXPECT_GE(partials, 2 * kUtterances);
  for (long id = 1; id <= kUtterances; ++id) {
    const std::string closing = LastTextForSegment(lines, "first-pass", id);
    EXPECT_LT(CharacterErrorRate(kShortReference, PlainWords(closing)), 0.3)
        << "segment " << id << ": " << closing;
  }
}

// The road of one utterance as the host sees it, on real text: partials that
// grow with the speech, the punctuated form of the last one, the closing
// first-pass event, then the realtime second pass naming that segment.
TEST(LiveUtterance, OneUtteranceTravelsBothPassesOnRealText) {
  const std::vector<std::string> lines =
      RunTrainedCapture(Join(ShortSpeech(), SilenceSeconds(1.0)), /*last_segment=*/1);
  const int closing = IndexOfMatch(lines, "\\{\"message\":\"\\[VAD\\] seg source=stream id=1 .*");
  ASSERT_GE(closing, 0) << JoinLines(lines);

  std::vector<std::string> partials;
  for (int i = 0; i < closing; ++i) {
    if (IsFirstPassLine(lines[i])) partials.push_back(JsonTextField(lines[i]));
  }
  ASSERT_GE(partials.size(), 3u) << JoinLines(lines);
  for (size_t i = 1; i < partials.size(); ++i) {
    EXPECT_GE(partials[i].size(), partials[i - 1].size()) << partials[i - 1] << " -> " << partials[i];
  }
  EXPECT_EQ(PlainWords(partials.front()).rfind("hel", 0), 0u) << partials.front();
  EXPECT_LT(CharacterErrorRate(kShortReference, PlainWords(partials.back())), 0.3)
      << partials.back();

  ASSERT_LT(closing + 3, static_cast<int>(lines.size()));
  const std::string& punctuated = lines[closing + 1];
  EXPECT_EQ(punctuated.rfind("{\"type\":\"punctuated\",\"segment_id\":1,\"text\":\"", 0), 0u)
      << punctuated;
  EXPECT_LT(CharacterErrorRate(kShortReference, PlainWords(JsonTextField(punctuated))), 0.3)
      << punctuated;
  EXPECT_NE(JsonTextField(punctuated), PlainWords(JsonTextField(punctuated))) << "no marks added";
  EXPECT_TRUE(IsFirstPassLine(lines[closing + 2])) << lines[closing + 2];
  EXPECT_EQ(JsonIntField(lines[closing + 2], "segment_id"), 1);
  const std::string& result = lines[closing + 3];
  ASSERT_TRUE(IsResultForSegment(result, 1)) << result;
  EXPECT_EQ(JsonIntField(result, "segment_count"), 1);
  EXPECT_LT(CharacterErrorRate(kShortReference, PlainWords(JsonTextField(result))), 0.3)
      << result;
}

}  // namespace
}  // namespace kerrow::testing
