// Every line on standard output stays valid JSON and valid UTF-8 when a path
// or a label the host passes in holds control bytes or bytes that are not
// UTF-8: control bytes come out as \u00xx, broken UTF-8 as U+FFFD.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/protocol_fixtures.h"
#include "support/strict_json.h"

namespace kerrow::testing {
namespace {

// How the engine writes the bytes "\x01" and "\xff" inside a JSON string.
const std::string kEscapedControlAndInvalid = "\\u0001\xEF\xBF\xBD";

// Reads each line the way a strict host parser does: one JSON object in
// well-formed UTF-8, with no raw control character inside a string.
::testing::AssertionResult AllLinesAreStrictJson(const std::vector<std::string>& lines) {
  for (size_t number = 0; number < lines.size(); ++number) {
    const std::string& line = lines[number];
    if (line.empty() || line[0] != '{' || !StrictJson(line).ParseDocument()) {
      return ::testing::AssertionFailure() << "line " << number << " is not a strict JSON object: " << line;
    }
  }
  return ::testing::AssertionSuccess() << lines.size() << " strict JSON lines";
}

std::vector<std::string> WhisperArgs() {
  return {"--second-type", "whisper", "--second-encoder", WhisperStubEncoder(),
          "--second-decoder", WhisperStubDecoder(), "--second-tokens", WhisperStubTokens()};
}

TEST(StrictJsonOutput, WavPathWithControlAndInvalidBytesGivesAValidErrorLine) {
  TempDir dir;
  const std::string path = dir.File("take\x01\xff.wav");
  const ProcessResult r = RunKerrow(Concat({"--manual-mode", "--wav-input", path}, WhisperArgs()));
  EXPECT_EQ(r.exit_status, 1) << JoinLines(r.stdout_lines);
  EXPECT_EQ(r.stderr_text, "");
  ASSERT_GE(r.stdout_lines.size(), 2u) << JoinLines(r.stdout_lines);
  EXPECT_EQ(r.stdout_lines[r.stdout_lines.size() - 2],
            ErrorLine("WAV file not found: " + dir.File("take" + kEscapedControlAndInvalid + ".wav")));
  EXPECT_TRUE(AllLinesAreStrictJson(r.stdout_lines));
}

TEST(StrictJsonOutput, IdentifyLabelWithControlAndInvalidBytesGivesValidLines) {
  TempDir dir;
  WriteFileBytes(dir.File("turns.tsv"), "0.5\t2.5\tSP\x01K\xff\n");
  const ProcessResult r = RunKerrow(
      {"--identify-only", "--wav-input", AudioPath("espeak-dialog/a_test.wav"), "--segments-input",
       dir.File("turns.tsv"), "--speaker-embedding-model",
       ModelPath("trained/speaker-embedding/model.onnx"), "--speaker-enroll-db",
       dir.File("empty.db")});
  EXPECT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  EXPECT_EQ(r.stderr_text, "");
  const std::string label = "SP\\u0001K\xEF\xBF\xBD";
  // Nobody is enrolled, so the label stands for itself.
  EXPECT_EQ(IndexOfLine(r.stdout_lines,
                        "{\"type\":\"identify-result\",\"speakers\":{},\"segments\":[{\"start_time\":"
                        "0.500,\"end_time\":2.500,\"label\":\"" + label + "\",\"speaker\":\"" + label +
                            "\",\"score\":0.000}]}"),
            static_cast<int>(r.stdout_lines.size()) - 2)
      << JoinLines(r.stdout_lines);
  EXPECT_TRUE(AllLinesAreStrictJson(r.stdout_lines));
}

TEST(StrictJsonOutput, SpeakerNameWithControlAndInvalidBytesGivesAValidReply) {
  TempDir dir;
  const ProcessResult r = RunKerrow(
      {"--register-name", "Ann\x01\xff", "--register-input", AudioPath("espeak-dialog/a_enroll.wav"),
       "--speaker-embedding-model", ModelPath("trained/speaker-embedding/model.onnx"),
       "--speaker-enroll-db", dir.File("speakers.db")});
  EXPECT_EQ(r.exit_status, 0) << JoinLines(r.stdout_lines);
  ASSERT_FALSE(r.stdout_lines.empty());
  EXPECT_NE(r.stdout_lines.back().find("\"name\":\"Ann" + kEscapedControlAndInvalid + "\""),
            std::string::npos)
      << r.stdout_lines.back();
  EXPECT_TRUE(AllLinesAreStrictJson(r.stdout_lines));

  const ProcessResult listed =
      RunKerrow({"--list-speakers", "--speaker-enroll-db", dir.File("speakers.db")});
  EXPECT_EQ(listed.exit_status, 0) << JoinLines(listed.stdout_lines);
  EXPECT_TRUE(AllLinesAreStrictJson(listed.stdout_lines));
}

TEST(StrictJsonOutput, TheCheckerRejectsRawControlBytesAndBrokenUtf8) {
  // The judge itself must catch what the engine no longer writes.
  EXPECT_FALSE(AllLinesAreStrictJson({"{\"message\":\"a\x01z\",\"type\":\"log\"}"}));
  EXPECT_FALSE(AllLinesAreStrictJson({"{\"message\":\"a\xffz\",\"type\":\"log\"}"}));
  EXPECT_TRUE(AllLinesAreStrictJson({"{\"message\":\"caf\xC3\xA9\\u0001\",\"type\":\"log\"}"}));
}

}  // namespace
}  // namespace kerrow::testing
