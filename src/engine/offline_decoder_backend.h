#ifndef KERROW_ENGINE_OFFLINE_DECODER_BACKEND_H_
#define KERROW_ENGINE_OFFLINE_DECODER_BACKEND_H_

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "engine/onnx_model_info.h"

namespace kerrow {

// How the second-pass recognizer is built; filled by Run from the command
// line.
struct DecoderInitOptions {
  int32_t sample_rate = 16000;  // rate of every block passed to Decode
  int32_t num_threads = 1;      // below 1 is raised to 1
  std::string provider = "cpu";
  // "sensevoice", "sense-voice", "whisper" (any case) or empty: then Whisper
  // when a Whisper path is given, else SenseVoice. Unknown words mean
  // SenseVoice.
  std::string model_type = "sensevoice";
  std::string sense_voice_model;
  std::string whisper_encoder;
  std::string whisper_decoder;
  std::string tokens;  // required for both model types
  std::string language;
  std::string whisper_task = "transcribe";
  bool use_itn = true;  // SenseVoice only
};

// One decoded block with its per-token detail.
struct DecodedTokens {
  std::string text;
  std::vector<std::string> tokens;
  // Start of each token in seconds from the start of the block; empty when
  // the model gives none.
  std::vector<float> timestamps;
  // Length of each token in seconds; empty when the model gives none (always
  // for SenseVoice).
  std::vector<float> durations;
};

// The values that reach the recognizer configuration, worked out from the
// options before any file is touched.
struct ResolvedDecoderConfig {
  std::string model_type;  // "sensevoice" or "whisper"
  int32_t num_threads = 1;
  // SenseVoice: the language as given, "zh" when empty. Whisper: lowercased,
  // and empty for "" or "auto" so that the library detects the language.
  std::string language;
  std::string whisper_task;  // Whisper only: the task, "transcribe" if empty
};

// "sensevoice" or "whisper" for the options' model type and paths.
std::string ResolveDecoderModelType(const DecoderInitOptions& options);

// Resolves the model type, checks that the paths that type needs are given
// (tokens first) and that a Whisper task is one the library accepts, and fills
// resolved. Touches no file.
bool ResolveDecoderConfig(const DecoderInitOptions& options,
                          ResolvedDecoderConfig* resolved, std::string* error);

// A Whisper language must be one code the model knows: the pinned library
// ends the process at the first decode on anything else (a list such as
// "zh,en" included). Empty means auto-detect and is always fine; English-only
// models ignore the language, so any value passes for them.
bool ValidateWhisperLanguage(const std::string& language,
                             const OnnxModelInfo& encoder_info,
                             std::string* error);

// Owns the second-pass offline recognizer (SenseVoice or Whisper). Decodes are
// serialised by an internal mutex, since the live session's threads share one
// instance. Init and destruction must not overlap a decode.
class OfflineDecoderBackend {
 public:
  OfflineDecoderBackend();
  ~OfflineDecoderBackend();
  OfflineDecoderBackend(const OfflineDecoderBackend&) = delete;
  OfflineDecoderBackend& operator=(const OfflineDecoderBackend&) = delete;

  // (Re)builds the recognizer; a failure leaves IsReady false.
  bool Init(const DecoderInitOptions& options, std::string* error);
  bool IsReady() const;

  // Decodes one block of mono float samples at the init sample rate. An empty
  // block succeeds with empty output, even before Init.
  bool Decode(const std::vector<float>& samples, std::string* text,
              std::string* error);
  bool DecodeWithTokens(const std::vector<float>& samples, DecodedTokens* out,
                        std::string* error);

 private:
  struct Impl;

  bool DecodeBlock(const std::vector<float>& samples, std::string* text,
                   DecodedTokens* tokens, std::string* error);

  std::unique_ptr<Impl> impl_;
  std::mutex decode_mutex_;
};

}  // namespace kerrow

#endif  // KERROW_ENGINE_OFFLINE_DECODER_BACKEND_H_
