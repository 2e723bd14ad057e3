// The command line as the host sees it: which arguments start a run, which end
// the process with an error event and the usage text, and the exit statuses.

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "support/protocol_fixtures.h"

namespace kerrow::testing {
namespace {

constexpr std::chrono::seconds kTimeout(60);

// Backslash-t in the identify-only line is literal text, not a tab.
const char* const kUsage =
    "kerrow (M2 in progress)\n"
    "First-pass:\n"
    "  --first-model-type transducer|paraformer (default: transducer)\n"
    "  transducer needs --first-encoder --first-decoder --first-joiner --first-tokens\n"
    "  paraformer needs --first-encoder --first-decoder --first-tokens\n"
    "Required (sensevoice):\n"
    "  --second-type sensevoice --second-model PATH --second-tokens PATH\n"
    "Required (whisper):\n"
    "  --second-type whisper --second-encoder PATH --second-decoder PATH --second-tokens PATH\n"
    "Optional:\n"
    "  --manual-mode --manual-realtime --start-paused\n"
    "  --single-model-streaming [--single-partial-interval 0.5]\n"
    "    (one model: SenseVoice second pass also drives realtime partials; no first-pass model)\n"
    "    [--single-trim-cap 3.0 --single-trim-keep 1.2]  (rolling commit chunk; 0 disables)\n"
    "    [--single-max-window 7.0]  (decode-window hard cap secs; smaller = less CPU)\n"
    "  --audio-fd 3 --audio-format s16le|f32le --chunk-duration 0.1\n"
    "  --wav-input /path/to/audio.wav | --pcm-input /path/to/audio.pcm\n"
    "  --diarization --diarization-model DIR [--diarization-segmentation-model PATH "
    "--diarization-embedding-model PATH]\n"
    "    macOS only: --diarization-helper-binary PATH (fluidaudio-diar helper)\n"
    "    macOS only: --diarization-backend offline|sortformer (default offline)\n"
    "  --speaker-id --speaker-embedding-model PATH --speaker-enroll-db PATH\n"
    "    [--speaker-id-threshold 0.7] [--speaker-id-max-seconds 15]\n"
    "    replaces SPEAKER_XX labels with enrolled names (all platforms; sherpa embedding)\n"
    "Register a speaker (one-shot, then exits; prints {\"type\":\"ok\"} or {\"type\":\"error\"}):\n"
    "  --register-name NAME --register-input PATH.wav --speaker-embedding-model PATH "
    "--speaker-enroll-db PATH\n"
    "  (legacy aliases: --enroll-name / --enroll-input)\n"
    "Manage the speaker DB (no ASR/diarization):\n"
    "  --list-speakers --speaker-enroll-db PATH\n"
    "  --migrate-speakers --speaker-enroll-db PATH          (backfill speaker ids)\n"
    "  --rename-speaker-id ID --rename-speaker-name NAME --speaker-enroll-db PATH\n"
    "  --unregister-speaker-id ID --speaker-enroll-db PATH (remove a speaker)\n"
    "  --unregister-name NAME --speaker-enroll-db PATH   (remove a speaker)\n"
    "  --unregister-md5 MD5 --speaker-enroll-db PATH     (remove one voiceprint)\n"
    "Identify-only (no ASR/diarization; audio + pre-labeled segments -> names):\n"
    "  --identify-only --wav-input PATH.wav --segments-input PATH.tsv (start\\tend\\tlabel)\n"
    "    --speaker-embedding-model PATH --speaker-enroll-db PATH [--speaker-id-threshold 0.7]\n";

ProcessResult RunArgs(const std::vector<std::string>& args) {
  return RunKerrow(args, "", -1, "", kTimeout);
}

// A command-line error is one error event on stdout, the usage on stderr and
// status 1, before any model is touched.
void ExpectCommandLineError(const std::vector<std::string>& args, const std::string& message) {
  const ProcessResult r = RunArgs(args);
  EXPECT_EQ(r.stdout_lines, std::vector<std::string>{ErrorLine(message)});
  EXPECT_EQ(r.stderr_text, kUsage);
  EXPECT_EQ(r.exit_status, 1);
}

void ExpectUsageOnly(const std::vector<std::string>& args) {
  const ProcessResult r = RunArgs(args);
  EXPECT_EQ(r.stdout_lines, std::vector<std::string>{});
  EXPECT_EQ(r.stderr_text, kUsage);
  EXPECT_EQ(r.exit_status, 0);
}

// The audio-independent SenseVoice stub loads in a moment, which is all that
// the runs below need from a second pass.
std::vector<std::string> SecondPassArgs() {
  return {"--second-model", PatternSenseVoiceModel(), "--second-tokens", PatternSenseVoiceTokens(),
          "--num-threads-second", "1"};
}

std::vector<std::string> TransducerFiles() {
  const std::string dir = ModelPath("stubs/streaming-transducer/");
  return {"--first-encoder", dir + "encoder.onnx", "--first-decoder", dir + "decoder.onnx",
          "--first-joiner",  dir + "joiner.onnx",  "--first-tokens",  dir + "tokens.txt"};
}

std::vector<std::string> ParaformerFilesWithoutJoiner() {
  const std::string dir = ModelPath("stubs/streaming-paraformer/");
  return {"--first-encoder", dir + "encoder.onnx", "--first-decoder", dir + "decoder.onnx",
          "--first-tokens", dir + "tokens.txt"};
}

// A command line that parses starts a live session: the set-up logs, the ready
// event, and, once the audio descriptor reaches its end, the closing event.
// `expected_log` (when given) is one more set-up line that must appear.
void ExpectLiveSessionRuns(const std::vector<std::string>& args,
                           const std::string& expected_log = "") {
  const ProcessResult r = RunKerrow(args, "quit\n", 3, "", kTimeout);
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(r.stderr_text, "");
  EXPECT_EQ(IndexOfMatch(r.stdout_lines, R"(.*"type":"error".*)"), -1) << JoinLines(r.stdout_lines);
  EXPECT_NE(IndexOfLine(r.stdout_lines, LogLine("[M2] Offline decoder initialized")), -1)
      << JoinLines(r.stdout_lines);
  if (!expected_log.empty()) {
    EXPECT_NE(IndexOfLine(r.stdout_lines, LogLine(expected_log)), -1) << JoinLines(r.stdout_lines);
  }
  EXPECT_NE(IndexOfLine(r.stdout_lines, ReadyLine()), -1) << JoinLines(r.stdout_lines);
  ASSERT_FALSE(r.stdout_lines.empty());
  EXPECT_EQ(r.stdout_lines.back(), CompleteLine("Session ended (partial M2)"));
}

TEST(CommandLine, NoArgumentsRequireSecondTokens) {
  ExpectCommandLineError({}, "--second-tokens is required");
}

TEST(CommandLine, HelpPrintsUsageOnlyAndSucceeds) { ExpectUsageOnly({"--help"}); }

TEST(CommandLine, ShortHelpPrintsUsageOnlyAndSucceeds) { ExpectUsageOnly({"-h"}); }

TEST(CommandLine, HelpAfterUnknownOptionStillPrintsUsage) {
  ExpectUsageOnly({"--no-such-option", "--help"});
}

TEST(CommandLine, HelpWinsOverLaterMissingValue) { ExpectUsageOnly({"--help", "--first-tokens"}); }

TEST(CommandLine, HelpAfterValuedOptionIsThatOptionsValue) {
  // --help becomes the tokens path, so parsing goes on to the next rule.
  ExpectCommandLineError({"--second-tokens", "--help"},
                         "--second-model is required when --second-type is sensevoice");
}

TEST(CommandLine, BareWordHelpIsIgnoredAsUnknownArgument) {
  ExpectCommandLineError({"help"}, "--second-tokens is required");
}

TEST(CommandLine, SampleRateRuleComesBeforeOneShotCommands) {
  ExpectCommandLineError({"--sample-rate", "8000", "--list-speakers"},
                         "Only 16 kHz sample_rate is supported");
}

TEST(CommandLine, ListSpeakersAloneParsesAndTheCommandReportsItsOwnError) {
  // The error comes from the list command, not from parsing: no usage text.
  const ProcessResult r = RunArgs({"--list-speakers"});
  EXPECT_EQ(r.stdout_lines,
            std::vector<std::string>{ErrorLine("--list-speakers requires --speaker-enroll-db")});
  EXPECT_EQ(r.stderr_text, "");
  EXPECT_EQ(r.exit_status, 1);
}

TEST(CommandLine, ListSpeakersOfMissingDatabaseNeedsNoModel) {
  TempDir dir;
  const ProcessResult r =
      RunArgs({"--list-speakers", "--speaker-enroll-db", dir.File("speakers.db")});
  EXPECT_EQ(r.stdout_lines,
            std::vector<std::string>{"{\"type\":\"speakers\",\"dim\":0,\"speakers\":[]}"});
  EXPECT_EQ(r.stderr_text, "");
  EXPECT_EQ(r.exit_status, 0);
}

TEST(CommandLine, AudioFormatIsCaseSensitive) {
  ExpectCommandLineError(Concat(SecondPassArgs(), {"--audio-format", "S16LE"}),
                         "Unsupported audio format: S16LE");
}

TEST(CommandLine, WavAndPcmInputTogetherFail) {
  ExpectCommandLineError(
      Concat(SecondPassArgs(), {"--wav-input", "a.wav", "--pcm-input", "a.pcm", "--manual-mode"}),
      "--wav-input and --pcm-input cannot be used together");
}

TEST(CommandLine, UnknownFirstModelTypeQuotesValueAsTyped) {
  ExpectCommandLineError(Concat(SecondPassArgs(), {"--first-model-type", "Conformer"}),
                         "Unsupported --first-model-type: Conformer (expect transducer|paraformer)");
}

TEST(CommandLine, UnknownSecondTypeQuotesValueAsTyped) {
  ExpectCommandLineError(Concat(SecondPassArgs(), {"--second-type", "Paraformer"}),
                         "Unsupported --second-type: Paraformer (expect sensevoice|whisper)");
}

// --manual-realtime builds the streaming recognizer, which only loads when it
// is handed the canonical model type.
std::vector<std::string> RealtimeArgs() {
  return {"--manual-realtime", "--silero-vad-model", SileroVadModel(), "--num-threads-first", "1"};
}

const char* const kOnlineReady = "[M3] Online recognizer initialized for first-pass partials";

TEST(CommandLine, UppercaseZipformerWithAllTransducerFilesLoadsAsTransducer) {
  ExpectLiveSessionRuns(Concat(Concat(Concat(SecondPassArgs(), TransducerFiles()), RealtimeArgs()),
                               {"--first-model-type", "ZIPFORMER"}),
                        kOnlineReady);
}

TEST(CommandLine, ParaformerWithoutJoinerLoads) {
  ExpectLiveSessionRuns(
      Concat(Concat(Concat(SecondPassArgs(), ParaformerFilesWithoutJoiner()), RealtimeArgs()),
             {"--first-model-type", "paraformer"}),
      kOnlineReady);
}

TEST(CommandLine, TransducerWithoutJoinerFailsWithTransducerMessage) {
  ExpectCommandLineError(Concat(Concat(SecondPassArgs(), ParaformerFilesWithoutJoiner()),
                                {"--first-model-type", "transducer"}),
                         "Streaming transducer model paths are required when not in --manual-mode");
}

TEST(CommandLine, ParaformerWithoutTokensFailsWithParaformerMessage) {
  const std::string dir = ModelPath("stubs/streaming-paraformer/");
  ExpectCommandLineError(
      Concat(SecondPassArgs(), {"--first-model-type", "paraformer", "--first-encoder",
                                dir + "encoder.onnx", "--first-decoder", dir + "decoder.onnx"}),
      "Streaming paraformer model paths are required when not in --manual-mode");
}

TEST(CommandLine, EmptySecondTypeWithEncoderIsWhisperAndNeedsDecoder) {
  ExpectCommandLineError({"--second-type", "", "--second-encoder", WhisperStubEncoder(),
                          "--second-tokens", WhisperStubTokens(), "--manual-mode"},
                         "--second-encoder and --second-decoder are required when --second-type is "
                         "whisper");
}

TEST(CommandLine, SensevoiceWithoutModelFails) {
  ExpectCommandLineError({"--second-tokens", PatternSenseVoiceTokens(), "--manual-mode"},
                         "--second-model is required when --second-type is sensevoice");
}

TEST(CommandLine, ManualModeNeedsNoFirstPassModel) {
  ExpectLiveSessionRuns(Concat(SecondPassArgs(), {"--manual-mode"}));
}

TEST(CommandLine, SingleModelStreamingNeedsNoFirstPassModel) {
  ExpectLiveSessionRuns(Concat(SecondPassArgs(), {"--single-model-streaming"}));
}

TEST(CommandLine, NonNumericThreadCountIsAcceptedWithoutComplaint) {
  ExpectLiveSessionRuns(Concat(SecondPassArgs(), {"--manual-mode", "--num-threads-first", "abc"}));
}

TEST(CommandLine, LastSpellingOfRegisterNameWins) {
  TempDir dir;
  const ProcessResult r = RunArgs(
      {"--enroll-name", "Bob", "--register-name", "Ann", "--register-input",
       AudioPath("espeak-dialog/a_enroll.wav"), "--speaker-embedding-model",
       ModelPath("trained/speaker-embedding/model.onnx"), "--speaker-enroll-db",
       dir.File("speakers.db"), "--speaker-samples-dir", dir.File("samples")});
  EXPECT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  EXPECT_EQ(r.stderr_text, "");
  ASSERT_FALSE(r.stdout_lines.empty());
  EXPECT_EQ(JsonStringField(r.stdout_lines.back(), "status"), "registered");
  EXPECT_EQ(JsonStringField(r.stdout_lines.back(), "name"), "Ann");
}

TEST(CommandLine, ValuedOptionGivenLastIsMissingItsValue) {
  ExpectCommandLineError(Concat(SecondPassArgs(), {"--first-tokens"}),
                         "Missing value for --first-tokens");
}

TEST(CommandLine, UnknownOptionIsSkippedAndTheNextWordReadOnItsOwn) {
  // Were --no-such-option to take a value, --manual-mode would be swallowed and
  // the missing first-pass model would fail the run.
  ExpectLiveSessionRuns(Concat(SecondPassArgs(), {"--no-such-option", "--manual-mode", "stray"}));
}

TEST(CommandLine, RegistrationRunsBeforeListingWhenBothAreNamed) {
  const ProcessResult r = RunArgs({"--list-speakers", "--register-name", "Ann"});
  EXPECT_EQ(r.stdout_lines, std::vector<std::string>{
                                ErrorLine("--register-name requires --speaker-embedding-model")});
  EXPECT_EQ(r.stderr_text, "");
  EXPECT_EQ(r.exit_status, 1);
}

}  // namespace
}  // namespace kerrow::testing
