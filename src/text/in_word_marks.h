#ifndef KERROW_TEXT_IN_WORD_MARKS_H_
#define KERROW_TEXT_IN_WORD_MARKS_H_

#include <string>

namespace kerrow {

// The punctuation model is given text without marks, so the apostrophe of
// "don't", the hyphen of "well-known" or the colon of "3:30" would come back
// lost ("dont"), which changes the word. A mark counts as inside a word when it
// is one ASCII mark, or the typographic apostrophe "’", with an ASCII letter
// or digit right before it and right after it.
//
// Returns `punctuated` (the model's output for `original`) with every such
// mark of `original` put back between the same two word characters, replacing
// whatever the model wrote between them. The two texts are aligned by their
// word characters (CollectWordChars); when those differ the output is
// returned unchanged, since there is then no safe place to put a mark.
std::string RestoreInWordMarks(const std::string& original,
                               const std::string& punctuated);

}  // namespace kerrow

#endif  // KERROW_TEXT_IN_WORD_MARKS_H_
