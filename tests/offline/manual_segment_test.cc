#include "offline/manual_segment.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "audio/audio_buffer.h"
#include "events/event_emitter.h"
#include "offline/pipeline_fixtures.h"
#include "support/json_fields.h"
#include "support/stdout_capture.h"

namespace kerrow::testing {
namespace {


struct ManualRun {
  bool ok = false;
  std::vector<std::string> lines;
  bool stop_flush_after = false;
  size_t samples_left = 0;
};

// Runs one manual-segment decode over samples with the stop-flush request
// raised, as the command thread does on "stop".
ManualRun RunManual(const Options& options, OfflineDecoderBackend* decoder, PuncBackend* punc,
                    std::vector<float> samples) {
  EventEmitter emitter;
  AudioBuffer audio;
  audio.samples = std::move(samples);
  std::atomic<bool> pending_stop_flush{true};
  ManualRun run;
  StdoutCapture capture;
  run.ok = DecodeAndEmitManualSegment(options, decoder, punc, &emitter, &audio, &pending_stop_flush);
  run.lines = capture.Stop();
  run.stop_flush_after = pending_stop_flush.load();
  run.samples_left = audio.samples.size();
  return run;
}

TEST(ManualSegment, NoAudioLogsAndLeavesStopFlushAlone) {
  const ManualRun run = RunManual(Options(), TrainedSenseVoice(), nullptr, {});
  EXPECT_TRUE(run.ok);
  EXPECT_EQ(run.lines, std::vector<std::string>{
                           R"({"message":"No audio captured in this segment","type":"log"})"});
  EXPECT_TRUE(run.stop_flush_after);
}

TEST(ManualSegment, Under50MillisecondsIsSkippedAsTooShort) {
  const ManualRun run = RunManual(Options(), PatternSenseVoice(), nullptr,
                                  std::vector<float>(799, 0.0f));
  EXPECT_TRUE(run.ok);
  EXPECT_EQ(run.lines, std::vector<std::string>{
                           R"({"message":"Recording too short, skipping decode","type":"log"})"});
  EXPECT_EQ(run.samples_left, 0u);  // taken out of the buffer all the same
  EXPECT_TRUE(run.stop_flush_after);
}

TEST(ManualSegment, Exactly50MillisecondsIsDecoded) {
  const ManualRun run = RunManual(Options(), PatternSenseVoice(), nullptr,
                                  std::vector<float>(800, 0.0f));
  EXPECT_TRUE(run.ok);
  ASSERT_EQ(run.lines.size(), 1u);
  EXPECT_EQ(run.lines[0].find("Recording too short"), std::string::npos) << run.lines[0];
}

TEST(ManualSegment, SilenceLogsEmptyTextAndEmitsNothing) {
  const ManualRun run = RunManual(Options(), TrainedSenseVoice(), TrainedPunc(),
                                  ReadRecording("format-checks/sil.wav"));
  EXPECT_TRUE(run.ok);
  EXPECT_EQ(run.lines,
            std::vector<std::string>{
                R"({"message":"Second-pass decode finished with empty text","type":"log"})"});
  EXPECT_TRUE(run.stop_flush_after);
}

TEST(ManualSegment, SpeechIsEmittedAsOneResultAndClearsStopFlush) {
  Options options;
  options.session_id = 2;
  const ManualRun run = RunManual(options, TrainedSenseVoice(), TrainedPunc(),
                                  ReadRecording("espeak/en_short.wav"));
  EXPECT_TRUE(run.ok);
  ASSERT_EQ(run.lines.size(), 1u);
  const std::string& line = run.lines[0];
  EXPECT_EQ(line.rfind(R"({"type":"result","stage":"second-pass","mode":"offline_final",)"
                       R"("sessionId":2,"segments":[{"start_time":0.00,"end_time":4.32,)"
                       R"("start_ms":0,"end_ms":4321,"text":")",
                       0),
            0u)
      << line;
  // A manual segment is neither final nor a whole-file result.
  EXPECT_EQ(line.find("is_final"), std::string::npos);
  EXPECT_EQ(line.find("offline_2pass"), std::string::npos);
  EXPECT_EQ(line.find("merged_text"), std::string::npos);
  const std::vector<ParsedSegment> segments = ParseSegments(line);
  ASSERT_EQ(segments.size(), 1u);
  EXPECT_LT(NormalisedCharacterErrorRate(ReadTextFile(AudioPath("espeak/en_short.txt")), segments[0].text),
            0.3)
      << segments[0].text;
  // Punctuated inside, but a text that may still grow shows no closing mark.
  const std::string& text = segments[0].text;
  EXPECT_TRUE(text.find("，") != std::string::npos || text.find("。") != std::string::npos)
      << text;
  EXPECT_NE(text.substr(text.size() - 3), "。") << text;
  EXPECT_FALSE(run.stop_flush_after);
  EXPECT_EQ(run.samples_left, 0u);
}

TEST(ManualSegment, DecodeFailureEmitsErrorAndKeepsStopFlush) {
  OfflineDecoderBackend not_loaded;
  const ManualRun run =
      RunManual(Options(), &not_loaded, nullptr, std::vector<float>(kSampleRate, 0.0f));
  EXPECT_FALSE(run.ok);
  EXPECT_EQ(run.lines,
            std::vector<std::string>{
                R"({"message":"Second-pass decode failed: Decoder is not initialized","type":"error"})"});
  EXPECT_TRUE(run.stop_flush_after);
}

TEST(ManualSegment, MissingDecoderFailsLikeAnUnloadedOne) {
  const ManualRun run =
      RunManual(Options(), nullptr, nullptr, std::vector<float>(kSampleRate, 0.0f));
  EXPECT_FALSE(run.ok);
  EXPECT_EQ(run.lines,
            std::vector<std::string>{
                R"({"message":"Second-pass decode failed: Decoder is not initialized","type":"error"})"});
}

// The library cuts Whisper input at 29.5 s; a longer capture is decoded in
// pieces of at most 29 s, and the result holds the text of every piece.
TEST(ManualSegment, WhisperCaptureOf40SecondsGivesTheTextOfBothPieces) {
  Options options;
  options.second_type = "whisper";
  const ManualRun run = RunManual(options, StubWhisper(), nullptr,
                                  std::vector<float>(40 * kSampleRate, 0.0f));
  EXPECT_TRUE(run.ok);
  // Each piece plays the stub's script; a growing (not final) text loses its
  // last full stop only.
  EXPECT_EQ(run.lines,
            std::vector<std::string>{
                R"({"type":"result","stage":"second-pass","mode":"offline_final","segments":[)"
                R"({"start_time":0.00,"end_time":40.00,"start_ms":0,"end_ms":40000,)"
                R"("text":"Hello world, this is a stub café. Hello world, this is a stub café"}]})"});
  EXPECT_FALSE(run.stop_flush_after);
}

}  // namespace
}  // namespace kerrow::testing
