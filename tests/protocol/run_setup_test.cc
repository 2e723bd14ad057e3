// What kerrow builds at start-up, and what it tells the host about it, for the
// combinations of options the host uses.

#include <gtest/gtest.h>

#ifdef __linux__
#include <sched.h>
#endif

#include <string>
#include <vector>

#include "support/protocol_fixtures.h"
#include "support/one_core_pin.h"

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

// Nothing here passes --num-threads-second, so its default of 4 meets the
// machine's cores first; the decoder's two lines follow.
std::vector<std::string> DecoderSetUp(const std::vector<std::string>& more = {}) {
  return Concat(Concat(LoweredSecondPassThreadsLines(), {kCreating, kDecoderReady}), more);
}
const std::vector<std::string> kDiarizationThreads = LoweredThreadsLines("[M2]", "--diarization-num-threads", 4);

TEST(RunSetUp, DiarizationWithoutModelPathsBuildsNothingAndIgnoresSpeakerId) {
  const ProcessResult r = RunKerrow(Concat(
      WhisperStubFileArgs(), {"--diarization", "--speaker-id", "--speaker-embedding-model",
                              ModelPath("trained/speaker-embedding/model.onnx"), "--speaker-enroll-db", "/tmp/x.db"}));
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(SetUpLines(r), DecoderSetUp());
}

// One model path selects a backend only beside a model directory that could
// hold the other; alone it builds nothing and says nothing.
TEST(RunSetUp, OneDiarizationModelPathWithoutADirectoryBuildsNothing) {
  for (const std::string option : {"--diarization-segmentation-model", "--diarization-embedding-model"}) {
    const ProcessResult r = RunKerrow(Concat(
        WhisperStubFileArgs(), {"--diarization", option, "/nonexistent/model.onnx"}));
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(SetUpLines(r), DecoderSetUp()) << option;
    EXPECT_EQ(r.stdout_lines.back(), CompleteLine("WAV decode done"));
  }
}

std::vector<std::string> StubDiarizationArgs() {
  return {"--diarization", "--diarization-segmentation-model", ModelPath("stubs/segmentation/model.onnx"),
          "--diarization-embedding-model", ModelPath("stubs/embedding/model.onnx")};
}

const std::string kDiarizationReady = LogLine("[M2] Speaker diarization initialized (sherpa-onnx)");

TEST(RunSetUp, SherpaOnnxDiarizationIsLoggedByName) {
  const ProcessResult r = RunKerrow(Concat(WhisperStubFileArgs(), StubDiarizationArgs()));
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(SetUpLines(r), DecoderSetUp(Concat(kDiarizationThreads, {kDiarizationReady})));
  EXPECT_EQ(r.stdout_lines.back(), CompleteLine("WAV decode done"));
}

TEST(RunSetUp, SpeakerIdWithoutEnrollDbIsNotAttemptedEvenWithDiarization) {
  const ProcessResult r = RunKerrow(Concat(
      Concat(WhisperStubFileArgs(), StubDiarizationArgs()),
      {"--speaker-id", "--speaker-embedding-model", ModelPath("trained/speaker-embedding/model.onnx")}));
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(SetUpLines(r), DecoderSetUp(Concat(kDiarizationThreads, {kDiarizationReady})));
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
  // Diarization and the identifier share one thread count: lowered once, logged once.
  EXPECT_EQ(SetUpLines(r), DecoderSetUp(Concat(kDiarizationThreads,
                                               {kDiarizationReady, LogLine("[M2] Speaker identification initialized "
                                                                           "(threshold=0.250000)")})));
}

// /bin/true exits at once: a helper that never says READY.
TEST(RunSetUp, HelperThatExitsBeforeReadyIsLoggedAndTheRunGoesOn) {
  const ProcessResult r = RunKerrow(Concat(
      WhisperStubFileArgs(), {"--diarization", "--diarization-model", "/tmp", "--diarization-helper-binary", "/bin/true"}));
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(r.stderr_text, "");
  // The helper takes no thread count, so none is lowered for it.
  EXPECT_EQ(SetUpLines(r), DecoderSetUp({LogLine("[M2] Speaker diarization init failed: fluidaudio backend init "
                                                 "failed: diarization helper exited before READY")}));
  EXPECT_EQ(r.stdout_lines.back(), CompleteLine("WAV decode done"));
}

