#ifndef KERROW_EVENTS_JSON_ESCAPE_H_
#define KERROW_EVENTS_JSON_ESCAPE_H_

#include <string>

namespace kerrow {

// Escapes text for a JSON string value so that every line the host reads is
// valid JSON and valid UTF-8, whatever bytes a file name, label or recognizer
// handed us:
// - tab, line feed, carriage return, double quote and backslash become \t, \n,
//   \r, \" and \\;
// - every other byte below 0x20 becomes \u00xx (lowercase hex);
// - a byte sequence that is not well-formed UTF-8 (a stray continuation byte,
//   a truncated, overlong or surrogate sequence, a code point past U+10FFFF)
//   becomes U+FFFD, one per maximal ill-formed subpart.
// Well-formed multi-byte text passes through byte for byte, never as \u
// sequences.
std::string JsonEscape(const std::string& text);

}  // namespace kerrow

#endif  // KERROW_EVENTS_JSON_ESCAPE_H_
