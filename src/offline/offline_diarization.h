#ifndef KERROW_OFFLINE_OFFLINE_DIARIZATION_H_
#define KERROW_OFFLINE_OFFLINE_DIARIZATION_H_

#include <cstdint>
#include <vector>

#include "common/options.h"
#include "diarization/diarization_backend.h"

namespace kerrow {

class EventEmitter;

// Half-open range of sample indices: [start, end).
struct SampleRange {
  int32_t start = 0;
  int32_t end = 0;
};

// Runs the diarization backend over a whole recording with the skip and log
// rules both pipelines share. True without touching the backend when
// diarization is off or the backend is missing; false when Process fails.
bool RunOfflineDiarization(const Options& options,
                           DiarizationBackend* backend,
                           const std::vector<float>& samples,
                           EventEmitter* emitter,
                           std::vector<DiarizationSegment>* out);

// Pads each range by pad samples (clamped to the recording), sorts them and
// joins ranges that lie at most max_gap samples apart.
std::vector<SampleRange> MergeSpeechRanges(std::vector<SampleRange> ranges,
                                           int32_t total_samples, int32_t pad,
                                           int32_t max_gap);

// Kept for diarizing speech regions only. The pipelines diarize whole
// recordings, so this runs on the whole recording and the ranges are not
// used.
bool RunOfflineDiarizationOnSpeechRanges(
    const Options& options, DiarizationBackend* backend,
    const std::vector<float>& samples, const std::vector<SampleRange>& ranges,
    EventEmitter* emitter, std::vector<DiarizationSegment>* out);

}  // namespace kerrow

#endif  // KERROW_OFFLINE_OFFLINE_DIARIZATION_H_
