#ifndef KERROW_ENGINE_MODEL_FILE_CHECK_H_
#define KERROW_ENGINE_MODEL_FILE_CHECK_H_

#include <string>

#include "engine/onnx_model_info.h"

namespace kerrow {

// The kinds of ONNX file kerrow hands to sherpa-onnx. Each family has its own
// metadata keys that the library reads at load time.
enum class ModelFamily {
  kSenseVoice,
  kWhisperEncoder,
  kWhisperDecoder,
  kOnlineTransducerEncoder,
  kOnlineTransducerDecoder,
  kOnlineTransducerJoiner,
  kOnlineParaformerEncoder,
  kOnlineParaformerDecoder,
  kPunctuation,
  kSileroVad,
  kSpeakerEmbedding,
  kSegmentation,
};

// Human-readable family name used in messages ("SenseVoice", "Whisper
// encoder", ...).
const char* ModelFamilyName(ModelFamily family);

// Checks that path is a model of the given family before the library loads
// it. sherpa-onnx ends the whole process, instead of returning an error, when
// a file is not ONNX or lacks a metadata key it requires, so every model path
// goes through here first. In order: the file exists, is a regular file, is
// readable and non-empty, is not a git-lfs pointer left by a checkout without
// LFS, parses as an ONNX model, and carries what its family needs. Every
// message names the path.
bool CheckModelFile(const std::string& path, ModelFamily family,
                    std::string* error);

// The same check, also handing back what was read from the model (for callers
// that validate settings against its metadata). info may be null.
bool CheckModelFile(const std::string& path, ModelFamily family,
                    OnnxModelInfo* info, std::string* error);

// Checks a tokens.txt: exists, is a regular file, readable, non-empty, and not
// a git-lfs pointer.
bool CheckTokensFile(const std::string& path, std::string* error);

}  // namespace kerrow

#endif  // KERROW_ENGINE_MODEL_FILE_CHECK_H_
