#ifndef KERROW_LIVE_CAPTURE_BUFFERS_H_
#define KERROW_LIVE_CAPTURE_BUFFERS_H_

#include "common/options.h"

namespace kerrow {

// Which of the AudioBuffer's vectors the PCM loop fills with captured audio.
// A session runs for hours, so audio is kept only where something of the
// configured mode will read it.
struct CaptureBufferUse {
  // AudioBuffer::samples: the manual segment decode at "stop" (manual mode
  // without a realtime VAD).
  bool samples = false;
  // AudioBuffer::capture_samples: the whole-capture decode of offline_2pass,
  // and the decode window of single-model streaming.
  bool capture_samples = false;
  // Single-model streaming may drop the committed audio in front of its
  // window, unless the whole capture is decoded again at "stop".
  bool release_committed = false;
};

// `realtime_vad` is whether the session runs the realtime path (manual
// realtime with a VAD that loaded).
CaptureBufferUse CaptureBuffersFor(const Options& options, bool realtime_vad);

}  // namespace kerrow

#endif  // KERROW_LIVE_CAPTURE_BUFFERS_H_
