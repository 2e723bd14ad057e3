#ifndef KERROW_FUZZ_SCRATCH_DIR_H_
#define KERROW_FUZZ_SCRATCH_DIR_H_

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "fuzz_check.h"

namespace kerrow {

// One private folder per fuzzer process for the readers that take a path. It
// is created on first use and removed at exit; inputs reuse the same file
// names, so a long campaign does not fill the disk.
class ScratchDir {
 public:
  static ScratchDir& Get() {
    static ScratchDir dir;
    return dir;
  }

  std::string PathOf(const std::string& name) const { return (root_ / name).string(); }

  // Empties the folder, so that no file of an earlier input is seen.
  void Clear() const {
    for (const auto& entry : std::filesystem::directory_iterator(root_)) {
      std::filesystem::remove_all(entry.path());
    }
  }

  std::string Write(const std::string& name, const uint8_t* data, size_t size) const {
    const std::string path = PathOf(name);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    out.close();
    FUZZ_CHECK(out.good(), "could not write the scratch file");
    return path;
  }

  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }

 private:
  ScratchDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kerrow-fuzz-XXXXXX").string();
    FUZZ_CHECK(mkdtemp(pattern.data()) != nullptr, "could not create the scratch folder");
    root_ = pattern;
  }

  std::filesystem::path root_;
};

}  // namespace kerrow

#endif  // KERROW_FUZZ_SCRATCH_DIR_H_
