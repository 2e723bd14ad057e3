#include "engine/online_backend.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cctype>
#include <cmath>
#include <cstddef>
#include <filesystem>
#include <ostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {


constexpr int kRate = 16000;
constexpr size_t kChunk = 1600;  // 0.1 s, the PCM loop's default chunk

// The first pass as the stub transducer plays it: every encoder frame emits
// the next piece of this cycle, whatever the audio.
const char kTransducerAfterOneSecond[] =
    "hello world this is a stub hello world this is a stub hello world";
const char kTransducerAfterHalfSecond[] = "hello world this is a stub hello";

std::string TransducerDir() { return ModelPath("stubs/streaming-transducer"); }
std::string ParaformerDir() { return ModelPath("stubs/streaming-paraformer"); }

OnlineInitOptions TransducerStub() {
  OnlineInitOptions options;
  options.model_type = "transducer";
  options.encoder = TransducerDir() + "/encoder.onnx";
  options.decoder = TransducerDir() + "/decoder.onnx";
  options.joiner = TransducerDir() + "/joiner.onnx";
  options.tokens = TransducerDir() + "/tokens.txt";
  return options;
}

OnlineInitOptions ParaformerStub() {
  OnlineInitOptions options;
  options.model_type = "paraformer";
  options.encoder = ParaformerDir() + "/encoder.onnx";
  options.decoder = ParaformerDir() + "/decoder.onnx";
  options.tokens = ParaformerDir() + "/tokens.txt";
  return options;
}

// A quiet tone: the stubs ignore what they hear, and real audio is not
// needed to exercise the chunking.
std::vector<float> Tone(size_t count) {
  std::vector<float> samples(count);
  for (size_t i = 0; i < count; ++i) {
    samples[i] = 0.1f * std::sin(0.05f * static_cast<float>(i));
  }
  return samples;
}

// Feeds `chunks` chunks of 0.1 s and returns the text after each one.
std::vector<std::string> FeedChunks(OnlineBackend* backend, int chunks) {
  std::vector<std::string> texts;
  for (int i = 0; i < chunks; ++i) {
    std::string text;
    std::string error;
    EXPECT_TRUE(backend->AcceptAndDecode(Tone(kChunk), &text, nullptr, &error))
        << error;
    texts.push_back(text);
  }
  return texts;
}

// Feeds the first `seconds` of an English recording in 0.1 s chunks: real
// speech, so trained models have something to transcribe.
void FeedSpeech(OnlineBackend* backend, double seconds) {
  static const std::vector<float> recording =
      LoadWavForTest(AudioPath("espeak/en10s.wav"));
  const size_t end = std::min(recording.size(),
                              static_cast<size_t>(seconds * kRate));
  for (size_t start = 0; start < end; start += kChunk) {
    const std::vector<float> chunk(recording.begin() + start,
                                   recording.begin() + std::min(end, start + kChunk));
    std::string error;
    ASSERT_TRUE(backend->AcceptAndDecode(chunk, nullptr, nullptr, &error)) << error;
  }
}

std::string FinalTextAfterSpeech(const OnlineInitOptions& options, double seconds) {
  OnlineBackend backend;
  std::string error;
  EXPECT_TRUE(backend.Init(options, &error)) << error;
  FeedSpeech(&backend, seconds);
  std::string text;
  EXPECT_TRUE(backend.InputFinishedAndDecode(&text, &error)) << error;
  return text;
}

std::string FinalTextAfter(const OnlineInitOptions& options, int chunks) {
  OnlineBackend backend;
  std::string error;
  EXPECT_TRUE(backend.Init(options, &error)) << error;
  FeedChunks(&backend, chunks);
  std::string text;
  EXPECT_TRUE(backend.InputFinishedAndDecode(&text, &error)) << error;
  return text;
}

std::string InitError(const OnlineInitOptions& options) {
  OnlineBackend backend;
  std::string error;
  EXPECT_FALSE(backend.Init(options, &error));
  EXPECT_FALSE(backend.IsReady());
  return error;
}

// ---------------------------------------------------------------------------
// Behaviour every streaming model must show: the bundled stubs, and any
// trained streaming model dropped into models/trained/<name>/ as
// encoder.onnx, decoder.onnx, tokens.txt (plus joiner.onnx for a
// transducer). The expectations below hold for real speech models too.

