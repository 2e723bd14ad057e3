// The live session as the host drives it: commands on stdin, raw PCM into the
// audio descriptor, JSON lines back on stdout.

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "protocol_live/live_fixtures.h"

namespace kerrow::testing {
namespace {

using std::chrono::seconds;

// Says "stop" once the PCM thread has counted all five seconds that were
// sent, and returns the index of the result line (below 0 when none came).
int StopAfterFiveSecondsAndWaitForResult(KerrowProcess* process) {
  if (process->WaitForLineContaining("received 5.000000s audio", seconds(60)) < 0) return -1;
  process->WriteCommand("stop");
  return process->WaitForLine(IsResultLine, seconds(60));
}

TEST(LiveSession, ManualModeStopDecodesTheCaptureAsOneSegment) {
  auto process = StartLive(Concat({"--manual-mode", "--start-paused"}, TrainedSenseVoiceArgs()));
  // As a host would: audio sent before the PCM thread has taken up the new
  // capture is dropped as audio of the paused time.
  ASSERT_TRUE(StartCaptureAndWait(process.get(), 1));
  ASSERT_TRUE(process->WriteAudioS16(PadToKeepalive(ShortSpeech())));
  const int result = StopAfterFiveSecondsAndWaitForResult(process.get());
  ASSERT_GE(result, 0) << JoinLines(process->Lines());
  QuitAndExpectCleanEnd(process.get());
  const std::vector<std::string> lines = process->Lines();
  EXPECT_EQ(lines[result - 2],
            LogLine("[SESSION-DIAG] cmd=stop seq=1 captured_samples=80000 total_samples=80000"));
  EXPECT_EQ(lines[result - 1], LogLine("Capture stopped"));
  EXPECT_EQ(lines[result].rfind("{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":"
                                "\"offline_final\",\"segments\":[{\"start_time\":0.00,"
                                "\"end_time\":5.00,\"start_ms\":0,\"end_ms\":5000,\"text\":\"",
                                0),
            0u)
      << lines[result];
  EXPECT_LT(CharacterErrorRate(kShortReference, PlainWords(JsonTextField(lines[result]))), 0.3)
      << lines[result];
  EXPECT_EQ(lines[result + 1], LogLine("Quit requested"));
}

TEST(LiveSession, ManualRealtimePublishesPartialsClosesSegmentsAndBatchesResults) {
  auto process = StartLive(ManualRealtimeArgs());
  ASSERT_TRUE(StartCaptureAndWait(process.get(), 1));
  const std::vector<float> speech = ShortSpeech();
  ASSERT_TRUE(process->PlayAudioS16(
      Join(Join(Join(speech, SilenceSeconds(1.0)), speech), SilenceSeconds(1.0)), 4.0));
  ASSERT_GE(process->WaitForLine(
                [](const std::string& line) {
                  return IsResultLine(line) && JsonIntField(line, "segment_id") == 2;
                },
                seconds(60)),
            0)
      << JoinLines(process->Lines());
  process->WriteCommand("stop");
  ASSERT_GE(process->WaitForLineContaining("Capture stopped", seconds(30)), 0);
  QuitAndExpectCleanEnd(process.get());
  const std::vector<std::string> lines = process->Lines();

  // Every first-pass line of the capture carries id 1 until the first segment
  // closes, then id 2; each result names the segment it re-decoded.
  const std::vector<std::string> results = ResultLines(lines);
  ASSERT_EQ(results.size(), 2u);
  for (long id = 1; id <= 2; ++id) {
    const std::string& result = results[id - 1];
    EXPECT_EQ(JsonIntField(result, "segment_id"), id);
    EXPECT_EQ(JsonIntField(result, "segment_start_id"), id);
    EXPECT_EQ(JsonIntField(result, "segment_count"), 1);
    EXPECT_EQ(JsonIntField(result, "sessionId"), -999) << "no --session-id given";
    EXPECT_LT(CharacterErrorRate(kShortReference, PlainWords(JsonTextField(result))), 0.3)
        << result;
    const int closing = IndexOfMatch(
        lines, "\\{\"message\":\"\\[VAD\\] seg source=stream id=" + std::to_string(id) + " .*");
    ASSERT_GE(closing, 0);
    EXPECT_EQ(lines[closing + 1].rfind("{\"type\":\"punctuated\",\"segment_id\":" +
                                           std::to_string(id) + ",\"text\":\"",
                                       0),
              0u)
        << lines[closing + 1];
    EXPECT_TRUE(IsFirstPassLine(lines[closing + 2])) << lines[closing + 2];
    EXPECT_EQ(JsonIntField(lines[closing + 2], "segment_id"), id);
    EXPECT_EQ(lines[closing + 3], result);
  }
  EXPECT_GE(IndexOfLine(lines, LogLine("[SESSION-DIAG] online-reset-applied seq=1 at=loop-top")), 0);
}

TEST(LiveSession, SessionIdIsCarriedByEveryTranscriptRecord) {
  auto process = StartLive(Concat(ManualRealtimeArgs(), {"--session-id", "7"}));
  ASSERT_TRUE(StartCaptureAndWait(process.get(), 1));
  ASSERT_TRUE(process->WriteAudioS16(Join(ShortSpeech(), SilenceSeconds(1.0))));
  ASSERT_GE(process->WaitForLine(IsResultLine, seconds(60)), 0) << JoinLines(process->Lines());
  QuitAndExpectCleanEnd(process.get());
  int records = 0;
  for (const auto& line : process->Lines()) {
    if (line.rfind("{\"type\":\"first-pass\",", 0) == 0 ||
        line.rfind("{\"type\":\"punctuated\",", 0) == 0) {
      EXPECT_EQ(line.find("\"sessionId\":7,\"segment_id\":"), line.find(',') + 1) << line;
      ++records;
    }
    if (IsResultLine(line)) {
      EXPECT_NE(line.find("\"mode\":\"offline_final\",\"sessionId\":7,\"segment_id\":1,"),
                std::string::npos)
          << line;
      ++records;
    }
  }
  EXPECT_GE(records, 4);
}

TEST(LiveSession, StopInManualRealtimeFlushesTheOpenSegmentAndForcesTheBatch) {
  auto process = StartLive(Concat(ManualRealtimeArgs(), {"--second-pass-every", "4"}));
  ASSERT_TRUE(StartCaptureAndWait(process.get(), 1));
  const std::vector<float> speech = ShortSpeech();
  // Five seconds in all, ending inside speech: the VAD still holds the
  // segment when "stop" arrives.
  const std::vector<float> audio = Join(SilenceSeconds(5.0 - speech.size() / 16000.0), speech);
  ASSERT_TRUE(process->WriteAudioS16(audio));
  const int result = StopAfterFiveSecondsAndWaitForResult(process.get());
  ASSERT_GE(result, 0) << JoinLines(process->Lines());
  QuitAndExpectCleanEnd(process.get());
  const std::vector<std::string> lines = process->Lines();
  const int flushed =
      IndexOfMatch(lines, "\\{\"message\":\"\\[VAD\\] seg source=flush id=1 start=.*");
  ASSERT_GE(flushed, 0) << JoinLines(lines);
  EXPECT_LT(flushed, result);
  EXPECT_EQ(JsonIntField(lines[result], "segment_id"), 1);
  EXPECT_EQ(JsonIntField(lines[result], "segment_count"), 1);
  const std::string text = JsonTextField(lines[result]);
  // The stop-time batch is final, so its text ends in a sentence mark.
  EXPECT_TRUE(EndsWithMark(text)) << text;
  EXPECT_LT(CharacterErrorRate(kShortReference, PlainWords(text)), 0.3) << text;
}

TEST(LiveSession, Offline2passStopRunsTheWholeCapturePipeline) {
  auto process = StartLive(Concat(ManualRealtimeArgs(), {"--offline-2pass"}));
  ASSERT_TRUE(StartCaptureAndWait(process.get(), 1));
  const std::vector<float> speech = ShortSpeech();
  // Audio and "stop" back to back: the stop waits for the pipe to drain. The
  // wait is bounded, and a loaded machine may not read a full pipe (64 KiB,
  // about two seconds) within it, so the capture ends in silence that it may
  // lose without losing words.
  ASSERT_TRUE(process->WriteAudioS16(
      Join(Join(Join(speech, SilenceSeconds(1.0)), speech), SilenceSeconds(2.5))));
  process->WriteCommand("stop");
  const int result = process->WaitForLine(
      [](const std::string& line) {
        return IsResultLine(line) && line.find("\"offline_2pass\":true") != std::string::npos;
      },
      seconds(60));
  ASSERT_GE(result, 0) << JoinLines(process->Lines());
  QuitAndExpectCleanEnd(process.get());
  const std::vector<std::string> lines = process->Lines();
  EXPECT_EQ(lines[result].rfind("{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":"
                                "\"offline_final\",\"is_final\":true,\"offline_2pass\":true,"
                                "\"segments\":[",
                                0),
            0u)
      << lines[result];
  EXPECT_LT(CharacterErrorRate(kShortReference + " " + kShortReference,
                               PlainWords(JsonStringField(lines[result], "merged_text"))),
            0.3)
      << lines[result];
  const int drained = IndexOfLine(lines, LogLine("offline_2pass stop drain finished by quiet window/timeout"));
  ASSERT_GE(drained, 0);
  EXPECT_EQ(lines[drained + 1], LogLine("Capture stopped"));
}

TEST(LiveSession, SingleModelStreamingPublishesPartialsAndCommitsRealText) {
  auto process = StartLive(SingleModelArgs());
  ASSERT_TRUE(StartCaptureAndWait(process.get(), 1, {"vad-reset-applied seq=1"}));
  ASSERT_TRUE(process->PlayAudioS16(Join(ShortSpeech(), SilenceSeconds(1.5)), 4.0));
  const int result = process->WaitForLine(IsResultLine, seconds(60));
  ASSERT_GE(result, 0) << JoinLines(process->Lines());
  process->WriteCommand("stop");
  ASSERT_GE(process->WaitForLineContaining("Capture stopped", seconds(30)), 0);
  QuitAndExpectCleanEnd(process.get());
  const std::vector<std::string> lines = process->Lines();
  int partials = 0;
  for (int i = 0; i < result; ++i) {
    if (!IsFirstPassLine(lines[i])) continue;
    ++partials;
    EXPECT_EQ(JsonIntField(lines[i], "segment_id"), 1) << lines[i];
  }
  EXPECT_GE(partials, 2);
  std::string committed;
  for (const auto& line : ResultLines(lines)) committed += JsonTextField(line) + " ";
  EXPECT_LT(CharacterErrorRate(kShortReference, PlainWords(committed)), 0.3) << committed;
  EXPECT_EQ(JsonIntField(lines[result], "segment_id"), 1);
}

TEST(LiveSession, StartStopStartRestartsIdsAndAppliesResetsBetweenChunks) {
  auto process = StartLive(ManualRealtimeArgs());
  const std::vector<float> utterance = Join(ShortSpeech(), SilenceSeconds(1.0));
  for (int capture = 1; capture <= 2; ++capture) {
    SCOPED_TRACE(capture);
    const size_t from = process->Lines().size();
    ASSERT_TRUE(StartCaptureAndWait(process.get(), capture,
                                    {"online-reset-applied seq=" + std::to_string(capture)}));
    ASSERT_TRUE(process->WriteAudioS16(utterance));
    const int result = process->WaitForLine(IsResultLine, seconds(60), from);
    ASSERT_GE(result, 0) << JoinLines(process->Lines());
    EXPECT_EQ(JsonIntField(process->Lines()[result], "segment_id"), 1);
    process->WriteCommand("stop");
    ASSERT_GE(process->WaitForLineContaining("Capture stopped", seconds(30), from), 0);
  }
  QuitAndExpectCleanEnd(process.get());
  const std::vector<std::string> lines = process->Lines();
  EXPECT_GE(IndexOfMatch(lines, "\\{\"message\":\"\\[SESSION-DIAG\\] cmd=start seq=2 "
                                "prev_total_samples=\\d+ prev_captured_samples=\\d+ "
                                "reset_applied_seq=1\",\"type\":\"log\"\\}"),
            0)
      << JoinLines(lines);
  EXPECT_EQ(ResultLines(lines).size(), 2u);
}

TEST(LiveSession, QuitDuringACaptureEndsTheRunWithoutDecoding) {
  auto process = StartLive(Concat({"--manual-mode"}, TrainedSenseVoiceArgs()));
  // The keepalive count must see every sample, so none may go to the drop of
  // a half-read chunk that "start" makes.
  ASSERT_TRUE(StartCaptureAndWait(process.get(), 1));
  ASSERT_TRUE(process->WriteAudioS16(PadToKeepalive(ShortSpeech())));
  ASSERT_GE(process->WaitForLineContaining("received 5.000000s audio", seconds(60)), 0);
  // The audio pipe stays open: "quit" alone ends the session.
  QuitAndExpectCleanEnd(process.get());
  const std::vector<std::string> lines = process->Lines();
  EXPECT_TRUE(ResultLines(lines).empty());
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[lines.size() - 2], LogLine("Quit requested"));
}

TEST(LiveSession, EndOfStdinDoesNotEndTheRunButClosingThePipeDoes) {
  auto process = StartLive(Concat({"--manual-mode"}, TrainedSenseVoiceArgs()));
  process->CloseStdin();
  ASSERT_TRUE(process->WriteAudioS16(SilenceSeconds(10.0)));
  // Audio is still read after stdin has ended.
  ASSERT_GE(process->WaitForLineContaining("received 10.000000s audio", seconds(60)), 0);
  process->CloseAudio();
  EXPECT_EQ(process->Wait(seconds(60)), 0);
  const std::vector<std::string> lines = process->Lines();
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines[lines.size() - 3], KeepaliveLine(10));
  EXPECT_EQ(lines[lines.size() - 2], LogLine("PCM pipe closed"));
  EXPECT_EQ(lines.back(), CompleteLine("Session ended (partial M2)"));
}

