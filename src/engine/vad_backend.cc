#include "engine/vad_backend.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "engine/library_call.h"
#include "engine/model_file_check.h"
#include "engine/sherpa_handles.h"
#include "engine/sherpa_onnx_c_api.h"

namespace kerrow {

struct VadBackend::Impl {
  VoiceActivityDetectorHandle detector;
  // Private copy: keeps the strings of the config alive while it is in use.
  VadInitOptions options;
};

namespace {

constexpr char kNotInitialized[] = "VAD is not initialized";
// The silero v5 model is exported for one rate and one window; the library
// ends the process during Create when either differs.
constexpr int32_t kSileroSampleRate = 16000;
constexpr int32_t kSileroWindowSize = 512;
// The library refuses thresholds outside [0.01, 1), comparing in double
// precision: the float nearest 0.01 is just below it and refused too.
constexpr double kMinThreshold = 0.01;
constexpr double kMaxThresholdExclusive = 1.0;

// The library does not fail Create on these but ends the process inside it.
bool CheckSileroShape(const VadInitOptions& options, std::string* error) {
  if (options.sample_rate != kSileroSampleRate) {
    SetError(error, "VAD sample rate must be 16000 for the silero model, got " +
                        std::to_string(options.sample_rate));
    return false;
  }
  if (options.window_size != kSileroWindowSize) {
    SetError(error,
             "VAD window size must be 512 samples for the silero model, got " +
                 std::to_string(options.window_size));
    return false;
  }
  // Written so that NaN fails too.
  if (!(options.buffer_seconds > 0.0f)) {
    SetError(error, "VAD buffer seconds must be greater than 0");
    return false;
  }
  return true;
}

// The library refuses these only after printing to stderr, which the host
// reserves for the usage text, and would read a zero threshold as 0.5. A
// zero duration is allowed: it stands for the library's own default.
bool CheckSegmentationSettings(const VadInitOptions& options,
                               std::string* error) {
  for (const auto& [value, name] :
       {std::make_pair(options.min_silence_duration, "min silence duration"),
        std::make_pair(options.min_speech_duration, "min speech duration"),
        std::make_pair(options.max_speech_duration, "max speech duration")}) {
    if (!(value >= 0.0f)) {
      SetError(error, std::string("VAD ") + name + " must not be negative");
      return false;
    }
  }
  const double threshold = options.threshold;
  if (!(threshold >= kMinThreshold && threshold < kMaxThresholdExclusive)) {
    SetError(error, "VAD threshold must be at least 0.01 and below 1");
    return false;
  }
  return true;
}

SherpaOnnxVadModelConfig BuildDetectorConfig(const VadInitOptions& options) {
  SherpaOnnxVadModelConfig config{};
  config.silero_vad.model = options.model.c_str();
  config.silero_vad.threshold = options.threshold;
  config.silero_vad.min_silence_duration = options.min_silence_duration;
  config.silero_vad.min_speech_duration = options.min_speech_duration;
  config.silero_vad.max_speech_duration = options.max_speech_duration;
  config.silero_vad.window_size = options.window_size;
  config.sample_rate = options.sample_rate;
  config.num_threads = std::max(options.num_threads, 1);
  config.provider = options.provider.c_str();
  config.debug = 0;
  return config;
}

}  // namespace

VadBackend::VadBackend() = default;
VadBackend::~VadBackend() = default;

bool VadBackend::Init(const VadInitOptions& options, std::string* error) {
  impl_.reset();
  impl_ = std::make_unique<Impl>();

  if (options.model.empty()) {
    SetError(error, "VAD model path is empty");
    return false;
  }
  impl_->options = options;
  const VadInitOptions& kept = impl_->options;
  // A file the library cannot use can end the process inside Create.
  if (!CheckSileroShape(kept, error) ||
      !CheckSegmentationSettings(kept, error) ||
      !CheckModelFile(kept.model, ModelFamily::kSileroVad, error)) {
    return false;
  }

  const SherpaOnnxVadModelConfig config = BuildDetectorConfig(kept);
  const bool created = CallLibrary(
      "SherpaOnnxCreateVoiceActivityDetector()",
      [&] {
        impl_->detector.reset(
            SherpaOnnxCreateVoiceActivityDetector(&config, kept.buffer_seconds));
      },
      error);
  if (!created) return false;
  if (impl_->detector == nullptr) {
    SetError(error, "SherpaOnnxCreateVoiceActivityDetector() failed");
    return false;
  }
  return true;
}

bool VadBackend::IsReady() const {
  return impl_ != nullptr && impl_->detector != nullptr;
}

bool VadBackend::AcceptWaveform(const std::vector<float>& samples,
                                std::string* error) {
  if (samples.empty()) return true;
  if (!IsReady()) return Fail(error, kNotInitialized);
  if (!FitsLibrarySampleCount(samples.size(), "audio block is too long for the VAD", error)) {
    return false;
  }
  const SherpaOnnxVoiceActivityDetector* detector = impl_->detector.get();
  return CallLibrary(
      "SherpaOnnxVoiceActivityDetectorAcceptWaveform()",
      [&] {
        SherpaOnnxVoiceActivityDetectorAcceptWaveform(
            detector, samples.data(), static_cast<int32_t>(samples.size()));
      },
      error);
}

bool VadBackend::Flush(std::string* error) {
  if (!IsReady()) {
    SetError(error, kNotInitialized);
    return false;
  }
  const SherpaOnnxVoiceActivityDetector* detector = impl_->detector.get();
  return CallLibrary(
      "SherpaOnnxVoiceActivityDetectorFlush()",
      [&] { SherpaOnnxVoiceActivityDetectorFlush(detector); }, error);
}

bool VadBackend::Reset(std::string* error) {
  if (!IsReady()) {
    SetError(error, kNotInitialized);
    return false;
  }
  const SherpaOnnxVoiceActivityDetector* detector = impl_->detector.get();
  return CallLibrary(
      "SherpaOnnxVoiceActivityDetectorReset()",
      [&] { SherpaOnnxVoiceActivityDetectorReset(detector); }, error);
}

bool VadBackend::PopSegment(VadSegment* out, std::string* error) {
  if (out == nullptr) {
    SetError(error, "out is null");
    return false;
  }
  out->start = 0;
  out->samples.clear();
  if (!IsReady()) {
    SetError(error, kNotInitialized);
    return false;
  }
  const SherpaOnnxVoiceActivityDetector* detector = impl_->detector.get();
  bool queue_empty = true;
  if (!CallLibrary(
          "SherpaOnnxVoiceActivityDetectorEmpty()",
          [&] {
            queue_empty = SherpaOnnxVoiceActivityDetectorEmpty(detector) != 0;
          },
          error)) {
    return false;
  }
  // No message: an empty queue is the normal end of a pop loop.
  if (queue_empty) return false;

  SpeechSegmentHandle segment;
  if (!CallLibrary(
          "SherpaOnnxVoiceActivityDetectorFront()",
          [&] { segment.reset(SherpaOnnxVoiceActivityDetectorFront(detector)); },
          error)) {
    return false;
  }
  if (segment == nullptr) {
    SetError(error, "SherpaOnnxVoiceActivityDetectorFront() failed");
    return false;
  }
  out->start = segment->start;
  if (segment->n >= 1 && segment->samples != nullptr) {
    out->samples.assign(segment->samples, segment->samples + segment->n);
  }
  // Front hands out a copy; the queued original goes only with Pop.
  segment.reset();
  return CallLibrary(
      "SherpaOnnxVoiceActivityDetectorPop()",
      [&] { SherpaOnnxVoiceActivityDetectorPop(detector); }, error);
}

bool VadBackend::Detected() const {
  if (!IsReady()) return false;
  try {
    return SherpaOnnxVoiceActivityDetectorDetected(impl_->detector.get()) != 0;
  } catch (...) {
    // Detected has no error channel; treat an unreadable state as silence.
    return false;
  }
}

}  // namespace kerrow
