#include "engine/offline_decoder_backend.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {


DecoderInitOptions TrainedSenseVoice() {
  DecoderInitOptions options;
  options.model_type = "sensevoice";
  options.sense_voice_model = ModelPath("trained/sensevoice-en-char/model.onnx");
  options.tokens = ModelPath("trained/sensevoice-en-char/tokens.txt");
  options.language = "en";
  options.num_threads = 1;
  return options;
}

DecoderInitOptions PatternSenseVoice() {
  DecoderInitOptions options;
  options.model_type = "sensevoice";
  options.sense_voice_model = ModelPath("stubs/sensevoice-pattern/model.onnx");
  options.tokens = ModelPath("stubs/sensevoice-pattern/tokens.txt");
  return options;
}

DecoderInitOptions WhisperStub() {
  DecoderInitOptions options;
  options.model_type = "whisper";
  options.whisper_encoder = ModelPath("stubs/whisper/encoder.onnx");
  options.whisper_decoder = ModelPath("stubs/whisper/decoder.onnx");
  options.tokens = ModelPath("stubs/whisper/tokens.txt");
  return options;
}

ResolvedDecoderConfig Resolve(const DecoderInitOptions& options) {
  ResolvedDecoderConfig resolved;
  std::string error;
  EXPECT_TRUE(ResolveDecoderConfig(options, &resolved, &error)) << error;
  return resolved;
}

std::string ResolveError(const DecoderInitOptions& options) {
  ResolvedDecoderConfig resolved;
  std::string error;
  EXPECT_FALSE(ResolveDecoderConfig(options, &resolved, &error));
  return error;
}

std::string InitError(const DecoderInitOptions& options) {
  OfflineDecoderBackend decoder;
  std::string error;
  EXPECT_FALSE(decoder.Init(options, &error));
  EXPECT_FALSE(decoder.IsReady());
  return error;
}

OnnxModelInfo MultilingualWhisperInfo() {
  OnnxModelInfo info;
  info.metadata = {{"is_multilingual", "1"}, {"all_language_codes", "en,zh,de,es,ru,ko,fr,ja"}};
  return info;
}

std::string Trimmed(const std::string& text) {
  const size_t first = text.find_first_not_of(' ');
  if (first == std::string::npos) return "";
  const size_t last = text.find_last_not_of(' ');
  return text.substr(first, last - first + 1);
}

// ---- Model type resolution -------------------------------------------------

TEST(ResolveDecoderModelType, SenseVoiceWithHyphenAndMixedCaseSelectsSenseVoice) {
  DecoderInitOptions options;
  options.model_type = "Sense-Voice";
  EXPECT_EQ(ResolveDecoderModelType(options), "sensevoice");
}

TEST(ResolveDecoderModelType, UppercaseWhisperSelectsWhisper) {
  DecoderInitOptions options;
  options.model_type = "WHISPER";
  EXPECT_EQ(ResolveDecoderModelType(options), "whisper");
}

TEST(ResolveDecoderModelType, UnknownWordIsTreatedAsSenseVoiceAndNeedsItsPath) {
  DecoderInitOptions options;
  options.model_type = "foo";
  options.tokens = "tokens.txt";
  options.whisper_encoder = "encoder.onnx";
  options.whisper_decoder = "decoder.onnx";
  EXPECT_EQ(ResolveDecoderModelType(options), "sensevoice");
  EXPECT_EQ(ResolveError(options), "SenseVoice second-pass requires model path");
}

TEST(ResolveDecoderModelType, EmptyTypeWithOnlyWhisperDecoderSelectsWhisperThenFails) {
  DecoderInitOptions options;
  options.model_type = "";
  options.tokens = "tokens.txt";
  options.whisper_decoder = "decoder.onnx";
  EXPECT_EQ(ResolveDecoderModelType(options), "whisper");
  EXPECT_EQ(ResolveError(options), "Whisper second-pass requires encoder and decoder paths");
}

TEST(ResolveDecoderModelType, EmptyTypeWithoutWhisperPathsSelectsSenseVoice) {
  DecoderInitOptions options;
  options.model_type = "";
  EXPECT_EQ(ResolveDecoderModelType(options), "sensevoice");
}

TEST(ResolveDecoderConfig, MissingTokensFailsBeforeAnyModelCheckWhateverTheType) {
  for (const char* type : {"sensevoice", "whisper", "foo", ""}) {
    DecoderInitOptions options;
    options.model_type = type;
    EXPECT_EQ(ResolveError(options), "Second-pass tokens path is empty") << type;
    EXPECT_EQ(InitError(options), "Second-pass tokens path is empty") << type;
  }
}