TEST(LiveSession, AudioPipeReadErrorEndsTheRunWithTheErrorEvent) {
  // Descriptor 200 is not open in the child: every read of it fails.
  auto process =
      StartLive(Concat({"--manual-mode", "--audio-fd", "200"}, TrainedSenseVoiceArgs()), -1);
  EXPECT_EQ(process->Wait(seconds(60)), 0);
  const std::vector<std::string> lines = process->Lines();
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines[lines.size() - 3], ReadyLine());
  EXPECT_EQ(lines[lines.size() - 2], ErrorLine("PCM pipe read failed"));
  EXPECT_EQ(lines.back(), CompleteLine("Session ended (partial M2)"));
}

TEST(LiveSession, AudioArrivesOnTheDescriptorNamedByAudioFdInF32le) {
  auto process = StartLive(Concat({"--manual-mode", "--start-paused", "--audio-fd", "5",
                                   "--audio-format", "f32le"},
                                  TrainedSenseVoiceArgs()),
                           5);
  ASSERT_TRUE(StartCaptureAndWait(process.get(), 1));
  ASSERT_TRUE(process->WriteAudioF32(PadToKeepalive(ShortSpeech())));
  const int result = StopAfterFiveSecondsAndWaitForResult(process.get());
  ASSERT_GE(result, 0) << JoinLines(process->Lines());
  QuitAndExpectCleanEnd(process.get());
  EXPECT_LT(CharacterErrorRate(kShortReference, PlainWords(JsonTextField(process->Lines()[result]))),
            0.3);
}

}  // namespace
}  // namespace kerrow::testing
