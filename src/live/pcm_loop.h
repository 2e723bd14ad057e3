#ifndef KERROW_LIVE_PCM_LOOP_H_
#define KERROW_LIVE_PCM_LOOP_H_

#include "audio/audio_buffer.h"
#include "common/options.h"
#include "live/shared_state.h"
#include "offline/decode_backends_fwd.h"

namespace kerrow {

class OnlineBackend;
class VadBackend;

// Body of the PCM thread of a live session. Reads the host's audio from the
// descriptor options.audio_fd in chunks of options.chunk_duration, applies the
// requests the command thread left in `state` between chunks, stores captured
// audio in `audio` and, with --manual-realtime, runs the first pass (streaming
// partials, VAD segments, realtime second-pass batches) or single-model
// streaming. Returns once quit is set; sets quit itself when the pipe ends or
// a read fails. Any backend may be null when it was not built.
void PcmLoop(const Options& options, OnlineBackend* online, OfflineDecoderBackend* decoder,
             PuncBackend* punc, VadBackend* vad, DiarizationBackend* diarization,
             SpeakerIdentifier* speaker_id, EventEmitter* emitter, SharedState* state,
             AudioBuffer* audio);

}  // namespace kerrow

#endif  // KERROW_LIVE_PCM_LOOP_H_
