#include "events/json_object.h"

#include "events/json_escape.h"

namespace kerrow {
namespace {

std::string Quoted(const std::string& text) { return "\"" + JsonEscape(text) + "\""; }

}  // namespace

JsonObject& JsonObject::AddString(const std::string& key, const std::string& value) {
  return AddRaw(key, Quoted(value));
}

JsonObject& JsonObject::AddInt(const std::string& key, long long value) {
  return AddRaw(key, std::to_string(value));
}

JsonObject& JsonObject::AddBool(const std::string& key, bool value) {
  return AddRaw(key, value ? "true" : "false");
}

JsonObject& JsonObject::AddRaw(const std::string& key, const std::string& json) {
  AppendKey(key);
  json_ += json;
  return *this;
}

std::string JsonObject::Text() const { return json_ + "}"; }

void JsonObject::AppendKey(const std::string& key) {
  if (json_.size() > 1) json_ += ',';
  json_ += Quoted(key);
  json_ += ':';
}

std::string JsonArray(const std::vector<std::string>& elements) {
  std::string json = "[";
  for (size_t i = 0; i < elements.size(); ++i) {
    if (i > 0) json += ',';
    json += elements[i];
  }
  return json + "]";
}

std::string JsonStringArray(const std::vector<std::string>& values) {
  std::vector<std::string> quoted;
  quoted.reserve(values.size());
  for (const std::string& value : values) quoted.push_back(Quoted(value));
  return JsonArray(quoted);
}

}  // namespace kerrow