// ---- Language, task and threads that reach the config ----------------------

TEST(ResolveDecoderConfig, WhisperAutoInAnyCaseOrEmptyLanguageAsksTheLibraryToDetect) {
  DecoderInitOptions options = WhisperStub();
  for (const char* language : {"", "auto", "Auto", "AUTO"}) {
    options.language = language;
    EXPECT_EQ(Resolve(options).language, "") << language;
  }
}

TEST(ResolveDecoderConfig, WhisperLanguageIsLowercased) {
  DecoderInitOptions options = WhisperStub();
  options.language = "DE";
  EXPECT_EQ(Resolve(options).language, "de");
}

TEST(ResolveDecoderConfig, SenseVoiceEmptyLanguageBecomesZh) {
  DecoderInitOptions options = PatternSenseVoice();
  options.language = "";
  EXPECT_EQ(Resolve(options).language, "zh");
}

TEST(ResolveDecoderConfig, SenseVoiceLanguageIsPassedUnchanged) {
  DecoderInitOptions options = PatternSenseVoice();
  options.language = "auto";
  EXPECT_EQ(Resolve(options).language, "auto");
  options.language = "EN";
  EXPECT_EQ(Resolve(options).language, "EN");
}

TEST(ResolveDecoderConfig, WhisperTaskDefaultsToTranscribe) {
  DecoderInitOptions options = WhisperStub();
  options.whisper_task = "";
  EXPECT_EQ(Resolve(options).whisper_task, "transcribe");
  options.whisper_task = "translate";
  EXPECT_EQ(Resolve(options).whisper_task, "translate");
}

TEST(ResolveDecoderConfig, UnknownWhisperTaskFailsWithAClearMessage) {
  DecoderInitOptions options = WhisperStub();
  options.whisper_task = "summarize";
  EXPECT_EQ(ResolveError(options),
            "Unsupported Whisper task 'summarize' (expected transcribe or translate)");
  EXPECT_EQ(InitError(options),
            "Unsupported Whisper task 'summarize' (expected transcribe or translate)");
}

TEST(ResolveDecoderConfig, ZeroOrNegativeThreadsGiveOneThread) {
  DecoderInitOptions options = PatternSenseVoice();
  options.num_threads = 0;
  EXPECT_EQ(Resolve(options).num_threads, 1);
  options.num_threads = -4;
  EXPECT_EQ(Resolve(options).num_threads, 1);
  options.num_threads = 3;
  EXPECT_EQ(Resolve(options).num_threads, 3);
}

TEST(ValidateWhisperLanguage, KnownCodeOfAMultilingualModelPasses) {
  std::string error;
  EXPECT_TRUE(ValidateWhisperLanguage("de", MultilingualWhisperInfo(), &error)) << error;
}

TEST(ValidateWhisperLanguage, UnknownCodeOfAMultilingualModelFails) {
  std::string error;
  EXPECT_FALSE(ValidateWhisperLanguage("xx", MultilingualWhisperInfo(), &error));
  EXPECT_EQ(error, "Unsupported Whisper language 'xx' (the model knows: en,zh,de,es,ru,ko,fr,ja)");
}

TEST(ValidateWhisperLanguage, ListOfCodesFailsInsteadOfKillingTheProcess) {
  std::string error;
  EXPECT_FALSE(ValidateWhisperLanguage("zh,en,fr,de,es", MultilingualWhisperInfo(), &error));
  EXPECT_EQ(error,
            "Unsupported Whisper language 'zh,en,fr,de,es' (the model knows: "
            "en,zh,de,es,ru,ko,fr,ja)");
}

TEST(ValidateWhisperLanguage, EmptyLanguageAlwaysPasses) {
  std::string error;
  EXPECT_TRUE(ValidateWhisperLanguage("", MultilingualWhisperInfo(), &error));
}

TEST(ValidateWhisperLanguage, EnglishOnlyModelAcceptsAnyLanguage) {
  OnnxModelInfo info;
  info.metadata = {{"is_multilingual", "0"}, {"all_language_codes", ""}};
  std::string error;
  EXPECT_TRUE(ValidateWhisperLanguage("xx", info, &error));
}

// ---- Init through the real library ------------------------------------------

TEST(OfflineDecoderBackend, InitWithTheTrainedSenseVoiceModelIsReady) {
  OfflineDecoderBackend decoder;
  std::string error;
  ASSERT_TRUE(decoder.Init(TrainedSenseVoice(), &error)) << error;
  EXPECT_TRUE(decoder.IsReady());
}

