#ifndef KERROW_COMMON_ASCII_CASE_H_
#define KERROW_COMMON_ASCII_CASE_H_

#include <cctype>
#include <string>

namespace kerrow {

// Folds a copy to lower case byte by byte, as tolower does in the default
// locale: model-type names and language codes compare case-insensitively,
// and bytes of UTF-8 sequences pass through unchanged.
inline std::string ToLowerAscii(std::string text) {
  for (char& byte : text) {
    byte = static_cast<char>(std::tolower(static_cast<unsigned char>(byte)));
  }
  return text;
}

}  // namespace kerrow

#endif  // KERROW_COMMON_ASCII_CASE_H_
