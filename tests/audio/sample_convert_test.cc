#include "audio/sample_convert.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "audio/wav_bytes.h"

namespace kerrow::testing {
namespace {

std::vector<float> DecodeS16(const std::string& bytes) {
  std::vector<float> out(bytes.size() / 2);
  S16leToFloat(reinterpret_cast<const uint8_t*>(bytes.data()), out.size(), out.data());
  return out;
}

TEST(SampleConvert, S16ExtremesMapToMinusOneAndJustBelowOne) {
  EXPECT_EQ(DecodeS16(testing::S16Samples({0x8000, 0x7FFF, 0x0001, 0xFFFF})),
            (std::vector<float>{-1.0f, 0.999969482421875f, 3.0517578125e-05f, -3.0517578125e-05f}));
}

TEST(SampleConvert, FloatToS16leRoundsAndClamps) {
  EXPECT_EQ(FloatToS16le({-1.0f, 0.999969482421875f, 0.5f, 2.0f, -2.0f,
                          std::numeric_limits<float>::quiet_NaN()}),
            testing::S16Samples({0x8000, 0x7FFF, 0x4000, 0x7FFF, 0x8000, 0x8000}));
}

TEST(SampleConvert, SixteenBitValuesRoundTripExactly) {
  std::string all;
  for (uint32_t value = 0; value <= 0xFFFF; ++value) all += testing::Le16(static_cast<uint16_t>(value));
  EXPECT_EQ(FloatToS16le(DecodeS16(all)), all);
}

TEST(SampleConvert, F32RoundTripKeepsBitPatterns) {
  const std::vector<float> samples = {0.0f, -0.0f, 1.5f, std::numeric_limits<float>::infinity()};
  const std::string bytes = FloatToF32le(samples);
  ASSERT_EQ(bytes, testing::Le32(0x00000000u) + testing::Le32(0x80000000u) +
                       testing::Le32(0x3FC00000u) + testing::Le32(0x7F800000u));
  std::vector<float> back(samples.size());
  F32leToFloat(reinterpret_cast<const uint8_t*>(bytes.data()), back.size(), back.data());
  EXPECT_EQ(FloatToF32le(back), bytes);
}

}  // namespace
}  // namespace kerrow::testing