TEST(OfflineDecoderBackend, ZeroThreadsStillCreatesTheRecognizer) {
  DecoderInitOptions options = PatternSenseVoice();
  options.num_threads = 0;
  OfflineDecoderBackend decoder;
  std::string error;
  EXPECT_TRUE(decoder.Init(options, &error)) << error;
  EXPECT_TRUE(decoder.IsReady());
}

TEST(OfflineDecoderBackend, EnglishOnlyWhisperIgnoresAnUnknownLanguage) {
  DecoderInitOptions options = WhisperStub();
  options.language = "xx";
  OfflineDecoderBackend decoder;
  std::string error;
  ASSERT_TRUE(decoder.Init(options, &error)) << error;
  std::string text;
  ASSERT_TRUE(decoder.Decode(LoadWavForTest(AudioPath("format-checks/3s.wav")), &text, &error))
      << error;
  EXPECT_EQ(text, "Hello world, this is a stub café.");
}

TEST(OfflineDecoderBackend, MissingTokensFileFailsBeforeTheModel) {
  TempDir dir;
  DecoderInitOptions options = TrainedSenseVoice();
  options.tokens = dir.File("tokens.txt");
  options.sense_voice_model = dir.File("model.onnx");
  EXPECT_EQ(InitError(options), "tokens file not found: " + dir.File("tokens.txt"));
}

TEST(OfflineDecoderBackend, MissingSenseVoiceModelFails) {
  TempDir dir;
  DecoderInitOptions options = TrainedSenseVoice();
  options.sense_voice_model = dir.File("model.onnx");
  EXPECT_EQ(InitError(options), "model file not found: " + dir.File("model.onnx"));
}

TEST(OfflineDecoderBackend, EmptyModelFileFails) {
  TempDir dir;
  WriteFileBytes(dir.File("model.onnx"), "");
  DecoderInitOptions options = TrainedSenseVoice();
  options.sense_voice_model = dir.File("model.onnx");
  EXPECT_EQ(InitError(options), "model file is empty: " + dir.File("model.onnx"));
}

TEST(OfflineDecoderBackend, DirectoryAsModelFails) {
  TempDir dir;
  DecoderInitOptions options = TrainedSenseVoice();
  options.sense_voice_model = dir.path();
  EXPECT_EQ(InitError(options), "model path is a directory: " + dir.path());
}

TEST(OfflineDecoderBackend, TextFileAsModelFails) {
  TempDir dir;
  WriteFileBytes(dir.File("model.onnx"), "not a model at all\n");
  DecoderInitOptions options = TrainedSenseVoice();
  options.sense_voice_model = dir.File("model.onnx");
  EXPECT_EQ(InitError(options), "not a valid ONNX model: " + dir.File("model.onnx"));
}

TEST(OfflineDecoderBackend, RandomBytesAsModelFail) {
  TempDir dir;
  std::string bytes;
  for (int i = 0; i < 2048; ++i) bytes.push_back(static_cast<char>((i * 7919 + 13) % 251));
  WriteFileBytes(dir.File("model.onnx"), bytes);
  DecoderInitOptions options = TrainedSenseVoice();
  options.sense_voice_model = dir.File("model.onnx");
  EXPECT_EQ(InitError(options), "not a valid ONNX model: " + dir.File("model.onnx"));
}

TEST(OfflineDecoderBackend, GitLfsPointerAsModelFails) {
  TempDir dir;
  WriteFileBytes(dir.File("model.onnx"), GitLfsPointerText("00", 8199965));
  DecoderInitOptions options = TrainedSenseVoice();
  options.sense_voice_model = dir.File("model.onnx");
  EXPECT_EQ(InitError(options),
            "model file is a git-lfs pointer, not the model: " + dir.File("model.onnx"));
}

TEST(OfflineDecoderBackend, TruncatedModelFails) {
  TempDir dir;
  const std::string whole = ReadFileBytes(ModelPath("trained/sensevoice-en-char/model.onnx"));
  WriteFileBytes(dir.File("model.onnx"), whole.substr(0, whole.size() / 2));
  DecoderInitOptions options = TrainedSenseVoice();
  options.sense_voice_model = dir.File("model.onnx");
  EXPECT_EQ(InitError(options), "not a valid ONNX model: " + dir.File("model.onnx"));
}

TEST(OfflineDecoderBackend, PunctuationModelAsSenseVoiceFails) {
  DecoderInitOptions options = TrainedSenseVoice();
  options.sense_voice_model = ModelPath("stubs/punct/model.onnx");
  EXPECT_EQ(InitError(options),
            "model " + options.sense_voice_model +
                " lacks metadata key 'lfr_window_size' required for a SenseVoice model (wrong "
                "model family?)");
}

