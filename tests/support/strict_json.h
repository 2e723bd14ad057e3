#ifndef KERROW_TESTS_SUPPORT_STRICT_JSON_H_
#define KERROW_TESTS_SUPPORT_STRICT_JSON_H_

// Header only and free of gtest, so that the fuzz harnesses use the same
// judge as the test suites.

#include <cstddef>
#include <string>

namespace kerrow::testing {

// A validator as strict as the JSON parsers desktop hosts use (RFC 8259):
// no raw control characters in strings, only the defined escapes, well-formed
// UTF-8 everywhere, no NaN or infinity, nothing after the value. Strings are
// decoded as they are checked, so that a caller can compare them with what
// went in.
class StrictJson {
 public:
  explicit StrictJson(const std::string& text) : text_(text) {}

  // True when the whole text is one JSON value (blanks around it allowed).
  bool ParseDocument() {
    SkipBlanks();
    if (!ParseValue(0)) return false;
    SkipBlanks();
    return pos_ == text_.size();
  }

  // True when the whole text is the inside of one JSON string; the decoded
  // text goes to *decoded.
  bool ParseStringBody(std::string* decoded) {
    const std::string quoted = "\"" + text_ + "\"";
    StrictJson inner(quoted);
    return inner.ParseString(decoded) && inner.pos_ == quoted.size();
  }

  // True when the text is one JSON object with a string member `key` at its
  // top level; the decoded string goes to *value. Nested members of the same
  // name do not count.
  bool FindTopLevelString(const std::string& key, std::string* value) {
    SkipBlanks();
    if (!Take('{')) return false;
    SkipBlanks();
    if (Take('}')) return false;
    for (;;) {
      std::string name;
      SkipBlanks();
      if (!ParseString(&name)) return false;
      SkipBlanks();
      if (!Take(':')) return false;
      SkipBlanks();
      if (name == key && pos_ < text_.size() && text_[pos_] == '"') return ParseString(value);
      if (!ParseValue(1)) return false;
      SkipBlanks();
      if (!Take(',')) return false;
    }
  }

  // True when the whole text is well-formed UTF-8.
  static bool IsValidUtf8(const std::string& text) {
    StrictJson scanner(text);
    std::string ignored;
    while (scanner.pos_ < text.size()) {
      if (!scanner.TakeUtf8Character(&ignored)) return false;
    }
    return true;
  }

 private:
  static constexpr int kMaxDepth = 64;

  bool ParseValue(int depth) {
    if (depth > kMaxDepth || pos_ >= text_.size()) return false;
    const char c = text_[pos_];
    if (c == '{') return ParseObject(depth);
    if (c == '[') return ParseArray(depth);
    if (c == '"') {
      std::string ignored;
      return ParseString(&ignored);
    }
    if (c == 't') return Literal("true");
    if (c == 'f') return Literal("false");
    if (c == 'n') return Literal("null");
    return ParseNumber();
  }

  bool ParseObject(int depth) {
    ++pos_;
    SkipBlanks();
    if (Take('}')) return true;
    for (;;) {
      std::string key;
      SkipBlanks();
      if (!ParseString(&key)) return false;
      SkipBlanks();
      if (!Take(':')) return false;
      SkipBlanks();
      if (!ParseValue(depth + 1)) return false;
      SkipBlanks();
      if (Take('}')) return true;
      if (!Take(',')) return false;
    }
  }

  bool ParseArray(int depth) {
    ++pos_;
    SkipBlanks();
    if (Take(']')) return true;
    for (;;) {
      SkipBlanks();
      if (!ParseValue(depth + 1)) return false;
      SkipBlanks();
      if (Take(']')) return true;
      if (!Take(',')) return false;
    }
  }

  bool ParseString(std::string* decoded) {
    decoded->clear();
    if (!Take('"')) return false;
    while (pos_ < text_.size()) {
      const unsigned char c = static_cast<unsigned char>(text_[pos_]);
      if (c == '"') {
        ++pos_;
        return true;
      }
      if (c < 0x20) return false;
      if (c == '\\') {
        if (!ParseEscape(decoded)) return false;
      } else if (!TakeUtf8Character(decoded)) {
        return false;
      }
    }
    return false;
  }

