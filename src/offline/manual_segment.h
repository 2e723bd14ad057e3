#ifndef KERROW_OFFLINE_MANUAL_SEGMENT_H_
#define KERROW_OFFLINE_MANUAL_SEGMENT_H_

#include "app/options.h"

namespace kerrow {

class EventEmitter;
class OfflineDecoderBackend;
class PuncBackend;
struct AudioBuffer;
struct SharedState;

// Decodes the audio captured between a manual "start" and "stop" (the
// AudioBuffer's samples, taken out of the buffer) as one block and emits it as
// one "result" record. Clears state->pending_stop_flush after a successful
// emission. Returns false only when the decode fails (an error event says so);
// nothing to decode is a logged success.
bool DecodeAndEmitManualSegment(const Options& options,
                                OfflineDecoderBackend* decoder,
                                PuncBackend* punc, EventEmitter* emitter,
                                AudioBuffer* audio, SharedState* state);

}  // namespace kerrow

#endif  // KERROW_OFFLINE_MANUAL_SEGMENT_H_
