#ifndef KERROW_OFFLINE_DECODE_BACKENDS_FWD_H_
#define KERROW_OFFLINE_DECODE_BACKENDS_FWD_H_

// The backends a second-pass decode may use, declared for the headers that
// only pass pointers to them along (the whole-recording decode and the live
// session's loops), so those headers need not pull in the library adapters.

namespace kerrow {

class DiarizationBackend;
class EventEmitter;
class OfflineDecoderBackend;
class PuncBackend;
class SpeakerIdentifier;

}  // namespace kerrow

#endif  // KERROW_OFFLINE_DECODE_BACKENDS_FWD_H_
