#include "live/shared_state.h"

#include <cmath>
#include <limits>

#include "common/sample_time.h"

namespace kerrow {

uint32_t SinglePartialStepSamples(double seconds, int sample_rate) {
  double interval = (std::isfinite(seconds) && seconds > 0.0) ? seconds : 0.5;
  // Below 0.2 s the window would be re-decoded several times per chunk.
  if (interval < 0.2) interval = 0.2;
  const int64_t samples = SecondsToSamples(interval, EffectiveSampleRate(sample_rate));
  if (samples < 1) return 1;
  if (samples > int64_t{std::numeric_limits<uint32_t>::max()}) {
    return std::numeric_limits<uint32_t>::max();
  }
  return static_cast<uint32_t>(samples);
}

}  // namespace kerrow
