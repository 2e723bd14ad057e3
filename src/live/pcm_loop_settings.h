#ifndef KERROW_LIVE_PCM_LOOP_SETTINGS_H_
#define KERROW_LIVE_PCM_LOOP_SETTINGS_H_

#include <cstddef>
#include <cstdint>

#include "common/options.h"

namespace kerrow {

// Values the PCM loop derives from the options once, when it starts. All
// sample counts are at `sample_rate`.
struct PcmLoopSettings {
  // Options::sample_rate, or 16000 when it is below 1.
  int sample_rate = 16000;
  // --chunk-duration (at least 0.02 s) in samples.
  size_t chunk_samples = 1600;
  // A "PCM keepalive" line is logged every this many samples read.
  uint64_t keepalive_period = 80000;
  // --second-pass-every, negative taken as 0.
  int batch_size = 1;
  // Single-model streaming: a rolling commit needs a chunk longer than
  // trim_cap (0 disables it) ending at least trim_keep before the newest audio;
  // the decode window never grows past max_window.
  int64_t trim_cap = 48000;
  int64_t trim_keep = 19200;
  int64_t max_window = 112000;
  // Realtime second pass: the audio decoded in front of each segment
  // (--vad-lookback, at most kMaxLiveLookbackSeconds, since a live session
  // cannot keep its whole capture for it).
  int64_t lookback = 3200;
  // How far before the VAD's speech flag rises an utterance may begin, with
  // the lookback its decode wants in front: the VAD dates a segment's start
  // back by its own minimum speech and two of its windows.
  int64_t speech_lead_in = 8224;
  // While the VAD hears no speech, how much of the newest audio the loop
  // keeps for the lookback of segments still to come: the lead-in and a
  // second of margin, since keeping it costs only memory.
  int64_t recent_audio_keep = 24224;
};

inline constexpr double kMaxLiveLookbackSeconds = 30.0;

PcmLoopSettings ComputePcmLoopSettings(const Options& options);

}  // namespace kerrow

#endif  // KERROW_LIVE_PCM_LOOP_SETTINGS_H_
