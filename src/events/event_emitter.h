#ifndef KERROW_EVENTS_EVENT_EMITTER_H_
#define KERROW_EVENTS_EVENT_EMITTER_H_

#include <map>
#include <mutex>
#include <string>

namespace kerrow {

// The single writer of standard output, which carries the host protocol: one
// JSON object per line, flushed at once. Every thread emits through the same
// emitter so that lines never interleave. Text is composed and escaped before
// the lock is taken, so the lock covers only one line's write and flush and
// callers may emit while holding locks of their own.
class EventEmitter {
 public:
  EventEmitter() = default;
  EventEmitter(const EventEmitter&) = delete;
  EventEmitter& operator=(const EventEmitter&) = delete;

  // Writes `json` unchanged, then "\n", then flushes. The caller guarantees
  // that `json` is one line of valid JSON.
  void EmitRawJson(const std::string& json);

  // Writes one flat object of string values. The map orders the keys
  // byte-wise, which is why "message" always precedes "type".
  void EmitObject(std::map<std::string, std::string> fields);

  void EmitReady();
  void EmitComplete(const std::string& message);
  void EmitLog(const std::string& message);
  void EmitError(const std::string& message);

  // The escaping applied to every key and value; the same as JsonEscape.
  static std::string EscapeJson(const std::string& text);

 private:
  std::mutex stdout_mutex_;
};

}  // namespace kerrow

#endif  // KERROW_EVENTS_EVENT_EMITTER_H_