struct StreamingModel {
  std::string name;
  OnlineInitOptions options;
};

void PrintTo(const StreamingModel& model, std::ostream* out) {
  *out << model.name;
}

// Test names may hold only letters, digits and underscores.
std::string TestNameFor(const std::string& folder) {
  std::string name = "Trained_";
  for (char c : folder) {
    name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
  }
  return name;
}

std::vector<StreamingModel> TrainedStreamingModels() {
  namespace fs = std::filesystem;
  std::vector<StreamingModel> models;
  std::error_code ignored;
  for (const fs::directory_entry& entry :
       fs::directory_iterator(ModelPath("trained"), ignored)) {
    const fs::path dir = entry.path();
    if (!fs::exists(dir / "encoder.onnx") || !fs::exists(dir / "decoder.onnx") ||
        !fs::exists(dir / "tokens.txt")) {
      continue;
    }
    OnlineInitOptions options;
    options.model_type = "";  // joiner present: transducer; else paraformer
    options.encoder = (dir / "encoder.onnx").string();
    options.decoder = (dir / "decoder.onnx").string();
    if (fs::exists(dir / "joiner.onnx")) options.joiner = (dir / "joiner.onnx").string();
    options.tokens = (dir / "tokens.txt").string();
    models.push_back({TestNameFor(dir.filename().string()), options});
  }
  return models;
}

std::vector<StreamingModel> StreamingModels() {
  std::vector<StreamingModel> models = {{"StubTransducer", TransducerStub()},
                                        {"StubParaformer", ParaformerStub()}};
  for (StreamingModel& trained : TrainedStreamingModels()) {
    models.push_back(std::move(trained));
  }
  return models;
}

class EveryStreamingModel : public ::testing::TestWithParam<StreamingModel> {};

TEST_P(EveryStreamingModel, InitMakesItReady) {
  OnlineBackend backend;
  std::string error;
  EXPECT_TRUE(backend.Init(GetParam().options, &error)) << error;
  EXPECT_TRUE(backend.IsReady());
  EXPECT_EQ(error, "");
}

TEST_P(EveryStreamingModel, RecordingGivesTextOnceInputIsFinished) {
  EXPECT_NE(FinalTextAfterSpeech(GetParam().options, 12.0), "");
}

TEST_P(EveryStreamingModel, InputFinishedThenResetAcceptsAudioWithEmptyHypothesis) {
  OnlineBackend backend;
  std::string error;
  ASSERT_TRUE(backend.Init(GetParam().options, &error)) << error;
  FeedSpeech(&backend, 3.0);
  std::string text;
  ASSERT_TRUE(backend.InputFinishedAndDecode(&text, &error)) << error;
  ASSERT_NE(text, "");

  ASSERT_TRUE(backend.Reset(&error)) << error;
  EXPECT_TRUE(backend.IsReady());
  bool is_endpoint = true;
  ASSERT_TRUE(backend.AcceptAndDecode(Tone(kChunk), &text, &is_endpoint, &error))
      << error;
  EXPECT_EQ(text, "");
  EXPECT_FALSE(is_endpoint);
}

TEST_P(EveryStreamingModel, ZeroOrNegativeThreadCountRunsWithOneThread) {
  OnlineInitOptions one_thread = GetParam().options;
  one_thread.num_threads = 1;
  const std::string reference = FinalTextAfterSpeech(one_thread, 3.0);
  ASSERT_NE(reference, "");
  for (int threads : {0, -3}) {
    OnlineInitOptions options = GetParam().options;
    options.num_threads = threads;
    EXPECT_EQ(FinalTextAfterSpeech(options, 3.0), reference)
        << threads << " threads";
  }
}

TEST_P(EveryStreamingModel, UnusualSampleRateIsUsedForEveryChunk) {
  // The library ends the process when a later chunk comes with another rate
  // than the first; the backend always passes the configured one.
  OnlineInitOptions options = GetParam().options;
  options.sample_rate = 8000;
  OnlineBackend backend;
  std::string error;
  ASSERT_TRUE(backend.Init(options, &error)) << error;
  for (size_t size : {800u, 1u, 1600u, 333u, 800u}) {
    EXPECT_TRUE(backend.AcceptAndDecode(Tone(size), nullptr, nullptr, &error))
        << error;
  }
  std::string text;
  EXPECT_TRUE(backend.InputFinishedAndDecode(&text, &error)) << error;
}

