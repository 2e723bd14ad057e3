#ifndef KERROW_TESTS_SUPPORT_TEST_AUDIO_H_
#define KERROW_TESTS_SUPPORT_TEST_AUDIO_H_

#include <cstddef>
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

}  // namespace kerrow::testing

#endif  // KERROW_TESTS_SUPPORT_TEST_AUDIO_H_
