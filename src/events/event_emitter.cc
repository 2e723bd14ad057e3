#include "events/event_emitter.h"

#include <cstdio>

#include "events/json_escape.h"
#include "events/json_object.h"

namespace kerrow {

namespace {

std::map<std::string, std::string> TypedMessage(const char* type, const std::string& message) {
  return {{"type", type}, {"message", message}};
}

}  // namespace

void EventEmitter::EmitRawJson(const std::string& json) {
  std::lock_guard<std::mutex> lock(stdout_mutex_);
  // Write errors are deliberately not checked: when the host has closed the
  // pipe there is nobody left to tell.
  std::fwrite(json.data(), 1, json.size(), stdout);
  std::fputc('\n', stdout);
  // The host reacts to events as they arrive; a line left in the buffer would
  // stall it.
  std::fflush(stdout);
}

void EventEmitter::EmitObject(std::map<std::string, std::string> fields) {
  JsonObject json;
  for (const auto& [key, value] : fields) json.AddString(key, value);
  EmitRawJson(json.Text());
}

void EventEmitter::EmitReady() { EmitObject({{"type", "ready"}}); }

void EventEmitter::EmitComplete(const std::string& message) {
  EmitObject(TypedMessage("complete", message));
}

void EventEmitter::EmitLog(const std::string& message) { EmitObject(TypedMessage("log", message)); }

void EventEmitter::EmitError(const std::string& message) {
  EmitObject(TypedMessage("error", message));
}

std::string EventEmitter::EscapeJson(const std::string& text) { return JsonEscape(text); }

}  // namespace kerrow
