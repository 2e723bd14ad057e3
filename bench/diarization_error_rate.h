#ifndef KERROW_BENCH_DIARIZATION_ERROR_RATE_H_
#define KERROW_BENCH_DIARIZATION_ERROR_RATE_H_

// Diarization error rate of labelled turns against reference turns: missed
// speech + false alarm + speaker confusion over the total reference speech,
// on 10 ms frames, counting overlapped speech once per speaker, with the
// mapping of hypothesis labels to reference voices that minimises the error.
// No collar.

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <vector>

#include "support/rttm_turns.h"

namespace kerrow::bench {

struct DiarizationErrorRate {
  double reference_seconds = 0.0;
  double missed_seconds = 0.0;
  double false_alarm_seconds = 0.0;
  double confusion_seconds = 0.0;

  double Rate() const {
    if (reference_seconds <= 0.0) return 0.0;
    return (missed_seconds + false_alarm_seconds + confusion_seconds) / reference_seconds;
  }
};

namespace der_detail {

constexpr double kFrameSeconds = 0.01;

// Index of each distinct label, in first-seen order.
inline std::map<std::string, int> LabelIndex(const std::vector<testing::LabelledSpan>& spans) {
  std::map<std::string, int> index;
  for (const auto& span : spans) index.emplace(span.label, static_cast<int>(index.size()));
  return index;
}

// activity[label][frame]: whether that label speaks in that frame.
inline std::vector<std::vector<bool>> Activity(const std::vector<testing::LabelledSpan>& spans,
                                               const std::map<std::string, int>& index,
                                               size_t frames) {
  std::vector<std::vector<bool>> activity(index.size(), std::vector<bool>(frames, false));
  for (const auto& span : spans) {
    const auto first = static_cast<size_t>(std::max(0.0, std::round(span.start / kFrameSeconds)));
    const auto last = std::min(frames, static_cast<size_t>(std::round(span.end / kFrameSeconds)));
    for (size_t f = first; f < last; ++f) activity[index.at(span.label)][f] = true;
  }
  return activity;
}

// The largest total of co-speaking frames over one-to-one mappings of
// hypothesis labels to reference voices (exhaustive: conversations have a
// handful of speakers).
inline double BestMatchedFrames(const std::vector<std::vector<double>>& shared, size_t hyp,
                                std::vector<bool>* used_ref) {
  if (hyp == shared.size()) return 0.0;
  double best = BestMatchedFrames(shared, hyp + 1, used_ref);  // leave hyp unmapped
  for (size_t ref = 0; ref < used_ref->size(); ++ref) {
    if ((*used_ref)[ref]) continue;
    (*used_ref)[ref] = true;
    best = std::max(best, shared[hyp][ref] + BestMatchedFrames(shared, hyp + 1, used_ref));
    (*used_ref)[ref] = false;
  }
  return best;
}

}  // namespace der_detail

inline DiarizationErrorRate ScoreDiarization(const std::vector<testing::LabelledSpan>& reference,
                                             const std::vector<testing::LabelledSpan>& hypothesis) {
  using der_detail::kFrameSeconds;
  double end = 0.0;
  for (const auto& span : reference) end = std::max(end, span.end);
  for (const auto& span : hypothesis) end = std::max(end, span.end);
  const auto frames = static_cast<size_t>(std::ceil(end / kFrameSeconds)) + 1;
  const auto ref_index = der_detail::LabelIndex(reference);
  const auto hyp_index = der_detail::LabelIndex(hypothesis);
  const auto ref = der_detail::Activity(reference, ref_index, frames);
  const auto hyp = der_detail::Activity(hypothesis, hyp_index, frames);

  std::vector<std::vector<double>> shared(hyp.size(), std::vector<double>(ref.size(), 0.0));
  double missed = 0.0, false_alarm = 0.0, overlap_capacity = 0.0, reference_frames = 0.0;
  for (size_t f = 0; f < frames; ++f) {
    int n_ref = 0, n_hyp = 0;
    for (const auto& voice : ref) n_ref += voice[f] ? 1 : 0;
    for (const auto& label : hyp) n_hyp += label[f] ? 1 : 0;
    for (size_t h = 0; h < hyp.size(); ++h) {
      if (!hyp[h][f]) continue;
      for (size_t r = 0; r < ref.size(); ++r) shared[h][r] += ref[r][f] ? 1.0 : 0.0;
    }
    reference_frames += n_ref;
    missed += std::max(0, n_ref - n_hyp);
    false_alarm += std::max(0, n_hyp - n_ref);
    overlap_capacity += std::min(n_ref, n_hyp);
  }
  std::vector<bool> used(ref.size(), false);
  const double matched = der_detail::BestMatchedFrames(shared, 0, &used);

  DiarizationErrorRate rate;
  rate.reference_seconds = reference_frames * kFrameSeconds;
  rate.missed_seconds = missed * kFrameSeconds;
  rate.false_alarm_seconds = false_alarm * kFrameSeconds;
  rate.confusion_seconds = (overlap_capacity - matched) * kFrameSeconds;
  return rate;
}

}  // namespace kerrow::bench

#endif  // KERROW_BENCH_DIARIZATION_ERROR_RATE_H_
