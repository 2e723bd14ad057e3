#include "live/recent_audio.h"

#include <algorithm>

namespace kerrow {

void RecentAudio::Clear() {
  start_ = 0;
  samples_.clear();
}

void RecentAudio::Append(const std::vector<float>& chunk) {
  samples_.insert(samples_.end(), chunk.begin(), chunk.end());
}

void RecentAudio::ReleaseBefore(int64_t position) {
  const int64_t drop = std::min(position, end()) - start_;
  if (drop <= 0) return;
  samples_.erase(samples_.begin(), samples_.begin() + drop);
  start_ += drop;
}

std::vector<float> RecentAudio::Copy(int64_t from, int64_t to) const {
  from = std::clamp(from, start_, end());
  to = std::clamp(to, from, end());
  return std::vector<float>(samples_.begin() + (from - start_), samples_.begin() + (to - start_));
}

}  // namespace kerrow
