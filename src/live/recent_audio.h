#ifndef KERROW_LIVE_RECENT_AUDIO_H_
#define KERROW_LIVE_RECENT_AUDIO_H_

#include <cstdint>
#include <vector>

namespace kerrow {

// The newest stretch of a capture, addressed by capture sample positions. The
// PCM thread keeps it so that a closed VAD segment can be decoded with the
// audio just before it, without keeping the whole capture; whatever no future
// segment can reach is released. Used by the PCM thread only, so unlocked.
class RecentAudio {
 public:
  // Drops everything; the next sample appended is capture position 0.
  void Clear();

  void Append(const std::vector<float>& chunk);

  // Forgets the audio before `position` (no-op for positions already gone).
  void ReleaseBefore(int64_t position);

  // Copies [from, to), clamped to what is still held.
  std::vector<float> Copy(int64_t from, int64_t to) const;

  // First position still held, and one past the newest.
  int64_t start() const { return start_; }
  int64_t end() const { return start_ + static_cast<int64_t>(samples_.size()); }

 private:
  int64_t start_ = 0;
  std::vector<float> samples_;
};

}  // namespace kerrow

#endif  // KERROW_LIVE_RECENT_AUDIO_H_
