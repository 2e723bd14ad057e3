// The command line, split into arguments at NUL bytes (as argv is): every
// mistake gets its one-line message, and whatever is accepted is a setting
// the live loop can run with.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "app/arg_parser.h"
#include "fuzz_check.h"
#include "live/pcm_loop_settings.h"

namespace {

constexpr size_t kMaxArguments = 64;

std::vector<std::string> SplitAtNul(const uint8_t* data, size_t size) {
  std::vector<std::string> arguments{"kerrow"};
  std::string current;
  for (size_t i = 0; i < size && arguments.size() < kMaxArguments; ++i) {
    if (data[i] == 0) {
      arguments.push_back(current);
      current.clear();
    } else {
      current += static_cast<char>(data[i]);
    }
  }
  if (!current.empty() && arguments.size() < kMaxArguments) arguments.push_back(current);
  return arguments;
}

void CheckNormalizers(const std::string& word) {
  const std::string first = kerrow::NormalizeFirstModelType(word);
  FUZZ_CHECK(first.empty() || first == "transducer" || first == "paraformer", "first-pass type");
  const std::string second = kerrow::NormalizeSecondType(word);
  FUZZ_CHECK(second.empty() || second == "sensevoice" || second == "whisper", "second-pass type");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> arguments = SplitAtNul(data, size);
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);

  kerrow::Options options;
  std::string error;
  const bool ok = kerrow::ParseArgs(static_cast<int>(arguments.size()), argv.data(), &options, &error);
  if (!ok) {
    FUZZ_CHECK(!error.empty(), "a refusal without a message");
  } else {
    FUZZ_CHECK(options.sample_rate == 16000, "accepted a sample rate other than 16 kHz");
    // Numbers are read leniently (as atof does); the live loop must still get
    // settings it can run with from whatever was accepted.
    const kerrow::PcmLoopSettings settings = kerrow::ComputePcmLoopSettings(options);
    FUZZ_CHECK(settings.chunk_samples >= 1, "a PCM chunk of no samples");
    FUZZ_CHECK(settings.sample_rate >= 1, "no sample rate");
  }
  for (size_t i = 1; i < arguments.size(); ++i) CheckNormalizers(arguments[i]);
  return 0;
}
