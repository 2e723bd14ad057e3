// Any file named as a model: the pre-check must reach a verdict with a message
// on every byte string (the library ends the process on a file it dislikes, so
// this check is all that stands between a bad path and an exit), and reading
// from memory and from the file must agree.
#include <cstddef>
#include <cstdint>
#include <string>

#include "engine/model_file_check.h"
#include "engine/onnx_model_info.h"
#include "fuzz_check.h"
#include "scratch_dir.h"

namespace {

constexpr kerrow::ModelFamily kFamilies[] = {
    kerrow::ModelFamily::kSenseVoice,
    kerrow::ModelFamily::kWhisperEncoder,
    kerrow::ModelFamily::kWhisperDecoder,
    kerrow::ModelFamily::kOnlineTransducerEncoder,
    kerrow::ModelFamily::kOnlineTransducerDecoder,
    kerrow::ModelFamily::kOnlineTransducerJoiner,
    kerrow::ModelFamily::kOnlineParaformerEncoder,
    kerrow::ModelFamily::kOnlineParaformerDecoder,
    kerrow::ModelFamily::kPunctuation,
    kerrow::ModelFamily::kSileroVad,
    kerrow::ModelFamily::kSpeakerEmbedding,
    kerrow::ModelFamily::kSegmentation,
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  kerrow::OnnxModelInfo from_memory;
  std::string memory_error;
  const bool parsed = kerrow::ParseOnnxModelInfo(bytes, &from_memory, &memory_error);
  FUZZ_CHECK(parsed || !memory_error.empty(), "a refusal without a message");

  const std::string path = kerrow::ScratchDir::Get().Write("model.onnx", data, size);
  kerrow::OnnxModelInfo from_file;
  std::string file_error;
  const bool read = kerrow::ReadOnnxModelInfoFromFile(path, &from_file, &file_error);
  FUZZ_CHECK(read == parsed, "the file and the same bytes in memory disagree");
  if (parsed) {
    FUZZ_CHECK(from_file.metadata == from_memory.metadata, "metadata differs by source");
    FUZZ_CHECK(from_file.graph_inputs == from_memory.graph_inputs, "graph inputs differ by source");
  }

  for (const kerrow::ModelFamily family : kFamilies) {
    kerrow::OnnxModelInfo checked;
    std::string error;
    const bool accepted = kerrow::CheckModelFile(path, family, &checked, &error);
    if (!accepted) {
      FUZZ_CHECK(!error.empty(), "a rejected model without a message");
      FUZZ_CHECK(error.find(path) != std::string::npos, "a message that does not name the file");
    } else {
      FUZZ_CHECK(parsed, "accepted a model that does not parse");
    }
  }
  return 0;
}
