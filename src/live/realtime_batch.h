#ifndef KERROW_LIVE_REALTIME_BATCH_H_
#define KERROW_LIVE_REALTIME_BATCH_H_

#include <cstdint>
#include <string>
#include <vector>

#include "common/options.h"

namespace kerrow {

class EventEmitter;
class OfflineDecoderBackend;
class PuncBackend;

// A VAD segment whose first-pass result has been published and which now waits
// for the second pass.
struct PendingRealtimeSegment {
  // The id its first-pass result carried.
  int32_t segment_id = 0;
  // Index of its first sample, counted from the start of the capture.
  int32_t start_sample = 0;
  std::vector<float> samples;
  // The capture's audio just before start_sample (--vad-lookback, not reaching
  // back into the previous segment), decoded in front of the segment. The
  // result's times stay those of the segments.
  std::vector<float> lookback;
};

// Decodes the segments' audio joined end to end, punctuates the text with the
// running context (and leaves the tail of this batch in it), and emits one
// "result" record naming the range of segment ids it covers. An empty list, an
// empty text or a text without content emit nothing. False only when the
// decoder failed; that is reported as an error event.
bool DecodeAndEmitRealtimeBatch(const Options& options, OfflineDecoderBackend* decoder,
                                PuncBackend* punc, EventEmitter* emitter,
                                const std::vector<PendingRealtimeSegment>& segments,
                                bool offline_2pass_flag, std::string* punc_context,
                                int context_codepoints, bool is_final);

// The segments of one capture waiting for the realtime second pass, and the
// punctuation context carried from batch to batch. Owned by the PCM thread.
class RealtimeBatchQueue {
 public:
  // Code points of the previous batch that the punctuation model sees in front
  // of the next one, so that the mark at the boundary is chosen with both
  // sides in view.
  static constexpr int kPuncContextCodepoints = 24;

  RealtimeBatchQueue(const Options& options, OfflineDecoderBackend* decoder, PuncBackend* punc,
                     EventEmitter* emitter);

  // --second-pass-every, negative taken as 0 (0 disables the second pass).
  int batch_size() const { return batch_size_; }
  // One second of audio: shorter batches wait for more segments.
  int64_t min_batch_samples() const { return min_batch_samples_; }

  // Queues a segment and, once batch_size segments wait, runs the batch step.
  void Add(PendingRealtimeSegment segment);

  // The batch step. Without force a batch shorter than a second keeps waiting;
  // with force (at stop) the queue is decoded whatever its length. After every
  // attempt the queue is empty: a failed batch is not retried.
  void DecodePendingBatch(bool force);

  // A new capture: drops the queue and the punctuation context.
  void Clear();

  const std::vector<PendingRealtimeSegment>& pending() const { return pending_; }
  const std::string& punc_context() const { return punc_context_; }

 private:
  const Options& options_;
  OfflineDecoderBackend* decoder_;
  PuncBackend* punc_;
  EventEmitter* emitter_;
  int batch_size_;
  int64_t min_batch_samples_;
  std::vector<PendingRealtimeSegment> pending_;
  std::string punc_context_;
};

}  // namespace kerrow

#endif  // KERROW_LIVE_REALTIME_BATCH_H_
