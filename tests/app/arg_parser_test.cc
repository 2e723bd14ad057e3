#include "app/arg_parser.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/options.h"

namespace kerrow::testing {
namespace {

// Holds argv storage for one ParseArgs call; the program name comes first.
struct ParseOutcome {
  bool ok = false;
  Options options;
  std::string error;
};

ParseOutcome Parse(const std::vector<std::string>& args) {
  std::vector<std::string> storage = {"kerrow"};
  storage.insert(storage.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& arg : storage) argv.push_back(arg.data());
  argv.push_back(nullptr);
  ParseOutcome outcome;
  outcome.ok = ParseArgs(static_cast<int>(storage.size()), argv.data(), &outcome.options,
                         &outcome.error);
  return outcome;
}

// The smallest command line that passes every rule: a SenseVoice second pass
// and a transducer first pass.
std::vector<std::string> ValidArgs() {
  return {"--second-model", "sv.onnx",       "--second-tokens", "tokens.txt",
          "--first-encoder", "enc.onnx",     "--first-decoder", "dec.onnx",
          "--first-joiner",  "joiner.onnx",  "--first-tokens",  "first_tokens.txt"};
}

std::vector<std::string> With(std::vector<std::string> args,
                              const std::vector<std::string>& more) {
  args.insert(args.end(), more.begin(), more.end());
  return args;
}

TEST(ParseArgs, NullPointersFailWithoutWriting) {
  std::string storage = "kerrow";
  char* argv[] = {storage.data(), nullptr};
  Options options;
  std::string error = "untouched";
  EXPECT_FALSE(ParseArgs(1, argv, nullptr, &error));
  EXPECT_EQ(error, "untouched");
  EXPECT_FALSE(ParseArgs(1, argv, &options, nullptr));
}

TEST(ParseArgs, NoArgumentsFailWithSecondTokensRequired) {
  const ParseOutcome outcome = Parse({});
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.error, "--second-tokens is required");
}

TEST(ParseArgs, ValidCommandLineKeepsDefaults) {
  const ParseOutcome outcome = Parse(ValidArgs());
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(outcome.options.first_model_type, "transducer");
  EXPECT_EQ(outcome.options.second_type, "sensevoice");
  EXPECT_EQ(outcome.options.second_model, "sv.onnx");
  EXPECT_EQ(outcome.options.first_joiner, "joiner.onnx");
  EXPECT_EQ(outcome.options.num_threads_second, 4);
  EXPECT_EQ(outcome.options.audio_fd, 3);
  EXPECT_DOUBLE_EQ(outcome.options.chunk_duration, 0.1);
  EXPECT_EQ(outcome.options.session_id, -1);
  EXPECT_FALSE(outcome.options.manual_mode);
}

TEST(ParseArgs, HelpAnywhereRequestsUsage) {
  EXPECT_EQ(Parse({"--help"}).error, "help");
  EXPECT_EQ(Parse({"-h"}).error, "help");
  const ParseOutcome after_unknown = Parse({"--no-such-option", "--help"});
  EXPECT_FALSE(after_unknown.ok);
  EXPECT_EQ(after_unknown.error, "help");
  // Usage wins over a missing value that would be found later.
  EXPECT_EQ(Parse({"--help", "--first-tokens"}).error, "help");
}

TEST(ParseArgs, HelpAfterValuedOptionIsItsValue) {
  const ParseOutcome outcome = Parse(With(ValidArgs(), {"--second-language", "--help"}));
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(outcome.options.second_language, "--help");
}

TEST(ParseArgs, BareWordHelpIsAnUnknownArgument) {
  const ParseOutcome outcome = Parse({"help"});
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.error, "--second-tokens is required");
}

TEST(ParseArgs, SampleRateRuleComesBeforeOneShotSkip) {
  const ParseOutcome outcome = Parse({"--sample-rate", "8000", "--list-speakers"});
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.error, "Only 16 kHz sample_rate is supported");
}

TEST(ParseArgs, ListSpeakersAloneSucceeds) {
  const ParseOutcome outcome = Parse({"--list-speakers"});
  EXPECT_TRUE(outcome.ok) << outcome.error;
  EXPECT_TRUE(outcome.options.list_speakers);
}