INSTANTIATE_TEST_SUITE_P(
    Models, EveryStreamingModel, ::testing::ValuesIn(StreamingModels()),
    [](const ::testing::TestParamInfo<StreamingModel>& info) {
      return info.param.name;
    });

// ---------------------------------------------------------------------------
// Calls before (or after a failed) Init.

TEST(OnlineBackend, EmptyChunkOnUninitialisedBackendSucceedsWithEmptyResult) {
  OnlineBackend backend;
  std::string text = "stale partial";
  bool is_endpoint = true;
  std::string error;
  EXPECT_TRUE(backend.AcceptAndDecode({}, &text, &is_endpoint, &error));
  EXPECT_EQ(text, "");
  EXPECT_FALSE(is_endpoint);
  EXPECT_EQ(error, "");
}

TEST(OnlineBackend, EveryCallFailsBeforeInit) {
  OnlineBackend backend;
  EXPECT_FALSE(backend.IsReady());
  std::string text = "stale";
  bool is_endpoint = true;
  std::string error;
  EXPECT_FALSE(backend.AcceptAndDecode(Tone(kChunk), &text, &is_endpoint, &error));
  EXPECT_EQ(error, "Online backend is not initialized");
  EXPECT_EQ(text, "");
  EXPECT_FALSE(is_endpoint);

  error.clear();
  text = "stale";
  EXPECT_FALSE(backend.InputFinishedAndDecode(&text, &error));
  EXPECT_EQ(error, "Online backend is not initialized");
  EXPECT_EQ(text, "");

  error.clear();
  EXPECT_FALSE(backend.Reset(&error));
  EXPECT_EQ(error, "Online backend is not initialized");
}

TEST(OnlineBackend, FailedInitAfterGoodOneLeavesEveryCallFailing) {
  OnlineBackend backend;
  std::string error;
  ASSERT_TRUE(backend.Init(TransducerStub(), &error)) << error;
  OnlineInitOptions broken = TransducerStub();
  broken.encoder = TransducerDir() + "/no-such-encoder.onnx";
  EXPECT_FALSE(backend.Init(broken, &error));
  EXPECT_FALSE(backend.IsReady());

  EXPECT_FALSE(backend.AcceptAndDecode(Tone(kChunk), nullptr, nullptr, &error));
  EXPECT_EQ(error, "Online backend is not initialized");
  error.clear();
  EXPECT_FALSE(backend.InputFinishedAndDecode(nullptr, &error));
  EXPECT_EQ(error, "Online backend is not initialized");
  error.clear();
  EXPECT_FALSE(backend.Reset(&error));
  EXPECT_EQ(error, "Online backend is not initialized");
}

TEST(OnlineBackend, NullPointersAreAllowedEverywhere) {
  OnlineBackend backend;
  EXPECT_FALSE(backend.Init(OnlineInitOptions{}, nullptr));
  EXPECT_FALSE(backend.AcceptAndDecode(Tone(kChunk), nullptr, nullptr, nullptr));
  EXPECT_FALSE(backend.InputFinishedAndDecode(nullptr, nullptr));
  EXPECT_FALSE(backend.Reset(nullptr));
  ASSERT_TRUE(backend.Init(TransducerStub(), nullptr));
  EXPECT_TRUE(backend.AcceptAndDecode(Tone(kChunk), nullptr, nullptr, nullptr));
  EXPECT_TRUE(backend.InputFinishedAndDecode(nullptr, nullptr));
  EXPECT_TRUE(backend.Reset(nullptr));
}

TEST(OnlineBackend, InitAgainReplacesRecognizerAndStream) {
  OnlineBackend backend;
  std::string error;
  ASSERT_TRUE(backend.Init(TransducerStub(), &error)) << error;
  FeedChunks(&backend, 10);
  ASSERT_TRUE(backend.Init(TransducerStub(), &error)) << error;
  const std::vector<std::string> texts = FeedChunks(&backend, 5);
  EXPECT_EQ(texts.back(), kTransducerAfterHalfSecond);
}

