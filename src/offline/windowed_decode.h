#ifndef KERROW_OFFLINE_WINDOWED_DECODE_H_
#define KERROW_OFFLINE_WINDOWED_DECODE_H_

#include <string>
#include <vector>

#include "common/options.h"

namespace kerrow {

class OfflineDecoderBackend;

// Decodes one block of audio with the second-pass recognizer, never handing
// it more than its window: the library cuts Whisper input at 29.5 s (and says
// so on standard error), so a longer block is decoded as consecutive pieces of
// at most 29 s, the way the whole-recording decode cuts its groups, and the
// pieces' texts are joined (AppendTextPiece: a blank where Latin text meets).
// Pieces without text add nothing. SenseVoice decodes the block whole. False
// with *error set (and *text undefined) when any piece fails to decode or the
// decoder is null.
bool DecodeWithinRecognizerWindow(const Options& options,
                                  OfflineDecoderBackend* decoder,
                                  const std::vector<float>& samples,
                                  std::string* text, std::string* error);

}  // namespace kerrow

#endif  // KERROW_OFFLINE_WINDOWED_DECODE_H_
