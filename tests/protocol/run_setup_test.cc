// What kerrow builds at start-up, and what it tells the host about it, for the
// combinations of options the host uses.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "protocol/protocol_fixtures.h"

namespace kerrow::testing {
namespace {

std::vector<std::string> WhisperStubFileArgs() {
  return {"--manual-mode", "--wav-input", AudioPath("format-checks/3s.wav"), "--second-type", "whisper", "--second-encoder",
          WhisperStubEncoder(), "--second-decoder", WhisperStubDecoder(), "--second-tokens", WhisperStubTokens()};
}

std::vector<std::string> TransducerStubArgs() {
  const std::string dir = ModelPath("stubs/streaming-transducer/");
  return {"--first-encoder", dir + "encoder.onnx", "--first-decoder", dir + "decoder.onnx",
          "--first-joiner",  dir + "joiner.onnx",  "--first-tokens",  dir + "tokens.txt"};
}

// The lines before the ready event: what the set-up logged.
std::vector<std::string> SetUpLines(const ProcessResult& r) {
  std::vector<std::string> lines;
  for (const auto& line : r.stdout_lines) {
    if (line == ReadyLine()) return lines;
    lines.push_back(line);
  }
  ADD_FAILURE() << "no ready event:\n" << JoinLines(r.stdout_lines);
  return lines;
}

const std::string kCreating = LogLine("Creating recognizers. Please wait...");
const std::string kDecoderReady = LogLine("[M2] Offline decoder initialized");

TEST(RunSetUp, DiarizationWithoutModelPathsBuildsNothingAndIgnoresSpeakerId) {
  const ProcessResult r = RunKerrow(Concat(
      WhisperStubFileArgs(), {"--diarization", "--speaker-id", "--speaker-embedding-model",
                              ModelPath("trained/speaker-embedding/model.onnx"), "--speaker-enroll-db", "/tmp/x.db"}));
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(SetUpLines(r), (std::vector<std::string>{kCreating, kDecoderReady}));
}

std::vector<std::string> StubDiarizationArgs() {
  return {"--diarization", "--diarization-segmentation-model", ModelPath("stubs/segmentation/model.onnx"),
          "--diarization-embedding-model", ModelPath("stubs/embedding/model.onnx")};
}

const std::string kDiarizationReady = LogLine("[M2] Speaker diarization initialized (sherpa-onnx)");

TEST(RunSetUp, SherpaOnnxDiarizationIsLoggedByName) {
  const ProcessResult r = RunKerrow(Concat(WhisperStubFileArgs(), StubDiarizationArgs()));
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(SetUpLines(r), (std::vector<std::string>{kCreating, kDecoderReady, kDiarizationReady}));
  EXPECT_EQ(r.stdout_lines.back(), CompleteLine("WAV decode done"));
}

TEST(RunSetUp, SpeakerIdWithoutEnrollDbIsNotAttemptedEvenWithDiarization) {
  const ProcessResult r = RunKerrow(Concat(
      Concat(WhisperStubFileArgs(), StubDiarizationArgs()),
      {"--speaker-id", "--speaker-embedding-model", ModelPath("trained/speaker-embedding/model.onnx")}));
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(SetUpLines(r), (std::vector<std::string>{kCreating, kDecoderReady, kDiarizationReady}));
}

TEST(RunSetUp, SpeakerIdFollowsAWorkingDiarizationBackend) {
  TempDir dir;
  const std::string db = dir.File("speakers.txt");
  const ProcessResult enrolled = RunKerrow(
      {"--register-name", "Alice", "--register-input", AudioPath("espeak-dialog/a_enroll.wav"),
       "--speaker-embedding-model", ModelPath("trained/speaker-embedding/model.onnx"), "--speaker-enroll-db", db});
  ASSERT_EQ(enrolled.exit_status, 0) << JoinLines(enrolled.stdout_lines);
  const ProcessResult r = RunKerrow(Concat(
      Concat(WhisperStubFileArgs(), StubDiarizationArgs()),
      {"--speaker-id", "--speaker-embedding-model", ModelPath("trained/speaker-embedding/model.onnx"),
       "--speaker-enroll-db", db, "--speaker-id-threshold", "0.25"}));
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(SetUpLines(r), (std::vector<std::string>{kCreating, kDecoderReady, kDiarizationReady,
                                                     LogLine("[M2] Speaker identification initialized "
                                                             "(threshold=0.250000)")}));
}

// /bin/true exits at once: a helper that never says READY.
TEST(RunSetUp, HelperThatExitsBeforeReadyIsLoggedAndTheRunGoesOn) {
  const ProcessResult r = RunKerrow(Concat(
      WhisperStubFileArgs(), {"--diarization", "--diarization-model", "/tmp", "--diarization-helper-binary", "/bin/true"}));
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(r.stderr_text, "");
  EXPECT_EQ(SetUpLines(r),
            (std::vector<std::string>{kCreating, kDecoderReady,
                                      LogLine("[M2] Speaker diarization init failed: fluidaudio backend init failed: "
                                              "diarization helper exited before READY")}));
  EXPECT_EQ(r.stdout_lines.back(), CompleteLine("WAV decode done"));
}

TEST(RunSetUp, ModelDirectoryAloneSelectsNoDiarizationBackend) {
  const ProcessResult r =
      RunKerrow(Concat(WhisperStubFileArgs(), {"--diarization", "--diarization-model", ModelPath("stubs")}));
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(SetUpLines(r),
            (std::vector<std::string>{
                kCreating, kDecoderReady,
                LogLine("[M2] Speaker diarization init failed: no diarization backend selected: pass either "
                        "--diarization-helper-binary (fluidaudio) or --diarization-segmentation-model + "
                        "--diarization-embedding-model (sherpa-onnx)")}));
}

TEST(RunSetUp, WithoutManualRealtimeNoStreamingRecognizerOrVadIsBuilt) {
  const ProcessResult r = RunKerrow(
      Concat(Concat(WhisperStubFileArgs(), TransducerStubArgs()), {"--silero-vad-model", SileroVadModel()}));
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(SetUpLines(r), (std::vector<std::string>{kCreating, kDecoderReady}));
}

TEST(RunSetUp, ManualRealtimeBuildsTheStreamingRecognizerAndTheVad) {
  const ProcessResult r = RunKerrow(Concat(Concat(WhisperStubFileArgs(), TransducerStubArgs()),
                                           {"--manual-realtime", "--silero-vad-model", SileroVadModel()}));
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(SetUpLines(r),
            (std::vector<std::string>{kCreating, kDecoderReady,
                                      LogLine("[M3] Online recognizer initialized for first-pass partials"),
                                      LogLine("[M2] VAD initialized for manual-realtime")}));
}

TEST(RunSetUp, SingleModelStreamingBuildsTheVadButNoStreamingRecognizer) {
  const ProcessResult r = RunKerrow(Concat(Concat(WhisperStubFileArgs(), TransducerStubArgs()),
                                           {"--manual-realtime", "--single-model-streaming", "--silero-vad-model",
                                            SileroVadModel()}));
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(SetUpLines(r),
            (std::vector<std::string>{kCreating, kDecoderReady, LogLine("[M2] VAD initialized for manual-realtime")}));
}

TEST(RunSetUp, FailedStreamingModelsAreLoggedWithTheirFallbacks) {
  const ProcessResult r = RunKerrow(Concat(
      WhisperStubFileArgs(), {"--manual-realtime", "--first-encoder", "/nonexistent/e.onnx", "--first-decoder",
                              "/nonexistent/d.onnx", "--first-joiner", "/nonexistent/j.onnx", "--first-tokens",
                              "/nonexistent/t.txt", "--silero-vad-model", "/nonexistent/vad.onnx"}));
  EXPECT_EQ(r.exit_status, 0);
  const std::vector<std::string> lines = SetUpLines(r);
  ASSERT_EQ(lines.size(), 6u) << JoinLines(lines);
  EXPECT_EQ(lines[2].rfind("{\"message\":\"[M3] Online recognizer init failed: ", 0), 0u) << lines[2];
  EXPECT_EQ(lines[3], LogLine("[M3] first-pass will fallback to placeholder events"));
  EXPECT_EQ(lines[4].rfind("{\"message\":\"[M2] VAD init failed: ", 0), 0u) << lines[4];
  EXPECT_EQ(lines[5], LogLine("[M2] manual-realtime will fallback to legacy buffering"));
}

TEST(RunSetUp, EmptyVadPathIsLeftToTheAdapter) {
  const ProcessResult r = RunKerrow(Concat(WhisperStubFileArgs(), {"--manual-realtime", "--single-model-streaming"}));
  EXPECT_EQ(r.exit_status, 0);
  const std::vector<std::string> lines = SetUpLines(r);
  ASSERT_EQ(lines.size(), 4u) << JoinLines(lines);
  EXPECT_EQ(lines[2], LogLine("[M2] VAD init failed: VAD model path is empty"));
  EXPECT_EQ(lines[3], LogLine("[M2] manual-realtime will fallback to legacy buffering"));
}

TEST(RunSetUp, RegistrationWinsOverListingWhenBothAreAsked) {
  const ProcessResult r = RunKerrow({"--list-speakers", "--register-name", "Bob"});
  EXPECT_EQ(r.exit_status, 1);
  EXPECT_EQ(r.stdout_lines,
            (std::vector<std::string>{ErrorLine("--register-name requires --speaker-embedding-model")}));
}

// A recognizer that failed to load does not stop a live session: the host still
// gets its ready event, and the session ends when the audio pipe closes.
TEST(RunSetUp, LiveSessionStartsEvenWhenTheDecoderFailed) {
  const ProcessResult r = RunKerrow({"--manual-mode", "--second-model", "/nonexistent/m.onnx", "--second-tokens",
                                     TrainedSenseVoiceTokens()},
                                    "", 3, "");
  EXPECT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  ASSERT_GE(r.stdout_lines.size(), 4u);
  EXPECT_EQ(r.stdout_lines[2], LogLine("[M2] Running in skeleton fallback mode"));
  EXPECT_EQ(r.stdout_lines[3], ReadyLine());
  EXPECT_NE(IndexOfLine(r.stdout_lines, LogLine("PCM pipe closed")), -1) << JoinLines(r.stdout_lines);
  EXPECT_EQ(r.stdout_lines.back(), CompleteLine("Session ended (partial M2)"));
}

}  // namespace
}  // namespace kerrow::testing