// ---------------------------------------------------------------------------
// Model type resolution.

TEST(OnlineBackend, ParaformerInAnyCaseSelectsParaformer) {
  for (const char* type : {"paraformer", "Paraformer", "PARAFORMER", "pArAfOrMeR"}) {
    OnlineInitOptions options = ParaformerStub();
    options.model_type = type;
    ASSERT_EQ(options.joiner, "");
    OnlineBackend backend;
    std::string error;
    EXPECT_TRUE(backend.Init(options, &error)) << type << ": " << error;
  }
}

TEST(OnlineBackend, UnknownTypeSelectsTransducerAndNeedsJoiner) {
  for (const char* type : {"zipformer", "lstm", "whatever", "para former"}) {
    OnlineInitOptions options = ParaformerStub();
    options.model_type = type;
    EXPECT_EQ(InitError(options), "online model paths are incomplete") << type;
  }
}

TEST(OnlineBackend, UnknownTypeWithJoinerRunsAsTransducer) {
  OnlineInitOptions options = TransducerStub();
  options.model_type = "Zipformer";
  EXPECT_EQ(FinalTextAfter(options, 10), kTransducerAfterOneSecond);
}

TEST(OnlineBackend, EmptyTypeWithJoinerSelectsTransducer) {
  OnlineInitOptions options = TransducerStub();
  options.model_type = "";
  EXPECT_EQ(FinalTextAfter(options, 10), kTransducerAfterOneSecond);
}

TEST(OnlineBackend, EmptyTypeWithoutJoinerSelectsParaformer) {
  OnlineInitOptions options = ParaformerStub();
  options.model_type = "";
  OnlineBackend backend;
  std::string error;
  EXPECT_TRUE(backend.Init(options, &error)) << error;

  // The transducer's files then go through the paraformer checks.
  options = TransducerStub();
  options.model_type = "";
  options.joiner = "";
  EXPECT_EQ(InitError(options),
            "model " + TransducerDir() +
                "/encoder.onnx lacks metadata key 'vocab_size' required for a "
                "streaming Paraformer encoder model (wrong model family?)");
}

TEST(OnlineBackend, ParaformerWithEmptyJoinerInitialises) {
  OnlineInitOptions options = ParaformerStub();
  options.joiner = "";
  OnlineBackend backend;
  std::string error;
  EXPECT_TRUE(backend.Init(options, &error)) << error;
  EXPECT_TRUE(backend.IsReady());
}

TEST(OnlineBackend, TransducerWithEmptyJoinerFailsAsIncomplete) {
  OnlineInitOptions options = TransducerStub();
  options.joiner = "";
  EXPECT_EQ(InitError(options), "online model paths are incomplete");
}

TEST(OnlineBackend, MissingEncoderDecoderOrTokensPathFailsAsIncomplete) {
  for (int which = 0; which < 3; ++which) {
    for (const OnlineInitOptions& complete : {TransducerStub(), ParaformerStub()}) {
      OnlineInitOptions options = complete;
      if (which == 0) options.encoder = "";
      if (which == 1) options.decoder = "";
      if (which == 2) options.tokens = "";
      EXPECT_EQ(InitError(options), "online model paths are incomplete")
          << options.model_type << " path " << which;
    }
  }
}

// ---------------------------------------------------------------------------
// What the stubs decode.

TEST(OnlineBackend, TransducerPartialsGrowChunkByChunk) {
  OnlineBackend backend;
  std::string error;
  ASSERT_TRUE(backend.Init(TransducerStub(), &error)) << error;
  const std::vector<std::string> texts = FeedChunks(&backend, 10);
  // The lstm stub needs 39 feature frames before its first chunk and then
  // advances 32 frames (0.32 s) per chunk.
  const std::vector<std::string> expected = {
      "", "", "", "",
      kTransducerAfterHalfSecond, kTransducerAfterHalfSecond,
      kTransducerAfterHalfSecond,
      kTransducerAfterOneSecond, kTransducerAfterOneSecond,
      kTransducerAfterOneSecond};
  EXPECT_EQ(texts, expected);
}