TEST(ParseArgs, EveryOneShotCommandSkipsModelChecks) {
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"--register-name", "Ann"},
           {"--identify-only"},
           {"--migrate-speakers"},
           {"--unregister-speaker-id", "id"},
           {"--unregister-name", "Ann"},
           {"--unregister-md5", "abc"},
           {"--rename-speaker-id", "id"}}) {
    // An unsupported audio format would fail any other run.
    const ParseOutcome outcome = Parse(With(args, {"--audio-format", "bogus"}));
    EXPECT_TRUE(outcome.ok) << args[0] << ": " << outcome.error;
  }
}

TEST(ParseArgs, AudioFormatIsCaseSensitive) {
  const ParseOutcome outcome = Parse(With(ValidArgs(), {"--audio-format", "S16LE"}));
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.error, "Unsupported audio format: S16LE");
  EXPECT_TRUE(Parse(With(ValidArgs(), {"--audio-format", "f32le"})).ok);
}

TEST(ParseArgs, WavAndPcmInputTogetherFail) {
  const ParseOutcome outcome =
      Parse(With(ValidArgs(), {"--wav-input", "a.wav", "--pcm-input", "a.pcm"}));
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.error, "--wav-input and --pcm-input cannot be used together");
}

TEST(ParseArgs, ZipformerInAnyCaseIsStoredAsTransducer) {
  const ParseOutcome outcome = Parse(With(ValidArgs(), {"--first-model-type", "ZIPFORMER"}));
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(outcome.options.first_model_type, "transducer");
}

TEST(ParseArgs, UnknownFirstModelTypeQuotesValueAsTyped) {
  const ParseOutcome outcome = Parse(With(ValidArgs(), {"--first-model-type", "Conformer"}));
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.error, "Unsupported --first-model-type: Conformer (expect transducer|paraformer)");
}

TEST(ParseArgs, ParaformerNeedsNoJoiner) {
  const ParseOutcome outcome =
      Parse({"--first-model-type", "paraformer", "--first-encoder", "e", "--first-decoder", "d",
             "--first-tokens", "t", "--second-model", "m", "--second-tokens", "t2"});
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(outcome.options.first_model_type, "paraformer");
}

TEST(ParseArgs, TransducerWithoutJoinerFailsWithTransducerMessage) {
  const ParseOutcome outcome =
      Parse({"--first-model-type", "transducer", "--first-encoder", "e", "--first-decoder", "d",
             "--first-tokens", "t", "--second-model", "m", "--second-tokens", "t2"});
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.error, "Streaming transducer model paths are required when not in --manual-mode");
}

TEST(ParseArgs, ParaformerWithoutTokensFailsWithParaformerMessage) {
  const ParseOutcome outcome =
      Parse({"--first-model-type", "Paraformer", "--first-encoder", "e", "--first-decoder", "d",
             "--second-model", "m", "--second-tokens", "t2"});
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.error, "Streaming paraformer model paths are required when not in --manual-mode");
}

TEST(ParseArgs, EmptyFirstModelTypeIsInferredFromJoiner) {
  const ParseOutcome with_joiner = Parse(With(ValidArgs(), {"--first-model-type", ""}));
  ASSERT_TRUE(with_joiner.ok) << with_joiner.error;
  EXPECT_EQ(with_joiner.options.first_model_type, "transducer");
  const ParseOutcome without_joiner =
      Parse({"--first-model-type", "", "--manual-mode", "--second-model", "m",
             "--second-tokens", "t"});
  ASSERT_TRUE(without_joiner.ok) << without_joiner.error;
  EXPECT_EQ(without_joiner.options.first_model_type, "paraformer");
}

TEST(ParseArgs, EmptySecondTypeWithEncoderIsWhisperAndNeedsDecoder) {
  const ParseOutcome outcome =
      Parse(With(ValidArgs(), {"--second-type", "", "--second-encoder", "enc.onnx"}));
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.options.second_type, "whisper");
  EXPECT_EQ(outcome.error,
            "--second-encoder and --second-decoder are required when --second-type is whisper");
}

TEST(ParseArgs, EmptySecondTypeWithoutWhisperPartsIsSensevoice) {
  const ParseOutcome outcome = Parse(With(ValidArgs(), {"--second-type", ""}));
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(outcome.options.second_type, "sensevoice");
}

