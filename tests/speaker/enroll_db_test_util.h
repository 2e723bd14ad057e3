#ifndef KERROW_TESTS_SPEAKER_ENROLL_DB_TEST_UTIL_H_
#define KERROW_TESTS_SPEAKER_ENROLL_DB_TEST_UTIL_H_

// Small helpers shared by the enrollment database tests.

#include <sys/stat.h>
#include <unistd.h>

#include <dirent.h>

#include <string>
#include <vector>

#include "speaker/atomic_file_writer.h"
#include "support/forked_call.h"

namespace kerrow::testing {

constexpr char kIdA[] = "11111111-1111-4111-8111-111111111111";
constexpr char kIdB[] = "22222222-2222-4222-9222-222222222222";
constexpr char kIdC[] = "33333333-3333-4333-a333-333333333333";
constexpr char kMd5A[] = "0123456789abcdef0123456789abcdef";
constexpr char kMd5B[] = "fedcba9876543210fedcba9876543210";
constexpr char kMd5C[] = "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa";

// The text of a database given line by line, each line ended by "\n".
inline std::string Lines(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

inline ino_t InodeOf(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return 0;
  return status.st_ino;
}

inline mode_t PermissionsOf(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return 0;
  return status.st_mode & 07777;
}

inline bool FileExists(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

// Names of every entry in `directory` whose name starts with `prefix`.
inline std::vector<std::string> FilesStartingWith(const std::string& directory,
                                                  const std::string& prefix) {
  std::vector<std::string> names;
  DIR* dir = opendir(directory.c_str());
  if (dir == nullptr) return names;
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name.compare(0, prefix.size(), prefix) == 0) names.push_back(name);
  }
  closedir(dir);
  return names;
}

// Temporary files of writes to `directory`/`db_name` still lying in the
// directory (the database's lock file is not one of them).
inline std::vector<std::string> LeftoverTempFiles(const std::string& directory,
                                                  const std::string& db_name) {
  const std::string prefix = AtomicWriteTempPrefix(directory + "/" + db_name);
  return FilesStartingWith(directory, prefix.substr(prefix.rfind('/') + 1));
}

}  // namespace kerrow::testing

#endif  // KERROW_TESTS_SPEAKER_ENROLL_DB_TEST_UTIL_H_
