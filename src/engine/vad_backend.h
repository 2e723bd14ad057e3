#ifndef KERROW_ENGINE_VAD_BACKEND_H_
#define KERROW_ENGINE_VAD_BACKEND_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kerrow {

// How the silero voice activity detector is built.
struct VadInitOptions {
  // The silero model only works at 16 kHz.
  int32_t sample_rate = 16000;
  // Values below 1 run with one thread.
  int32_t num_threads = 1;
  std::string provider = "cpu";
  std::string model;
  // Speech probability threshold, within [0.01, 1).
  float threshold = 0.5f;
  // Seconds of silence that close a segment.
  float min_silence_duration = 0.5f;
  // Seconds; shorter speech is dropped.
  float min_speech_duration = 0.25f;
  // Seconds; longer speech is cut early.
  float max_speech_duration = 8.0f;
  // Samples per detector window; silero v5 at 16 kHz needs 512.
  int32_t window_size = 512;
  // Starting size of the detector's sample buffer, in seconds (it grows).
  float buffer_seconds = 120.0f;
};

// One finished speech segment.
struct VadSegment {
  // Index of the first sample, counted from the first sample fed since the
  // detector was created or last reset.
  int32_t start = 0;
  std::vector<float> samples;
};

// Owns one sherpa-onnx voice activity detector running the silero model.
// Callers feed 16 kHz mono float blocks of any size and pop finished speech
// segments. One thread drives an instance at a time; no lock inside. Never
// throws and never logs.
class VadBackend {
 public:
  VadBackend();
  ~VadBackend();
  VadBackend(const VadBackend&) = delete;
  VadBackend& operator=(const VadBackend&) = delete;

  bool Init(const VadInitOptions& options, std::string* error);
  bool IsReady() const;

  // The detector does its own windowing, so the block goes in whole.
  bool AcceptWaveform(const std::vector<float>& samples, std::string* error);
  // Closes a segment in progress so that it can be popped.
  bool Flush(std::string* error);
  // Drops all state and queued segments; sample indices restart at 0.
  bool Reset(std::string* error);
  // Takes the oldest queued segment. An empty queue returns false and leaves
  // the error text untouched, which is how callers tell it from a failure.
  bool PopSegment(VadSegment* out, std::string* error);
  // True while the detector is inside speech; false when not initialised.
  bool Detected() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kerrow

#endif  // KERROW_ENGINE_VAD_BACKEND_H_