TEST(ParseArgs, SenseDashVoiceIsStoredAsSensevoice) {
  const ParseOutcome outcome = Parse(With(ValidArgs(), {"--second-type", "Sense-Voice"}));
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(outcome.options.second_type, "sensevoice");
}

TEST(ParseArgs, UnknownSecondTypeQuotesValueAsTyped) {
  const ParseOutcome outcome = Parse(With(ValidArgs(), {"--second-type", "Paraformer"}));
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.error, "Unsupported --second-type: Paraformer (expect sensevoice|whisper)");
}

TEST(ParseArgs, SensevoiceNeedsSecondModel) {
  const ParseOutcome outcome = Parse({"--second-tokens", "t", "--manual-mode"});
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.error, "--second-model is required when --second-type is sensevoice");
}

TEST(ParseArgs, WhisperWithEncoderAndDecoderNeedsNoSecondModel) {
  const ParseOutcome outcome =
      Parse({"--second-type", "WHISPER", "--second-encoder", "e", "--second-decoder", "d",
             "--second-tokens", "t", "--manual-mode"});
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(outcome.options.second_type, "whisper");
}

TEST(ParseArgs, ManualModeNeedsNoFirstPassModel) {
  const ParseOutcome outcome =
      Parse({"--manual-mode", "--second-model", "m", "--second-tokens", "t"});
  EXPECT_TRUE(outcome.ok) << outcome.error;
  EXPECT_TRUE(outcome.options.manual_mode);
}

TEST(ParseArgs, SingleModelStreamingNeedsNoFirstPassModel) {
  const ParseOutcome outcome =
      Parse({"--single-model-streaming", "--second-model", "m", "--second-tokens", "t"});
  EXPECT_TRUE(outcome.ok) << outcome.error;
  EXPECT_TRUE(outcome.options.single_model_streaming);
}

TEST(ParseArgs, NonNumericIntegerStoresZero) {
  const ParseOutcome outcome = Parse(With(ValidArgs(), {"--num-threads-first", "abc"}));
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(outcome.options.num_threads_first, 0);
}

TEST(ParseArgs, NumbersTakeTheirNumericPrefix) {
  const ParseOutcome outcome = Parse(With(
      ValidArgs(), {"--session-id", "42x", "--chunk-duration", "0.25s", "--vad-threshold", "x"}));
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(outcome.options.session_id, 42);
  EXPECT_DOUBLE_EQ(outcome.options.chunk_duration, 0.25);
  EXPECT_DOUBLE_EQ(outcome.options.vad_threshold, 0.0);
}

TEST(ParseArgs, LegacyAndNewSpellingShareOneFieldLastWins) {
  const ParseOutcome outcome = Parse({"--enroll-name", "Bob", "--register-name", "Ann"});
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(outcome.options.register_name, "Ann");
  const ParseOutcome input =
      Parse({"--register-name", "Ann", "--register-input", "a.wav", "--enroll-input", "b.wav"});
  EXPECT_EQ(input.options.register_input, "b.wav");
}

TEST(ParseArgs, ValuedOptionGivenLastIsMissingItsValue) {
  const ParseOutcome outcome = Parse(With(ValidArgs(), {"--first-tokens"}));
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.error, "Missing value for --first-tokens");
  EXPECT_EQ(Parse({"--audio-fd"}).error, "Missing value for --audio-fd");
  EXPECT_EQ(Parse({"--vad-threshold"}).error, "Missing value for --vad-threshold");
}

TEST(ParseArgs, ValueStartingWithDashesIsStillAValue) {
  const ParseOutcome outcome = Parse(With(ValidArgs(), {"--second-language", "--manual-mode"}));
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(outcome.options.second_language, "--manual-mode");
  EXPECT_FALSE(outcome.options.manual_mode);
}

TEST(ParseArgs, UnknownOptionIsSkippedAndFollowingWordExaminedAlone) {
  const ParseOutcome outcome =
      Parse(With(ValidArgs(), {"--no-such-option", "--manual-mode", "--other", "word"}));
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_TRUE(outcome.options.manual_mode);
}

