#ifndef KERROW_EVENTS_JSON_ESCAPE_H_
#define KERROW_EVENTS_JSON_ESCAPE_H_

#include <string>

namespace kerrow {

// Escapes text for a JSON string value the way the host expects it: only tab,
// line feed, carriage return, double quote and backslash are escaped. Every
// other byte, other control bytes and UTF-8 sequences included, passes raw, so
// the host receives multi-byte text as UTF-8 rather than \u sequences.
std::string JsonEscape(const std::string& text);

}  // namespace kerrow

#endif  // KERROW_EVENTS_JSON_ESCAPE_H_
