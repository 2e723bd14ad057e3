#ifndef KERROW_OFFLINE_VAD_GROUPING_H_
#define KERROW_OFFLINE_VAD_GROUPING_H_

#include <cstdint>
#include <string>
#include <vector>

#include "common/options.h"

namespace kerrow {

// The sample counts that steer how the whole-recording decode joins speech
// segments into decode groups.
struct VadGroupingLimits {
  int32_t sample_rate = 16000;
  int64_t total_samples = 0;
  // Longest span a group may reach; also the size of tail-compensation and
  // chunk-fallback pieces.
  int64_t max_group_samples = 0;
  // Whisper cannot decode more than 30 s at once, so its pieces stop at 29 s.
  bool whisper = false;
  int64_t max_span_samples = 0;
  // A pause longer than this starts a new group.
  int64_t silence_gap_samples = 1;
  // Audio added in front of and behind each group when it is decoded.
  int64_t lookback_samples = 0;
  int64_t lookahead_samples = 0;
};

VadGroupingLimits MakeVadGroupingLimits(const Options& options,
                                        int64_t total_samples);

// A half-open range of sample indices.
struct SampleSpan {
  int64_t start = 0;
  int64_t end = 0;
};

// One step of the decode plan, in the order the pipeline carries them out:
// either a log line to write or a piece of audio to decode.
struct VadPlanStep {
  enum class Kind { kLog, kDecode };
  Kind kind = Kind::kLog;
  std::string log_line;  // kLog
  SampleSpan piece;      // kDecode
};

// Joins detected speech into decode groups one segment at a time, so that
// the groups found so far can be decoded while the VAD is still searching the
// rest of the recording. Grouping never looks at decode results.
class VadGroupPlanner {
 public:
  explicit VadGroupPlanner(const VadGroupingLimits& limits);

  // Groups the next detected segment, with its "[OFFLINE2PASS][VAD]" line;
  // appends to steps the lines and decode pieces of any group it closes.
  void AddSpeech(const SampleSpan& segment, std::vector<VadPlanStep>* steps);

  // After the last detected segment: groups the audio after the last speech
  // (tail compensation), then closes the last group. Returns whether tail
  // compensation took place: its log line (TailCompensationStep) then goes
  // before every step of the plan.
  bool Finish(std::vector<VadPlanStep>* steps);

 private:
  void Cut(const std::string& reason, std::vector<VadPlanStep>* steps);
  bool GroupOpen() const { return group_start_ >= 0; }
  std::string Seconds(int64_t samples) const;
  std::string SpanMax() const;

  VadGroupingLimits limits_;
  int64_t group_start_ = -1;
  int64_t group_end_ = -1;
  int64_t acc_ = 0;
  int64_t last_end_ = 0;
  int64_t last_speech_end_ = 0;
};

// The "offline_2pass tail compensation enabled" line.
VadPlanStep TailCompensationStep();

// Plans the decode of the speech the VAD found, all at once: what
// VadGroupPlanner yields for the segments in order, behind the tail
// compensation line when there is one.
std::vector<VadPlanStep> PlanVadDecode(const VadGroupingLimits& limits,
                                       const std::vector<SampleSpan>& speech);

// Consecutive pieces of at most max_group_samples (and, for Whisper, of at
// most max_span_samples) covering the whole recording: the decode plan when
// there is no VAD.
std::vector<SampleSpan> ChunkFallbackPieces(const VadGroupingLimits& limits);

// Consecutive pieces of at most max_piece_samples (taken as at least 1)
// covering the span; none for an empty span.
std::vector<SampleSpan> SplitIntoPieces(const SampleSpan& span,
                                        int64_t max_piece_samples);

// The pieces in which the second-pass recognizer may decode the span: the
// span itself, except that Whisper gets consecutive pieces of at most
// max_span_samples, since the library silently cuts its input at 29.5 s.
std::vector<SampleSpan> RecognizerWindowPieces(const VadGroupingLimits& limits,
                                               const SampleSpan& span);

}  // namespace kerrow

#endif  // KERROW_OFFLINE_VAD_GROUPING_H_