TEST(OfflineDecoderBackend, SwappedWhisperEncoderAndDecoderFail) {
  DecoderInitOptions options = WhisperStub();
  std::swap(options.whisper_encoder, options.whisper_decoder);
  EXPECT_EQ(InitError(options),
            "model " + options.whisper_encoder +
                " lacks metadata key 'n_mels' required for a Whisper encoder model (wrong model "
                "family?)");
}

TEST(OfflineDecoderBackend, MissingWhisperDecoderFileFails) {
  TempDir dir;
  DecoderInitOptions options = WhisperStub();
  options.whisper_decoder = dir.File("decoder.onnx");
  EXPECT_EQ(InitError(options), "model file not found: " + dir.File("decoder.onnx"));
}

TEST(OfflineDecoderBackend, FailedReinitLeavesTheBackendNotReady) {
  OfflineDecoderBackend decoder;
  std::string error;
  ASSERT_TRUE(decoder.Init(PatternSenseVoice(), &error)) << error;
  DecoderInitOptions broken = PatternSenseVoice();
  broken.tokens.clear();
  EXPECT_FALSE(decoder.Init(broken, &error));
  EXPECT_EQ(error, "Second-pass tokens path is empty");
  EXPECT_FALSE(decoder.IsReady());
  std::string text;
  EXPECT_FALSE(decoder.Decode(std::vector<float>(16000, 0.0f), &text, &error));
  EXPECT_EQ(error, "Decoder is not initialized");
}

// ---- Decoding ---------------------------------------------------------------

TEST(OfflineDecoderBackend, EmptyBlockSucceedsWithEmptyTextEvenBeforeInit) {
  OfflineDecoderBackend decoder;
  std::string text = "stale";
  std::string error;
  EXPECT_TRUE(decoder.Decode({}, &text, &error));
  EXPECT_EQ(text, "");
  DecodedTokens tokens;
  tokens.text = "stale";
  tokens.tokens = {"x"};
  EXPECT_TRUE(decoder.DecodeWithTokens({}, &tokens, &error));
  EXPECT_EQ(tokens.text, "");
  EXPECT_TRUE(tokens.tokens.empty());
}

TEST(OfflineDecoderBackend, DecodeBeforeInitFails) {
  OfflineDecoderBackend decoder;
  std::string text;
  std::string error;
  EXPECT_FALSE(decoder.Decode(std::vector<float>(1600, 0.0f), &text, &error));
  EXPECT_EQ(error, "Decoder is not initialized");
  EXPECT_FALSE(decoder.Decode(std::vector<float>(1600, 0.0f), &text, nullptr));
}

TEST(OfflineDecoderBackend, TrainedSenseVoiceTranscribesTheShortSentence) {
  OfflineDecoderBackend decoder;
  std::string error;
  ASSERT_TRUE(decoder.Init(TrainedSenseVoice(), &error)) << error;
  DecodedTokens decoded;
  ASSERT_TRUE(decoder.DecodeWithTokens(LoadWavForTest(AudioPath("espeak/en_short.wav")), &decoded,
                                       &error))
      << error;
  const std::string reference = "hello world this is a test of the second pass recognizer";
  EXPECT_LT(CharacterErrorRate(reference, Trimmed(decoded.text)), 0.3) << decoded.text;
  ASSERT_FALSE(decoded.tokens.empty());
  std::string joined;
  for (const auto& token : decoded.tokens) joined += token;
  EXPECT_EQ(Trimmed(joined), Trimmed(decoded.text));
  ASSERT_EQ(decoded.timestamps.size(), decoded.tokens.size());
  for (size_t i = 1; i < decoded.timestamps.size(); ++i) {
    EXPECT_GE(decoded.timestamps[i], decoded.timestamps[i - 1]);
  }
  EXPECT_GE(decoded.timestamps.front(), 0.0f);
  EXPECT_LT(decoded.timestamps.back(), 4.4f);
  EXPECT_TRUE(decoded.durations.empty());
}

TEST(OfflineDecoderBackend, DecodeAndDecodeWithTokensGiveTheSameText) {
  OfflineDecoderBackend decoder;
  std::string error;
  ASSERT_TRUE(decoder.Init(TrainedSenseVoice(), &error)) << error;
  const std::vector<float> audio = LoadWavForTest(AudioPath("espeak/en_short.wav"));
  std::string text;
  ASSERT_TRUE(decoder.Decode(audio, &text, &error)) << error;
  DecodedTokens decoded;
  ASSERT_TRUE(decoder.DecodeWithTokens(audio, &decoded, &error)) << error;
  EXPECT_EQ(text, decoded.text);
  EXPECT_FALSE(text.empty());
}

