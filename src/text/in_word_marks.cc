#include "text/in_word_marks.h"

#include <cctype>
#include <cstddef>
#include <string_view>
#include <vector>

#include "common/utf8_punc.h"
#include "text/word_chars.h"

namespace kerrow {
namespace {

constexpr std::string_view kTypographicApostrophe = "’";

// A mark of the original text that stands inside a word, and the number of
// word characters in front of it: it belongs between word characters
// `word_index - 1` and `word_index`.
struct InWordMark {
  size_t word_index = 0;
  std::string mark;
};

bool IsAsciiAlnumAt(std::string_view text, size_t pos) {
  return pos < text.size() &&
         std::isalnum(static_cast<unsigned char>(text[pos])) != 0;
}

bool IsSingleByteBlank(std::string_view text, size_t pos, size_t step) {
  return step == 1 && std::isspace(static_cast<unsigned char>(text[pos])) != 0;
}

bool IsInWordMark(std::string_view text, size_t pos, size_t step) {
  const std::string_view mark = text.substr(pos, step);
  if (step != 1 && mark != kTypographicApostrophe) return false;
  return pos > 0 && IsAsciiAlnumAt(text, pos - 1) &&
         IsAsciiAlnumAt(text, pos + step);
}

// Walks the text as CollectWordChars does, so that the word indexes of the
// marks match the offsets it reports.
std::vector<InWordMark> FindInWordMarks(const std::string& text) {
  std::vector<InWordMark> marks;
  size_t word_index = 0;
  for (size_t pos = 0; pos < text.size();) {
    const size_t step = Utf8StepAt(text, pos);
    if (ShouldStripPuncToken(text, pos, step)) {
      if (IsInWordMark(text, pos, step)) {
        marks.push_back({word_index, text.substr(pos, step)});
      }
    } else if (!IsSingleByteBlank(text, pos, step)) {
      ++word_index;
    }
    pos += step;
  }
  return marks;
}

}  // namespace

std::string RestoreInWordMarks(const std::string& original,
                               const std::string& punctuated) {
  const std::vector<InWordMark> marks = FindInWordMarks(original);
  if (marks.empty()) return punctuated;
  const WordChars want = CollectWordChars(original);
  const WordChars got = CollectWordChars(punctuated);
  if (got.chars != want.chars) return punctuated;

  std::string restored;
  restored.reserve(punctuated.size() + marks.size() * 3);
  size_t copied_up_to = 0;
  for (const InWordMark& mark : marks) {
    // Both neighbours are word characters, so 0 < word_index < chars.size().
    const size_t before = mark.word_index - 1;
    const size_t gap_start = got.offsets[before] + got.chars[before].size();
    const size_t gap_end = got.offsets[mark.word_index];
    restored.append(punctuated, copied_up_to, gap_start - copied_up_to);
    restored += mark.mark;
    copied_up_to = gap_end;
  }
  restored.append(punctuated, copied_up_to, std::string::npos);
  return restored;
}

}  // namespace kerrow
