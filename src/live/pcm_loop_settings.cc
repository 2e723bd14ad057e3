#include "live/pcm_loop_settings.h"

#include <algorithm>

#include "common/sample_time.h"

namespace kerrow {

namespace {

// A chunk never spans more than this: a huge --chunk-duration would otherwise
// ask for a buffer the process cannot allocate.
constexpr double kMaxChunkSeconds = 60.0;

// The VAD dates a segment's start back by its minimum speech and two of its
// 512-sample windows before it reports speech.
constexpr int64_t kVadWindowSamples = 512;
// A minimum speech longer than this is not kept for: the VAD would then
// report hardly anything.
constexpr double kMaxUnheardSpeechSeconds = 30.0;
constexpr double kRecentAudioMarginSeconds = 1.0;
constexpr double kKeepalivePeriodSeconds = 5.0;

// NaN and values not above zero fall back to the default.
double PositiveOr(double value, double fallback) { return value > 0.0 ? value : fallback; }

}  // namespace

PcmLoopSettings ComputePcmLoopSettings(const Options& options) {
  PcmLoopSettings settings;
  const int rate = EffectiveSampleRate(options.sample_rate);
  settings.sample_rate = rate;

  double chunk_seconds = options.chunk_duration >= 0.02 ? options.chunk_duration : 0.02;
  chunk_seconds = std::min(chunk_seconds, kMaxChunkSeconds);
  settings.chunk_samples = static_cast<size_t>(std::max<int64_t>(SecondsToSamples(chunk_seconds, rate), 1));
  settings.keepalive_period = static_cast<uint64_t>(SecondsToSamples(kKeepalivePeriodSeconds, rate));
  settings.batch_size = std::max(options.second_pass_every, 0);

  settings.trim_cap = options.single_trim_cap > 0.0 ? SecondsToSamples(options.single_trim_cap, rate) : 0;
  settings.trim_keep = SecondsToSamples(PositiveOr(options.single_trim_keep, 1.0), rate);
  settings.max_window = std::max(settings.trim_cap + settings.trim_keep + 1,
                                 SecondsToSamples(PositiveOr(options.single_max_window, 7.0), rate));
  settings.lookback = SecondsToSamples(std::min(options.vad_lookback, kMaxLiveLookbackSeconds), rate);
  const double min_speech_seconds = std::min(std::max(options.vad_min_speech, 0.0), kMaxUnheardSpeechSeconds);
  settings.speech_lead_in =
      settings.lookback + SecondsToSamples(min_speech_seconds, rate) + 2 * kVadWindowSamples;
  settings.recent_audio_keep =
      settings.speech_lead_in + SecondsToSamples(kRecentAudioMarginSeconds, rate);
  return settings;
}

}  // namespace kerrow