TEST(OnlineBackend, TransducerTextIsWholeHypothesisNotIncrement) {
  OnlineBackend backend;
  std::string error;
  ASSERT_TRUE(backend.Init(TransducerStub(), &error)) << error;
  const std::vector<std::string> texts = FeedChunks(&backend, 11);
  EXPECT_EQ(texts[10],
            "hello world this is a stub hello world this is a stub hello world "
            "this is a stub hello world this");
}

TEST(OnlineBackend, TransducerFinalTextAfterInputFinished) {
  EXPECT_EQ(FinalTextAfter(TransducerStub(), 10), kTransducerAfterOneSecond);
}

TEST(OnlineBackend, ParaformerIsFinalDecodesTheLastPartialChunk) {
  OnlineBackend backend;
  std::string error;
  ASSERT_TRUE(backend.Init(ParaformerStub(), &error)) << error;
  const std::vector<std::string> texts = FeedChunks(&backend, 10);
  EXPECT_EQ(texts[5], "");
  EXPECT_EQ(texts[9], "hello world 你好");
  std::string final_text;
  ASSERT_TRUE(backend.InputFinishedAndDecode(&final_text, &error)) << error;
  // Without the stream's is_final option the tail after the last whole
  // 60-frame chunk would stay undecoded and the text would not grow.
  EXPECT_EQ(final_text, "hello world 你好 ok hello world 你");
}

TEST(OnlineBackend, EndpointFollowsTheMaximumUtteranceLength) {
  OnlineBackend backend;
  std::string error;
  ASSERT_TRUE(backend.Init(TransducerStub(), &error)) << error;
  // The stub never goes silent, so only rule 3 (8 s) can fire.
  int first_endpoint_chunk = -1;
  for (int chunk = 0; chunk < 100 && first_endpoint_chunk < 0; ++chunk) {
    bool is_endpoint = false;
    ASSERT_TRUE(backend.AcceptAndDecode(Tone(kChunk), nullptr, &is_endpoint,
                                        &error))
        << error;
    if (is_endpoint) first_endpoint_chunk = chunk;
  }
  ASSERT_GE(first_endpoint_chunk, 0);
  EXPECT_GE(first_endpoint_chunk, 79);   // not before 8 s of audio
  EXPECT_LE(first_endpoint_chunk, 90);
}

TEST(OnlineBackend, EndpointNeverFiresWhenDisabled) {
  OnlineInitOptions options = TransducerStub();
  options.enable_endpoint = false;
  OnlineBackend backend;
  std::string error;
  ASSERT_TRUE(backend.Init(options, &error)) << error;
  for (int chunk = 0; chunk < 100; ++chunk) {
    bool is_endpoint = true;
    ASSERT_TRUE(backend.AcceptAndDecode(Tone(kChunk), nullptr, &is_endpoint,
                                        &error))
        << error;
    ASSERT_FALSE(is_endpoint) << "chunk " << chunk;
  }
}

// ---------------------------------------------------------------------------
// Settings the library would end the process on.

TEST(OnlineBackend, ParaformerRefusesBeamSearch) {
  OnlineInitOptions options = ParaformerStub();
  options.decoding_method = "modified_beam_search";
  EXPECT_EQ(InitError(options),
            "online decoding method 'modified_beam_search' is not supported by "
            "a paraformer (only greedy_search)");
}

TEST(OnlineBackend, TransducerRefusesUnknownDecodingMethod) {
  OnlineInitOptions options = TransducerStub();
  options.decoding_method = "beam";
  EXPECT_EQ(InitError(options),
            "online decoding method 'beam' is not supported (use greedy_search "
            "or modified_beam_search)");
}

TEST(OnlineBackend, TransducerRunsWithModifiedBeamSearch) {
  OnlineInitOptions options = TransducerStub();
  options.decoding_method = "modified_beam_search";
  EXPECT_NE(FinalTextAfter(options, 10), "");
}

TEST(OnlineBackend, NonPositiveSampleRateIsRefused) {
  OnlineInitOptions options = TransducerStub();
  options.sample_rate = 0;
  EXPECT_EQ(InitError(options), "online sample rate must be positive, got 0");
  options.sample_rate = -16000;
  EXPECT_EQ(InitError(options),
            "online sample rate must be positive, got -16000");
}

