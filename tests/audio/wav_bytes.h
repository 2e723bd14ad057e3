#ifndef KERROW_TESTS_AUDIO_WAV_BYTES_H_
#define KERROW_TESTS_AUDIO_WAV_BYTES_H_

// Builders for WAV byte layouts, so each test spells out exactly the chunks it
// feeds the reader.

#include <cstdint>
#include <initializer_list>
#include <string>

namespace kerrow::testing {

inline std::string Le16(uint16_t value) {
  return std::string{static_cast<char>(value & 0xFF), static_cast<char>(value >> 8)};
}

inline std::string Le32(uint32_t value) {
  return Le16(static_cast<uint16_t>(value & 0xFFFF)) + Le16(static_cast<uint16_t>(value >> 16));
}

// A chunk header and body, plus the pad byte RIFF requires after an odd body.
inline std::string Chunk(const std::string& id, const std::string& body) {
  std::string chunk = id + Le32(static_cast<uint32_t>(body.size())) + body;
  if (body.size() % 2 == 1) chunk.push_back('\0');
  return chunk;
}

// The 16 standard fmt fields; byte rate and block align follow from the others.
inline std::string FmtBody(uint16_t format_tag, uint16_t channels, uint32_t sample_rate,
                           uint16_t bits_per_sample) {
  const uint16_t block_align = static_cast<uint16_t>(channels * bits_per_sample / 8);
  return Le16(format_tag) + Le16(channels) + Le32(sample_rate) + Le32(sample_rate * block_align) +
         Le16(block_align) + Le16(bits_per_sample);
}

inline std::string Riff(std::initializer_list<std::string> chunks) {
  std::string body = "WAVE";
  for (const std::string& chunk : chunks) body += chunk;
  return "RIFF" + Le32(static_cast<uint32_t>(body.size())) + body;
}

inline std::string S16Samples(std::initializer_list<uint16_t> values) {
  std::string bytes;
  for (uint16_t value : values) bytes += Le16(value);
  return bytes;
}

}  // namespace kerrow::testing

#endif  // KERROW_TESTS_AUDIO_WAV_BYTES_H_