TEST(OfflineDecoderBackend, PatternStubGivesLettersWithTimestampsEvery120Ms) {
  OfflineDecoderBackend decoder;
  std::string error;
  ASSERT_TRUE(decoder.Init(PatternSenseVoice(), &error)) << error;
  DecodedTokens decoded;
  ASSERT_TRUE(decoder.DecodeWithTokens(std::vector<float>(16000, 0.0f), &decoded, &error)) << error;
  EXPECT_EQ(decoded.text, "abcdefghi");
  EXPECT_EQ(decoded.tokens,
            (std::vector<std::string>{"a", "b", "c", "d", "e", "f", "g", "h", "i"}));
  ASSERT_EQ(decoded.timestamps.size(), 9u);
  for (size_t i = 0; i < decoded.timestamps.size(); ++i) {
    EXPECT_NEAR(decoded.timestamps[i], 0.12f * static_cast<float>(i), 1e-4) << i;
  }
  EXPECT_TRUE(decoded.durations.empty());
}

TEST(OfflineDecoderBackend, WhisperStubPlaysItsScriptOnThreeSeconds) {
  OfflineDecoderBackend decoder;
  std::string error;
  ASSERT_TRUE(decoder.Init(WhisperStub(), &error)) << error;
  DecodedTokens decoded;
  ASSERT_TRUE(decoder.DecodeWithTokens(LoadWavForTest(AudioPath("format-checks/3s.wav")), &decoded,
                                       &error))
      << error;
  EXPECT_EQ(decoded.text, "Hello world, this is a stub café.");
  EXPECT_FALSE(decoded.tokens.empty());
  // Without token timestamps switched on, Whisper reports no times.
  EXPECT_TRUE(decoded.timestamps.empty());
  EXPECT_TRUE(decoded.durations.empty());
}

TEST(OfflineDecoderBackend, WhisperStubIsCutBySixTokensPerSecondOnOneSecond) {
  OfflineDecoderBackend decoder;
  std::string error;
  ASSERT_TRUE(decoder.Init(WhisperStub(), &error)) << error;
  std::string text;
  ASSERT_TRUE(decoder.Decode(LoadWavForTest(AudioPath("format-checks/1s.wav")), &text, &error))
      << error;
  EXPECT_EQ(text, "Hello world, this is a");
}

TEST(OfflineDecoderBackend, WhisperAutoLanguageDecodesWithoutEndingTheProcess) {
  DecoderInitOptions options = WhisperStub();
  options.language = "auto";
  OfflineDecoderBackend decoder;
  std::string error;
  ASSERT_TRUE(decoder.Init(options, &error)) << error;
  std::string text;
  ASSERT_TRUE(decoder.Decode(LoadWavForTest(AudioPath("format-checks/3s.wav")), &text, &error))
      << error;
  EXPECT_EQ(text, "Hello world, this is a stub café.");
}

TEST(OfflineDecoderBackend, ConcurrentDecodesAreSerialisedAndAgree) {
  OfflineDecoderBackend decoder;
  std::string error;
  ASSERT_TRUE(decoder.Init(PatternSenseVoice(), &error)) << error;
  const std::vector<float> one_second(16000, 0.0f);
  std::vector<std::string> texts(4);
  std::vector<int> ok(4, 0);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < texts.size(); ++t) {
    threads.emplace_back([&, t] {
      std::string thread_error;
      ok[t] = decoder.Decode(one_second, &texts[t], &thread_error) ? 1 : 0;
    });
  }
  for (auto& thread : threads) thread.join();
  for (size_t t = 0; t < texts.size(); ++t) {
    EXPECT_EQ(ok[t], 1) << t;
    EXPECT_EQ(texts[t], "abcdefghi") << t;
  }
}

TEST(OfflineDecoderBackend, ReinitSwitchesModels) {
  OfflineDecoderBackend decoder;
  std::string error;
  ASSERT_TRUE(decoder.Init(PatternSenseVoice(), &error)) << error;
  ASSERT_TRUE(decoder.Init(WhisperStub(), &error)) << error;
  std::string text;
  ASSERT_TRUE(decoder.Decode(LoadWavForTest(AudioPath("format-checks/3s.wav")), &text, &error))
      << error;
  EXPECT_EQ(text, "Hello world, this is a stub café.");
}

}  // namespace
}  // namespace kerrow::testing
