#include "diarization/descriptor_write.h"

#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace kerrow {

bool WriteAllToDescriptor(int fd, const std::string& bytes) {
  size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    written += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace kerrow
