#include "audio/pcm_file_reader.h"

#include <fstream>
#include <new>
#include <stdexcept>

#include "audio/block_sample_reader.h"
#include "common/error_text.h"

namespace kerrow {

namespace {

bool EncodingNamed(const std::string& format, SampleEncoding* encoding) {
  if (format == "s16le") {
    *encoding = SampleEncoding::kS16le;
    return true;
  }
  if (format == "f32le") {
    *encoding = SampleEncoding::kF32le;
    return true;
  }
  return false;
}

bool ReadPcm(std::istream& in, const std::string& name, const std::string& format, uint64_t size_hint,
             std::vector<float>* samples, std::string* error) {
  SampleEncoding encoding = SampleEncoding::kS16le;
  const bool known_format = EncodingNamed(format, &encoding);
  bool failed = false;
  uint64_t bytes = 0;
  std::string tail;
  if (known_format) {
    samples->reserve(static_cast<size_t>(size_hint / BytesPerSample(encoding)));
    SampleAppender appender(encoding, samples);
    bytes = ReadSampleBlocks(in, kToEndOfStream, &appender, &failed);
    tail = appender.tail();
  } else {
    // The file is still read to its end: an empty or unreadable file is reported
    // as such whatever format was asked for.
    bytes = DiscardBytes(in, kToEndOfStream, &failed);
  }
  if (failed) return Fail(error, "Failed to read PCM file: " + name);
  if (bytes == 0) return Fail(error, "PCM file is empty: " + name);
  if (!known_format) return Fail(error, "Unsupported PCM format: " + format);
  if (!tail.empty()) {
    return Fail(error, encoding == SampleEncoding::kS16le
                           ? "PCM s16le byte length must be aligned to 2 bytes"
                           : "PCM f32le byte length must be aligned to 4 bytes");
  }
  return true;
}

}  // namespace

bool ReadPcmMonoFromStream(std::istream& in, const std::string& name, const std::string& format,
                           uint64_t size_hint, std::vector<float>* samples, std::string* error) {
  if (samples == nullptr || error == nullptr) return false;
  samples->clear();
  try {
    return ReadPcm(in, name, format, size_hint, samples, error);
  } catch (const std::bad_alloc&) {
  } catch (const std::length_error&) {
  }
  std::vector<float>().swap(*samples);
  return Fail(error, "Out of memory reading PCM file: " + name);
}

bool ReadPcmMono(const std::string& path, const std::string& format, std::vector<float>* samples,
                 std::string* error) {
  if (samples == nullptr || error == nullptr) return false;
  samples->clear();
  std::ifstream in(path, std::ios::binary);
  if (!in) return Fail(error, "PCM file not found: " + path);
  return ReadPcmMonoFromStream(in, path, format, RegularFileSizeOrZero(path), samples, error);
}

}  // namespace kerrow
