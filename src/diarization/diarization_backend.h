#ifndef KERROW_DIARIZATION_DIARIZATION_BACKEND_H_
#define KERROW_DIARIZATION_DIARIZATION_BACKEND_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kerrow {

// One speaker turn. The label is "SPEAKER_" plus a two-digit index as the
// backend reports it; speaker identification may later replace it with the
// name of an enrolled speaker.
struct DiarizationSegment {
  double start = 0.0;  // seconds from the start of the processed audio
  double end = 0.0;    // seconds
  std::string speaker;
};

// Everything a diarization backend needs to start. Filled by Run from Options.
struct DiarizationInitOptions {
  // A directory searched for both models when an explicit path is missing.
  std::string model;
  std::string segmentation_model;
  std::string embedding_model;
  int32_t num_threads = 1;  // below 1 is raised to 1
  std::string provider = "cpu";
  int32_t min_speakers = 0;  // 0 or less: unknown
  int32_t max_speakers = 0;  // 0 or less: unknown
  float min_duration_on = 0.3f;   // seconds
  float min_duration_off = 0.5f;  // seconds
  // A non-empty helper path selects the helper-process backend.
  std::string helper_binary;
  std::string backend = "offline";  // passed on to the helper process
};

// Who spoke when, behind one interface so that the in-process sherpa-onnx
// diarizer and the resident helper process can stand in for each other.
class DiarizationBackend {
 public:
  virtual ~DiarizationBackend() = default;

  virtual bool Init(const DiarizationInitOptions& options,
                    std::string* error) = 0;
  virtual bool IsReady() const = 0;
  // Diarizes one block of mono samples; out receives the turns sorted by
  // start time.
  virtual bool Process(const std::vector<float>& samples, int sample_rate,
                       std::vector<DiarizationSegment>* out,
                       std::string* error) = 0;
};

// Picks a backend from the options (the helper binary wins over model paths),
// initialises it and hands it over. Null with *error set when no backend is
// selected, the selected one is not built in, or its Init fails.
std::unique_ptr<DiarizationBackend> CreateDiarizationBackend(
    const DiarizationInitOptions& options, std::string* error);

// New, uninitialised instances; null when this build leaves the backend out.
std::unique_ptr<DiarizationBackend> MakeSherpaOnnxDiarizationBackend();
std::unique_ptr<DiarizationBackend> MakeFluidAudioDiarizationBackend();

}  // namespace kerrow

#endif  // KERROW_DIARIZATION_DIARIZATION_BACKEND_H_
