#ifndef KERROW_ENGINE_LIBRARY_CALL_H_
#define KERROW_ENGINE_LIBRARY_CALL_H_

#include <cstddef>
#include <cstdint>
#include <exception>
#include <limits>
#include <string>

#include "common/error_text.h"
#include "engine/library_busy_clock.h"

namespace kerrow {

// The library is C++ underneath and lets exceptions (mostly onnxruntime
// complaining about a model whose tensors do not fit) escape through its C
// functions. Runs `call` and turns such an exception into one message that
// names the library function, instead of letting it end the process.
template <typename Call>
bool CallLibrary(const char* function_name, Call&& call, std::string* error) {
  const LibraryBusyClock::Scope busy;
  try {
    call();
    return true;
  } catch (const std::exception& e) {
    SetError(error, std::string(function_name) + " exception: " + e.what());
  } catch (...) {
    SetError(error, std::string(function_name) + " unknown exception");
  }
  return false;
}

// The library counts the samples of one call in an int32_t; a longer block
// would wrap. False, with `too_long` in `error`, for such a block.
inline bool FitsLibrarySampleCount(size_t count, const char* too_long, std::string* error) {
  if (count <= static_cast<size_t>(std::numeric_limits<int32_t>::max())) return true;
  return Fail(error, too_long);
}

}  // namespace kerrow

#endif  // KERROW_ENGINE_LIBRARY_CALL_H_
