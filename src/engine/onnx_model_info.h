#ifndef KERROW_ENGINE_ONNX_MODEL_INFO_H_
#define KERROW_ENGINE_ONNX_MODEL_INFO_H_

#include <istream>
#include <string>
#include <utility>
#include <vector>

namespace kerrow {

// What kerrow needs to know about an ONNX file before sherpa-onnx sees it: the
// string metadata the library reads at load time (a missing required key makes
// it end the process) and the names of the graph inputs (how a Silero VAD
// model tells its version).
struct OnnxModelInfo {
  std::vector<std::pair<std::string, std::string>> metadata;  // file order
  std::vector<std::string> graph_inputs;                      // graph order

  bool HasMetadata(const std::string& key) const;
  // The value of key, or nullptr when the model does not carry it.
  const std::string* FindMetadata(const std::string& key) const;
  bool HasGraphInput(const std::string& name) const;
};

// Reads the ModelProto wire format from a seekable stream of total_size
// bytes. Only the metadata and the graph's input names are decoded; every
// other field, the weights included, is skipped with a seek, so large models
// cost little. Every length is checked against the bytes that remain, so
// garbage, truncated files and absurd lengths fail cleanly with a message
// saying what was wrong.
bool ReadOnnxModelInfo(std::istream& in, std::streamoff total_size,
                       OnnxModelInfo* info, std::string* error);

// Convenience wrappers over the stream reader.
bool ReadOnnxModelInfoFromFile(const std::string& path, OnnxModelInfo* info,
                               std::string* error);
bool ParseOnnxModelInfo(const std::string& bytes, OnnxModelInfo* info,
                        std::string* error);

}  // namespace kerrow

#endif  // KERROW_ENGINE_ONNX_MODEL_INFO_H_
