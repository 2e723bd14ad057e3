#ifndef KERROW_DIARIZATION_SHERPA_ONNX_DIARIZATION_BACKEND_H_
#define KERROW_DIARIZATION_SHERPA_ONNX_DIARIZATION_BACKEND_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "diarization/diarization_backend.h"
#include "engine/sherpa_onnx_c_api.h"

namespace kerrow {

// Diarization in process: sherpa-onnx's offline speaker diarization, a pyannote
// segmentation model for the turns, a speaker-embedding model for the voices
// and fast clustering to group them. Either model may be found by name in the
// model directory when its explicit path is empty.
class SherpaOnnxDiarizationBackend : public DiarizationBackend {
 public:
  SherpaOnnxDiarizationBackend();
  ~SherpaOnnxDiarizationBackend() override;

  bool Init(const DiarizationInitOptions& options,
            std::string* error) override;
  bool IsReady() const override;
  bool Process(const std::vector<float>& samples, int sample_rate,
               std::vector<DiarizationSegment>* out,
               std::string* error) override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// The model search inside a diarization model directory: dir/preferred_name
// when that is a regular file, else the first regular *.onnx entry (in the
// order the file system lists them) whose lowercased name contains the
// lowercased hint. Empty when nothing fits or the directory cannot be read.
std::string ResolveModelFile(const std::string& dir,
                             const std::string& preferred_name,
                             const std::string& hint);

// Appends the library's segments (sorted by start time) as turns whose
// labels count up in order of first appearance, so that the first voice heard
// is SPEAKER_00 whatever cluster index the library gave it. Segments that do
// not end after they start are dropped.
void AppendLabelledTurns(
    const SherpaOnnxOfflineSpeakerDiarizationSegment* segments, int32_t count,
    std::vector<DiarizationSegment>* out);

}  // namespace kerrow

#endif  // KERROW_DIARIZATION_SHERPA_ONNX_DIARIZATION_BACKEND_H_
