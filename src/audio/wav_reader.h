#ifndef KERROW_AUDIO_WAV_READER_H_
#define KERROW_AUDIO_WAV_READER_H_

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

namespace kerrow {

// Reads a mono RIFF/WAVE file of 16-bit PCM or 32-bit float samples into floats.
// The chunk list is walked to its end, so chunks in any order (and repeated ones,
// the last winning) are accepted. No resampling: the file's rate must equal
// expected_sample_rate. Returns false at once when samples or error is null;
// otherwise clears samples first and, on failure, writes one message to error.
// The file is read front to back only, so a FIFO or process substitution works.
// A data chunk declaring 0xFFFFFFFF bytes (what streaming writers put there
// because they cannot know the length) runs to the end of the file; any other
// declared size beyond the end of the file is a truncated file and an error.
bool ReadWavMono(const std::string& path, int expected_sample_rate, std::vector<float>* samples,
                 std::string* error);

// The same from a stream positioned at the RIFF header. size_hint is the number
// of bytes the stream holds when the caller knows it (a regular file), else 0;
// it only lets the reader size the sample vector once instead of growing it.
bool ReadWavMonoFromStream(std::istream& in, int expected_sample_rate, uint64_t size_hint,
                           std::vector<float>* samples, std::string* error);

}  // namespace kerrow

#endif  // KERROW_AUDIO_WAV_READER_H_
