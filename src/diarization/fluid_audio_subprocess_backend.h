#ifndef KERROW_DIARIZATION_FLUID_AUDIO_SUBPROCESS_BACKEND_H_
#define KERROW_DIARIZATION_FLUID_AUDIO_SUBPROCESS_BACKEND_H_

#include <memory>
#include <string>
#include <vector>

#include "diarization/diarization_backend.h"

namespace kerrow {

// Diarizes in a resident helper process instead of in this one: the helper is
// started once by Init and kept for the whole run; each Process writes the
// audio to a temporary float WAV, names it in one request line on the helper's
// standard input and reads the turns back until "DONE". A helper that crashes
// therefore costs one request, not the engine.
//
// Neither Init nor Process has a timeout: Init waits for the helper to load its
// models, Process for its answer. Process must not be called concurrently.
class FluidAudioSubprocessBackend : public DiarizationBackend {
 public:
  FluidAudioSubprocessBackend();
  // Closes the helper's input and waits briefly for it to exit, then escalates
  // to SIGTERM and SIGKILL, so that shutdown never hangs on a stuck helper.
  ~FluidAudioSubprocessBackend() override;
  FluidAudioSubprocessBackend(const FluidAudioSubprocessBackend&) = delete;
  FluidAudioSubprocessBackend& operator=(const FluidAudioSubprocessBackend&) = delete;

  bool Init(const DiarizationInitOptions& options, std::string* error) override;
  bool IsReady() const override;
  bool Process(const std::vector<float>& samples, int sample_rate,
               std::vector<DiarizationSegment>* out, std::string* error) override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kerrow

#endif  // KERROW_DIARIZATION_FLUID_AUDIO_SUBPROCESS_BACKEND_H_