TEST(ParseArgs, EveryOptionWritesItsField) {
  const ParseOutcome outcome = Parse(
      {"--first-model-type", "paraformer", "--first-encoder", "fe", "--first-decoder", "fd",
       "--first-joiner", "fj", "--first-tokens", "ft", "--second-type", "whisper",
       "--second-model", "sm", "--second-encoder", "se", "--second-decoder", "sd",
       "--second-tokens", "st", "--second-language", "en", "--second-task", "translate",
       "--disable-second-itn", "--ct-transformer", "ct", "--num-threads-first", "5",
       "--num-threads-second", "6", "--num-threads-punc", "7", "--provider-first", "p1",
       "--provider-second", "p2", "--provider-punc", "p3", "--second-pass-every", "3",
       "--tail-padding", "100", "--sample-rate", "16000", "--audio-fd", "9", "--audio-format",
       "f32le", "--chunk-duration", "0.2", "--disable-endpoint", "--silero-vad-model", "vad",
       "--vad-threshold", "0.4", "--vad-min-silence", "0.6", "--vad-min-speech", "0.3",
       "--vad-max-speech", "9", "--vad-lookback", "0.15", "--vad-lookahead", "0.05",
       "--wav-input", "in.wav", "--manual-mode", "--manual-realtime", "--offline-2pass",
       "--diarization", "--diarization-model", "dm", "--diarization-segmentation-model", "dsm",
       "--diarization-embedding-model", "dem", "--diarization-helper-binary", "dhb",
       "--diarization-backend", "sortformer", "--diarization-min-speakers", "1",
       "--diarization-max-speakers", "4", "--diarization-num-threads", "2", "--speaker-id",
       "--speaker-embedding-model", "sem", "--speaker-enroll-db", "db", "--speaker-id-threshold",
       "0.65", "--speaker-id-max-seconds", "12", "--register-speaker-id", "rid",
       "--register-input", "ri", "--speaker-samples-dir", "ssd", "--segments-input", "seg",
       "--rename-speaker-name", "rn", "--start-paused", "--session-id", "11",
       "--single-model-streaming", "--single-partial-interval", "0.3", "--single-trim-cap", "2.5",
       "--single-trim-keep", "1.1", "--single-max-window", "6.5"});
  ASSERT_TRUE(outcome.ok) << outcome.error;
  const Options& o = outcome.options;
  EXPECT_EQ(o.first_model_type, "paraformer");
  EXPECT_EQ(o.first_encoder, "fe");
  EXPECT_EQ(o.first_decoder, "fd");
  EXPECT_EQ(o.first_joiner, "fj");
  EXPECT_EQ(o.first_tokens, "ft");
  EXPECT_EQ(o.second_type, "whisper");
  EXPECT_EQ(o.second_model, "sm");
  EXPECT_EQ(o.second_encoder, "se");
  EXPECT_EQ(o.second_decoder, "sd");
  EXPECT_EQ(o.second_tokens, "st");
  EXPECT_EQ(o.second_language, "en");
  EXPECT_EQ(o.second_task, "translate");
  EXPECT_TRUE(o.disable_second_itn);
  EXPECT_EQ(o.ct_transformer, "ct");
  EXPECT_EQ(o.num_threads_first, 5);
  EXPECT_EQ(o.num_threads_second, 6);
  EXPECT_EQ(o.num_threads_punc, 7);
  EXPECT_EQ(o.provider_first, "p1");
  EXPECT_EQ(o.provider_second, "p2");
  EXPECT_EQ(o.provider_punc, "p3");
  EXPECT_EQ(o.second_pass_every, 3);
  EXPECT_EQ(o.tail_padding, 100);
  EXPECT_EQ(o.sample_rate, 16000);
  EXPECT_EQ(o.audio_fd, 9);
  EXPECT_EQ(o.audio_format, "f32le");
  EXPECT_DOUBLE_EQ(o.chunk_duration, 0.2);
  EXPECT_TRUE(o.disable_endpoint);
  EXPECT_EQ(o.silero_vad_model, "vad");
  EXPECT_DOUBLE_EQ(o.vad_threshold, 0.4);
  EXPECT_DOUBLE_EQ(o.vad_min_silence, 0.6);
  EXPECT_DOUBLE_EQ(o.vad_min_speech, 0.3);
  EXPECT_DOUBLE_EQ(o.vad_max_speech, 9.0);
  EXPECT_DOUBLE_EQ(o.vad_lookback, 0.15);
  EXPECT_DOUBLE_EQ(o.vad_lookahead, 0.05);
  EXPECT_EQ(o.wav_input, "in.wav");
  EXPECT_TRUE(o.manual_mode);
  EXPECT_TRUE(o.manual_realtime);
  EXPECT_TRUE(o.offline_2pass);
  EXPECT_TRUE(o.diarization);
  EXPECT_EQ(o.diarization_model, "dm");
  EXPECT_EQ(o.diarization_segmentation_model, "dsm");
  EXPECT_EQ(o.diarization_embedding_model, "dem");
  EXPECT_EQ(o.diarization_helper_binary, "dhb");
  EXPECT_EQ(o.diarization_backend, "sortformer");
  EXPECT_EQ(o.diarization_min_speakers, 1);
  EXPECT_EQ(o.diarization_max_speakers, 4);
  EXPECT_EQ(o.diarization_num_threads, 2);
  EXPECT_TRUE(o.speaker_id);
  EXPECT_EQ(o.speaker_embedding_model, "sem");
  EXPECT_EQ(o.speaker_enroll_db, "db");
  EXPECT_DOUBLE_EQ(o.speaker_id_threshold, 0.65);
  EXPECT_DOUBLE_EQ(o.speaker_id_max_seconds, 12.0);
  EXPECT_EQ(o.register_speaker_id, "rid");
  EXPECT_EQ(o.register_input, "ri");
  EXPECT_EQ(o.speaker_samples_dir, "ssd");
  EXPECT_EQ(o.segments_input, "seg");
  EXPECT_EQ(o.rename_speaker_name, "rn");
  EXPECT_TRUE(o.start_paused);
  EXPECT_EQ(o.session_id, 11);
  EXPECT_TRUE(o.single_model_streaming);
  EXPECT_DOUBLE_EQ(o.single_partial_interval, 0.3);
  EXPECT_DOUBLE_EQ(o.single_trim_cap, 2.5);
  EXPECT_DOUBLE_EQ(o.single_trim_keep, 1.1);
  EXPECT_DOUBLE_EQ(o.single_max_window, 6.5);
}

