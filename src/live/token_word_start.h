#ifndef KERROW_LIVE_TOKEN_WORD_START_H_
#define KERROW_LIVE_TOKEN_WORD_START_H_

#include <string>

namespace kerrow {

// True when a recognizer token begins a new word, so that text committed up
// to (not including) it ends on a word boundary: a token that starts with a
// blank or the word-start mark U+2581 of sentencepiece-style token sets, or a
// CJK character (each of which stands on its own).
bool TokenStartsWord(const std::string& token);

}  // namespace kerrow

#endif  // KERROW_LIVE_TOKEN_WORD_START_H_
