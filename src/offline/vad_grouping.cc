#include "offline/vad_grouping.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "common/sample_time.h"
#include "events/number_format.h"

namespace kerrow {
namespace {

// Without a maximum speech length a group may still not grow past this.
constexpr double kDefaultMaxGroupSeconds = 8.0;
constexpr double kWhisperMaxSpanSeconds = 29.0;

VadPlanStep LogStep(const std::string& line) {
  VadPlanStep step;
  step.kind = VadPlanStep::Kind::kLog;
  step.log_line = line;
  return step;
}

VadPlanStep DecodeStep(const SampleSpan& piece) {
  VadPlanStep step;
  step.kind = VadPlanStep::Kind::kDecode;
  step.piece = piece;
  return step;
}

}  // namespace

VadGroupingLimits MakeVadGroupingLimits(const Options& options,
                                        int64_t total_samples) {
  VadGroupingLimits limits;
  const int32_t sr = options.sample_rate;
  limits.sample_rate = sr;
  limits.total_samples = total_samples;
  const double max_group_seconds = options.vad_max_speech > 0
                                       ? options.vad_max_speech
                                       : kDefaultMaxGroupSeconds;
  limits.max_group_samples =
      std::max<int64_t>(SecondsToSamples(max_group_seconds, sr, SampleRounding::kTowardZero), sr);
  limits.whisper = options.second_type == "whisper";
  limits.max_span_samples =
      limits.whisper ? std::max<int64_t>(SecondsToSamples(kWhisperMaxSpanSeconds, sr), 1)
                     : std::numeric_limits<int32_t>::max();
  limits.silence_gap_samples = std::max<int64_t>(
      SecondsToSamples(options.vad_min_silence, sr), 1);
  limits.lookback_samples = SecondsToSamples(options.vad_lookback, sr);
  limits.lookahead_samples =
      SecondsToSamples(options.vad_lookahead, sr);
  return limits;
}

VadGroupPlanner::VadGroupPlanner(const VadGroupingLimits& limits)
    : limits_(limits) {}

void VadGroupPlanner::AddSpeech(const SampleSpan& segment,
                                std::vector<VadPlanStep>* steps) {
  const int64_t s = segment.start;
  const int64_t e = segment.end;
  last_speech_end_ = std::max(last_speech_end_, e);
  if (e <= s) return;

  int64_t base = s;
  if (!GroupOpen()) {
    group_start_ = s;
    group_end_ = e;
  } else {
    const int64_t span = std::max(e, group_end_) - std::min(s, group_start_);
    const char* reason = nullptr;
    if (s - group_end_ > limits_.silence_gap_samples) {
      reason = "silence_gap";
    } else if (span > limits_.max_group_samples) {
      reason = "max_duration";
    } else if (limits_.whisper && span > limits_.max_span_samples) {
      reason = "max_span";
    }
    if (reason != nullptr) {
      Cut(reason, steps);
      group_start_ = s;
      group_end_ = e;
    } else {
      group_start_ = std::min(s, group_start_);
      group_end_ = std::max(e, group_end_);
      base = last_end_;
    }
  }

  // Only speech not counted before adds to the group's total, so
  // overlapping segments are not counted twice.
  const int64_t added = std::max<int64_t>(e - std::max(s, base), 0);
  acc_ += added;
  last_end_ = std::max(e, base);

  steps->push_back(LogStep(
      "[OFFLINE2PASS][VAD] start=" + Seconds(s) + "s end=" + Seconds(e) +
      "s raw=" + Seconds(e - s) + "s added=" + Seconds(added) +
      "s acc=" + Seconds(acc_) + "s max=" +
      Seconds(limits_.max_group_samples) + "s span=" +
      Seconds(group_end_ - group_start_) + "s span_max=" + SpanMax()));
}

bool VadGroupPlanner::Finish(std::vector<VadPlanStep>* steps) {
  // The VAD closes no segment for speech cut off by the end of the recording
  // and drops what it judges too short; decoding everything after the last
  // detected speech keeps those last words.
  const bool tail = last_speech_end_ < limits_.total_samples;
  if (tail) {
    for (const SampleSpan& piece :
         SplitIntoPieces({last_speech_end_, limits_.total_samples},
                         limits_.max_group_samples)) {
      AddSpeech(piece, steps);
    }
  }
  Cut("flush", steps);
  return tail;
}

void VadGroupPlanner::Cut(const std::string& reason,
                          std::vector<VadPlanStep>* steps) {
  if (!GroupOpen() || group_end_ <= group_start_) return;
  const int64_t padded_start =
      std::max<int64_t>(group_start_ - limits_.lookback_samples, 0);
  const int64_t padded_end = std::min(group_end_ + limits_.lookahead_samples,
                                      limits_.total_samples);
  steps->push_back(LogStep(
      "[OFFLINE2PASS][CUT] reason=" + reason +
      " group_start=" + Seconds(group_start_) +
      "s group_end=" + Seconds(group_end_) +
      "s padded_start=" + Seconds(padded_start) +
      "s padded_end=" + Seconds(padded_end) + "s acc=" + Seconds(acc_) +
      "s max=" + Seconds(limits_.max_group_samples) +
      "s span=" + Seconds(group_end_ - group_start_) +
      "s span_max=" + SpanMax()));

  for (const SampleSpan& piece :
       RecognizerWindowPieces(limits_, {padded_start, padded_end})) {
    steps->push_back(DecodeStep(piece));
  }
  group_start_ = -1;
  group_end_ = -1;
  acc_ = 0;
}

std::string VadGroupPlanner::Seconds(int64_t samples) const {
  return FormatSixDecimals(static_cast<double>(samples) /
                           static_cast<double>(limits_.sample_rate));
}

std::string VadGroupPlanner::SpanMax() const {
  return limits_.whisper ? Seconds(limits_.max_span_samples) + "s"
                         : std::string("disabled");
}

VadPlanStep TailCompensationStep() {
  return LogStep("offline_2pass tail compensation enabled");
}

std::vector<VadPlanStep> PlanVadDecode(const VadGroupingLimits& limits,
                                       const std::vector<SampleSpan>& speech) {
  VadGroupPlanner planner(limits);
  std::vector<VadPlanStep> steps;
  for (const SampleSpan& segment : speech) planner.AddSpeech(segment, &steps);
  std::vector<VadPlanStep> plan;
  if (planner.Finish(&steps)) plan.push_back(TailCompensationStep());
  plan.insert(plan.end(), std::make_move_iterator(steps.begin()),
              std::make_move_iterator(steps.end()));
  return plan;
}

std::vector<SampleSpan> ChunkFallbackPieces(const VadGroupingLimits& limits) {
  // A maximum speech length past Whisper's window must not hand it a chunk
  // the library would cut.
  const int64_t chunk = limits.whisper ? std::min(limits.max_group_samples, limits.max_span_samples)
                                       : limits.max_group_samples;
  return SplitIntoPieces({0, limits.total_samples}, chunk);
}

std::vector<SampleSpan> SplitIntoPieces(const SampleSpan& span,
                                        int64_t max_piece_samples) {
  std::vector<SampleSpan> pieces;
  const int64_t step = std::max<int64_t>(max_piece_samples, 1);
  for (int64_t a = span.start; a < span.end; a += step) {
    pieces.push_back({a, std::min(a + step, span.end)});
  }
  return pieces;
}

std::vector<SampleSpan> RecognizerWindowPieces(const VadGroupingLimits& limits,
                                               const SampleSpan& span) {
  if (span.end <= span.start) return {};
  if (!limits.whisper) return {span};
  return SplitIntoPieces(span, limits.max_span_samples);
}

}  // namespace kerrow
