#include "events/json_escape.h"

#include <cstddef>

namespace kerrow {
namespace {

constexpr char kReplacementCharacter[] = "\xEF\xBF\xBD";

bool IsContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// The range the second byte of a sequence must fall in, given its lead byte.
// The narrowed ranges after E0, ED, F0 and F4 are what rule out overlong
// forms, UTF-16 surrogates and code points past U+10FFFF.
struct SecondByteRange {
  unsigned char low;
  unsigned char high;
};

SecondByteRange SecondByteRangeFor(unsigned char lead) {
  if (lead == 0xE0) return {0xA0, 0xBF};
  if (lead == 0xED) return {0x80, 0x9F};
  if (lead == 0xF0) return {0x90, 0xBF};
  if (lead == 0xF4) return {0x80, 0x8F};
  return {0x80, 0xBF};
}

// Length of the sequence a lead byte announces; 0 for a byte that can never
// start one (a continuation byte, C0, C1, F5 and above).
size_t SequenceLength(unsigned char lead) {
  if (lead >= 0xC2 && lead <= 0xDF) return 2;
  if (lead >= 0xE0 && lead <= 0xEF) return 3;
  if (lead >= 0xF0 && lead <= 0xF4) return 4;
  return 0;
}

// How many bytes from `pos` belong to the multi-byte sequence starting there.
// Sets *complete when they form a whole well-formed character; otherwise the
// count is the ill-formed part to replace (at least 1 byte).
size_t ScanSequence(const std::string& text, size_t pos, bool* complete) {
  const unsigned char lead = static_cast<unsigned char>(text[pos]);
  const size_t length = SequenceLength(lead);
  *complete = false;
  if (length == 0) return 1;
  const SecondByteRange second = SecondByteRangeFor(lead);
  size_t taken = 1;
  while (taken < length && pos + taken < text.size()) {
    const unsigned char byte = static_cast<unsigned char>(text[pos + taken]);
    const bool fits = taken == 1 ? byte >= second.low && byte <= second.high
                                 : IsContinuation(byte);
    if (!fits) return taken;
    ++taken;
  }
  *complete = taken == length;
  return taken;
}

void AppendControlEscape(unsigned char byte, std::string* out) {
  constexpr char kHexDigits[] = "0123456789abcdef";
  *out += "\\u00";
  *out += kHexDigits[byte >> 4];
  *out += kHexDigits[byte & 0x0F];
}

// Appends one single-byte character escaped as JSON requires.
void AppendAsciiEscaped(unsigned char byte, std::string* out) {
  switch (byte) {
    case '\t':
      *out += "\\t";
      return;
    case '\n':
      *out += "\\n";
      return;
    case '\r':
      *out += "\\r";
      return;
    case '"':
      *out += "\\\"";
      return;
    case '\\':
      *out += "\\\\";
      return;
    default:
      break;
  }
  if (byte < 0x20) {
    AppendControlEscape(byte, out);
  } else {
    *out += static_cast<char>(byte);
  }
}

}  // namespace

std::string JsonEscape(const std::string& text) {
  std::string escaped;
  // Most texts need no escape at all; a little slack covers the common few.
  escaped.reserve(text.size() + 8);
  size_t pos = 0;
  while (pos < text.size()) {
    const unsigned char byte = static_cast<unsigned char>(text[pos]);
    if (byte < 0x80) {
      AppendAsciiEscaped(byte, &escaped);
      ++pos;
      continue;
    }
    bool complete = false;
    const size_t taken = ScanSequence(text, pos, &complete);
    if (complete) {
      escaped.append(text, pos, taken);
    } else {
      escaped += kReplacementCharacter;
    }
    pos += taken;
  }
  return escaped;
}

}  // namespace kerrow
