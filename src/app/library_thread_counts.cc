#include "app/library_thread_counts.h"

#include "common/thread_count_cap.h"

namespace kerrow {

LibraryThreadCounts::LibraryThreadCounts(uint32_t usable_cores, EventEmitter* emitter)
    : usable_cores_(usable_cores), emitter_(emitter) {}

int32_t LibraryThreadCounts::For(const std::string& tag, const std::string& option, int32_t requested) {
  const int32_t granted = CapThreadCount(requested, usable_cores_);
  if (granted != requested && reported_options_.insert(option).second) {
    emitter_->EmitLog(tag + " " + option + " " + std::to_string(requested) + " lowered to " +
                      std::to_string(granted) + ", the number of cores this process may use");
  }
  return granted;
}

}  // namespace kerrow
