#ifndef KERROW_OFFLINE_MANUAL_SEGMENT_H_
#define KERROW_OFFLINE_MANUAL_SEGMENT_H_

#include <atomic>

#include "common/options.h"

namespace kerrow {

class EventEmitter;
class OfflineDecoderBackend;
class PuncBackend;
struct AudioBuffer;

// Decodes the audio captured between a manual "start" and "stop" (the
// AudioBuffer's samples, taken out of the buffer) as one block and emits it as
// one "result" record. Clears *pending_stop_flush (the live session's request
// to flush at "stop"; may be null) after a successful emission. Returns false
// only when the decode fails (an error event says so); nothing to decode is a
// logged success.
bool DecodeAndEmitManualSegment(const Options& options,
                                OfflineDecoderBackend* decoder,
                                PuncBackend* punc, EventEmitter* emitter,
                                AudioBuffer* audio,
                                std::atomic<bool>* pending_stop_flush);

}  // namespace kerrow

#endif  // KERROW_OFFLINE_MANUAL_SEGMENT_H_