TEST(RunSetUp, ModelDirectoryAloneSelectsNoDiarizationBackend) {
  const ProcessResult r =
      RunKerrow(Concat(WhisperStubFileArgs(), {"--diarization", "--diarization-model", ModelPath("stubs")}));
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(SetUpLines(r),
            DecoderSetUp(Concat(kDiarizationThreads,
                                {LogLine("[M2] Speaker diarization init failed: no diarization backend selected: pass "
                                         "either --diarization-helper-binary (fluidaudio) or "
                                         "--diarization-segmentation-model + --diarization-embedding-model "
                                         "(sherpa-onnx)")})));
}

TEST(RunSetUp, WithoutManualRealtimeNoStreamingRecognizerOrVadIsBuilt) {
  const ProcessResult r = RunKerrow(
      Concat(Concat(WhisperStubFileArgs(), TransducerStubArgs()), {"--silero-vad-model", SileroVadModel()}));
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(SetUpLines(r), DecoderSetUp());
}

TEST(RunSetUp, ManualRealtimeBuildsTheStreamingRecognizerAndTheVad) {
  const ProcessResult r = RunKerrow(Concat(Concat(WhisperStubFileArgs(), TransducerStubArgs()),
                                           {"--manual-realtime", "--silero-vad-model", SileroVadModel()}));
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(SetUpLines(r), DecoderSetUp(Concat(LoweredThreadsLines("[M3]", "--num-threads-first", 2),
                                               {LogLine("[M3] Online recognizer initialized for first-pass partials"),
                                                LogLine("[M2] VAD initialized for manual-realtime")})));
}

TEST(RunSetUp, SingleModelStreamingBuildsTheVadButNoStreamingRecognizer) {
  const ProcessResult r = RunKerrow(Concat(Concat(WhisperStubFileArgs(), TransducerStubArgs()),
                                           {"--manual-realtime", "--single-model-streaming", "--silero-vad-model",
                                            SileroVadModel()}));
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(SetUpLines(r), DecoderSetUp({LogLine("[M2] VAD initialized for manual-realtime")}));
}

TEST(RunSetUp, FailedStreamingModelsAreLoggedWithTheirFallbacks) {
  const ProcessResult r = RunKerrow(Concat(
      WhisperStubFileArgs(), {"--manual-realtime", "--first-encoder", "/nonexistent/e.onnx", "--first-decoder",
                              "/nonexistent/d.onnx", "--first-joiner", "/nonexistent/j.onnx", "--first-tokens",
                              "/nonexistent/t.txt", "--silero-vad-model", "/nonexistent/vad.onnx"}));
  EXPECT_EQ(r.exit_status, 0);
  const std::vector<std::string> decoder = DecoderSetUp();
  const std::vector<std::string> first_pass = LoweredThreadsLines("[M3]", "--num-threads-first", 2);
  const std::vector<std::string> all = SetUpLines(r);
  ASSERT_EQ(all.size(), decoder.size() + first_pass.size() + 4) << JoinLines(all);
  const auto first_pass_at = all.begin() + static_cast<long>(decoder.size());
  EXPECT_EQ(std::vector<std::string>(all.begin(), first_pass_at), decoder);
  // The first-pass count, when lowered, comes just before the online recognizer's line.
  EXPECT_EQ(std::vector<std::string>(first_pass_at, first_pass_at + static_cast<long>(first_pass.size())), first_pass);
  std::vector<std::string> lines = {"", ""};
  lines.insert(lines.end(), first_pass_at + static_cast<long>(first_pass.size()), all.end());
  EXPECT_EQ(lines[2].rfind("{\"message\":\"[M3] Online recognizer init failed: ", 0), 0u) << lines[2];
  EXPECT_EQ(lines[3], LogLine("[M3] first-pass will fallback to placeholder events"));
  EXPECT_EQ(lines[4].rfind("{\"message\":\"[M2] VAD init failed: ", 0), 0u) << lines[4];
  EXPECT_EQ(lines[5], LogLine("[M2] manual-realtime will fallback to legacy buffering"));
}

