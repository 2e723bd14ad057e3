#include "support/json_fields.h"

#include <cstdlib>

#include "support/strict_json.h"

namespace kerrow::testing {

namespace {

// Where the value of the first `"key":` in the line starts, or npos.
size_t ValueStartOf(const std::string& line, const std::string& key) {
  const std::string needle = "\"" + key + "\":";
  const size_t at = line.find(needle);
  return at == std::string::npos ? std::string::npos : at + needle.size();
}

}  // namespace

std::string JsonStringField(const std::string& json_line, const std::string& key) {
  std::string value;
  return StrictJson(json_line).FindTopLevelString(key, &value) ? value : "";
}

long JsonIntField(const std::string& line, const std::string& key, long missing) {
  const size_t start = ValueStartOf(line, key);
  if (start == std::string::npos) return missing;
  return std::strtol(line.c_str() + start, nullptr, 10);
}

double JsonNumberField(const std::string& line, const std::string& key) {
  const size_t start = ValueStartOf(line, key);
  if (start == std::string::npos) return -1.0;
  return std::strtod(line.c_str() + start, nullptr);
}

std::string JsonTextField(const std::string& line) {
  const std::string key = "\"text\":\"";
  const size_t begin = line.find(key);
  if (begin == std::string::npos) return "";
  std::string text;
  for (size_t i = begin + key.size(); i < line.size() && line[i] != '"'; ++i) {
    if (line[i] == '\\' && i + 1 < line.size()) ++i;
    text.push_back(line[i]);
  }
  return text;
}

bool ParseEventMessage(const std::string& line, const std::string& type, std::string* message) {
  // The exact shape EmitLog and its siblings write: message first, type last.
  const std::string head = "{\"message\":\"";
  const std::string tail = "\",\"type\":\"" + type + "\"}";
  if (line.size() < head.size() + tail.size() || line.compare(0, head.size(), head) != 0 ||
      line.compare(line.size() - tail.size(), tail.size(), tail) != 0) {
    return false;
  }
  return StrictJson(line).FindTopLevelString("message", message);
}

std::vector<std::string> LogMessages(const std::vector<std::string>& lines) {
  std::vector<std::string> messages;
  std::string message;
  for (const std::string& line : lines) {
    if (ParseEventMessage(line, "log", &message)) messages.push_back(message);
  }
  return messages;
}

}  // namespace kerrow::testing
