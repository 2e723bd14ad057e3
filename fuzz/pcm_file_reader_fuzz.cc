// Any file handed to --pcm-input, in either sample format: whole samples come
// back exactly, anything else is refused with a message.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "audio/pcm_file_reader.h"
#include "audio/sample_convert.h"
#include "fuzz_check.h"
#include "scratch_dir.h"

namespace {

void CheckFormat(const std::string& path, const std::string& format, size_t bytes_per_sample,
                 const uint8_t* data, size_t size) {
  std::vector<float> samples;
  std::string error;
  const bool ok = kerrow::ReadPcmMono(path, format, &samples, &error);
  const bool whole = size > 0 && size % bytes_per_sample == 0;
  FUZZ_CHECK(ok == whole, "accepted a partial sample or refused whole ones");
  if (!ok) {
    FUZZ_CHECK(!error.empty(), "a refusal without a message");
    return;
  }
  FUZZ_CHECK(samples.size() == size / bytes_per_sample, "sample count differs from the file");
  std::vector<float> expected(samples.size());
  if (bytes_per_sample == 2) {
    kerrow::S16leToFloat(data, expected.size(), expected.data());
  } else {
    kerrow::F32leToFloat(data, expected.size(), expected.data());
  }
  // Bit patterns, so that NaN samples compare too.
  FUZZ_CHECK(std::memcmp(samples.data(), expected.data(), samples.size() * sizeof(float)) == 0,
             "samples differ from the file's bytes");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = kerrow::ScratchDir::Get().Write("input.pcm", data, size);
  CheckFormat(path, "s16le", 2, data, size);
  CheckFormat(path, "f32le", 4, data, size);
  std::vector<float> samples;
  std::string error;
  FUZZ_CHECK(!kerrow::ReadPcmMono(path, "s24le", &samples, &error), "accepted an unknown format");
  FUZZ_CHECK(!error.empty(), "a refusal without a message");
  return 0;
}
