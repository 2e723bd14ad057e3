#include "live/token_word_start.h"

#include <cstdint>

namespace kerrow {

namespace {

// U+2581 LOWER ONE EIGHTH BLOCK, the word-start mark, in UTF-8.
constexpr char kWordStartMark[] = "\xE2\x96\x81";

// The first code point of a UTF-8 string, or 0 when it does not start with a
// well-formed two-, three- or four-byte sequence.
uint32_t FirstMultibyteCodePoint(const std::string& text) {
  const auto byte = [&text](size_t i) { return static_cast<unsigned char>(text[i]); };
  const auto continuation = [&](size_t i) { return i < text.size() && (byte(i) & 0xC0) == 0x80; };
  if (text.empty()) return 0;
  const unsigned char lead = byte(0);
  if ((lead & 0xE0) == 0xC0 && continuation(1)) {
    return (uint32_t{lead & 0x1Fu} << 6) | (byte(1) & 0x3Fu);
  }
  if ((lead & 0xF0) == 0xE0 && continuation(1) && continuation(2)) {
    return (uint32_t{lead & 0x0Fu} << 12) | (uint32_t{byte(1) & 0x3Fu} << 6) | (byte(2) & 0x3Fu);
  }
  if ((lead & 0xF8) == 0xF0 && continuation(1) && continuation(2) && continuation(3)) {
    return (uint32_t{lead & 0x07u} << 18) | (uint32_t{byte(1) & 0x3Fu} << 12) |
           (uint32_t{byte(2) & 0x3Fu} << 6) | (byte(3) & 0x3Fu);
  }
  return 0;
}

bool IsCjkCharacter(uint32_t code_point) {
  return (code_point >= 0x3040 && code_point <= 0x30FF) ||    // kana
         (code_point >= 0x3400 && code_point <= 0x4DBF) ||    // ideographs, extension A
         (code_point >= 0x4E00 && code_point <= 0x9FFF) ||    // unified ideographs
         (code_point >= 0xAC00 && code_point <= 0xD7AF) ||    // hangul syllables
         (code_point >= 0xF900 && code_point <= 0xFAFF) ||    // compatibility ideographs
         (code_point >= 0x20000 && code_point <= 0x3FFFF);    // supplementary ideographs
}

}  // namespace

bool TokenStartsWord(const std::string& token) {
  if (token.empty()) return false;
  if (token[0] == ' ') return true;
  if (token.compare(0, sizeof kWordStartMark - 1, kWordStartMark) == 0) return true;
  return IsCjkCharacter(FirstMultibyteCodePoint(token));
}

}  // namespace kerrow
