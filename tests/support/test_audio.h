#ifndef KERROW_TESTS_SUPPORT_TEST_AUDIO_H_
#define KERROW_TESTS_SUPPORT_TEST_AUDIO_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kerrow::testing {

// Seconds of silence, as float samples at 16 kHz.
inline std::vector<float> SilenceSeconds(double seconds) {
  return std::vector<float>(static_cast<size_t>(seconds * 16000), 0.0f);
}

// `a` followed by `b`.
inline std::vector<float> Join(std::vector<float> a, const std::vector<float>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Samples as 16-bit PCM values: scaled by 32768, clamped, truncated toward
// zero. Samples read from a 16-bit file come back exactly.
inline std::vector<int16_t> ToS16(const std::vector<float>& samples) {
  std::vector<int16_t> out;
  out.reserve(samples.size());
  for (float s : samples) {
    const float scaled = s * 32768.0f;
    out.push_back(static_cast<int16_t>(scaled > 32767.0f ? 32767.0f : (scaled < -32768.0f ? -32768.0f : scaled)));
  }
  return out;
}

// ToS16 as little-endian bytes: what the audio pipe and a raw PCM file carry.
inline std::string S16leBytes(const std::vector<float>& samples) {
  std::string out;
  out.reserve(samples.size() * 2);
  for (int16_t s : ToS16(samples)) {
    out.push_back(static_cast<char>(static_cast<uint16_t>(s) & 0xFF));
    out.push_back(static_cast<char>(static_cast<uint16_t>(s) >> 8));
  }
  return out;
}

}  // namespace kerrow::testing

#endif  // KERROW_TESTS_SUPPORT_TEST_AUDIO_H_
