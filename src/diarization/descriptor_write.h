#ifndef KERROW_DIARIZATION_DESCRIPTOR_WRITE_H_
#define KERROW_DIARIZATION_DESCRIPTOR_WRITE_H_

#include <string>

namespace kerrow {

// Writes all of bytes to a pipe or file descriptor, going on after partial
// writes and interrupted calls. Both ends of the helper protocol need this:
// a line that reaches the other side half-written would stall it.
bool WriteAllToDescriptor(int fd, const std::string& bytes);

}  // namespace kerrow

#endif  // KERROW_DIARIZATION_DESCRIPTOR_WRITE_H_
