#include "diarization/diarization_backend.h"

#include <utility>

#include "common/error_text.h"

namespace kerrow {
namespace {

std::unique_ptr<DiarizationBackend> NoBackend(std::string* error,
                                              const std::string& message) {
  SetError(error, message);
  return nullptr;
}

}  // namespace

std::unique_ptr<DiarizationBackend> CreateDiarizationBackend(
    const DiarizationInitOptions& options, std::string* error) {
  std::unique_ptr<DiarizationBackend> backend;
  std::string name;
  // The helper binary wins even when model paths are given too. The model
  // directory alone selects nothing: it only serves the sherpa-onnx backend
  // once an explicit model path has chosen that backend.
  if (!options.helper_binary.empty()) {
    name = "fluidaudio";
    backend = MakeFluidAudioDiarizationBackend();
    if (backend == nullptr) {
      return NoBackend(error,
                       "fluidaudio backend was requested via "
                       "--diarization-helper-binary but is not compiled into this "
                       "binary");
    }
  } else if (!options.segmentation_model.empty() ||
             !options.embedding_model.empty()) {
    name = "sherpa-onnx";
    backend = MakeSherpaOnnxDiarizationBackend();
    if (backend == nullptr) {
      return NoBackend(error,
                       "sherpa-onnx backend was requested via "
                       "--diarization-segmentation-model / "
                       "--diarization-embedding-model but is not compiled into "
                       "this binary");
    }
  } else {
    return NoBackend(error,
                     "no diarization backend selected: pass either "
                     "--diarization-helper-binary (fluidaudio) or "
                     "--diarization-segmentation-model + "
                     "--diarization-embedding-model (sherpa-onnx)");
  }

  std::string init_error;
  if (!backend->Init(options, &init_error)) {
    return NoBackend(error, name + " backend init failed: " + init_error);
  }
  return backend;
}

}  // namespace kerrow
