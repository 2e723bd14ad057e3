#include "text/piece_join.h"

#include <cctype>
#include <string_view>

namespace kerrow {
namespace {

bool IsAsciiAlnum(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0;
}

// The last character of a Latin word, or the ASCII mark that closes a word
// or sentence (an opening bracket or quote wants no blank after it).
bool EndsLatinText(char c) {
  return IsAsciiAlnum(c) || std::string_view(".,!?;:").find(c) != std::string_view::npos;
}

}  // namespace

void AppendTextPiece(const std::string& piece, std::string* text) {
  if (text == nullptr) return;
  if (!text->empty() && !piece.empty() && EndsLatinText(text->back()) &&
      IsAsciiAlnum(piece.front())) {
    text->push_back(' ');
  }
  text->append(piece);
}

}  // namespace kerrow
