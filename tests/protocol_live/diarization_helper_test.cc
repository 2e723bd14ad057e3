// Diarization through a resident helper process, as the host runs kerrow: the
// real kerrow-diarize behind --diarization-helper-binary, and small fake
// helpers for the ways a helper can fail to start, die or refuse to leave.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "support/rttm_turns.h"
#include "protocol_live/live_fixtures.h"
#include "support/protocol_fixtures.h"
#include "support/diarization_model_dir.h"

namespace kerrow::testing {
namespace {

const std::string kCreating = LogLine("Creating recognizers. Please wait...");
const std::string kDecoderReady = LogLine("[M2] Offline decoder initialized");

// The stub decode leaves --num-threads-second at its default (4), which may be
// lowered to the cores before the model loads.
std::vector<std::string> StubDecoderSetUp(const std::vector<std::string>& more) {
  return Concat(Concat(LoweredSecondPassThreadsLines(), {kCreating, kDecoderReady}), more);
}
const std::string kHelperReady =
    LogLine("[M2] Speaker diarization initialized (fluidaudio-diar, backend=offline)");
const std::string kInitFailed = "[M2] Speaker diarization init failed: fluidaudio backend init failed: ";

// A log line whose message matches the regex pattern.

std::string Dialog(const std::string& name) { return AudioPath("espeak-dialog/" + name); }
std::string EmbeddingModel() { return ModelPath("trained/speaker-embedding/model.onnx"); }

std::vector<std::string> DialogThroughHelperArgs(const std::string& model_dir) {
  return Concat({"--manual-mode", "--wav-input", Dialog("two-voices-dialog.wav"), "--diarization",
                 "--diarization-helper-binary", KERROW_DIARIZE_BINARY, "--diarization-model", model_dir},
                TrainedSenseVoiceArgs());
}

// The fast file decode the fake-helper tests use: the whisper stub on 3 s.
std::vector<std::string> StubDecodeWithHelper(const std::string& helper) {
  return {"--manual-mode", "--wav-input", AudioPath("format-checks/3s.wav"), "--second-type", "whisper",
          "--second-encoder", WhisperStubEncoder(), "--second-decoder", WhisperStubDecoder(),
          "--second-tokens", WhisperStubTokens(), "--diarization", "--diarization-model", "/models/diar",
          "--diarization-helper-binary", helper};
}

const char kStubResult[] =
    "{\"type\":\"result\",\"stage\":\"second-pass\",\"mode\":\"offline_final\",\"is_final\":true,"
    "\"offline_2pass\":true,\"segments\":[{\"start_time\":0.00,\"end_time\":3.00,\"start_ms\":0,"
    "\"end_ms\":3000,\"text\":\"Hello world, this is a stub café.\"}],"
    "\"merged_text\":\"Hello world, this is a stub café.\"}";

std::string WriteHelperScript(const TempDir& dir, const std::string& body) {
  const std::string path = dir.File("helper");
  WriteFileBytes(path, "#!/bin/sh\n" + body);
  ::chmod(path.c_str(), 0755);
  return path;
}

std::vector<std::string> LinesBefore(const std::vector<std::string>& lines, const std::string& end) {
  std::vector<std::string> before;
  for (const std::string& line : lines) {
    if (line == end) return before;
    before.push_back(line);
  }
  ADD_FAILURE() << "no line " << end << " in:\n" << JoinLines(lines);
  return before;
}

// The number after `key` in text, from position `from` on; -1 when absent.
double NumberAfter(const std::string& text, const std::string& key, size_t from) {
  const size_t at = text.find(key, from);
  return at == std::string::npos ? -1.0 : std::stod(text.substr(at + key.size()));
}

// The labelled segments of a result record, in order.
std::vector<LabelledSpan> ResultSegments(const std::string& result) {
  std::vector<LabelledSpan> spans;
  const std::string speaker_key = "\"speaker\":\"";
  for (size_t at = result.find("{\"start_time\":"); at != std::string::npos;
       at = result.find("{\"start_time\":", at + 1)) {
    const size_t segment_end = result.find('}', at);
    const size_t speaker = result.find(speaker_key, at);
    if (speaker == std::string::npos || speaker > segment_end) continue;
    const size_t label_start = speaker + speaker_key.size();
    spans.push_back({NumberAfter(result, "\"start_time\":", at), NumberAfter(result, "\"end_time\":", at),
                     result.substr(label_start, result.find('"', label_start) - label_start)});
  }
  return spans;
}

std::vector<std::string> RawTurnLines(const std::string& first, const std::string& second) {
  std::vector<std::string> lines;
  const char* times[] = {"0.52s end=4.74s", "5.8s end=10.64s", "11.36s end=16.16s",
                         "17.22s end=21.9s", "22.6s end=27.56s", "28.7s end=32.66s"};
  for (int i = 0; i < 6; ++i) {
    lines.push_back(LogLine(std::string("[DIARIZATION][RAW] start=") + times[i] +
                            " speaker=" + (i % 2 == 0 ? first : second)));
  }
  lines.push_back(LogLine("[DIARIZATION][RAW] total_segments=6"));
  return lines;
}

// Each reference turn of the dialog must carry its voice's label for most of
// its duration, and the two voices must carry the labels expected of them.
void ExpectDialogLabels(const std::string& result, const std::string& voice_a, const std::string& voice_b) {
  const std::vector<LabelledSpan> segments = ResultSegments(result);
  ASSERT_FALSE(segments.empty()) << result;
  const LabelAgreement agreement = ScoreLabelAgreement(ReadRttm(Dialog("two-voices-dialog.rttm")), segments);
  EXPECT_EQ(agreement.label_of_voice.at("voiceA"), voice_a) << result;
  EXPECT_EQ(agreement.label_of_voice.at("voiceB"), voice_b) << result;
  EXPECT_TRUE(agreement.voices_get_distinct_labels);
  EXPECT_GE(agreement.worst_turn_share, 0.8) << result;
  for (const LabelledSpan& segment : segments) {
    EXPECT_TRUE(segment.label == voice_a || segment.label == voice_b) << segment.label;
  }
}

// Enrolls the dialog's voice A as "Ada" and voice B as "Bert".
void EnrollAdaAndBert(const std::string& db) {
  for (const auto& [name, clip] : {std::pair<std::string, std::string>{"Ada", "a_enroll.wav"}, {"Bert", "b_enroll.wav"}}) {
    const ProcessResult enrolled = RunKerrow({"--register-name", name, "--register-input", Dialog(clip),
                                              "--speaker-embedding-model", EmbeddingModel(), "--speaker-enroll-db", db});
    ASSERT_EQ(enrolled.exit_status, 0) << JoinLines(enrolled.stdout_lines);
  }
}

bool ProcessIsGone(pid_t pid) { return ::kill(pid, 0) != 0 && errno == ESRCH; }

TEST(DiarizationHelper, KerrowDiarizeLabelsTheSpeakersOfAWavInput) {
  DiarizationModelDir models;
  const ProcessResult r = RunKerrow(DialogThroughHelperArgs(models.path()));
  ASSERT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  EXPECT_EQ(r.stderr_text, "");
  EXPECT_EQ(LinesBefore(r.stdout_lines, ReadyLine()),
            (std::vector<std::string>{kCreating, kDecoderReady, kHelperReady}));
  EXPECT_NE(IndexOfLine(r.stdout_lines, LogLine("diarization segments=6 audio_s=33.205937")), -1);
  const int first_raw = IndexOfMatch(r.stdout_lines, "\\{\"message\":\"\\[DIARIZATION\\]\\[RAW\\].*");
  ASSERT_NE(first_raw, -1) << JoinLines(r.stdout_lines);
  EXPECT_EQ(std::vector<std::string>(r.stdout_lines.begin() + first_raw, r.stdout_lines.begin() + first_raw + 7),
            RawTurnLines("SPEAKER_00", "SPEAKER_01"));
  const int result = IndexOfResult(r.stdout_lines);
  ASSERT_NE(result, -1);
  ExpectDialogLabels(r.stdout_lines[result], "SPEAKER_00", "SPEAKER_01");
  EXPECT_EQ(r.stdout_lines.back(), CompleteLine("WAV decode done"));
}

TEST(DiarizationHelper, EnrolledVoicesNameTheSpeakersDiarizedByKerrowDiarize) {
  DiarizationModelDir models;
  TempDir db_dir;
  const std::string db = db_dir.File("speakers.db");
  ASSERT_NO_FATAL_FAILURE(EnrollAdaAndBert(db));
  const ProcessResult r = RunKerrow(Concat(DialogThroughHelperArgs(models.path()),
                                           {"--speaker-id", "--speaker-embedding-model", EmbeddingModel(),
                                            "--speaker-enroll-db", db}));
  ASSERT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  EXPECT_EQ(r.stderr_text, "");
  // The helper takes no thread count: the diarization count, when lowered, is
  // logged before the speaker identifier, the first component to receive it.
  EXPECT_EQ(LinesBefore(r.stdout_lines, ReadyLine()),
            Concat(Concat({kCreating, kDecoderReady, kHelperReady},
                          LoweredThreadsLines("[M2]", "--diarization-num-threads", 4)),
                   {LogLine("[M2] Speaker identification initialized (threshold=0.700000)")}));
  EXPECT_NE(IndexOfMatch(r.stdout_lines, LogPattern("\\[SPEAKER_ID\\] SPEAKER_00 -> Ada \\(score=0\\.\\d+\\)")), -1)
      << JoinLines(r.stdout_lines);
  EXPECT_NE(IndexOfMatch(r.stdout_lines, LogPattern("\\[SPEAKER_ID\\] SPEAKER_01 -> Bert \\(score=0\\.\\d+\\)")), -1)
      << JoinLines(r.stdout_lines);
  const int first_raw = IndexOfMatch(r.stdout_lines, "\\{\"message\":\"\\[DIARIZATION\\]\\[RAW\\].*");
  ASSERT_NE(first_raw, -1);
  EXPECT_EQ(std::vector<std::string>(r.stdout_lines.begin() + first_raw, r.stdout_lines.begin() + first_raw + 7),
            RawTurnLines("Ada", "Bert"));
  const int result = IndexOfResult(r.stdout_lines);
  ASSERT_NE(result, -1);
  ExpectDialogLabels(r.stdout_lines[result], "Ada", "Bert");
  EXPECT_EQ(r.stdout_lines.back(), CompleteLine("WAV decode done"));
}

TEST(DiarizationHelper, AHelperThatDiesMidRequestCostsOnlyTheSpeakerLabels) {
  TempDir dir;
  const std::string helper = WriteHelperScript(dir, "echo READY\nread line\nprintf '0\\t1\\tA\\n'\nexit 1\n");
  const ProcessResult r = RunKerrow(StubDecodeWithHelper(helper));
  ASSERT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  EXPECT_EQ(r.stderr_text, "");
  EXPECT_EQ(LinesBefore(r.stdout_lines, ReadyLine()),
            StubDecoderSetUp({kHelperReady}));
  const int failed = IndexOfLine(r.stdout_lines, LogLine("diarization failed: diarization helper closed stdout before DONE"));
  ASSERT_NE(failed, -1) << JoinLines(r.stdout_lines);
  EXPECT_EQ(r.stdout_lines[failed + 1], LogLine("diarization failed; continue without speaker labels"));
  EXPECT_NE(IndexOfLine(r.stdout_lines, kStubResult), -1) << JoinLines(r.stdout_lines);
  EXPECT_EQ(r.stdout_lines.back(), CompleteLine("WAV decode done"));
}

// Index of the first whole-capture result at or after `from`, waiting for it.
int WaitForOffline2passResult(KerrowProcess* process, size_t from) {
  return process->WaitForLine(
      [](const std::string& line) {
        return IsResultLine(line) && line.find("\"offline_2pass\":true") != std::string::npos;
      },
      std::chrono::seconds(120), from);
}

// In a live session the helper backend lives as long as the engine: once its
// helper has died, every later stop is transcribed without diarization, and
// the session itself goes on.
TEST(DiarizationHelper, AfterTheHelperDiesLaterLiveCapturesAreTranscribedWithoutDiarization) {
  TempDir dir;
  const std::string helper = WriteHelperScript(dir, "echo READY\nread line\nexit 1\n");
  auto process = StartLive(Concat(Concat(ManualRealtimeArgs(), {"--offline-2pass"}),
                                  {"--diarization", "--diarization-model", "/models/diar",
                                   "--diarization-helper-binary", helper}));
  std::vector<int> results;
  for (uint64_t capture = 1; capture <= 2; ++capture) {
    const size_t from = process->Lines().size();
    ASSERT_TRUE(StartCaptureAndWait(process.get(), capture)) << JoinLines(process->Lines());
    ASSERT_TRUE(process->WriteAudioS16(Join(ShortSpeech(), SilenceSeconds(1.5))));
    process->WriteCommand("stop");
    results.push_back(WaitForOffline2passResult(process.get(), from));
    ASSERT_GE(results.back(), 0) << JoinLines(process->Lines());
  }
  QuitAndExpectCleanEnd(process.get());
  const std::vector<std::string> lines = process->Lines();
  const int died = IndexOfLine(lines, LogLine("diarization failed: diarization helper closed stdout before DONE"));
  ASSERT_NE(died, -1) << JoinLines(lines);
  EXPECT_LT(died, results[0]);
  const int skipped = IndexOfLine(lines, LogLine("diarization skipped: backend not initialized"));
  ASSERT_NE(skipped, -1) << JoinLines(lines);
  EXPECT_GT(skipped, results[0]);
  EXPECT_LT(skipped, results[1]);
  for (const int result : results) {
    EXPECT_EQ(lines[result].find("\"speaker\""), std::string::npos) << lines[result];
  }
}

// A live capture in manual-realtime mode with --offline-2pass: "stop" decodes
// the whole capture, kerrow-diarize diarizes it, and the enrolled names reach
// its segments.
TEST(DiarizationHelper, ALiveOffline2passStopThroughKerrowDiarizeCarriesEnrolledNames) {
  DiarizationModelDir models;
  TempDir db_dir;
  const std::string db = db_dir.File("speakers.db");
  ASSERT_NO_FATAL_FAILURE(EnrollAdaAndBert(db));
  auto process = StartLive(Concat(Concat(ManualRealtimeArgs(), {"--offline-2pass"}),
                                  {"--diarization", "--diarization-helper-binary", KERROW_DIARIZE_BINARY,
                                   "--diarization-model", models.path(), "--speaker-id",
                                   "--speaker-embedding-model", EmbeddingModel(), "--speaker-enroll-db", db}));
  ASSERT_TRUE(StartCaptureAndWait(process.get(), 1)) << JoinLines(process->Lines());
  // Voice A's first turn and voice B's first turn, then silence that a stop
  // arriving before the pipe is drained may cut without losing speech.
  const std::vector<float> dialog = LoadWavForTest(Dialog("two-voices-dialog.wav"));
  const std::vector<float> two_turns(dialog.begin(), dialog.begin() + 11 * 16000);
  ASSERT_TRUE(process->WriteAudioS16(Join(two_turns, SilenceSeconds(2.5))));
  process->WriteCommand("stop");
  const int result = WaitForOffline2passResult(process.get(), 0);
  ASSERT_GE(result, 0) << JoinLines(process->Lines());
  QuitAndExpectCleanEnd(process.get());
  const std::vector<LabelledSpan> segments = ResultSegments(process->Lines()[result]);
  ASSERT_FALSE(segments.empty()) << process->Lines()[result];
  EXPECT_EQ(segments.front().label, "Ada") << process->Lines()[result];
  EXPECT_EQ(segments.back().label, "Bert") << process->Lines()[result];
  for (const LabelledSpan& segment : segments) {
    EXPECT_TRUE(segment.label == "Ada" || segment.label == "Bert") << segment.label;
  }
}

TEST(DiarizationHelper, KerrowExitsEvenWhenTheHelperIgnoresItsClosedInputAndSigterm) {
  TempDir dir;
  const std::string helper = WriteHelperScript(
      dir, "trap 'echo TERM >> \"" + dir.File("signals") + "\"' TERM\n" + "echo $$ > '" + dir.File("pid") +
               "'\necho READY\nread line\necho DONE\nexec 0</dev/null\nwhile :; do sleep 0.1; done\n");
  const ProcessResult r = RunKerrow(StubDecodeWithHelper(helper));
  ASSERT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  EXPECT_EQ(r.stderr_text, "");
  EXPECT_NE(IndexOfLine(r.stdout_lines, LogLine("diarization segments=0 audio_s=3.000000")), -1)
      << JoinLines(r.stdout_lines);
  EXPECT_EQ(r.stdout_lines.back(), CompleteLine("WAV decode done"));
  // kerrow reaped the helper before it exited; the helper outlived SIGTERM.
  EXPECT_TRUE(ProcessIsGone(std::stoi(ReadFileBytes(dir.File("pid")))));
  EXPECT_EQ(ReadFileBytes(dir.File("signals")).substr(0, 5), "TERM\n");
}

// The set-up line names the helper backend that was asked for; an empty name
// reads as the default, offline, and is not passed to the helper at all.
TEST(DiarizationHelper, TheInitLineNamesTheHelperBackendAndTheHelperIsToldIt) {
  for (const std::string backend : {"sortformer", ""}) {
    TempDir dir;
    const std::string helper = WriteHelperScript(
        dir, "echo \"$@\" > '" + dir.File("argv") + "'\necho READY\nwhile read l; do echo DONE; done\n");
    const ProcessResult r =
        RunKerrow(Concat(StubDecodeWithHelper(helper), {"--diarization-backend", backend}));
    ASSERT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
    EXPECT_EQ(r.stderr_text, "");
    const std::string shown = backend.empty() ? "offline" : backend;
    EXPECT_EQ(LinesBefore(r.stdout_lines, ReadyLine()),
              StubDecoderSetUp({LogLine("[M2] Speaker diarization initialized (fluidaudio-diar, backend=" +
                                        shown + ")")}));
    EXPECT_EQ(ReadFileBytes(dir.File("argv")),
              backend.empty() ? "--resident --model /models/diar\n"
                              : "--resident --model /models/diar --backend " + backend + "\n");
    EXPECT_EQ(r.stdout_lines.back(), CompleteLine("WAV decode done"));
  }
}

TEST(DiarizationHelper, AHelperThatCannotBeExecutedLeavesOneLineOnStandardError) {
  TempDir dir;
  const std::string helper = dir.File("not-a-program");
  WriteFileBytes(helper, "no interpreter line here\n");
  ::chmod(helper.c_str(), 0755);
  const ProcessResult r = RunKerrow(StubDecodeWithHelper(helper));
  ASSERT_EQ(r.exit_status, 0);
  EXPECT_EQ(r.stderr_text, "execv " + helper + " failed: Exec format error\n");
  EXPECT_EQ(LinesBefore(r.stdout_lines, ReadyLine()),
            StubDecoderSetUp({LogLine(kInitFailed + "diarization helper exited before READY")}));
  EXPECT_EQ(r.stdout_lines.back(), CompleteLine("WAV decode done"));
}

TEST(DiarizationHelper, AHelperWithoutExecutePermissionIsNamedInTheInitFailure) {
  TempDir dir;
  const std::string helper = dir.File("helper");
  WriteFileBytes(helper, "#!/bin/sh\necho READY\n");
  ::chmod(helper.c_str(), 0644);
  const ProcessResult r = RunKerrow(StubDecodeWithHelper(helper));
  ASSERT_EQ(r.exit_status, 0);
  EXPECT_EQ(r.stderr_text, "");
  EXPECT_EQ(LinesBefore(r.stdout_lines, ReadyLine()),
            StubDecoderSetUp({LogLine(kInitFailed + "diarization helper not executable: " + helper + " (Permission denied)")}));
}

TEST(DiarizationHelper, AHelperThatAnnouncesAnythingButReadyIsRefused) {
  TempDir dir;
  const std::string helper = WriteHelperScript(dir, "echo 'Loading models...'\nwhile read l; do :; done\n");
  const ProcessResult r = RunKerrow(StubDecodeWithHelper(helper));
  ASSERT_EQ(r.exit_status, 0);
  EXPECT_EQ(r.stderr_text, "");
  EXPECT_EQ(LinesBefore(r.stdout_lines, ReadyLine()),
            StubDecoderSetUp({LogLine(kInitFailed + "expected READY from diarization helper, got: Loading models...")}));
  EXPECT_EQ(r.stdout_lines.back(), CompleteLine("WAV decode done"));
}

}  // namespace
}  // namespace kerrow::testing
