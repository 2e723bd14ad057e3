#include "events/number_format.h"

#include <cmath>
#include <cstdio>
#include <limits>
#include <vector>

namespace kerrow {

namespace {

// printf into a std::string of exactly the needed size; large values in fixed
// notation run to hundreds of digits, so no fixed buffer fits every input.
template <typename... Args>
std::string PrintfToString(const char* format, Args... args) {
  const int length = std::snprintf(nullptr, 0, format, args...);
  if (length <= 0) return std::string();
  std::vector<char> buffer(static_cast<size_t>(length) + 1);
  std::snprintf(buffer.data(), buffer.size(), format, args...);
  return std::string(buffer.data(), static_cast<size_t>(length));
}

}  // namespace

std::string FormatFixed(double value, int decimals) {
  return PrintfToString("%.*f", decimals, value);
}

std::string FormatSixDecimals(double value) { return FormatFixed(value, 6); }

std::string FormatDefaultDouble(double value) {
  // The stream's default float field is defined as printf "%g" with the
  // stream's precision, which defaults to 6.
  return PrintfToString("%.*g", 6, value);
}

int64_t SecondsToMs(double seconds) {
  const double ms = std::fma(seconds, 1000.0, 0.5);
  if (std::isnan(ms)) return 0;
  // 2^63 is exactly representable; anything at or beyond it does not fit.
  constexpr double kInt64Limit = 9223372036854775808.0;
  if (ms >= kInt64Limit) return std::numeric_limits<int64_t>::max();
  if (ms <= -kInt64Limit) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(ms);
}

}  // namespace kerrow
