#ifndef KERROW_ENGINE_LIBRARY_CALL_H_
#define KERROW_ENGINE_LIBRARY_CALL_H_

#include <exception>
#include <string>

namespace kerrow {

// Fallible operations report through an optional message pointer.
inline void SetError(std::string* error, const std::string& message) {
  if (error != nullptr) *error = message;
}

// The library is C++ underneath and lets exceptions (mostly onnxruntime
// complaining about a model whose tensors do not fit) escape through its C
// functions. Runs `call` and turns such an exception into one message that
// names the library function, instead of letting it end the process.
template <typename Call>
bool CallLibrary(const char* function_name, Call&& call, std::string* error) {
  try {
    call();
    return true;
  } catch (const std::exception& e) {
    SetError(error, std::string(function_name) + " exception: " + e.what());
  } catch (...) {
    SetError(error, std::string(function_name) + " exception: unknown");
  }
  return false;
}

}  // namespace kerrow

#endif  // KERROW_ENGINE_LIBRARY_CALL_H_
