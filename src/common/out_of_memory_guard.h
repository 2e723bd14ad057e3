#ifndef KERROW_COMMON_OUT_OF_MEMORY_GUARD_H_
#define KERROW_COMMON_OUT_OF_MEMORY_GUARD_H_

// Running out of memory (a huge file, a memory limit the host set) must reach
// the host as an error event and a failed exit status, not as an abort whose only
// trace is a signal: the host shows our error events to the user, never stderr.
// The diarization helper uses the same guard to answer one request empty and
// keep its models loaded for the next.

#include <new>
#include <stdexcept>

namespace kerrow {

// The error event's message when an allocation fails.
inline constexpr char kOutOfMemoryMessage[] = "Out of memory";

// Runs action() and returns true, or returns false when it ran out of memory
// (std::bad_alloc, or std::length_error from a size no container can hold). By
// then the unwinding has released what the action held, so the caller can
// still report the failure.
template <typename Action>
bool RunUnlessOutOfMemory(Action&& action) {
  try {
    action();
    return true;
  } catch (const std::bad_alloc&) {
  } catch (const std::length_error&) {
  }
  return false;
}

}  // namespace kerrow

#endif  // KERROW_COMMON_OUT_OF_MEMORY_GUARD_H_
