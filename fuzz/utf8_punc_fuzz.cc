// Recognizer text, broken UTF-8 included: stepping never leaves the text or
// stalls, and stripping punctuation keeps every other character in order.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "common/utf8_punc.h"

namespace {

void CheckStepping(const std::string& text) {
  size_t pos = 0;
  while (pos < text.size()) {
    const size_t step = kerrow::Utf8StepAt(text, pos);
    FUZZ_CHECK(step >= 1 && pos + step <= text.size(), "a step outside the text");
    pos += step;
    FUZZ_CHECK(kerrow::PrevUtf8Start(text, pos) < pos, "stepping back did not move back");
  }
  FUZZ_CHECK(kerrow::Utf8StepAt(text, text.size()) == 0, "a step past the end");
}

void CheckPlainCharacters(const std::string& text) {
  std::vector<std::string> tokens;
  std::vector<size_t> positions;
  kerrow::CollectPlainTokens(text, &tokens, &positions);
  FUZZ_CHECK(tokens.size() == positions.size(), "tokens and positions differ in number");
  std::string joined;
  size_t previous_end = 0;
  for (size_t i = 0; i < tokens.size(); ++i) {
    FUZZ_CHECK(positions[i] >= previous_end, "tokens out of order or overlapping");
    FUZZ_CHECK(text.compare(positions[i], tokens[i].size(), tokens[i]) == 0, "a token not in the text");
    previous_end = positions[i] + tokens[i].size();
    joined += tokens[i];
  }
  // What the punctuation model is given is exactly the plain characters.
  FUZZ_CHECK(kerrow::StripPuncForPuncModel(text) == joined, "stripping lost or added a character");
  if (!tokens.empty()) {
    const std::vector<std::string> tail(tokens.begin() + static_cast<long>(tokens.size() / 2), tokens.end());
    const size_t found = kerrow::FindLastTokenSubseq(tokens, tail);
    FUZZ_CHECK(found != std::string::npos && found + tail.size() <= tokens.size(), "a tail not found");
    for (size_t i = 0; i < tail.size(); ++i) FUZZ_CHECK(tokens[found + i] == tail[i], "a wrong match");
  }
}

void CheckSentenceEnds(const std::string& text) {
  std::string popped = text;
  if (kerrow::PopOneTerminalPunc(&popped)) {
    FUZZ_CHECK(popped.size() < text.size() && text.compare(0, popped.size(), popped) == 0,
               "popping a mark changed more than the end");
  } else {
    FUZZ_CHECK(popped == text, "a failed pop changed the text");
  }
  const std::string stripped = kerrow::StripTerminalPunc(text);
  FUZZ_CHECK(text.compare(0, stripped.size(), stripped) == 0, "stripping the end changed the start");
  const std::string ensured = kerrow::EnsureTerminalPunc(text);
  FUZZ_CHECK(ensured.compare(0, text.size(), text) == 0, "completing the end changed the text");
  FUZZ_CHECK(text.empty() == ensured.empty(), "an empty text gained a mark or a text was lost");
  for (int count = 0; count < 4; ++count) {
    const std::string suffix = kerrow::Utf8SuffixByCodepoints(text, count);
    FUZZ_CHECK(suffix.empty() || kerrow::EndsWith(text, suffix), "a suffix that is not one");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  CheckStepping(text);
  CheckPlainCharacters(text);
  CheckSentenceEnds(text);
  return 0;
}
