#ifndef KERROW_APP_LIBRARY_THREAD_COUNTS_H_
#define KERROW_APP_LIBRARY_THREAD_COUNTS_H_

#include <cstdint>
#include <set>
#include <string>

#include "events/event_emitter.h"

namespace kerrow {

// The thread counts the set-up hands to the library, each lowered to the cores
// this process may use. A lowered option is logged once, just before the first
// adapter that receives it, so the host sees which setting was not honoured
// and why. The diarization count reaches two adapters; it is logged once.
class LibraryThreadCounts {
 public:
  LibraryThreadCounts(uint32_t usable_cores, EventEmitter* emitter);

  // The count to pass for `option` (as spelled on the command line), logged
  // under `tag` when it had to be lowered.
  int32_t For(const std::string& tag, const std::string& option, int32_t requested);

 private:
  uint32_t usable_cores_;
  EventEmitter* emitter_;
  std::set<std::string> reported_options_;
};

}  // namespace kerrow

#endif  // KERROW_APP_LIBRARY_THREAD_COUNTS_H_
