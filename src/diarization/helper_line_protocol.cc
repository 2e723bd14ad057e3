#include "diarization/helper_line_protocol.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "common/error_text.h"
#include "events/number_format.h"

namespace kerrow {
namespace {

void AppendUtf8(uint32_t code_point, std::string* out) {
  if (code_point < 0x80) {
    out->push_back(static_cast<char>(code_point));
  } else if (code_point < 0x800) {
    out->push_back(static_cast<char>(0xC0 | (code_point >> 6)));
    out->push_back(static_cast<char>(0x80 | (code_point & 0x3F)));
  } else if (code_point < 0x10000) {
    out->push_back(static_cast<char>(0xE0 | (code_point >> 12)));
    out->push_back(static_cast<char>(0x80 | ((code_point >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (code_point & 0x3F)));
  } else {
    out->push_back(static_cast<char>(0xF0 | (code_point >> 18)));
    out->push_back(static_cast<char>(0x80 | ((code_point >> 12) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | ((code_point >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (code_point & 0x3F)));
  }
}

// A cursor over one request line: just enough JSON for an object of string
// and scalar members.
class JsonCursor {
 public:
  explicit JsonCursor(const std::string& text) : text_(text) {}

  void SkipBlanks() {
    while (pos_ < text_.size() && (text_[pos_] == ' ' || text_[pos_] == '\t' ||
                                   text_[pos_] == '\r' || text_[pos_] == '\n')) {
      ++pos_;
    }
  }
  bool Take(char expected) {
    SkipBlanks();
    if (pos_ >= text_.size() || text_[pos_] != expected) return false;
    ++pos_;
    return true;
  }
  bool Peek(char expected) {
    SkipBlanks();
    return pos_ < text_.size() && text_[pos_] == expected;
  }
  bool AtEnd() {
    SkipBlanks();
    return pos_ >= text_.size();
  }

  bool String(std::string* out) {
    out->clear();
    if (!Take('"')) return false;
    while (pos_ < text_.size()) {
      const char c = text_[pos_++];
      if (c == '"') return true;
      if (static_cast<unsigned char>(c) < 0x20) return false;
      if (c != '\\') {
        out->push_back(c);
      } else if (!Escape(out)) {
        return false;
      }
    }
    return false;
  }

  // Numbers, true, false and null: the characters up to the next separator.
  bool Scalar() {
    SkipBlanks();
    const size_t begin = pos_;
    while (pos_ < text_.size() && text_[pos_] != ',' && text_[pos_] != '}' &&
           text_[pos_] != ' ' && text_[pos_] != '\t') {
      if (text_[pos_] == '"' || text_[pos_] == '{' || text_[pos_] == '[') return false;
      ++pos_;
    }
    return pos_ > begin;
  }

 private:
  bool Escape(std::string* out) {
    if (pos_ >= text_.size()) return false;
    const char c = text_[pos_++];
    switch (c) {
      case '"': out->push_back('"'); return true;
      case '\\': out->push_back('\\'); return true;
      case '/': out->push_back('/'); return true;
      case 'b': out->push_back('\b'); return true;
      case 'f': out->push_back('\f'); return true;
      case 'n': out->push_back('\n'); return true;
      case 'r': out->push_back('\r'); return true;
      case 't': out->push_back('\t'); return true;
      case 'u': return UnicodeEscape(out);
      default: return false;
    }
  }

  bool Hex4(uint32_t* value) {
    if (pos_ + 4 > text_.size()) return false;
    *value = 0;
    for (int i = 0; i < 4; ++i) {
      const char c = text_[pos_++];
      uint32_t digit = 0;
      if (c >= '0' && c <= '9') digit = static_cast<uint32_t>(c - '0');
      else if (c >= 'a' && c <= 'f') digit = static_cast<uint32_t>(c - 'a' + 10);
      else if (c >= 'A' && c <= 'F') digit = static_cast<uint32_t>(c - 'A' + 10);
      else return false;
      *value = *value * 16 + digit;
    }
    return true;
  }

  // \uXXXX, with a surrogate pair joined into one code point.
  bool UnicodeEscape(std::string* out) {
    uint32_t code_point = 0;
    if (!Hex4(&code_point)) return false;
    if (code_point >= 0xD800 && code_point < 0xDC00) {
      uint32_t low = 0;
      if (text_.compare(pos_, 2, "\\u") != 0) return false;
      pos_ += 2;
      if (!Hex4(&low) || low < 0xDC00 || low >= 0xE000) return false;
      code_point = 0x10000 + ((code_point - 0xD800) << 10) + (low - 0xDC00);
    } else if (code_point >= 0xDC00 && code_point < 0xE000) {
      return false;
    }
    AppendUtf8(code_point, out);
    return true;
  }

  const std::string& text_;
  size_t pos_ = 0;
};

// Parses the start of text as a decimal number, as strtod does; false when
// the text does not start with one.
bool LeadingNumber(const std::string& text, double* value) {
  const char* begin = text.c_str();
  char* end = nullptr;
  *value = std::strtod(begin, &end);
  return end != begin;
}

}  // namespace

std::string FormatHelperRequest(const std::string& wav_path) {
  std::string line = "{\"input\":\"";
  for (const char c : wav_path) {
    if (c == '\\' || c == '"') line.push_back('\\');
    line.push_back(c);
  }
  line += "\"}";
  return line;
}

bool ParseHelperRequest(const std::string& line, std::string* wav_path,
                        std::string* error) {
  JsonCursor cursor(line);
  if (!cursor.Take('{')) return Fail(error, "request is not a JSON object");
  bool found = false;
  std::string key;
  std::string value;
  while (!cursor.Peek('}')) {
    if (!cursor.String(&key) || !cursor.Take(':')) {
      return Fail(error, "request is not a JSON object");
    }
    const bool is_string = cursor.Peek('"');
    if (is_string ? !cursor.String(&value) : !cursor.Scalar()) {
      return Fail(error, "request member \"" + key + "\" has an unsupported value");
    }
    if (key == "input") {
      if (!is_string) return Fail(error, "request member \"input\" is not a string");
      *wav_path = value;
      found = true;
    }
    if (!cursor.Take(',') && !cursor.Peek('}')) {
      return Fail(error, "request is not a JSON object");
    }
  }
  if (!cursor.Take('}') || !cursor.AtEnd()) return Fail(error, "request is not a JSON object");
  if (!found) return Fail(error, "request has no \"input\" member");
  return true;
}

std::string FormatHelperTurn(const DiarizationSegment& turn) {
  return FormatFixed(turn.start, 3) + "\t" + FormatFixed(turn.end, 3) + "\t" + turn.speaker;
}

bool ParseHelperTurn(const std::string& line, DiarizationSegment* turn) {
  const size_t first_tab = line.find('\t');
  if (first_tab == std::string::npos) return false;
  const size_t second_tab = line.find('\t', first_tab + 1);
  if (second_tab == std::string::npos) return false;
  double start = 0.0;
  double end = 0.0;
  if (!LeadingNumber(line.substr(0, first_tab), &start) ||
      !LeadingNumber(line.substr(first_tab + 1, second_tab - first_tab - 1), &end) ||
      !(end > start)) {
    return false;
  }
  turn->start = start;
  turn->end = end;
  turn->speaker = line.substr(second_tab + 1);
  return true;
}

std::string HelperLabelMap::Map(const std::string& helper_label) {
  const auto known = names_.find(helper_label);
  if (known != names_.end()) return known->second;
  char name[32];
  std::snprintf(name, sizeof(name), "SPEAKER_%02zu", names_.size());
  names_.emplace(helper_label, name);
  return name;
}

}  // namespace kerrow
