#ifndef KERROW_AUDIO_WAV_READER_H_
#define KERROW_AUDIO_WAV_READER_H_

#include <string>
#include <vector>

namespace kerrow {

// Reads a mono RIFF/WAVE file of 16-bit PCM or 32-bit float samples into floats.
// The chunk list is walked to its end, so chunks in any order (and repeated ones,
// the last winning) are accepted. No resampling: the file's rate must equal
// expected_sample_rate. Returns false at once when samples or error is null;
// otherwise clears samples first and, on failure, writes one message to error.
bool ReadWavMono(const std::string& path, int expected_sample_rate, std::vector<float>* samples,
                 std::string* error);

}  // namespace kerrow

#endif  // KERROW_AUDIO_WAV_READER_H_
