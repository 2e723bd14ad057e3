#ifndef KERROW_AUDIO_SAMPLE_CONVERT_H_
#define KERROW_AUDIO_SAMPLE_CONVERT_H_

// The one place where raw PCM bytes become float samples and back. Every reader
// (WAV, raw file, live pipe) and every writer of test or host audio goes through
// these, so the scale factor and rounding can never drift apart.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kerrow {

// 1/32768: -32768 maps to exactly -1.0 and 32767 to 0.999969482421875.
constexpr float kS16ToFloatScale = 1.0f / 32768.0f;

// Decodes sample_count little-endian signed 16-bit samples from data into out
// (which must have room for them), scaled by 1/32768.
void S16leToFloat(const uint8_t* data, size_t sample_count, float* out);

// Copies sample_count little-endian 32-bit floats bit for bit: no clamping, NaN
// and out-of-range values pass through.
void F32leToFloat(const uint8_t* data, size_t sample_count, float* out);

// The inverse used by hosts and tests: each sample times 32768, rounded to the
// nearest integer and clamped to [-32768, 32767], as little-endian bytes. Reading
// the result back with S16leToFloat returns the same values for samples that
// came from 16-bit audio.
std::string FloatToS16le(const std::vector<float>& samples);

// The samples' bit patterns as little-endian 32-bit floats.
std::string FloatToF32le(const std::vector<float>& samples);

}  // namespace kerrow

#endif  // KERROW_AUDIO_SAMPLE_CONVERT_H_
