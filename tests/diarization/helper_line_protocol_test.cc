#include "diarization/helper_line_protocol.h"

#include <gtest/gtest.h>

#include <string>

namespace kerrow::testing {
namespace {

TEST(FormatHelperRequest, WritesOneCompactJsonObject) {
  EXPECT_EQ(FormatHelperRequest("/tmp/fluiddiar-abc123.wav"),
            "{\"input\":\"/tmp/fluiddiar-abc123.wav\"}");
}

TEST(FormatHelperRequest, PutsABackslashBeforeADoubleQuoteInThePath) {
  EXPECT_EQ(FormatHelperRequest("/tmp/say \"hi\".wav"),
            "{\"input\":\"/tmp/say \\\"hi\\\".wav\"}");
}

TEST(FormatHelperRequest, PutsABackslashBeforeABackslashInThePath) {
  EXPECT_EQ(FormatHelperRequest("C:\\audio\\a.wav"), "{\"input\":\"C:\\\\audio\\\\a.wav\"}");
}

TEST(FormatHelperRequest, LeavesTabsAndNonAsciiBytesAsTheyAre) {
  EXPECT_EQ(FormatHelperRequest("/tmp/caf\xC3\xA9\tx.wav"),
            "{\"input\":\"/tmp/caf\xC3\xA9\tx.wav\"}");
}

TEST(ParseHelperRequest, ReadsBackWhatTheEngineSends) {
  const std::string path = "/tmp/odd \"name\" with \\ backslash.wav";
  std::string parsed;
  ASSERT_TRUE(ParseHelperRequest(FormatHelperRequest(path), &parsed, nullptr));
  EXPECT_EQ(parsed, path);
}

TEST(ParseHelperRequest, AcceptsBlanksOtherMembersAndJsonEscapes) {
  std::string parsed;
  std::string error;
  ASSERT_TRUE(ParseHelperRequest(
      " { \"id\" : 7 , \"input\" : \"\\/tmp\\/caf\\u00e9\\ud83d\\ude00.wav\", \"x\": null } ",
      &parsed, &error))
      << error;
  EXPECT_EQ(parsed, "/tmp/caf\xC3\xA9\xF0\x9F\x98\x80.wav");
}

TEST(ParseHelperRequest, RefusesTextThatIsNotAnObject) {
  std::string parsed;
  std::string error;
  EXPECT_FALSE(ParseHelperRequest("/tmp/a.wav", &parsed, &error));
  EXPECT_EQ(error, "request is not a JSON object");
}

TEST(ParseHelperRequest, RefusesAnUnterminatedObject) {
  std::string parsed;
  std::string error;
  EXPECT_FALSE(ParseHelperRequest("{\"input\":\"/tmp/a.wav\"", &parsed, &error));
  EXPECT_EQ(error, "request is not a JSON object");
}

TEST(ParseHelperRequest, RefusesTrailingText) {
  std::string parsed;
  std::string error;
  EXPECT_FALSE(ParseHelperRequest("{\"input\":\"/tmp/a.wav\"} x", &parsed, &error));
  EXPECT_EQ(error, "request is not a JSON object");
}

TEST(ParseHelperRequest, RefusesAnObjectWithoutInput) {
  std::string parsed;
  std::string error;
  EXPECT_FALSE(ParseHelperRequest("{\"path\":\"/tmp/a.wav\"}", &parsed, &error));
  EXPECT_EQ(error, "request has no \"input\" member");
}

TEST(ParseHelperRequest, RefusesAnInputThatIsNotAString) {
  std::string parsed;
  std::string error;
  EXPECT_FALSE(ParseHelperRequest("{\"input\":42}", &parsed, &error));
  EXPECT_EQ(error, "request member \"input\" is not a string");
}

TEST(ParseHelperRequest, RefusesABadEscape) {
  std::string parsed;
  std::string error;
  EXPECT_FALSE(ParseHelperRequest("{\"input\":\"/tmp/\\q.wav\"}", &parsed, &error));
  EXPECT_EQ(error, "request member \"input\" has an unsupported value");
}

TEST(FormatHelperTurn, WritesStartEndAndLabelSeparatedByTabs) {
  EXPECT_EQ(FormatHelperTurn({0.52, 4.7404, "SPEAKER_00"}), "0.520\t4.740\tSPEAKER_00");
}

TEST(ParseHelperTurn, SplitsAtTheFirstTwoTabsAndKeepsFurtherTabsInTheLabel) {
  DiarizationSegment turn;
  ASSERT_TRUE(ParseHelperTurn("1.5\t2.25\tAlice\tand Bob", &turn));
  EXPECT_DOUBLE_EQ(turn.start, 1.5);
  EXPECT_DOUBLE_EQ(turn.end, 2.25);
  EXPECT_EQ(turn.speaker, "Alice\tand Bob");
}

TEST(ParseHelperTurn, ALeadingNumberIsEnough) {
  DiarizationSegment turn;
  ASSERT_TRUE(ParseHelperTurn("3s\t4.5 seconds\tB", &turn));
  EXPECT_DOUBLE_EQ(turn.start, 3.0);
  EXPECT_DOUBLE_EQ(turn.end, 4.5);
  EXPECT_EQ(turn.speaker, "B");
}

TEST(ParseHelperTurn, RefusesLinesThatAreNotTurns) {
  DiarizationSegment turn;
  EXPECT_FALSE(ParseHelperTurn("", &turn));
  EXPECT_FALSE(ParseHelperTurn("progress 50%", &turn));
  EXPECT_FALSE(ParseHelperTurn("1.0\t2.0", &turn));
  EXPECT_FALSE(ParseHelperTurn("start\t2.0\tA", &turn));
  EXPECT_FALSE(ParseHelperTurn("1.0\tend\tA", &turn));
  EXPECT_FALSE(ParseHelperTurn("1.0\t0.9\tA", &turn));
  EXPECT_FALSE(ParseHelperTurn("2\t2\tA", &turn));
}

TEST(HelperLabelMap, NamesLabelsInOrderOfFirstAppearance) {
  HelperLabelMap labels;
  EXPECT_EQ(labels.Map("B"), "SPEAKER_00");
  EXPECT_EQ(labels.Map("A"), "SPEAKER_01");
  EXPECT_EQ(labels.Map("B"), "SPEAKER_00");
  EXPECT_EQ(labels.Map("C"), "SPEAKER_02");
}

}  // namespace
}  // namespace kerrow::testing
