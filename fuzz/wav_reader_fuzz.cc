// Any file handed to --wav-input, --register-input or --identify-only: the
// reader must refuse what it cannot decode with a message, never crash or
// allocate what the file does not back.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "audio/wav_reader.h"
#include "fuzz_check.h"
#include "scratch_dir.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = kerrow::ScratchDir::Get().Write("input.wav", data, size);
  std::vector<float> samples;
  std::string error;
  const bool ok = kerrow::ReadWavMono(path, 16000, &samples, &error);
  if (ok) {
    // Every sample takes at least two bytes of the file.
    FUZZ_CHECK(samples.size() * 2 <= size, "more samples than the file holds");
  } else {
    FUZZ_CHECK(!error.empty(), "a refusal without a message");
    FUZZ_CHECK(samples.empty(), "samples left behind by a refusal");
  }
  return 0;
}
