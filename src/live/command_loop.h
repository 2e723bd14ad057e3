#ifndef KERROW_LIVE_COMMAND_LOOP_H_
#define KERROW_LIVE_COMMAND_LOOP_H_

#include <string>

#include "audio/audio_buffer.h"
#include "common/options.h"
#include "live/host_command.h"
#include "live/shared_state.h"
#include "offline/decode_backends_fwd.h"

namespace kerrow {

// Body of the command thread of a live session: reads the host's one-line
// commands from standard input and turns them into requests in `state` for
// the PCM thread. Only "stop" in the manual modes decodes anything here.
// Returns on "quit", when standard input ends or fails (without setting quit:
// the session then lives until the audio pipe closes), or once quit is set.
// Any backend may be null when it was not built.
void CommandLoop(const Options& options, OfflineDecoderBackend* decoder, PuncBackend* punc,
                 DiarizationBackend* diarization, SpeakerIdentifier* speaker_id,
                 EventEmitter* emitter, SharedState* state, AudioBuffer* audio);

// The same loop reading its commands from `input_fd` instead of standard
// input, so that tests can drive it through a pipe. The descriptor is not closed.
void CommandLoopOnDescriptor(int input_fd, const Options& options, OfflineDecoderBackend* decoder,
                             PuncBackend* punc, DiarizationBackend* diarization,
                             SpeakerIdentifier* speaker_id, EventEmitter* emitter,
                             SharedState* state, AudioBuffer* audio);

// With --offline-2pass, "stop" first lets the audio the host wrote just before
// it reach the capture buffer: waits until the pipe has closed, no new samples
// arrived for 120 ms, or 300 ms have passed. Returns at once otherwise.
void WaitForPcmDrainBeforeStopDecode(const Options& options, EventEmitter* emitter,
                                     SharedState* state);

}  // namespace kerrow

#endif  // KERROW_LIVE_COMMAND_LOOP_H_
