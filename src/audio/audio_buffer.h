#ifndef KERROW_AUDIO_AUDIO_BUFFER_H_
#define KERROW_AUDIO_AUDIO_BUFFER_H_

#include <mutex>
#include <vector>

namespace kerrow {

// The audio of the current capture. samples feeds the manual segment decode;
// capture_samples keeps everything since the last "start" for the whole-capture
// decode. The mutex is held only to append, copy or clear, never across a decode.
// The live session fills it and the whole-recording decode reads it, so it sits
// below both.
struct AudioBuffer {
  std::mutex mutex;
  std::vector<float> samples;
  std::vector<float> capture_samples;
};

}  // namespace kerrow

#endif  // KERROW_AUDIO_AUDIO_BUFFER_H_
