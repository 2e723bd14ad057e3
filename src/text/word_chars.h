#ifndef KERROW_TEXT_WORD_CHARS_H_
#define KERROW_TEXT_WORD_CHARS_H_

#include <cstddef>
#include <string>
#include <vector>

namespace kerrow {

// The characters that make up a text's words, as the punctuation paths compare
// an input with the punctuation model's output: every character that is
// neither punctuation nor single-byte white space (the library drops the blank
// after a full-width mark, so blanks cannot be compared), each with its byte
// offset in the text. Two texts with equal `chars` say the same words.
struct WordChars {
  std::vector<std::string> chars;
  std::vector<size_t> offsets;
};

WordChars CollectWordChars(const std::string& text);

// True when `prefix` is a leading run of `whole`.
bool IsPrefixOf(const std::vector<std::string>& prefix,
                const std::vector<std::string>& whole);

}  // namespace kerrow

#endif  // KERROW_TEXT_WORD_CHARS_H_
