// Re-runs every example of docs/protocol.md the way the host would and
// compares what the binary prints with the lines the document shows, so the
// reference cannot drift from the program. Each example is a "run" block
// (arguments, then steps) followed by a json block of lines.
// Timings and generated speaker ids differ from run to run and are masked;
// [SESSION-DIAG] lines interleave between threads and are left out.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <set>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "common/thread_count_cap.h"
#include "support/kerrow_process.h"

namespace kerrow::testing {
namespace {

constexpr std::chrono::seconds kTimeout(120);

struct DocExample {
  std::string title;
  std::vector<std::string> args;
  std::vector<std::string> steps;  // "send: …", "wait: …", "audio: …", "silence: …", "close-audio"
  int exit_status = 0;
  std::vector<std::string> lines;
};

std::string ReplaceAll(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

std::vector<std::string> SplitWords(const std::string& text) {
  std::vector<std::string> words;
  std::istringstream in(text);
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

// Reads the run block's body up to its closing fence, then the json block after it.
DocExample ReadExample(std::istream& doc, const std::string& title) {
  DocExample example;
  example.title = title;
  std::string line;
  while (std::getline(doc, line) && line != "```") {
    if (line.rfind("args: ", 0) == 0) {
      example.args = SplitWords(line.substr(6));
    } else if (line.rfind("exit: ", 0) == 0) {
      example.exit_status = std::stoi(line.substr(6));
    } else {
      example.steps.push_back(line);
    }
  }
  while (std::getline(doc, line) && line != "```json") {
  }
  // The document cannot know the cores of the machine that runs it.
  const std::string cores = std::to_string(UsableCoreCount());
  while (std::getline(doc, line) && line != "```") example.lines.push_back(ReplaceAll(line, "$CORES", cores));
  return example;
}

std::vector<DocExample> ReadDocExamples() {
  std::ifstream doc(std::string(KERROW_SOURCE_DIR) + "/docs/protocol.md");
  std::vector<DocExample> examples;
  std::string line;
  std::string title;
  while (std::getline(doc, line)) {
    if (line.rfind("### ", 0) == 0) title = line.substr(4);
    if (line == "```run") examples.push_back(ReadExample(doc, title));
  }
  return examples;
}

std::string MaskVariableParts(const std::string& line) {
  static const std::regex timing("(\\bms|_ms_sum)=[0-9]+");
  static const std::regex uuid("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}");
  return std::regex_replace(std::regex_replace(line, timing, "$1=N"), uuid, "UUID");
}

std::vector<std::string> Comparable(const std::vector<std::string>& lines) {
  std::vector<std::string> kept;
  for (const std::string& line : lines) {
    if (line.find("[SESSION-DIAG]") == std::string::npos) kept.push_back(MaskVariableParts(line));
  }
  return kept;
}

bool RunStep(KerrowProcess* kerrow, const std::string& step) {
  if (step.rfind("send: ", 0) == 0) return kerrow->WriteCommand(step.substr(6));
  if (step.rfind("wait: ", 0) == 0) return kerrow->WaitForLineContaining(step.substr(6), kTimeout) >= 0;
  if (step.rfind("audio: ", 0) == 0) {
    return kerrow->PlayAudioS16(LoadWavForTest(std::string(KERROW_SOURCE_DIR) + "/" + step.substr(7)), 0);
  }
  if (step.rfind("silence: ", 0) == 0) {
    const size_t samples = static_cast<size_t>(std::stod(step.substr(9)) * 16000);
    return kerrow->PlayAudioS16(std::vector<float>(samples, 0.0f), 0);
  }
  if (step == "close-audio") {
    kerrow->CloseAudio();
    return true;
  }
  ADD_FAILURE() << "unknown example step: " << step;
  return false;
}

class ProtocolDocExamples : public ::testing::Test {
 protected:
  TempDir scratch_;

  std::vector<std::string> Run(const DocExample& example, int* exit_status) {
    KerrowProcess::Config config;
    for (const std::string& arg : example.args) {
      config.args.push_back(ReplaceAll(ReplaceAll(arg, "$VAD", KERROW_VAD_MODEL), "$TMP", scratch_.path()));
    }
    config.working_dir = KERROW_SOURCE_DIR;
    KerrowProcess kerrow(config);
    std::string error;
    EXPECT_TRUE(kerrow.Start(&error)) << error;
    for (const std::string& step : example.steps) {
      EXPECT_TRUE(RunStep(&kerrow, step)) << example.title << ": step " << step;
    }
    kerrow.CloseStdin();
    *exit_status = kerrow.Wait(kTimeout);
    std::vector<std::string> lines;
    for (const std::string& line : kerrow.Lines()) lines.push_back(ReplaceAll(line, scratch_.path(), "$TMP"));
    return lines;
  }
};

std::string Joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

TEST_F(ProtocolDocExamples, EveryExamplePrintsWhatTheDocumentShows) {
  const std::vector<DocExample> examples = ReadDocExamples();
  ASSERT_GE(examples.size(), 5u) << "the examples of docs/protocol.md were not found";
  // The examples run in document order and share one scratch folder, as the
  // register-then-list pair needs.
  for (const DocExample& example : examples) {
    int exit_status = -1;
    const std::vector<std::string> printed = Run(example, &exit_status);
    EXPECT_EQ(exit_status, example.exit_status) << example.title;
    EXPECT_EQ(Joined(Comparable(printed)), Joined(Comparable(example.lines)))
        << example.title << ": the binary printed\n" << Joined(printed);
  }
}

// The event types the sources can write: records composed as JSON text or
// through JsonObject, and the emitter's own typed events.
std::set<std::string> EventTypesInSources() {
  static const std::regex composed(R"re(\\"type\\":\\"([a-z-]+))re");
  static const std::regex emitted(R"re((?:TypedMessage\(|\{"type", |AddString\("type", )"([a-z-]+)")re");
  std::set<std::string> types;
  const std::filesystem::path sources = std::filesystem::path(KERROW_SOURCE_DIR) / "src";
  for (const auto& entry : std::filesystem::recursive_directory_iterator(sources)) {
    if (entry.path().extension() != ".cc") continue;
    const std::string text = ReadFileBytes(entry.path().string());
    for (const std::regex* pattern : {&composed, &emitted}) {
      for (std::sregex_iterator it(text.begin(), text.end(), *pattern), end; it != end; ++it) {
        types.insert((*it)[1]);
      }
    }
  }
  return types;
}

TEST(ProtocolReference, DocumentsEveryEventTypeTheSourcesWrite) {
  const std::string doc = ReadFileBytes(std::string(KERROW_SOURCE_DIR) + "/docs/protocol.md");
  const std::set<std::string> types = EventTypesInSources();
  // ready, log, error, complete, first-pass, punctuated, result, ok, speakers,
  // identify-result: fewer means the scan itself broke.
  EXPECT_GE(types.size(), 10u);
  for (const std::string& type : types) {
    EXPECT_NE(doc.find("\"type\":\"" + type + "\""), std::string::npos)
        << "event type " << type << " is written by the sources but not documented";
  }
}

}  // namespace
}  // namespace kerrow::testing
