#include "offline/speech_search.h"

#include <algorithm>
#include <cstdint>

namespace kerrow {
namespace {

constexpr int32_t kVadWindowSamples = 512;
constexpr float kVadBufferSeconds = 120.0f;

// Passes on the bounds of every segment the detector has closed.
void TakeClosedSegments(VadBackend* vad, int64_t total_samples,
                        const std::function<void(const SampleSpan&)>& on_speech) {
  VadSegment segment;
  std::string error;
  while (vad->PopSegment(&segment, &error)) {
    if (segment.samples.empty()) continue;
    const int64_t start = std::max<int64_t>(segment.start, 0);
    const int64_t end = std::min<int64_t>(
        start + static_cast<int64_t>(segment.samples.size()), total_samples);
    on_speech({start, end});
  }
}

}  // namespace

bool InitSpeechSearchVad(const Options& options, VadBackend* vad,
                         std::string* log_line) {
  if (options.silero_vad_model.empty()) return false;

  VadInitOptions vad_options;
  vad_options.sample_rate = options.sample_rate;
  vad_options.num_threads = 1;
  vad_options.provider = options.provider_first;
  vad_options.model = options.silero_vad_model;
  vad_options.threshold = static_cast<float>(options.vad_threshold);
  vad_options.min_silence_duration =
      static_cast<float>(options.vad_min_silence);
  vad_options.min_speech_duration = static_cast<float>(options.vad_min_speech);
  vad_options.max_speech_duration =
      static_cast<float>(std::max(options.vad_max_speech, 0.0));
  vad_options.window_size = kVadWindowSamples;
  vad_options.buffer_seconds = kVadBufferSeconds;

  std::string error;
  if (!vad->Init(vad_options, &error)) {
    *log_line = "offline_2pass VAD init failed, fallback to chunk decode: " +
                error;
    return false;
  }
  return true;
}

bool SearchSpeech(VadBackend* vad, const std::vector<float>& samples,
                  int32_t sample_rate,
                  const std::function<void(const SampleSpan&)>& on_speech,
                  const std::atomic<bool>& stop, std::string* log_line) {
  // Fed in 100 ms blocks, as live audio would arrive.
  const size_t block =
      static_cast<size_t>(std::max<int32_t>(sample_rate / 10, 1));
  const int64_t total = static_cast<int64_t>(samples.size());
  std::vector<float> chunk;
  chunk.reserve(block);
  std::string error;
  for (size_t pos = 0; pos < samples.size(); pos += block) {
    if (stop.load(std::memory_order_relaxed)) return true;
    const size_t end = std::min(pos + block, samples.size());
    chunk.assign(samples.begin() + pos, samples.begin() + end);
    if (!vad->AcceptWaveform(chunk, &error)) {
      *log_line =
          "offline_2pass VAD accept failed, fallback to chunk decode: " + error;
      return false;
    }
    TakeClosedSegments(vad, total, on_speech);
  }
  if (!vad->Flush(&error)) {
    *log_line =
        "offline_2pass VAD flush failed, fallback to chunk decode: " + error;
    return false;
  }
  TakeClosedSegments(vad, total, on_speech);
  return true;
}

}  // namespace kerrow
