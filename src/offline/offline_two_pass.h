#ifndef KERROW_OFFLINE_OFFLINE_TWO_PASS_H_
#define KERROW_OFFLINE_OFFLINE_TWO_PASS_H_

#include <functional>
#include <string>
#include <vector>

#include "common/options.h"
#include "offline/decode_backends_fwd.h"

namespace kerrow {

struct AudioBuffer;

// How the whole-recording decode runs. Only tests change it: they compare the
// two orders of work and make a chosen decode fail.
struct Offline2PassSchedule {
  // True: the VAD searches the rest of the recording on a thread of its own
  // while the groups it has found are decoded, and the lines are written in
  // the order of the other way. False: the VAD covers the whole recording
  // before the first decode.
  bool vad_alongside_decode = true;
  // When set, decodes every piece instead of the decoder.
  std::function<bool(const std::vector<float>& samples, std::string* text,
                     std::string* error)>
      decode;
};

// Turns a whole recording (the AudioBuffer's capture_samples) into one final
// "result" record: VAD grouping, second-pass decode per group, punctuation,
// optional diarization, speaker identification and speaker assignment, then
// the merged text punctuated once more. punc, diarization and speaker_id may
// be null. Returns false, with nothing emitted, when a decode fails.
bool DecodeAndEmitOffline2PassFull(const Options& options,
                                   OfflineDecoderBackend* decoder,
                                   PuncBackend* punc,
                                   DiarizationBackend* diarization,
                                   SpeakerIdentifier* speaker_id,
                                   EventEmitter* emitter, AudioBuffer* audio);

// The same over samples the caller holds, for a recording that has no capture
// buffer to share with a live session (file input): nothing is copied.
bool DecodeAndEmitOffline2PassSamples(const Options& options, OfflineDecoderBackend* decoder,
                                      PuncBackend* punc, DiarizationBackend* diarization,
                                      SpeakerIdentifier* speaker_id, EventEmitter* emitter,
                                      const std::vector<float>& samples,
                                      const Offline2PassSchedule& schedule = Offline2PassSchedule());

}  // namespace kerrow

#endif  // KERROW_OFFLINE_OFFLINE_TWO_PASS_H_
