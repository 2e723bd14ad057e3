#ifndef KERROW_FUZZ_FUZZ_CHECK_H_
#define KERROW_FUZZ_FUZZ_CHECK_H_

#include <cstdio>
#include <cstdlib>

// A broken promise of the code under test is a finding like a crash: say which
// one and abort, so that libFuzzer saves the input that showed it.
#define FUZZ_CHECK(condition, what)                                            \
  do {                                                                         \
    if (!(condition)) {                                                        \
      std::fprintf(stderr, "%s:%d: check failed: %s (%s)\n", __FILE__, __LINE__, \
                   #condition, what);                                          \
      std::abort();                                                            \
    }                                                                          \
  } while (false)

#endif  // KERROW_FUZZ_FUZZ_CHECK_H_
