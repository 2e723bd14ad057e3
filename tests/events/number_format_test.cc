#include "events/number_format.h"

#include <cmath>
#include <limits>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace kerrow::testing {
namespace {

TEST(FormatFixed, TwoDecimalsPadWithZeros) { EXPECT_EQ(FormatFixed(1.5, 2), "1.50"); }

TEST(FormatFixed, TwoDecimalsRoundSmallValueToZero) { EXPECT_EQ(FormatFixed(0.004, 2), "0.00"); }

TEST(FormatFixed, TwoDecimalsRoundHalfUpWhenBinaryValueIsAbove) {
  EXPECT_EQ(FormatFixed(12.345, 2), "12.35");
}

TEST(FormatFixed, RoundsExactBinaryValueSo2675GivesTwoSixSeven) {
  EXPECT_EQ(FormatFixed(2.675, 2), "2.67");
}

TEST(FormatFixed, RoundsExactBinaryValueSo59995GivesFiftyNineNineNine) {
  EXPECT_EQ(FormatFixed(59.995, 2), "59.99");
}

TEST(FormatFixed, ThreeDecimalsForScores) { EXPECT_EQ(FormatFixed(0.8765, 3), "0.876"); }

TEST(FormatFixed, NegativeValueKeepsSign) { EXPECT_EQ(FormatFixed(-0.5, 2), "-0.50"); }

TEST(FormatFixed, ZeroDecimalsRoundsToWholeNumber) { EXPECT_EQ(FormatFixed(2.5, 0), "2"); }

TEST(FormatFixed, HugeValueIsWrittenInFull) {
  const std::string text = FormatFixed(1e300, 2);
  EXPECT_EQ(text.size(), 304u);
  EXPECT_EQ(text.substr(0, 2), "10");
  EXPECT_EQ(text.substr(text.size() - 3), ".00");
}

TEST(FormatSixDecimals, MatchesStdToString) {
  EXPECT_EQ(FormatSixDecimals(0.7), "0.700000");
  EXPECT_EQ(FormatSixDecimals(0.7), std::to_string(0.7));
  EXPECT_EQ(FormatSixDecimals(12.3456789), "12.345679");
  EXPECT_EQ(FormatSixDecimals(12.3456789), std::to_string(12.3456789));
}

TEST(FormatDefaultDouble, WritesSixSignificantDigitsWithoutTrailingZeros) {
  EXPECT_EQ(FormatDefaultDouble(0.5), "0.5");
  EXPECT_EQ(FormatDefaultDouble(8.0), "8");
  EXPECT_EQ(FormatDefaultDouble(0.1), "0.1");
  EXPECT_EQ(FormatDefaultDouble(3.14159265), "3.14159");
  EXPECT_EQ(FormatDefaultDouble(1234567.0), "1.23457e+06");
  EXPECT_EQ(FormatDefaultDouble(0.0001234), "0.0001234");
  EXPECT_EQ(FormatDefaultDouble(0.00001234), "1.234e-05");
}

TEST(FormatDefaultDouble, MatchesOstreamWithDefaultFlags) {
  for (const double value : {0.0, -0.25, 1.0 / 3.0, 123456.0, 1234567.0, 2.675, 1e-5, 1e21}) {
    std::ostringstream stream;
    stream << value;
    EXPECT_EQ(FormatDefaultDouble(value), stream.str()) << value;
  }
}

TEST(SecondsToMs, AddsHalfAndTruncates) {
  EXPECT_EQ(SecondsToMs(1.2345), 1235);
  EXPECT_EQ(SecondsToMs(0.004), 4);
  EXPECT_EQ(SecondsToMs(0.0004), 0);
}

TEST(SecondsToMs, FiftyNineNineNineFiveGivesWholeMilliseconds) {
  EXPECT_EQ(SecondsToMs(59.995), 59995);
}

TEST(SecondsToMs, NegativeTimeTruncatesTowardZero) {
  // -1999.5 truncates to -1999, where rounding down would give -2000.
  EXPECT_EQ(SecondsToMs(-2.0), -1999);
  EXPECT_EQ(SecondsToMs(-0.0004), 0);
}

TEST(SecondsToMs, MatchesOneFusedMultiplyAdd) {
  for (const double seconds : {0.0005, 1.0005, 2.675, 12.3455, 3599.9995}) {
    EXPECT_EQ(SecondsToMs(seconds), static_cast<int64_t>(std::fma(seconds, 1000.0, 0.5)))
        << seconds;
  }
}

TEST(SecondsToMs, NanGivesZeroAndHugeValuesSaturate) {
  EXPECT_EQ(SecondsToMs(std::numeric_limits<double>::quiet_NaN()), 0);
  EXPECT_EQ(SecondsToMs(1e300), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(SecondsToMs(-1e300), std::numeric_limits<int64_t>::min());
}

}  // namespace
}  // namespace kerrow::testing
