#ifndef KERROW_AUDIO_PCM_FILE_READER_H_
#define KERROW_AUDIO_PCM_FILE_READER_H_

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

namespace kerrow {

// Reads a headerless mono PCM file ("s16le" or "f32le", exact spelling) into
// floats. The sample rate is the caller's assumption; nothing in the file says it.
// A length that is not a whole number of samples is an error. Returns false at
// once when samples or error is null; otherwise clears samples first and, on
// failure, writes one message to error. The file is read front to back only, so
// a FIFO or process substitution works.
bool ReadPcmMono(const std::string& path, const std::string& format, std::vector<float>* samples,
                 std::string* error);

// The same from an open stream; name stands for the path in the messages.
// size_hint is the stream's length when the caller knows it (a regular file),
// else 0; it only lets the reader size the sample vector once.
bool ReadPcmMonoFromStream(std::istream& in, const std::string& name, const std::string& format,
                           uint64_t size_hint, std::vector<float>* samples, std::string* error);

}  // namespace kerrow

#endif  // KERROW_AUDIO_PCM_FILE_READER_H_
