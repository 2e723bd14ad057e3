#ifndef KERROW_TESTS_LIVE_LIVE_MODELS_H_
#define KERROW_TESTS_LIVE_LIVE_MODELS_H_

// The real engine adapters the live tests run with, loaded from the bundled
// models. The streaming recognizer is chosen by one function so that a trained
// streaming model can replace the stubs without touching the tests.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "engine/offline_decoder_backend.h"
#include "engine/online_backend.h"
#include "engine/punc_backend.h"
#include "engine/vad_backend.h"
#include "support/kerrow_process.h"
#include "support/test_audio.h"

namespace kerrow::testing {

inline std::unique_ptr<OfflineDecoderBackend> LoadSenseVoice(const std::string& folder) {
  DecoderInitOptions options;
  options.sense_voice_model = ModelPath(folder + "/model.onnx");
  options.tokens = ModelPath(folder + "/tokens.txt");
  options.num_threads = 1;
  auto decoder = std::make_unique<OfflineDecoderBackend>();
  std::string error;
  EXPECT_TRUE(decoder->Init(options, &error)) << error;
  return decoder;
}

// The trained recognizer: real text for espeak-ng English.
inline std::unique_ptr<OfflineDecoderBackend> LoadTrainedDecoder() {
  return LoadSenseVoice("trained/sensevoice-en-char");
}

// Ignores the audio: one letter per 120 ms, so its tokens and times are known.
inline std::unique_ptr<OfflineDecoderBackend> LoadPatternDecoder() {
  return LoadSenseVoice("stubs/sensevoice-pattern");
}

// A decoder whose Init failed: every Decode reports "Decoder is not initialized".
inline std::unique_ptr<OfflineDecoderBackend> BrokenDecoder() {
  auto decoder = std::make_unique<OfflineDecoderBackend>();
  DecoderInitOptions options;
  EXPECT_FALSE(decoder->Init(options, nullptr));
  return decoder;
}

inline std::unique_ptr<PuncBackend> LoadPunctuation(const std::string& relative) {
  PuncInitOptions options;
  options.model = ModelPath(relative);
  auto punc = std::make_unique<PuncBackend>();
  std::string error;
  EXPECT_TRUE(punc->Init(options, &error)) << error;
  return punc;
}

inline std::unique_ptr<VadBackend> LoadVad(float min_silence = 0.5f) {
  VadInitOptions options;
  options.model = KERROW_VAD_MODEL;
  options.min_silence_duration = min_silence;
  auto vad = std::make_unique<VadBackend>();
  std::string error;
  EXPECT_TRUE(vad->Init(options, &error)) << error;
  return vad;
}

// The stubs give known, made-up text; the trained lstm transducer gives real
// text for espeak-ng English.
enum class StreamingModel { kTransducerStub, kParaformerStub, kTrainedLstm };

// Endpoint rules and decoding settings as Run sets them for the first pass.
inline OnlineInitOptions StreamingOptions(StreamingModel model) {
  OnlineInitOptions options;
  options.num_threads = 1;
  if (model == StreamingModel::kTrainedLstm) {
    // Left empty, the type comes from the encoder's metadata (lstm).
    options.model_type = "";
    options.encoder = ModelPath("trained/streaming-lstm-en-char/encoder.onnx");
    options.decoder = ModelPath("trained/streaming-lstm-en-char/decoder.onnx");
    options.joiner = ModelPath("trained/streaming-lstm-en-char/joiner.onnx");
    options.tokens = ModelPath("trained/streaming-lstm-en-char/tokens.txt");
  } else if (model == StreamingModel::kTransducerStub) {
    options.model_type = "transducer";
    options.encoder = ModelPath("stubs/streaming-transducer/encoder.onnx");
    options.decoder = ModelPath("stubs/streaming-transducer/decoder.onnx");
    options.joiner = ModelPath("stubs/streaming-transducer/joiner.onnx");
    options.tokens = ModelPath("stubs/streaming-transducer/tokens.txt");
  } else {
    options.model_type = "paraformer";
    options.encoder = ModelPath("stubs/streaming-paraformer/encoder.onnx");
    options.decoder = ModelPath("stubs/streaming-paraformer/decoder.onnx");
    options.tokens = ModelPath("stubs/streaming-paraformer/tokens.txt");
  }
  return options;
}

inline std::unique_ptr<OnlineBackend> LoadStreaming(StreamingModel model) {
  auto online = std::make_unique<OnlineBackend>();
  std::string error;
  EXPECT_TRUE(online->Init(StreamingOptions(model), &error)) << error;
  return online;
}


}  // namespace kerrow::testing

#endif  // KERROW_TESTS_LIVE_LIVE_MODELS_H_
