#ifndef KERROW_TEXT_PIECE_JOIN_H_
#define KERROW_TEXT_PIECE_JOIN_H_

#include <string>

namespace kerrow {

// Appends `piece` to *text the way the recognizers space their own output: a
// blank goes in only where Latin text meets Latin text, i.e. when *text ends
// in an ASCII letter, digit or closing ASCII mark (. , ! ? ; :) and `piece`
// starts with an ASCII letter or digit ("world" + "how", "café." + "Hello").
// CJK text and full-width marks are written without blanks, so "好。" + "我"
// stays joined.
void AppendTextPiece(const std::string& piece, std::string* text);

}  // namespace kerrow

#endif  // KERROW_TEXT_PIECE_JOIN_H_
