#ifndef KERROW_TESTS_SUPPORT_TIMING_MASK_H_
#define KERROW_TESTS_SUPPORT_TIMING_MASK_H_

#include <cctype>
#include <string>
#include <vector>

namespace kerrow::testing {

// Measured milliseconds are the only thing two decodes of one recording may
// differ in: the digits after every "ms=" ("ms=", "_ms_sum=") become "#".
// (Scanned by hand: GCC's sanitizer builds reject std::regex.)
inline std::string MaskTimings(const std::string& line) {
  static const std::string kLabelEnd = "ms=";
  static const std::string kSumEnd = "_ms_sum=";
  std::string masked;
  size_t at = 0;
  for (size_t found = line.find("=", at); found != std::string::npos;
       found = line.find("=", at)) {
    const size_t after = found + 1;
    masked.append(line, at, after - at);
    at = after;
    const bool timing = masked.size() >= kLabelEnd.size() &&
                        (masked.compare(masked.size() - kLabelEnd.size(), kLabelEnd.size(), kLabelEnd) == 0 ||
                         (masked.size() >= kSumEnd.size() &&
                          masked.compare(masked.size() - kSumEnd.size(), kSumEnd.size(), kSumEnd) == 0));
    if (!timing || at >= line.size() || !std::isdigit(static_cast<unsigned char>(line[at]))) continue;
    while (at < line.size() && std::isdigit(static_cast<unsigned char>(line[at]))) ++at;
    masked.push_back('#');
  }
  masked.append(line, at, std::string::npos);
  return masked;
}

inline std::vector<std::string> MaskTimings(const std::vector<std::string>& lines) {
  std::vector<std::string> masked;
  for (const std::string& line : lines) masked.push_back(MaskTimings(line));
  return masked;
}

}  // namespace kerrow::testing

#endif  // KERROW_TESTS_SUPPORT_TIMING_MASK_H_
