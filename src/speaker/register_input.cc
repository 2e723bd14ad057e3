#include "speaker/register_input.h"

#include <fstream>

#include "common/error_text.h"

namespace kerrow {

bool ReadRegisterInput(const std::string& path, std::string* bytes, std::string* error) {
  bytes->clear();
  std::ifstream file(path, std::ios::binary);
  if (!file.is_open()) return Fail(error, "cannot open file for md5: " + path);
  std::string block(1 << 20, '\0');
  while (file) {
    file.read(&block[0], static_cast<std::streamsize>(block.size()));
    bytes->append(block, 0, static_cast<size_t>(file.gcount()));
  }
  // A directory opens like a file but cannot be read; it must not pass for an
  // empty recording.
  if (file.bad()) return Fail(error, "cannot open file for md5: " + path);
  return true;
}

}  // namespace kerrow
