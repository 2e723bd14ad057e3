#ifndef KERROW_BENCH_BENCH_RECORDINGS_H_
#define KERROW_BENCH_BENCH_RECORDINGS_H_

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "audio/wav_reader.h"

namespace kerrow::bench {

constexpr int kBenchSampleRate = 16000;

// A bundled test recording (path relative to tests/data/audio) as samples.
// A benchmark cannot measure anything without it, so a bad file ends the run.
inline std::vector<float> LoadRecording(const std::string& relative) {
  std::vector<float> samples;
  std::string error;
  if (!ReadWavMono(std::string(KERROW_TEST_DATA_DIR) + "/audio/" + relative, kBenchSampleRate, &samples,
                   &error)) {
    std::fprintf(stderr, "cannot read %s: %s\n", relative.c_str(), error.c_str());
    std::exit(1);
  }
  return samples;
}

}  // namespace kerrow::bench

#endif  // KERROW_BENCH_BENCH_RECORDINGS_H_