TEST(ParseArgs, OneShotFieldsAreWrittenToo) {
  const ParseOutcome outcome =
      Parse({"--identify-only", "--list-speakers", "--migrate-speakers",
             "--unregister-speaker-id", "u1", "--unregister-name", "un", "--unregister-md5",
             "md5", "--rename-speaker-id", "r1"});
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_TRUE(outcome.options.identify_only);
  EXPECT_TRUE(outcome.options.list_speakers);
  EXPECT_TRUE(outcome.options.migrate_speakers);
  EXPECT_EQ(outcome.options.unregister_speaker_id, "u1");
  EXPECT_EQ(outcome.options.unregister_name, "un");
  EXPECT_EQ(outcome.options.unregister_md5, "md5");
  EXPECT_EQ(outcome.options.rename_speaker_id, "r1");
}

TEST(ParseArgs, OneShotCommandLeavesModelTypesUncanonicalised) {
  const ParseOutcome outcome = Parse({"--list-speakers", "--first-model-type", "Zipformer"});
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(outcome.options.first_model_type, "Zipformer");
}

TEST(NormalizeFirstModelType, FoldsCaseAndMapsZipformer) {
  EXPECT_EQ(NormalizeFirstModelType("Transducer"), "transducer");
  EXPECT_EQ(NormalizeFirstModelType("zipformer"), "transducer");
  EXPECT_EQ(NormalizeFirstModelType("PARAFORMER"), "paraformer");
  EXPECT_EQ(NormalizeFirstModelType(" transducer"), "");
  EXPECT_EQ(NormalizeFirstModelType(""), "");
}

TEST(NormalizeSecondType, FoldsCaseAndMapsSenseDashVoice) {
  EXPECT_EQ(NormalizeSecondType("SenseVoice"), "sensevoice");
  EXPECT_EQ(NormalizeSecondType("sense-voice"), "sensevoice");
  EXPECT_EQ(NormalizeSecondType("Whisper"), "whisper");
  EXPECT_EQ(NormalizeSecondType("whisper "), "");
  EXPECT_EQ(NormalizeSecondType(""), "");
}

}  // namespace
}  // namespace kerrow::testing
