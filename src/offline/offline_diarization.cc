#include "offline/offline_diarization.h"

#include <algorithm>
#include <string>

#include "common/sample_time.h"
#include "events/event_emitter.h"
#include "events/number_format.h"

namespace kerrow {

bool RunOfflineDiarization(const Options& options,
                           DiarizationBackend* backend,
                           const std::vector<float>& samples,
                           EventEmitter* emitter,
                           std::vector<DiarizationSegment>* out) {
  out->clear();
  if (!options.diarization) return true;
  if (backend == nullptr || !backend->IsReady()) {
    emitter->EmitLog("diarization skipped: backend not initialized");
    return true;
  }

  std::string error;
  if (!backend->Process(samples, options.sample_rate, out, &error)) {
    emitter->EmitLog("diarization failed: " + error);
    return false;
  }
  const double audio_seconds = SamplesToSeconds(static_cast<int64_t>(samples.size()), options.sample_rate);
  emitter->EmitLog("diarization segments=" + std::to_string(out->size()) +
                   " audio_s=" + FormatSixDecimals(audio_seconds));
  return true;
}

std::vector<SampleRange> MergeSpeechRanges(std::vector<SampleRange> ranges,
                                           int32_t total_samples, int32_t pad,
                                           int32_t max_gap) {
  std::vector<SampleRange> padded;
  padded.reserve(ranges.size());
  for (const SampleRange& range : ranges) {
    // 64-bit so that padding near the int32 limits cannot overflow.
    const int64_t start = std::max<int64_t>(int64_t{range.start} - pad, 0);
    const int64_t end =
        std::min<int64_t>(int64_t{range.end} + pad, total_samples);
    if (end <= start) continue;
    padded.push_back(
        {static_cast<int32_t>(start), static_cast<int32_t>(end)});
  }
  std::sort(padded.begin(), padded.end(),
            [](const SampleRange& a, const SampleRange& b) {
              return a.start < b.start;
            });

  std::vector<SampleRange> merged;
  for (const SampleRange& range : padded) {
    if (!merged.empty() &&
        int64_t{range.start} <= int64_t{merged.back().end} + max_gap) {
      merged.back().end = std::max(merged.back().end, range.end);
    } else {
      merged.push_back(range);
    }
  }
  return merged;
}

bool RunOfflineDiarizationOnSpeechRanges(
    const Options& options, DiarizationBackend* backend,
    const std::vector<float>& samples,
    const std::vector<SampleRange>& /*ranges*/, EventEmitter* emitter,
    std::vector<DiarizationSegment>* out) {
  out->clear();
  if (!options.diarization) return true;
  return RunOfflineDiarization(options, backend, samples, emitter, out);
}

}  // namespace kerrow
