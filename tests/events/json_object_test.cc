#include "events/json_object.h"

#include <gtest/gtest.h>

namespace kerrow::testing {
namespace {

TEST(JsonObject, EmptyObjectIsTwoBraces) { EXPECT_EQ(JsonObject().Text(), "{}"); }

TEST(JsonObject, FieldsKeepTheOrderTheyWereAddedIn) {
  const std::string json = JsonObject()
                               .AddString("type", "ok")
                               .AddInt("dim", 192)
                               .AddBool("is_final", true)
                               .AddRaw("score", "0.500")
                               .Text();
  EXPECT_EQ(json, R"({"type":"ok","dim":192,"is_final":true,"score":0.500})");
}

TEST(JsonObject, EscapesKeysAndStringValues) {
  EXPECT_EQ(JsonObject().AddString("a\"b", "line\nbreak").Text(), R"({"a\"b":"line\nbreak"})");
}

TEST(JsonObject, ArraysJoinWithCommasOnly) {
  EXPECT_EQ(JsonArray({}), "[]");
  EXPECT_EQ(JsonArray({"{}", "1"}), "[{},1]");
  EXPECT_EQ(JsonStringArray({"a", "\\"}), R"(["a","\\"])");
}

}  // namespace
}  // namespace kerrow::testing
