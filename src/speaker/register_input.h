#ifndef KERROW_SPEAKER_REGISTER_INPUT_H_
#define KERROW_SPEAKER_REGISTER_INPUT_H_

#include <string>

namespace kerrow {

// Reads the recording to enrol once, front to back, into `bytes`. Its checksum,
// its samples and the kept copy all come from these bytes, so a FIFO or a
// shell's process substitution, which can be read only once, enrols like a
// file. On failure (missing, a directory, a read error) writes the checksum
// step's message, "cannot open file for md5: " + path.
bool ReadRegisterInput(const std::string& path, std::string* bytes, std::string* error);

}  // namespace kerrow

#endif  // KERROW_SPEAKER_REGISTER_INPUT_H_
