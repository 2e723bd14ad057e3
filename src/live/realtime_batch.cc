#include "live/realtime_batch.h"

#include <algorithm>
#include <utility>

#include "common/sample_time.h"
#include "events/event_emitter.h"
#include "events/segment_result.h"
#include "events/transcript_records.h"
#include "offline/windowed_decode.h"
#include "text/punc_refine.h"

namespace kerrow {

namespace {

// Each segment goes in behind its lookback: the VAD opens a segment only once
// speech is under way, and without the audio before it the first sounds of
// the utterance would be lost, as the whole-file decode's padding avoids.
std::vector<float> JoinSegmentAudio(const std::vector<PendingRealtimeSegment>& segments) {
  size_t total = 0;
  for (const auto& segment : segments) total += segment.lookback.size() + segment.samples.size();
  std::vector<float> joined;
  joined.reserve(total);
  for (const auto& segment : segments) {
    joined.insert(joined.end(), segment.lookback.begin(), segment.lookback.end());
    joined.insert(joined.end(), segment.samples.begin(), segment.samples.end());
  }
  return joined;
}

SegmentResult BatchTimeSpan(const Options& options,
                            const std::vector<PendingRealtimeSegment>& segments) {
  int64_t end_sample = 0;
  for (const auto& segment : segments) {
    end_sample = std::max<int64_t>(
        end_sample, static_cast<int64_t>(segment.start_sample) +
                        static_cast<int64_t>(segment.samples.size()));
  }
  const int32_t rate = EffectiveSampleRate(options.sample_rate);
  SegmentResult result;
  result.start_time = SamplesToSeconds(segments.front().start_sample, rate);
  result.end_time = SamplesToSeconds(end_sample, rate);
  return result;
}

}  // namespace

bool DecodeAndEmitRealtimeBatch(const Options& options, OfflineDecoderBackend* decoder,
                                PuncBackend* punc, EventEmitter* emitter,
                                const std::vector<PendingRealtimeSegment>& segments,
                                bool offline_2pass_flag, std::string* punc_context,
                                int context_codepoints, bool is_final) {
  if (segments.empty()) return true;
  const std::vector<float> audio = JoinSegmentAudio(segments);
  if (audio.empty()) return true;

  std::string text;
  std::string error;
  // A batch of long utterances can outgrow Whisper's window; it is decoded in
  // pieces rather than cut short by the library.
  const bool decoded = DecodeWithinRecognizerWindow(options, decoder, audio, &text, &error);
  if (!decoded) {
    if (emitter != nullptr) emitter->EmitError("Realtime VAD decode failed: " + error);
    return false;
  }
  if (text.empty()) return true;

  text = ApplyRealtimePunc(punc, emitter, text, punc_context, context_codepoints, is_final);
  if (!HasContentText(text)) return true;

  SegmentResult result = BatchTimeSpan(options, segments);
  result.text = text;
  const int32_t first_id = segments.front().segment_id;
  const int32_t last_id = segments.back().segment_id;
  // is_final only shapes the punctuation (the stop-time batch ends in a
  // sentence mark); the record never claims finality, the host settles the
  // first-pass results its id range names.
  const std::string json = BuildSecondPassResultJson(
      {result}, offline_2pass_flag, /*is_final=*/false, std::max(first_id, last_id),
      std::min(first_id, last_id), static_cast<int>(segments.size()),
      /*merged_text=*/nullptr, options.session_id);
  if (emitter != nullptr) emitter->EmitRawJson(json);
  return true;
}

RealtimeBatchQueue::RealtimeBatchQueue(const Options& options, OfflineDecoderBackend* decoder,
                                       PuncBackend* punc, EventEmitter* emitter)
    : options_(options),
      decoder_(decoder),
      punc_(punc),
      emitter_(emitter),
      batch_size_(std::max(options.second_pass_every, 0)),
      min_batch_samples_(std::max(options.sample_rate, 1)) {}

void RealtimeBatchQueue::Add(PendingRealtimeSegment segment) {
  pending_.push_back(std::move(segment));
  if (batch_size_ > 0 && pending_.size() >= static_cast<size_t>(batch_size_)) {
    DecodePendingBatch(/*force=*/false);
  }
}

void RealtimeBatchQueue::DecodePendingBatch(bool force) {
  if (batch_size_ < 1 || pending_.empty()) return;
  int64_t total = 0;
  for (const auto& segment : pending_) total += static_cast<int64_t>(segment.samples.size());
  if (!force && total < min_batch_samples_) {
    // Very short utterances decode badly on their own; let the batch grow
    // until it holds a second of audio.
    if (emitter_ != nullptr) {
      emitter_->EmitLog("[M3] realtime 2pass pending short segment samples=" +
                        std::to_string(total) +
                        " min_samples=" + std::to_string(min_batch_samples_));
    }
    return;
  }
  const bool ok = DecodeAndEmitRealtimeBatch(options_, decoder_, punc_, emitter_, pending_,
                                             /*offline_2pass_flag=*/false, &punc_context_,
                                             kPuncContextCodepoints, force);
  if (!ok && emitter_ != nullptr) {
    emitter_->EmitLog("[M3] realtime 2pass batch skipped after decode failure");
  }
  pending_.clear();
}

void RealtimeBatchQueue::Clear() {
  pending_.clear();
  punc_context_.clear();
}

}  // namespace kerrow
