#ifndef KERROW_LIVE_SINGLE_MODEL_STREAMING_H_
#define KERROW_LIVE_SINGLE_MODEL_STREAMING_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "audio/audio_buffer.h"
#include "common/options.h"
#include "live/pcm_loop_settings.h"
#include "live/shared_state.h"

namespace kerrow {

class EventEmitter;
class OfflineDecoderBackend;

// How far a rolling commit may reach, given the token lists of the last two
// decodes of the window. Tokens [committed, K) may be committed when they were
// identical in both decodes, the token after them starts at or before
// `newest_allowed` (`boundaries[k]` is where token k starts) and begins a new
// word (TokenStartsWord). Returns K; K == committed means nothing may be
// committed yet: a chunk that cannot end on a word boundary waits.
size_t StableCommitEnd(const std::vector<std::string>& previous_tokens,
                       const std::vector<std::string>& tokens,
                       const std::vector<int64_t>& boundaries, size_t committed,
                       int64_t newest_allowed);

// Live recognition without a first-pass model (--single-model-streaming): the
// offline recognizer re-decodes a window of the capture at a fixed step while
// the VAD hears speech, publishes the text as "first-pass" partials, and
// commits the older, stable part of the window as "result" records so that the
// window stays short. Runs on the PCM thread; committed audio is never decoded
// again.
class SingleModelStreamer {
 public:
  SingleModelStreamer(const Options& options, const PcmLoopSettings& settings,
                      OfflineDecoderBackend* decoder, EventEmitter* emitter, SharedState* state,
                      AudioBuffer* audio, bool release_committed);

  // A new capture: the window starts over at sample 0.
  void Reset();

  // After a chunk has been appended to the capture and fed to the VAD;
  // speech_detected is what the VAD says now.
  void OnChunk(bool speech_detected);

  // "stop", after the VAD has been flushed: commits what is left of an
  // utterance in progress.
  void CommitAtStop();

  int64_t window_start() const { return window_start_; }
  size_t committed_tokens() const { return committed_tokens_; }
  const std::string& last_partial() const { return last_partial_; }

 private:
  int64_t CaptureLength() const;
  std::vector<float> CopyCapture(int64_t from, int64_t to) const;
  int64_t TokenSamplePosition(float seconds) const;
  std::vector<int64_t> TokenBoundaries(const std::vector<float>& timestamps, size_t token_count,
                                       int64_t capture_length) const;

  void SkipPause(int64_t capture_length);
  void DecodePartial(int64_t capture_length);
  void CommitStablePrefix(const std::vector<std::string>& tokens,
                          const std::vector<float>& timestamps, int64_t capture_length);
  void CapWindow(const std::vector<std::string>& tokens, const std::vector<float>& timestamps,
                 int64_t capture_length);
  bool CommitUpToLastWordStart(const std::vector<std::string>& tokens,
                               const std::vector<float>& timestamps);
  void CommitAll(int64_t end);
  void MoveWindowStart(int64_t position);
  void RestartWindowAt(int64_t position);
  void EmitCommitted(const std::string& text, int64_t start, int64_t end);

  const Options& options_;
  const PcmLoopSettings settings_;
  OfflineDecoderBackend* decoder_;
  EventEmitter* emitter_;
  SharedState* state_;
  AudioBuffer* audio_;
  // Whether committed audio may leave capture_samples (CaptureBufferUse).
  const bool release_committed_;

  // Per capture. Positions are sample indices into the capture;
  // capture_samples[0] is position released_ once committed audio has gone.
  int64_t released_ = 0;
  int64_t window_start_ = 0;
  size_t committed_tokens_ = 0;
  int64_t last_decode_position_ = 0;
  int64_t last_speech_position_ = 0;
  bool speech_active_ = false;
  std::vector<std::string> previous_tokens_;
  std::string last_partial_;
};

}  // namespace kerrow

#endif  // KERROW_LIVE_SINGLE_MODEL_STREAMING_H_
