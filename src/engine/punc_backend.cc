#include "engine/punc_backend.h"

#include <algorithm>

#include "engine/library_call.h"
#include "engine/model_file_check.h"
#include "engine/sherpa_handles.h"
#include "engine/sherpa_onnx_c_api.h"

namespace kerrow {

namespace {

bool CreatePunctuation(const PuncInitOptions& options,
                       PunctuationHandle* punctuation, std::string* error) {
  SherpaOnnxOfflinePunctuationConfig config{};
  config.model.ct_transformer = options.model.c_str();
  config.model.num_threads = std::max<int32_t>(options.num_threads, 1);
  config.model.debug = 0;
  config.model.provider = options.provider.c_str();
  if (!CallLibrary(
          "SherpaOnnxCreateOfflinePunctuation()",
          [&] { punctuation->reset(SherpaOnnxCreateOfflinePunctuation(&config)); },
          error)) {
    return false;
  }
  if (!*punctuation) return Fail(error, "SherpaOnnxCreateOfflinePunctuation() failed");
  return true;
}

}  // namespace

struct PuncBackend::Impl {
  PuncInitOptions options;
  PunctuationHandle punctuation;
};

PuncBackend::PuncBackend() = default;
PuncBackend::~PuncBackend() = default;

bool PuncBackend::Init(const PuncInitOptions& options, std::string* error) {
  impl_.reset();
  impl_ = std::make_unique<Impl>();
  if (options.model.empty()) {
    SetError(error, "punctuation model path is empty");
    return false;
  }
  impl_->options = options;
  // The library ends the process on a file that is not a punctuation model.
  if (!CheckModelFile(impl_->options.model, ModelFamily::kPunctuation, error)) {
    return false;
  }
  return CreatePunctuation(impl_->options, &impl_->punctuation, error);
}

bool PuncBackend::IsReady() const {
  return impl_ != nullptr && impl_->punctuation != nullptr;
}

bool PuncBackend::AddPunctuation(const std::string& text, std::string* out,
                                 std::string* error) {
  if (out != nullptr) *out = text;
  if (text.empty()) return true;
  if (!IsReady()) {
    SetError(error, "Punctuation backend is not initialized");
    return false;
  }
  PunctuatedTextHandle punctuated;
  if (!CallLibrary(
          "SherpaOfflinePunctuationAddPunct()",
          [&] {
            punctuated.reset(SherpaOfflinePunctuationAddPunct(
                impl_->punctuation.get(), text.c_str()));
          },
          error)) {
    return false;
  }
  if (!punctuated) return Fail(error, "SherpaOfflinePunctuationAddPunct() failed");
  if (out != nullptr) *out = punctuated.get();
  return true;
}

}  // namespace kerrow
