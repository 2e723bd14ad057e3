#include "events/event_emitter.h"

#include <unistd.h>

#include <cstdio>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "events/json_escape.h"
#include "support/stdout_capture.h"

namespace kerrow::testing {
namespace {


TEST(EventEmitter, ErrorWithQuoteAndLineFeedIsEscapedOnOneLine) {
  EventEmitter emitter;
  StdoutCapture capture;
  emitter.EmitError("a\"b\n");
  EXPECT_EQ(capture.Release(), "{\"message\":\"a\\\"b\\n\",\"type\":\"error\"}\n");
}

TEST(EventEmitter, OtherControlBytesAreWrittenAsUnicodeEscapes) {
  EventEmitter emitter;
  StdoutCapture capture;
  emitter.EmitLog(std::string("x\x01y\x7Fz"));
  // DEL is legal raw inside a JSON string; only bytes below 0x20 are not.
  EXPECT_EQ(capture.Release(), std::string("{\"message\":\"x\\u0001y\x7Fz\",\"type\":\"log\"}\n"));
}

TEST(EventEmitter, InvalidUtf8InAMessageBecomesReplacementCharacter) {
  EventEmitter emitter;
  StdoutCapture capture;
  emitter.EmitError(std::string("bad \xFF name"));
  EXPECT_EQ(capture.Release(), "{\"message\":\"bad \xEF\xBF\xBD name\",\"type\":\"error\"}\n");
}

TEST(EventEmitter, ChineseTextIsWrittenAsRawUtf8) {
  EventEmitter emitter;
  StdoutCapture capture;
  emitter.EmitLog("你好，世界");
  EXPECT_EQ(capture.Release(), "{\"message\":\"你好，世界\",\"type\":\"log\"}\n");
}

TEST(EventEmitter, ReadyIsTypeOnly) {
  EventEmitter emitter;
  StdoutCapture capture;
  emitter.EmitReady();
  EXPECT_EQ(capture.Release(), "{\"type\":\"ready\"}\n");
}

TEST(EventEmitter, EmptyMessageKeepsMessageKey) {
  EventEmitter emitter;
  StdoutCapture capture;
  emitter.EmitLog("");
  EXPECT_EQ(capture.Release(), "{\"message\":\"\",\"type\":\"log\"}\n");
}

TEST(EventEmitter, CompleteCarriesMessageBeforeType) {
  EventEmitter emitter;
  StdoutCapture capture;
  emitter.EmitComplete("Session ended (partial M2)");
  EXPECT_EQ(capture.Release(),
            "{\"message\":\"Session ended (partial M2)\",\"type\":\"complete\"}\n");
}

TEST(EventEmitter, ObjectKeysComeOutInByteOrder) {
  EventEmitter emitter;
  StdoutCapture capture;
  emitter.EmitObject({{"type", "ok"}, {"Zeta", "1"}, {"alpha", "2"}, {"message", "m"}});
  EXPECT_EQ(capture.Release(),
            "{\"Zeta\":\"1\",\"alpha\":\"2\",\"message\":\"m\",\"type\":\"ok\"}\n");
}

TEST(EventEmitter, EmptyObjectIsBraces) {
  EventEmitter emitter;
  StdoutCapture capture;
  emitter.EmitObject({});
  EXPECT_EQ(capture.Release(), "{}\n");
}

TEST(EventEmitter, ObjectKeysAreEscapedToo) {
  EventEmitter emitter;
  StdoutCapture capture;
  emitter.EmitObject({{"a\tb", "c\\d\r"}});
  EXPECT_EQ(capture.Release(), "{\"a\\tb\":\"c\\\\d\\r\"}\n");
}

TEST(EventEmitter, RawJsonIsWrittenVerbatimWithOneNewline) {
  EventEmitter emitter;
  StdoutCapture capture;
  emitter.EmitRawJson("{\"type\":\"speakers\",\"speakers\":[]}");
  EXPECT_EQ(capture.Release(), "{\"type\":\"speakers\",\"speakers\":[]}\n");
}

TEST(EventEmitter, EscapeJsonIsJsonEscape) {
  const std::string text = std::string("\t\n\r\"\\\x01\x7F") + "é";
  EXPECT_EQ(EventEmitter::EscapeJson(text), JsonEscape(text));
  EXPECT_EQ(EventEmitter::EscapeJson(text), std::string("\\t\\n\\r\\\"\\\\\\u0001\x7F") + "é");
}

TEST(EventEmitter, TwoThreadsOfTenThousandLinesNeverTear) {
  constexpr int kLinesPerThread = 10000;
  EventEmitter emitter;
  StdoutCapture capture;
  auto emit_many = [&emitter](const std::string& writer) {
    for (int i = 0; i < kLinesPerThread; ++i) {
      emitter.EmitLog(writer + " line " + std::to_string(i) + " with \"quotes\" and text");
    }
  };
  std::thread first(emit_many, "A");
  std::thread second(emit_many, "B");
  first.join();
  second.join();
  const std::string output = capture.Release();

  const std::regex line_pattern(
      R"(\{"message":"([AB]) line (\d+) with \\"quotes\\" and text","type":"log"\})");
  std::istringstream lines(output);
  std::string line;
  std::map<std::string, int> next_index = {{"A", 0}, {"B", 0}};
  int total = 0;
  int malformed = 0;
  while (std::getline(lines, line)) {
    ++total;
    std::smatch match;
    if (!std::regex_match(line, match, line_pattern)) {
      ++malformed;
      continue;
    }
    // Each writer's own lines keep their order.
    EXPECT_EQ(std::stoi(match[2].str()), next_index[match[1].str()]++);
  }
  EXPECT_EQ(total, 2 * kLinesPerThread);
  EXPECT_EQ(malformed, 0);
  EXPECT_EQ(next_index["A"], kLinesPerThread);
  EXPECT_EQ(next_index["B"], kLinesPerThread);
  EXPECT_EQ(output.back(), '\n');
}

}  // namespace
}  // namespace kerrow::testing
