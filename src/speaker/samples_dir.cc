#include "speaker/samples_dir.h"

#include <filesystem>

namespace kerrow {

std::string SamplesDirectoryFor(const Options& options) {
  if (!options.speaker_samples_dir.empty()) return options.speaker_samples_dir;
  return (std::filesystem::path(options.speaker_enroll_db).parent_path() / "samples").string();
}

std::string SampleFilePathFor(const Options& options, const std::string& md5) {
  return (std::filesystem::path(SamplesDirectoryFor(options)) / (md5 + ".wav")).string();
}

}  // namespace kerrow
