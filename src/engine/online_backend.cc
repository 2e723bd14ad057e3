#include "engine/online_backend.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <exception>

#include "engine/library_call.h"
#include "engine/model_file_check.h"
#include "engine/onnx_model_info.h"
#include "engine/sherpa_handles.h"
#include "engine/sherpa_onnx_c_api.h"
#include "common/ascii_case.h"

namespace kerrow {

struct OnlineBackend::Impl {
  // The stream is declared after the recognizer so that it is released first:
  // the library requires a stream to die before the recognizer that made it.
  OnlineRecognizerHandle recognizer;
  OnlineStreamHandle stream;
  // Private copy of the options: its sample_rate goes with every waveform and
  // its strings outlive the config handed to the library.
  OnlineInitOptions options;
  bool is_paraformer = false;
};

namespace {

constexpr char kNotInitialized[] = "Online backend is not initialized";

// An empty type is inferred from the paths: a joiner only exists for a
// transducer. Anything but "paraformer" (zipformer, lstm, typos) is treated as
// a transducer, and the library then reads the real type from the encoder.
bool ResolvesToParaformer(const OnlineInitOptions& options) {
  std::string type = ToLowerAscii(options.model_type);
  if (type.empty()) type = options.joiner.empty() ? "paraformer" : "transducer";
  return type == "paraformer";
}

bool HasAllPaths(const OnlineInitOptions& options, bool is_paraformer) {
  if (options.encoder.empty() || options.decoder.empty() ||
      options.tokens.empty()) {
    return false;
  }
  return is_paraformer || !options.joiner.empty();
}

// sherpa-onnx binds a model's inputs by position and reads the input names
// of the session by index without a bounds check, so a model with fewer
// inputs than the library feeds it crashes the process at the first decode.
bool HasEnoughGraphInputs(const std::string& path, const OnnxModelInfo& info,
                          size_t required, ModelFamily family,
                          std::string* error) {
  if (info.graph_inputs.size() >= required) return true;
  SetError(error, "model " + path + " has " +
                      std::to_string(info.graph_inputs.size()) +
                      " graph inputs; a " + ModelFamilyName(family) + " takes " +
                      std::to_string(required) + " (wrong model family?)");
  return false;
}

// The library exits the whole process on some unusable model files (a missing
// metadata key, for one) instead of failing Create, so every file is vetted
// here first.
bool CheckTransducerFiles(const OnlineInitOptions& options,
                          std::string* error) {
  constexpr size_t kJoinerInputs = 2;  // encoder frame, decoder output
  OnnxModelInfo joiner_info;
  return CheckModelFile(options.encoder, ModelFamily::kOnlineTransducerEncoder,
                        error) &&
         CheckModelFile(options.decoder, ModelFamily::kOnlineTransducerDecoder,
                        error) &&
         CheckModelFile(options.joiner, ModelFamily::kOnlineTransducerJoiner,
                        &joiner_info, error) &&
         HasEnoughGraphInputs(options.joiner, joiner_info, kJoinerInputs,
                              ModelFamily::kOnlineTransducerJoiner, error) &&
         CheckTokensFile(options.tokens, error);
}

// The paraformer decoder takes the encoder output and its length, the
// acoustic embeddings and their count, then one cache per decoder block; the
// block count comes from the encoder's metadata.
size_t ParaformerDecoderInputs(const OnnxModelInfo& encoder_info) {
  constexpr size_t kFixedInputs = 4;
  const std::string* blocks = encoder_info.FindMetadata("decoder_num_blocks");
  if (blocks == nullptr) return kFixedInputs;
  char* end = nullptr;
  const long count = std::strtol(blocks->c_str(), &end, 10);
  if (end == blocks->c_str() || count < 0) return kFixedInputs;
  return kFixedInputs + static_cast<size_t>(count);
}

bool CheckParaformerFiles(const OnlineInitOptions& options,
                          std::string* error) {
  OnnxModelInfo encoder_info;
  OnnxModelInfo decoder_info;
  return CheckModelFile(options.encoder, ModelFamily::kOnlineParaformerEncoder,
                        &encoder_info, error) &&
         CheckModelFile(options.decoder, ModelFamily::kOnlineParaformerDecoder,
                        &decoder_info, error) &&
         HasEnoughGraphInputs(options.decoder, decoder_info,
                              ParaformerDecoderInputs(encoder_info),
                              ModelFamily::kOnlineParaformerDecoder, error) &&
         CheckTokensFile(options.tokens, error);
}

// The library ends the process on a decoding method it does not implement:
// the streaming paraformer knows only greedy search. Empty means its default,
// greedy search.
bool CheckDecodingMethod(const OnlineInitOptions& options, bool is_paraformer,
                         std::string* error) {
  const std::string& method = options.decoding_method;
  if (method.empty() || method == "greedy_search") return true;
  if (!is_paraformer && method == "modified_beam_search") return true;
  SetError(error, "online decoding method '" + method +
                      "' is not supported" +
                      (is_paraformer
                           ? " by a paraformer (only greedy_search)"
                           : " (use greedy_search or modified_beam_search)"));
  return false;
}

// A zero rate would reach the stream's resampler as an input rate of 0; a
// zero or negative feature dimension would size the filter bank from it.
bool CheckFrontEnd(const OnlineInitOptions& options, std::string* error) {
  if (options.sample_rate < 1) {
    SetError(error, "online sample rate must be positive, got " +
                        std::to_string(options.sample_rate));
    return false;
  }
  if (options.feature_dim < 1) {
    SetError(error, "online feature dimension must be positive, got " +
                        std::to_string(options.feature_dim));
    return false;
  }
  return true;
}

// Every field not set here (hotwords, CTC models, rule FSTs, modeling unit)
// stays zero, which the library reads as "unused" or "default".
SherpaOnnxOnlineRecognizerConfig BuildRecognizerConfig(
    const OnlineInitOptions& options, bool is_paraformer) {
  SherpaOnnxOnlineRecognizerConfig config{};
  config.feat_config.sample_rate = options.sample_rate;
  config.feat_config.feature_dim = options.feature_dim;
  if (is_paraformer) {
    config.model_config.paraformer.encoder = options.encoder.c_str();
    config.model_config.paraformer.decoder = options.decoder.c_str();
  } else {
    config.model_config.transducer.encoder = options.encoder.c_str();
    config.model_config.transducer.decoder = options.decoder.c_str();
    config.model_config.transducer.joiner = options.joiner.c_str();
  }
  config.model_config.tokens = options.tokens.c_str();
  config.model_config.num_threads = std::max(options.num_threads, 1);
  config.model_config.provider = options.provider.c_str();
  config.model_config.debug = 0;
  // For a transducer the library wants the architecture (lstm, zipformer2,
  // ...), not the family; left empty it reads it from the encoder's metadata,
  // which it would also do after complaining on stderr about "transducer".
  config.model_config.model_type = is_paraformer ? "paraformer" : "";
  config.decoding_method = options.decoding_method.c_str();
  config.max_active_paths = options.max_active_paths;
  config.enable_endpoint = options.enable_endpoint ? 1 : 0;
  config.rule1_min_trailing_silence = options.rule1_min_trailing_silence;
  config.rule2_min_trailing_silence = options.rule2_min_trailing_silence;
  config.rule3_min_utterance_length = options.rule3_min_utterance_length;
  return config;
}

bool CreateStream(const SherpaOnnxOnlineRecognizer* recognizer,
                  OnlineStreamHandle* stream, std::string* error) {
  return CallLibrary(
      "SherpaOnnxCreateOnlineStream()",
      [&] { stream->reset(SherpaOnnxCreateOnlineStream(recognizer)); }, error);
}

// Decodes every chunk of features the stream has buffered so far.
bool DecodeWhileReady(const SherpaOnnxOnlineRecognizer* recognizer,
                      const SherpaOnnxOnlineStream* stream,
                      std::string* error) {
  return CallLibrary(
      "SherpaOnnxDecodeOnlineStream()",
      [&] {
        while (SherpaOnnxIsOnlineStreamReady(recognizer, stream) != 0) {
          SherpaOnnxDecodeOnlineStream(recognizer, stream);
        }
      },
      error);
}

// Copies the stream's running hypothesis into text (when given). A missing
// result is not an error: the text simply stays empty.
bool ReadHypothesis(const SherpaOnnxOnlineRecognizer* recognizer,
                    const SherpaOnnxOnlineStream* stream, std::string* text,
                    std::string* error) {
  return CallLibrary(
      "SherpaOnnxGetOnlineStreamResult()",
      [&] {
        OnlineResultHandle result(
            SherpaOnnxGetOnlineStreamResult(recognizer, stream));
        if (result != nullptr && result->text != nullptr && text != nullptr) {
          *text = result->text;
        }
      },
      error);
}

}  // namespace

OnlineBackend::OnlineBackend() = default;
OnlineBackend::~OnlineBackend() = default;

bool OnlineBackend::Init(const OnlineInitOptions& options,
                         std::string* error) {
  // Releasing the old record frees the stream before its recognizer.
  impl_.reset();
  impl_ = std::make_unique<Impl>();

  const bool is_paraformer = ResolvesToParaformer(options);
  if (!HasAllPaths(options, is_paraformer)) {
    SetError(error, "online model paths are incomplete");
    return false;
  }
  impl_->options = options;
  impl_->is_paraformer = is_paraformer;

  const OnlineInitOptions& kept = impl_->options;
  if (!CheckFrontEnd(kept, error) ||
      !CheckDecodingMethod(kept, is_paraformer, error)) {
    return false;
  }
  const bool files_usable = is_paraformer ? CheckParaformerFiles(kept, error)
                                          : CheckTransducerFiles(kept, error);
  if (!files_usable) return false;

  const SherpaOnnxOnlineRecognizerConfig config =
      BuildRecognizerConfig(kept, is_paraformer);
  const bool created = CallLibrary(
      "SherpaOnnxCreateOnlineRecognizer()",
      [&] {
        impl_->recognizer.reset(SherpaOnnxCreateOnlineRecognizer(&config));
      },
      error);
  if (!created) return false;
  if (impl_->recognizer == nullptr) {
    SetError(error, "SherpaOnnxCreateOnlineRecognizer() failed");
    return false;
  }

  if (!CreateStream(impl_->recognizer.get(), &impl_->stream, error)) {
    impl_->recognizer.reset();
    return false;
  }
  if (impl_->stream == nullptr) {
    impl_->recognizer.reset();
    SetError(error, "SherpaOnnxCreateOnlineStream() failed");
    return false;
  }
  return true;
}

bool OnlineBackend::IsReady() const {
  return impl_ != nullptr && impl_->recognizer != nullptr &&
         impl_->stream != nullptr;
}

bool OnlineBackend::AcceptAndDecode(const std::vector<float>& samples,
                                    std::string* text, bool* is_endpoint,
                                    std::string* error) {
  if (text != nullptr) text->clear();
  if (is_endpoint != nullptr) *is_endpoint = false;
  if (samples.empty()) return true;
  if (!IsReady()) return Fail(error, kNotInitialized);
  if (!FitsLibrarySampleCount(samples.size(), "audio chunk is too long for the online recognizer",
                              error)) {
    return false;
  }

  const SherpaOnnxOnlineRecognizer* recognizer = impl_->recognizer.get();
  const SherpaOnnxOnlineStream* stream = impl_->stream.get();
  // Always the configured rate: the library ends the process when the rate
  // of a later chunk differs from the one its resampler was built for.
  const int32_t sample_rate = impl_->options.sample_rate;
  const bool accepted = CallLibrary(
      "SherpaOnnxOnlineStreamAcceptWaveform()",
      [&] {
        SherpaOnnxOnlineStreamAcceptWaveform(
            stream, sample_rate, samples.data(),
            static_cast<int32_t>(samples.size()));
      },
      error);
  if (!accepted || !DecodeWhileReady(recognizer, stream, error) ||
      !ReadHypothesis(recognizer, stream, text, error)) {
    return false;
  }
  if (is_endpoint == nullptr) return true;
  return CallLibrary(
      "SherpaOnnxOnlineStreamIsEndpoint()",
      [&] {
        *is_endpoint = SherpaOnnxOnlineStreamIsEndpoint(recognizer, stream) != 0;
      },
      error);
}

bool OnlineBackend::InputFinishedAndDecode(std::string* text,
                                           std::string* error) {
  if (text != nullptr) text->clear();
  if (!IsReady()) {
    SetError(error, kNotInitialized);
    return false;
  }
  const SherpaOnnxOnlineRecognizer* recognizer = impl_->recognizer.get();
  const SherpaOnnxOnlineStream* stream = impl_->stream.get();
  const bool finished = CallLibrary(
      "SherpaOnnxOnlineStreamInputFinished()",
      [&] {
        // A streaming paraformer leaves the last, shorter-than-a-chunk piece
        // of audio undecoded unless the stream is told it is final.
        if (impl_->is_paraformer) {
          SherpaOnnxOnlineStreamSetOption(stream, "is_final", "1");
        }
        SherpaOnnxOnlineStreamInputFinished(stream);
      },
      error);
  return finished && DecodeWhileReady(recognizer, stream, error) &&
         ReadHypothesis(recognizer, stream, text, error);
}

bool OnlineBackend::Reset(std::string* error) {
  if (!IsReady()) {
    SetError(error, kNotInitialized);
    return false;
  }
  impl_->stream.reset();
  if (!CreateStream(impl_->recognizer.get(), &impl_->stream, error)) {
    return false;
  }
  if (impl_->stream == nullptr) {
    SetError(error, "SherpaOnnxCreateOnlineStream() failed during reset");
    return false;
  }
  return true;
}

}  // namespace kerrow
