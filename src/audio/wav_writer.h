#ifndef KERROW_AUDIO_WAV_WRITER_H_
#define KERROW_AUDIO_WAV_WRITER_H_

#include <string>
#include <vector>

namespace kerrow {

// Writes samples as a canonical 44-byte-header mono 32-bit float WAV (the form
// the diarization helper process reads). On failure nothing is left behind at
// path and one message is written to error (may be null).
bool WriteWavFloat32(const std::string& path, const std::vector<float>& samples, int sample_rate,
                     std::string* error);

}  // namespace kerrow

#endif  // KERROW_AUDIO_WAV_WRITER_H_
