#include "audio/wav_writer.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "common/error_text.h"

namespace kerrow {

namespace {

constexpr uint16_t kFormatIeeeFloat = 3;
constexpr uint16_t kBytesPerSample = 4;

// Appends little-endian fields to a FILE and remembers whether any write came up short.
class HeaderWriter {
 public:
  explicit HeaderWriter(FILE* file) : file_(file) {}

  void Tag(const char* tag) { Raw(tag, 4); }
  void U16(uint16_t value) {
    const unsigned char raw[2] = {static_cast<unsigned char>(value),
                                  static_cast<unsigned char>(value >> 8)};
    Raw(raw, 2);
  }
  void U32(uint32_t value) {
    const unsigned char raw[4] = {
        static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
        static_cast<unsigned char>(value >> 16), static_cast<unsigned char>(value >> 24)};
    Raw(raw, 4);
  }
  bool ok() const { return ok_; }

 private:
  void Raw(const void* data, size_t size) {
    if (ok_ && std::fwrite(data, 1, size, file_) != size) ok_ = false;
  }

  FILE* file_;
  bool ok_ = true;
};

}  // namespace

bool WriteWavFloat32(const std::string& path, const std::vector<float>& samples, int sample_rate,
                     std::string* error) {
  FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) {
    SetError(error, std::string("fopen failed: ") + std::strerror(errno));
    return false;
  }
  // The RIFF format has 32-bit sizes; longer audio wraps, as every WAV writer's does.
  const uint32_t data_size = static_cast<uint32_t>(samples.size() * kBytesPerSample);
  const uint32_t rate = static_cast<uint32_t>(sample_rate);

  HeaderWriter header(file);
  header.Tag("RIFF");
  header.U32(data_size + 36);
  header.Tag("WAVE");
  header.Tag("fmt ");
  header.U32(16);
  header.U16(kFormatIeeeFloat);
  header.U16(1);  // mono
  header.U32(rate);
  header.U32(rate * kBytesPerSample);
  header.U16(kBytesPerSample);
  header.U16(32);
  header.Tag("data");
  header.U32(data_size);
  // An empty vector's data() may be null, which fwrite must never be given.
  const bool samples_ok =
      header.ok() && (samples.empty() ||
                      std::fwrite(samples.data(), kBytesPerSample, samples.size(), file) == samples.size());
  if (!samples_ok) {
    std::fclose(file);
    std::remove(path.c_str());
    SetError(error, "wav write failed");
    return false;
  }
  std::fclose(file);
  return true;
}

}  // namespace kerrow
