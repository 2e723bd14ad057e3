#include "common/utf8_punc.h"

#include <cctype>

namespace kerrow {

namespace {

// The full-width full stop, the only multi-byte mark that can be a decimal point.
constexpr std::string_view kFullWidthStop = "．";

bool IsAsciiDigit(unsigned char byte) { return byte >= '0' && byte <= '9'; }

// The locale is never changed, so std::ispunct answers for the "C" locale:
// printable ASCII other than letters, digits and space. Bytes of UTF-8
// sequences are never punctuation on their own.
bool IsAsciiPunct(unsigned char byte) { return byte < 0x80 && std::ispunct(byte) != 0; }

}  // namespace

size_t Utf8CharLen(unsigned char lead) {
  if ((lead & 0x80) == 0x00) return 1;
  if ((lead & 0xE0) == 0xC0) return 2;
  if ((lead & 0xF0) == 0xE0) return 3;
  if ((lead & 0xF8) == 0xF0) return 4;
  return 1;
}

size_t Utf8StepAt(std::string_view text, size_t pos) {
  if (pos >= text.size()) return 0;
  const size_t len = Utf8CharLen(static_cast<unsigned char>(text[pos]));
  return pos + len > text.size() ? 1 : len;
}

bool IsUtf8PuncToken(std::string_view token) {
  for (const std::string_view mark : kUtf8Punc) {
    if (token == mark) return true;
  }
  return false;
}

bool IsNumericDot(std::string_view text, size_t pos) {
  if (pos == 0 || pos + 1 >= text.size()) return false;
  size_t after = 0;
  if (static_cast<unsigned char>(text[pos]) == 0xEF) {
    if (pos + 2 >= text.size() || text.compare(pos, 3, kFullWidthStop) != 0) return false;
    after = pos + 3;
    if (after >= text.size()) return false;
  } else if (text[pos] == '.') {
    after = pos + 1;
  } else {
    return false;
  }
  return IsAsciiDigit(static_cast<unsigned char>(text[pos - 1])) &&
         IsAsciiDigit(static_cast<unsigned char>(text[after]));
}

bool ShouldStripPuncToken(std::string_view text, size_t pos, size_t len) {
  if (len == 0 || pos >= text.size()) return false;
  if (len != 1) {
    const std::string_view token = text.substr(pos, len);
    if (!IsUtf8PuncToken(token)) return false;
    return token == kFullWidthStop ? !IsNumericDot(text, pos) : true;
  }
  if (!IsAsciiPunct(static_cast<unsigned char>(text[pos]))) return false;
  return !IsNumericDot(text, pos);
}

size_t PrevUtf8Start(std::string_view text, size_t pos) {
  if (pos == 0 || pos > text.size()) return 0;
  size_t start = pos - 1;
  while (start > 0 && (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80) --start;
  return start;
}

std::string StripPuncForPuncModel(const std::string& text) {
  if (text.empty()) return text;
  std::string plain;
  plain.reserve(text.size());
  for (size_t pos = 0; pos < text.size();) {
    const size_t step = Utf8StepAt(text, pos);
    if (!ShouldStripPuncToken(text, pos, step)) plain.append(text, pos, step);
    pos += step;
  }
  return plain;
}

void CollectPlainTokens(const std::string& text, std::vector<std::string>* tokens,
                        std::vector<size_t>* positions) {
  if (tokens == nullptr) return;
  tokens->clear();
  if (positions != nullptr) positions->clear();
  for (size_t pos = 0; pos < text.size();) {
    const size_t step = Utf8StepAt(text, pos);
    if (!ShouldStripPuncToken(text, pos, step)) {
      tokens->push_back(text.substr(pos, step));
      if (positions != nullptr) positions->push_back(pos);
    }
    pos += step;
  }
}

size_t FindLastTokenSubseq(const std::vector<std::string>& tokens,
                           const std::vector<std::string>& needle) {
  if (needle.empty()) return 0;
  if (needle.size() > tokens.size()) return std::string::npos;
  for (size_t start = tokens.size() - needle.size() + 1; start-- > 0;) {
    bool matches = true;
    for (size_t offset = 0; offset < needle.size() && matches; ++offset) {
      matches = tokens[start + offset] == needle[offset];
    }
    if (matches) return start;
  }
  return std::string::npos;
}

std::string Utf8SuffixByCodepoints(const std::string& text, int count) {
  if (count < 1 || text.empty()) return std::string();
  size_t start = text.size();
  for (int taken = 0; taken < count && start > 0; ++taken) start = PrevUtf8Start(text, start);
  return text.substr(start);
}

bool EndsWith(std::string_view text, std::string_view suffix) {
  if (suffix.empty() || text.size() < suffix.size()) return false;
  return text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool PopOneTerminalPunc(std::string* text) {
  if (text == nullptr || text->empty()) return false;
  for (const std::string_view mark : kTerms) {
    if (EndsWith(*text, mark)) {
      text->resize(text->size() - mark.size());
      return true;
    }
  }
  return false;
}

std::string StripTerminalPunc(const std::string& text) {
  std::string stripped = text;
  while (PopOneTerminalPunc(&stripped)) {
  }
  return stripped;
}

std::string EnsureTerminalPunc(const std::string& text) {
  if (text.empty()) return text;
  for (const std::string_view mark : kTerms) {
    if (EndsWith(text, mark)) return text;
  }
  return text + "。";
}

}  // namespace kerrow
