#ifndef KERROW_TESTS_SUPPORT_BAD_MODEL_FILES_H_
#define KERROW_TESTS_SUPPORT_BAD_MODEL_FILES_H_

// The kinds of broken file a user may hand kerrow as a diarization model, each
// of which would end the process if it reached the library unchecked.

#include <filesystem>
#include <string>

#include "support/kerrow_process.h"

namespace kerrow::testing {

enum class BadModelKind {
  kMissing,
  kEmpty,
  kDirectory,
  kText,
  kRandomBytes,
  kGitLfsPointer,
  kTruncated,
  kWrongFamily,
};

inline const char* BadModelKindName(BadModelKind kind) {
  switch (kind) {
    case BadModelKind::kMissing: return "Missing";
    case BadModelKind::kEmpty: return "Empty";
    case BadModelKind::kDirectory: return "Directory";
    case BadModelKind::kText: return "Text";
    case BadModelKind::kRandomBytes: return "RandomBytes";
    case BadModelKind::kGitLfsPointer: return "GitLfsPointer";
    case BadModelKind::kTruncated: return "Truncated";
    case BadModelKind::kWrongFamily: return "WrongFamily";
  }
  return "Unknown";
}

constexpr BadModelKind kAllBadModelKinds[] = {
    BadModelKind::kMissing,     BadModelKind::kEmpty,
    BadModelKind::kDirectory,   BadModelKind::kText,
    BadModelKind::kRandomBytes, BadModelKind::kGitLfsPointer,
    BadModelKind::kTruncated,   BadModelKind::kWrongFamily};

// Deterministic bytes that look like nothing in particular.
inline std::string PseudoRandomBytes(size_t count) {
  std::string bytes(count, '\0');
  uint32_t state = 2463534242u;
  for (char& byte : bytes) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    byte = static_cast<char>(state & 0xff);
  }
  return bytes;
}

// Puts a bad file of the given kind at path. real_model is the good model of
// the intended family (truncated for kTruncated); other_family_model is a
// valid ONNX model of another family.
inline void WriteBadModel(BadModelKind kind, const std::string& path,
                          const std::string& real_model,
                          const std::string& other_family_model) {
  switch (kind) {
    case BadModelKind::kMissing:
      return;
    case BadModelKind::kEmpty:
      WriteFileBytes(path, "");
      return;
    case BadModelKind::kDirectory:
      std::filesystem::create_directory(path);
      return;
    case BadModelKind::kText:
      WriteFileBytes(path, "this is a README, not a model\n");
      return;
    case BadModelKind::kRandomBytes:
      WriteFileBytes(path, PseudoRandomBytes(4096));
      return;
    case BadModelKind::kGitLfsPointer:
      WriteFileBytes(path, GitLfsPointerText());
      return;
    case BadModelKind::kTruncated: {
      const std::string bytes = ReadFileBytes(real_model);
      WriteFileBytes(path, bytes.substr(0, bytes.size() / 2));
      return;
    }
    case BadModelKind::kWrongFamily:
      std::filesystem::copy_file(other_family_model, path);
      return;
  }
}

}  // namespace kerrow::testing

#endif  // KERROW_TESTS_SUPPORT_BAD_MODEL_FILES_H_
