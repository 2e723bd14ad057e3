#include "events/json_escape.h"

#include <cstdint>
#include <cstdio>
#include <string>

#include <gtest/gtest.h>

namespace kerrow::testing {
namespace {

const std::string kReplacement = "\xEF\xBF\xBD";

std::string Repeat(const std::string& piece, int times) {
  std::string out;
  for (int i = 0; i < times; ++i) out += piece;
  return out;
}

// A strict UTF-8 check written from the code point ranges (not from the
// escaper's lead-byte tables): every character decodes to a scalar value in
// its shortest form, and no byte below 0x20 appears raw.
bool IsStrictJsonStringContent(const std::string& text) {
  size_t pos = 0;
  while (pos < text.size()) {
    const auto lead = static_cast<unsigned char>(text[pos]);
    if (lead < 0x20) return false;
    size_t length = 1;
    uint32_t code = lead;
    if (lead >= 0x80) {
      if ((lead & 0xE0) == 0xC0) { length = 2; code = lead & 0x1F; }
      else if ((lead & 0xF0) == 0xE0) { length = 3; code = lead & 0x0F; }
      else if ((lead & 0xF8) == 0xF0) { length = 4; code = lead & 0x07; }
      else return false;
      if (pos + length > text.size()) return false;
      for (size_t i = 1; i < length; ++i) {
        const auto next = static_cast<unsigned char>(text[pos + i]);
        if ((next & 0xC0) != 0x80) return false;
        code = (code << 6) | (next & 0x3F);
      }
      const uint32_t shortest_min[] = {0, 0, 0x80, 0x800, 0x10000};
      if (code < shortest_min[length] || code > 0x10FFFF) return false;
      if (code >= 0xD800 && code <= 0xDFFF) return false;
    }
    pos += length;
  }
  return true;
}

TEST(JsonEscape, EveryControlByteBelowSpaceIsEscaped) {
  for (int byte = 0; byte < 0x20; ++byte) {
    const std::string escaped = JsonEscape(std::string(1, static_cast<char>(byte)));
    if (byte == '\t') {
      EXPECT_EQ(escaped, "\\t");
    } else if (byte == '\n') {
      EXPECT_EQ(escaped, "\\n");
    } else if (byte == '\r') {
      EXPECT_EQ(escaped, "\\r");
    } else {
      char expected[8];
      std::snprintf(expected, sizeof(expected), "\\u%04x", byte);
      EXPECT_EQ(escaped, expected) << "byte " << byte;
    }
  }
}

TEST(JsonEscape, HexDigitsOfControlEscapesAreLowercase) {
  EXPECT_EQ(JsonEscape("\x1b[0m"), "\\u001b[0m");
  EXPECT_EQ(JsonEscape("\x0c"), "\\u000c");
}

TEST(JsonEscape, WellFormedUtf8PassesByteForByte) {
  const std::string text = "caf\xC3\xA9 \xE4\xB8\xAD\xE6\x96\x87 \xF0\x9F\x98\x80 \xEF\xBF\xBF \xF4\x8F\xBF\xBF";
  EXPECT_EQ(JsonEscape(text), text);
}

TEST(JsonEscape, StrayAndInvalidLeadBytesAreEachReplaced) {
  EXPECT_EQ(JsonEscape("a\xFF" "b"), "a" + kReplacement + "b");
  EXPECT_EQ(JsonEscape("\x80\xBF"), Repeat(kReplacement, 2));
  EXPECT_EQ(JsonEscape("\xF5\x80"), Repeat(kReplacement, 2));
}

TEST(JsonEscape, TruncatedSequenceBecomesOneReplacement) {
  // The first two bytes of "中" (E4 B8 AD), cut by the end of the text or by
  // an ASCII byte.
  EXPECT_EQ(JsonEscape("x\xE4\xB8"), "x" + kReplacement);
  EXPECT_EQ(JsonEscape("\xE4\xB8y"), kReplacement + "y");
  EXPECT_EQ(JsonEscape("\xF0\x9F\x98"), kReplacement);
}

TEST(JsonEscape, OverlongSurrogateAndOutOfRangeFormsAreReplaced) {
  EXPECT_EQ(JsonEscape("\xC0\x80"), Repeat(kReplacement, 2));            // overlong NUL
  EXPECT_EQ(JsonEscape("\xE0\x80\xAF"), Repeat(kReplacement, 3));        // overlong "/"
  EXPECT_EQ(JsonEscape("\xED\xA0\x80"), Repeat(kReplacement, 3));        // surrogate D800
  EXPECT_EQ(JsonEscape("\xF4\x90\x80\x80"), Repeat(kReplacement, 4));    // U+110000
}

TEST(JsonEscape, ReplacementDoesNotSwallowTheEscapesAfterIt) {
  EXPECT_EQ(JsonEscape("\xC3\"\x01"), kReplacement + "\\\"\\u0001");
}

TEST(JsonEscape, EveryTwoByteInputComesOutStrictlyValid) {
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      const std::string input{static_cast<char>(first), static_cast<char>(second)};
      ASSERT_TRUE(IsStrictJsonStringContent(JsonEscape(input)))
          << "bytes " << first << " " << second;
    }
  }
}

TEST(JsonEscape, EveryThreeByteLeadWithContinuationsComesOutStrictlyValid) {
  for (int lead = 0xC0; lead < 0x100; ++lead) {
    for (int second = 0x80; second < 0xC0; ++second) {
      const std::string input{static_cast<char>(lead), static_cast<char>(second), '\x80', '\x80'};
      ASSERT_TRUE(IsStrictJsonStringContent(JsonEscape(input)))
          << "bytes " << lead << " " << second;
    }
  }
}

}  // namespace
}  // namespace kerrow::testing
