// Text on its way through the punctuation model, with a model that puts any
// marks at word ends and may drop its tail: whatever the model does, no word
// of the text is lost or changed, and a word with an apostrophe inside keeps it.
#include <fuzzer/FuzzedDataProvider.h>

#include <cctype>
#include <cstdio>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "engine/punc_backend.h"
#include "fake_punc_backend.h"
#include "fuzz_check.h"
#include "support/strict_json.h"
#include "text/punc_refine.h"
#include "common/utf8_punc.h"

namespace {

// The text's characters without punctuation and white space: what must be the
// same before and after punctuation.
std::string WordCharacters(const std::string& text) {
  std::vector<std::string> tokens;
  kerrow::CollectPlainTokens(text, &tokens);
  std::string chars;
  for (const std::string& token : tokens) {
    if (token.size() == 1 && std::isspace(static_cast<unsigned char>(token[0])) != 0) continue;
    chars += token;
  }
  return chars;
}

bool IsAsciiLetter(char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; }

// Words such as "don't" and "it's": letters on both sides of each apostrophe.
std::vector<std::string> ApostropheWords(const std::string& text) {
  std::vector<std::string> words;
  size_t pos = 0;
  while (pos < text.size()) {
    if (!IsAsciiLetter(text[pos])) {
      ++pos;
      continue;
    }
    size_t end = pos;
    bool inner_mark = false;
    while (end < text.size()) {
      if (IsAsciiLetter(text[end])) {
        ++end;
      } else if (text[end] == '\'' && end + 1 < text.size() && IsAsciiLetter(text[end + 1])) {
        inner_mark = true;
        ++end;
      } else {
        break;
      }
    }
    if (inner_mark) words.push_back(text.substr(pos, end - pos));
    pos = end;
  }
  return words;
}

// Recognizers hand over well-formed UTF-8; broken bytes still go through
// every path (nothing may crash on them), but what counts as a word inside
// them is a matter of taste, so only well-formed text is held to the words.
void CheckKeepsWords(const char* path, const std::string& input, const std::string& output) {
  if (!kerrow::testing::StrictJson::IsValidUtf8(input)) return;
  const bool same_words = WordCharacters(output) == WordCharacters(input);
  bool kept_apostrophes = true;
  for (const std::string& word : ApostropheWords(input)) {
    kept_apostrophes = kept_apostrophes && output.find(word) != std::string::npos;
  }
  if (!same_words || !kept_apostrophes) {
    std::fprintf(stderr, "%s\n  in:  [%s]\n  out: [%s]\n", path, input.c_str(), output.c_str());
  }
  FUZZ_CHECK(same_words, "punctuation lost or changed a word");
  FUZZ_CHECK(kept_apostrophes, "a word lost its inner apostrophe");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  const std::string text = input.ConsumeRandomLengthString(512);
  // The live path punctuates each segment with the end of the one before it
  // in front; that context is what the previous call left behind.
  const std::string previous = input.ConsumeRandomLengthString(128);
  const int context_codepoints = input.ConsumeIntegralInRange<int>(-1, 12);
  const bool is_final = input.ConsumeBool();
  const std::vector<uint8_t> script = input.ConsumeRemainingBytes<uint8_t>();
  kerrow::SetFakePuncScript(script.data(), script.size());

  kerrow::PuncBackend punc;
  punc.Init(kerrow::PuncInitOptions{}, nullptr);
  CheckKeepsWords("RefineTextWithPunc", text, kerrow::RefineTextWithPunc(&punc, nullptr, text));
  CheckKeepsWords("RefineRealtimeTextWithPunc", text,
                  kerrow::RefineRealtimeTextWithPunc(&punc, nullptr, text, is_final));
  std::string context;
  CheckKeepsWords("ApplyRealtimePunc", previous,
                  kerrow::ApplyRealtimePunc(&punc, nullptr, previous, &context, context_codepoints, false));
  if (!kerrow::testing::StrictJson::IsValidUtf8(previous)) return 0;
  CheckKeepsWords("ApplyRealtimePunc after another segment", text,
                  kerrow::ApplyRealtimePunc(&punc, nullptr, text, &context, context_codepoints, is_final));
  return 0;
}
