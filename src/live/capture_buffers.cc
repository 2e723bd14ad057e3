#include "live/capture_buffers.h"

namespace kerrow {

CaptureBufferUse CaptureBuffersFor(const Options& options, bool realtime_vad) {
  // Only manual mode decodes at "stop"; outside it the results are the
  // streaming ones and nothing reads the buffers.
  const bool whole_capture_at_stop =
      options.manual_mode && options.manual_realtime && options.offline_2pass;
  CaptureBufferUse use;
  if (realtime_vad && options.single_model_streaming) {
    use.capture_samples = true;
    use.release_committed = !whole_capture_at_stop;
    return use;
  }
  use.capture_samples = whole_capture_at_stop;
  use.samples = !realtime_vad && options.manual_mode && !whole_capture_at_stop;
  return use;
}

}  // namespace kerrow
