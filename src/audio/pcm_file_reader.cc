#include "audio/pcm_file_reader.h"

#include <cstdint>
#include <fstream>

#include "audio/sample_convert.h"

namespace kerrow {

namespace {

bool Fail(const std::string& message, std::string* error) {
  *error = message;
  return false;
}

}  // namespace

bool ReadPcmMono(const std::string& path, const std::string& format, std::vector<float>* samples,
                 std::string* error) {
  if (samples == nullptr || error == nullptr) return false;
  samples->clear();

  std::ifstream in(path, std::ios::binary);
  if (!in) return Fail("PCM file not found: " + path, error);
  in.seekg(0, std::ios::end);
  const std::streamoff size = in.tellg();
  if (size <= 0) return Fail("PCM file is empty: " + path, error);
  in.seekg(0, std::ios::beg);
  std::vector<char> bytes(static_cast<size_t>(size), '\0');
  in.read(bytes.data(), size);
  if (in.gcount() != size) return Fail("Failed to read PCM file: " + path, error);

  // The format is judged only after the file was read, so an empty or unreadable
  // file is reported as such whatever format was asked for.
  const uint8_t* raw = reinterpret_cast<const uint8_t*>(bytes.data());
  if (format == "s16le") {
    if (bytes.size() % 2 != 0) return Fail("PCM s16le byte length must be aligned to 2 bytes", error);
    samples->resize(bytes.size() / 2);
    S16leToFloat(raw, samples->size(), samples->data());
  } else if (format == "f32le") {
    if (bytes.size() % 4 != 0) return Fail("PCM f32le byte length must be aligned to 4 bytes", error);
    samples->resize(bytes.size() / 4);
    F32leToFloat(raw, samples->size(), samples->data());
  } else {
    return Fail("Unsupported PCM format: " + format, error);
  }
  return true;
}

}  // namespace kerrow
