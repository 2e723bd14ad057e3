#ifndef KERROW_TESTS_SUPPORT_OUTPUT_LINES_H_
#define KERROW_TESTS_SUPPORT_OUTPUT_LINES_H_

#include <string>
#include <vector>

namespace kerrow::testing {

// The lines kerrow prints for its flat events, as the emitter orders the keys
// ("message" before "type"); `message` is taken as already escaped.
inline std::string LogLine(const std::string& message) {
  return "{\"message\":\"" + message + "\",\"type\":\"log\"}";
}
inline std::string ErrorLine(const std::string& message) {
  return "{\"message\":\"" + message + "\",\"type\":\"error\"}";
}
inline std::string CompleteLine(const std::string& message) {
  return "{\"message\":\"" + message + "\",\"type\":\"complete\"}";
}
inline const char* ReadyLine() { return "{\"type\":\"ready\"}"; }

// A regular expression that fully matches a log line whose message matches
// `pattern`.
inline std::string LogPattern(const std::string& pattern) {
  return "\\{\"message\":\"" + pattern + "\",\"type\":\"log\"\\}";
}

// One element of the "segments" array of an identify-result line; times and
// score as printed.
inline std::string IdentifiedTurnJson(const std::string& start, const std::string& end, const std::string& label,
                                      const std::string& name, const std::string& score) {
  return "{\"start_time\":" + start + ",\"end_time\":" + end + ",\"label\":\"" + label + "\",\"speaker\":\"" +
         name + "\",\"score\":" + score + "}";
}

// Index of the first line at or after `from` that equals `line`, or -1.
inline int IndexOfLine(const std::vector<std::string>& lines, const std::string& line, size_t from = 0) {
  for (size_t i = from; i < lines.size(); ++i) {
    if (lines[i] == line) return static_cast<int>(i);
  }
  return -1;
}

// Lowercase letters, apostrophes and single blanks: what the trained
// recognizer spells, so references and transcripts compare on one alphabet.
inline std::string PlainWords(const std::string& text) {
  std::string out;
  bool blank = false;
  for (unsigned char c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<unsigned char>(c - 'A' + 'a');
    if ((c >= 'a' && c <= 'z') || c == '\'') {
      if (blank && !out.empty()) out.push_back(' ');
      blank = false;
      out.push_back(static_cast<char>(c));
    } else {
      blank = true;
    }
  }
  return out;
}

}  // namespace kerrow::testing

#endif  // KERROW_TESTS_SUPPORT_OUTPUT_LINES_H_