TEST(RunSetUp, EmptyVadPathIsLeftToTheAdapter) {
  const ProcessResult r = RunKerrow(Concat(WhisperStubFileArgs(), {"--manual-realtime", "--single-model-streaming"}));
  EXPECT_EQ(r.exit_status, 0);
  const std::vector<std::string> lines = SetUpLines(r);
  ASSERT_EQ(lines, DecoderSetUp({LogLine("[M2] VAD init failed: VAD model path is empty"),
                                 LogLine("[M2] manual-realtime will fallback to legacy buffering")}));
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
  const size_t lowered = LoweredSecondPassThreadsLines().size();
  ASSERT_GE(r.stdout_lines.size(), 4u + lowered);
  EXPECT_EQ(r.stdout_lines[2 + lowered], LogLine("[M2] Running in skeleton fallback mode"));
  EXPECT_EQ(r.stdout_lines[3 + lowered], ReadyLine());
  EXPECT_NE(IndexOfLine(r.stdout_lines, LogLine("PCM pipe closed")), -1) << JoinLines(r.stdout_lines);
  EXPECT_EQ(r.stdout_lines.back(), CompleteLine("Session ended (partial M2)"));
}

// The count the library gets is the lowered one, and the line says which.
TEST(RunSetUp, ThreadCountAboveTheCoresIsLoweredAndLoggedBeforeItsComponent) {
  const ProcessResult r = RunKerrow(
      Concat(Concat(WhisperStubFileArgs(), StubDiarizationArgs()),
             {"--num-threads-second", "64", "--ct-transformer", StubPunctuationModel(), "--num-threads-punc", "64",
              "--diarization-num-threads", "64"}));
  EXPECT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  const std::string cores = std::to_string(UsableCoreCount());
  const std::string why = ", the number of cores this process may use";
  EXPECT_EQ(SetUpLines(r),
            (std::vector<std::string>{LogLine("[M2] --num-threads-second 64 lowered to " + cores + why), kCreating,
                                      kDecoderReady, LogLine("[M3] --num-threads-punc 64 lowered to " + cores + why),
                                      LogLine("[M3] Offline punctuation initialized"),
                                      LogLine("[M2] --diarization-num-threads 64 lowered to " + cores + why),
                                      kDiarizationReady}));
  EXPECT_EQ(r.stdout_lines.back(), CompleteLine("WAV decode done"));
}

TEST(RunSetUp, CountsWithinTheCoresAndBelowOneAreNotLogged) {
  const ProcessResult r =
      RunKerrow(Concat(WhisperStubFileArgs(), {"--num-threads-second", "0", "--ct-transformer", StubPunctuationModel(),
                                               "--num-threads-punc", "1"}));
  EXPECT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  EXPECT_EQ(SetUpLines(r), (std::vector<std::string>{kCreating, kDecoderReady,
                                                     LogLine("[M3] Offline punctuation initialized")}));
}

#ifdef __linux__
// A cpuset (a container's limit, taskset) shows in the affinity mask, which the
// child inherits: with one usable core every count above 1 is lowered to 1.
TEST(RunSetUp, AffinityMaskOfOneCoreLowersTheCountToOne) {
  OneCorePin pin;
  ASSERT_TRUE(pin.pinned());
  const ProcessResult r = RunKerrow(Concat(WhisperStubFileArgs(), {"--num-threads-second", "2"}));
  ASSERT_TRUE(pin.Restore());
  EXPECT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  EXPECT_EQ(SetUpLines(r),
            (std::vector<std::string>{
                LogLine("[M2] --num-threads-second 2 lowered to 1, the number of cores this process may use"),
                kCreating, kDecoderReady}));
}
#endif

}  // namespace
}  // namespace kerrow::testing
