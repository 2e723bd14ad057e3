#include "audio/sample_convert.h"

#include <cmath>
#include <cstring>

namespace kerrow {

static_assert(sizeof(float) == 4, "32-bit float samples are copied as raw bytes");
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "f32le samples are copied without byte swapping; a big-endian target needs a swap here"
#endif

void S16leToFloat(const uint8_t* data, size_t sample_count, float* out) {
  for (size_t i = 0; i < sample_count; ++i) {
    const uint16_t bits = static_cast<uint16_t>(data[2 * i] | (data[2 * i + 1] << 8));
    out[i] = static_cast<float>(static_cast<int16_t>(bits)) * kS16ToFloatScale;
  }
}

void F32leToFloat(const uint8_t* data, size_t sample_count, float* out) {
  if (sample_count > 0) std::memcpy(out, data, sample_count * sizeof(float));
}

std::string FloatToS16le(const std::vector<float>& samples) {
  std::string bytes(samples.size() * 2, '\0');
  for (size_t i = 0; i < samples.size(); ++i) {
    float scaled = std::nearbyint(samples[i] * 32768.0f);
    if (!(scaled >= -32768.0f)) scaled = -32768.0f;  // also maps NaN somewhere defined
    if (scaled > 32767.0f) scaled = 32767.0f;
    const uint16_t bits = static_cast<uint16_t>(static_cast<int16_t>(scaled));
    bytes[2 * i] = static_cast<char>(bits & 0xFF);
    bytes[2 * i + 1] = static_cast<char>(bits >> 8);
  }
  return bytes;
}

std::string FloatToF32le(const std::vector<float>& samples) {
  std::string bytes(samples.size() * sizeof(float), '\0');
  if (!samples.empty()) std::memcpy(&bytes[0], samples.data(), bytes.size());
  return bytes;
}

}  // namespace kerrow
