#ifndef KERROW_TESTS_SUPPORT_ONE_CORE_PIN_H_
#define KERROW_TESTS_SUPPORT_ONE_CORE_PIN_H_

#ifdef __linux__

#include <sched.h>

namespace kerrow::testing {

// Narrows the calling thread's affinity mask to its first core, as a cpuset
// (a container's limit, taskset) would, and puts the original mask back.
// Children started meanwhile inherit the narrowed mask.
class OneCorePin {
 public:
  OneCorePin();
  ~OneCorePin();  // restores the mask unless Restore() already did
  OneCorePin(const OneCorePin&) = delete;
  OneCorePin& operator=(const OneCorePin&) = delete;

  bool pinned() const { return pinned_; }
  // The number of cores the original mask allowed.
  int original_core_count() const;
  // Puts the original mask back; false when the system refused.
  bool Restore();

 private:
  cpu_set_t original_;
  bool pinned_ = false;
};

}  // namespace kerrow::testing

#endif  // __linux__

#endif  // KERROW_TESTS_SUPPORT_ONE_CORE_PIN_H_
