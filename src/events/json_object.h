#ifndef KERROW_EVENTS_JSON_OBJECT_H_
#define KERROW_EVENTS_JSON_OBJECT_H_

#include <string>
#include <vector>

namespace kerrow {

// Composes one JSON object in the order its fields are added, so that a reply
// or record reads the same on every run. Keys and string values go through
// JsonEscape; raw values are JSON text the caller has already composed (a
// number in a fixed format, a nested object or array).
class JsonObject {
 public:
  JsonObject& AddString(const std::string& key, const std::string& value);
  JsonObject& AddInt(const std::string& key, long long value);
  JsonObject& AddBool(const std::string& key, bool value);
  JsonObject& AddRaw(const std::string& key, const std::string& json);

  // The object so far, closed: "{...}".
  std::string Text() const;

 private:
  void AppendKey(const std::string& key);

  std::string json_ = "{";
};

// "[a,b,...]" of elements that are already JSON text.
std::string JsonArray(const std::vector<std::string>& elements);

// "[\"a\",\"b\",...]", each value escaped.
std::string JsonStringArray(const std::vector<std::string>& values);

}  // namespace kerrow

#endif  // KERROW_EVENTS_JSON_OBJECT_H_
