#include "offline/windowed_decode.h"

#include <cstdint>

#include "common/error_text.h"
#include "engine/offline_decoder_backend.h"
#include "offline/vad_grouping.h"
#include "text/piece_join.h"

namespace kerrow {

bool DecodeWithinRecognizerWindow(const Options& options,
                                  OfflineDecoderBackend* decoder,
                                  const std::vector<float>& samples,
                                  std::string* text, std::string* error) {
  if (decoder == nullptr) return Fail(error, "Decoder is not initialized");
  const auto total = static_cast<int64_t>(samples.size());
  const VadGroupingLimits limits = MakeVadGroupingLimits(options, total);
  const std::vector<SampleSpan> pieces = RecognizerWindowPieces(limits, {0, total});
  // The common case, one piece, decodes the caller's block without a copy.
  if (pieces.size() <= 1) return decoder->Decode(samples, text, error);

  std::string joined;
  for (const SampleSpan& piece : pieces) {
    const std::vector<float> audio(samples.begin() + piece.start,
                                   samples.begin() + piece.end);
    std::string piece_text;
    if (!decoder->Decode(audio, &piece_text, error)) return false;
    AppendTextPiece(piece_text, &joined);
  }
  if (text != nullptr) *text = joined;
  return true;
}

}  // namespace kerrow
