#include "support/one_core_pin.h"

#ifdef __linux__

namespace kerrow::testing {

OneCorePin::OneCorePin() {
  CPU_ZERO(&original_);
  if (sched_getaffinity(0, sizeof(original_), &original_) != 0) return;
  int first_cpu = 0;
  while (!CPU_ISSET(first_cpu, &original_)) ++first_cpu;
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(first_cpu, &one);
  pinned_ = sched_setaffinity(0, sizeof(one), &one) == 0;
}

OneCorePin::~OneCorePin() { Restore(); }

int OneCorePin::original_core_count() const { return CPU_COUNT(&original_); }

bool OneCorePin::Restore() {
  if (!pinned_) return true;
  pinned_ = false;
  return sched_setaffinity(0, sizeof(original_), &original_) == 0;
}

}  // namespace kerrow::testing

#endif  // __linux__
