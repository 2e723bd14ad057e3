#ifndef KERROW_EVENTS_NUMBER_FORMAT_H_
#define KERROW_EVENTS_NUMBER_FORMAT_H_

#include <cstdint>
#include <string>

namespace kerrow {

// The host parses the numbers in our JSON lines and log texts, and its tests
// compare them as text, so every number format lives here exactly once.

// Fixed notation with `decimals` digits after the point, as printf "%.*f" writes
// it: the exact binary value is rounded to nearest, so 2.675 gives "2.67".
std::string FormatFixed(double value, int decimals);

// Seconds written with six decimals, the way std::to_string writes a double
// (e.g. the speaker-identification threshold 0.7 reads "0.700000").
std::string FormatSixDecimals(double value);

// What `std::ostream << value` writes with default stream flags: the shortest
// of fixed or scientific notation with six significant digits ("0.5", "1e+06").
std::string FormatDefaultDouble(double value);

// Whole milliseconds of a time in seconds: seconds * 1000 + 0.5 formed by one
// fused multiply-add, then truncated toward zero (1.2345 s gives 1235 ms, a
// negative time truncates toward zero). NaN gives 0; values beyond the int64_t
// range saturate.
int64_t SecondsToMs(double seconds);

}  // namespace kerrow

#endif  // KERROW_EVENTS_NUMBER_FORMAT_H_