TEST(OnlineBackend, NonPositiveFeatureDimensionIsRefused) {
  OnlineInitOptions options = TransducerStub();
  options.feature_dim = -80;
  EXPECT_EQ(InitError(options),
            "online feature dimension must be positive, got -80");
}

TEST(OnlineBackend, LibraryExceptionDuringDecodeBecomesAnError) {
  // The model expects 80 features; onnxruntime throws at the first chunk it
  // runs, and the exception escapes the library's C function.
  OnlineInitOptions options = TransducerStub();
  options.feature_dim = 40;
  OnlineBackend backend;
  std::string error;
  ASSERT_TRUE(backend.Init(options, &error)) << error;
  std::string text = "stale";
  bool failed = false;
  for (int chunk = 0; chunk < 10 && !failed; ++chunk) {
    failed = !backend.AcceptAndDecode(Tone(kChunk), &text, nullptr, &error);
  }
  ASSERT_TRUE(failed);
  EXPECT_EQ(error.rfind("SherpaOnnxDecodeOnlineStream() exception: ", 0), 0u)
      << error;
  EXPECT_NE(error.find("Got: 40 Expected: 80"), std::string::npos) << error;
  EXPECT_EQ(text, "");
}

// ---------------------------------------------------------------------------
// Unusable model files: each must fail Init with a message, never end the
// process.

enum class BadFile {
  kMissing, kEmpty, kDirectory, kText, kRandomBytes, kLfsPointer, kTruncated,
};

// Writes the bad file into dir (for kTruncated: the first half of `real`)
// and returns its path.
std::string MakeBadFile(const TempDir& dir, BadFile kind, const std::string& real) {
  const std::string path = dir.File("model.onnx");
  switch (kind) {
    case BadFile::kMissing:
      return dir.File("absent.onnx");
    case BadFile::kEmpty:
      WriteFileBytes(path, "");
      return path;
    case BadFile::kDirectory:
      ::mkdir(dir.File("folder.onnx").c_str(), 0755);
      return dir.File("folder.onnx");
    case BadFile::kText:
      WriteFileBytes(path, "this is a text file, not a neural network\n");
      return path;
    case BadFile::kRandomBytes: {
      std::mt19937 generator(20240611);
      std::string bytes(4096, '\0');
      for (char& byte : bytes) byte = static_cast<char>(generator() & 0xff);
      WriteFileBytes(path, bytes);
      return path;
    }
    case BadFile::kLfsPointer:
      WriteFileBytes(path, GitLfsPointerText("84b85e7413b5348303a95bd78813e4d669b4dc70fa5a99990b9860ca6fda91e8", 3809));
      return path;
    case BadFile::kTruncated: {
      const std::string bytes = ReadFileBytes(real);
      WriteFileBytes(path, bytes.substr(0, bytes.size() / 2));
      return path;
    }
  }
  return path;
}

std::string ExpectedBadFileError(BadFile kind, const std::string& path) {
  switch (kind) {
    case BadFile::kMissing:
      return "model file not found: " + path;
    case BadFile::kEmpty:
      return "model file is empty: " + path;
    case BadFile::kDirectory:
      return "model path is a directory: " + path;
    case BadFile::kLfsPointer:
      return "model file is a git-lfs pointer, not the model: " + path;
    case BadFile::kText:
    case BadFile::kRandomBytes:
    case BadFile::kTruncated:
      return "not a valid ONNX model: " + path;
  }
  return "";
}

struct ModelSlot {
  std::string name;
  OnlineInitOptions options;
  std::string OnlineInitOptions::*field;
  // A real model of another family that the checks must refuse here, and
  // what they say about it.
  std::string wrong_family;
  std::string wrong_family_error;
};

void PrintTo(const ModelSlot& slot, std::ostream* out) { *out << slot.name; }

