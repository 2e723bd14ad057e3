#include "engine/offline_decoder_backend.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <sstream>

#include "engine/library_call.h"
#include "engine/model_file_check.h"
#include "engine/sherpa_handles.h"
#include "engine/sherpa_onnx_c_api.h"
#include "common/ascii_case.h"

namespace kerrow {

namespace {

std::vector<std::string> SplitCommas(const std::string& text) {
  std::vector<std::string> parts;
  std::stringstream stream(text);
  std::string part;
  while (std::getline(stream, part, ',')) {
    if (!part.empty()) parts.push_back(part);
  }
  return parts;
}

// Whisper's empty or "auto" language means: let the library detect it. The
// pinned library takes one code only, so the empty string is the only way to
// ask for detection.
std::string ResolveWhisperLanguage(const std::string& language) {
  const std::string lowered = ToLowerAscii(language);
  return lowered == "auto" ? std::string() : lowered;
}

bool CheckModelPaths(const DecoderInitOptions& options,
                     const ResolvedDecoderConfig& resolved,
                     std::string* error) {
  if (!CheckTokensFile(options.tokens, error)) return false;
  if (resolved.model_type != "whisper") {
    return CheckModelFile(options.sense_voice_model, ModelFamily::kSenseVoice,
                          error);
  }
  OnnxModelInfo encoder_info;
  return CheckModelFile(options.whisper_encoder, ModelFamily::kWhisperEncoder,
                        &encoder_info, error) &&
         CheckModelFile(options.whisper_decoder, ModelFamily::kWhisperDecoder,
                        error) &&
         ValidateWhisperLanguage(resolved.language, encoder_info, error);
}

// The config points into options and resolved, which outlive the Create call.
SherpaOnnxOfflineRecognizerConfig BuildRecognizerConfig(
    const DecoderInitOptions& options, const ResolvedDecoderConfig& resolved) {
  SherpaOnnxOfflineRecognizerConfig config{};
  // Feature settings stay zero: the library's defaults match both families.
  config.decoding_method = "greedy_search";
  config.model_config.tokens = options.tokens.c_str();
  config.model_config.num_threads = resolved.num_threads;
  config.model_config.provider = options.provider.c_str();
  if (resolved.model_type == "whisper") {
    config.model_config.whisper.encoder = options.whisper_encoder.c_str();
    config.model_config.whisper.decoder = options.whisper_decoder.c_str();
    config.model_config.whisper.language = resolved.language.c_str();
    config.model_config.whisper.task = resolved.whisper_task.c_str();
  } else {
    config.model_config.sense_voice.model = options.sense_voice_model.c_str();
    config.model_config.sense_voice.language = resolved.language.c_str();
    config.model_config.sense_voice.use_itn = options.use_itn ? 1 : 0;
  }
  return config;
}

bool CreateRecognizer(const SherpaOnnxOfflineRecognizerConfig& config,
                      OfflineRecognizerHandle* recognizer,
                      std::string* error) {
  if (!CallLibrary(
          "SherpaOnnxCreateOfflineRecognizer()",
          [&] { recognizer->reset(SherpaOnnxCreateOfflineRecognizer(&config)); },
          error)) {
    return false;
  }
  if (!*recognizer) return Fail(error, "SherpaOnnxCreateOfflineRecognizer() failed");
  return true;
}

void ClearOutputs(std::string* text, DecodedTokens* tokens) {
  if (text != nullptr) text->clear();
  if (tokens != nullptr) *tokens = DecodedTokens();
}

void CopyTokens(const SherpaOnnxOfflineRecognizerResult& result,
                DecodedTokens* out) {
  if (result.count < 1) return;
  const size_t count = static_cast<size_t>(result.count);
  out->tokens.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    const char* token =
        result.tokens_arr != nullptr ? result.tokens_arr[i] : nullptr;
    out->tokens.emplace_back(token != nullptr ? token : "");
  }
  if (result.timestamps != nullptr) {
    out->timestamps.assign(result.timestamps, result.timestamps + count);
  }
  if (result.durations != nullptr) {
    out->durations.assign(result.durations, result.durations + count);
  }
}

// One stream per call: feed the whole block, decode it, copy what the
// recognizer made of it. What the library throws is left to the caller's guard.
bool DecodeOneStream(const SherpaOnnxOfflineRecognizer* recognizer,
                     int32_t sample_rate, const std::vector<float>& samples,
                     std::string* text, DecodedTokens* tokens,
                     std::string* error) {
  OfflineStreamHandle stream(SherpaOnnxCreateOfflineStream(recognizer));
  if (!stream) return Fail(error, "SherpaOnnxCreateOfflineStream() failed");
  SherpaOnnxAcceptWaveformOffline(stream.get(), sample_rate, samples.data(),
                                  static_cast<int32_t>(samples.size()));
  SherpaOnnxDecodeOfflineStream(recognizer, stream.get());
  const OfflineResultHandle result(
      SherpaOnnxGetOfflineStreamResult(stream.get()));
  if (result && result->text != nullptr) {
    if (text != nullptr) *text = result->text;
    if (tokens != nullptr) tokens->text = result->text;
  }
  if (result && tokens != nullptr) CopyTokens(*result, tokens);
  return true;
}

}  // namespace

