#ifndef KERROW_OFFLINE_SPEECH_SEARCH_H_
#define KERROW_OFFLINE_SPEECH_SEARCH_H_

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "common/options.h"
#include "engine/vad_backend.h"
#include "offline/vad_grouping.h"

namespace kerrow {

// Builds the whole-recording decode's VAD from the options. False means
// "decode in fixed chunks instead": either there is no VAD model (log_line
// stays empty) or the detector could not be built (log_line says so).
bool InitSpeechSearchVad(const Options& options, VadBackend* vad,
                         std::string* log_line);

// Feeds the recording to the VAD front to back and hands on_speech the bounds
// of each speech segment as soon as the detector closes it. Only the bounds
// are kept, so segment samples never pile up in the detector's queue. Stops
// early, as a success, once *stop is set. False when the detector fails:
// log_line then says why, and the caller decodes in fixed chunks.
bool SearchSpeech(VadBackend* vad, const std::vector<float>& samples,
                  int32_t sample_rate,
                  const std::function<void(const SampleSpan&)>& on_speech,
                  const std::atomic<bool>& stop, std::string* log_line);

}  // namespace kerrow

#endif  // KERROW_OFFLINE_SPEECH_SEARCH_H_