std::vector<ModelSlot> ModelSlots() {
  const std::string punctuation = ModelPath("stubs/punct/model.onnx");
  const std::string transducer_decoder = TransducerDir() + "/decoder.onnx";
  return {
      {"TransducerEncoder", TransducerStub(), &OnlineInitOptions::encoder,
       punctuation,
       "model " + punctuation +
           " has model_type 'ct_transformer', which is not a streaming "
           "transducer encoder (expected conformer, ebranchformer, lstm, "
           "zipformer or zipformer2)"},
      {"TransducerDecoder", TransducerStub(), &OnlineInitOptions::decoder,
       punctuation,
       "model " + punctuation +
           " lacks metadata key 'context_size' required for a streaming "
           "transducer decoder model (wrong model family?)"},
      {"TransducerJoiner", TransducerStub(), &OnlineInitOptions::joiner,
       transducer_decoder,
       "model " + transducer_decoder +
           " has 1 graph inputs; a streaming transducer joiner takes 2 (wrong "
           "model family?)"},
      {"ParaformerEncoder", ParaformerStub(), &OnlineInitOptions::encoder,
       punctuation,
       "model " + punctuation +
           " lacks metadata key 'lfr_window_size' required for a streaming "
           "Paraformer encoder model (wrong model family?)"},
      {"ParaformerDecoder", ParaformerStub(), &OnlineInitOptions::decoder,
       punctuation,
       "model " + punctuation +
           " has 2 graph inputs; a streaming Paraformer decoder takes 6 (wrong "
           "model family?)"},
  };
}

class EveryModelSlot : public ::testing::TestWithParam<ModelSlot> {};

TEST_P(EveryModelSlot, UnusableFilesFailInitWithTheirReason) {
  const ModelSlot& slot = GetParam();
  const std::string real = slot.options.*slot.field;
  for (BadFile kind : {BadFile::kMissing, BadFile::kEmpty, BadFile::kDirectory,
                       BadFile::kText, BadFile::kRandomBytes,
                       BadFile::kLfsPointer, BadFile::kTruncated}) {
    TempDir dir;
    OnlineInitOptions options = slot.options;
    const std::string path = MakeBadFile(dir, kind, real);
    options.*slot.field = path;
    EXPECT_EQ(InitError(options),
              ExpectedBadFileError(kind, path))
        << slot.name << " kind " << static_cast<int>(kind);
  }
}

TEST_P(EveryModelSlot, ModelOfAnotherFamilyFailsInit) {
  const ModelSlot& slot = GetParam();
  OnlineInitOptions options = slot.options;
  options.*slot.field = slot.wrong_family;
  EXPECT_EQ(InitError(options), slot.wrong_family_error);
}

INSTANTIATE_TEST_SUITE_P(
    Slots, EveryModelSlot, ::testing::ValuesIn(ModelSlots()),
    [](const ::testing::TestParamInfo<ModelSlot>& info) {
      return info.param.name;
    });

TEST(OnlineBackend, JoinerOfWrongShapeFailsAtFirstDecodeWithoutEndingProcess) {
  // Two inputs, as a joiner has, but integer token ids where the library
  // passes float vectors: only onnxruntime can tell, by throwing.
  OnlineInitOptions options = TransducerStub();
  options.joiner = ModelPath("stubs/punct/model.onnx");
  OnlineBackend backend;
  std::string error;
  ASSERT_TRUE(backend.Init(options, &error)) << error;
  bool failed = false;
  for (int chunk = 0; chunk < 10 && !failed; ++chunk) {
    failed = !backend.AcceptAndDecode(Tone(kChunk), nullptr, nullptr, &error);
  }
  ASSERT_TRUE(failed);
  EXPECT_EQ(error,
            "SherpaOnnxDecodeOnlineStream() exception: Unexpected input data "
            "type. Actual: (tensor(float)) , expected: (tensor(int32))");
}

TEST(OnlineBackend, TokensFileProblemsFailInit) {
  TempDir dir;
  OnlineInitOptions options = TransducerStub();
  options.tokens = dir.File("tokens.txt");
  EXPECT_EQ(InitError(options), "tokens file not found: " + options.tokens);
  WriteFileBytes(options.tokens, "");
  EXPECT_EQ(InitError(options), "tokens file is empty: " + options.tokens);
  options.tokens = dir.path();
  EXPECT_EQ(InitError(options), "tokens path is a directory: " + dir.path());
}

}  // namespace
}  // namespace kerrow::testing