  bool ParseEscape(std::string* decoded) {
    ++pos_;
    if (pos_ >= text_.size()) return false;
    const char c = text_[pos_++];
    switch (c) {
      case '"': *decoded += '"'; return true;
      case '\\': *decoded += '\\'; return true;
      case '/': *decoded += '/'; return true;
      case 'b': *decoded += '\b'; return true;
      case 'f': *decoded += '\f'; return true;
      case 'n': *decoded += '\n'; return true;
      case 'r': *decoded += '\r'; return true;
      case 't': *decoded += '\t'; return true;
      case 'u': return ParseUnicodeEscape(decoded);
      default: return false;
    }
  }

  // A \u escape of the Basic Multilingual Plane is decoded to UTF-8; a
  // surrogate is still valid JSON and is kept as the replacement character.
  bool ParseUnicodeEscape(std::string* decoded) {
    if (pos_ + 4 > text_.size()) return false;
    unsigned value = 0;
    for (int i = 0; i < 4; ++i) {
      const char h = text_[pos_++];
      value <<= 4;
      if (h >= '0' && h <= '9') value |= static_cast<unsigned>(h - '0');
      else if (h >= 'a' && h <= 'f') value |= static_cast<unsigned>(h - 'a' + 10);
      else if (h >= 'A' && h <= 'F') value |= static_cast<unsigned>(h - 'A' + 10);
      else return false;
    }
    if (value < 0x80) {
      *decoded += static_cast<char>(value);
    } else if (value >= 0xD800 && value <= 0xDFFF) {
      *decoded += "\xEF\xBF\xBD";
    } else if (value < 0x800) {
      *decoded += static_cast<char>(0xC0 | (value >> 6));
      *decoded += static_cast<char>(0x80 | (value & 0x3F));
    } else {
      *decoded += static_cast<char>(0xE0 | (value >> 12));
      *decoded += static_cast<char>(0x80 | ((value >> 6) & 0x3F));
      *decoded += static_cast<char>(0x80 | (value & 0x3F));
    }
    return true;
  }

  bool TakeUtf8Character(std::string* decoded) {
    const unsigned char lead = static_cast<unsigned char>(text_[pos_]);
    size_t length = 0;
    unsigned char low = 0x80, high = 0xBF;
    if (lead < 0x80) length = 1;
    else if (lead >= 0xC2 && lead <= 0xDF) length = 2;
    else if (lead >= 0xE0 && lead <= 0xEF) length = 3;
    else if (lead >= 0xF0 && lead <= 0xF4) length = 4;
    else return false;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
    if (pos_ + length > text_.size()) return false;
    for (size_t i = 1; i < length; ++i) {
      const unsigned char byte = static_cast<unsigned char>(text_[pos_ + i]);
      const unsigned char min = i == 1 ? low : 0x80;
      const unsigned char max = i == 1 ? high : 0xBF;
      if (byte < min || byte > max) return false;
    }
    decoded->append(text_, pos_, length);
    pos_ += length;
    return true;
  }

  bool ParseNumber() {
    const size_t start = pos_;
    Take('-');
    if (!Take('0') && !TakeDigits()) return false;
    if (Take('.') && !TakeDigits()) return false;
    if (pos_ < text_.size() && (text_[pos_] == 'e' || text_[pos_] == 'E')) {
      ++pos_;
      if (!Take('+')) Take('-');
      if (!TakeDigits()) return false;
    }
    return pos_ > start;
  }

  bool TakeDigits() {
    const size_t start = pos_;
    while (pos_ < text_.size() && text_[pos_] >= '0' && text_[pos_] <= '9') ++pos_;
    return pos_ > start;
  }

  bool Literal(const char* word) {
    const std::string expected(word);
    if (text_.compare(pos_, expected.size(), expected) != 0) return false;
    pos_ += expected.size();
    return true;
  }

  bool Take(char c) {
    if (pos_ < text_.size() && text_[pos_] == c) {
      ++pos_;
      return true;
    }
    return false;
  }

  void SkipBlanks() {
    while (pos_ < text_.size() &&
           (text_[pos_] == ' ' || text_[pos_] == '\t' || text_[pos_] == '\n' || text_[pos_] == '\r')) {
      ++pos_;
    }
  }

  const std::string& text_;
  size_t pos_ = 0;
};

}  // namespace kerrow::testing

#endif  // KERROW_TESTS_SUPPORT_STRICT_JSON_H_
