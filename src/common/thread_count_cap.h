#ifndef KERROW_COMMON_THREAD_COUNT_CAP_H_
#define KERROW_COMMON_THREAD_COUNT_CAP_H_

// How many threads a model may ask the library for. More threads than the
// process has cores do not make a decode faster: they take turns on the same
// cores and the decode gets slower than with fewer threads (a second pass with
// four threads on two cores is about a third slower than with one).

#include <cstdint>
#include <thread>

#include "common/cpu_quota.h"

#ifdef __linux__
#include <sched.h>
#endif

namespace kerrow {

// The cores this process may run on: the affinity mask where the system keeps
// one (a container's or taskset's cpuset shows there, not in the machine's
// count), else the machine's count; 0 when neither is known.
inline uint32_t AffinityCoreCount() {
#ifdef __linux__
  cpu_set_t mask;
  CPU_ZERO(&mask);
  if (sched_getaffinity(0, sizeof(mask), &mask) == 0) {
    const int count = CPU_COUNT(&mask);
    if (count > 0) return static_cast<uint32_t>(count);
  }
#endif
  return std::thread::hardware_concurrency();
}

// The cores this process can really use: its affinity mask, lowered to the
// cores its CPU-time quota allows when it has one.
inline uint32_t UsableCoreCount() {
  const uint32_t cores = AffinityCoreCount();
  const uint32_t quota = CpuQuotaCores();
  if (quota == 0) return cores;
  return cores == 0 || quota < cores ? quota : cores;
}

// `requested` lowered to `cores` when it asks for more. An unknown core count
// (0) and counts below 1 pass unchanged: the adapters give those their own
// meaning.
inline int32_t CapThreadCount(int32_t requested, uint32_t cores) {
  if (cores == 0 || requested <= 0) return requested;
  if (static_cast<uint32_t>(requested) <= cores) return requested;
  return static_cast<int32_t>(cores);
}

}  // namespace kerrow

#endif  // KERROW_COMMON_THREAD_COUNT_CAP_H_