struct OfflineDecoderBackend::Impl {
  DecoderInitOptions options;
  ResolvedDecoderConfig resolved;
  OfflineRecognizerHandle recognizer;
};

std::string ResolveDecoderModelType(const DecoderInitOptions& options) {
  const std::string type = ToLowerAscii(options.model_type);
  if (type == "whisper") return "whisper";
  if (type.empty() &&
      (!options.whisper_encoder.empty() || !options.whisper_decoder.empty())) {
    return "whisper";
  }
  // "sensevoice", "sense-voice", empty without Whisper paths, and any unknown
  // word all mean SenseVoice.
  return "sensevoice";
}

bool ResolveDecoderConfig(const DecoderInitOptions& options,
                          ResolvedDecoderConfig* resolved,
                          std::string* error) {
  *resolved = ResolvedDecoderConfig();
  resolved->model_type = ResolveDecoderModelType(options);
  resolved->num_threads = std::max<int32_t>(options.num_threads, 1);
  if (options.tokens.empty()) {
    SetError(error, "Second-pass tokens path is empty");
    return false;
  }
  if (resolved->model_type == "whisper") {
    if (options.whisper_encoder.empty() || options.whisper_decoder.empty()) {
      SetError(error, "Whisper second-pass requires encoder and decoder paths");
      return false;
    }
    resolved->language = ResolveWhisperLanguage(options.language);
    resolved->whisper_task =
        options.whisper_task.empty() ? "transcribe" : options.whisper_task;
    // Anything else makes Create return NULL with only a stderr line.
    if (resolved->whisper_task != "transcribe" &&
        resolved->whisper_task != "translate") {
      SetError(error, "Unsupported Whisper task '" + resolved->whisper_task +
                          "' (expected transcribe or translate)");
      return false;
    }
    return true;
  }
  if (options.sense_voice_model.empty()) {
    SetError(error, "SenseVoice second-pass requires model path");
    return false;
  }
  resolved->language = options.language.empty() ? "zh" : options.language;
  return true;
}

bool ValidateWhisperLanguage(const std::string& language,
                             const OnnxModelInfo& encoder_info,
                             std::string* error) {
  if (language.empty()) return true;
  const std::string* multilingual = encoder_info.FindMetadata("is_multilingual");
  if (multilingual == nullptr || std::strtol(multilingual->c_str(), nullptr, 10) == 0) {
    return true;
  }
  const std::string* codes = encoder_info.FindMetadata("all_language_codes");
  const std::string known = codes != nullptr ? *codes : std::string();
  const std::vector<std::string> known_codes = SplitCommas(known);
  if (std::find(known_codes.begin(), known_codes.end(), language) !=
      known_codes.end()) {
    return true;
  }
  SetError(error, "Unsupported Whisper language '" + language +
                      "' (the model knows: " + known + ")");
  return false;
}

OfflineDecoderBackend::OfflineDecoderBackend() = default;
OfflineDecoderBackend::~OfflineDecoderBackend() = default;

bool OfflineDecoderBackend::Init(const DecoderInitOptions& options,
                                 std::string* error) {
  impl_.reset();
  impl_ = std::make_unique<Impl>();
  impl_->options = options;
  const DecoderInitOptions& kept = impl_->options;
  if (!ResolveDecoderConfig(kept, &impl_->resolved, error) ||
      !CheckModelPaths(kept, impl_->resolved, error)) {
    return false;
  }
  const SherpaOnnxOfflineRecognizerConfig config =
      BuildRecognizerConfig(kept, impl_->resolved);
  return CreateRecognizer(config, &impl_->recognizer, error);
}

bool OfflineDecoderBackend::IsReady() const {
  return impl_ != nullptr && impl_->recognizer != nullptr;
}

bool OfflineDecoderBackend::Decode(const std::vector<float>& samples,
                                   std::string* text, std::string* error) {
  return DecodeBlock(samples, text, nullptr, error);
}

bool OfflineDecoderBackend::DecodeWithTokens(const std::vector<float>& samples,
                                             DecodedTokens* out,
                                             std::string* error) {
  return DecodeBlock(samples, nullptr, out, error);
}

bool OfflineDecoderBackend::DecodeBlock(const std::vector<float>& samples,
                                        std::string* text,
                                        DecodedTokens* tokens,
                                        std::string* error) {
  ClearOutputs(text, tokens);
  if (samples.empty()) return true;
  if (!IsReady()) return Fail(error, "Decoder is not initialized");
  if (!FitsLibrarySampleCount(samples.size(), "Audio block is too long to decode", error)) {
    return false;
  }
  std::lock_guard<std::mutex> lock(decode_mutex_);
  bool decoded = false;
  const bool called = CallLibrary(
      "SherpaOnnxDecodeOfflineStream()",
      [&] {
        decoded = DecodeOneStream(impl_->recognizer.get(),
                                  impl_->options.sample_rate, samples, text,
                                  tokens, error);
      },
      error);
  // A half-copied result must not pass for the decode of the block.
  if (!called) ClearOutputs(text, tokens);
  return called && decoded;
}

}  // namespace kerrow
