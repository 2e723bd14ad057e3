#include "live/host_command.h"

#include <gtest/gtest.h>

namespace kerrow::testing {
namespace {

TEST(ParseHostCommand, KnowsEachCommandByItsExactSpelling) {
  EXPECT_EQ(ParseHostCommand("start").kind, HostCommandKind::kStart);
  EXPECT_EQ(ParseHostCommand("stop").kind, HostCommandKind::kStop);
  EXPECT_EQ(ParseHostCommand("quit").kind, HostCommandKind::kQuit);
  EXPECT_EQ(ParseHostCommand("manual").kind, HostCommandKind::kManual);
  EXPECT_EQ(ParseHostCommand("auto").kind, HostCommandKind::kAuto);
}

TEST(ParseHostCommand, AnEmptyLineIsBlankNotUnknown) {
  EXPECT_EQ(ParseHostCommand("").kind, HostCommandKind::kBlank);
}

TEST(ParseHostCommand, OtherSpellingsAreUnknown) {
  EXPECT_EQ(ParseHostCommand("Start").kind, HostCommandKind::kUnknown);
  EXPECT_EQ(ParseHostCommand("start ").kind, HostCommandKind::kUnknown);
  EXPECT_EQ(ParseHostCommand("stop\r").kind, HostCommandKind::kUnknown);
  EXPECT_EQ(ParseHostCommand(" ").kind, HostCommandKind::kUnknown);
  EXPECT_EQ(ParseHostCommand("set single-partial-interval").kind, HostCommandKind::kUnknown);
}

TEST(ParseHostCommand, CarriesTheIntervalOfASetCommand) {
  const HostCommand command = ParseHostCommand("set single-partial-interval 0.75");
  EXPECT_EQ(command.kind, HostCommandKind::kSetSinglePartialInterval);
  EXPECT_DOUBLE_EQ(command.seconds, 0.75);
}

TEST(ParseHostCommand, ANumberTooLargeForADoubleIsUnknown) {
  EXPECT_EQ(ParseHostCommand("set single-partial-interval 1e999").kind, HostCommandKind::kUnknown);
}

}  // namespace
}  // namespace kerrow::testing
