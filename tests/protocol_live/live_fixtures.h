#ifndef KERROW_TESTS_PROTOCOL_LIVE_LIVE_FIXTURES_H_
#define KERROW_TESTS_PROTOCOL_LIVE_LIVE_FIXTURES_H_

// Shared by the process-level tests of the live session: command lines for
// its modes, a started child and readers for the transcript records.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "support/protocol_fixtures.h"
#include "support/json_fields.h"
#include "support/test_audio.h"

namespace kerrow::testing {

inline const std::string kShortReference = "hello world this is a test of the second pass recognizer";

// The streaming first pass. A trained streaming model replaces the stub here
// once one is bundled.
inline std::vector<std::string> StreamingFirstPassArgs() {
  const std::string dir = ModelPath("stubs/streaming-transducer/");
  return {"--first-encoder", dir + "encoder.onnx", "--first-decoder", dir + "decoder.onnx",
          "--first-joiner",  dir + "joiner.onnx",  "--first-tokens",  dir + "tokens.txt",
          "--num-threads-first", "1"};
}

// The trained streaming recognizer (an lstm transducer with character units):
// its partials are real text that can be compared with what was said.
inline std::vector<std::string> TrainedStreamingFirstPassArgs() {
  const std::string dir = ModelPath("trained/streaming-lstm-en-char/");
  return {"--first-encoder", dir + "encoder.onnx", "--first-decoder", dir + "decoder.onnx",
          "--first-joiner",  dir + "joiner.onnx",  "--first-tokens",  dir + "tokens.txt",
          "--num-threads-first", "1"};
}

inline std::vector<std::string> TrainedManualRealtimeArgs() {
  return Concat(Concat({"--manual-mode", "--manual-realtime", "--start-paused",
                        "--silero-vad-model", SileroVadModel(), "--ct-transformer",
                        TrainedPunctuationModel()},
                       TrainedStreamingFirstPassArgs()),
                TrainedSenseVoiceArgs());
}

inline std::vector<std::string> ManualRealtimeArgs() {
  return Concat(Concat({"--manual-mode", "--manual-realtime", "--start-paused",
                        "--silero-vad-model", SileroVadModel(), "--ct-transformer",
                        TrainedPunctuationModel()},
                       StreamingFirstPassArgs()),
                TrainedSenseVoiceArgs());
}

inline std::vector<std::string> SingleModelArgs() {
  return Concat({"--manual-mode", "--manual-realtime", "--single-model-streaming",
                 "--start-paused", "--silero-vad-model", SileroVadModel()},
                TrainedSenseVoiceArgs());
}

inline std::vector<float> ShortSpeech() { return LoadWavForTest(AudioPath("espeak/en_short.wav")); }

inline const std::string kLongReference =
    "the quick brown fox jumps over the lazy dog speech recognition converts spoken words into "
    "text today is monday and the meeting starts at ten o'clock in the morning";

inline std::vector<float> LongSpeech() { return LoadWavForTest(AudioPath("espeak/en10s.wav")); }

// Pads with silence up to a multiple of five seconds, so that the keepalive
// line logged at that total tells the host that all of it has been read.
inline std::vector<float> PadToKeepalive(std::vector<float> samples) {
  samples.resize((samples.size() + 79999) / 80000 * 80000, 0.0f);
  return samples;
}

inline std::string KeepaliveLine(int seconds) {
  return LogLine("PCM keepalive: received " + std::to_string(seconds) + ".000000s audio");
}

inline bool IsFirstPassLine(const std::string& line) {
  return line.rfind("{\"type\":\"first-pass\"", 0) == 0;
}
inline bool IsResultLine(const std::string& line) {
  return line.rfind("{\"type\":\"result\"", 0) == 0;
}

// The id of a "[VAD] seg source=... id=N ..." log line, or -1.
inline long VadSegmentId(const std::string& line) {
  const size_t at = line.find(" id=");
  return at == std::string::npos ? -1 : std::strtol(line.c_str() + at + 4, nullptr, 10);
}

// True when the text ends in one of the sentence marks the punctuation model writes.
inline bool EndsWithMark(const std::string& text) {
  for (const std::string mark : {"。", "？", "！", ".", "?", "!"}) {
    if (text.size() >= mark.size() && text.compare(text.size() - mark.size(), mark.size(), mark) == 0) {
      return true;
    }
  }
  return false;
}

// The text of the last line of each kind ("first-pass" or "punctuated") that
// carries the segment id: for a closed segment, its closing record.
inline std::string LastTextForSegment(const std::vector<std::string>& lines,
                                      const std::string& type, long segment_id) {
  const std::string prefix = "{\"type\":\"" + type + "\"";
  std::string text;
  for (const auto& line : lines) {
    if (line.rfind(prefix, 0) == 0 && JsonIntField(line, "segment_id") == segment_id) {
      text = JsonTextField(line);
    }
  }
  return text;
}

inline std::vector<std::string> ResultLines(const std::vector<std::string>& lines) {
  std::vector<std::string> out;
  for (const auto& line : lines) {
    if (IsResultLine(line)) out.push_back(line);
  }
  return out;
}

// A live child, started, with the ready event already seen.
inline std::unique_ptr<KerrowProcess> StartLive(const std::vector<std::string>& args,
                                                int audio_fd = 3) {
  KerrowProcess::Config config;
  config.args = args;
  config.audio_fd = audio_fd;
  auto process = std::make_unique<KerrowProcess>(config);
  std::string error;
  EXPECT_TRUE(process->Start(&error)) << error;
  EXPECT_GE(process->WaitForLine([](const std::string& line) { return line == ReadyLine(); },
                                 std::chrono::seconds(60)),
            0)
      << JoinLines(process->Lines());
  return process;
}

// Sends "start" and waits until the PCM thread has taken up the new capture.
// It drops the reader's carry-over and empties the capture state on two
// requests that it may take up in different passes; audio sent before both are
// in may be cut. `also` names further lines the caller needs first (the VAD or
// streaming recognizer's reset).
inline bool StartCaptureAndWait(KerrowProcess* process, uint64_t seq,
                                const std::vector<std::string>& also = {}) {
  const size_t from = process->Lines().size();
  if (!process->WriteCommand("start")) return false;
  std::vector<std::string> needles = {
      "[SESSION-DIAG] pcm-pending-cleared at=",
      "[SESSION-DIAG] session-reset-consumed seq=" + std::to_string(seq) + " "};
  needles.insert(needles.end(), also.begin(), also.end());
  for (const std::string& needle : needles) {
    if (process->WaitForLineContaining(needle, std::chrono::seconds(30), from) < 0) return false;
  }
  return true;
}

// "quit", then the exit status; the complete event must be the last line.
inline void QuitAndExpectCleanEnd(KerrowProcess* process) {
  process->WriteCommand("quit");
  EXPECT_EQ(process->Wait(std::chrono::seconds(60)), 0);
  const std::vector<std::string> lines = process->Lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), CompleteLine("Session ended (partial M2)"));
  EXPECT_EQ(process->Stderr(), "");
}

}  // namespace kerrow::testing

#endif  // KERROW_TESTS_PROTOCOL_LIVE_LIVE_FIXTURES_H_
