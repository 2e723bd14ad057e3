#ifndef KERROW_COMMON_ERROR_TEXT_H_
#define KERROW_COMMON_ERROR_TEXT_H_

// Fallible operations return false and leave one message in an optional
// `std::string* error`; callers that do not care pass null. These two helpers
// are the only places that write such a message.

#include <string>

namespace kerrow {

// Writes `message` into `error` unless the caller passed null.
inline void SetError(std::string* error, const std::string& message) {
  if (error != nullptr) *error = message;
}

// SetError, then false, so that a failure path is one `return Fail(...)`.
inline bool Fail(std::string* error, const std::string& message) {
  SetError(error, message);
  return false;
}

}  // namespace kerrow

#endif  // KERROW_COMMON_ERROR_TEXT_H_
