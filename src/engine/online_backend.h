#ifndef KERROW_ENGINE_ONLINE_BACKEND_H_
#define KERROW_ENGINE_ONLINE_BACKEND_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kerrow {

// How the first-pass (streaming) recognizer is built. Run fills it from the
// command line; the endpoint rules have no option and keep these values.
struct OnlineInitOptions {
  // Rate of the feature extractor and of every waveform handed to the stream.
  int32_t sample_rate = 16000;
  int32_t feature_dim = 80;
  // Values below 1 run with one thread.
  int32_t num_threads = 2;
  std::string provider = "cpu";
  // "transducer" or "paraformer" in any case; empty means: a joiner path makes
  // it a transducer, no joiner a paraformer. Unknown words mean transducer.
  std::string model_type = "transducer";
  std::string encoder;
  std::string decoder;
  // Transducer only.
  std::string joiner;
  std::string tokens;
  std::string decoding_method = "greedy_search";
  int32_t max_active_paths = 4;
  bool enable_endpoint = true;
  // Seconds of trailing silence when nothing has been decoded yet.
  float rule1_min_trailing_silence = 1.8f;
  // Seconds of trailing silence after something has been decoded.
  float rule2_min_trailing_silence = 0.8f;
  // Longest utterance, in seconds, before an endpoint is forced.
  float rule3_min_utterance_length = 8.0f;
};

// Owns one sherpa-onnx online recognizer and the single stream it decodes.
// Only the PCM thread calls it, so it has no lock of its own. Never throws and
// never logs: failures come back as false plus one message.
class OnlineBackend {
 public:
  OnlineBackend();
  ~OnlineBackend();
  OnlineBackend(const OnlineBackend&) = delete;
  OnlineBackend& operator=(const OnlineBackend&) = delete;

  // (Re)builds recognizer and stream. A failed Init leaves a backend that is
  // not ready until the next successful Init.
  bool Init(const OnlineInitOptions& options, std::string* error);
  bool IsReady() const;

  // Feeds one chunk, decodes as far as the stream allows and returns the whole
  // running hypothesis of the stream (not the increment) and whether the
  // recognizer sees an endpoint. text and is_endpoint are cleared first, so a
  // failed call leaves them empty/false. Any pointer may be null.
  bool AcceptAndDecode(const std::vector<float>& samples, std::string* text,
                       bool* is_endpoint, std::string* error);

  // Declares the end of the utterance, decodes the tail and returns the final
  // text. The stream takes no audio afterwards: call Reset before reusing it.
  bool InputFinishedAndDecode(std::string* text, std::string* error);

  // Replaces the stream with a fresh one on the same recognizer.
  bool Reset(std::string* error);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kerrow

#endif  // KERROW_ENGINE_ONLINE_BACKEND_H_
