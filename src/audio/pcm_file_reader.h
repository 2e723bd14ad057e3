#ifndef KERROW_AUDIO_PCM_FILE_READER_H_
#define KERROW_AUDIO_PCM_FILE_READER_H_

#include <string>
#include <vector>

namespace kerrow {

// Reads a headerless mono PCM file ("s16le" or "f32le", exact spelling) into
// floats. The sample rate is the caller's assumption; nothing in the file says it.
// A length that is not a whole number of samples is an error. Returns false at
// once when samples or error is null; otherwise clears samples first and, on
// failure, writes one message to error.
bool ReadPcmMono(const std::string& path, const std::string& format, std::vector<float>* samples,
                 std::string* error);

}  // namespace kerrow

#endif  // KERROW_AUDIO_PCM_FILE_READER_H_
