#ifndef KERROW_COMMON_SAMPLE_TIME_H_
#define KERROW_COMMON_SAMPLE_TIME_H_

// The one conversion between seconds and sample counts. Durations come from
// the command line, where any double is accepted, so the conversion must stay
// defined for every input: a count past the largest one saturates instead of
// wrapping around, which would silently turn "pad by a lot" into "pad by a
// negative amount" and lose the transcript.

#include <cmath>
#include <cstdint>

namespace kerrow {

// Far beyond any recording (over four million years at 16 kHz), yet three of
// them still add up without overflowing an int64_t, so a position plus a
// padding, or a sum of two settings, stays defined.
inline constexpr int64_t kMaxSampleCount = int64_t{1} << 61;

// Every model kerrow runs is trained on 16 kHz audio.
inline constexpr int32_t kDefaultSampleRate = 16000;

// The live session divides by the rate it was given; a rate below 1 (which
// the command line refuses, but the session code does not rely on that)
// means the default instead of a division by zero or a negative clock.
inline constexpr int32_t EffectiveSampleRate(int32_t sample_rate) {
  return sample_rate < 1 ? kDefaultSampleRate : sample_rate;
}

enum class SampleRounding {
  kNearest,     // half away from zero
  kTowardZero,  // truncation
};

// seconds × sample_rate as a count in [0, kMaxSampleCount]. Negative and NaN
// products give 0; +inf and huge products give kMaxSampleCount.
inline int64_t SecondsToSamples(double seconds, int64_t sample_rate,
                                SampleRounding rounding = SampleRounding::kNearest) {
  const double product = seconds * static_cast<double>(sample_rate);
  if (!(product > 0.0)) return 0;
  const double count = rounding == SampleRounding::kNearest ? std::round(product)
                                                             : std::trunc(product);
  if (!(count < static_cast<double>(kMaxSampleCount))) return kMaxSampleCount;
  return static_cast<int64_t>(count);
}

// samples ÷ sample_rate in seconds; 0 for a rate that cannot divide.
inline double SamplesToSeconds(int64_t samples, int64_t sample_rate) {
  if (sample_rate <= 0) return 0.0;
  return static_cast<double>(samples) / static_cast<double>(sample_rate);
}

}  // namespace kerrow

#endif  // KERROW_COMMON_SAMPLE_TIME_H_
