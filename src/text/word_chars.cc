#include "text/word_chars.h"

#include <cctype>

#include "common/utf8_punc.h"

namespace kerrow {
namespace {

bool IsBlankToken(const std::string& token) {
  return token.size() == 1 &&
         std::isspace(static_cast<unsigned char>(token[0])) != 0;
}

}  // namespace

WordChars CollectWordChars(const std::string& text) {
  std::vector<std::string> tokens;
  std::vector<size_t> positions;
  CollectPlainTokens(text, &tokens, &positions);
  WordChars result;
  for (size_t i = 0; i < tokens.size(); ++i) {
    if (IsBlankToken(tokens[i])) continue;
    result.chars.push_back(tokens[i]);
    result.offsets.push_back(positions[i]);
  }
  return result;
}

bool IsPrefixOf(const std::vector<std::string>& prefix,
                const std::vector<std::string>& whole) {
  if (prefix.size() > whole.size()) return false;
  for (size_t i = 0; i < prefix.size(); ++i) {
    if (prefix[i] != whole[i]) return false;
  }
  return true;
}

}  // namespace kerrow
