#ifndef KERROW_LIVE_SHARED_STATE_H_
#define KERROW_LIVE_SHARED_STATE_H_

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

namespace kerrow {

// State shared by the command thread and the PCM thread of a live session.
// Requests travel from the command thread to the PCM thread as flags that one
// side sets and the other exchanges back to false, so each request is applied
// exactly once, between two chunks. Every field but mode is a lock-free atomic.
struct SharedState {
  std::atomic<bool> quit{false};
  std::atomic<bool> capturing{false};
  std::atomic<bool> pcm_closed{false};
  std::atomic<bool> pending_stop_flush{false};
  std::atomic<bool> pending_vad_reset{false};
  std::atomic<bool> pending_session_reset{false};
  std::atomic<bool> pending_pcm_clear{false};
  std::atomic<bool> pending_offline_decode{false};
  std::atomic<uint64_t> total_samples{0};
  std::atomic<uint64_t> captured_samples{0};
  std::atomic<uint64_t> session_seq{0};
  std::atomic<uint64_t> reset_applied_seq{0};
  // Written by the command thread ("set single-partial-interval"), read by the
  // PCM thread on every pass.
  std::atomic<uint32_t> single_partial_step_samples{0};
  std::atomic<uint32_t> next_segment_id{0};
  std::atomic<bool> pending_online_reset{false};

  std::mutex mode_mutex;
  std::string mode = "auto";  // guarded by mode_mutex
};

// The single-model partial step in samples: seconds (0.5 when not a positive
// finite number, raised to at least 0.2) times the rate (16000 when below 1),
// rounded half away from zero, clamped to 1..4294967295.
uint32_t SinglePartialStepSamples(double seconds, int sample_rate);

}  // namespace kerrow

#endif  // KERROW_LIVE_SHARED_STATE_H_
