#ifndef KERROW_ENGINE_PUNC_BACKEND_H_
#define KERROW_ENGINE_PUNC_BACKEND_H_

#include <cstdint>
#include <memory>
#include <string>

namespace kerrow {

struct PuncInitOptions {
  std::string model;  // CT-Transformer model path
  int32_t num_threads = 1;  // below 1 is raised to 1
  std::string provider = "cpu";
};

// Owns one sherpa-onnx offline punctuation model (CT-Transformer format) and
// punctuates UTF-8 text with it. Not thread-safe: callers must not overlap two
// AddPunctuation calls, or one with Init.
class PuncBackend {
 public:
  PuncBackend();
  ~PuncBackend();
  PuncBackend(const PuncBackend&) = delete;
  PuncBackend& operator=(const PuncBackend&) = delete;

  bool Init(const PuncInitOptions& options, std::string* error);
  bool IsReady() const;

  // out (may be null) first receives text itself, so on any failure the
  // caller still holds the unpunctuated text.
  bool AddPunctuation(const std::string& text, std::string* out,
                      std::string* error);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kerrow

#endif  // KERROW_ENGINE_PUNC_BACKEND_H_
